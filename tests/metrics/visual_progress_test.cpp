// Visual progress on white pages gaining solid blocks of known pixel counts:
// progress is a ratio of changed pixel counts (per channel), the visual
// change frames and the speed index follow from the chosen times.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraVisualProgress.h"
#include "fixtures.h"

namespace {

using vyra::VisualProgress;
using vyra::VisualProgressOptions;
using vyra::VisualProgressTracker;

const cv::Scalar kBlack(0, 0, 0), kRed(0, 0, 255);  // red changes B and G of white, not R

struct Block {
    cv::Rect area;
    cv::Scalar colour;
};

// A white page (200x120 = 24000 px unless another size is given) with solid blocks.
cv::Mat page(const std::vector<Block>& blocks, cv::Size size = cv::Size(200, 120)) {
    cv::Mat frame = vyra_test::solidFrame(size.width, size.height);
    for (const Block& b : blocks) frame(b.area).setTo(b.colour);
    return frame;
}

VisualProgress track(const std::vector<cv::Mat>& frames, const std::vector<double>& timesMs, VisualProgressOptions options = {}) {
    VisualProgressTracker tracker(options);
    for (size_t k = 0; k < frames.size(); ++k) EXPECT_TRUE(tracker.AddFrame(frames[k], timesMs[k])) << k;
    return tracker.Finish();
}

// Header 4800 px, body 10240 px, then 2 s later a block of 960: 16000 px change.
const Block kHeader{{0, 0, 200, 24}, kBlack}, kBody{{0, 32, 160, 64}, kBlack}, kLate{{160, 96, 40, 24}, kBlack};
const std::vector<double> kLateTimes = {0, 100, 200, 300, 400, 2300, 2400, 2500};

std::vector<cv::Mat> lateBlockFrames() {
    return {page({}), page({}), page({kHeader}), page({kHeader, kBody}), page({kHeader, kBody}),
            page({kHeader, kBody, kLate}), page({kHeader, kBody, kLate}), page({kHeader, kBody, kLate})};
}

void expectLateBlock(const VisualProgress& r, const std::string& what) {
    const std::vector<double> expected = {0, 0, 4800.0 / 16000, 15040.0 / 16000, 15040.0 / 16000, 1, 1, 1};
    ASSERT_EQ(r.progress.size(), expected.size()) << what;
    for (size_t k = 0; k < expected.size(); ++k) EXPECT_DOUBLE_EQ(r.progress[k], expected[k]) << what << " " << k;
    EXPECT_EQ((std::vector<int>{r.firstVisualChange, r.lastVisualChange, r.visuallyComplete85, r.visuallyComplete95,
                                r.visuallyComplete99}),
              (std::vector<int>{2, 5, 3, 5, 5}))
        << what;
    EXPECT_EQ((std::vector<double>{r.firstVisualChangeMs, r.lastVisualChangeMs, r.visuallyComplete85Ms, r.visuallyComplete99Ms}),
              (std::vector<double>{200, 2300, 300, 2300}))
        << what;
    EXPECT_NEAR(r.speedIndexMs, 100 + 100 + 100 * 0.7 + 100 * 0.06 + 1900 * 0.06, 1e-9) << what;
}

TEST(VisualProgress, SequencesOfBlocksGiveTheirPixelRatiosChangesAndSpeedIndex) {
    expectLateBlock(track(lateBlockFrames(), kLateTimes), "late block");
    EXPECT_EQ(track(lateBlockFrames(), kLateTimes).changedFraction,
              (std::vector<double>{0, 0, 4800.0 / 24000, 10240.0 / 24000, 0, 960.0 / 24000, 0, 0}));

    const Block content{{0, 0, 200, 48}, kBlack}, spinner{{80, 64, 40, 40}, kRed}, top{{0, 0, 200, 24}, kBlack},
        bottom{{0, 24, 200, 24}, kBlack}, most{{0, 0, 200, 41}, kBlack}, rest{{0, 41, 200, 9}, kBlack};
    const cv::Rect square(0, 0, 40, 40);
    const struct {
        const char* what;
        std::vector<cv::Mat> frames;
        std::vector<double> times, progress;
        int first, last, complete85, complete95, complete99;
        double speedIndexMs;
    } cases[] = {
        // A red overlay over the white part: B and G lose 1600 of 9600 each: (8000 + 8000 + 9600) / 28800.
        {"regression", {page({}), page({content}), page({content, spinner}), page({content}), page({content})},
         {0, 500, 1000, 1500, 2000}, {0, 1, 8.0 / 9, 1, 1}, 1, 3, 1, 3, 3, 500 + 500.0 / 9},
        {"channels", {page({}), page({{square, kRed}}), page({{{80, 0, 40, 40}, kBlack}}), page({{square, kRed}, {{80, 0, 40, 40}, kBlack}})},
         {0, 10, 20, 30}, {0, 3200.0 / 8000, 4800.0 / 8000, 1}, 1, 3, 3, 3, 3, 10 * 1 + 10 * 0.6 + 10 * 0.4},
        // Farther from the end than the start: 0, not negative.
        {"clamped", {page({}), page({{{0, 0, 200, 96}, kRed}}), page({{{0, 96, 40, 24}, kBlack}})}, {0, 1, 2}, {0, 0, 1},
         1, 2, 2, 2, 2, 2},
        // B arrived (1600 of 1600), G farther than at the start (0), R never changes: 1600 / 3200.
        {"channel moving away", {page({}), page({{square, {0, 255, 255}}, {{40, 0, 120, 40}, {255, 0, 255}}}), page({{square, kRed}})},
         {0, 1, 2}, {0, 0.5, 1}, 1, 2, 2, 2, 2, 1.5},
        {"same first and last", {page({}), page({{{0, 0, 200, 120}, kBlack}}), page({}), page({})}, {0, 100, 200, 300},
         {1, 1, 1, 1}, 1, 2, 0, 0, 0, 0},
        {"steps", {page({}), page({top}), page({top, bottom})}, {0, 1000, 2000}, {0, 0.5, 1}, 1, 2, 2, 2, 2, 1500},
        {"stops at the last change", {page({}), page({}), page({top}), page({top})}, {40, 240, 1040, 90000}, {0, 0, 1, 1},
         2, 2, 2, 2, 2, 1000},
        {"0.82 is not 0.85", {page({}), page({most}), page({most, rest})}, {0, 100, 200}, {0, 8200.0 / 10000, 1}, 1, 2, 2, 2, 2,
         100 + 100 * 0.18},
        {"one frame", {page({kHeader})}, {250}, {1}, -1, -1, 0, 0, 0, 0},
        {"none", {}, {}, {}, -1, -1, -1, -1, -1, std::nan("")},
        // Other sizes compare by colour shares: 20 % black of 150x90 is half of 40 %.
        {"sizes", {page({}), page({{{0, 0, 150, 18}, kBlack}}, {150, 90}), page({content})}, {0, 100, 200}, {0, 0.5, 1}, 1, 2, 2, 2,
         2, 150},
        {"first of another size", {page({}, {100, 60}), page({{{0, 0, 200, 15}, kBlack}}), page({{{0, 0, 200, 30}, kBlack}})},
         {0, 1, 2}, {0, 0.5, 1}, 1, 2, 2, 2, 2, 1.5},
    };
    for (const auto& c : cases) {
        const VisualProgress r = track(c.frames, c.times);
        ASSERT_EQ(r.progress.size(), c.progress.size()) << c.what;
        for (size_t k = 0; k < c.progress.size(); ++k) EXPECT_DOUBLE_EQ(r.progress[k], c.progress[k]) << c.what << " " << k;
        EXPECT_EQ((std::vector<int>{r.firstVisualChange, r.lastVisualChange, r.visuallyComplete85, r.visuallyComplete95,
                                    r.visuallyComplete99}),
                  (std::vector<int>{c.first, c.last, c.complete85, c.complete95, c.complete99}))
            << c.what;
        EXPECT_EQ(r.timesMs, c.times);
        const auto time = [&](int index) { return index < 0 ? std::nan("") : c.times[static_cast<size_t>(index)]; };
        for (const auto& [ms, index] : {std::pair{r.firstVisualChangeMs, c.first}, std::pair{r.lastVisualChangeMs, c.last},
                                        std::pair{r.visuallyComplete95Ms, c.complete95}}) {
            EXPECT_TRUE(ms == time(index) || (std::isnan(ms) && std::isnan(time(index)))) << c.what << " " << ms;
        }
        EXPECT_TRUE(std::abs(r.speedIndexMs - c.speedIndexMs) < 1e-9 || (std::isnan(r.speedIndexMs) && std::isnan(c.speedIndexMs)))
            << c.what << ": " << r.speedIndexMs;
    }
}

TEST(VisualProgress, ToleranceSlopAndAreaLimitsAreInclusive) {
    const cv::Rect area(0, 0, 40, 40), band(0, 0, 200, 60), left(0, 0, 100, 60), right(100, 0, 100, 60);
    const auto grey = [](int v) { return cv::Scalar::all(v); };
    const cv::Size small(20, 12);  // 8x8 blocks: the bottom-right one is 4x4
    const struct {
        const char* what;
        std::vector<cv::Mat> frames;
        int blockSize, levelTolerance, histogramSlop;
        double areaTolerance;
        int last;
        std::vector<double> progress;  // empty: not checked
    } cases[] = {
        {"16 levels tolerated", {page({}), page({{area, grey(239)}})}, 8, 16, 8, 0, -1, {}},
        {"17 are not", {page({}), page({{area, grey(238)}})}, 8, 16, 8, 0, 1, {}},
        // Four pixels 80 darker move a 4x4 edge block's mean by 20, a full block's by 5.
        {"edge block", {page({}, small), page({{{17, 9, 2, 2}, grey(175)}}, small)}, 8, 16, 8, 0, 1, {}},
        {"full block", {page({}, small), page({{{2, 2, 2, 2}, grey(175)}}, small)}, 8, 16, 8, 0, -1, {}},
        {"one block is the area tolerance", {page({}), page({{{8, 8, 8, 8}, kBlack}})}, 8, 0, 8, 64.0 / 24000, -1, {}},
        {"two blocks exceed it", {page({}), page({{{8, 8, 16, 8}, kBlack}})}, 8, 0, 8, 64.0 / 24000, 1, {}},
        {"8 levels off white are white", {page({}), page({{band, grey(247)}})}, 8, 0, 8, 0, 1, {1, 1}},
        {"9 are not", {page({}), page({{band, grey(246)}})}, 8, 0, 8, 0, 1, {0, 1}},
        {"5 lighter has arrived", {page({}), page({{band, grey(105)}}), page({{band, grey(100)}})}, 8, 0, 8, 0, 2, {0, 1, 1}},
        // 100-105 and 110-114 pair; one shade of 110 stands for 105 or 114, not both.
        {"slop pairs", {page({}), page({{left, grey(100)}, {right, grey(110)}}), page({{left, grey(105)}, {right, grey(114)}})},
         8, 0, 5, 0, 2, {0, 1, 1}},
        {"slop pairs once", {page({}), page({{left, grey(110)}}), page({{left, grey(105)}, {right, grey(114)}})}, 8, 0, 5, 0, 2,
         {0, 0.5, 1}},
    };
    for (const auto& c : cases) {
        VisualProgressOptions options;
        options.blockSize = c.blockSize;
        options.levelTolerance = c.levelTolerance;
        options.histogramSlop = c.histogramSlop;
        options.areaTolerance = c.areaTolerance;
        std::vector<double> times;
        for (size_t k = 0; k < c.frames.size(); ++k) times.push_back(static_cast<double>(k));
        const VisualProgress r = track(c.frames, times, options);
        EXPECT_EQ(r.lastVisualChange, c.last) << c.what;
        if (!c.progress.empty()) {
            EXPECT_EQ(r.progress, c.progress) << c.what;
        }
    }
    VisualProgressOptions wild;
    wild.blockSize = 0, wild.levelTolerance = -5, wild.areaTolerance = std::nan(""), wild.histogramSlop = 300;
    const VisualProgressOptions low = VisualProgressTracker(wild).Options();
    EXPECT_EQ((std::vector<double>{double(low.blockSize), double(low.levelTolerance), low.areaTolerance, double(low.histogramSlop)}),
              (std::vector<double>{1, vyra::kVisualProgressLevelToleranceAuto, vyra::kVisualProgressAreaTolerance, 255}));
    wild.blockSize = 1000, wild.levelTolerance = 1000, wild.areaTolerance = 2, wild.histogramSlop = -1;
    const VisualProgressOptions high = VisualProgressTracker(wild).Options();
    EXPECT_EQ((std::vector<double>{double(high.blockSize), double(high.levelTolerance), high.areaTolerance, double(high.histogramSlop)}),
              (std::vector<double>{256, 255, 1, 0}));
}

// Deterministic noise of -2, -1, +1 or +2 levels on every value of a page in
// muted colours (white 200, black 50), so that nothing is cut at 0 or 255.
cv::Mat noisy(const cv::Mat& frame, unsigned seed) {
    cv::Mat out;
    frame.convertTo(out, -1, 150.0 / 255.0, 50);
    unsigned state = seed * 2654435761u + 1u;
    const int steps[4] = {-2, -1, 1, 2};
    for (int y = 0; y < out.rows; ++y) {
        for (int x = 0; x < out.cols * out.channels(); ++x) {
            state = state * 1664525u + 1013904223u;
            out.ptr<uchar>(y)[x] = cv::saturate_cast<uchar>(out.ptr<uchar>(y)[x] + steps[state >> 30]);
        }
    }
    return out;
}

TEST(VisualProgress, NoiseIsNoChangeUpToTheToleranceAndThroughTheSlop) {
    std::vector<cv::Mat> withNoise;
    for (size_t k = 0; k < lateBlockFrames().size(); ++k) withNoise.push_back(noisy(lateBlockFrames()[k], static_cast<unsigned>(k) + 1));
    expectLateBlock(track(withNoise, kLateTimes), "noise, estimated tolerance");

    VisualProgressOptions pixels;  // two noisy frames differ by at most 4 levels
    pixels.blockSize = 1, pixels.levelTolerance = 4, pixels.areaTolerance = 0;
    EXPECT_EQ(track(withNoise, kLateTimes, pixels).lastVisualChange, 5);
    pixels.levelTolerance = 3;
    EXPECT_EQ(track(withNoise, kLateTimes, pixels).lastVisualChange, 7);
    VisualProgressOptions exact;  // without slop the grain keeps the page from arriving
    exact.histogramSlop = 0;
    const VisualProgress r = track(withNoise, kLateTimes, exact);
    EXPECT_LT(r.progress[5], 1.0);
    EXPECT_EQ(r.visuallyComplete99, 7);
}

TEST(VisualProgress, RefusedFramesLeaveNoTraceAndRepeatsRecordWhatTheSameFrameWould) {
    VisualProgressTracker tracker;
    const cv::Mat white = page({});
    EXPECT_FALSE(tracker.AddRepeatedFrame(0));  // nothing to repeat yet
    for (const cv::Mat& bad : {cv::Mat(), cv::Mat(120, 200, CV_16UC3), cv::Mat(120, 200, CV_32FC1), cv::Mat(120, 200, CV_8UC2)}) {
        EXPECT_FALSE(tracker.AddFrame(bad, 0)) << bad.type();
    }
    EXPECT_FALSE(tracker.AddFrame(white, std::nan("")));
    EXPECT_FALSE(tracker.AddFrame(white, INFINITY));
    EXPECT_TRUE(tracker.AddFrame(white, 100));
    EXPECT_FALSE(tracker.AddFrame(page({kHeader}), 99.5));
    EXPECT_FALSE(tracker.AddRepeatedFrame(99));
    EXPECT_FALSE(tracker.AddChangedFrame(white, 40, white, {}));
    EXPECT_TRUE(tracker.AddFrame(white, 100));  // equal times are fine
    EXPECT_EQ(tracker.Finish().timesMs, (std::vector<double>{100, 100}));
    EXPECT_EQ(tracker.Finish().lastVisualChange, -1);

    // Repeats right after frame 0, inside the change and at the end.
    const std::vector<cv::Mat> late = lateBlockFrames();
    VisualProgressTracker shortcut, copy;
    for (size_t k = 0; k < late.size(); ++k) {
        const bool repeat = k > 0 && cv::norm(late[k], late[k - 1], cv::NORM_INF) == 0;
        ASSERT_TRUE(repeat ? shortcut.AddRepeatedFrame(kLateTimes[k]) : shortcut.AddFrame(late[k], kLateTimes[k]));
        if (k == 3) copy = shortcut;
    }
    expectLateBlock(shortcut.Finish(), "repeated frames");
    ASSERT_TRUE(copy.AddFrame(page({}), 5000));  // back to white in the copy only
    EXPECT_EQ(copy.Finish().progress, (std::vector<double>{1, 1, 1, 1, 1}));
    expectLateBlock(shortcut.Finish(), "after a copy went its own way");
    // (Frames given with their changed rows: the pinned Measure results of regression/.)
}

TEST(VisualProgress, CompletionIndexIsTheLastRiseThatStaysAndSpeedIndexTheAreaAboveTheCurveUpToAnEnd) {
    using vyra::VisuallyCompleteIndex;
    EXPECT_EQ(VisuallyCompleteIndex({}, 0.5), -1);
    EXPECT_EQ(VisuallyCompleteIndex({0.2, 0.9, 0.4}, 0.5), -1);
    EXPECT_EQ(VisuallyCompleteIndex({0.9, 0.8, 0.9, 1}, 0.85), 2);
    EXPECT_EQ(VisuallyCompleteIndex({0.9, 0.85, 0.9, 1}, 0.85), 0);
    const std::vector<double> times = {0, 1000, 2000, 2500}, progress = {0, 0.5, 1, 1};
    const struct {
        int end;
        double speed;
    } ends[] = {{3, 1500}, {2, 1500}, {1, 1000}, {0, 0}, {-1, 0}, {4, std::nan("")}};
    for (const auto& e : ends) {
        const double speed = vyra::SpeedIndexMs(times, progress, e.end);
        EXPECT_TRUE(speed == e.speed || (std::isnan(speed) && std::isnan(e.speed))) << e.end << ": " << speed;
    }
    EXPECT_TRUE(std::isnan(vyra::SpeedIndexMs(times, {0, 1}, 1)));
}

TEST(VisualProgress, EstimatedBlockNoiseNeverCountsWhileASmallIconDoes) {
    // Each 8x8 block of a grey page moved by a fresh offset in -5..5 every frame (as a coder moves block
    // means); a 16x16 icon from frame 20. Two offsets differ by up to 10: over 1200 blocks and 19 pairs
    // nearly every difference occurs, and the estimate must cover it.
    std::mt19937 random(7);
    std::uniform_int_distribution<int> offset(-5, 5);
    VisualProgressTracker tracker;
    for (int k = 0; k < 30; ++k) {
        cv::Mat frame = vyra_test::solidFrame(320, 240, cv::Scalar::all(128));
        for (int y = 0; y < 240; y += 8) {
            for (int x = 0; x < 320; x += 8) frame(cv::Rect(x, y, 8, 8)) += cv::Scalar::all(offset(random));
        }
        if (k >= 20) frame(cv::Rect(40, 48, 16, 16)).setTo(cv::Scalar(20, 200, 20));
        ASSERT_TRUE(tracker.AddFrame(frame, 100.0 * k));
    }
    const VisualProgress r = tracker.Finish();
    EXPECT_TRUE(r.levelToleranceEstimated);
    EXPECT_GE(r.levelTolerance, 9);
    EXPECT_LE(r.levelTolerance, 10);
    EXPECT_EQ((std::vector<int>{r.firstVisualChange, r.lastVisualChange, r.visuallyComplete}), (std::vector<int>{20, 20, 20}));
}

}  // namespace
