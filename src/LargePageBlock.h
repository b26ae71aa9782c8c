// Internal: memory for multi-megabyte scratch buffers that a thread keeps.
#ifndef VYRA_LARGE_PAGE_BLOCK_H
#define VYRA_LARGE_PAGE_BLOCK_H

#include <cstddef>

namespace vyra {
namespace detail {

/**
 * One private anonymous memory mapping, aligned to 2 MiB and marked for
 * transparent huge pages where the kernel offers them (on Linux, whose
 * "madvise" mode grants them only to marked mappings). First touching a
 * buffer of several megabytes then costs a few page faults instead of one
 * per 4 KiB page. Only this mapping is affected; the process's allocator and
 * settings are not touched.
 *
 * Owns the mapping; not copyable. One thread at a time.
 */
class LargePageBlock {
public:
    /** Alignment of Reserve()'s block, and the size of one large page. */
    static const size_t kAlignment;

    LargePageBlock() = default;
    ~LargePageBlock();
    LargePageBlock(const LargePageBlock&) = delete;
    LargePageBlock& operator=(const LargePageBlock&) = delete;

    /**
     * A block of at least @p bytes (more than zero), aligned to kAlignment:
     * the current one while it is large enough, else a new mapping (the old
     * one is released and its contents are lost). nullptr when no mapping
     * can be made (or on systems without anonymous mappings); the object
     * then holds no block.
     */
    unsigned char* Reserve(size_t bytes);

    /** Bytes usable from the block Reserve() returned last (0 without one). */
    size_t capacity() const { return capacity_; }

private:
    void release();

    void* mapping_ = nullptr;
    size_t mappingSize_ = 0;
    unsigned char* data_ = nullptr;
    size_t capacity_ = 0;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_LARGE_PAGE_BLOCK_H
