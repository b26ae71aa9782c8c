#include "store/FrameStore.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "store/LargeFrameAllocator.h"

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

// Band memory is taken from blocks of this size (bands larger than that get
// a block of their own).
constexpr size_t kBlockBytes = size_t(8) << 20;

}  // namespace

FrameStore::FrameStore() = default;

FrameStore::~FrameStore() {
    frames_.clear();
    for (const Block& block : blocks_) ReleaseLargeBlock(block.data, block.size);
}

FrameStore::FrameStore(FrameStore&& other) noexcept
    : frames_(std::move(other.frames_)),
      blocks_(std::exchange(other.blocks_, {})),
      bytesHeld_(std::exchange(other.bytesHeld_, 0)) {}

FrameStore& FrameStore::operator=(FrameStore&& other) noexcept {
    if (this != &other) {
        FrameStore old(std::move(*this));
        frames_ = std::move(other.frames_);
        blocks_ = std::exchange(other.blocks_, {});
        bytesHeld_ = std::exchange(other.bytesHeld_, 0);
    }
    return *this;
}

uchar* FrameStore::reserve(size_t bytes) {
    if (blocks_.empty() || blocks_.back().size - blocks_.back().used < bytes) {
        blocks_.reserve(blocks_.size() + 1);
        const size_t size = std::max(bytes, kBlockBytes);
        void* data = MapLargeBlock(size);
        if (data == nullptr) throw std::bad_alloc();
        blocks_.push_back(Block{static_cast<uchar*>(data), size, 0});
    }
    Block& block = blocks_.back();
    uchar* room = block.data + block.used;
    block.used = std::min(block.size, (block.used + bytes + 15) / 16 * 16);  // keeps bands 16-byte aligned
    return room;
}

bool FrameStore::Append(const cv::Mat& frame, std::vector<cv::Range>* changedRows) {
    CV_Assert(frame.dims <= 2);
    const Frame* previous = frames_.empty() ? nullptr : &frames_.back();
    const bool comparable = previous != nullptr && previous->rows == frame.rows &&
                            previous->cols == frame.cols && previous->type == frame.type();
    Frame entry;
    entry.rows = frame.rows;
    entry.cols = frame.cols;
    entry.type = frame.type();

    auto bands = std::make_shared<BandList>();
    size_t added = 0;
    bool allShared = comparable;
    std::vector<cv::Range> changed;
    if (!comparable && frame.rows > 0) changed.emplace_back(0, frame.rows);
    for (int y = 0, band = 0; y < frame.rows; y += kBandRows, ++band) {
        const int rows = std::min(kBandRows, frame.rows - y);
        if (comparable && sameRows(frame, y, (*previous->bands)[static_cast<size_t>(band)])) {
            bands->push_back((*previous->bands)[static_cast<size_t>(band)]);
            continue;
        }
        allShared = false;
        if (comparable) {
            if (!changed.empty() && changed.back().end == y) {
                changed.back().end = y + rows;
            } else {
                changed.emplace_back(y, y + rows);
            }
        }
        const cv::Mat source = frame.rowRange(y, y + rows);
        cv::Mat kept(rows, frame.cols, frame.type(), reserve(source.total() * source.elemSize()));
        source.copyTo(kept);
        bands->push_back(kept);
        added += kept.total() * kept.elemSize();
    }
    entry.sameAsPrevious = allShared;
    if (allShared) {
        entry.bands = previous->bands;
    } else {
        entry.bands = std::move(bands);
    }
    frames_.push_back(std::move(entry));
    bytesHeld_ += added;
    if (changedRows != nullptr) changedRows->swap(changed);
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
    UseLargeFrameMemory(pixels);
    pixels.create(frame.rows, frame.cols, frame.type);
    int y = 0;
    for (const cv::Mat& band : *frame.bands) {
        band.copyTo(pixels.rowRange(y, y + band.rows));
        y += band.rows;
    }
}

std::shared_ptr<const std::vector<cv::Mat>> FrameStore::Bands(size_t k) const { return frames_.at(k).bands; }

size_t FrameStore::BytesHeld() const { return bytesHeld_; }

}  // namespace detail
}  // namespace vyra
