// Internal: memory for frame-sized matrices that the library keeps or reuses.
//
// A fresh 1080p frame is 6 MB; touched for the first time in 4 KB pages it
// costs some 1 500 page faults, which on virtual machines take longer than
// decoding the frame. Matrices made here are placed in memory aligned to
// 2 MB and marked for transparent huge pages (madvise), so the kernel can
// back them with a few 2 MB pages instead. Where huge pages are off or
// unavailable the memory behaves like any other; nothing else changes.
#ifndef VYRA_LARGE_FRAME_ALLOCATOR_H
#define VYRA_LARGE_FRAME_ALLOCATOR_H

#include <cstddef>

#include <opencv2/core.hpp>

namespace vyra {
namespace detail {

/**
 * The allocator (one stateless instance, alive for the whole process): give
 * it to a matrix through cv::Mat::allocator before create(). Blocks below
 * kMinimumBytes come from OpenCV's usual allocator.
 */
cv::MatAllocator* LargeFrameAllocator();

/** Smallest block mapped on its own: one huge page. */
constexpr size_t kLargeFrameMinimumBytes = size_t(2) << 20;

/**
 * Makes @p mat use LargeFrameAllocator() from its next allocation on (an
 * empty matrix: right away when it is given a size).
 */
void UseLargeFrameMemory(cv::Mat& mat);

/**
 * Raw memory for bulk storage: @p bytes rounded up to whole 2 MB pages,
 * aligned and marked like the matrices above; nullptr when the system has no
 * memory to map. Release with ReleaseLargeBlock(block, bytes).
 */
void* MapLargeBlock(size_t bytes);
void ReleaseLargeBlock(void* block, size_t bytes);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_LARGE_FRAME_ALLOCATOR_H
