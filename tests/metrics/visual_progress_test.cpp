// Visual progress measures on generated frame sequences whose answers follow
// from how they were built: white pages gaining solid blocks of known pixel
// counts, so that progress is a ratio of changed pixel counts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "VyraSample.h"
#include "VyraVisualProgress.h"
#include "fixtures.h"

namespace {

using vyra::VisualProgress;
using vyra::VisualProgressOptions;
using vyra::VisualProgressTracker;

const cv::Scalar kWhite(255, 255, 255);
const cv::Scalar kBlack(0, 0, 0);
const cv::Scalar kRed(0, 0, 255);  // BGR: changes B and G of white, not R

struct Block {
    cv::Rect area;
    cv::Scalar colour;
};

// A white 200x120 page (24000 pixels) with solid blocks painted in order.
cv::Mat Page(const std::vector<Block>& blocks, cv::Size size = cv::Size(200, 120)) {
    cv::Mat page = vyra_test::solidFrame(size.width, size.height, kWhite);
    for (const Block& block : blocks) {
        page(block.area).setTo(block.colour);
    }
    return page;
}

// Adds deterministic noise of -2, -1, +1 or +2 levels to every channel of
// every pixel (saturating at 0 and 255), like the grain of lossy encoding.
cv::Mat WithNoise(const cv::Mat& frame, unsigned seed) {
    cv::Mat noisy = frame.clone();
    unsigned state = seed * 2654435761u + 1u;
    const int steps[4] = {-2, -1, 1, 2};
    for (int y = 0; y < noisy.rows; ++y) {
        uchar* row = noisy.ptr<uchar>(y);
        for (int x = 0; x < noisy.cols * noisy.channels(); ++x) {
            state = state * 1664525u + 1013904223u;
            row[x] = cv::saturate_cast<uchar>(row[x] + steps[state >> 30]);
        }
    }
    return noisy;
}

// The same page in muted colours, white -> 200 and black -> 50, so that
// noise is not cut off at 0 and 255.
cv::Mat Muted(const cv::Mat& frame) {
    cv::Mat muted;
    frame.convertTo(muted, -1, 150.0 / 255.0, 50);
    return muted;
}

VisualProgress Track(const std::vector<cv::Mat>& frames, const std::vector<double>& timesMs,
                   const VisualProgressOptions& options = {}) {
    VisualProgressTracker tracker(options);
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_TRUE(tracker.AddFrame(frames[k], timesMs[k])) << "frame " << k;
    }
    return tracker.Finish();
}

// The late-block launch: a header (200x24 = 4800 px), then a body
// (160x64 = 10240 px), then, 2 s later, a small block (40x24 = 960 px); all
// black on white, so 16000 pixels change in all, in every channel.
const Block kHeader{cv::Rect(0, 0, 200, 24), kBlack};
const Block kBody{cv::Rect(0, 32, 160, 64), kBlack};
const Block kLate{cv::Rect(160, 96, 40, 24), kBlack};

std::vector<cv::Mat> LateBlockFrames() {
    return {Page({}),
            Page({}),
            Page({kHeader}),
            Page({kHeader, kBody}),
            Page({kHeader, kBody}),
            Page({kHeader, kBody, kLate}),
            Page({kHeader, kBody, kLate}),
            Page({kHeader, kBody, kLate})};
}
const std::vector<double> kLateBlockTimes = {0, 100, 200, 300, 400, 2300, 2400, 2500};

void ExpectLateBlockMeasures(const VisualProgress& r) {
    ASSERT_EQ(r.progress.size(), 8u);
    const std::vector<double> expected = {0, 0, 4800.0 / 16000, 15040.0 / 16000,
                                          15040.0 / 16000, 1, 1, 1};
    for (size_t k = 0; k < expected.size(); ++k) {
        EXPECT_DOUBLE_EQ(r.progress[k], expected[k]) << "frame " << k;
    }
    EXPECT_EQ(r.timesMs, kLateBlockTimes);
    EXPECT_EQ(r.firstVisualChange, 2);
    EXPECT_DOUBLE_EQ(r.firstVisualChangeMs, 200);
    EXPECT_EQ(r.lastVisualChange, 5);
    EXPECT_DOUBLE_EQ(r.lastVisualChangeMs, 2300);
    // 0.94 reached at frame 3 and kept; 0.95 and 0.99 only with the late block.
    EXPECT_EQ(r.visuallyComplete85, 3);
    EXPECT_DOUBLE_EQ(r.visuallyComplete85Ms, 300);
    EXPECT_EQ(r.visuallyComplete95, 5);
    EXPECT_DOUBLE_EQ(r.visuallyComplete95Ms, 2300);
    EXPECT_EQ(r.visuallyComplete99, 5);
    EXPECT_DOUBLE_EQ(r.visuallyComplete99Ms, 2300);
    // 100 * 1 + 100 * 1 + 100 * 0.7 + 100 * 0.06 + 1900 * 0.06
    EXPECT_NEAR(r.speedIndexMs, 390.0, 1e-9);
}

TEST(VisualProgress, LateBlockSetsLastChangeAndLateCompletion) {
    const VisualProgress r = Track(LateBlockFrames(), kLateBlockTimes);
    ExpectLateBlockMeasures(r);
    // Changed fractions: blocks are aligned to the 8x8 grid, so they count exactly.
    const std::vector<double> changed = {0, 0, 4800.0 / 24000, 10240.0 / 24000, 0,
                                         960.0 / 24000, 0, 0};
    ASSERT_EQ(r.changedFraction.size(), changed.size());
    for (size_t k = 0; k < changed.size(); ++k) {
        EXPECT_DOUBLE_EQ(r.changedFraction[k], changed[k]) << "frame " << k;
    }
}

TEST(VisualProgress, NoiseOnEveryFrameChangesNothing) {
    std::vector<cv::Mat> frames = LateBlockFrames();
    for (size_t k = 0; k < frames.size(); ++k) {
        frames[k] = WithNoise(Muted(frames[k]), static_cast<unsigned>(k) + 1);
    }
    const VisualProgress r = Track(frames, kLateBlockTimes);
    // Same answers as without noise: the slop pairs the smeared histogram
    // values, the block means stay within the level tolerance.
    ExpectLateBlockMeasures(r);
    for (size_t k : {1u, 4u, 6u, 7u}) {
        EXPECT_EQ(r.changedFraction[k], 0.0) << "frame " << k;
    }
}

TEST(VisualProgress, NoiseIsToleratedPixelByPixelOnlyUpToTheLevel) {
    // Two noisy frames differ by at most 4 levels per channel.
    std::vector<cv::Mat> frames = LateBlockFrames();
    for (size_t k = 0; k < frames.size(); ++k) {
        frames[k] = WithNoise(Muted(frames[k]), static_cast<unsigned>(k) + 11);
    }
    VisualProgressOptions pixels;
    pixels.blockSize = 1;
    pixels.levelTolerance = 4;
    pixels.areaTolerance = 0;
    VisualProgress r = Track(frames, kLateBlockTimes, pixels);
    EXPECT_EQ(r.firstVisualChange, 2);
    EXPECT_EQ(r.lastVisualChange, 5);

    pixels.levelTolerance = 3;
    r = Track(frames, kLateBlockTimes, pixels);
    EXPECT_EQ(r.firstVisualChange, 1);
    EXPECT_EQ(r.lastVisualChange, 7);
}

TEST(VisualProgress, NoiseWithoutSlopMovesTheProgress) {
    std::vector<cv::Mat> frames = LateBlockFrames();
    for (size_t k = 0; k < frames.size(); ++k) {
        frames[k] = WithNoise(Muted(frames[k]), static_cast<unsigned>(k) + 21);
    }
    VisualProgressOptions exact;
    exact.histogramSlop = 0;
    const VisualProgress r = Track(frames, kLateBlockTimes, exact);
    // The finished page under other grain: its histograms differ bin by bin
    // from the last frame's, so without slop it never quite arrives.
    EXPECT_LT(r.progress[5], 1.0);
    EXPECT_LT(r.progress[6], 1.0);
    EXPECT_EQ(r.visuallyComplete99, 7);
}

TEST(VisualProgress, RegressionCountsTheLastCrossing) {
    // Content 200x48 black (9600 px); then a red 40x40 overlay (1600 px) on
    // the white part, then the content alone again.
    const Block content{cv::Rect(0, 0, 200, 48), kBlack};
    const Block spinner{cv::Rect(80, 64, 40, 40), kRed};
    const std::vector<cv::Mat> frames = {Page({}), Page({content}), Page({content, spinner}),
                                         Page({content}), Page({content})};
    const VisualProgress r = Track(frames, {0, 500, 1000, 1500, 2000});
    // With the overlay: B and G lose 1600 of 9600 each, R stays, so
    // (8000 + 8000 + 9600) / 28800 = 8/9.
    ASSERT_EQ(r.progress.size(), 5u);
    EXPECT_DOUBLE_EQ(r.progress[0], 0);
    EXPECT_DOUBLE_EQ(r.progress[1], 1);
    EXPECT_DOUBLE_EQ(r.progress[2], 8.0 / 9);
    EXPECT_DOUBLE_EQ(r.progress[3], 1);
    EXPECT_DOUBLE_EQ(r.progress[4], 1);
    EXPECT_EQ(r.visuallyComplete85, 1);  // 8/9 >= 0.85: the first rise stays
    EXPECT_EQ(r.visuallyComplete95, 3);
    EXPECT_EQ(r.visuallyComplete99, 3);
    EXPECT_DOUBLE_EQ(r.visuallyComplete99Ms, 1500);
    EXPECT_EQ(r.firstVisualChange, 1);
    EXPECT_EQ(r.lastVisualChange, 3);
    EXPECT_NEAR(r.speedIndexMs, 500 + 500.0 / 9, 1e-9);
}

TEST(VisualProgress, ChannelsWeighByTheirChange) {
    // Red (1600 px) changes two channels of white, black (1600 px) three.
    const Block red{cv::Rect(0, 0, 40, 40), kRed};
    const Block black{cv::Rect(80, 0, 40, 40), kBlack};
    const VisualProgress r = Track({Page({}), Page({red}), Page({black}), Page({red, black})},
                                 {0, 10, 20, 30});
    EXPECT_DOUBLE_EQ(r.progress[1], 3200.0 / 8000);
    EXPECT_DOUBLE_EQ(r.progress[2], 4800.0 / 8000);
}

TEST(VisualProgress, MovingAwayFromTheEndClampsAtZero) {
    // Frame 1 shows a block the end does not have: farther from the end than
    // the start, its progress is 0, not negative.
    const Block stray{cv::Rect(0, 0, 200, 96), kRed};
    const Block content{cv::Rect(0, 96, 40, 24), kBlack};
    const VisualProgress r = Track({Page({}), Page({stray}), Page({content})}, {0, 1, 2});
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0, 1}));
}

TEST(VisualProgress, AChannelMovingAwayDoesNotCancelAnother) {
    // End: red 40x40 (B and G change, 1600 px each). Frame 1: the same square
    // yellow (B right, G wrong) and a magenta 120x40 stray (G wrong, 4800 px):
    // B has arrived (1600 of 1600), G is farther than at the start (clamped
    // to 0), R never changes. (1600 + 0) / 3200.
    const cv::Rect square(0, 0, 40, 40);
    const VisualProgress r =
        Track({Page({}),
               Page({{square, cv::Scalar(0, 255, 255)},
                     {cv::Rect(40, 0, 120, 40), cv::Scalar(255, 0, 255)}}),
               Page({{square, kRed}})},
              {0, 1, 2});
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0.5, 1}));
}

TEST(VisualProgress, SameFirstAndLastFrameIsCompleteThroughout) {
    const Block flash{cv::Rect(0, 0, 200, 120), kBlack};
    const VisualProgress r =
        Track({Page({}), Page({flash}), Page({}), Page({})}, {0, 100, 200, 300});
    EXPECT_EQ(r.progress, (std::vector<double>{1, 1, 1, 1}));
    EXPECT_EQ(r.firstVisualChange, 1);
    EXPECT_EQ(r.lastVisualChange, 2);
    EXPECT_EQ(r.visuallyComplete85, 0);
    EXPECT_EQ(r.visuallyComplete99, 0);
    EXPECT_DOUBLE_EQ(r.visuallyComplete99Ms, 0);
    EXPECT_EQ(r.speedIndexMs, 0.0);
}

TEST(VisualProgress, StepSequenceGivesExactSpeedIndex) {
    // Progress 0 until 1000 ms, 0.5 until 2000 ms, then 1.
    const Block top{cv::Rect(0, 0, 200, 24), kBlack};
    const Block bottom{cv::Rect(0, 24, 200, 24), kBlack};
    const VisualProgress r =
        Track({Page({}), Page({top}), Page({top, bottom})}, {0, 1000, 2000});
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0.5, 1}));
    EXPECT_EQ(r.lastVisualChange, 2);
    EXPECT_DOUBLE_EQ(r.speedIndexMs, 1500);
}

TEST(VisualProgress, SpeedIndexStopsAtTheLastVisualChange) {
    // Frames after the last change add nothing, whatever their times.
    const Block top{cv::Rect(0, 0, 200, 24), kBlack};
    const VisualProgress r =
        Track({Page({}), Page({}), Page({top}), Page({top})}, {40, 240, 1040, 90000});
    EXPECT_EQ(r.lastVisualChange, 2);
    EXPECT_DOUBLE_EQ(r.speedIndexMs, 1000);
}

TEST(VisualProgress, SingleFrame) {
    const VisualProgress r = Track({Page({kHeader})}, {250});
    EXPECT_EQ(r.progress, (std::vector<double>{1}));
    EXPECT_EQ(r.changedFraction, (std::vector<double>{0}));
    EXPECT_EQ(r.firstVisualChange, -1);
    EXPECT_TRUE(std::isnan(r.firstVisualChangeMs));
    EXPECT_EQ(r.lastVisualChange, -1);
    EXPECT_TRUE(std::isnan(r.lastVisualChangeMs));
    EXPECT_EQ(r.visuallyComplete85, 0);
    EXPECT_EQ(r.visuallyComplete95, 0);
    EXPECT_EQ(r.visuallyComplete99, 0);
    EXPECT_DOUBLE_EQ(r.visuallyComplete95Ms, 250);
    EXPECT_EQ(r.speedIndexMs, 0.0);
}

TEST(VisualProgress, EmptyTracker) {
    const VisualProgressTracker tracker;
    EXPECT_EQ(tracker.FrameCount(), 0);
    const VisualProgress r = tracker.Finish();
    EXPECT_TRUE(r.timesMs.empty());
    EXPECT_TRUE(r.progress.empty());
    EXPECT_TRUE(r.changedFraction.empty());
    EXPECT_EQ(r.firstVisualChange, -1);
    EXPECT_EQ(r.lastVisualChange, -1);
    EXPECT_EQ(r.visuallyComplete85, -1);
    EXPECT_EQ(r.visuallyComplete95, -1);
    EXPECT_EQ(r.visuallyComplete99, -1);
    for (double t : {r.firstVisualChangeMs, r.lastVisualChangeMs, r.visuallyComplete85Ms,
                     r.visuallyComplete95Ms, r.visuallyComplete99Ms, r.speedIndexMs}) {
        EXPECT_TRUE(std::isnan(t));
    }
}

TEST(VisualProgress, RefusesUnsupportedFramesAndTimes) {
    VisualProgressTracker tracker;
    const cv::Mat page = Page({});
    EXPECT_FALSE(tracker.AddFrame(cv::Mat(), 0));
    EXPECT_FALSE(tracker.AddFrame(cv::Mat(120, 200, CV_16UC3, cv::Scalar::all(0)), 0));
    EXPECT_FALSE(tracker.AddFrame(cv::Mat(120, 200, CV_32FC1, cv::Scalar::all(0)), 0));
    EXPECT_FALSE(tracker.AddFrame(cv::Mat(120, 200, CV_8UC2, cv::Scalar::all(0)), 0));
    EXPECT_FALSE(tracker.AddFrame(page, std::nan("")));
    EXPECT_FALSE(tracker.AddFrame(page, INFINITY));
    EXPECT_EQ(tracker.FrameCount(), 0);

    EXPECT_TRUE(tracker.AddFrame(page, 100));
    EXPECT_FALSE(tracker.AddFrame(Page({kHeader}), 99.5));
    EXPECT_TRUE(tracker.AddFrame(page, 100));  // equal times are fine
    EXPECT_EQ(tracker.FrameCount(), 2);
    const VisualProgress r = tracker.Finish();
    // The refused header frame left no trace.
    EXPECT_EQ(r.lastVisualChange, -1);
    EXPECT_EQ(r.timesMs, (std::vector<double>{100, 100}));
}

TEST(VisualProgress, GreyAndBgraFramesReadLikeBgr) {
    // Grey pages: 0 on 255 in every channel, the same as black on white.
    // BGRA pages carry a different random alpha plane each.
    std::vector<cv::Mat> grey, bgra;
    cv::RNG rng(3);
    for (const cv::Mat& frame : LateBlockFrames()) {
        cv::Mat g, alpha(frame.size(), CV_8U), a;
        cv::cvtColor(frame, g, cv::COLOR_BGR2GRAY);
        rng.fill(alpha, cv::RNG::UNIFORM, 0, 256);
        std::vector<cv::Mat> planes;
        cv::split(frame, planes);
        planes.push_back(alpha);
        cv::merge(planes, a);
        grey.push_back(g);
        bgra.push_back(a);
    }
    ExpectLateBlockMeasures(Track(grey, kLateBlockTimes));
    ExpectLateBlockMeasures(Track(bgra, kLateBlockTimes));

}

TEST(VisualProgress, RegionViewsOfBiggerFramesAreRead) {
    // Each frame sits inside a bigger noisy canvas; only the view counts.
    std::vector<cv::Mat> views;
    for (const cv::Mat& frame : LateBlockFrames()) {
        cv::Mat canvas = vyra_test::texturedFrame(260, 170, 5);
        frame.copyTo(canvas(cv::Rect(30, 20, 200, 120)));
        views.push_back(canvas(cv::Rect(30, 20, 200, 120)));
        ASSERT_FALSE(views.back().isContinuous());
    }
    ExpectLateBlockMeasures(Track(views, kLateBlockTimes));
}

TEST(VisualProgress, FramesOfOtherSizesCompareByColourShares) {
    // End: 40 % black. A 150x90 frame with 20 % black (150x18) is half way;
    // its size change also counts as a visual change.
    const Block end{cv::Rect(0, 0, 200, 48), kBlack};
    const Block half{cv::Rect(0, 0, 150, 18), kBlack};
    const VisualProgress r = Track({Page({}), Page({half}, cv::Size(150, 90)), Page({end})},
                                 {0, 100, 200});
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0.5, 1}));
    EXPECT_EQ(r.changedFraction, (std::vector<double>{0, 1, 1}));
    EXPECT_EQ(r.firstVisualChange, 1);
    EXPECT_EQ(r.lastVisualChange, 2);
}

TEST(VisualProgress, FirstAndLastFramesOfDifferentSizes) {
    // Start 100x60 white, end 200x120 with a quarter black; a 200x120 frame
    // with an eighth black is half way.
    const VisualProgress r =
        Track({Page({}, cv::Size(100, 60)), Page({{cv::Rect(0, 0, 200, 15), kBlack}}),
             Page({{cv::Rect(0, 0, 200, 30), kBlack}})},
            {0, 1, 2});
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0.5, 1}));
    EXPECT_EQ(r.firstVisualChange, 1);
}

TEST(VisualProgress, LevelToleranceBoundary) {
    VisualProgressOptions options;
    options.levelTolerance = 16;
    options.areaTolerance = 0;
    const cv::Rect area(0, 0, 40, 40);
    // 255 - 239 = 16 is tolerated, 17 is not.
    VisualProgress r = Track({Page({}), Page({{area, cv::Scalar::all(239)}})}, {0, 1}, options);
    EXPECT_EQ(r.firstVisualChange, -1);
    EXPECT_EQ(r.lastVisualChange, -1);
    r = Track({Page({}), Page({{area, cv::Scalar::all(238)}})}, {0, 1}, options);
    EXPECT_EQ(r.firstVisualChange, 1);
    EXPECT_EQ(r.lastVisualChange, 1);
    EXPECT_DOUBLE_EQ(r.changedFraction[1], 1600.0 / 24000);
}

TEST(VisualProgress, BlockMeansUseTheTruePixelCountOfEdgeBlocks) {
    // 20x12 frame in 8x8 blocks: the bottom-right block is 4x4. Four pixels
    // darker by 80 move its mean by 20 (> 16); in a full block only by 5.
    VisualProgressOptions options;
    options.levelTolerance = 16;
    options.areaTolerance = 0;
    const cv::Size size(20, 12);
    const cv::Scalar darker = cv::Scalar::all(175);
    VisualProgress r =
        Track({Page({}, size), Page({{cv::Rect(17, 9, 2, 2), darker}}, size)}, {0, 1}, options);
    EXPECT_EQ(r.lastVisualChange, 1);
    EXPECT_DOUBLE_EQ(r.changedFraction[1], 16.0 / 240);
    r = Track({Page({}, size), Page({{cv::Rect(2, 2, 2, 2), darker}}, size)}, {0, 1}, options);
    EXPECT_EQ(r.lastVisualChange, -1);
}

TEST(VisualProgress, AreaToleranceBoundary) {
    VisualProgressOptions options;
    options.areaTolerance = 64.0 / 24000;  // exactly one 8x8 block
    const Block one{cv::Rect(8, 8, 8, 8), kBlack};
    const Block two{cv::Rect(8, 8, 16, 8), kBlack};
    EXPECT_EQ(Track({Page({}), Page({one})}, {0, 1}, options).lastVisualChange, -1);
    EXPECT_EQ(Track({Page({}), Page({two})}, {0, 1}, options).lastVisualChange, 1);
}

TEST(VisualProgress, HistogramSlopBoundary) {
    VisualProgressOptions options;
    options.histogramSlop = 8;
    const cv::Rect area(0, 0, 200, 60);
    // A colour 8 levels off white is the same colour: the page never changed.
    VisualProgress r =
        Track({Page({}), Page({{area, cv::Scalar::all(247)}})}, {0, 1}, options);
    EXPECT_EQ(r.progress, (std::vector<double>{1, 1}));
    // 9 levels off is not.
    r = Track({Page({}), Page({{area, cv::Scalar::all(246)}})}, {0, 1}, options);
    EXPECT_EQ(r.progress, (std::vector<double>{0, 1}));
    // Shades within the slop of each other pair up: a frame showing the
    // block 5 levels lighter than the end has arrived.
    r = Track({Page({}), Page({{area, cv::Scalar::all(105)}}), Page({{area, cv::Scalar::all(100)}})},
            {0, 1, 2}, options);
    EXPECT_EQ(r.progress, (std::vector<double>{0, 1, 1}));
}

TEST(VisualProgress, HistogramSlopPairsEachUnitOnce) {
    VisualProgressOptions options;
    options.histogramSlop = 5;
    const cv::Rect left(0, 0, 100, 60), right(100, 0, 100, 60);  // 6000 px each
    const auto grey = [](int v) { return cv::Scalar::all(v); };
    const cv::Mat end = Page({{left, grey(105)}, {right, grey(114)}});
    // 100 and 110 pair with 105 and 114 (100-105, 110-114): arrived, even
    // though 110 is also within reach of 105.
    VisualProgress r =
        Track({Page({}), Page({{left, grey(100)}, {right, grey(110)}}), end}, {0, 1, 2}, options);
    EXPECT_EQ(r.progress, (std::vector<double>{0, 1, 1}));
    // One shade of 110 can stand for 105 or for 114, not for both: half way.
    r = Track({Page({}), Page({{left, grey(110)}}), end}, {0, 1, 2}, options);
    EXPECT_EQ(r.progress, (std::vector<double>{0, 0.5, 1}));
}

TEST(VisualProgress, OptionsAreClamped) {
    VisualProgressOptions wild;
    wild.blockSize = 0;
    wild.levelTolerance = -5;
    wild.areaTolerance = std::nan("");
    wild.histogramSlop = 300;
    VisualProgressTracker tracker(wild);
    EXPECT_EQ(tracker.Options().blockSize, 1);
    EXPECT_EQ(tracker.Options().levelTolerance, vyra::kVisualProgressLevelToleranceAuto);
    EXPECT_EQ(tracker.Options().areaTolerance, vyra::kVisualProgressAreaTolerance);
    EXPECT_EQ(tracker.Options().histogramSlop, 255);

    wild.blockSize = 1000;
    wild.levelTolerance = 1000;
    wild.areaTolerance = 2;
    wild.histogramSlop = -1;
    const VisualProgressTracker other(wild);
    EXPECT_EQ(other.Options().blockSize, 256);
    EXPECT_EQ(other.Options().levelTolerance, 255);
    EXPECT_EQ(other.Options().areaTolerance, 1.0);
    EXPECT_EQ(other.Options().histogramSlop, 0);
}

TEST(VisualProgress, FinishIsASnapshotAndCopiesAreIndependent) {
    const std::vector<cv::Mat> frames = LateBlockFrames();
    VisualProgressTracker tracker;
    for (int k = 0; k < 4; ++k) {
        ASSERT_TRUE(tracker.AddFrame(frames[k], kLateBlockTimes[k]));
    }
    const VisualProgress partial = tracker.Finish();
    EXPECT_EQ(partial.progress.size(), 4u);
    EXPECT_EQ(partial.lastVisualChange, 3);

    VisualProgressTracker copy(tracker);
    ASSERT_TRUE(copy.AddFrame(Page({}), 5000));  // back to white, in the copy only
    for (int k = 4; k < 8; ++k) {
        ASSERT_TRUE(tracker.AddFrame(frames[k], kLateBlockTimes[k]));
    }
    ExpectLateBlockMeasures(tracker.Finish());
    ExpectLateBlockMeasures(tracker.Finish());
    EXPECT_EQ(copy.FrameCount(), 5);
    EXPECT_EQ(copy.Finish().progress, (std::vector<double>{1, 1, 1, 1, 1}));

    VisualProgressTracker moved(std::move(copy));
    EXPECT_EQ(moved.FrameCount(), 5);
    copy = tracker;
    EXPECT_EQ(copy.FrameCount(), 8);
}

TEST(VisuallyCompleteIndex, LastRiseThatStays) {
    using vyra::VisuallyCompleteIndex;
    EXPECT_EQ(VisuallyCompleteIndex({}, 0.5), -1);
    EXPECT_EQ(VisuallyCompleteIndex({0.2, 0.9, 0.4}, 0.5), -1);
    EXPECT_EQ(VisuallyCompleteIndex({0.9, 0.8, 0.9, 1}, 0.85), 2);
    EXPECT_EQ(VisuallyCompleteIndex({0.9, 0.85, 0.9, 1}, 0.85), 0);  // equal counts
    EXPECT_EQ(VisuallyCompleteIndex({0, 1, 1}, 1), 1);
}

TEST(SpeedIndexMs, StepIntegralAndBounds) {
    using vyra::SpeedIndexMs;
    const std::vector<double> times = {0, 1000, 2000, 2500};
    const std::vector<double> progress = {0, 0.5, 1, 1};
    EXPECT_DOUBLE_EQ(SpeedIndexMs(times, progress, 2), 1500);
    EXPECT_DOUBLE_EQ(SpeedIndexMs(times, progress, 3), 1500);
    EXPECT_DOUBLE_EQ(SpeedIndexMs(times, progress, 1), 1000);
    EXPECT_EQ(SpeedIndexMs(times, progress, 0), 0.0);
    EXPECT_EQ(SpeedIndexMs(times, progress, -1), 0.0);
    EXPECT_TRUE(std::isnan(SpeedIndexMs(times, progress, 4)));
    EXPECT_TRUE(std::isnan(SpeedIndexMs(times, {0, 1}, 1)));
    EXPECT_TRUE(std::isnan(SpeedIndexMs({}, {}, 0)));
}

// ---- Recordings through real lossy encoders ----

// A small launch with anti-aliased text and gradients (what makes encoders
// ring): blank for 4 frames, list for 10, a late thumbnail, then still.
cv::Mat LaunchFrame(int stage) {
    cv::Mat frame = vyra_test::solidFrame(200, 360, kWhite);
    if (stage >= 1) {
        frame(cv::Rect(0, 0, 200, 32)).setTo(cv::Scalar(180, 90, 30));
        cv::putText(frame, "Launcher", {10, 22}, cv::FONT_HERSHEY_SIMPLEX, 0.6, kWhite, 1,
                    cv::LINE_AA);
        for (int row = 0; row < 5; ++row) {
            cv::putText(frame, "Item " + std::to_string(row) + " lorem ipsum", {10, 70 + row * 50},
                        cv::FONT_HERSHEY_SIMPLEX, 0.45, cv::Scalar(40, 40, 40), 1, cv::LINE_AA);
        }
    }
    if (stage >= 2) {
        cv::Mat thumb = frame(cv::Rect(120, 290, 64, 64));
        for (int y = 0; y < 64; ++y) {
            for (int x = 0; x < 64; ++x) {
                thumb.at<cv::Vec3b>(y, x) = cv::Vec3b(x * 4, y * 4, 128 + (x ^ y));
            }
        }
    }
    return frame;
}

std::vector<cv::Mat> LaunchFrames() {
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 40; ++k) {
        frames.push_back(LaunchFrame(k < 4 ? 0 : k < 14 ? 1 : 2));
    }
    return frames;
}

std::vector<cv::Mat> Decode(const vyra_test::fs::path& file) {
    std::vector<cv::Mat> frames;
    cv::VideoCapture capture(file.string());
    cv::Mat frame;
    while (capture.read(frame) && !frame.empty()) {
        frames.push_back(frame.clone());
    }
    return frames;
}

void ExpectLaunchMeasures(const std::vector<cv::Mat>& decoded) {
    ASSERT_EQ(decoded.size(), 40u);
    std::vector<double> times;
    for (int k = 0; k < 40; ++k) {
        times.push_back(k * 100.0);
    }
    const VisualProgress r = Track(decoded, times);
    EXPECT_EQ(r.firstVisualChange, 4);
    EXPECT_EQ(r.lastVisualChange, 14);
    EXPECT_EQ(r.visuallyComplete99, 14);
    for (int k = 14; k < 40; ++k) {
        EXPECT_GE(r.progress[k], 0.99) << "frame " << k;
    }
}

TEST(VisualProgressRecording, Mpeg4EncodingNoiseIsNoChange) {
    vyra_test::TempDir dir;
    const auto file = dir / "launch.mp4";
    ASSERT_TRUE(vyra_test::writeVideo(file, LaunchFrames(), 10));  // mp4v, key frame every 12
    ExpectLaunchMeasures(Decode(file));
}

TEST(VisualProgressRecording, H264EncodingNoiseIsNoChange) {
    vyra_test::TempDir dir;
    const std::vector<cv::Mat> frames = LaunchFrames();
    vyra_test::writePngFolder(dir / "png", [] {
        std::vector<std::string> names;
        for (int k = 0; k < 40; ++k) {
            names.push_back(cv::format("%03d.png", k));
        }
        return names;
    }(), frames);
    const auto file = dir / "launch.mp4";
    // CRF 30 with a key frame every 8 frames: several key frames re-encode
    // the still page.
    const std::string command = "ffmpeg -loglevel error -y -framerate 10 -i '" +
                                (dir / "png" / "%03d.png").string() +
                                "' -c:v libx264 -crf 30 -g 8 -pix_fmt yuv420p '" + file.string() +
                                "' > /dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        GTEST_SKIP() << "ffmpeg with libx264 is not available";
    }
    ExpectLaunchMeasures(Decode(file));
}

// The sample launch of tools/sample, with the status bar (whose clock ticks
// every second) cut off as a caller would: the first change is the splash,
// the last one the loaded page, which is also where the progress reaches
// 0.99 (its picture alone covers about a third of the screen).
void ExpectSampleMeasures(const std::vector<cv::Mat>& frames, const vyra::sample::SampleTruth& truth,
                          int statusBarHeight) {
    ASSERT_EQ(frames.size(), static_cast<size_t>(truth.frameCount));
    VisualProgressTracker tracker;
    for (size_t k = 0; k < frames.size(); ++k) {
        const cv::Mat& frame = frames[k];
        ASSERT_TRUE(tracker.AddFrame(
            frame(cv::Rect(0, statusBarHeight, frame.cols, frame.rows - statusBarHeight)),
            truth.timesMs[k]));
    }
    const VisualProgress r = tracker.Finish();
    EXPECT_EQ(r.firstVisualChange, truth.splashStart);
    EXPECT_EQ(r.lastVisualChange, truth.loadedIndex);
    EXPECT_EQ(r.visuallyComplete99, truth.loadedIndex);
    EXPECT_DOUBLE_EQ(r.visuallyComplete99Ms, truth.timesMs[truth.loadedIndex]);
}

vyra::sample::SampleOptions SmallSample() {
    vyra::sample::SampleOptions options;
    options.width = 180;
    options.height = 320;
    options.fps = 10;
    options.seconds = 5;
    return options;
}
constexpr int kSmallSampleStatusBar = 12;  // 24 units at half a unit per pixel

TEST(VisualProgressRecording, SampleLaunchFrames) {
    const vyra::sample::SampleOptions options = SmallSample();
    const vyra::sample::SampleTruth truth = vyra::sample::PlanSample(options);
    ExpectSampleMeasures(vyra::sample::RenderAllFrames(options, truth), truth,
                         kSmallSampleStatusBar);
}

TEST(VisualProgressRecording, SampleLaunchVideo) {
    vyra_test::TempDir dir;
    const auto file = dir / "sample.mp4";
    const vyra::sample::SampleTruth truth =
        vyra::sample::WriteSampleVideo(file.string(), SmallSample());
    ExpectSampleMeasures(vyra_test::readVideoFrames(file), truth, kSmallSampleStatusBar);
}

}  // namespace
