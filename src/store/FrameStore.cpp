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

FrameStore::FrameStore(size_t byteLimit) : byteLimit_(byteLimit) {}

FrameStore::~FrameStore() {
    frames_.clear();
    for (const Block& block : blocks_) ReleaseLargeBlock(block.data, block.size);
}

FrameStore::FrameStore(FrameStore&& other) noexcept
    : byteLimit_(other.byteLimit_),
      frames_(std::move(other.frames_)),
      blocks_(std::exchange(other.blocks_, {})),
      bytesHeld_(std::exchange(other.bytesHeld_, 0)),
      full_(other.full_),
      last_(std::move(other.last_)),
      spare_{std::move(other.spare_[0]), std::move(other.spare_[1])},
      spareNext_(other.spareNext_) {}

FrameStore& FrameStore::operator=(FrameStore&& other) noexcept {
    if (this != &other) {
        FrameStore old(std::move(*this));
        byteLimit_ = other.byteLimit_;
        frames_ = std::move(other.frames_);
        blocks_ = std::exchange(other.blocks_, {});
        bytesHeld_ = std::exchange(other.bytesHeld_, 0);
        full_ = other.full_;
        last_ = std::move(other.last_);
        spare_[0] = std::move(other.spare_[0]);
        spare_[1] = std::move(other.spare_[1]);
        spareNext_ = other.spareNext_;
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

std::shared_ptr<const FrameStore::BandList> FrameStore::keep(const cv::Mat& frame, const BandList* previous,
                                                             size_t& added) {
    auto bands = std::make_shared<BandList>();
    added = 0;
    for (int y = 0, band = 0; y < frame.rows; y += kBandRows, ++band) {
        const int rows = std::min(kBandRows, frame.rows - y);
        if (previous != nullptr && sameRows(frame, y, (*previous)[static_cast<size_t>(band)])) {
            bands->push_back((*previous)[static_cast<size_t>(band)]);
            continue;
        }
        const cv::Mat source = frame.rowRange(y, y + rows);
        cv::Mat kept(rows, frame.cols, frame.type(), reserve(source.total() * source.elemSize()));
        source.copyTo(kept);
        bands->push_back(kept);
        added += kept.total() * kept.elemSize();
    }
    return bands;
}

std::shared_ptr<const FrameStore::BandList> FrameStore::holdLast(const cv::Mat& frame) {
    cv::Mat& spare = spare_[spareNext_];
    spareNext_ ^= 1;
    frame.copyTo(spare);
    auto bands = std::make_shared<BandList>();
    for (int y = 0; y < spare.rows; y += kBandRows) {
        bands->push_back(spare.rowRange(y, std::min(y + kBandRows, spare.rows)));
    }
    return bands;
}

bool FrameStore::Append(const cv::Mat& frame, std::vector<cv::Range>* changedRows) {
    CV_Assert(frame.dims <= 2);
    const Frame* previous = frames_.empty() ? nullptr : &frames_.back();
    const bool comparable = previous != nullptr && previous->rows == frame.rows &&
                            previous->cols == frame.cols && previous->type == frame.type();
    // Where the frame differs from the one before it, band by band.
    std::vector<cv::Range> changed;
    size_t newBytes = 0;
    for (int y = 0, band = 0; y < frame.rows; y += kBandRows, ++band) {
        const int rows = std::min(kBandRows, frame.rows - y);
        if (comparable && sameRows(frame, y, (*last_)[static_cast<size_t>(band)])) continue;
        newBytes += static_cast<size_t>(rows) * frame.cols * frame.elemSize();
        if (!changed.empty() && changed.back().end == y) {
            changed.back().end = y + rows;
        } else {
            changed.emplace_back(y, y + rows);
        }
    }
    const bool allShared = comparable && changed.empty();

    Frame entry;
    entry.rows = frame.rows;
    entry.cols = frame.cols;
    entry.type = frame.type();
    entry.sameAsPrevious = allShared;
    size_t added = 0;
    if (allShared) {
        entry.bands = previous->bands;  // resident when the equal frame before it is
    } else if (!full_ && newBytes <= byteLimit_ - std::min(byteLimit_, bytesHeld_)) {
        entry.bands = keep(frame, comparable ? last_.get() : nullptr, added);
    } else {
        full_ = true;
    }
    std::shared_ptr<const BandList> last = last_;
    if (!allShared) last = entry.bands ? entry.bands : holdLast(frame);
    frames_.push_back(std::move(entry));
    last_ = last;
    bytesHeld_ += added;
    if (changedRows != nullptr) changedRows->swap(changed);
    return allShared;
}

void FrameStore::KeepLast() {
    if (frames_.empty() || frames_.back().bands) return;
    cv::Mat pixels;
    stack(*last_, pixels);
    size_t added = 0;
    frames_.back().bands = keep(pixels, nullptr, added);
    last_ = frames_.back().bands;
    bytesHeld_ += added;
}

size_t FrameStore::Size() const { return frames_.size(); }

bool FrameStore::SameAsPrevious(size_t k) const { return frames_.at(k).sameAsPrevious; }

bool FrameStore::Resident(size_t k) const { return frames_.at(k).bands != nullptr; }

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
    CV_Assert(frame.bands != nullptr);
    UseLargeFrameMemory(pixels);
    pixels.create(frame.rows, frame.cols, frame.type);
    stack(*frame.bands, pixels);
}

void FrameStore::stack(const BandList& bands, cv::Mat& pixels) {
    if (pixels.empty() && !bands.empty()) {
        int rows = 0;
        for (const cv::Mat& band : bands) rows += band.rows;
        pixels.create(rows, bands.front().cols, bands.front().type());
    }
    int y = 0;
    for (const cv::Mat& band : bands) {
        band.copyTo(pixels.rowRange(y, y + band.rows));
        y += band.rows;
    }
}

std::shared_ptr<const std::vector<cv::Mat>> FrameStore::Bands(size_t k) const {
    CV_Assert(frames_.at(k).bands != nullptr);
    return frames_.at(k).bands;
}

size_t FrameStore::BytesHeld() const { return bytesHeld_; }

}  // namespace detail
}  // namespace vyra
