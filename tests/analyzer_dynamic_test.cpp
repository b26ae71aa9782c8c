// Dynamic page analysis of vyra::Analyzer: the motion figures of one pair of
// frames, the walk over consecutive pairs (driven with hand-made matches), and
// a scrolling page rendered from a strip.
#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VyraAnalyzer.h"
#include "analyzer_support.h"
#include "launch_frames.h"

namespace {

using vyra::AnalysisResult;
using vyra::Analyzer;
using vyra::FeatureMatchingResult;
using vyra::Image;
using vyra::ImageSets;
using vyra_test::greyMat;
using vyra_test::keypointAt;
using vyra_test::levelInfo;

// ------------------------------------------------------------ AnalyzeMotion

// One keypoint pair per offset: the second keypoint lies at the first plus the
// offset; match k pairs keypoint k of each frame.
FeaturesMatchingInfo infoWithOffsets(const std::vector<cv::Point2f>& offsets) {
    FeaturesMatchingInfo info;
    for (size_t k = 0; k < offsets.size(); ++k) {
        const cv::Point2f first(40.0f + 9.0f * static_cast<float>(k), 40.0f);
        std::get<0>(info).push_back(keypointAt(first.x, first.y));
        std::get<1>(info).push_back(keypointAt(first.x + offsets[k].x, first.y + offsets[k].y));
        std::get<2>(info).emplace_back(static_cast<int>(k), static_cast<int>(k), 0.0f);
    }
    return info;
}

TEST(AnalyzerMotion, HundredMatchesInPlaceAreConsistentAndMoving) {
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(100, 100, 100, 100)), cv::Vec4i(100, 100, 100, 1));
}

TEST(AnalyzerMotion, VerticalShiftOfExactlyThreeIsNotLevel) {
    std::vector<cv::Point2f> offsets(20, cv::Point2f(0.0f, 0.0f));
    offsets.insert(offsets.end(), 10, cv::Point2f(0.0f, 3.0f));
    // 20 consistent of 30 matches: 30 > 20, 1.0 > 0.3, 0.667 > 0.3.
    EXPECT_EQ(Analyzer::AnalyzeMotion(infoWithOffsets(offsets)), cv::Vec4i(30, 30, 20, 1));

    std::vector<cv::Point2f> almost(20, cv::Point2f(0.0f, 0.0f));
    almost.insert(almost.end(), 10, cv::Point2f(0.0f, 2.99f));
    EXPECT_EQ(Analyzer::AnalyzeMotion(infoWithOffsets(almost)), cv::Vec4i(30, 30, 30, 1));
}

TEST(AnalyzerMotion, ShiftsAreTakenAsAbsoluteValues) {
    // |dx| = 4, 4, 4: all consistent (signed, -4 would fall outside).
    EXPECT_EQ(Analyzer::AnalyzeMotion(infoWithOffsets({{4, 0}, {4, 0}, {-4, 0}})),
              cv::Vec4i(3, 3, 3, 0));
    // |dy| = 0, 2.5, 3.5, 3.5: two level matches, whatever the sign.
    EXPECT_EQ(Analyzer::AnalyzeMotion(infoWithOffsets({{0, 0}, {0, -2.5f}, {0, -3.5f}, {0, 3.5f}})),
              cv::Vec4i(4, 4, 2, 0));
}

TEST(AnalyzerMotion, ConsistencyIsMeasuredOverLevelMatchesOnly) {
    // Level dx: 0, 0, 0, 0, 10 -> mean 2, deviation 4, range -2 .. 6: four
    // consistent. Five more matches with dx = 0 are not level and not counted.
    std::vector<cv::Point2f> offsets{{0, 0}, {0, 0}, {0, 0}, {0, 0}, {10, 0}};
    offsets.insert(offsets.end(), 5, cv::Point2f(0.0f, 5.0f));
    EXPECT_EQ(Analyzer::AnalyzeMotion(infoWithOffsets(offsets)), cv::Vec4i(10, 10, 4, 0));
}

TEST(AnalyzerMotion, LargerKeypointCountMustExceedTwenty) {
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(20, 20, 20, 20)), cv::Vec4i(20, 20, 20, 0));
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(21, 21, 21, 21)), cv::Vec4i(21, 21, 21, 1));
}

TEST(AnalyzerMotion, KeypointBalanceMustExceedThirtyPercent) {
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(30, 100, 30, 30)), cv::Vec4i(30, 100, 30, 0));
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(100, 31, 31, 31)), cv::Vec4i(100, 31, 31, 1));
}

TEST(AnalyzerMotion, ConsistentShareOfAllMatchesMustExceedThirtyPercent) {
    // 3 level (consistent) matches among 10: 3 / 10 is not above 0.3, although
    // every level match is consistent.
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(30, 30, 3, 10)), cv::Vec4i(30, 30, 3, 0));
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(30, 30, 4, 10)), cv::Vec4i(30, 30, 4, 1));
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(100, 100, 31, 100)), cv::Vec4i(100, 100, 31, 1));
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(100, 100, 30, 100)), cv::Vec4i(100, 100, 30, 0));
}

TEST(AnalyzerMotion, NoMatchesIsNeverMoving) {
    EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(50, 50, 0, 0)), cv::Vec4i(50, 50, 0, 0));
    EXPECT_EQ(Analyzer::AnalyzeMotion(FeaturesMatchingInfo()), cv::Vec4i(0, 0, 0, 0));
}

// ------------------------------------------------- walk with hand-made pairs

// Uniform 40x32 frames (ORB finds nothing on them, so a pair without injected
// matches reads (0, 0, 0) and is unchanged). Image k is non-blank when
// nonBlank[k]: it then carries 3 + k boxes; otherwise nothing is detected on
// it. With a one-object threshold, blank means exactly "no boxes".
class DynamicWalk : public ::testing::Test {
protected:
    const Analyzer analyzer{20.0, 0.5, 0.85, 0.0, 1};

    AnalysisResult walk(const std::vector<bool>& nonBlank,
                        std::vector<std::pair<int, FeaturesMatchingInfo>> pairs) {
        std::vector<Image> images;
        for (size_t k = 0; k < nonBlank.size(); ++k) {
            const int count = nonBlank[k] ? 3 + static_cast<int>(k) : 0;
            images.push_back(vyra_test::craftedImage(greyMat(40, 32, 20 * static_cast<int>(k)),
                                                     vyra_test::boxesOnRow(count, 0), 0.5,
                                                     static_cast<int>(k)));
        }
        ImageSets sets(images);
        for (auto& pair : pairs) {
            vyra_test::injectMatches(sets, pair.first, pair.first + 1, false,
                                     std::move(pair.second));
        }
        return analyzer.AnalyzeDynamicPage(sets);
    }
};

void expectEntries(const AnalysisResult& r, const std::vector<FeatureMatchingResult>& expected) {
    ASSERT_EQ(r.dynamicResult.featureMatchingResults.size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) {
        SCOPED_TRACE(k);
        vyra_test::expectSameMatchingResult(r.dynamicResult.featureMatchingResults[k], expected[k]);
    }
}

void expectDynamic(const AnalysisResult& r, size_t imageCount, int motionStart,
                   size_t firstNonBlankCount, int loadFinished) {
    EXPECT_EQ(r.pageType, 1);
    EXPECT_EQ(r.imageCount, imageCount);
    EXPECT_EQ(r.dynamicResult.motionStartIndex, motionStart);
    EXPECT_EQ(r.dynamicResult.firstNonBlankObjectCount, firstNonBlankCount);
    EXPECT_EQ(r.loadFinishedIndex, loadFinished);
    // The static part keeps its defaults.
    EXPECT_EQ(r.staticResult.baselineIndex, -1);
    EXPECT_EQ(r.staticResult.logoAppearIndex, -1);
    EXPECT_EQ(r.staticResult.logoDisappearIndex, -1);
    EXPECT_EQ(r.staticResult.firstFrameIndex, -1);
    EXPECT_TRUE(r.staticResult.objectCounts.empty());
    EXPECT_EQ(r.staticResult.loadedPsnr, -1.0);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST_F(DynamicWalk, ChangedMovingPairEndsAtItsFirstImage) {
    // First non-blank is image 2: the walk starts at (1, 2).
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(1, levelInfo(100, 100, 100, 100));
    pairs.emplace_back(2, levelInfo(100, 100, 100, 100));
    pairs.emplace_back(3, levelInfo(100, 110, 100, 100));  // 10 apart: changed; moving
    const AnalysisResult r = walk({false, false, true, true, true, true}, std::move(pairs));
    expectDynamic(r, 6, 1, 5, 3);
    expectEntries(r, {{1, 100, 100, 100, true}, {2, 100, 100, 100, true},
                      {3, 100, 110, 100, true}});
}

TEST_F(DynamicWalk, ChangedStillPairEndsAtItsSecondImage) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(1, levelInfo(100, 100, 100, 100));
    pairs.emplace_back(2, levelInfo(100, 100, 100, 100));
    pairs.emplace_back(3, levelInfo(100, 110, 20, 100));  // 20 / 100 not above 0.3
    const AnalysisResult r = walk({false, false, true, true, true, true}, std::move(pairs));
    expectDynamic(r, 6, 1, 5, 4);
    expectEntries(r, {{1, 100, 100, 100, true}, {2, 100, 100, 100, true},
                      {3, 100, 110, 20, false}});
}

TEST_F(DynamicWalk, ConsistencyLimitIsFivePercentOfTheSmallerCount) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(0, levelInfo(18, 20, 0, 0));          // smaller count not above 20
    pairs.emplace_back(1, levelInfo(100, 104, 95, 100));     // 0.05: unchanged
    pairs.emplace_back(2, levelInfo(100, 104, 94, 100));     // 0.06: changed, moving
    const AnalysisResult r = walk({true, true, true, true}, std::move(pairs));
    expectDynamic(r, 4, 0, 4, 2);
    expectEntries(r, {{0, 18, 20, 0, false}, {1, 100, 104, 95, true},
                      {2, 100, 104, 94, true}});
}

TEST_F(DynamicWalk, ConsistencyIsOnlyTestedAboveTwentyKeypoints) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(0, levelInfo(20, 24, 0, 0));          // smaller count 20: unchanged
    pairs.emplace_back(1, levelInfo(1000, 1000, 950, 1000)); // 50 / 1000 = 0.05: unchanged
    pairs.emplace_back(2, levelInfo(1000, 1000, 949, 1000)); // 0.051: changed, moving
    const AnalysisResult r = walk({true, true, true, true}, std::move(pairs));
    expectDynamic(r, 4, 0, 4, 2);
    expectEntries(r, {{0, 20, 24, 0, false}, {1, 1000, 1000, 950, true},
                      {2, 1000, 1000, 949, true}});
}

TEST_F(DynamicWalk, KeypointCountsMayDifferByFive) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(0, levelInfo(100, 105, 100, 100));    // 5 apart: unchanged
    pairs.emplace_back(1, levelInfo(106, 100, 100, 100));    // 6 apart: changed
    const AnalysisResult r = walk({true, true, true, true}, std::move(pairs));
    expectDynamic(r, 4, 0, 4, 1);
    expectEntries(r, {{0, 100, 105, 100, true}, {1, 106, 100, 100, true}});
}

TEST_F(DynamicWalk, WalkWithoutChangeRecordsEveryPair) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    for (int j = 0; j < 3; ++j) {
        pairs.emplace_back(j, levelInfo(50, 50, 50, 50));
    }
    const AnalysisResult r = walk({true, true, true, true}, std::move(pairs));
    expectDynamic(r, 4, 0, 4, -1);
    expectEntries(r, {{0, 50, 50, 50, true}, {1, 50, 50, 50, true}, {2, 50, 50, 50, true}});
}

TEST_F(DynamicWalk, BlankThenContentPairEndsAtTheContentImage) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> pairs;
    pairs.emplace_back(2, levelInfo(3, 150, 3, 3));  // 150 > 20 but 3 / 150 = 0.02
    const AnalysisResult r = walk({true, false, false, true, true}, std::move(pairs));
    expectDynamic(r, 5, 2, 6, 3);
    expectEntries(r, {{2, 3, 150, 3, false}});
}

TEST_F(DynamicWalk, TwoImagesCompareOnlyTheirPairWithoutStartSearch) {
    std::vector<std::pair<int, FeaturesMatchingInfo>> unchanged;
    unchanged.emplace_back(0, levelInfo(60, 60, 60, 60));
    AnalysisResult r = walk({false, true}, std::move(unchanged));
    expectDynamic(r, 2, -1, 0, -1);
    expectEntries(r, {{0, 60, 60, 60, true}});

    std::vector<std::pair<int, FeaturesMatchingInfo>> changed;
    changed.emplace_back(0, levelInfo(3, 150, 0, 0));
    r = walk({false, true}, std::move(changed));
    expectDynamic(r, 2, -1, 0, 1);
    expectEntries(r, {{0, 3, 150, 0, false}});
}

TEST_F(DynamicWalk, FirstNonBlankImageOneStartsAtPairZero) {
    const AnalysisResult r = walk({false, true, false, false}, {});
    expectDynamic(r, 4, 0, 4, -1);
    expectEntries(r, {{0, 0, 0, 0, false}, {1, 0, 0, 0, false}, {2, 0, 0, 0, false}});
}

TEST_F(DynamicWalk, FirstAndLastImagesAreNotSearchedForContent) {
    const AnalysisResult r = walk({true, false, false, true}, {});
    expectDynamic(r, 4, -1, 0, -1);
    expectEntries(r, {{0, 0, 0, 0, false}, {1, 0, 0, 0, false}, {2, 0, 0, 0, false}});
}

TEST_F(DynamicWalk, EmptySetAndSingleImage) {
    AnalysisResult r = walk({}, {});
    vyra_test::expectDefaultsBeyond(r, 1, 0);
    r = walk({true}, {});
    vyra_test::expectDefaultsBeyond(r, 1, 1);
}

// ----------------------------------------------------- a scrolling page

// A 480x72 window moving 3 px per frame along one strip: every keypoint that
// stays in view moves by exactly (3, 0) (see makeScrollingFrames), so the pairs
// of the scroll are unchanged and moving. The thresholds take the windows
// (well over 100 objects, ratio far above 0.15) as non-blank, a white frame as
// blank.
constexpr int kScrollWidth = 480;
constexpr int kScrollHeight = 72;
constexpr int kScrollShift = 3;
const Analyzer kScrollAnalyzer(20.0, 0.5, 0.85, 0.15, 100);

std::vector<cv::Mat> scrollFrames(int count) {
    return vyra_test::makeScrollingFrames(count, kScrollWidth, kScrollHeight, kScrollShift, 7);
}

AnalysisResult analyzeDynamic(std::vector<cv::Mat> frames) {
    ImageSets sets(frames);
    return kScrollAnalyzer.AnalyzeDynamicPage(sets);
}

// The scroll pairs 0 .. count-1: unchanged, moving, and chained (the second
// image of one pair is the first of the next, so its keypoint count recurs).
void expectScrollEntries(const std::vector<FeatureMatchingResult>& entries, int count) {
    ASSERT_GE(entries.size(), static_cast<size_t>(count));
    for (int j = 0; j < count; ++j) {
        SCOPED_TRACE(j);
        const FeatureMatchingResult& e = entries[j];
        EXPECT_EQ(e.firstImageIndex, j);
        EXPECT_TRUE(e.isMoving);
        EXPECT_GT(e.firstKeypointCount, 20u);
        EXPECT_LE(std::labs(static_cast<long>(e.firstKeypointCount) -
                            static_cast<long>(e.secondKeypointCount)),
                  5);
        EXPECT_LE(e.consistentMatchCount,
                  std::min(e.firstKeypointCount, e.secondKeypointCount));
        if (j + 1 < static_cast<int>(entries.size())) {
            EXPECT_EQ(entries[j + 1].firstKeypointCount, e.secondKeypointCount);
        }
    }
}

TEST(AnalyzerDynamicPage, ScrollingPageThatTurnsBlankFinishesAtTheBlankFrame) {
    std::vector<cv::Mat> frames = scrollFrames(6);
    frames.push_back(vyra_test::makeBlankFrame(kScrollWidth, kScrollHeight));
    const size_t firstObjects = Image::DetectObjects(frames[1]).size();
    ASSERT_GE(firstObjects, 100u);

    const AnalysisResult r = analyzeDynamic(frames);
    // Image 1 is the first image searched and is non-blank: the walk starts at 0.
    expectDynamic(r, 7, 0, firstObjects, 6);
    const std::vector<FeatureMatchingResult>& entries = r.dynamicResult.featureMatchingResults;
    ASSERT_EQ(entries.size(), 6u);
    expectScrollEntries(entries, 5);
    // The blank frame has no keypoints: changed (count difference), not moving.
    EXPECT_EQ(entries[5].firstImageIndex, 5);
    EXPECT_EQ(entries[5].firstKeypointCount, entries[4].secondKeypointCount);
    EXPECT_EQ(entries[5].secondKeypointCount, 0u);
    EXPECT_EQ(entries[5].consistentMatchCount, 0u);
    EXPECT_FALSE(entries[5].isMoving);
}

TEST(AnalyzerDynamicPage, HalfThePageVanishingWhileScrollingFinishesAtTheLastFullFrame) {
    // Frame 4 goes on scrolling but its right half turns white: it loses many
    // keypoints (changed), while the left half still moves as one (moving).
    std::vector<cv::Mat> frames = scrollFrames(5);
    frames[4].colRange(kScrollWidth / 2, kScrollWidth).setTo(cv::Scalar(255, 255, 255));

    const AnalysisResult r = analyzeDynamic(frames);
    expectDynamic(r, 5, 0, Image::DetectObjects(frames[1]).size(), 3);
    const std::vector<FeatureMatchingResult>& entries = r.dynamicResult.featureMatchingResults;
    ASSERT_EQ(entries.size(), 4u);
    expectScrollEntries(entries, 3);
    EXPECT_EQ(entries[3].firstImageIndex, 3);
    EXPECT_GT(entries[3].firstKeypointCount, entries[3].secondKeypointCount + 5);
    EXPECT_TRUE(entries[3].isMoving);
}

TEST(AnalyzerDynamicPage, ContentAfterBlankFramesFinishesAtTheFirstContentFrame) {
    std::vector<cv::Mat> frames{vyra_test::makeBlankFrame(kScrollWidth, kScrollHeight),
                                vyra_test::makeBlankFrame(kScrollWidth, kScrollHeight)};
    for (const cv::Mat& frame : scrollFrames(3)) {
        frames.push_back(frame);
    }
    const AnalysisResult r = analyzeDynamic(frames);
    expectDynamic(r, 5, 1, Image::DetectObjects(frames[2]).size(), 2);
    const std::vector<FeatureMatchingResult>& entries = r.dynamicResult.featureMatchingResults;
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].firstImageIndex, 1);
    EXPECT_EQ(entries[0].firstKeypointCount, 0u);
    EXPECT_GT(entries[0].secondKeypointCount, 5u);
    EXPECT_EQ(entries[0].consistentMatchCount, 0u);
    EXPECT_FALSE(entries[0].isMoving);
}

// A crop one pixel high or wide (found by fuzzing): ORB finds nothing on such
// strips, and the walk compares every pair without an exception.
TEST(AnalyzerDynamicPage, OnePixelStripsHaveNoFeatures) {
    for (const cv::Size& size : {cv::Size(200, 1), cv::Size(1, 200)}) {
        std::vector<cv::Mat> frames;
        for (unsigned seed = 1; seed <= 3; ++seed) frames.push_back(vyra_test::makeClutteredFrame(size.width, size.height, seed));
        AnalysisResult r;
        ASSERT_NO_THROW(r = Analyzer(20.0, 0.5, 0.85, 0.0, 0).Analyze(frames, DYNAMIC_PAGE, false));
        EXPECT_EQ(r.imageCount, 3u);
        for (const FeatureMatchingResult& entry : r.dynamicResult.featureMatchingResults) {
            EXPECT_EQ(entry.firstKeypointCount, 0u);
            EXPECT_EQ(entry.secondKeypointCount, 0u);
        }
    }
}

}  // namespace
