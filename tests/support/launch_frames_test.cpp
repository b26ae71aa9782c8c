// The launch frame generators have the properties the analyzer suites build
// on. Checked with the detector and the feature matcher (not with the
// analyzer), so a failure here points at the inputs, not at the analysis.
#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"
#include "analyzer_support.h"
#include "launch_frames.h"

namespace {

using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;

struct Census {
    size_t objects;
    double ratio;
    size_t inside;  // boxes within the central area
};

Census census(const cv::Mat& frame) {
    const std::vector<Rect> boxes = Image::DetectObjects(frame);
    const double w = frame.cols;
    const double h = frame.rows;
    size_t inside = 0;
    for (const Rect& b : boxes) {
        if (b.left >= 0.2 * w && b.top >= 0.25 * h && b.right <= 0.8 * w && b.bottom <= 0.75 * h) {
            ++inside;
        }
    }
    return {boxes.size(), static_cast<double>(Rect::CalculateTotalArea(boxes)) / frame.total(),
            inside};
}

size_t keypoints(const cv::Mat& frame) {
    return std::get<0>(ImageSets::FeatureMatching(frame, frame, true)).size();
}

TEST(LaunchFrames, BlankFrameHasNothing) {
    const Census c = census(vyra_test::makeBlankFrame());
    EXPECT_EQ(c.objects, 0u);
    EXPECT_EQ(keypoints(vyra_test::makeBlankFrame()), 0u);
}

TEST(LaunchFrames, LogoFrameHasAFewObjectsAllCentred) {
    const Census c = census(vyra_test::makeLogoFrame());
    EXPECT_GE(c.objects, 1u);
    EXPECT_LE(c.objects, 10u);
    EXPECT_EQ(c.inside, c.objects);
}

TEST(LaunchFrames, HalfLoadedFrameIsSparseSpreadAndUnlikeTheLoadedPage) {
    const cv::Mat half = vyra_test::makeHalfLoadedFrame();
    const cv::Mat loaded = vyra_test::makeLoadedFrame();
    const Census c = census(half);
    EXPECT_GE(c.objects, 1u);
    EXPECT_LT(c.objects, 200u);
    EXPECT_EQ(c.inside, 0u);
    EXPECT_LT(vyra_test::referencePsnr(half, loaded), 20.0);
    EXPECT_LT(static_cast<double>(keypoints(half)), 0.3 * static_cast<double>(keypoints(loaded)));
}

TEST(LaunchFrames, LoadedFrameIsRichAndSpread) {
    for (const cv::Size size : {cv::Size(320, 180), cv::Size(180, 320)}) {
        const Census c = census(vyra_test::makeLoadedFrame(size.width, size.height));
        EXPECT_GE(c.objects, 200u);
        EXPECT_GE(c.ratio, 0.15);
        EXPECT_GT(static_cast<double>(c.objects - c.inside), 0.3 * static_cast<double>(c.objects));
        EXPECT_GE(keypoints(vyra_test::makeLoadedFrame(size.width, size.height)), 200u);
    }
}

TEST(LaunchFrames, ClutteredFrameIsNonBlankSpreadAndUnlikeTheLoadedPage) {
    const cv::Mat clutter = vyra_test::makeClutteredFrame(320, 180, 3);
    const cv::Mat loaded = vyra_test::makeLoadedFrame();
    const Census c = census(clutter);
    EXPECT_GE(c.objects, 200u);
    EXPECT_GE(c.ratio, 0.15);
    EXPECT_GT(static_cast<double>(c.objects - c.inside), 0.3 * static_cast<double>(c.objects));
    EXPECT_LT(vyra_test::referencePsnr(clutter, loaded), 20.0);
    // Few cross-checked matches compared with the poorer frame's keypoints.
    const FeaturesMatchingInfo info = ImageSets::FeatureMatching(clutter, loaded, true);
    const size_t minK = std::min(std::get<0>(info).size(), std::get<1>(info).size());
    EXPECT_LT(static_cast<double>(std::get<2>(info).size()), 0.5 * static_cast<double>(minK));
}

TEST(LaunchFrames, TenFrameLaunchHasTheStagesInOrder) {
    const std::vector<cv::Mat> frames = vyra_test::makeTenFrameLaunch();
    ASSERT_EQ(frames.size(), 10u);
    for (int k = 5; k < 10; ++k) {
        EXPECT_EQ(cv::norm(frames[4], frames[k], cv::NORM_INF), 0.0) << k;
    }
    EXPECT_EQ(cv::norm(frames[1], frames[2], cv::NORM_INF), 0.0);
}

TEST(LaunchFrames, ScrollingFramesShiftByTheGivenStep) {
    const std::vector<cv::Mat> frames = vyra_test::makeScrollingFrames(4, 480, 72, 3, 7);
    ASSERT_EQ(frames.size(), 4u);
    for (int k = 1; k < 4; ++k) {
        ASSERT_EQ(frames[k].size(), cv::Size(480, 72));
        // Column c of frame k is column c + 3 of frame k - 1.
        EXPECT_EQ(cv::norm(frames[k].colRange(0, 477), frames[k - 1].colRange(3, 480),
                           cv::NORM_INF),
                  0.0);
        const Census c = census(frames[k]);
        EXPECT_GE(c.objects, 100u);
        EXPECT_GE(c.ratio, 0.15);
    }
}

}  // namespace
