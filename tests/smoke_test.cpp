#include <gtest/gtest.h>

#include "VyraRect.h"

TEST(BuildSmoke, RectIsUsableFromTheInstalledHeaders) {
    vyra::Rect r(0, 0, 1, 1);
    EXPECT_EQ(r.area, 4);
}
