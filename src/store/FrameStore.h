// Internal: frames kept in memory for an analysis that runs after they were
// read, at a fraction of their decoded size.
#ifndef VYRA_FRAME_STORE_H
#define VYRA_FRAME_STORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

namespace vyra {
namespace detail {

/**
 * Each frame is cut into horizontal bands of kBandRows rows (the last one
 * shorter). A band whose bytes equal those of the same band of the previous
 * frame (same size and type) is shared with it instead of copied, and a frame
 * equal to the previous one shares its whole band list. A screen recording
 * changes little from one frame to the next, so the store holds roughly the
 * bytes of the rows that changed: for a still page, one frame.
 *
 * Band bytes are copied into large blocks of memory owned by the store
 * (see LargeFrameAllocator.h), so keeping a band costs no allocation of its
 * own. A store can be moved, not copied.
 *
 * Memory is bounded by a byte limit on the bands kept. The first frame whose
 * new bands would go beyond it, and every frame after it, is appended
 * without its pixels: the store knows its size, type and whether it equals
 * the frame before it (it keeps the last such frame's pixels, in one buffer,
 * to compare the next one with), but Resident() is false and the pixels must
 * be found elsewhere. KeepLast() keeps the last frame's pixels whatever the
 * limit, so that the frame an analysis compares all others with is at hand.
 *
 * Thread safety: Append() must not run concurrently with anything else; the
 * const members may run from several threads at once.
 */
class FrameStore {
public:
    static constexpr int kBandRows = 16;

    /** A store that keeps at most @p byteLimit bytes of bands (see above). */
    explicit FrameStore(size_t byteLimit = SIZE_MAX);
    ~FrameStore();
    FrameStore(FrameStore&& other) noexcept;
    FrameStore& operator=(FrameStore&& other) noexcept;
    FrameStore(const FrameStore&) = delete;
    FrameStore& operator=(const FrameStore&) = delete;

    /**
     * Appends a copy of @p frame (two-dimensional, any type; an empty matrix
     * is kept as an empty frame). Returns SameAsPrevious() of the new frame.
     * With @p changedRows, sets it to the row ranges, in order, outside which
     * the frame is byte-identical to the previous one: the bands it did not
     * share, or all rows when the previous frame has another size or type
     * (or there is none).
     * Throws std::bad_alloc when memory runs out; the frames appended before
     * stay as they were.
     */
    bool Append(const cv::Mat& frame, std::vector<cv::Range>* changedRows = nullptr);

    /**
     * Keeps the pixels of the frame appended last, if the limit left it
     * without (the store then holds up to one frame more than the limit).
     * Throws std::bad_alloc when memory runs out.
     */
    void KeepLast();

    /** Number of frames appended. */
    size_t Size() const;

    /** True when the store holds frame @p k's pixels (Load() and Bands() may be called). */
    bool Resident(size_t k) const;

    /**
     * True when frame @p k (0 < k < Size()) has the size, type and bytes of
     * frame k - 1; false for frame 0.
     */
    bool SameAsPrevious(size_t k) const;

    /** Width and height of frame @p k. */
    cv::Size FrameSize(size_t k) const;

    /**
     * A fresh continuous copy of resident frame @p k (an empty matrix for an
     * empty frame), in memory from LargeFrameAllocator().
     */
    cv::Mat Load(size_t k) const;

    /**
     * Copies frame @p k into @p pixels, reusing its buffer when it has the
     * size and type already (pass a matrix whose buffer nothing else reads);
     * a new buffer comes from LargeFrameAllocator().
     */
    void LoadInto(size_t k, cv::Mat& pixels) const;

    /**
     * The bands of resident frame @p k, top to bottom (none for an empty
     * frame). A band shared between frames is the same matrix in each, and
     * band memory is never rewritten while the store lives.
     */
    std::shared_ptr<const std::vector<cv::Mat>> Bands(size_t k) const;

    /** Pixel bytes held, every shared band counted once. */
    size_t BytesHeld() const;

private:
    using BandList = std::vector<cv::Mat>;

    struct Frame {
        int rows = 0;
        int cols = 0;
        int type = 0;
        std::shared_ptr<const BandList> bands;  // null when the frame is not resident
        bool sameAsPrevious = false;
    };

    // Room for @p bytes in the current block, or in a new one.
    uchar* reserve(size_t bytes);
    // Bands of @p frame in the store's blocks, those equal to @p previous's
    // (when given) shared; @p added receives the bytes copied.
    std::shared_ptr<const BandList> keep(const cv::Mat& frame, const BandList* previous, size_t& added);
    // @p frame copied into the spare buffer, as bands; the buffers alternate.
    std::shared_ptr<const BandList> holdLast(const cv::Mat& frame);
    // Copies @p bands top to bottom into @p pixels (made to measure when empty).
    static void stack(const BandList& bands, cv::Mat& pixels);

    struct Block {
        uchar* data = nullptr;
        size_t size = 0;
        size_t used = 0;
    };

    size_t byteLimit_;
    std::vector<Frame> frames_;
    std::vector<Block> blocks_;
    size_t bytesHeld_ = 0;
    bool full_ = false;                        // frames from here on are appended without pixels
    std::shared_ptr<const BandList> last_;     // bands of the frame appended last, resident or not
    cv::Mat spare_[2];                         // pixels of the last frames appended without pixels
    int spareNext_ = 0;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_STORE_H
