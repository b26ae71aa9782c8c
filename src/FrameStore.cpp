#include "FrameStore.h"

#include <algorithm>
#include <cstring>

namespace vyra {
namespace detail {

namespace {

// True when rows [y, y + band.rows) of @p frame hold the bytes of @p band.
bool sameRows(const cv::Mat& frame, int y, const cv::Mat& band) {
    const size_t rowBytes = static_cast<size_t>(frame.cols) * frame.elemSize();
    if (frame.isContinuous()) {
        return std::memcmp(frame.ptr(y), band.data, rowBytes * static_cast<size_t>(band.rows)) == 0;
    }
    for (int r = 0; r < band.rows; ++r) {
        if (std::memcmp(frame.ptr(y + r), band.ptr(r), rowBytes) != 0) return false;
    }
    return true;
}

}  // namespace

bool FrameStore::Append(const cv::Mat& frame) {
    CV_Assert(frame.dims <= 2);
    const Frame* previous = frames_.empty() ? nullptr : &frames_.back();
    const bool comparable = previous != nullptr && previous->rows == frame.rows &&
                            previous->cols == frame.cols && previous->type == frame.type();
    Frame entry;
    entry.rows = frame.rows;
    entry.cols = frame.cols;
    entry.type = frame.type();

    auto bands = std::make_shared<Bands>();
    size_t added = 0;
    bool allShared = comparable;
    for (int y = 0, band = 0; y < frame.rows; y += kBandRows, ++band) {
        const int rows = std::min(kBandRows, frame.rows - y);
        if (comparable && sameRows(frame, y, (*previous->bands)[static_cast<size_t>(band)])) {
            bands->push_back((*previous->bands)[static_cast<size_t>(band)]);
            continue;
        }
        allShared = false;
        bands->push_back(frame.rowRange(y, y + rows).clone());
        added += bands->back().total() * bands->back().elemSize();
    }
    entry.sameAsPrevious = allShared;
    if (allShared) {
        entry.bands = previous->bands;
    } else {
        entry.bands = std::move(bands);
    }
    frames_.push_back(std::move(entry));
    bytesHeld_ += added;
    return allShared;
}

size_t FrameStore::Size() const { return frames_.size(); }

bool FrameStore::SameAsPrevious(size_t k) const { return frames_.at(k).sameAsPrevious; }

cv::Size FrameStore::FrameSize(size_t k) const {
    const Frame& frame = frames_.at(k);
    return cv::Size(frame.cols, frame.rows);
}

cv::Mat FrameStore::Load(size_t k) const {
    cv::Mat pixels;
    LoadInto(k, pixels);
    return pixels;
}

void FrameStore::LoadInto(size_t k, cv::Mat& pixels) const {
    const Frame& frame = frames_.at(k);
    pixels.create(frame.rows, frame.cols, frame.type);
    int y = 0;
    for (const cv::Mat& band : *frame.bands) {
        band.copyTo(pixels.rowRange(y, y + band.rows));
        y += band.rows;
    }
}

size_t FrameStore::BytesHeld() const { return bytesHeld_; }

}  // namespace detail
}  // namespace vyra
