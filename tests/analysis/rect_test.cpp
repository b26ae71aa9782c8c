// vyra::Rect: corners in any order, the order of object lists, equality,
// approximate overlap and union area, each as a table of boxes whose answer
// is worked out by hand in the comment beside it.
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "VyraRect.h"

namespace {

using vyra::Rect;

TEST(Rect, CornersInAnyOrderGiveInclusiveFields) {
    struct Case {
        int x1, y1, x2, y2;
        int left, top, right, bottom, width, height, area;
    };
    const Case cases[] = {
        {3, 4, 3, 4, 3, 4, 3, 4, 1, 1, 1},          // one pixel
        {5, 8, 10, 20, 5, 8, 10, 20, 6, 13, 78},
        {10, 20, 5, 8, 5, 8, 10, 20, 6, 13, 78},     // corners swapped
        {10, 8, 5, 20, 5, 8, 10, 20, 6, 13, 78},     // x descending only
        {-3, 2, -7, -2, -7, -2, -3, 2, 5, 5, 25},    // negative coordinates
    };
    for (const Case& c : cases) {
        const Rect r(c.x1, c.y1, c.x2, c.y2);
        EXPECT_EQ((std::vector<int>{r.left, r.top, r.right, r.bottom, r.width, r.height, r.area}),
                  (std::vector<int>{c.left, c.top, c.right, c.bottom, c.width, c.height, c.area}))
            << c.x1 << "," << c.y1 << "," << c.x2 << "," << c.y2;
    }
}

TEST(Rect, OrderIsAreaThenLeftTopRightBottomAndEqualityIsTheCorners) {
    Rect tallerBottom(0, 0, 1, 1);
    tallerBottom.bottom = 5;  // only the last key differs
    const struct {
        Rect a, b;
        bool less;
    } cases[] = {
        {Rect(100, 100, 101, 101), Rect(0, 0, 2, 2), true},  // area 4 before 9, whatever the place
        {Rect(0, 0, 2, 2), Rect(100, 100, 101, 101), false},
        {Rect(0, 5, 1, 6), Rect(1, 0, 2, 1), true},          // equal areas: left decides
        {Rect(1, 0, 2, 1), Rect(0, 5, 1, 6), false},
        {Rect(1, 0, 2, 1), Rect(1, 3, 2, 4), true},          // then top
        {Rect(0, 0, 0, 3), Rect(0, 0, 3, 0), true},          // then right: 1x4 before 4x1
        {Rect(0, 0, 1, 1), tallerBottom, true},              // then bottom
        {Rect(4, 5, 9, 12), Rect(9, 12, 4, 5), false},       // the same box
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.a < c.b, c.less) << c.a.left << "," << c.a.top << " vs " << c.b.left << "," << c.b.top;
    }
    Rect tampered(1, 2, 3, 4);
    tampered.area = 99;
    EXPECT_TRUE(tampered == Rect(3, 4, 1, 2));
    EXPECT_FALSE(Rect(1, 2, 3, 4) == Rect(1, 2, 3, 5));
}

TEST(Rect, ApproximateOverlapNeedsTheSameSizeAndCentresWithinToleranceTimesEachSide) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Rect square(0, 0, 9, 9);   // 10 x 10, centre (4.5, 4.5)
    const Rect wide(0, 0, 19, 9);    // 20 x 10
    const struct {
        Rect a, b;
        double tolerance;
        bool overlap;
    } cases[] = {
        {square, Rect(3, 0, 12, 9), 0.3, true}, {square, Rect(4, 0, 13, 9), 0.3, false},  // dx 3 = 0.3 * 10: inclusive
        {Rect(3, 0, 12, 9), square, 0.3, true},                                           // either direction
        {square, Rect(0, 3, 9, 12), 0.3, true}, {square, Rect(0, -4, 9, 5), 0.3, false},  // dy 3, dy 4
        {wide, Rect(6, 3, 25, 12), 0.3, true},  // 0.3 of 20 across, of 10 down
        {wide, Rect(7, 0, 26, 9), 0.3, false}, {wide, Rect(0, 4, 19, 13), 0.3, false},
        {square, Rect(0, 0, 9, 10), 1e9, false}, {Rect(0, 0, 9, 19), Rect(0, 0, 19, 9), 1e9, false},  // sizes differ
        {square, Rect(9, 9, 0, 0), 0.0, true}, {square, Rect(1, 0, 10, 9), 0.0, false},
        {square, square, nan, false}, {square, square, -0.1, false},
        {Rect(-5, 0, 4, 9), Rect(-1, 0, 8, 9), 0.3, false},  // centres -0.5 and 3.5: 4 apart
        {Rect(-5, 0, 4, 9), Rect(-1, 0, 8, 9), 0.4, true},
        {Rect(0, 0, 3, 3), Rect(1, 0, 4, 3), 0.25, true}, {Rect(0, 0, 3, 3), Rect(1, 0, 4, 3), 0.2, false},  // 1 = 0.25 * 4
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.a.ApproximateOverlap(c.b, c.tolerance), c.overlap)
            << c.a.left << "," << c.a.top << "," << c.a.right << "," << c.a.bottom << " vs " << c.b.left << ","
            << c.b.top << "," << c.b.right << "," << c.b.bottom << " at " << c.tolerance;
    }
}

TEST(Rect, TotalAreaCountsEveryCoveredPixelOnce) {
    const struct {
        std::vector<Rect> boxes;
        int area;
    } cases[] = {
        {{}, 0}, {{Rect(40, 7, 40, 7)}, 1}, {{Rect(0, 0, 9, 9), Rect(9, 9, 0, 0)}, 100},  // the same box twice
        {{Rect(0, 0, 9, 9), Rect(5, 5, 14, 14)}, 175},                                  // 100 + 100 - 25
        {{Rect(0, 0, 9, 9), Rect(10, 0, 19, 9)}, 200}, {{Rect(2, 2, 3, 3), Rect(0, 0, 9, 9)}, 100},  // touching, nested
        {{Rect(300, 200, 301, 201), Rect(310, 210, 311, 211)}, 8},        // far from the origin
        {{Rect(-5, -5, 4, 4), Rect(0, 0, 9, 9)}, 175},
        {{Rect(0, 0, 9, 9), Rect(5, 5, 14, 14), Rect(10, 10, 19, 19)}, 250},  // 100 + 75 + 75
        {{Rect(4, 0, 6, 10), Rect(0, 4, 10, 6)}, 57},                     // cross: 33 + 33 - 9
    };
    for (const auto& c : cases) EXPECT_EQ(Rect::CalculateTotalArea(c.boxes), c.area) << c.boxes.size() << " boxes";
}

}  // namespace
