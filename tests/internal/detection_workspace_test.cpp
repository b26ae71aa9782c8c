// The detection workspace, used directly: whatever it detected before, and
// whatever buffers it holds, each frame gets the boxes of OpenCV's plain
// pipeline (vyra_test::plainPipelineObjects).
#include <gtest/gtest.h>

#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "ObjectDetection.h"
#include "fixtures.h"

namespace {

using vyra::detail::DetectionWorkspace;

std::string describe(const cv::Mat& frame, size_t k) {
    return "frame " + std::to_string(k) + " " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows) +
           " channels " + std::to_string(frame.channels());
}

// Small sizes, odd sizes and single rows and columns.
std::vector<cv::Size> smallSizes() {
    return {cv::Size(1, 1), cv::Size(9, 1), cv::Size(1, 9), cv::Size(2, 3), cv::Size(17, 5),
            cv::Size(64, 48), cv::Size(121, 203), cv::Size(200, 120)};
}

TEST(DetectionWorkspace, FreshWorkspaceGivesThePlainPipelinesBoxes) {
    const std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(smallSizes());
    size_t withBoxes = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        DetectionWorkspace workspace;
        const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(frames[k]);
        EXPECT_EQ(workspace.Detect(frames[k]), expected) << describe(frames[k], k);
        if (!expected.empty()) ++withBoxes;
    }
    // The comparison means something: many frames have objects.
    EXPECT_GE(withBoxes, frames.size() / 3);
}

TEST(DetectionWorkspace, OneWorkspaceReusedAcrossSizesAndTypesInAnyOrder) {
    std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(smallSizes());
    std::vector<std::vector<vyra::Rect>> expected;
    for (const cv::Mat& frame : frames) expected.push_back(vyra_test::plainPipelineObjects(frame));

    DetectionWorkspace workspace;
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]) << "forward, " << describe(frames[k], k);
    }
    for (size_t k = frames.size(); k-- > 0;) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]) << "backward, " << describe(frames[k], k);
    }
    // Interleaved: a frame with objects, then one without, of the same size.
    for (size_t k = 0; k + 17 < frames.size(); k += 18) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]);
        EXPECT_EQ(workspace.Detect(frames[k + 15]), expected[k + 15]);  // one colour
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]);
    }
}

TEST(DetectionWorkspace, MegapixelFramesBetweenSmallOnes) {
    // Large enough for the buffers to span several megabytes (kept in one
    // block that grows from the first size to the second), and small frames
    // whose buffers are allocated on their own.
    const std::vector<cv::Mat> large = vyra_test::detectionCatalogue({cv::Size(720, 1000), cv::Size(800, 1100)});
    const std::vector<cv::Mat> small = vyra_test::detectionCatalogue({cv::Size(90, 160)});
    const size_t perSize = small.size();
    DetectionWorkspace workspace;
    for (size_t k = 0; k < perSize; k += 5) {
        for (const cv::Mat* frame : {&small[k], &large[k], &large[perSize + k], &large[k]}) {
            EXPECT_EQ(workspace.Detect(*frame), vyra_test::plainPipelineObjects(*frame)) << describe(*frame, k);
        }
    }
}

TEST(DetectionWorkspace, RegionsOfLargerFramesSeeOnlyTheirOwnPixels) {
    // The parts outside the region hold strong edges; replicated borders
    // must come from the region itself.
    const cv::Mat outer = vyra_test::texturedFrame(160, 140, 5);
    cv::Mat greyOuter;
    cv::cvtColor(outer, greyOuter, cv::COLOR_BGR2GRAY);
    DetectionWorkspace workspace;
    for (const cv::Rect& region : {cv::Rect(3, 5, 100, 90), cv::Rect(60, 50, 100, 90), cv::Rect(7, 9, 1, 40)}) {
        for (const cv::Mat& source : {outer, greyOuter}) {
            const cv::Mat part = source(region);
            ASSERT_FALSE(part.isContinuous() && region.width > 1);
            EXPECT_EQ(workspace.Detect(part), vyra_test::plainPipelineObjects(part.clone()))
                << region << " channels " << source.channels();
        }
    }
}

TEST(DetectionWorkspace, UnreadableFramesGiveNothingAndLeaveTheWorkspaceUsable) {
    const cv::Mat textured = vyra_test::texturedFrame(64, 48, 9);
    const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(textured);
    ASSERT_FALSE(expected.empty());
    cv::Mat wide, floating, twoChannels;
    textured.convertTo(wide, CV_16UC3, 256.0);
    textured.convertTo(floating, CV_32FC3);
    cv::Mat planes[3];
    cv::split(textured, planes);
    cv::merge(planes, 2, twoChannels);

    DetectionWorkspace workspace;
    EXPECT_EQ(workspace.Detect(textured), expected);
    for (const cv::Mat& unreadable : {cv::Mat(), wide, floating, twoChannels}) {
        EXPECT_TRUE(workspace.Detect(unreadable).empty()) << unreadable.type();
        EXPECT_EQ(workspace.Detect(textured), expected) << "after type " << unreadable.type();
    }
}

TEST(DetectionWorkspace, InputFrameIsLeftAsItWas) {
    const std::vector<cv::Mat> frames = vyra_test::detectionCatalogue({cv::Size(40, 30)});
    DetectionWorkspace workspace;
    for (const cv::Mat& frame : frames) {
        const cv::Mat before = frame.clone();
        workspace.Detect(frame);
        EXPECT_EQ(cv::norm(frame, before, cv::NORM_INF), 0.0);
    }
}

}  // namespace
