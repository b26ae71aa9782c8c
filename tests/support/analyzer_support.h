// Hand-made inputs for the analyzer suites: images whose object lists and
// content ratios are given rather than detected, keypoint/match sets whose
// statistics are known by construction, loader images that count their loads,
// and an independent PSNR for expected values.
#ifndef VYRA_TESTS_ANALYZER_SUPPORT_H
#define VYRA_TESTS_ANALYZER_SUPPORT_H

#include <cmath>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "VyraAnalysisResults.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"

namespace vyra_test {

// @p count distinct one-pixel boxes on row @p row: (k, row) for k = 0 .. count-1.
// Boxes on different rows never match each other, exactly or approximately
// (1x1 boxes tolerate a centre offset of 0.3 px only).
inline std::vector<vyra::Rect> boxesOnRow(int count, int row) {
    std::vector<vyra::Rect> boxes;
    for (int k = 0; k < count; ++k) {
        boxes.emplace_back(k, row, k, row);
    }
    return boxes;
}

// A uniform BGR matrix of one grey value.
inline cv::Mat greyMat(int width, int height, int value) {
    return cv::Mat(height, width, CV_8UC3, cv::Scalar(value, value, value));
}

// An Image whose object list and content ratio are handed over, so nothing is
// detected. An empty @p boxes leaves detection to the Image (of @p mat).
inline vyra::Image craftedImage(cv::Mat mat, std::vector<vyra::Rect> boxes, double ratio,
                                int index) {
    return vyra::Image(mat, boxes, ratio, index);
}

// An image set of crafted images: image k shares mats[k], carries boxes[k] and
// ratios[k].
inline std::vector<vyra::Image> craftedImages(const std::vector<cv::Mat>& mats,
                                              const std::vector<std::vector<vyra::Rect>>& boxes,
                                              const std::vector<double>& ratios) {
    std::vector<vyra::Image> images;
    for (size_t k = 0; k < mats.size(); ++k) {
        images.push_back(craftedImage(mats[k], boxes[k], ratios[k], static_cast<int>(k)));
    }
    return images;
}

// Images that produce their pixels through a loader; loads[k] counts the calls
// of image k's loader. Sizes are handed over, so width()/height() load nothing.
struct CountingImages {
    std::shared_ptr<std::vector<int>> loads;
    std::vector<vyra::Image> images;
};

inline CountingImages countingImages(const std::vector<cv::Mat>& frames) {
    CountingImages result{std::make_shared<std::vector<int>>(frames.size(), 0), {}};
    for (size_t k = 0; k < frames.size(); ++k) {
        std::shared_ptr<std::vector<int>> loads = result.loads;
        const cv::Mat frame = frames[k];
        std::vector<vyra::Rect> none;
        result.images.emplace_back(
            [loads, k, frame]() {
                ++(*loads)[k];
                return frame.clone();
            },
            none, frame.cols, frame.rows, -1.0, static_cast<int>(k));
    }
    return result;
}

// PSNR of two equally sized 8-bit matrices, written out directly: squared
// differences of every element (all channels) summed exactly in integers.
inline double referencePsnr(const cv::Mat& a, const cv::Mat& b) {
    const cv::Mat flatA = a.reshape(1, 1);
    const cv::Mat flatB = b.reshape(1, 1);
    std::uint64_t sse = 0;
    for (int k = 0; k < flatA.cols; ++k) {
        const std::int64_t d = static_cast<std::int64_t>(flatA.at<uchar>(0, k)) -
                               static_cast<std::int64_t>(flatB.at<uchar>(0, k));
        sse += static_cast<std::uint64_t>(d * d);
    }
    if (sse == 0) {
        return 99.99;
    }
    const double mse = static_cast<double>(sse) / static_cast<double>(a.total() * a.channels());
    return 10.0 * std::log10(65025.0 / mse);
}

inline cv::KeyPoint keypointAt(float x, float y) {
    return cv::KeyPoint(x, y, 31.0f);
}

// Matching info with @p firstCount and @p secondCount keypoints and @p total
// matches (match m pairs keypoint m of each frame), of which exactly @p good
// are good for ExtractGoodMatch. Displacements (first minus second):
//   - the first @p good matches: (0, 0);
//   - the outliers: alternately (+50, 0) and (-50, 0), and when their number is
//     odd the last one is (0, +50).
// Why exactly @p good: the x outliers come in +/- pairs, so meanX = 0 and
// sdX = 50 * sqrt(xOutliers / total) < 50 while good >= 1: the zeros lie
// inside the x range, every x outlier outside it. A single y outlier gives
// meanY = 50 / total and sdY = 50 * sqrt((1 / total) * (1 - 1 / total)); for
// total >= 3, 0 lies inside [meanY - sdY, meanY + sdY] and 50 outside it.
// Requires 1 <= good <= total <= min(firstCount, secondCount), and total >= 3
// when total - good is odd.
inline FeaturesMatchingInfo shiftInfo(int firstCount, int secondCount, int good, int total) {
    std::vector<cv::KeyPoint> first;
    std::vector<cv::KeyPoint> second;
    std::vector<cv::DMatch> matches;
    const int outliers = total - good;
    const int xOutliers = outliers - outliers % 2;
    for (int k = 0; k < std::max(firstCount, secondCount); ++k) {
        cv::Point2f shift(0.0f, 0.0f);
        if (k >= good && k < good + xOutliers) {
            shift.x = (k - good) % 2 == 0 ? 50.0f : -50.0f;
        } else if (k >= good + xOutliers && k < total) {
            shift.y = 50.0f;
        }
        const cv::Point2f base(100.0f + static_cast<float>(k % 200), 100.0f + static_cast<float>(k / 200));
        if (k < firstCount) {
            first.push_back(keypointAt(base.x + shift.x, base.y + shift.y));
        }
        if (k < secondCount) {
            second.push_back(keypointAt(base.x, base.y));
        }
        if (k < total) {
            matches.emplace_back(k, k, 0.0f);
        }
    }
    return FeaturesMatchingInfo(first, second, matches);
}

// Matching info for the motion analysis: @p firstCount and @p secondCount
// keypoints and @p total matches (match m pairs keypoint m of each frame); the
// first @p level matches sit at the same position in both frames (dx = dy = 0,
// level and consistent), the others are 10 px apart vertically (not level).
inline FeaturesMatchingInfo levelInfo(int firstCount, int secondCount, int level, int total) {
    std::vector<cv::KeyPoint> first;
    std::vector<cv::KeyPoint> second;
    std::vector<cv::DMatch> matches;
    for (int k = 0; k < std::max(firstCount, secondCount); ++k) {
        const float x = 40.0f + static_cast<float>(k % 100);
        const float y = 40.0f + static_cast<float>(k / 100) * 20.0f;
        if (k < firstCount) {
            first.push_back(keypointAt(x, y));
        }
        if (k < secondCount) {
            second.push_back(keypointAt(x, k < level ? y : y + 10.0f));
        }
        if (k < total) {
            matches.emplace_back(k, k, 0.0f);
        }
    }
    return FeaturesMatchingInfo(first, second, matches);
}

// Replaces the set's cached matching info of (i, j, crossCheck). The first
// request fills the entry (from the set's own frames); the returned reference
// is then overwritten with the hand-made info, which every later request of
// that key returns.
inline void injectMatches(vyra::ImageSets& sets, int i, int j, bool crossCheck,
                          FeaturesMatchingInfo info) {
    sets.GetImagesFeaturesMatchingInfo(i, j, crossCheck) = std::move(info);
}

inline void expectSameMatchingResult(const vyra::FeatureMatchingResult& a,
                                     const vyra::FeatureMatchingResult& b) {
    EXPECT_EQ(a.firstImageIndex, b.firstImageIndex);
    EXPECT_EQ(a.firstKeypointCount, b.firstKeypointCount);
    EXPECT_EQ(a.secondKeypointCount, b.secondKeypointCount);
    EXPECT_EQ(a.consistentMatchCount, b.consistentMatchCount);
    EXPECT_EQ(a.isMoving, b.isMoving);
}

// Field-by-field comparison of two results (doubles compared exactly).
inline void expectSameResult(const vyra::AnalysisResult& a, const vyra::AnalysisResult& b) {
    EXPECT_EQ(a.pageType, b.pageType);
    EXPECT_EQ(a.imageCount, b.imageCount);
    EXPECT_EQ(a.loadFinishedIndex, b.loadFinishedIndex);
    EXPECT_EQ(a.staticResult.baselineIndex, b.staticResult.baselineIndex);
    EXPECT_EQ(a.staticResult.logoAppearIndex, b.staticResult.logoAppearIndex);
    EXPECT_EQ(a.staticResult.logoDisappearIndex, b.staticResult.logoDisappearIndex);
    EXPECT_EQ(a.staticResult.firstFrameIndex, b.staticResult.firstFrameIndex);
    EXPECT_EQ(a.staticResult.objectCounts, b.staticResult.objectCounts);
    EXPECT_EQ(a.staticResult.loadedPsnr, b.staticResult.loadedPsnr);
    EXPECT_EQ(a.staticResult.preLoadedPsnr, b.staticResult.preLoadedPsnr);
    EXPECT_EQ(a.dynamicResult.motionStartIndex, b.dynamicResult.motionStartIndex);
    EXPECT_EQ(a.dynamicResult.firstNonBlankObjectCount, b.dynamicResult.firstNonBlankObjectCount);
    ASSERT_EQ(a.dynamicResult.featureMatchingResults.size(),
              b.dynamicResult.featureMatchingResults.size());
    for (size_t k = 0; k < a.dynamicResult.featureMatchingResults.size(); ++k) {
        SCOPED_TRACE(k);
        expectSameMatchingResult(a.dynamicResult.featureMatchingResults[k],
                                 b.dynamicResult.featureMatchingResults[k]);
    }
}

// Expects every field of @p result to hold its default except pageType and
// imageCount, which are given.
inline void expectDefaultsBeyond(const vyra::AnalysisResult& result, int pageType,
                                 size_t imageCount) {
    vyra::AnalysisResult expected;
    expected.pageType = pageType;
    expected.imageCount = imageCount;
    expectSameResult(result, expected);
}

}  // namespace vyra_test

#endif  // VYRA_TESTS_ANALYZER_SUPPORT_H
