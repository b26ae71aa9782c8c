/*
 * libvyra - vyra::Rect, the axis-aligned box of one detected object.
 */
#ifndef VYRA_RECT_H
#define VYRA_RECT_H

#include <vector>

#include "VyraExport.h"

namespace vyra {

/**
 * Axis-aligned box with inclusive pixel corners, in OpenCV's coordinate
 * convention (x to the right, y downward, (0, 0) the top-left pixel).
 *
 * A box from (3, 4) to (3, 4) covers one pixel. All arithmetic is 32-bit
 * signed; boxes are at most frame-sized.
 *
 * Invariants: left <= right, top <= bottom, width = right - left + 1 >= 1,
 * height = bottom - top + 1 >= 1, area = width * height.
 */
class VYRA_API Rect {
public:
    int left;    ///< smallest x covered by the box
    int top;     ///< smallest y covered by the box
    int right;   ///< largest x covered by the box (inclusive)
    int bottom;  ///< largest y covered by the box (inclusive)
    int width;   ///< right - left + 1
    int height;  ///< bottom - top + 1
    int area;    ///< width * height

    /**
     * Builds the box spanned by two opposite corners (x1, y1) and (x2, y2),
     * both inclusive, given in either order.
     */
    Rect(int x1, int y1, int x2, int y2);
    Rect(const Rect& other);
    Rect& operator=(const Rect& other) = default;
    ~Rect();

    /**
     * Strict weak ordering: lexicographic on (area, left, top, right, bottom),
     * each ascending. width and height take no part. This is the order of
     * every detected object list.
     */
    bool operator<(const Rect& other) const;

    /** Equality of the four corners (width, height and area follow from them). */
    bool operator==(const Rect& other) const;

    /**
     * True when @p other has exactly this box's width and height and its
     * centre lies within tolerance * width horizontally and
     * tolerance * height vertically of this box's centre (both limits
     * inclusive). A NaN tolerance gives false.
     */
    bool ApproximateOverlap(const Rect& other, double tolerance) const;

    /**
     * Number of pixels covered by at least one box of @p rects (union area),
     * measured by painting the boxes onto a one-byte-per-pixel mask of their
     * joint bounding box. An empty list gives 0.
     */
    static int CalculateTotalArea(const std::vector<Rect>& rects);
};

}  // namespace vyra

#endif /* VYRA_RECT_H */
