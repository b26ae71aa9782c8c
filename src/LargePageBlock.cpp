#include "LargePageBlock.h"

#include <cstdint>

#if defined(__unix__)
#include <sys/mman.h>
#endif

namespace vyra {
namespace detail {

const size_t LargePageBlock::kAlignment = size_t(2) << 20;

LargePageBlock::~LargePageBlock() { release(); }

void LargePageBlock::release() {
#if defined(__unix__)
    if (mapping_ != nullptr) munmap(mapping_, mappingSize_);
#endif
    mapping_ = nullptr;
    mappingSize_ = 0;
    data_ = nullptr;
    capacity_ = 0;
}

unsigned char* LargePageBlock::Reserve(size_t bytes) {
    if (data_ != nullptr && bytes <= capacity_) return data_;
    release();
#if defined(__unix__) && defined(MAP_ANONYMOUS)
    // Whole large pages, plus one for aligning the start.
    const size_t capacity = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    const size_t size = capacity + kAlignment;
    void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return nullptr;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(mapping);
    unsigned char* data = static_cast<unsigned char*>(mapping) + (kAlignment - start % kAlignment) % kAlignment;
#if defined(MADV_HUGEPAGE)
    madvise(data, capacity, MADV_HUGEPAGE);  // a refusal leaves ordinary pages
#endif
    mapping_ = mapping;
    mappingSize_ = size;
    data_ = data;
    capacity_ = capacity;
    return data_;
#else
    return nullptr;
#endif
}

}  // namespace detail
}  // namespace vyra
