#include "VyraRect.h"

#include <algorithm>
#include <cmath>

#include <opencv2/core.hpp>

namespace vyra {

Rect::Rect(int x1, int y1, int x2, int y2)
    : left(std::min(x1, x2)),
      top(std::min(y1, y2)),
      right(std::max(x1, x2)),
      bottom(std::max(y1, y2)),
      width(right - left + 1),
      height(bottom - top + 1),
      area(width * height) {}

Rect::Rect(const Rect& other) = default;

Rect::~Rect() = default;

bool Rect::operator<(const Rect& other) const {
    if (area != other.area) return area < other.area;
    if (left != other.left) return left < other.left;
    if (top != other.top) return top < other.top;
    if (right != other.right) return right < other.right;
    return bottom < other.bottom;
}

bool Rect::operator==(const Rect& other) const {
    return left == other.left && top == other.top && right == other.right &&
           bottom == other.bottom;
}

bool Rect::ApproximateOverlap(const Rect& other, double tolerance) const {
    if (width != other.width || height != other.height) return false;
    const double dx = std::fabs(static_cast<double>(other.left + other.right) * 0.5 -
                                static_cast<double>(left + right) * 0.5);
    if (!(width * tolerance >= dx)) return false;
    const double dy = std::fabs(static_cast<double>(other.top + other.bottom) * 0.5 -
                                static_cast<double>(top + bottom) * 0.5);
    return height * tolerance >= dy;
}

int Rect::CalculateTotalArea(const std::vector<Rect>& rects) {
    if (rects.empty()) return 0;
    int minLeft = rects.front().left, minTop = rects.front().top;
    int maxRight = rects.front().right, maxBottom = rects.front().bottom;
    for (const Rect& r : rects) {
        minLeft = std::min(minLeft, r.left);
        minTop = std::min(minTop, r.top);
        maxRight = std::max(maxRight, r.right);
        maxBottom = std::max(maxBottom, r.bottom);
    }
    cv::Mat mask = cv::Mat::zeros(maxBottom - minTop + 1, maxRight - minLeft + 1, CV_8UC1);
    for (const Rect& r : rects) {
        mask(cv::Rect(r.left - minLeft, r.top - minTop, r.width, r.height)) = 1;
    }
    return cv::countNonZero(mask);
}

}  // namespace vyra
