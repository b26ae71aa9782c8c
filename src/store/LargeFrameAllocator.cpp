#include "store/LargeFrameAllocator.h"

#include <cstdint>

#include <sys/mman.h>

namespace vyra {
namespace detail {

namespace {

constexpr size_t kHugePage = size_t(2) << 20;

size_t roundUp(size_t bytes) { return (bytes + kHugePage - 1) / kHugePage * kHugePage; }

// Frees blocks mapped by MapLargeBlock; everything else goes to and comes
// from OpenCV's own allocator, which also handles user data and UMat hooks.
class HugePageMatAllocator : public cv::MatAllocator {
public:
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                           cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        size_t total = CV_ELEM_SIZE(type);
        for (int i = dims - 1; i >= 0; --i) {
            if (step != nullptr) {
                if (data != nullptr && step[i] != cv::Mat::AUTO_STEP) {
                    CV_Assert(total <= step[i]);
                    total = step[i];
                } else {
                    step[i] = total;
                }
            }
            total *= static_cast<size_t>(sizes[i]);
        }
        if (data != nullptr || total < kLargeFrameMinimumBytes) {
            return fallback()->allocate(dims, sizes, type, data, step, flags, usage);
        }
        void* block = MapLargeBlock(total);
        if (block == nullptr) {
            return fallback()->allocate(dims, sizes, type, data, step, flags, usage);
        }
        cv::UMatData* u = new cv::UMatData(this);
        u->data = u->origdata = static_cast<uchar*>(block);
        u->size = total;
        return u;
    }

    bool allocate(cv::UMatData* u, cv::AccessFlag, cv::UMatUsageFlags) const override {
        return u != nullptr;
    }

    void deallocate(cv::UMatData* u) const override {
        if (u == nullptr) return;
        CV_Assert(u->urefcount == 0);
        CV_Assert(u->refcount == 0);
        ReleaseLargeBlock(u->origdata, u->size);
        delete u;
    }

private:
    static cv::MatAllocator* fallback() { return cv::Mat::getStdAllocator(); }
};

}  // namespace

cv::MatAllocator* LargeFrameAllocator() {
    static HugePageMatAllocator allocator;
    return &allocator;
}

void UseLargeFrameMemory(cv::Mat& mat) { mat.allocator = LargeFrameAllocator(); }

void* MapLargeBlock(size_t bytes) {
    const size_t size = roundUp(bytes);
    // Map one huge page more than needed and trim the ends so that the block
    // starts on a huge page boundary.
    void* mapped = mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
    if (aligned > start) munmap(mapped, aligned - start);
    const size_t tail = start + kHugePage - aligned;
    if (tail > 0) munmap(reinterpret_cast<void*>(aligned + size), tail);
    void* block = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
    madvise(block, size, MADV_HUGEPAGE);  // advice only: failure leaves normal pages
#endif
    return block;
}

void ReleaseLargeBlock(void* block, size_t bytes) {
    if (block != nullptr) munmap(block, roundUp(bytes));
}

}  // namespace detail
}  // namespace vyra
