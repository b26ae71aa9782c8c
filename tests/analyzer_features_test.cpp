// Feature-match similarity of vyra::Analyzer: displacement statistics and the
// two predicates, driven with hand-made keypoints and matches.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "VyraAnalyzer.h"
#include "analyzer_support.h"

namespace {

using vyra::Analyzer;
using vyra::ImageSets;
using vyra_test::greyMat;
using vyra_test::injectMatches;
using vyra_test::keypointAt;
using vyra_test::shiftInfo;

// --------------------------------------------------------- ExtractGoodMatch

void expectStats(const cv::Vec4d& stats, double meanX, double meanY, double sdX, double sdY) {
    EXPECT_DOUBLE_EQ(stats[0], meanX);
    EXPECT_DOUBLE_EQ(stats[1], meanY);
    EXPECT_DOUBLE_EQ(stats[2], sdX);
    EXPECT_DOUBLE_EQ(stats[3], sdY);
}

// Keypoints and matches whose displacements (first minus second) are @p shifts,
// in match order.
FeaturesMatchingInfo infoWithShifts(const std::vector<cv::Point2f>& shifts) {
    FeaturesMatchingInfo info;
    for (size_t k = 0; k < shifts.size(); ++k) {
        const cv::Point2f base(30.0f + 7.0f * static_cast<float>(k), 60.0f);
        std::get<0>(info).push_back(keypointAt(base.x + shifts[k].x, base.y + shifts[k].y));
        std::get<1>(info).push_back(keypointAt(base.x, base.y));
        std::get<2>(info).emplace_back(static_cast<int>(k), static_cast<int>(k), 0.0f);
    }
    return info;
}

TEST(AnalyzerExtractGoodMatch, AnyEmptyListGivesDefaultsAndEmptiesGoodShifts) {
    const FeaturesMatchingInfo full = infoWithShifts({{1, 1}, {2, 2}});
    for (int emptied = 0; emptied < 3; ++emptied) {
        SCOPED_TRACE(emptied);
        FeaturesMatchingInfo info = full;
        if (emptied == 0) std::get<0>(info).clear();
        if (emptied == 1) std::get<1>(info).clear();
        if (emptied == 2) std::get<2>(info).clear();
        std::vector<cv::Point2f> goodShifts{{9, 9}, {8, 8}};
        expectStats(Analyzer::ExtractGoodMatch(info, goodShifts), 0.0, 0.0, -1.0, -1.0);
        EXPECT_TRUE(goodShifts.empty());
    }
    std::vector<cv::Point2f> goodShifts{{9, 9}};
    expectStats(Analyzer::ExtractGoodMatch(FeaturesMatchingInfo(), goodShifts), 0.0, 0.0, -1.0,
                -1.0);
    EXPECT_TRUE(goodShifts.empty());
}

TEST(AnalyzerExtractGoodMatch, ConstantDisplacementIsAllGoodWithZeroDeviation) {
    // Every first keypoint lies 5 right of and 3 above its partner.
    const std::vector<cv::Point2f> shifts(12, cv::Point2f(5.0f, -3.0f));
    std::vector<cv::Point2f> goodShifts{{1, 1}};
    expectStats(Analyzer::ExtractGoodMatch(infoWithShifts(shifts), goodShifts), 5.0, -3.0, 0.0,
                0.0);
    EXPECT_EQ(goodShifts, shifts);
}

TEST(AnalyzerExtractGoodMatch, ThreeMatchesWithOneSidewaysOutlier) {
    // dx = 0, 0, 10 and dy = 0: meanX = 10/3, sdX = sqrt((2 m^2 + (10 - m)^2) / 3).
    std::vector<cv::Point2f> goodShifts;
    const cv::Vec4d stats =
        Analyzer::ExtractGoodMatch(infoWithShifts({{0, 0}, {0, 0}, {10, 0}}), goodShifts);
    const double m = 10.0 / 3.0;
    expectStats(stats, m, 0.0, std::sqrt((2.0 * m * m + (10.0 - m) * (10.0 - m)) / 3.0), 0.0);
    EXPECT_NEAR(stats[0], 3.3333333, 1e-6);
    EXPECT_NEAR(stats[2], 4.7140452, 1e-6);
    // Range -1.381 .. 8.047: the two zeros are good (their dy = 0 lies on both
    // edges of the zero-width y range), the 10 is not.
    EXPECT_EQ(goodShifts, (std::vector<cv::Point2f>{{0, 0}, {0, 0}}));
}

TEST(AnalyzerExtractGoodMatch, DisplacementIsFirstMinusSecond) {
    std::vector<cv::Point2f> goodShifts;
    const cv::Vec4d stats =
        Analyzer::ExtractGoodMatch(infoWithShifts({{4, 2}, {6, 2}}), goodShifts);
    expectStats(stats, 5.0, 2.0, 1.0, 0.0);
    EXPECT_EQ(goodShifts, (std::vector<cv::Point2f>{{4, 2}, {6, 2}}));  // both on the edges
}

TEST(AnalyzerExtractGoodMatch, AMatchOutsideTheVerticalRangeIsNotGood) {
    // dy = 0, 0, 0, 10: meanY = 2.5, sdY = sqrt(18.75) = 4.33, so 10 lies outside
    // although its dx lies inside the zero-width x range.
    std::vector<cv::Point2f> goodShifts;
    const cv::Vec4d stats = Analyzer::ExtractGoodMatch(
        infoWithShifts({{0, 0}, {0, 0}, {0, 10}, {0, 0}}), goodShifts);
    expectStats(stats, 0.0, 2.5, 0.0, std::sqrt(18.75));
    EXPECT_EQ(goodShifts.size(), 3u);
}

TEST(AnalyzerExtractGoodMatch, GoodShiftsKeepMatchOrderAndFollowQueryAndTrainIndices) {
    // First keypoints stored in reverse order; matches in a scrambled order.
    // Displacements by match: 100, 3, 1, 2 (dy 0): mean 26.5, sd 42.44, so the
    // last three are good, in match order.
    const std::vector<float> secondX{10, 20, 30, 40};
    const std::vector<float> shiftX{100, 3, 1, 2};  // for second keypoints 0..3
    FeaturesMatchingInfo info;
    for (int k = 3; k >= 0; --k) {
        std::get<0>(info).push_back(keypointAt(secondX[k] + shiftX[k], 50.0f));
    }
    for (int k = 0; k < 4; ++k) {
        std::get<1>(info).push_back(keypointAt(secondX[k], 50.0f));
    }
    // Match to second keypoint t uses first keypoint 3 - t.
    for (int t : {0, 1, 2, 3}) {
        std::get<2>(info).emplace_back(3 - t, t, 0.0f);
    }
    std::vector<cv::Point2f> goodShifts;
    const cv::Vec4d stats = Analyzer::ExtractGoodMatch(info, goodShifts);
    EXPECT_DOUBLE_EQ(stats[0], 26.5);
    EXPECT_EQ(goodShifts, (std::vector<cv::Point2f>{{3, 0}, {1, 0}, {2, 0}}));
}

// The hand-made match sets used below really have the intended number of good
// displacements (see shiftInfo).
TEST(AnalyzerExtractGoodMatch, HandMadeShiftSetsHaveTheConstructedGoodCount) {
    const int cases[][2] = {{210, 300}, {209, 300}, {100, 200}, {79, 250}, {80, 160},
                            {80, 159},  {30, 100},  {29, 100},  {1, 3},    {5, 5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c[0] << " of " << c[1]);
        std::vector<cv::Point2f> goodShifts;
        Analyzer::ExtractGoodMatch(shiftInfo(c[1], c[1], c[0], c[1]), goodShifts);
        EXPECT_EQ(goodShifts.size(), static_cast<size_t>(c[0]));
    }
}

// ------------------------------------------- IsImagesSimilarByFeatureMatching

// Two small uniform frames (no keypoints of their own); the cross-checked entry
// (0, 1) is replaced by @p info.
class FeatureSimilarity : public ::testing::Test {
protected:
    std::vector<cv::Mat> frames{greyMat(48, 40, 30), greyMat(48, 40, 220)};
    ImageSets sets{frames};
    Analyzer analyzer{20.0, 0.5, 0.85, 0.15, 200};

    bool similarWith(FeaturesMatchingInfo info) {
        injectMatches(sets, 0, 1, true, std::move(info));
        return analyzer.IsImagesSimilarByFeatureMatching(sets, 0, 1);
    }
};

TEST_F(FeatureSimilarity, RicherFrameNeedsObjectCountThresholdKeypoints) {
    EXPECT_FALSE(similarWith(shiftInfo(199, 199, 199, 199)));
}

TEST_F(FeatureSimilarity, ExactlyTheThresholdOfKeypointsPasses) {
    EXPECT_TRUE(similarWith(shiftInfo(200, 200, 200, 200)));
}

TEST_F(FeatureSimilarity, MinimumKeypointCountIsTheAnalyzersObjectCountThreshold) {
    const Analyzer lenient(20.0, 0.5, 0.85, 0.15, 150);
    injectMatches(sets, 0, 1, true, shiftInfo(199, 199, 199, 199));
    EXPECT_TRUE(lenient.IsImagesSimilarByFeatureMatching(sets, 0, 1));
}

TEST_F(FeatureSimilarity, KeypointCounts300And200AreTooUnequal) {
    EXPECT_FALSE(similarWith(shiftInfo(300, 200, 200, 200)));  // 0.667 < 0.7
}

TEST_F(FeatureSimilarity, KeypointCounts200And300AreTooUnequal) {
    EXPECT_FALSE(similarWith(shiftInfo(200, 300, 200, 200)));
}

TEST_F(FeatureSimilarity, RatioTestsAreInclusive) {
    // 400/500 = 0.8, 210/300 = 0.7, 300/400 = 0.75.
    EXPECT_TRUE(similarWith(shiftInfo(500, 400, 210, 300)));
}

TEST_F(FeatureSimilarity, RicherFrameMayBeTheSecond) {
    EXPECT_TRUE(similarWith(shiftInfo(400, 500, 210, 300)));
}

TEST_F(FeatureSimilarity, OneGoodMatchTooFew) {
    EXPECT_FALSE(similarWith(shiftInfo(500, 400, 209, 300)));  // 0.6967 < 0.7
}

TEST_F(FeatureSimilarity, KeypointRatioOnTheLimit) {
    EXPECT_TRUE(similarWith(shiftInfo(500, 350, 300, 300)));  // 350/500 = 0.7
}

TEST_F(FeatureSimilarity, KeypointRatioJustBelowTheLimit) {
    EXPECT_FALSE(similarWith(shiftInfo(500, 349, 300, 300)));
}

TEST_F(FeatureSimilarity, MatchRatioOnTheLimit) {
    EXPECT_TRUE(similarWith(shiftInfo(500, 400, 280, 280)));  // 280/400 = 0.7
}

TEST_F(FeatureSimilarity, MatchRatioJustBelowTheLimit) {
    EXPECT_FALSE(similarWith(shiftInfo(500, 400, 279, 279)));
}

TEST_F(FeatureSimilarity, NoMatchesIsNotSimilar) {
    FeaturesMatchingInfo info = shiftInfo(500, 500, 1, 1);
    std::get<2>(info).clear();
    EXPECT_FALSE(similarWith(info));
}

TEST_F(FeatureSimilarity, NoKeypointsOnOneSideIsNotSimilar) {
    EXPECT_FALSE(similarWith(FeaturesMatchingInfo()));
    // The uniform frames themselves give no keypoints: the reverse pair.
    EXPECT_FALSE(analyzer.IsImagesSimilarByFeatureMatching(sets, 1, 0));
}

TEST_F(FeatureSimilarity, ReadsTheCrossCheckedEntryOfTheOrderedPair) {
    // A similar entry under (0, 1, false) or (1, 0, true) does not count for (0, 1).
    injectMatches(sets, 0, 1, false, shiftInfo(500, 400, 210, 300));
    injectMatches(sets, 1, 0, true, shiftInfo(500, 400, 210, 300));
    EXPECT_FALSE(analyzer.IsImagesSimilarByFeatureMatching(sets, 0, 1));
    EXPECT_TRUE(analyzer.IsImagesSimilarByFeatureMatching(sets, 1, 0));
}

// --------------------------------- IsImagesContinuousSimilarByFeatureMatching

// Three small uniform frames; the cross-checked entries (0, 1) and (1, 2) are
// replaced by hand-made ones.
class ContinuousSimilarity : public ::testing::Test {
protected:
    std::vector<cv::Mat> frames{greyMat(48, 40, 30), greyMat(48, 40, 120), greyMat(48, 40, 220)};
    ImageSets sets{frames};
    Analyzer analyzer{20.0, 0.5, 0.85, 0.15, 200};

    bool alone(FeaturesMatchingInfo current) {
        injectMatches(sets, 1, 2, true, std::move(current));
        return analyzer.IsImagesContinuousSimilarByFeatureMatching(sets, -1, 1, 2);
    }
    bool afterPrevious(FeaturesMatchingInfo previous, FeaturesMatchingInfo current) {
        injectMatches(sets, 0, 1, true, std::move(previous));
        injectMatches(sets, 1, 2, true, std::move(current));
        return analyzer.IsImagesContinuousSimilarByFeatureMatching(sets, 0, 1, 2);
    }
};

TEST_F(ContinuousSimilarity, WithoutPreviousPairOnlyThePairIsTested) {
    EXPECT_TRUE(alone(shiftInfo(300, 300, 80, 160)));
    // No minimum keypoint count: ten keypoints on each side suffice.
    EXPECT_TRUE(alone(shiftInfo(10, 10, 10, 10)));
}

TEST_F(ContinuousSimilarity, WithoutPreviousPairOnATwoImageSet) {
    std::vector<cv::Mat> two{greyMat(48, 40, 30), greyMat(48, 40, 220)};
    ImageSets pair(two);
    injectMatches(pair, 0, 1, true, shiftInfo(300, 300, 80, 160));
    EXPECT_TRUE(analyzer.IsImagesContinuousSimilarByFeatureMatching(pair, -1, 0, 1));
}

TEST_F(ContinuousSimilarity, GoodShareOfMatchesIsInclusive) {
    EXPECT_TRUE(alone(shiftInfo(100, 100, 30, 100)));   // 30 >= 30
}

TEST_F(ContinuousSimilarity, GoodShareOfMatchesJustBelow) {
    EXPECT_FALSE(alone(shiftInfo(100, 100, 29, 100)));
}

TEST_F(ContinuousSimilarity, MatchShareOfKeypointsIsInclusive) {
    EXPECT_TRUE(alone(shiftInfo(100, 100, 30, 30)));    // 30 >= 0.3 * 100
}

TEST_F(ContinuousSimilarity, MatchShareOfKeypointsJustBelow) {
    EXPECT_FALSE(alone(shiftInfo(100, 100, 29, 29)));
}

TEST_F(ContinuousSimilarity, KeypointBalanceIsInclusive) {
    EXPECT_TRUE(alone(shiftInfo(30, 100, 30, 30)));     // 30 >= 0.3 * 100
    EXPECT_TRUE(alone(shiftInfo(100, 30, 30, 30)));
}

TEST_F(ContinuousSimilarity, KeypointBalanceJustBelow) {
    EXPECT_FALSE(alone(shiftInfo(29, 100, 29, 29)));
}

TEST_F(ContinuousSimilarity, NoMatchesIsNotSimilar) {
    FeaturesMatchingInfo info = shiftInfo(100, 100, 1, 1);
    std::get<2>(info).clear();
    EXPECT_FALSE(alone(info));
    EXPECT_FALSE(alone(FeaturesMatchingInfo()));
}

TEST_F(ContinuousSimilarity, FewerThan80PercentOfThePreviousGoodMatchesFails) {
    // Previous: 100 good of 200; current: 79 good of 250 (79 >= 75, 250 >= 90).
    EXPECT_FALSE(afterPrevious(shiftInfo(300, 300, 100, 200), shiftInfo(300, 300, 79, 250)));
}

TEST_F(ContinuousSimilarity, EightyPercentOfPreviousGoodAndMatchesPasses) {
    EXPECT_TRUE(afterPrevious(shiftInfo(300, 300, 100, 200), shiftInfo(300, 300, 80, 160)));
}

TEST_F(ContinuousSimilarity, FewerThan80PercentOfThePreviousMatchesFails) {
    EXPECT_FALSE(afterPrevious(shiftInfo(300, 300, 100, 200), shiftInfo(300, 300, 80, 159)));
}

TEST_F(ContinuousSimilarity, AWeakPreviousPairLowersTheRelativeBar) {
    // The same current pair passes alone and after a weak previous pair.
    EXPECT_TRUE(afterPrevious(shiftInfo(300, 300, 10, 20), shiftInfo(300, 300, 79, 250)));
}

}  // namespace
