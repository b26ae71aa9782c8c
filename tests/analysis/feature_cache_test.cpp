// Feature matches computed from features detected once per frame are the
// matches ImageSets computes pair by pair, whatever the order of the pairs.
#include <gtest/gtest.h>

#include <vector>

#include "VyraImageSets.h"
#include "analysis/FeatureCache.h"
#include "fixtures.h"

namespace {

void expectSameInfo(const FeaturesMatchingInfo& actual, const FeaturesMatchingInfo& expected) {
    ASSERT_EQ(std::get<0>(actual).size(), std::get<0>(expected).size());
    ASSERT_EQ(std::get<1>(actual).size(), std::get<1>(expected).size());
    ASSERT_EQ(std::get<2>(actual).size(), std::get<2>(expected).size());
    for (size_t k = 0; k < std::get<0>(actual).size(); ++k) {
        EXPECT_EQ(std::get<0>(actual)[k].pt, std::get<0>(expected)[k].pt);
        EXPECT_EQ(std::get<0>(actual)[k].response, std::get<0>(expected)[k].response);
    }
    for (size_t k = 0; k < std::get<2>(actual).size(); ++k) {
        EXPECT_EQ(std::get<2>(actual)[k].queryIdx, std::get<2>(expected)[k].queryIdx);
        EXPECT_EQ(std::get<2>(actual)[k].trainIdx, std::get<2>(expected)[k].trainIdx);
        EXPECT_EQ(std::get<2>(actual)[k].distance, std::get<2>(expected)[k].distance);
    }
}

TEST(FeatureCache, MemoisesWhatTheSetWouldComputeForAnyOrderOfPairs) {
    std::vector<cv::Mat> frames;
    for (unsigned k = 0; k < 7; ++k) frames.push_back(vyra_test::texturedFrame(160, 120, 30 + k));
    frames.push_back(cv::Mat(60, 80, CV_8UC3, cv::Scalar(9, 9, 9)));  // another size: nothing to match
    // Against one baseline, along consecutive pairs, back and forth (evicting
    // and detecting again), and with the other size.
    const std::vector<std::vector<int>> pairs = {{0, 6}, {1, 6}, {2, 6}, {3, 4}, {4, 5}, {5, 6}, {0, 1},
                                                 {6, 0}, {2, 3}, {0, 6}, {7, 1}, {1, 7}};
    for (const bool crossCheck : {true, false}) {
        vyra::ImageSets cached(frames);
        vyra::ImageSets plain(frames);
        vyra::detail::FeatureCache features;
        for (const std::vector<int>& p : pairs) {
            features.Prepare(cached, p[0], p[1], crossCheck);
            expectSameInfo(cached.GetImagesFeaturesMatchingInfo(p[0], p[1], crossCheck),
                           plain.GetImagesFeaturesMatchingInfo(p[0], p[1], crossCheck));
        }
    }
}

}  // namespace
