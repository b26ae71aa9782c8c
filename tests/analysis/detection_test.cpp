// Detection in a reused workspace and on bands shared with the frame before
// gives exactly the boxes of OpenCV's plain pipeline
// (vyra_test::plainPipelineObjects). Objects prefetched from the frame store
// and features detected once per frame are held to the pinned results of
// regression/, which were recorded before either existed.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "analysis/ObjectDetection.h"
#include "store/FrameStore.h"
#include "fixtures.h"

namespace {

using vyra::detail::DetectionWorkspace;

std::vector<cv::Mat> bandsOf(const cv::Mat& frame, int rows) {
    std::vector<cv::Mat> bands;
    for (int y = 0; y < frame.rows; y += rows) bands.push_back(frame.rowRange(y, std::min(y + rows, frame.rows)));
    return bands;
}

cv::Mat stacked(const std::vector<cv::Mat>& bands) {
    cv::Mat frame;
    cv::vconcat(bands, frame);
    return frame;
}

TEST(DetectionWorkspace, ReusedAcrossSizesTypesAndRegionsGivesThePlainBoxes) {
    std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(
        {cv::Size(1, 1), cv::Size(9, 1), cv::Size(2, 3), cv::Size(121, 203), cv::Size(720, 1000)});
    const cv::Mat outer = vyra_test::texturedFrame(160, 140, 5);
    frames.push_back(outer(cv::Rect(3, 5, 100, 90)));  // a region: borders come from its own pixels
    frames.push_back(outer(cv::Rect(7, 9, 1, 40)));
    size_t withBoxes = 0;
    DetectionWorkspace reused;
    for (int pass = 0; pass < 2; ++pass) {
        for (size_t k = 0; k < frames.size(); ++k) {
            const size_t i = pass == 0 ? k : frames.size() - 1 - k;
            const cv::Mat before = frames[i].clone();
            const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(frames[i].clone());
            EXPECT_EQ(reused.Detect(frames[i]), expected) << "frame " << i;
            EXPECT_EQ(DetectionWorkspace().Detect(frames[i]), expected) << "frame " << i;
            EXPECT_EQ(cv::norm(frames[i], before, cv::NORM_INF), 0.0);
            withBoxes += expected.empty() ? 0 : 1;
        }
    }
    EXPECT_GE(withBoxes, frames.size() / 2);  // the comparison means something
    cv::Mat floating;
    outer.convertTo(floating, CV_32FC3);
    EXPECT_TRUE(reused.Detect(floating).empty());
    EXPECT_EQ(reused.Detect(outer), vyra_test::plainPipelineObjects(outer));
}

TEST(DetectionWorkspace, BandsSharedWithTheFrameBeforeGiveThePlainBoxesOfTheWholeFrame) {
    // Each step repaints one to three bands (new blocks, a bar, or a line on a
    // band's first or last row, where the neighbours' gradients change too)
    // and keeps every other band as the very same matrix.
    for (const int code : {-1, int(cv::COLOR_BGR2GRAY), int(cv::COLOR_BGR2BGRA)}) {
        for (const int rows : {16, 5, 1}) {
            cv::Mat first = vyra_test::texturedFrame(150, 203, 3);
            if (code >= 0) cv::cvtColor(first, first, code);
            std::vector<std::vector<cv::Mat>> walk{bandsOf(first, rows)};  // keeps every band alive
            std::mt19937 rng(17u + static_cast<unsigned>(rows));
            DetectionWorkspace workspace;
            for (int step = 0; step < (code < 0 ? 40 : 10); ++step) {
                ASSERT_EQ(workspace.DetectBands(walk.back()), vyra_test::plainPipelineObjects(stacked(walk.back())))
                    << "channels " << first.channels() << ", bands of " << rows << ", step " << step;
                std::vector<cv::Mat> next = walk.back();
                for (unsigned n = 1 + rng() % 3; n > 0; --n) {
                    cv::Mat& band = next[rng() % next.size()];
                    band = band.clone();
                    const cv::Scalar colour(rng() % 256, rng() % 256, rng() % 256);
                    const int x = static_cast<int>(rng() % static_cast<unsigned>(band.cols));
                    const int y = rng() % 2 == 0 ? 0 : band.rows - 1;
                    if (rng() % 2 == 0) {
                        cv::rectangle(band, cv::Rect(x, 0, band.cols - x, band.rows), colour, cv::FILLED);
                    } else {
                        cv::line(band, {x, y}, {band.cols - 1, y}, colour);
                    }
                }
                walk.push_back(next);
            }
        }
    }
    // A whole frame, a failing call and a finer cut in between do not pass
    // for kept bands; nor do the bands of a frame store read in any order.
    const cv::Mat page = vyra_test::texturedFrame(120, 96, 21), other = vyra_test::texturedFrame(120, 96, 22);
    DetectionWorkspace workspace;
    workspace.DetectBands(bandsOf(page, 16));
    workspace.Detect(other);
    EXPECT_EQ(workspace.DetectBands(bandsOf(page, 16)), vyra_test::plainPipelineObjects(page));
    std::vector<cv::Mat> broken = bandsOf(other, 16);
    broken.back() = cv::Mat(broken.back().rows, 7, CV_8UC3, cv::Scalar(1, 2, 3));
    EXPECT_THROW(workspace.DetectBands(broken), cv::Exception);
    EXPECT_EQ(workspace.DetectBands(bandsOf(page, 16)), vyra_test::plainPipelineObjects(page));
    EXPECT_EQ(workspace.DetectBands(bandsOf(other, 8)), vyra_test::plainPipelineObjects(other));
    EXPECT_TRUE(workspace.DetectBands({}).empty());

    vyra::detail::FrameStore store;
    for (unsigned k = 0; k < 6; ++k) {
        cv::Mat frame = page.clone();
        frame.rowRange(16 * k, 16 * k + 16).setTo(cv::Scalar(k * 40, 0, 0));
        store.Append(frame);
        store.Append(frame);  // a repeat shares every band
    }
    for (const size_t k : {11u, 0u, 5u, 6u, 1u, 10u, 3u, 2u}) {
        EXPECT_EQ(workspace.DetectBands(*store.Bands(k)), vyra_test::plainPipelineObjects(store.Load(k))) << k;
    }
}

}  // namespace
