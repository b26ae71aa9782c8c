// Sample recordings: the stage plan from the shares, capture times, frames
// that show what their stage promises, the files written, the description
// `vyra sample` prints, and the static analysis finding what was built.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "VyraAnalyzer.h"
#include "VyraImageSets.h"
#include "VyraSample.h"
#include "fixtures.h"

namespace {

using vyra::sample::SampleOptions;
using vyra::sample::SampleTruth;

SampleOptions options(int width, int height, double seconds, int fps, unsigned seed, int steps = 3) {
    SampleOptions o;
    o.width = width, o.height = height, o.seconds = seconds, o.fps = fps, o.seed = seed, o.contentSteps = steps;
    return o;
}

bool samePixels(const cv::Mat& a, const cv::Mat& b) { return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0; }

TEST(SamplePlan, StagesStartAtTheirShareOfTheFramesAndTimesFollowTheRate) {
    // 4 s at 30 fps: stages at 0.10, 0.30, 0.45 and 0.70 of 120 frames, content in 3 steps of 10.
    EXPECT_EQ(vyra::sample::DescribeTruth(vyra::sample::PlanSample(SampleOptions())),
              "frames: 120\n"
              "launcher: frames 0-11, from 0.0 ms\n"
              "splash: frames 12-35, from 400.0 ms\n"
              "skeleton: frames 36-53, from 1200.0 ms\n"
              "content: frames 54-83, from 1800.0 ms, steps at 54 64 74\n"
              "loaded: frames 84-119, from 2800.0 ms\n"
              "expected: loadFinishedIndex 84, logoAppearIndex 12, logoDisappearIndex 36, firstFrameIndex 36\n");
    SampleOptions empty = options(180, 320, 2.0, 8, 1, 1);
    empty.launcherShare = 0.0, empty.splashShare = 0.25, empty.skeletonShare = 0.0, empty.contentShare = 0.5;
    EXPECT_EQ(vyra::sample::DescribeTruth(vyra::sample::PlanSample(empty)),  // 16 frames at 125 ms
              "frames: 16\n"
              "launcher: none\n"
              "splash: frames 0-3, from 0.0 ms\n"
              "skeleton: none\n"
              "content: frames 4-11, from 500.0 ms, steps at 4\n"
              "loaded: frames 12-15, from 1500.0 ms\n"
              "expected: loadFinishedIndex 12, logoAppearIndex 0, logoDisappearIndex 4, firstFrameIndex 4\n");
    SampleOptions jittered = options(360, 640, 3.0, 20, 5);
    jittered.timeJitter = 0.4;  // intervals of 50 ms * (1 +- 0.4)
    const SampleTruth t = vyra::sample::PlanSample(jittered);
    for (size_t k = 1; k < t.timesMs.size(); ++k) {
        EXPECT_NEAR(t.timesMs[k] - t.timesMs[k - 1], 50.0, 20.0 + 1e-9) << k;
    }
    EXPECT_EQ(vyra::sample::PlanSample(jittered).timesMs, t.timesMs);
    jittered.seed = 6;
    EXPECT_NE(vyra::sample::PlanSample(jittered).timesMs, t.timesMs);
}

TEST(SamplePlan, OptionsOutOfRangeAreRejected) {
    const std::vector<void (*)(SampleOptions&)> changes = {
        [](SampleOptions& o) { o.fps = 0; }, [](SampleOptions& o) { o.fps = 241; }, [](SampleOptions& o) { o.seconds = 0; },
        [](SampleOptions& o) { o.seconds = std::nan(""); }, [](SampleOptions& o) { o.width = 179; },
        [](SampleOptions& o) { o.height = 4097; }, [](SampleOptions& o) { o.launcherShare = -0.1; },
        [](SampleOptions& o) { o.contentShare = 0.6; },  // 0.1 + 0.2 + 0.15 + 0.6 > 1
        [](SampleOptions& o) { o.contentSteps = 0; }, [](SampleOptions& o) { o.timeJitter = 0.51; },
        [](SampleOptions& o) { o.seconds = 0.2, o.fps = 10; },  // a stage without frames
        [](SampleOptions& o) { o.seconds = 2.0, o.fps = 10, o.contentSteps = 6; },  // 5 content frames
    };
    for (size_t k = 0; k < changes.size(); ++k) {
        SampleOptions o;
        changes[k](o);
        EXPECT_THROW(vyra::sample::PlanSample(o), std::invalid_argument) << k;
    }
    EXPECT_NO_THROW(vyra::sample::PlanSample(options(180, 180, 2.0, 10, 1, 5)));  // one frame per step
}

TEST(SampleRender, FramesChangeOnlyAtStageBoundariesAndWithTheClocksSecond) {
    const SampleOptions o = options(180, 320, 4.0, 10, 2);
    const SampleTruth t = vyra::sample::PlanSample(o);
    const std::vector<cv::Mat> f = vyra::sample::RenderAllFrames(o, t);
    ASSERT_EQ(f.size(), 40u);
    for (int k : {0, t.splashStart, t.loadedIndex, 39}) EXPECT_TRUE(samePixels(vyra::sample::RenderFrame(o, t, k), f[k])) << k;
    EXPECT_THROW(vyra::sample::RenderFrame(o, t, -1), std::out_of_range);
    EXPECT_THROW(vyra::sample::RenderFrame(o, t, t.frameCount), std::out_of_range);
    // 10 fps: frames 20-29 share second 2. The loaded page starts at 28.
    EXPECT_EQ(t.loadedIndex, 28);
    EXPECT_TRUE(samePixels(f[28], f[29]) && samePixels(f[30], f[39]));
    EXPECT_FALSE(samePixels(f[29], f[30]));  // the clock ticks, only slightly:
    EXPECT_GE(vyra::ImageSets::CalculatePSNR(f[29], f[30]), 30.0);
    for (int boundary : {t.splashStart, t.splashEnd, t.contentStart, t.contentStepStarts[1], t.loadedIndex}) {
        EXPECT_FALSE(samePixels(f[boundary - 1], f[boundary])) << boundary;
    }
    SampleOptions other = o;
    other.seed = 5;
    EXPECT_FALSE(samePixels(vyra::sample::RenderFrame(other, vyra::sample::PlanSample(other), 0), f[0]));
}

TEST(SampleAnalysis, TheStaticAnalysisFindsTheStagesBuilt) {
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    std::vector<SampleOptions> variants = {options(360, 640, 2.0, 10, 1), options(640, 360, 2.0, 10, 2),
                                           options(180, 320, 3.0, 10, 3, 1), options(320, 180, 2.0, 15, 4, 2),
                                           options(240, 400, 3.0, 12, 9, 6), options(300, 300, 2.0, 10, 11, 2),
                                           options(1080, 1920, 2.0, 5, 7, 2), options(1920, 1080, 2.0, 5, 7, 2)};
    variants[3].launcherShare = 0.0, variants[4].launcherShare = 0.05, variants[4].skeletonShare = 0.0;
    variants[5].skeletonShare = 0.10;
    for (const SampleOptions& o : variants) {
        const SampleTruth t = vyra::sample::PlanSample(o);
        SCOPED_TRACE(std::to_string(o.width) + "x" + std::to_string(o.height) + "\n" + vyra::sample::DescribeTruth(t));
        std::vector<cv::Mat> frames = vyra::sample::RenderAllFrames(o, t);
        const vyra::AnalysisResult r = analyzer.Analyze(frames, STATIC_PAGE, false);
        EXPECT_EQ((std::vector<int>{r.staticResult.baselineIndex, r.loadFinishedIndex, r.staticResult.logoAppearIndex,
                                    r.staticResult.logoDisappearIndex, r.staticResult.firstFrameIndex}),
                  (std::vector<int>{t.frameCount - 1, t.loadedIndex, t.splashStart, t.splashEnd, t.splashEnd}));
    }
}

TEST(SampleFiles, FoldersAreNamedByCaptureTimeAndVideosHoldEveryFrame) {
    vyra_test::TempDir dir;
    const SampleOptions o = options(180, 320, 2.0, 10, 1);
    const SampleTruth t = vyra::sample::WriteSampleFrames((dir / "frames").string(), o, 5);
    std::vector<std::string> expected, listed;
    for (int k = 0; k < 20; ++k) expected.push_back(cv::format("%04d.png", 5 + 100 * k));  // 5 .. 1905 ms
    for (const auto& entry : vyra_test::fs::directory_iterator(dir / "frames")) listed.push_back(entry.path().filename());
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(vyra::sample::SampleFrameNames(t, 5), expected);
    for (int k : {0, t.loadedIndex}) {
        EXPECT_TRUE(samePixels(cv::imread((dir / "frames" / expected[k]).string()), vyra::sample::RenderFrame(o, t, k)));
    }
    SampleOptions jittered = options(180, 320, 2.5, 12, 8);
    jittered.timeJitter = 0.5;
    const SampleTruth j = vyra::sample::WriteSampleFrames((dir / "jittered").string(), jittered);  // from 1700000000000
    listed.clear();
    for (const auto& entry : vyra_test::fs::directory_iterator(dir / "jittered")) listed.push_back(entry.path().filename());
    std::sort(listed.begin(), listed.end());
    ASSERT_EQ(listed.size(), static_cast<size_t>(j.frameCount));
    for (size_t k = 0; k < listed.size(); ++k) {
        EXPECT_EQ(listed[k], std::to_string(1700000000000LL + std::llround(j.timesMs[k])) + ".png");
    }
    EXPECT_THROW(vyra::sample::WriteSampleFrames((dir / "x").string(), o, -1), std::invalid_argument);
    EXPECT_FALSE(vyra_test::fs::exists(dir / "x"));

    const SampleTruth v = vyra::sample::WriteSampleVideo((dir / "launch.mkv").string(), options(180, 320, 2.0, 10, 3));
    EXPECT_EQ(vyra_test::readVideoFrames(dir / "launch.mkv").size(), static_cast<size_t>(v.frameCount));
    SampleOptions bad = o;
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "a.webm").string(), bad), std::invalid_argument);
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "missing" / "a.mp4").string(), bad), std::runtime_error);
    bad.timeJitter = 0.2;
    EXPECT_THROW(vyra::sample::WriteSampleVideo((dir / "a.mp4").string(), bad), std::invalid_argument);
    EXPECT_FALSE(vyra_test::fs::exists(dir / "a.mp4"));
}

}  // namespace
