// vyra::Rect: construction, ordering, equality, approximate overlap and union
// area; plus the defaults and copy behaviour of the analysis result records.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <vector>

#include "VyraAnalysisResults.h"
#include "VyraRect.h"

namespace {

using vyra::Rect;

void expectFields(const Rect& r, int left, int top, int right, int bottom, int width,
                  int height, int area) {
    EXPECT_EQ(r.left, left);
    EXPECT_EQ(r.top, top);
    EXPECT_EQ(r.right, right);
    EXPECT_EQ(r.bottom, bottom);
    EXPECT_EQ(r.width, width);
    EXPECT_EQ(r.height, height);
    EXPECT_EQ(r.area, area);
}

// ---- construction ----

TEST(RectConstruction, SinglePixelBox) {
    expectFields(Rect(3, 4, 3, 4), 3, 4, 3, 4, 1, 1, 1);
}

TEST(RectConstruction, CornersInAnyOrderGiveTheSameBox) {
    const Rect expected(5, 8, 10, 20);
    expectFields(expected, 5, 8, 10, 20, 6, 13, 78);
    expectFields(Rect(10, 20, 5, 8), 5, 8, 10, 20, 6, 13, 78);
    // Mixed order: x descending, y ascending, and the other way round.
    expectFields(Rect(10, 8, 5, 20), 5, 8, 10, 20, 6, 13, 78);
    expectFields(Rect(5, 20, 10, 8), 5, 8, 10, 20, 6, 13, 78);
}

TEST(RectConstruction, NegativeCoordinatesAreOrdinaryCoordinates) {
    expectFields(Rect(-3, 2, -7, -2), -7, -2, -3, 2, 5, 5, 25);
}

TEST(RectConstruction, CopyAndAssignmentCopyAllSevenFields) {
    Rect source(1, 2, 4, 8);
    source.area = 999;  // fields are plain data; a copy takes them as they are
    const Rect copy(source);
    expectFields(copy, 1, 2, 4, 8, 4, 7, 999);
    Rect assigned(0, 0, 0, 0);
    assigned = source;
    expectFields(assigned, 1, 2, 4, 8, 4, 7, 999);
}

// ---- ordering ----

TEST(RectOrdering, SmallerAreaComesFirstWhateverThePosition) {
    const Rect small(100, 100, 101, 101);  // area 4
    const Rect large(0, 0, 2, 2);          // area 9
    EXPECT_TRUE(small < large);
    EXPECT_FALSE(large < small);
}

TEST(RectOrdering, EqualAreasOrderByLeftThenTopThenRightThenBottom) {
    // left decides
    EXPECT_TRUE(Rect(0, 5, 1, 6) < Rect(1, 0, 2, 1));
    EXPECT_FALSE(Rect(1, 0, 2, 1) < Rect(0, 5, 1, 6));
    // same left: top decides
    EXPECT_TRUE(Rect(1, 0, 2, 1) < Rect(1, 3, 2, 4));
    EXPECT_FALSE(Rect(1, 3, 2, 4) < Rect(1, 0, 2, 1));
    // same left and top, same area, different shape: right decides (1x4 before 4x1)
    EXPECT_TRUE(Rect(0, 0, 0, 3) < Rect(0, 0, 3, 0));
    EXPECT_FALSE(Rect(0, 0, 3, 0) < Rect(0, 0, 0, 3));
}

TEST(RectOrdering, BottomIsTheLastKey) {
    // Only reachable by setting fields directly: left, top, right and area
    // equal, bottom differs.
    Rect a(0, 0, 1, 1);
    Rect b(0, 0, 1, 1);
    b.bottom = 5;
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
}

TEST(RectOrdering, WidthAndHeightTakeNoPart) {
    Rect a(2, 3, 6, 9);
    Rect b(2, 3, 6, 9);
    a.width = 1;
    b.height = 100;
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
}

TEST(RectOrdering, AreaFieldIsTheFirstKeyAsStored) {
    // The ordering reads the stored area, not one recomputed from the corners.
    Rect a(50, 50, 59, 59);  // area 100
    Rect b(0, 0, 1, 1);      // area 4
    a.area = 1;
    EXPECT_TRUE(a < b);
}

TEST(RectOrdering, EqualBoxesAreEquivalentAndASetKeepsOne) {
    const Rect a(4, 5, 9, 12);
    const Rect b(9, 12, 4, 5);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_FALSE(a < a);
    std::set<Rect> boxes{a, b};
    EXPECT_EQ(boxes.size(), 1u);
    boxes.insert(Rect(4, 5, 9, 13));
    EXPECT_EQ(boxes.size(), 2u);
}

TEST(RectOrdering, SortedSetBeginsWithTheSmallestBox) {
    const std::set<Rect> boxes{Rect(0, 0, 9, 9), Rect(30, 0, 31, 1), Rect(5, 5, 6, 6),
                               Rect(5, 0, 6, 1), Rect(0, 20, 99, 20)};
    std::vector<Rect> order(boxes.begin(), boxes.end());
    ASSERT_EQ(order.size(), 5u);
    EXPECT_EQ(order[0], Rect(5, 0, 6, 1));
    EXPECT_EQ(order[1], Rect(5, 5, 6, 6));
    EXPECT_EQ(order[2], Rect(30, 0, 31, 1));
    EXPECT_EQ(order[3], Rect(0, 0, 9, 9));
    EXPECT_EQ(order[4], Rect(0, 20, 99, 20));
}

// ---- equality ----

TEST(RectEquality, ComparesTheFourCornersOnly) {
    EXPECT_TRUE(Rect(1, 2, 3, 4) == Rect(3, 4, 1, 2));
    EXPECT_FALSE(Rect(1, 2, 3, 4) == Rect(0, 2, 3, 4));
    EXPECT_FALSE(Rect(1, 2, 3, 4) == Rect(1, 1, 3, 4));
    EXPECT_FALSE(Rect(1, 2, 3, 4) == Rect(1, 2, 4, 4));
    EXPECT_FALSE(Rect(1, 2, 3, 4) == Rect(1, 2, 3, 5));

    Rect tampered(1, 2, 3, 4);
    tampered.width = 77;
    tampered.height = 88;
    tampered.area = 99;
    EXPECT_TRUE(tampered == Rect(1, 2, 3, 4));
}

// ---- ApproximateOverlap ----

TEST(RectApproximateOverlap, HorizontalLimitIsInclusive) {
    const Rect base(0, 0, 9, 9);
    EXPECT_TRUE(base.ApproximateOverlap(Rect(3, 0, 12, 9), 0.3));   // dx = 3.0 = 0.3 * 10
    EXPECT_FALSE(base.ApproximateOverlap(Rect(4, 0, 13, 9), 0.3));  // dx = 4.0
    EXPECT_TRUE(Rect(3, 0, 12, 9).ApproximateOverlap(base, 0.3));   // either direction
    EXPECT_FALSE(Rect(4, 0, 13, 9).ApproximateOverlap(base, 0.3));
}

TEST(RectApproximateOverlap, VerticalLimitIsInclusive) {
    const Rect base(0, 0, 9, 9);
    EXPECT_TRUE(base.ApproximateOverlap(Rect(0, 3, 9, 12), 0.3));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(0, 4, 9, 13), 0.3));
    EXPECT_TRUE(base.ApproximateOverlap(Rect(0, -3, 9, 6), 0.3));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(0, -4, 9, 5), 0.3));
}

TEST(RectApproximateOverlap, EachAxisUsesItsOwnSide) {
    // 20 wide, 10 high: 0.3 allows 6 pixels sideways but only 3 up or down.
    const Rect base(0, 0, 19, 9);
    EXPECT_TRUE(base.ApproximateOverlap(Rect(6, 3, 25, 12), 0.3));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(7, 0, 26, 9), 0.3));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(0, 4, 19, 13), 0.3));
}

TEST(RectApproximateOverlap, SizesMustMatchExactly) {
    const Rect square(0, 0, 9, 9);
    const Rect taller(0, 0, 9, 10);
    const Rect wider(0, 0, 10, 9);
    for (double t : {0.0, 0.3, 1.0, 1e9, std::numeric_limits<double>::infinity()}) {
        EXPECT_FALSE(square.ApproximateOverlap(taller, t)) << t;
        EXPECT_FALSE(taller.ApproximateOverlap(square, t)) << t;
        EXPECT_FALSE(square.ApproximateOverlap(wider, t)) << t;
        EXPECT_FALSE(wider.ApproximateOverlap(square, t)) << t;
    }
    // Same area, transposed shape.
    EXPECT_FALSE(Rect(0, 0, 9, 19).ApproximateOverlap(Rect(0, 0, 19, 9), 1e9));
}

TEST(RectApproximateOverlap, ZeroToleranceMatchesOnlyTheSameCorners) {
    const Rect base(5, 5, 14, 14);
    EXPECT_TRUE(base.ApproximateOverlap(Rect(14, 14, 5, 5), 0.0));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(6, 5, 15, 14), 0.0));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(5, 4, 14, 13), 0.0));
}

TEST(RectApproximateOverlap, NaNToleranceNeverMatches) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Rect base(5, 5, 14, 14);
    EXPECT_FALSE(base.ApproximateOverlap(base, nan));
    EXPECT_FALSE(base.ApproximateOverlap(Rect(6, 6, 15, 15), nan));
}

TEST(RectApproximateOverlap, NegativeToleranceNeverMatches) {
    const Rect base(5, 5, 14, 14);
    EXPECT_FALSE(base.ApproximateOverlap(base, -0.1));
}

TEST(RectApproximateOverlap, HalfPixelCentresAcrossZeroAreNotTruncated) {
    // Centres -0.5 and 3.5 are 4.0 apart; integer halving would put them at 0
    // and 3 and call them 3 apart.
    const Rect a(-5, 0, 4, 9);
    const Rect b(-1, 0, 8, 9);
    EXPECT_FALSE(a.ApproximateOverlap(b, 0.3));
    EXPECT_TRUE(a.ApproximateOverlap(b, 0.4));
    // Same vertically.
    const Rect c(0, -5, 9, 4);
    const Rect d(0, -1, 9, 8);
    EXPECT_FALSE(c.ApproximateOverlap(d, 0.3));
    EXPECT_TRUE(c.ApproximateOverlap(d, 0.4));
}

TEST(RectApproximateOverlap, EvenWidthBoxesWithHalfPixelCentres) {
    // 4 wide: centres 1.5 and 2.5; dx = 1.0 = 0.25 * 4.
    const Rect a(0, 0, 3, 3);
    EXPECT_TRUE(a.ApproximateOverlap(Rect(1, 0, 4, 3), 0.25));
    EXPECT_FALSE(a.ApproximateOverlap(Rect(1, 0, 4, 3), 0.2));
}

// ---- CalculateTotalArea ----

TEST(RectTotalArea, EmptyListIsZero) {
    EXPECT_EQ(Rect::CalculateTotalArea({}), 0);
}

TEST(RectTotalArea, OneBoxIsItsArea) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9)}), 100);
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(40, 7, 40, 7)}), 1);
}

TEST(RectTotalArea, SameBoxTwiceCountsOnce) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9), Rect(9, 9, 0, 0)}), 100);
}

TEST(RectTotalArea, OverlapCountsOnce) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9), Rect(5, 5, 14, 14)}), 175);
}

TEST(RectTotalArea, DisjointBoxesAddUp) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 1, 1), Rect(10, 10, 11, 11)}), 8);
}

TEST(RectTotalArea, BoxesTouchingEdgeToEdgeAddUp) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9), Rect(10, 0, 19, 9)}), 200);
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9), Rect(0, 10, 9, 14)}), 150);
}

TEST(RectTotalArea, NestedBoxAddsNothing) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(2, 2, 3, 3), Rect(0, 0, 9, 9)}), 100);
}

TEST(RectTotalArea, BoxesAwayFromTheOriginOrNegative) {
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(300, 200, 301, 201), Rect(310, 210, 311, 211)}), 8);
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(-5, -5, 4, 4), Rect(0, 0, 9, 9)}), 175);
}

TEST(RectTotalArea, ThreeWayOverlap) {
    // Three 10x10 boxes shifted by 5 along the diagonal: 100 + 75 + 75.
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(0, 0, 9, 9), Rect(5, 5, 14, 14),
                                        Rect(10, 10, 19, 19)}),
              250);
    // Cross: 3x11 and 11x3 centred on each other: 33 + 33 - 9.
    EXPECT_EQ(Rect::CalculateTotalArea({Rect(4, 0, 6, 10), Rect(0, 4, 10, 6)}), 57);
}

// ---- result records ----

TEST(ResultRecords, AnalysisResultDefaults) {
    const vyra::AnalysisResult r;
    EXPECT_EQ(r.pageType, 0);
    EXPECT_EQ(r.pageType, STATIC_PAGE);
    EXPECT_EQ(r.imageCount, 0u);
    EXPECT_EQ(r.loadFinishedIndex, -1);
    EXPECT_EQ(r.staticResult.baselineIndex, -1);
    EXPECT_EQ(r.staticResult.logoAppearIndex, -1);
    EXPECT_EQ(r.staticResult.logoDisappearIndex, -1);
    EXPECT_EQ(r.staticResult.firstFrameIndex, -1);
    EXPECT_TRUE(r.staticResult.objectCounts.empty());
    EXPECT_EQ(r.staticResult.loadedPsnr, -1.0);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
    EXPECT_EQ(r.dynamicResult.motionStartIndex, -1);
    EXPECT_EQ(r.dynamicResult.firstNonBlankObjectCount, 0u);
    EXPECT_TRUE(r.dynamicResult.featureMatchingResults.empty());
}

TEST(ResultRecords, PageTypeValues) {
    EXPECT_EQ(static_cast<int>(STATIC_PAGE), 0);
    EXPECT_EQ(static_cast<int>(DYNAMIC_PAGE), 1);
}

TEST(ResultRecords, SubRecordDefaults) {
    const vyra::StaticPageAnalysisResult s;
    EXPECT_EQ(s.baselineIndex, -1);
    EXPECT_EQ(s.logoAppearIndex, -1);
    EXPECT_EQ(s.logoDisappearIndex, -1);
    EXPECT_EQ(s.firstFrameIndex, -1);
    EXPECT_TRUE(s.objectCounts.empty());
    EXPECT_EQ(s.loadedPsnr, -1.0);
    EXPECT_EQ(s.preLoadedPsnr, -1.0);

    const vyra::DynamicPageAnalysisResult d;
    EXPECT_EQ(d.motionStartIndex, -1);
    EXPECT_EQ(d.firstNonBlankObjectCount, 0u);
    EXPECT_TRUE(d.featureMatchingResults.empty());
}

TEST(ResultRecords, FeatureMatchingResultDefaults) {
    const vyra::FeatureMatchingResult f;
    EXPECT_EQ(f.firstImageIndex, -1);
    EXPECT_EQ(f.firstKeypointCount, 0u);
    EXPECT_EQ(f.secondKeypointCount, 0u);
    EXPECT_EQ(f.consistentMatchCount, 0u);
    EXPECT_FALSE(f.isMoving);
}

TEST(ResultRecords, FeatureMatchingResultFiveArgumentsInFieldOrder) {
    const vyra::FeatureMatchingResult f(7, 11ul, 13ul, 5ul, true);
    EXPECT_EQ(f.firstImageIndex, 7);
    EXPECT_EQ(f.firstKeypointCount, 11u);
    EXPECT_EQ(f.secondKeypointCount, 13u);
    EXPECT_EQ(f.consistentMatchCount, 5u);
    EXPECT_TRUE(f.isMoving);

    // Counts are 64-bit: a value beyond 32 bits survives.
    const unsigned long big = 5000000000ul;
    const vyra::FeatureMatchingResult g(-1, big, big + 1, big + 2, false);
    EXPECT_EQ(g.firstKeypointCount, big);
    EXPECT_EQ(g.secondKeypointCount, big + 1);
    EXPECT_EQ(g.consistentMatchCount, big + 2);
    EXPECT_FALSE(g.isMoving);
}

vyra::AnalysisResult filledResult() {
    vyra::AnalysisResult r;
    r.pageType = DYNAMIC_PAGE;
    r.imageCount = 3;
    r.loadFinishedIndex = 2;
    r.staticResult.objectCounts = {4, 0, 9};
    r.staticResult.loadedPsnr = 31.5;
    r.dynamicResult.featureMatchingResults = {vyra::FeatureMatchingResult(0, 10, 12, 8, true),
                                              vyra::FeatureMatchingResult(1, 12, 9, 2, false)};
    return r;
}

TEST(ResultRecords, CopiesOfAFilledResultAreIndependent) {
    vyra::AnalysisResult original = filledResult();
    vyra::AnalysisResult copy = original;

    copy.staticResult.objectCounts.push_back(77);
    copy.staticResult.objectCounts[0] = 100;
    copy.dynamicResult.featureMatchingResults[1].isMoving = true;
    copy.dynamicResult.featureMatchingResults.clear();

    EXPECT_EQ(original.staticResult.objectCounts, (std::vector<size_t>{4, 0, 9}));
    ASSERT_EQ(original.dynamicResult.featureMatchingResults.size(), 2u);
    EXPECT_FALSE(original.dynamicResult.featureMatchingResults[1].isMoving);
    EXPECT_EQ(original.dynamicResult.featureMatchingResults[0].firstKeypointCount, 10u);
}

TEST(ResultRecords, DestroyingOneCopyLeavesTheOtherIntact) {
    vyra::AnalysisResult survivor;
    {
        vyra::AnalysisResult original = filledResult();
        survivor = original;
    }
    EXPECT_EQ(survivor.pageType, DYNAMIC_PAGE);
    EXPECT_EQ(survivor.imageCount, 3u);
    EXPECT_EQ(survivor.loadFinishedIndex, 2);
    EXPECT_EQ(survivor.staticResult.objectCounts, (std::vector<size_t>{4, 0, 9}));
    EXPECT_EQ(survivor.staticResult.loadedPsnr, 31.5);
    ASSERT_EQ(survivor.dynamicResult.featureMatchingResults.size(), 2u);
    EXPECT_EQ(survivor.dynamicResult.featureMatchingResults[1].secondKeypointCount, 9u);
}

}  // namespace
