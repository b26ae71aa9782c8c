// Visual progress through vyra::Measure: recordings of solid-part pages whose
// progress, visual change frames and speed index follow from their pixel
// counts and chosen times; key frame times are the frames' own times.
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VyraAnalyzer.h"
#include "VyraImage.h"
#include "VyraMeasure.h"
#include "fixtures.h"

namespace {

using namespace vyra_test;

// A PNG folder whose frame k is named by timesMs[k] (zero-padded).
std::string writeTimedFolder(const TempDir& dir, const std::vector<int>& timesMs,
                             const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (int t : timesMs) {
        char name[32];
        std::snprintf(name, sizeof name, "%06d.png", t);
        names.push_back(name);
    }
    writePngFolder(dir / "rec", names, frames);
    return (dir / "rec").string();
}

void expectKey(const vyra::KeyFrame& key, int index, double time, const char* what) {
    EXPECT_EQ(key.index, index) << what;
    if (std::isnan(time)) {
        EXPECT_TRUE(std::isnan(key.time)) << what;
    } else {
        EXPECT_DOUBLE_EQ(key.time, time) << what;
    }
}

// Every key frame's time is the time of that frame itself.
void expectOwnTimes(const vyra::MeasureResult& r) {
    for (const vyra::KeyFrame* key : {&r.loadFinished, &r.baseline, &r.firstFrame, &r.firstVisualChange,
                                      &r.lastVisualChange, &r.visuallyComplete85, &r.visuallyComplete95,
                                      &r.visuallyComplete99}) {
        if (key->index >= 0) {
            EXPECT_EQ(key->time, r.frameTimes.at(static_cast<size_t>(key->index)));
        }
    }
}

TEST(VisualMeasure, LateImageSetsVisuallyComplete99WhileTheLoadFinishedFrameIsEarlier) {
    // White, white, the grid at 0.2 s and 1.2 s, the last image 2 s after the
    // grid, then held. Before the image a frame has covered 15552 of the
    // 16128 changed pixels: progress 27/28 = 0.964, above 0.85 and 0.95, not 0.99.
    TempDir dir;
    const cv::Mat white = pageFrame(false);
    const cv::Mat grid = pageFrame(true);
    const cv::Mat full = pageFrame(true, true);
    const std::string rec =
        writeTimedFolder(dir, {0, 100, 200, 1200, 2200, 2300}, {white, white, grid, grid, full, full});
    const vyra::MeasureResult r = vyra::Measure(rec);

    const double before = 27.0 / 28.0;
    const std::vector<double> expected = {0.0, 0.0, before, before, 1.0, 1.0};
    ASSERT_EQ(r.visual.progress.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) EXPECT_DOUBLE_EQ(r.visual.progress[k], expected[k]) << k;
    expectKey(r.firstVisualChange, 2, 0.2, "first change");
    expectKey(r.lastVisualChange, 4, 2.2, "last change");
    expectKey(r.visuallyComplete85, 2, 0.2, "complete 85");
    expectKey(r.visuallyComplete95, 2, 0.2, "complete 95");
    expectKey(r.visuallyComplete99, 4, 2.2, "complete 99");
    // 0.1 s + 0.1 s at progress 0, 2 s at 27/28.
    EXPECT_NEAR(r.speedIndexMs, 200.0 + 2000.0 / 28.0, 1e-9);
    EXPECT_DOUBLE_EQ(r.visual.visuallyComplete99Ms, 2200.0);
    EXPECT_DOUBLE_EQ(r.visual.speedIndexMs, r.speedIndexMs);

    // Both are reported: the load-finished frame shows content (not before
    // the grid) and is not after the image.
    ASSERT_GE(r.loadFinished.index, 2);
    EXPECT_LE(r.loadFinished.index, 4);
    EXPECT_EQ(r.launchTime, r.loadFinished.time);
    expectOwnTimes(r);
}

TEST(VisualMeasure, ScreencastWhoseLastFrameIsTheLoadedPageTakesThatFramesTime) {
    // Frames named by capture time from 1000 ms; only the last one shows the
    // loaded page, so it is baseline and load-finished frame at 2.0 s.
    TempDir dir;
    const std::vector<cv::Mat> launch = launchSequence();
    const std::vector<cv::Mat> frames(launch.begin(), launch.begin() + 5);
    const std::string rec = writeTimedFolder(dir, {1000, 1500, 2000, 2500, 3000}, frames);

    const vyra::MeasureResult r = vyra::Measure(rec);
    expectKey(r.loadFinished, 4, 2.0, "load finished");
    expectKey(r.baseline, 4, 2.0, "baseline");
    EXPECT_DOUBLE_EQ(r.launchTime, 2.0);
    expectKey(r.visuallyComplete99, 4, 2.0, "complete 99");
    expectKey(r.lastVisualChange, 4, 2.0, "last change");
    expectKey(r.firstVisualChange, 1, 0.5, "first change");
    expectOwnTimes(r);

    // The historic definition reads the frame after it; there is none, and
    // its absolute time reads as 0: 0 - 1000 ms.
    vyra::MeasureOptions next;
    next.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    const vyra::MeasureResult h = vyra::Measure(rec, next);
    EXPECT_DOUBLE_EQ(h.launchTime, -1.0);
    expectKey(h.loadFinished, 4, 2.0, "load finished, next-frame mode");
}

TEST(VisualMeasure, SpinnerThatReturnsMovesVisuallyCompleteToTheLastCrossing) {
    // The page is complete at 0.1 s, a spinner (576 of the 15552 changed
    // pixels' worth of difference) reappears at 0.3 s and 0.4 s, and goes at 0.5 s.
    TempDir dir;
    const cv::Mat white = pageFrame(false);
    const cv::Mat grid = pageFrame(true);
    const cv::Mat spinner = pageFrame(true, false, true);
    const std::string rec = writeTimedFolder(dir, {0, 100, 200, 300, 400, 500, 600},
                                             {white, grid, grid, spinner, spinner, grid, grid});
    const vyra::MeasureResult r = vyra::Measure(rec);

    const double regressed = 26.0 / 27.0;
    const std::vector<double> expected = {0.0, 1.0, 1.0, regressed, regressed, 1.0, 1.0};
    ASSERT_EQ(r.visual.progress.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) EXPECT_DOUBLE_EQ(r.visual.progress[k], expected[k]) << k;
    expectKey(r.firstVisualChange, 1, 0.1, "first change");
    expectKey(r.lastVisualChange, 5, 0.5, "last change");
    expectKey(r.visuallyComplete85, 1, 0.1, "complete 85");
    expectKey(r.visuallyComplete95, 1, 0.1, "complete 95");   // 26/27 = 0.963 stays above 0.95
    expectKey(r.visuallyComplete99, 5, 0.5, "complete 99");   // the last crossing, not frame 1
    EXPECT_NEAR(r.speedIndexMs, 100.0 + 2.0 * 100.0 / 27.0, 1e-9);
    expectOwnTimes(r);
}

// White at 0 ms, the grid from 100 ms on, 10 frames in all, each with its own
// noise of +-6 levels on every channel of every pixel.
std::string writeNoisyFolder(const TempDir& dir) {
    std::vector<cv::Mat> frames;
    std::vector<int> times;
    for (int k = 0; k < 10; ++k) {
        frames.push_back(withNoise(pageFrame(k >= 1), 6, 100u + static_cast<unsigned>(k)));
        times.push_back(100 * k);
    }
    return writeTimedFolder(dir, times, frames);
}

TEST(VisualMeasure, NoiseOnEveryFrameIsNoVisualChange) {
    TempDir dir;
    const std::string rec = writeNoisyFolder(dir);
    vyra::MeasureOptions tolerant;
    tolerant.visualProgress.levelTolerance = 20;
    const vyra::MeasureResult r = vyra::Measure(rec, tolerant);
    expectKey(r.firstVisualChange, 1, 0.1, "first change");
    expectKey(r.lastVisualChange, 1, 0.1, "last change");
    expectKey(r.visuallyComplete99, 1, 0.1, "complete 99");
    EXPECT_NEAR(r.speedIndexMs, 100.0, 1e-9);

    // Without tolerance, the noise moves some block mean on every frame. A
    // folder of PNG files is lossless, so the tolerance read from it is 0.
    for (const int tolerance : {0, vyra::kVisualProgressLevelToleranceAuto}) {
        vyra::MeasureOptions strict;
        strict.visualProgress.levelTolerance = tolerance;
        const vyra::MeasureResult s = vyra::Measure(rec, strict);
        expectKey(s.lastVisualChange, 9, 0.9, "last change without tolerance");
        EXPECT_EQ(s.visual.levelTolerance, 0);
        EXPECT_EQ(s.visual.levelToleranceEstimated, tolerance < 0);
    }
}

TEST(VisualMeasure, CompressedVideoOfAStillPageHasNoLateChange) {
    // MPEG-4 part 2 at 10 fps, a key frame every 12 frames: frames 12 and 24
    // re-encode the still page.
    TempDir dir;
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 30; ++k) frames.push_back(pageFrame(k >= 2, k >= 2));
    ASSERT_TRUE(writeVideo(dir / "page.mp4", frames, 10.0));
    const vyra::MeasureResult r = vyra::Measure((dir / "page.mp4").string());
    ASSERT_EQ(r.frameCount, 30u);
    expectKey(r.firstVisualChange, 2, 0.2, "first change");
    expectKey(r.lastVisualChange, 2, 0.2, "last change");
    expectKey(r.visuallyComplete99, 2, 0.2, "complete 99");
}

// White with the clock "12:00" at 0 ms, the grid from 100 ms on, the clock
// ticking every frame up to "12:07" at 700 ms.
std::string writeClockFolder(const TempDir& dir) {
    std::vector<cv::Mat> frames;
    std::vector<int> times;
    for (int k = 0; k < 8; ++k) {
        frames.push_back(pageFrame(k >= 1, false, false, "12:0" + std::to_string(k)));
        times.push_back(100 * k);
    }
    return writeTimedFolder(dir, times, frames);
}

TEST(VisualMeasure, TickingClockCountsOnlyOutsideIgnoredAndCroppedRegions) {
    TempDir dir;
    const std::string rec = writeClockFolder(dir);
    const vyra::Region clock{kClockRegion[0], kClockRegion[1], kClockRegion[2], kClockRegion[3]};

    const vyra::MeasureResult plain = vyra::Measure(rec);
    expectKey(plain.lastVisualChange, 7, 0.7, "last change, clock measured");

    vyra::MeasureOptions ignoring;
    ignoring.ignore = {clock};
    const vyra::MeasureResult ignored = vyra::Measure(rec, ignoring);
    expectKey(ignored.firstVisualChange, 1, 0.1, "first change, clock ignored");
    expectKey(ignored.lastVisualChange, 1, 0.1, "last change, clock ignored");
    expectKey(ignored.visuallyComplete99, 1, 0.1, "complete 99, clock ignored");
    for (size_t k = 1; k < 8; ++k) EXPECT_DOUBLE_EQ(ignored.visual.progress[k], 1.0) << k;
    EXPECT_NEAR(ignored.speedIndexMs, 100.0, 1e-9);

    vyra::MeasureOptions cropping;
    cropping.crop = vyra::Region{0, 0, kPageWidth, kClockRegion[1]};
    const vyra::MeasureResult cropped = vyra::Measure(rec, cropping);
    EXPECT_EQ(cropped.frameHeight, kClockRegion[1]);
    expectKey(cropped.lastVisualChange, 1, 0.1, "last change, clock cropped off");
}

TEST(VisualMeasure, FrameRateTimingAndAPageThatNeverChanges) {
    TempDir dir;
    const cv::Mat grid = pageFrame(true);
    const std::string rec = writeTimedFolder(dir, {5, 6, 7}, {grid, grid, grid});
    vyra::MeasureOptions options;
    options.timing = vyra::Timing::FrameRate;
    options.fps = 4.0;
    const vyra::MeasureResult r = vyra::Measure(rec, options);
    expectKey(r.firstVisualChange, -1, std::nan(""), "first change");
    expectKey(r.lastVisualChange, -1, std::nan(""), "last change");
    EXPECT_EQ(r.speedIndexMs, 0.0);
    expectKey(r.visuallyComplete99, 0, 0.0, "complete 99");
    ASSERT_EQ(r.visual.timesMs.size(), 3u);
    EXPECT_DOUBLE_EQ(r.visual.timesMs[2], 500.0);  // 2 / 4 fps
}

}  // namespace

TEST(MeasureReport, FilmstripPicturesTheFrameShownAtEveryStepAndEveryKeyFrameOnce) {
    TempDir dir;
    const cv::Mat white = pageFrame(false);
    const cv::Mat grid = pageFrame(true);
    const cv::Mat full = pageFrame(true, true);
    const std::vector<cv::Mat> frames = {white, white, grid, full};
    const std::string rec = writeTimedFolder(dir, {0, 250, 400, 1000}, frames);
    vyra::MeasureOptions options;
    options.report.collect = true;
    options.report.pictureHeight = 80;
    const vyra::MeasureResult r = vyra::Measure(rec, options);
    ASSERT_TRUE(r.report);
    const vyra::ReportMaterial& m = *r.report;

    // Steps of 100 ms up to 1 s: frame k is shown from its time to the next one's.
    const std::vector<int> shown = {0, 0, 0, 1, 2, 2, 2, 2, 2, 2, 3};
    ASSERT_EQ(m.filmstrip.size(), shown.size());
    for (size_t step = 0; step < shown.size(); ++step) {
        const vyra::ReportPicture& p = m.filmstrip[step];
        EXPECT_EQ(p.index, shown[step]) << step;
        EXPECT_DOUBLE_EQ(p.shownAt, step * 0.1) << step;
        EXPECT_DOUBLE_EQ(p.frameTime, r.frameTimes[static_cast<size_t>(shown[step])]) << step;
        EXPECT_EQ(p.height, 80);
        EXPECT_EQ(p.width, std::lround(frames[0].cols * 80.0 / frames[0].rows));
        ASSERT_TRUE(p.jpeg);
        EXPECT_EQ(p.jpeg->at(0), 0xFF);  // a JPEG start of image
        EXPECT_EQ(p.jpeg->at(1), 0xD8);
    }
    EXPECT_EQ(m.filmstrip[3].jpeg, m.filmstrip[0].jpeg);  // frame 1 repeats frame 0: one picture
    EXPECT_NE(m.filmstrip[4].jpeg, m.filmstrip[0].jpeg);

    std::set<int> keys;
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        if ((r.*field.member).index >= 0) keys.insert((r.*field.member).index);
    }
    ASSERT_EQ(m.keyFrames.size(), keys.size());
    size_t k = 0;
    for (const int index : keys) EXPECT_EQ(m.keyFrames[k++].index, index);

    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    ASSERT_EQ(m.objectCounts.size(), frames.size());
    for (size_t f = 0; f < frames.size(); ++f) {
        cv::Mat frame = frames[f];
        vyra::Image image(frame, static_cast<int>(f));
        EXPECT_EQ(m.objectCounts[f], image.GetImageObjectsSize()) << f;
        EXPECT_EQ(m.contentLevels[f], analyzer.DetectImageContentLevel(image)) << f;
    }
    EXPECT_EQ(m.objectCountThreshold, 200);
    EXPECT_DOUBLE_EQ(m.contentRatioThreshold, 0.15);

    options.report.collect = false;
    EXPECT_FALSE(vyra::Measure(rec, options).report);
}
