// vyra::Measure: the quiet measurement API. Recordings are built here from
// blank (white) frames and textured page frames, so the load-finished frame
// is known by construction: the first textured frame, identical to the last.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <tuple>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraMeasure.h"
#include "fixtures.h"

using namespace vyra_test;

namespace {

constexpr int kW = 180;
constexpr int kH = 320;

cv::Mat white() { return solidFrame(kW, kH); }
cv::Mat page(unsigned seed = 7) { return texturedFrame(kW, kH, seed); }

// @p blanks white frames followed by @p pages copies of one page.
std::vector<cv::Mat> launch(int blanks, int pages) {
    std::vector<cv::Mat> frames;
    for (int k = 0; k < blanks; ++k) frames.push_back(white());
    for (int k = 0; k < pages; ++k) frames.push_back(page());
    return frames;
}

std::string msName(long long ms) {
    char name[32];
    std::snprintf(name, sizeof name, "%08lld.png", ms);
    return name;
}

void writeTimedFolder(const fs::path& dir, const std::vector<cv::Mat>& frames,
                      const std::vector<long long>& timesMs) {
    std::vector<std::string> names;
    for (long long t : timesMs) names.push_back(msName(t));
    writePngFolder(dir, names, frames);
}

// Runs Measure and returns the status it threw (VYRA_OK when it returned).
VyraStatus statusOf(const std::string& path, const vyra::MeasureOptions& options,
                    std::string* message = nullptr) {
    try {
        vyra::Measure(path, options);
    } catch (const vyra::MeasureError& e) {
        if (message != nullptr) *message = e.what();
        return e.status();
    }
    return VYRA_OK;
}

vyra::MeasureOptions frameRate(double fps) {
    vyra::MeasureOptions options;
    options.timing = vyra::Timing::FrameRate;
    options.fps = fps;
    return options;
}

// 4 white frames, then 6 page frames, named by these capture times.
const std::vector<long long> kTimes = {1000, 1033, 1100, 1180, 1250, 1290, 1400, 1433, 1500, 1600};

class TimedFolder : public ::testing::Test {
protected:
    void SetUp() override { writeTimedFolder(dir.path() / "rec", launch(4, 6), kTimes); }
    std::string rec() const { return (dir.path() / "rec").string(); }
    TempDir dir;
};

}  // namespace

// ---- timing and key frames ----

TEST_F(TimedFolder, TimestampNamesTimeEveryFrameFromTheRangeStart) {
    const vyra::MeasureResult r = vyra::Measure(rec());
    EXPECT_EQ(r.frameCount, 10u);
    EXPECT_EQ(r.analysis.imageCount, 10u);
    EXPECT_EQ(r.frameWidth, kW);
    EXPECT_EQ(r.frameHeight, kH);
    EXPECT_EQ(r.timing, vyra::Timing::Timestamps);
    ASSERT_EQ(r.frameTimes.size(), 10u);
    for (size_t k = 0; k < kTimes.size(); ++k) {
        EXPECT_DOUBLE_EQ(r.frameTimes[k], (kTimes[k] - 1000) / 1000.0) << k;
    }
    EXPECT_EQ(r.loadFinished.index, 4);
    EXPECT_DOUBLE_EQ(r.loadFinished.time, 0.25);
    EXPECT_DOUBLE_EQ(r.launchTime, 0.25);
    EXPECT_EQ(r.baseline.index, 9);
    EXPECT_DOUBLE_EQ(r.baseline.time, 0.6);
    EXPECT_EQ(r.firstFrame.index, 4);
    EXPECT_DOUBLE_EQ(r.firstFrame.time, 0.25);
    EXPECT_EQ(r.logoAppear.index, -1);
    EXPECT_TRUE(std::isnan(r.logoAppear.time));
    EXPECT_EQ(r.motionStart.index, -1);
    EXPECT_TRUE(std::isnan(r.motionStart.time));
    EXPECT_EQ(r.estimatedTimeCount, 0u);
    EXPECT_EQ(r.analysis.loadFinishedIndex, 4);
    EXPECT_EQ(r.analysis.staticResult.objectCounts.size(), 10u);
    EXPECT_DOUBLE_EQ(r.analysis.staticResult.loadedPsnr, 99.99);
}

TEST_F(TimedFolder, NextFrameModeReadsTheFollowingFramesTime) {
    vyra::MeasureOptions options;
    options.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    const vyra::MeasureResult r = vyra::Measure(rec(), options);
    EXPECT_EQ(r.launchTimeMode, vyra::LaunchTimeMode::NextFrame);
    EXPECT_EQ(r.loadFinished.index, 4);
    EXPECT_DOUBLE_EQ(r.loadFinished.time, 0.25);
    EXPECT_DOUBLE_EQ(r.launchTime, 0.29);
}

TEST_F(TimedFolder, FrameRateTimingSpacesFramesEvenly) {
    const vyra::MeasureResult r = vyra::Measure(rec(), frameRate(20));
    EXPECT_EQ(r.timing, vyra::Timing::FrameRate);
    EXPECT_DOUBLE_EQ(r.fps, 20.0);
    EXPECT_DOUBLE_EQ(r.frameTimes[3], 0.15);
    EXPECT_DOUBLE_EQ(r.launchTime, 0.2);
    EXPECT_DOUBLE_EQ(r.baseline.time, 0.45);

    vyra::MeasureOptions next = frameRate(20);
    next.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    EXPECT_DOUBLE_EQ(vyra::Measure(rec(), next).launchTime, 0.25);
}

TEST_F(TimedFolder, RangeSelectsFilesAndTimesFromItsFirstFile) {
    vyra::MeasureOptions options;
    options.start = 2;
    options.end = 7;
    const vyra::MeasureResult r = vyra::Measure(rec(), options);
    EXPECT_EQ(r.frameCount, 6u);
    EXPECT_EQ(r.loadFinished.index, 2);
    EXPECT_DOUBLE_EQ(r.launchTime, 0.15);
    EXPECT_EQ(r.baseline.index, 5);
    EXPECT_DOUBLE_EQ(r.baseline.time, 0.333);

    options.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    EXPECT_DOUBLE_EQ(vyra::Measure(rec(), options).launchTime, 0.19);
}

TEST_F(TimedFolder, RangeEndsOfZeroAndOneMeanTheLastFrameAndNegativeStartMeansZero) {
    for (int end : {0, 1}) {
        vyra::MeasureOptions options;
        options.start = -3;
        options.end = end;
        EXPECT_EQ(vyra::Measure(rec(), options).frameCount, 10u) << end;
    }
    vyra::MeasureOptions past;
    past.start = 8;
    past.end = 100;
    EXPECT_EQ(vyra::Measure(rec(), past).frameCount, 2u);
}

TEST_F(TimedFolder, NextFrameOfTheRangesLastFrameIsTheRecordingsNextFile) {
    vyra::MeasureOptions options;
    options.end = 4;  // frames 0..4: the load-finished frame is the last one
    options.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    const vyra::MeasureResult r = vyra::Measure(rec(), options);
    EXPECT_EQ(r.loadFinished.index, 4);
    EXPECT_DOUBLE_EQ(r.launchTime, 0.29);  // file 1290 lies outside the range
    EXPECT_DOUBLE_EQ(vyra::Measure(rec(), [] {
                         vyra::MeasureOptions o = frameRate(10);
                         o.end = 4;
                         o.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
                         return o;
                     }())
                         .launchTime,
                     0.5);
}

TEST(MeasureTiming, NextFramePastTheRecordingsEndReadsAbsoluteTimeZero) {
    TempDir dir;
    writeTimedFolder(dir / "rec", launch(4, 1), {1000, 1100, 1200, 1300, 1400});
    vyra::MeasureOptions options;
    options.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    const vyra::MeasureResult r = vyra::Measure((dir / "rec").string(), options);
    EXPECT_EQ(r.loadFinished.index, 4);
    EXPECT_DOUBLE_EQ(r.loadFinished.time, 0.4);
    EXPECT_DOUBLE_EQ(r.launchTime, -1.0);
}

TEST(MeasureTiming, NothingFoundIsANaNLaunchTimeNotAnError) {
    TempDir dir;
    writeTimedFolder(dir / "rec", launch(6, 0), {0, 40, 80, 120, 160, 200});
    for (vyra::LaunchTimeMode mode : {vyra::LaunchTimeMode::LoadFinishedFrame, vyra::LaunchTimeMode::NextFrame}) {
        vyra::MeasureOptions options;
        options.launchTimeMode = mode;
        const vyra::MeasureResult r = vyra::Measure((dir / "rec").string(), options);
        EXPECT_EQ(r.frameCount, 6u);
        EXPECT_EQ(r.loadFinished.index, -1);
        EXPECT_TRUE(std::isnan(r.loadFinished.time));
        EXPECT_TRUE(std::isnan(r.launchTime));
        EXPECT_EQ(r.baseline.index, 5);
        EXPECT_DOUBLE_EQ(r.baseline.time, 0.2);
    }
}

TEST_F(TimedFolder, DynamicAnalysisReportsTheMotionStart) {
    vyra::MeasureOptions options;
    options.pageType = DYNAMIC_PAGE;
    const vyra::MeasureResult r = vyra::Measure(rec(), options);
    EXPECT_EQ(r.analysis.pageType, DYNAMIC_PAGE);
    EXPECT_EQ(r.motionStart.index, 3);  // just before the first non-blank frame
    EXPECT_DOUBLE_EQ(r.motionStart.time, 0.18);
    EXPECT_FALSE(r.analysis.dynamicResult.featureMatchingResults.empty());
    EXPECT_EQ(r.baseline.index, -1);
    EXPECT_TRUE(r.analysis.staticResult.objectCounts.empty());
}

TEST(MeasureOptions, StableBaselineEndsAtTheFirstStableRun) {
    TempDir dir;
    cv::Mat other;
    cv::flip(page(), other, 1);
    std::vector<cv::Mat> frames = {white(), white(), page(), page(), page(), other, other};
    writeTimedFolder(dir / "rec", frames, {0, 100, 200, 300, 400, 500, 600});
    vyra::MeasureOptions options;
    const vyra::MeasureResult last = vyra::Measure((dir / "rec").string(), options);
    EXPECT_EQ(last.baseline.index, 6);
    EXPECT_EQ(last.loadFinished.index, 5);
    options.stableBaseline = true;
    const vyra::MeasureResult stable = vyra::Measure((dir / "rec").string(), options);
    EXPECT_EQ(stable.baseline.index, 4);
    EXPECT_EQ(stable.loadFinished.index, 2);
    EXPECT_DOUBLE_EQ(stable.launchTime, 0.2);
}

// ---- videos ----

TEST(MeasureVideo, ConstantRateVideoIsTimedByItsTimestampsAndRangeApplies) {
    TempDir dir;
    const fs::path file = dir / "launch.mkv";
    ASSERT_TRUE(writeVideo(file, launch(3, 5), 10.0));
    const vyra::MeasureResult r = vyra::Measure(file.string());
    EXPECT_EQ(r.frameCount, 8u);
    EXPECT_EQ(r.loadFinished.index, 3);
    EXPECT_NEAR(r.launchTime, 0.3, 1e-9);
    EXPECT_NEAR(r.frameTimes[7], 0.7, 1e-9);

    vyra::MeasureOptions range;
    range.start = 1;
    range.end = 5;
    const vyra::MeasureResult part = vyra::Measure(file.string(), range);
    EXPECT_EQ(part.frameCount, 5u);
    EXPECT_EQ(part.loadFinished.index, 2);
    EXPECT_NEAR(part.launchTime, 0.2, 1e-9);
    EXPECT_EQ(part.baseline.index, 4);
}

class MeasureVariableRate : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(MeasureVariableRate, VideoIsTimedByPresentationTimestamps) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    TempDir dir;
    const std::vector<std::string>& codec = GetParam();
    const fs::path file = dir / ("vfr." + codec.back());
    const std::vector<int> durations = {137, 41, 500, 13, 200, 77, 350, 90};
    std::string log;
    ASSERT_TRUE(writeVfrVideo(file, launch(3, 5), durations, {codec.begin(), codec.end() - 1}, &log)) << log;
    const std::vector<double> pts = {0.0, 0.137, 0.178, 0.678, 0.691, 0.891, 0.968, 1.318};

    const vyra::MeasureResult r = vyra::Measure(file.string());
    ASSERT_EQ(r.frameCount, 8u);
    for (size_t k = 0; k < pts.size(); ++k) EXPECT_NEAR(r.frameTimes[k], pts[k], 1e-9) << k;
    EXPECT_EQ(r.loadFinished.index, 3);
    EXPECT_NEAR(r.launchTime, 0.678, 1e-9);
    EXPECT_NEAR(r.baseline.time, 1.318, 1e-9);
    EXPECT_EQ(r.estimatedTimeCount, 0u);

    vyra::MeasureOptions next;
    next.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    EXPECT_NEAR(vyra::Measure(file.string(), next).launchTime, 0.691, 1e-9);

    vyra::MeasureOptions range;
    range.start = 2;
    const vyra::MeasureResult part = vyra::Measure(file.string(), range);
    EXPECT_EQ(part.loadFinished.index, 1);
    EXPECT_NEAR(part.launchTime, 0.678 - 0.178, 1e-9);

    EXPECT_NEAR(vyra::Measure(file.string(), frameRate(10)).launchTime, 0.3, 1e-12);
}

// The last element names the container; the others are ffmpeg's codec arguments.
INSTANTIATE_TEST_SUITE_P(Codecs, MeasureVariableRate,
                         ::testing::Values(std::vector<std::string>{"-c:v", "ffv1", "mkv"},
                                           std::vector<std::string>{"-c:v", "libx264", "-bf", "0", "-pix_fmt",
                                                                    "yuv420p", "-qp", "10", "mp4"}),
                         [](const ::testing::TestParamInfo<std::vector<std::string>>& info) {
                             return info.param.back();
                         });

TEST(MeasureVideo, FramesDrainedAtTheEndOfABFrameStreamKeepTheirOwnTimestamps) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    TempDir dir;
    const fs::path file = dir / "bframes.mp4";
    std::vector<cv::Mat> frames;
    std::vector<int> durations;
    std::vector<double> pts;
    double t = 0.0;
    for (int k = 0; k < 12; ++k) {
        frames.push_back(texturedFrame(kW, kH, static_cast<unsigned>(k % 3)));
        durations.push_back(40 + 30 * (k % 4));
        pts.push_back(t);
        t += durations.back() / 1000.0;
    }
    std::string log;
    ASSERT_TRUE(writeVfrVideo(file, frames, durations,
                              {"-c:v", "libx264", "-threads", "1", "-pix_fmt", "yuv420p", "-x264-params",
                               "bframes=3:b-adapt=0"},
                              &log))
        << log;
    const vyra::MeasureResult r = vyra::Measure(file.string());
    ASSERT_EQ(r.frameCount, 12u);
    EXPECT_EQ(r.estimatedTimeCount, 0u);
    for (size_t k = 0; k < 12; ++k) EXPECT_NEAR(r.frameTimes[k], pts[k], 1e-9) << k;
}

// ---- regions ----

TEST(MeasureRegions, CropAnalysesOnlyTheRectangle) {
    // Frames twice as wide as usual: the left half stays blank until frame 4,
    // the right half shows the page from the start.
    TempDir dir;
    const cv::Mat wide = texturedFrame(2 * kW, kH, 7);
    cv::Mat half = wide.clone();
    cv::rectangle(half, cv::Rect(0, 0, kW, kH), cv::Scalar(255, 255, 255), cv::FILLED);
    std::vector<cv::Mat> frames = {half, half, half, half, wide, wide, wide, wide};
    writeTimedFolder(dir / "rec", frames, {0, 50, 100, 150, 200, 250, 300, 350});

    vyra::MeasureOptions right;
    right.crop = vyra::Region{kW, 0, kW, kH};
    const vyra::MeasureResult r = vyra::Measure((dir / "rec").string(), right);
    EXPECT_EQ(r.frameWidth, kW);
    EXPECT_EQ(r.frameHeight, kH);
    EXPECT_EQ(r.loadFinished.index, 0);  // the right half never changes

    vyra::MeasureOptions left;
    left.crop = vyra::Region{0, 0, kW, kH};
    const vyra::MeasureResult l = vyra::Measure((dir / "rec").string(), left);
    EXPECT_EQ(l.loadFinished.index, 4);  // the left half is blank until frame 4
    EXPECT_DOUBLE_EQ(l.launchTime, 0.2);
}

TEST(MeasureRegions, IgnoredClockMakesFramesIdenticalToAFrameWithoutIt) {
    TempDir dir;
    const cv::Scalar bar(40, 40, 40);
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 6; ++k) frames.push_back(statusBarFrame(kW, kH, 3, 24, bar, "9:4" + std::to_string(k)));
    writeTimedFolder(dir / "rec", frames, {0, 100, 200, 300, 400, 500});
    const std::string rec = (dir / "rec").string();

    const vyra::MeasureResult plain = vyra::Measure(rec);
    EXPECT_EQ(plain.loadFinished.index, 0);
    EXPECT_LT(plain.analysis.staticResult.loadedPsnr, 99.99);  // the clocks differ

    vyra::MeasureOptions options;
    options.ignore = {vyra::Region{4, 4, 60, 16}};
    options.saveFramesDir = (dir / "seen").string();
    const vyra::MeasureResult ignored = vyra::Measure(rec, options);
    EXPECT_EQ(ignored.loadFinished.index, 0);
    EXPECT_DOUBLE_EQ(ignored.analysis.staticResult.loadedPsnr, 99.99);  // identical frames
    const std::vector<size_t>& counts = ignored.analysis.staticResult.objectCounts;
    ASSERT_EQ(counts.size(), 6u);
    EXPECT_EQ(counts[0], counts[5]);

    // The ring around the region lies in the flat bar, so the region is
    // painted in the bar's colour: the frame equals one drawn without clock.
    const cv::Mat expected = statusBarFrame(kW, kH, 3, 24, bar, "");
    for (int k : {0, 5}) {
        const cv::Mat seen = cv::imread((dir / "seen" / msName(k)).string(), cv::IMREAD_COLOR);
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(cv::norm(seen, expected, cv::NORM_INF), 0.0) << k;
    }
}

TEST(MeasureRegions, IgnoreColourIsTheMedianOfTheRingTakenFromTheFirstFrame) {
    TempDir dir;
    // First frame: region 10,10,20,20 surrounded by a ring that is mostly
    // (0, 0, 200) with a few other pixels; later frames differ everywhere.
    cv::Mat first = solidFrame(kW, kH, cv::Scalar(0, 0, 200));
    cv::rectangle(first, cv::Rect(9, 9, 5, 1), cv::Scalar(255, 0, 0), cv::FILLED);
    cv::Mat later = solidFrame(kW, kH, cv::Scalar(0, 255, 0));
    writeTimedFolder(dir / "rec", {first, later}, {0, 100});
    vyra::MeasureOptions options;
    options.ignore = {vyra::Region{10, 10, 20, 20}};
    options.saveFramesDir = (dir / "seen").string();
    vyra::Measure((dir / "rec").string(), options);
    const cv::Mat seen = cv::imread((dir / "seen" / "00000001.png").string(), cv::IMREAD_COLOR);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.at<cv::Vec3b>(10, 10), cv::Vec3b(0, 0, 200));
    EXPECT_EQ(seen.at<cv::Vec3b>(29, 29), cv::Vec3b(0, 0, 200));
    EXPECT_EQ(seen.at<cv::Vec3b>(30, 30), cv::Vec3b(0, 255, 0));
    EXPECT_EQ(seen.at<cv::Vec3b>(9, 9), cv::Vec3b(0, 255, 0));
}

TEST(MeasureRegions, SavedFramesAreTheCroppedFramesNumberedFromZero) {
    TempDir dir;
    const std::vector<cv::Mat> frames = launch(2, 3);
    writeTimedFolder(dir / "rec", frames, {0, 10, 20, 30, 40});
    vyra::MeasureOptions options;
    options.start = 1;
    options.crop = vyra::Region{10, 20, 64, 48};
    options.saveFramesDir = (dir / "a" / "b").string();
    vyra::Measure((dir / "rec").string(), options);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir / "a" / "b")) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names, (std::vector<std::string>{"00000000.png", "00000001.png", "00000002.png", "00000003.png"}));
    for (int k = 0; k < 4; ++k) {
        const cv::Mat seen = cv::imread((dir / "a" / "b" / names[static_cast<size_t>(k)]).string());
        ASSERT_EQ(seen.size(), cv::Size(64, 48));
        EXPECT_EQ(cv::norm(seen, frames[static_cast<size_t>(k + 1)](cv::Rect(10, 20, 64, 48)), cv::NORM_INF), 0.0);
    }
}

// ---- quietness and progress ----

TEST(MeasureQuiet, PrintsNothingAndWritesNothingEvenForMixedFrameSizes) {
    TempDir dir;
    TempDir cwd;
    // Landscape blank frames before portrait page frames: the frames must be
    // aligned to the last one's size, which the analysis would announce.
    std::vector<cv::Mat> frames = {solidFrame(kH, kW), solidFrame(kH, kW), solidFrame(kH, kW), page(), page(), page()};
    writeTimedFolder(dir / "rec", frames, {0, 30, 60, 90, 120, 150});
    ScopedCwd inside(cwd.path());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const vyra::MeasureResult r = vyra::Measure((dir / "rec").string());
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(fs::is_empty(cwd.path()));
    EXPECT_EQ(r.loadFinished.index, 3);
    EXPECT_EQ(r.frameWidth, kW);
    EXPECT_EQ(r.frameHeight, kH);
}

TEST_F(TimedFolder, ProgressReportsEveryDecodedFrameThenTheAnalysis) {
    std::vector<std::tuple<vyra::MeasureStage, size_t, size_t>> seen;
    vyra::MeasureOptions options;
    options.start = 5;
    options.progress = [&seen](vyra::MeasureStage stage, size_t done, size_t total) {
        seen.emplace_back(stage, done, total);
    };
    vyra::Measure(rec(), options);
    using S = vyra::MeasureStage;
    const std::vector<std::tuple<S, size_t, size_t>> expected = {
        {S::Decoding, 1, 5}, {S::Decoding, 2, 5}, {S::Decoding, 3, 5}, {S::Decoding, 4, 5},
        {S::Decoding, 5, 5}, {S::Analysing, 0, 1}, {S::Analysing, 1, 1}};
    EXPECT_EQ(seen, expected);
}

// ---- errors ----

TEST(MeasureErrors, EachBadInputThrowsItsStatus) {
    TempDir dir;
    writeTimedFolder(dir / "rec", launch(1, 2), {0, 10, 20});
    const std::string rec = (dir / "rec").string();
    fs::create_directories(dir / "empty");
    fs::create_directories(dir / "textonly");
    std::ofstream(dir / "textonly" / "notes.txt") << "x";
    writeTimedFolder(dir / "corrupt", launch(1, 1), {0, 20});
    writeCorruptPng(dir / "corrupt" / "00000010.png");
    std::ofstream(dir / "garbage.mp4") << "this is not a video";
    writeEmptyFile(dir / "zero.mkv");
    writePngFolder(dir / "named", {"a.png", "b.png"}, {white(), page()});
    writePngFolder(dir / "unpadded", {"9.png", "10.png"}, {white(), page()});
    std::ofstream(dir / "afile") << "x";

    struct Case {
        const char* what;
        std::string path;
        vyra::MeasureOptions options;
        VyraStatus status;
        const char* inMessage;
    };
    vyra::MeasureOptions crop;
    crop.crop = vyra::Region{100, 0, 100, 10};
    vyra::MeasureOptions flat;
    flat.crop = vyra::Region{0, 0, 0, 10};
    vyra::MeasureOptions ignore;
    ignore.ignore = {vyra::Region{0, 0, 10, 10}, vyra::Region{0, 315, 10, 10}};
    vyra::MeasureOptions late;
    late.start = 3;
    vyra::MeasureOptions save;
    save.saveFramesDir = (dir / "afile" / "sub").string();
    const std::vector<Case> cases = {
        {"missing path", (dir / "nope.mp4").string(), {}, VYRA_ERROR_NOT_FOUND, "does not exist"},
        {"fps 0", rec, frameRate(0), VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps negative", rec, frameRate(-5), VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps NaN", rec, frameRate(std::nan("")), VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"empty folder", (dir / "empty").string(), {}, VYRA_ERROR_EMPTY, "no PNG"},
        {"no png", (dir / "textonly").string(), {}, VYRA_ERROR_EMPTY, "no PNG"},
        {"range past end", rec, late, VYRA_ERROR_EMPTY, "selects no frame"},
        {"corrupt png", (dir / "corrupt").string(), {}, VYRA_ERROR_UNREADABLE, "00000010.png"},
        {"not a video", (dir / "garbage.mp4").string(), {}, VYRA_ERROR_UNREADABLE, "garbage.mp4"},
        {"zero-byte video", (dir / "zero.mkv").string(), {}, VYRA_ERROR_UNREADABLE, "zero.mkv"},
        {"crop outside", rec, crop, VYRA_ERROR_INVALID_ARGUMENT, "does not lie inside"},
        {"crop without area", rec, flat, VYRA_ERROR_INVALID_ARGUMENT, "width and height"},
        {"ignore outside", rec, ignore, VYRA_ERROR_INVALID_ARGUMENT, "0,315,10,10"},
        {"names without time", (dir / "named").string(), {}, VYRA_ERROR_NO_TIMESTAMPS, "a.png"},
        {"times out of order", (dir / "unpadded").string(), {}, VYRA_ERROR_NO_TIMESTAMPS, "9.png"},
        {"save under a file", rec, save, VYRA_ERROR_WRITE, "sub"},
    };
    for (const Case& c : cases) {
        std::string message;
        EXPECT_EQ(statusOf(c.path, c.options, &message), c.status) << c.what;
        EXPECT_NE(message.find(c.inMessage), std::string::npos) << c.what << ": " << message;
    }
    // Names without a time are fine with a frame rate.
    EXPECT_EQ(statusOf((dir / "named").string(), frameRate(30)), VYRA_OK);
}

TEST(MeasureErrors, VideoRangeThatSelectsNothingIsEmpty) {
    TempDir dir;
    const fs::path file = dir / "short.mkv";
    ASSERT_TRUE(writeVideo(file, launch(1, 2), 10.0));
    vyra::MeasureOptions options;
    options.start = 3;
    std::string message;
    EXPECT_EQ(statusOf(file.string(), options, &message), VYRA_ERROR_EMPTY);
    EXPECT_NE(message.find("3 frames"), std::string::npos) << message;
    options.start = 2;
    EXPECT_EQ(statusOf(file.string(), options), VYRA_OK);
    options.start = 3;
    options.end = 2;  // ends before it starts
    EXPECT_EQ(statusOf(file.string(), options), VYRA_ERROR_EMPTY);
}

TEST(MeasureErrors, MeasureErrorIsARuntimeErrorWithItsStatus) {
    const vyra::MeasureError e(VYRA_ERROR_EMPTY, "nothing");
    const std::runtime_error& base = e;
    EXPECT_STREQ(base.what(), "nothing");
    EXPECT_EQ(e.status(), VYRA_ERROR_EMPTY);
    EXPECT_STREQ(vyra::StatusString(VYRA_ERROR_EMPTY), "no frames to analyse");
}
