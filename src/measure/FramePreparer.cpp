#include "measure/FramePreparer.h"

#include <algorithm>
#include <utility>

#include <opencv2/imgproc.hpp>

namespace vyra {
namespace detail {

namespace {

cv::Rect toRect(const Region& region) { return cv::Rect(region.x, region.y, region.width, region.height); }

// Per-channel median of the pixels of @p frame inside @p area that are not
// inside @p hole.
cv::Scalar medianColour(const cv::Mat& frame, const cv::Rect& area, const cv::Rect& hole) {
    const int channels = frame.channels();
    std::vector<std::vector<unsigned char>> values(static_cast<size_t>(channels));
    for (int y = area.y; y < area.y + area.height; ++y) {
        const unsigned char* row = frame.ptr<unsigned char>(y);
        for (int x = area.x; x < area.x + area.width; ++x) {
            if (hole.contains(cv::Point(x, y))) {
                continue;
            }
            for (int c = 0; c < channels; ++c) {
                values[static_cast<size_t>(c)].push_back(row[x * channels + c]);
            }
        }
    }
    cv::Scalar colour;
    for (int c = 0; c < channels && c < 4; ++c) {
        std::vector<unsigned char>& v = values[static_cast<size_t>(c)];
        if (v.empty()) {
            continue;
        }
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        colour[c] = v[v.size() / 2];
    }
    return colour;
}

// The flat colour an ignore region is painted in: the median of the ring of
// pixels just outside it, or of its own outermost pixels when it covers the
// whole frame.
cv::Scalar ignoreColour(const cv::Mat& frame, const cv::Rect& region) {
    const cv::Rect bounds(0, 0, frame.cols, frame.rows);
    const cv::Rect ring = cv::Rect(region.x - 1, region.y - 1, region.width + 2, region.height + 2) & bounds;
    if (ring.area() > region.area()) {
        return medianColour(frame, ring, region);
    }
    const cv::Rect inner(region.x + 1, region.y + 1, std::max(region.width - 2, 0),
                         std::max(region.height - 2, 0));
    return medianColour(frame, region, inner);
}

// Throws when @p region does not lie wholly inside @p frame (computed in 64
// bits: a region's far edge may lie beyond int).
void checkInside(const Region& region, const cv::Mat& frame, const std::string& label, const char* what) {
    const long long right = static_cast<long long>(region.x) + region.width;
    const long long bottom = static_cast<long long>(region.y) + region.height;
    if (region.x < 0 || region.y < 0 || right > frame.cols || bottom > frame.rows) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, std::string(what) + " region " + DescribeRegion(region) +
                                                            " does not lie inside " + label + " (" +
                                                            std::to_string(frame.cols) + "x" +
                                                            std::to_string(frame.rows) + ")");
    }
}

}  // namespace

std::string DescribeRegion(const Region& region) {
    return std::to_string(region.x) + "," + std::to_string(region.y) + "," + std::to_string(region.width) + "," +
           std::to_string(region.height);
}

FramePreparer::FramePreparer(const MeasureOptions& options, std::vector<cv::Scalar> colours)
    : options_(options), colours_(std::move(colours)) {}

cv::Mat FramePreparer::Prepare(cv::Mat& decoded, const std::string& label) {
    for (const Region& region : options_.ignore) {
        checkInside(region, decoded, label, "ignore");
    }
    if (options_.crop) {
        checkInside(*options_.crop, decoded, label, "crop");
    }
    if (colours_.empty()) {
        for (const Region& region : options_.ignore) {
            colours_.push_back(ignoreColour(decoded, toRect(region)));
        }
    }
    for (size_t k = 0; k < options_.ignore.size(); ++k) {
        cv::rectangle(decoded, toRect(options_.ignore[k]), colours_[k], cv::FILLED);
    }
    return options_.crop ? decoded(toRect(*options_.crop)) : decoded;
}

}  // namespace detail
}  // namespace vyra
