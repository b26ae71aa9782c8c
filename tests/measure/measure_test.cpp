// vyra::Measure, the quiet measurement: frame times, key frames and launch
// time, ranges, regions, videos, visual progress and progress reports (bad
// input: tools/bad_input_test.cpp). Recordings are white frames followed by one textured page (the
// load-finished frame is the first page frame, identical to the last), or
// pages of solid parts whose visual progress is a ratio of pixel counts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraAnalyzer.h"
#include "VyraMeasure.h"
#include "fixtures.h"

using namespace vyra_test;

namespace {

constexpr int kW = 180, kH = 320;
const double kNaN = std::nan("");

cv::Mat white() { return solidFrame(kW, kH); }
cv::Mat page() { return texturedFrame(kW, kH, 7); }

std::vector<cv::Mat> launch(int blanks, int pages) {
    std::vector<cv::Mat> frames(static_cast<size_t>(blanks), white());
    frames.insert(frames.end(), static_cast<size_t>(pages), page());
    return frames;
}

std::string msName(long long ms) {
    char name[32];
    std::snprintf(name, sizeof name, "%08lld.png", ms);
    return name;
}

std::string writeTimed(const fs::path& dir, const std::vector<cv::Mat>& frames, const std::vector<long long>& timesMs) {
    std::vector<std::string> names;
    for (long long t : timesMs) names.push_back(msName(t));
    writePngFolder(dir, names, frames);
    return dir.string();
}

vyra::MeasureOptions options(void (*change)(vyra::MeasureOptions&)) {
    vyra::MeasureOptions o;
    change(o);
    return o;
}

vyra::MeasureOptions frameRate(double fps) {
    vyra::MeasureOptions o;
    o.timing = vyra::Timing::FrameRate;
    o.fps = fps;
    return o;
}

VyraStatus statusOf(const std::string& path, const vyra::MeasureOptions& o, std::string* message = nullptr) {
    try {
        vyra::Measure(path, o);
    } catch (const vyra::MeasureError& e) {
        if (message != nullptr) *message = e.what();
        return e.status();
    }
    return VYRA_OK;
}

void expectKey(const vyra::KeyFrame& key, int index, double time, const std::string& what) {
    EXPECT_EQ(key.index, index) << what;
    if (std::isnan(time)) {
        EXPECT_TRUE(std::isnan(key.time)) << what;
    } else {
        EXPECT_NEAR(key.time, time, 1e-9) << what;
    }
}

}  // namespace

TEST(Measure, FrameTimesKeyFramesAndLaunchTimeFollowTheTimingTheRangeAndTheMode) {
    TempDir dir;
    // 4 white frames then 6 page frames, named by these capture times.
    const std::vector<long long> times = {1000, 1033, 1100, 1180, 1250, 1290, 1400, 1433, 1500, 1600};
    const std::string rec = writeTimed(dir / "rec", launch(4, 6), times);
    const vyra::MeasureResult r = vyra::Measure(rec);
    ASSERT_EQ(r.frameTimes.size(), 10u);
    for (size_t k = 0; k < 10; ++k) EXPECT_DOUBLE_EQ(r.frameTimes[k], (times[k] - 1000) / 1000.0) << k;
    EXPECT_EQ(r.frameWidth, kW);
    EXPECT_EQ(r.frameHeight, kH);
    expectKey(r.firstFrame, 4, 0.25, "first frame");
    expectKey(r.logoAppear, -1, kNaN, "logo appear");
    expectKey(r.motionStart, -1, kNaN, "motion start");
    EXPECT_EQ(r.estimatedTimeCount, 0u);
    EXPECT_EQ(r.analysis.staticResult.objectCounts.size(), 10u);

    using O = vyra::MeasureOptions;
    const struct {
        const char* what;
        vyra::MeasureOptions options;
        size_t frames;
        int loadFinished;
        double loadFinishedTime, launchTime;
        int baseline;
        double baselineTime;
    } cases[] = {
        {"defaults", O(), 10, 4, 0.25, 0.25, 9, 0.6},
        {"next frame", options([](O& o) { o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }), 10, 4, 0.25, 0.29, 9, 0.6},
        {"frame rate", frameRate(20), 10, 4, 0.2, 0.2, 9, 0.45},
        {"frame rate, next frame", options([](O& o) { o = frameRate(20), o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }),
         10, 4, 0.2, 0.25, 9, 0.45},
        {"range 2-7", options([](O& o) { o.start = 2, o.end = 7; }), 6, 2, 0.15, 0.15, 5, 0.333},
        {"range 2-7, next frame", options([](O& o) { o.start = 2, o.end = 7, o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }),
         6, 2, 0.15, 0.19, 5, 0.333},
        {"end 0", options([](O& o) { o.start = -3, o.end = 0; }), 10, 4, 0.25, 0.25, 9, 0.6},
        {"end 1", options([](O& o) { o.end = 1; }), 10, 4, 0.25, 0.25, 9, 0.6},
        {"end past the last", options([](O& o) { o.start = 8, o.end = 100; }), 2, 0, 0.0, 0.0, 1, 0.1},
        // The frame after the range's last is the recording's next file.
        {"end 4, next frame", options([](O& o) { o.end = 4, o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }),
         5, 4, 0.25, 0.29, 4, 0.25},
        {"end 4, frame rate, next frame",
         options([](O& o) { o = frameRate(10), o.end = 4, o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }), 5, 4, 0.4,
         0.5, 4, 0.4},
    };
    for (const auto& c : cases) {
        const vyra::MeasureResult m = vyra::Measure(rec, c.options);
        EXPECT_EQ(m.frameCount, c.frames) << c.what;
        expectKey(m.loadFinished, c.loadFinished, c.loadFinishedTime, c.what);
        EXPECT_NEAR(m.launchTime, c.launchTime, 1e-9) << c.what;
        expectKey(m.baseline, c.baseline, c.baselineTime, c.what);
        EXPECT_EQ(m.timing, c.options.timing);
        EXPECT_EQ(m.fps, c.options.timing == vyra::Timing::FrameRate ? c.options.fps : 0.0);
        EXPECT_EQ(m.launchTimeMode, c.options.launchTimeMode);
        EXPECT_EQ(m.analysis.loadFinishedIndex, c.loadFinished);
    }

    const vyra::MeasureResult dynamic = vyra::Measure(rec, options([](O& o) { o.pageType = DYNAMIC_PAGE; }));
    expectKey(dynamic.motionStart, 3, 0.18, "motion start");  // just before the first non-blank frame
    expectKey(dynamic.baseline, -1, kNaN, "baseline of a dynamic page");
    EXPECT_FALSE(dynamic.analysis.dynamicResult.featureMatchingResults.empty());
    EXPECT_TRUE(dynamic.analysis.staticResult.objectCounts.empty());
}

TEST(Measure, NothingFoundIsNotAnErrorAndTheStableBaselineEndsTheFirstStableRun) {
    TempDir dir;
    const std::string blank = writeTimed(dir / "blank", launch(6, 0), {0, 40, 80, 120, 160, 200});
    for (const auto mode : {vyra::LaunchTimeMode::LoadFinishedFrame, vyra::LaunchTimeMode::NextFrame}) {
        vyra::MeasureOptions o;
        o.launchTimeMode = mode;
        const vyra::MeasureResult r = vyra::Measure(blank, o);
        expectKey(r.loadFinished, -1, kNaN, "nothing loads");
        EXPECT_TRUE(std::isnan(r.launchTime));
        expectKey(r.baseline, 5, 0.2, "baseline");
    }
    // The frame after the last frame of the recording has time 0: 0 - 1000 ms.
    const std::string late = writeTimed(dir / "late", launch(4, 1), {1000, 1100, 1200, 1300, 1400});
    vyra::MeasureOptions next;
    next.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    EXPECT_DOUBLE_EQ(vyra::Measure(late, next).launchTime, -1.0);

    const cv::Mat other = texturedFrame(kW, kH, 8, 4);  // its boxes meet none of the page's
    const std::string twoPages = writeTimed(dir / "two", {white(), white(), page(), page(), page(), other, other},
                                            {0, 100, 200, 300, 400, 500, 600});
    vyra::MeasureOptions stable;
    const vyra::MeasureResult last = vyra::Measure(twoPages, stable);
    EXPECT_EQ(last.baseline.index, 6);
    EXPECT_EQ(last.loadFinished.index, 5);
    stable.stableBaseline = true;
    const vyra::MeasureResult first = vyra::Measure(twoPages, stable);
    EXPECT_EQ(first.baseline.index, 4);
    EXPECT_DOUBLE_EQ(first.launchTime, 0.2);
}

TEST(Measure, VideosAreTimedByTheirPresentationTimestamps) {
    TempDir dir;
    const std::string mkv = (dir / "launch.mkv").string();
    ASSERT_TRUE(writeVideo(mkv, launch(3, 5), 10.0));
    const vyra::MeasureResult r = vyra::Measure(mkv);
    EXPECT_EQ(r.frameCount, 8u);
    expectKey(r.loadFinished, 3, 0.3, "constant rate");
    EXPECT_NEAR(r.frameTimes[7], 0.7, 1e-9);
    const vyra::MeasureResult part = vyra::Measure(mkv, options([](vyra::MeasureOptions& o) { o.start = 1, o.end = 5; }));
    EXPECT_EQ(part.frameCount, 5u);
    expectKey(part.loadFinished, 2, 0.2, "range of a video");
    EXPECT_EQ(part.baseline.index, 4);
    std::string message;
    EXPECT_EQ(statusOf(mkv, options([](vyra::MeasureOptions& o) { o.start = 8; }), &message), VYRA_ERROR_EMPTY);
    EXPECT_NE(message.find("8 frames"), std::string::npos) << message;
    EXPECT_EQ(statusOf(mkv, options([](vyra::MeasureOptions& o) { o.start = 3, o.end = 2; })), VYRA_ERROR_EMPTY);

    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    // Frame k shows for durations[k] ms: its timestamp is the sum of those before it.
    const std::vector<int> durations = {137, 41, 500, 13, 200, 77, 350, 90};
    const std::vector<double> pts = {0.0, 0.137, 0.178, 0.678, 0.691, 0.891, 0.968, 1.318};
    for (const std::vector<std::string>& codec : {std::vector<std::string>{"-c:v", "ffv1", "mkv"},
                                                  {"-c:v", "libx264", "-bf", "0", "-pix_fmt", "yuv420p", "-qp", "10", "mp4"}}) {
        const fs::path file = dir / ("vfr." + codec.back());
        std::string log;
        ASSERT_TRUE(writeVfrVideo(file, launch(3, 5), durations, {codec.begin(), codec.end() - 1}, &log)) << log;
        const vyra::MeasureResult v = vyra::Measure(file.string());
        ASSERT_EQ(v.frameCount, 8u);
        for (size_t k = 0; k < pts.size(); ++k) EXPECT_NEAR(v.frameTimes[k], pts[k], 1e-9) << codec.back() << " " << k;
        expectKey(v.loadFinished, 3, 0.678, codec.back());
        vyra::MeasureOptions next;
        next.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
        EXPECT_NEAR(vyra::Measure(file.string(), next).launchTime, 0.691, 1e-9);
        EXPECT_NEAR(vyra::Measure(file.string(), options([](vyra::MeasureOptions& o) { o.start = 2; })).launchTime, 0.5, 1e-9);
        EXPECT_NEAR(vyra::Measure(file.string(), frameRate(10)).launchTime, 0.3, 1e-12);
    }
}

TEST(Measure, CropAndIgnoreRegionsShapeWhatIsAnalysedAndSaved) {
    TempDir dir;
    // Twice as wide: the left half is blank until frame 4, the right half shows the page throughout.
    const cv::Mat wide = texturedFrame(2 * kW, kH, 7);
    cv::Mat half = wide.clone();
    half(cv::Rect(0, 0, kW, kH)).setTo(cv::Scalar(255, 255, 255));
    const std::string halves = writeTimed(dir / "halves", {half, half, half, half, wide, wide}, {0, 50, 100, 150, 200, 250});
    const vyra::MeasureResult right = vyra::Measure(halves, options([](vyra::MeasureOptions& o) { o.crop = vyra::Region{kW, 0, kW, kH}; }));
    EXPECT_EQ(right.frameWidth, kW);
    expectKey(right.loadFinished, 0, 0.0, "right half");
    const vyra::MeasureResult left = vyra::Measure(halves, options([](vyra::MeasureOptions& o) { o.crop = vyra::Region{0, 0, kW, kH}; }));
    expectKey(left.loadFinished, 4, 0.2, "left half");

    // A ticking clock in a flat status bar: ignored, it is painted in the
    // median colour of the ring around it in the first frame, the bar's.
    const cv::Scalar bar(40, 40, 40);
    std::vector<cv::Mat> clocks;
    for (int k = 0; k < 6; ++k) clocks.push_back(statusBarFrame(kW, kH, 3, 24, bar, "9:4" + std::to_string(k)));
    const std::string rec = writeTimed(dir / "clock", clocks, {0, 100, 200, 300, 400, 500});
    EXPECT_LT(vyra::Measure(rec).analysis.staticResult.loadedPsnr, 99.99);
    vyra::MeasureOptions o;
    o.ignore = {vyra::Region{4, 4, 60, 16}};
    o.saveFramesDir = (dir / "seen").string();
    EXPECT_DOUBLE_EQ(vyra::Measure(rec, o).analysis.staticResult.loadedPsnr, 99.99);
    const cv::Mat withoutClock = statusBarFrame(kW, kH, 3, 24, bar, "");
    for (int k : {0, 5}) {
        EXPECT_EQ(cv::norm(cv::imread((dir / "seen" / msName(k)).string()), withoutClock, cv::NORM_INF), 0.0) << k;
    }

    // Saved frames are the cropped frames of the range, numbered from 0.
    const std::vector<cv::Mat> frames = launch(2, 3);
    const std::string plain = writeTimed(dir / "plain", frames, {0, 10, 20, 30, 40});
    vyra::MeasureOptions save;
    save.start = 1;
    save.crop = vyra::Region{10, 20, 64, 48};
    save.saveFramesDir = (dir / "a" / "b").string();
    vyra::Measure(plain, save);
    std::set<std::string> saved;
    for (const auto& entry : fs::directory_iterator(dir / "a" / "b")) saved.insert(entry.path().filename());
    EXPECT_EQ(saved, (std::set<std::string>{"00000000.png", "00000001.png", "00000002.png", "00000003.png"}));
    EXPECT_EQ(cv::norm(cv::imread((dir / "a" / "b" / "00000000.png").string()), frames[1](cv::Rect(10, 20, 64, 48)),
                       cv::NORM_INF),
              0.0);
}

TEST(Measure, PrintsAndWritesNothingAndReportsProgressOnTheCallingThread) {
    TempDir dir, cwd;
    // Landscape blank frames before portrait pages: aligned silently to the last frame's size.
    const std::string rec = writeTimed(dir / "rec", {solidFrame(kH, kW), solidFrame(kH, kW), page(), page(), page()},
                                       {0, 30, 60, 90, 120});
    ScopedCwd inside(cwd.path());
    std::vector<std::tuple<vyra::MeasureStage, size_t, size_t>> seen;
    int elsewhere = 0;
    vyra::MeasureOptions o;
    o.start = 1;
    const std::thread::id caller = std::this_thread::get_id();
    o.progress = [&, caller](vyra::MeasureStage stage, size_t done, size_t total) {
        seen.emplace_back(stage, done, total);
        elsewhere += std::this_thread::get_id() == caller ? 0 : 1;
    };
    const auto run = captureConsole([&] { return vyra::Measure(rec, o); });
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(fs::is_empty(cwd.path()));
    EXPECT_EQ(run.value.loadFinished.index, 1);
    EXPECT_EQ(run.value.frameWidth, kW);
    using S = vyra::MeasureStage;
    EXPECT_EQ(seen, (std::vector<std::tuple<S, size_t, size_t>>{{S::Decoding, 1, 4}, {S::Decoding, 2, 4}, {S::Decoding, 3, 4},
                                                                {S::Decoding, 4, 4}, {S::Analysing, 0, 1}, {S::Analysing, 1, 1}}));
    EXPECT_EQ(elsewhere, 0);
}

TEST(Measure, AnEarlierFramesFailureWinsOverALaterOne) {
    // (Measure against the in-memory analysis: the pins of regression/, recorded before frames streamed.)
    TempDir dir;
    // Frame 1 is too small for the ignore region, frame 3 does not decode: frame 1 is the error.
    const cv::Mat small = texturedFrame(120, 200, 5);
    const std::string broken = writeTimed(dir / "broken", {small, solidFrame(60, 100), small, small}, {0, 1, 2, 3});
    writeCorruptPng(dir / "broken" / msName(3));
    std::string message;
    EXPECT_EQ(statusOf(broken, options([](vyra::MeasureOptions& o) { o.ignore = {vyra::Region{70, 150, 20, 20}}; }), &message),
              VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(message.find(msName(1)), std::string::npos) << message;
    EXPECT_EQ(statusOf(broken, vyra::MeasureOptions(), &message), VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find(msName(3)), std::string::npos) << message;
}

TEST(Measure, VisualProgressFollowsThePixelCountsOfWhatAppears) {
    // Grid 15552 px, image 576 px (see pageFrame).
    const cv::Mat blank = pageFrame(false), grid = pageFrame(true), full = pageFrame(true, true);
    std::vector<cv::Mat> noisy, clock, still;
    for (int k = 0; k < 10; ++k) noisy.push_back(withNoise(pageFrame(k >= 1), 6, 100u + static_cast<unsigned>(k)));
    for (int k = 0; k < 8; ++k) clock.push_back(pageFrame(k >= 1, false, false, "12:0" + std::to_string(k)));
    for (int k = 0; k < 30; ++k) still.push_back(pageFrame(k >= 2, k >= 2));
    const std::vector<long long> tenths = {0, 100, 200, 300, 400, 500, 600, 700, 800, 900};
    using O = vyra::MeasureOptions;
    const struct {
        const char* what;
        std::vector<cv::Mat> frames;
        std::vector<long long> timesMs;  // empty: a 10 fps MPEG-4 video
        vyra::MeasureOptions options;
        std::vector<double> progress;  // empty: not checked
        int first, last, complete95, complete99;  // -2: not checked
        double speedIndexMs;                      // -1: not checked
        int tolerance;                            // -2: not checked
    } cases[] = {
        // The late image: before it 15552 of 16128 changed pixels, 27/28.
        {"late image", {blank, blank, grid, grid, full, full}, {0, 100, 200, 1200, 2200, 2300}, O(),
         {0, 0, 27.0 / 28, 27.0 / 28, 1, 1}, 2, 4, 2, 4, 200 + 2000.0 / 28, 0},
        {"noise tolerated", noisy, tenths, options([](O& o) { o.visualProgress.levelTolerance = 20; }), {}, 1, 1, 1, 1, 100, 20},
        {"noise, auto: 0 for PNG", noisy, tenths, O(), {}, 1, 9, -2, -2, -1, 0},
        {"clock ignored", clock, {0, 100, 200, 300, 400, 500, 600, 700},
         options([](O& o) { o.ignore = {{kClockRegion[0], kClockRegion[1], kClockRegion[2], kClockRegion[3]}}; }),
         {0, 1, 1, 1, 1, 1, 1, 1}, 1, 1, 1, 1, 100, 0},
        {"clock cropped off", clock, {0, 100, 200, 300, 400, 500, 600, 700},
         options([](O& o) { o.crop = vyra::Region{0, 0, kPageWidth, kClockRegion[1]}; }), {}, 1, 1, 1, 1, 100, 0},
        {"never changes", {grid, grid, grid}, {5, 6, 7}, frameRate(4), {1, 1, 1}, -1, -1, 0, 0, 0, 0},
        {"still page in MPEG-4", still, {}, O(), {}, 2, 2, 2, 2, -1, -2},
    };
    TempDir dir;
    int n = 0;
    for (const auto& c : cases) {
        const fs::path at = dir / std::to_string(n++);
        std::string rec = at.string();
        if (c.timesMs.empty()) {
            rec += ".mp4";
            ASSERT_TRUE(writeVideo(rec, c.frames, 10.0));
        } else {
            writeTimed(at, c.frames, c.timesMs);
        }
        const vyra::MeasureResult r = vyra::Measure(rec, c.options);
        for (size_t k = 0; k < c.progress.size(); ++k) EXPECT_DOUBLE_EQ(r.visual.progress.at(k), c.progress[k]) << c.what << " " << k;
        const auto time = [&](int index) { return index < 0 ? kNaN : r.frameTimes[static_cast<size_t>(index)]; };
        expectKey(r.firstVisualChange, c.first, time(c.first), std::string(c.what) + ": first change");
        expectKey(r.lastVisualChange, c.last, time(c.last), std::string(c.what) + ": last change");
        if (c.complete95 >= -1) expectKey(r.visuallyComplete95, c.complete95, time(c.complete95), c.what);
        if (c.complete99 >= -1) expectKey(r.visuallyComplete99, c.complete99, time(c.complete99), c.what);
        if (c.speedIndexMs >= 0) {
            EXPECT_NEAR(r.speedIndexMs, c.speedIndexMs, 1e-9) << c.what;
        }
        if (c.tolerance >= 0) {
            EXPECT_EQ(r.visual.levelTolerance, c.tolerance) << c.what;
        }
        EXPECT_EQ(r.visual.levelToleranceEstimated, c.options.visualProgress.levelTolerance < 0) << c.what;
        EXPECT_EQ(r.speedIndexMs, r.visual.speedIndexMs);
    }
}

TEST(Measure, AReportCarriesEachFramesObjectsAndContentLevelOnlyWhenAsked) {
    TempDir dir;
    const std::vector<cv::Mat> frames = {pageFrame(false), pageFrame(false), pageFrame(true), pageFrame(true, true)};
    const std::string rec = writeTimed(dir / "rec", frames, {0, 250, 400, 1000});
    vyra::MeasureOptions o;
    o.report.collect = true;
    const vyra::MeasureResult r = vyra::Measure(rec, o);
    ASSERT_TRUE(r.report);  // the pictures: tests/report/
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    ASSERT_EQ(r.report->objectCounts.size(), frames.size());
    for (size_t f = 0; f < frames.size(); ++f) {
        cv::Mat frame = frames[f];
        vyra::Image image(frame, static_cast<int>(f));
        EXPECT_EQ(r.report->objectCounts[f], image.GetImageObjectsSize()) << f;
        EXPECT_EQ(r.report->contentLevels[f], analyzer.DetectImageContentLevel(image)) << f;
    }
    EXPECT_EQ(r.report->objectCountThreshold, 200);
    EXPECT_DOUBLE_EQ(r.report->contentRatioThreshold, 0.15);
    o.report.collect = false;
    EXPECT_FALSE(vyra::Measure(rec, o).report);
}
