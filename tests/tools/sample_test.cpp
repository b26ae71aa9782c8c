// Sample recordings: stage plan, capture times, rendering, the files written,
// and that the static page analysis finds the stages the generator built.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <ostream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "VyraAnalyzer.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraSample.h"
#include "fixtures.h"

namespace {

using vyra::sample::SampleOptions;
using vyra::sample::SampleTruth;
using vyra_test::fs::path;

SampleOptions Options(int width, int height, double seconds, int fps, unsigned seed) {
    SampleOptions o;
    o.width = width;
    o.height = height;
    o.seconds = seconds;
    o.fps = fps;
    o.seed = seed;
    return o;
}

bool SamePixels(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

cv::Vec<double, 4> CentralArea(const cv::Mat& frame) {
    return {0.2 * frame.cols, 0.25 * frame.rows, 0.8 * frame.cols, 0.75 * frame.rows};
}

vyra::AnalysisResult AnalyseLikeTheDriver(std::vector<cv::Mat>& frames) {
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    return analyzer.Analyze(frames, STATIC_PAGE, false);
}

std::int64_t ParseName(const std::string& name) {
    EXPECT_EQ(name.substr(name.size() - 4), ".png");
    const std::string digits = name.substr(0, name.size() - 4);
    EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << name;
    return std::stoll(digits);
}

// ---------------------------------------------------------------- plan

TEST(SamplePlan, DefaultOptionsSplitOneHundredTwentyFramesByTheirShares) {
    // 4 s at 30 fps: 120 frames; stages start at 0.10, 0.30, 0.45 and 0.70 of them.
    const SampleTruth t = vyra::sample::PlanSample(SampleOptions());
    EXPECT_EQ(t.frameCount, 120);
    EXPECT_EQ(t.splashStart, 12);
    EXPECT_EQ(t.splashEnd, 36);
    EXPECT_EQ(t.skeletonStart, 36);
    EXPECT_EQ(t.contentStart, 54);
    EXPECT_EQ(t.loadedIndex, 84);
    EXPECT_EQ(t.contentStepStarts, (std::vector<int>{54, 64, 74}));
    ASSERT_EQ(t.timesMs.size(), 120u);
}

TEST(SamplePlan, EmptyLauncherAndSkeletonStartTheSplashAtZeroAndTheContentAfterIt) {
    SampleOptions o = Options(180, 320, 2.0, 10, 1);
    o.launcherShare = 0.0;
    o.splashShare = 0.25;
    o.skeletonShare = 0.0;
    o.contentShare = 0.5;
    o.contentSteps = 2;
    const SampleTruth t = vyra::sample::PlanSample(o);
    EXPECT_EQ(t.frameCount, 20);
    EXPECT_EQ(t.splashStart, 0);
    EXPECT_EQ(t.splashEnd, 5);
    EXPECT_EQ(t.skeletonStart, 5);
    EXPECT_EQ(t.contentStart, 5);
    EXPECT_EQ(t.loadedIndex, 15);
    EXPECT_EQ(t.contentStepStarts, (std::vector<int>{5, 10}));
}

TEST(SamplePlan, IndicesAreOrderedAndFollowSecondsTimesFps) {
    struct Case { double seconds; int fps; int steps; double content; };
    for (const Case c : {Case{4.0, 30, 3, 0.25}, Case{2.0, 10, 1, 0.25}, Case{3.3, 12, 5, 0.3},
                         Case{1.5, 24, 2, 0.2}, Case{600.0, 1, 4, 0.25}}) {
        SampleOptions o = Options(360, 640, c.seconds, c.fps, 3);
        o.contentSteps = c.steps;
        o.contentShare = c.content;
        const SampleTruth t = vyra::sample::PlanSample(o);
        SCOPED_TRACE(vyra::sample::DescribeTruth(t));
        EXPECT_EQ(t.frameCount, std::llround(c.seconds * c.fps));
        EXPECT_LE(0, t.splashStart);
        EXPECT_LT(t.splashStart, t.splashEnd);
        EXPECT_EQ(t.skeletonStart, t.splashEnd);
        EXPECT_LE(t.skeletonStart, t.contentStart);
        EXPECT_LT(t.contentStart, t.loadedIndex);
        EXPECT_LT(t.loadedIndex, t.frameCount);
        ASSERT_EQ(t.contentStepStarts.size(), static_cast<size_t>(c.steps));
        EXPECT_EQ(t.contentStepStarts.front(), t.contentStart);
        EXPECT_TRUE(std::adjacent_find(t.contentStepStarts.begin(), t.contentStepStarts.end(),
                                       [](int a, int b) { return b <= a; }) == t.contentStepStarts.end());
        EXPECT_LT(t.contentStepStarts.back(), t.loadedIndex);
        EXPECT_EQ(t.timesMs.size(), static_cast<size_t>(t.frameCount));
    }
}

TEST(SamplePlan, ConstantRateTimesAreEvenlySpaced) {
    for (int fps : {10, 24, 30}) {
        const SampleTruth t = vyra::sample::PlanSample(Options(360, 640, 2.0, fps, 1));
        for (int k = 0; k < t.frameCount; ++k) {
            EXPECT_DOUBLE_EQ(t.timesMs[static_cast<size_t>(k)], k * 1000.0 / fps);
        }
    }
}

TEST(SamplePlan, JitteredTimesStayWithinTheirBoundsAndFollowTheSeed) {
    SampleOptions o = Options(360, 640, 3.0, 20, 5);
    o.timeJitter = 0.4;
    const SampleTruth t = vyra::sample::PlanSample(o);
    ASSERT_EQ(t.timesMs.size(), 60u);
    EXPECT_EQ(t.timesMs[0], 0.0);
    std::vector<double> steps;
    for (size_t k = 1; k < t.timesMs.size(); ++k) {
        steps.push_back(t.timesMs[k] - t.timesMs[k - 1]);
        EXPECT_GE(steps.back(), 50.0 * 0.6 - 1e-9);
        EXPECT_LE(steps.back(), 50.0 * 1.4 + 1e-9);
    }
    const auto [shortest, longest] = std::minmax_element(steps.begin(), steps.end());
    EXPECT_GT(*longest - *shortest, 10.0) << "intervals should vary";

    EXPECT_EQ(vyra::sample::PlanSample(o).timesMs, t.timesMs);
    o.seed = 6;
    EXPECT_NE(vyra::sample::PlanSample(o).timesMs, t.timesMs);
}

TEST(SamplePlan, RejectsOptionsOutOfRange) {
    const auto rejects = [](void (*change)(SampleOptions&)) {
        SampleOptions o;
        change(o);
        EXPECT_THROW(vyra::sample::PlanSample(o), std::invalid_argument);
    };
    rejects([](SampleOptions& o) { o.fps = 0; });
    rejects([](SampleOptions& o) { o.fps = 241; });
    rejects([](SampleOptions& o) { o.seconds = 0.0; });
    rejects([](SampleOptions& o) { o.seconds = std::nan(""); });
    rejects([](SampleOptions& o) { o.width = 179; });
    rejects([](SampleOptions& o) { o.height = 4097; });
    rejects([](SampleOptions& o) { o.launcherShare = -0.1; });
    rejects([](SampleOptions& o) { o.contentShare = 0.6; });            // 0.1 + 0.2 + 0.15 + 0.6 > 1
    rejects([](SampleOptions& o) { o.contentSteps = 0; });
    rejects([](SampleOptions& o) { o.timeJitter = 0.51; });
    // Shares that leave a stage without frames: 0.2 s at 10 fps is 2 frames.
    rejects([](SampleOptions& o) { o.seconds = 0.2; o.fps = 10; });
    // 2 s at 10 fps gives 5 content frames (9..13), fewer than 6 steps.
    rejects([](SampleOptions& o) { o.seconds = 2.0; o.fps = 10; o.contentSteps = 6; });

    SampleOptions smallest = Options(180, 180, 2.0, 10, 1);
    smallest.contentSteps = 5;  // exactly one frame per step
    EXPECT_NO_THROW(vyra::sample::PlanSample(smallest));
}

// ---------------------------------------------------------------- rendering

TEST(SampleRender, FramesAreDeterministicAndFollowTheSeed) {
    const SampleOptions o = Options(180, 320, 2.0, 10, 4);
    const SampleTruth t = vyra::sample::PlanSample(o);
    const std::vector<cv::Mat> all = vyra::sample::RenderAllFrames(o, t);
    ASSERT_EQ(all.size(), static_cast<size_t>(t.frameCount));
    for (int k = 0; k < t.frameCount; ++k) {
        const cv::Mat again = vyra::sample::RenderFrame(o, t, k);
        EXPECT_EQ(again.type(), CV_8UC3);
        EXPECT_EQ(again.cols, 180);
        EXPECT_EQ(again.rows, 320);
        EXPECT_TRUE(SamePixels(again, all[static_cast<size_t>(k)])) << "frame " << k;
    }
    SampleOptions other = o;
    other.seed = 5;
    const SampleTruth t2 = vyra::sample::PlanSample(other);
    EXPECT_FALSE(SamePixels(vyra::sample::RenderFrame(other, t2, t2.loadedIndex),
                            all[static_cast<size_t>(t.loadedIndex)]));
    EXPECT_FALSE(SamePixels(vyra::sample::RenderFrame(other, t2, 0), all[0]));
}

TEST(SampleRender, IndexOutsideTheRecordingThrows) {
    const SampleOptions o = Options(180, 320, 2.0, 10, 1);
    const SampleTruth t = vyra::sample::PlanSample(o);
    EXPECT_THROW(vyra::sample::RenderFrame(o, t, -1), std::out_of_range);
    EXPECT_THROW(vyra::sample::RenderFrame(o, t, t.frameCount), std::out_of_range);
}

TEST(SampleRender, StagesChangeOnlyAtTheirBoundariesAndTheClockOnlyWithTheSecond) {
    // 10 fps: frames 10 apart are a second apart, neighbours within one second
    // (frame k at k * 100 ms) share the clock.
    const SampleOptions o = Options(180, 320, 4.0, 10, 2);
    const SampleTruth t = vyra::sample::PlanSample(o);
    const std::vector<cv::Mat> f = vyra::sample::RenderAllFrames(o, t);
    const auto at = [&](int k) { return f[static_cast<size_t>(k)]; };
    // Same stage, same second: pixel-identical. (loaded: 28..39, second 2 is 20..29)
    EXPECT_EQ(t.loadedIndex, 28);
    EXPECT_TRUE(SamePixels(at(28), at(29)));
    EXPECT_TRUE(SamePixels(at(30), at(39)));
    // Same stage, next second: the clock differs, and only slightly.
    EXPECT_FALSE(SamePixels(at(29), at(30)));
    EXPECT_GE(vyra::ImageSets::CalculatePSNR(at(29), at(30)), 30.0);
    EXPECT_GE(vyra::ImageSets::CalculatePSNR(at(t.loadedIndex), at(t.frameCount - 1)), 30.0);
    // Every stage boundary changes the picture.
    for (int boundary : {t.splashStart, t.splashEnd, t.contentStart, t.contentStepStarts[1], t.loadedIndex}) {
        EXPECT_FALSE(SamePixels(at(boundary - 1), at(boundary))) << "boundary " << boundary;
    }
}

// ---------------------------------------------------------------- what the analysis sees

struct Variant {
    const char* name;
    int width;
    int height;
    double seconds;
    int fps;
    unsigned seed;
    int steps;
    double launcher;
    double skeleton;
};

void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

SampleOptions OptionsOf(const Variant& v) {
    SampleOptions o = Options(v.width, v.height, v.seconds, v.fps, v.seed);
    o.contentSteps = v.steps;
    o.launcherShare = v.launcher;
    o.skeletonShare = v.skeleton;
    return o;
}

const Variant kVariants[] = {
    {"portrait", 360, 640, 2.0, 10, 1, 3, 0.10, 0.15},
    {"landscape", 640, 360, 2.0, 10, 2, 3, 0.10, 0.15},
    {"smallest portrait, one step", 180, 320, 3.0, 10, 3, 1, 0.10, 0.15},
    {"smallest landscape, no launcher", 320, 180, 2.0, 15, 4, 2, 0.0, 0.15},
    {"no skeleton, many steps", 240, 400, 3.0, 12, 9, 6, 0.05, 0.0},
    {"square", 300, 300, 2.0, 10, 11, 2, 0.10, 0.10},
};

class SampleAnalysis : public ::testing::TestWithParam<Variant> {};

TEST_P(SampleAnalysis, StaticAnalysisFindsTheConstructedStages) {
    const SampleOptions o = OptionsOf(GetParam());
    const SampleTruth t = vyra::sample::PlanSample(o);
    SCOPED_TRACE(vyra::sample::DescribeTruth(t));
    std::vector<cv::Mat> frames = vyra::sample::RenderAllFrames(o, t);
    const vyra::AnalysisResult r = AnalyseLikeTheDriver(frames);
    EXPECT_EQ(r.staticResult.baselineIndex, t.frameCount - 1);
    EXPECT_EQ(r.loadFinishedIndex, t.loadedIndex);
    EXPECT_EQ(r.staticResult.logoAppearIndex, t.splashStart);
    EXPECT_EQ(r.staticResult.logoDisappearIndex, t.splashEnd);
    EXPECT_EQ(r.staticResult.firstFrameIndex, t.splashEnd);
}

TEST_P(SampleAnalysis, EveryFrameShowsWhatItsStagePromises) {
    // The margins the generator promises: before loadedIndex fewer than 150
    // objects and a PSNR below 15 dB against the last frame; from loadedIndex
    // on at least 300 objects and a content ratio of at least 0.3. Only the
    // splash frames are logo images; from the skeleton on every frame is a
    // valid first frame.
    const SampleOptions o = OptionsOf(GetParam());
    const SampleTruth t = vyra::sample::PlanSample(o);
    const cv::Mat last = vyra::sample::RenderFrame(o, t, t.frameCount - 1);
    for (int k = 0; k < t.frameCount; ++k) {
        SCOPED_TRACE("frame " + std::to_string(k));
        const cv::Mat frame = vyra::sample::RenderFrame(o, t, k);
        const std::vector<vyra::Rect> boxes = vyra::Image::DetectObjects(frame);
        const double ratio = static_cast<double>(vyra::Rect::CalculateTotalArea(boxes)) / frame.total();
        if (k < t.loadedIndex) {
            EXPECT_LT(boxes.size(), 150u);
            EXPECT_LT(vyra::ImageSets::CalculatePSNR(frame, last), 15.0);
        } else {
            EXPECT_GE(boxes.size(), 300u);
            EXPECT_GE(ratio, 0.3);
        }
        const bool splash = k >= t.splashStart && k < t.splashEnd;
        EXPECT_EQ(vyra::Analyzer::IsLogoImage(boxes, CentralArea(frame)), splash);
        if (k >= t.splashEnd) {
            EXPECT_TRUE(vyra::Analyzer::IsValidFirstFrameImage(boxes, CentralArea(frame)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Variants, SampleAnalysis, ::testing::ValuesIn(kVariants),
                         [](const ::testing::TestParamInfo<Variant>& info) {
                             std::string name = info.param.name;
                             std::replace_if(name.begin(), name.end(),
                                             [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
                             return name;
                         });

TEST(SampleAnalysisLarge, FullHdPortraitAndLandscapeGiveTheSameAnswers) {
    for (const auto& [w, h] : {std::pair{1080, 1920}, std::pair{1920, 1080}}) {
        SampleOptions o = Options(w, h, 2.0, 5, 7);
        o.contentSteps = 2;
        const SampleTruth t = vyra::sample::PlanSample(o);
        SCOPED_TRACE(vyra::sample::DescribeTruth(t));
        std::vector<cv::Mat> frames = vyra::sample::RenderAllFrames(o, t);
        const vyra::AnalysisResult r = AnalyseLikeTheDriver(frames);
        EXPECT_EQ(r.loadFinishedIndex, t.loadedIndex);
        EXPECT_EQ(r.staticResult.logoAppearIndex, t.splashStart);
        EXPECT_EQ(r.staticResult.logoDisappearIndex, t.splashEnd);
    }
}

// ---------------------------------------------------------------- files

TEST(SampleFrames, FolderNamesAreZeroPaddedTimesInByteOrder) {
    // 2 s at 10 fps from 5 ms: 5, 105, ..., 1905; padded to four digits.
    vyra_test::TempDir dir;
    const SampleOptions o = Options(180, 320, 2.0, 10, 1);
    const SampleTruth t = vyra::sample::WriteSampleFrames((dir / "frames").string(), o, 5);
    std::vector<std::string> expected;
    for (int k = 0; k < 20; ++k) {
        char name[16];
        std::snprintf(name, sizeof name, "%04d.png", 5 + 100 * k);
        expected.push_back(name);
    }
    std::vector<std::string> listed;
    for (const auto& entry : vyra_test::fs::directory_iterator(dir / "frames")) {
        listed.push_back(entry.path().filename().string());
    }
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(vyra::sample::SampleFrameNames(t, 5), expected);
    // The files hold the rendered frames, losslessly.
    for (int k : {0, t.splashStart, t.loadedIndex, t.frameCount - 1}) {
        const cv::Mat read = cv::imread((dir / "frames" / expected[static_cast<size_t>(k)]).string());
        EXPECT_TRUE(SamePixels(read, vyra::sample::RenderFrame(o, t, k))) << "frame " << k;
    }
}

TEST(SampleFrames, JitteredFolderNamesParseBackToTheCaptureTimesAndAnalyseExactly) {
    vyra_test::TempDir dir;
    SampleOptions o = Options(180, 320, 2.5, 12, 8);
    o.timeJitter = 0.5;
    const std::int64_t start = 1700000000000;
    const SampleTruth t = vyra::sample::WriteSampleFrames(dir.str(), o);
    std::vector<std::string> names;
    for (const auto& entry : vyra_test::fs::directory_iterator(dir.path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names.size(), static_cast<size_t>(t.frameCount));
    std::vector<cv::Mat> frames;
    for (size_t k = 0; k < names.size(); ++k) {
        EXPECT_EQ(names[k].size(), names[0].size());
        EXPECT_EQ(ParseName(names[k]), start + std::llround(t.timesMs[k])) << names[k];
        frames.push_back(cv::imread((dir / names[k]).string(), cv::IMREAD_COLOR));
    }
    const vyra::AnalysisResult r = AnalyseLikeTheDriver(frames);
    EXPECT_EQ(r.loadFinishedIndex, t.loadedIndex);
    EXPECT_EQ(r.staticResult.logoAppearIndex, t.splashStart);
}

TEST(SampleFrames, NegativeStartIsRejectedBeforeWriting) {
    vyra_test::TempDir dir;
    EXPECT_THROW(vyra::sample::WriteSampleFrames((dir / "x").string(), Options(180, 320, 2.0, 10, 1), -1),
                 std::invalid_argument);
    EXPECT_FALSE(vyra_test::fs::exists(dir / "x"));
}

TEST(SampleVideo, VideoHoldsEveryFrameAndAnalysesWithinOneFrame) {
    for (const char* file : {"launch.mp4", "launch.mkv"}) {
        vyra_test::TempDir dir;
        const path video = dir / file;
        const SampleOptions o = Options(180, 320, 2.0, 10, 3);
        const SampleTruth t = vyra::sample::WriteSampleVideo(video.string(), o);
        EXPECT_EQ(vyra_test::readVideoFrames(video).size(), static_cast<size_t>(t.frameCount)) << file;
        std::vector<cv::Mat> frames = vyra_test::readVideoFrames(video);
        ASSERT_EQ(frames.size(), static_cast<size_t>(t.frameCount)) << file;
        const vyra::AnalysisResult r = AnalyseLikeTheDriver(frames);
        EXPECT_NEAR(r.loadFinishedIndex, t.loadedIndex, 1) << file;
        EXPECT_NEAR(r.staticResult.logoAppearIndex, t.splashStart, 1) << file;
    }
}

TEST(SampleVideo, RejectsJitterAndUnknownContainers) {
    vyra_test::TempDir dir;
    SampleOptions o = Options(180, 320, 2.0, 10, 1);
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "a.webm").string(), o), std::invalid_argument);
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "a").string(), o), std::invalid_argument);
    o.timeJitter = 0.2;
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "a.mp4").string(), o), std::invalid_argument);
    EXPECT_FALSE(vyra_test::fs::exists(dir / "a.mp4"));
    o.timeJitter = 0.0;
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "missing" / "a.mp4").string(), o), std::runtime_error);
}

// ---------------------------------------------------------------- description

TEST(SampleDescribe, DefaultRecordingDescribedLineByLine) {
    EXPECT_EQ(vyra::sample::DescribeTruth(vyra::sample::PlanSample(SampleOptions())),
              "frames: 120\n"
              "launcher: frames 0-11, from 0.0 ms\n"
              "splash: frames 12-35, from 400.0 ms\n"
              "skeleton: frames 36-53, from 1200.0 ms\n"
              "content: frames 54-83, from 1800.0 ms, steps at 54 64 74\n"
              "loaded: frames 84-119, from 2800.0 ms\n"
              "expected: loadFinishedIndex 84, logoAppearIndex 12, logoDisappearIndex 36, firstFrameIndex 36\n");
}

TEST(SampleDescribe, EmptyStagesReadNone) {
    SampleOptions o = Options(180, 320, 2.0, 8, 1);
    o.launcherShare = 0.0;
    o.splashShare = 0.25;
    o.skeletonShare = 0.0;
    o.contentShare = 0.5;
    o.contentSteps = 1;
    // 16 frames at 125 ms: splash 0-3, content 4-11, loaded 12-15.
    EXPECT_EQ(vyra::sample::DescribeTruth(vyra::sample::PlanSample(o)),
              "frames: 16\n"
              "launcher: none\n"
              "splash: frames 0-3, from 0.0 ms\n"
              "skeleton: none\n"
              "content: frames 4-11, from 500.0 ms, steps at 4\n"
              "loaded: frames 12-15, from 1500.0 ms\n"
              "expected: loadFinishedIndex 12, logoAppearIndex 0, logoDisappearIndex 4, firstFrameIndex 4\n");
}

}  // namespace
