#include "analysis/ObjectPrefetch.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

#include "analysis/ImageCacheAccess.h"
#include "VyraImage.h"

namespace vyra {
namespace detail {

namespace {

// How many detections beyond the index last provided are computed ahead.
const int kLookahead = 8;

// Same size, same type and the same bytes.
bool samePixels(const cv::Mat& a, const cv::Mat& b) {
    if (a.rows != b.rows || a.cols != b.cols || a.type() != b.type() || a.dims > 2 || b.dims > 2) {
        return false;
    }
    if (a.empty() || (a.data == b.data && a.step == b.step)) return true;  // empty: no bytes to compare
    const size_t rowBytes = static_cast<size_t>(a.cols) * a.elemSize();
    if (a.isContinuous() && b.isContinuous()) {
        return std::memcmp(a.data, b.data, rowBytes * static_cast<size_t>(a.rows)) == 0;
    }
    for (int y = 0; y < a.rows; ++y) {
        if (std::memcmp(a.ptr(y), b.ptr(y), rowBytes) != 0) return false;
    }
    return true;
}

// The frame that @p bands make, as one matrix (the band itself when there is one).
cv::Mat stacked(const std::vector<cv::Mat>& bands) {
    if (bands.size() == 1) return bands.front();
    cv::Mat frame;
    if (!bands.empty()) cv::vconcat(bands, frame);
    return frame;
}

// Pixels of the frame that @p bands make.
size_t pixelCount(const std::vector<cv::Mat>& bands) {
    size_t count = 0;
    for (const cv::Mat& band : bands) count += band.total();
    return count;
}

}  // namespace

ObjectPrefetch::ObjectPrefetch(ImageSets& sets, bool useWorker, const PixelSource* source)
    : sets_(sets), source_(source), slots_(static_cast<size_t>(sets.size())) {
    findEligible(source);
    horizon_ = horizonAfter(-1);
    if (useWorker && std::thread::hardware_concurrency() > 1) {
        try {
            worker_ = std::thread(&ObjectPrefetch::workerLoop, this);
        } catch (const std::system_error&) {
            // No second thread: everything is computed on the calling thread.
        }
    }
}

void ObjectPrefetch::findEligible(const PixelSource* source) {
    for (int k = 0; k < sets_.size(); ++k) {
        const Image& image = sets_[k];
        Slot& slot = slots_[static_cast<size_t>(k)];
        if (ImageCacheAccess::HasObjects(image)) continue;
        if (ImageCacheAccess::IsResident(image)) {
            slot.state = State::Unclaimed;
            slot.pixels = ImageCacheAccess::Pixels(image);
        } else if (source != nullptr && source->Covers(k, ImageCacheAccess::CachedSize(image))) {
            slot.state = State::Unclaimed;
            slot.fromSource = true;
            const Slot* previous = k > 0 ? &slots_[static_cast<size_t>(k) - 1] : nullptr;
            if (previous != nullptr && previous->fromSource && source->SameAsPrevious(k)) {
                // Linked straight to the run's first image.
                slot.state = State::Done;
                slot.sameAs = previous->sameAs >= 0 ? previous->sameAs : k - 1;
            }
        }
        if (slot.state == State::Unclaimed) toDetect_.push_back(k);
    }
}

int ObjectPrefetch::horizonAfter(int index) const {
    const auto next = std::upper_bound(toDetect_.begin(), toDetect_.end(), index);
    const auto remaining = toDetect_.end() - next;
    if (remaining == 0) return index;
    return *(next + std::min<std::ptrdiff_t>(remaining, kLookahead) - 1);
}

ObjectPrefetch::~ObjectPrefetch() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (worker_.joinable()) worker_.join();
}

int ObjectPrefetch::claimNext() {
    const int size = static_cast<int>(slots_.size());
    for (; cursor_ < size && cursor_ <= horizon_; ++cursor_) {
        Slot& slot = slots_[static_cast<size_t>(cursor_)];
        if (slot.state == State::Unclaimed) {
            slot.state = State::Working;
            return cursor_++;
        }
    }
    return -1;
}

void ObjectPrefetch::work(int index, std::unique_lock<std::mutex>& lock, DetectionWorkspace& workspace) {
    const bool fromSource = slots_[static_cast<size_t>(index)].fromSource;
    cv::Mat pixels = slots_[static_cast<size_t>(index)].pixels;
    const bool previousEligible =
        index > 0 && slots_[static_cast<size_t>(index) - 1].state != State::Ineligible;
    const cv::Mat previous = previousEligible ? slots_[static_cast<size_t>(index) - 1].pixels : cv::Mat();
    lock.unlock();

    State state = State::Done;
    int sameAs = -1;
    std::shared_ptr<const std::vector<Rect>> objects;
    double ratio = 0.0;
    try {
        if (fromSource) {
            const std::shared_ptr<const std::vector<cv::Mat>> bands = source_->Bands(index);
            auto detected = std::make_shared<std::vector<Rect>>(
                source_->BandsLast(index) ? workspace.DetectBands(*bands) : workspace.Detect(stacked(*bands)));
            ratio = ImageCacheAccess::RatioOf(Rect::CalculateTotalArea(*detected), pixelCount(*bands));
            objects = std::move(detected);
        } else if (previousEligible && samePixels(previous, pixels)) {
            sameAs = index - 1;
        } else {
            auto detected = std::make_shared<std::vector<Rect>>(workspace.Detect(pixels));
            ratio = ImageCacheAccess::RatioOf(Rect::CalculateTotalArea(*detected), pixels.total());
            objects = std::move(detected);
        }
    } catch (...) {
        // The Image's own accessor will meet the same failure when asked.
        state = State::Failed;
    }

    lock.lock();
    Slot& slot = slots_[static_cast<size_t>(index)];
    slot.state = state;
    slot.sameAs = sameAs;
    slot.objects = std::move(objects);
    slot.ratio = ratio;
    changed_.notify_all();
}

int ObjectPrefetch::representative(int index) const {
    while (slots_[static_cast<size_t>(index)].state == State::Done &&
           slots_[static_cast<size_t>(index)].sameAs >= 0) {
        index = slots_[static_cast<size_t>(index)].sameAs;
    }
    return index;
}

void ObjectPrefetch::Provide(int index, bool withRatio) {
    if (index < 0 || index >= static_cast<int>(slots_.size())) return;
    std::unique_lock<std::mutex> lock(mutex_);
    if (slots_[static_cast<size_t>(index)].state == State::Ineligible) return;
    horizon_ = horizonAfter(index);
    changed_.notify_all();
    for (;;) {
        const int source = representative(index);
        Slot& slot = slots_[static_cast<size_t>(source)];
        switch (slot.state) {
        case State::Unclaimed:
            slot.state = State::Working;
            work(source, lock, callerWorkspace_);
            break;
        case State::Working: {
            // Busy on the worker: compute the next result meanwhile, or wait.
            const int next = claimNext();
            if (next >= 0) {
                work(next, lock, callerWorkspace_);
            } else {
                changed_.wait(lock);
            }
            break;
        }
        case State::Done: {
            // Once its own Image has the list, the slot gives it up: repeats
            // provided later copy it from that Image.
            const std::vector<Rect>& objects =
                slot.objects ? *slot.objects : ImageCacheAccess::Objects(sets_[source]);
            ImageCacheAccess::Install(sets_[index], objects, withRatio ? &slot.ratio : nullptr);
            if (source == index) slot.objects.reset();
            return;
        }
        case State::Failed:
        case State::Ineligible:
            return;
        }
    }
}

void ObjectPrefetch::workerLoop() {
    DetectionWorkspace workspace;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        const int next = claimNext();
        if (next >= 0) {
            work(next, lock, workspace);
        } else {
            changed_.wait(lock);
        }
    }
}

}  // namespace detail
}  // namespace vyra
