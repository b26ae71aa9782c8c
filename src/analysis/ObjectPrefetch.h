// Internal: object detection for the in-order searches of the analysis,
// done once per run of pixel-identical frames and, on a second core, ahead
// of the search.
#ifndef VYRA_OBJECT_PREFETCH_H
#define VYRA_OBJECT_PREFETCH_H

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/ObjectDetection.h"
#include "VyraImageSets.h"
#include "VyraRect.h"

namespace vyra {
namespace detail {

/**
 * Where a prefetcher reads the pixels of images that do not hold them,
 * without loading the Images: for a covered image, Bands() gives exactly the
 * pixels the Image would hold once loaded. Called from two threads at once.
 */
class PixelSource {
public:
    virtual ~PixelSource() = default;

    /**
     * True when image @p index, whose Image reads as @p imageSize, can be
     * read through Bands(): the source holds exactly the pixels that Image
     * would load (an Image aligned to a baseline of another size loads other
     * pixels, and reads as another size).
     */
    virtual bool Covers(int index, cv::Size imageSize) const = 0;

    /** True when covered image @p index (> 0) has the pixels of image index - 1. */
    virtual bool SameAsPrevious(int index) const = 0;

    /**
     * The pixels of covered image @p index as row bands of one width and
     * type, top to bottom (see DetectionWorkspace::DetectBands).
     */
    virtual std::shared_ptr<const std::vector<cv::Mat>> Bands(int index) const = 0;

    /**
     * True when the bands of image @p index are memory that lasts as long
     * as the source and is never rewritten, so that bands at the same place
     * of two images with the same data pointer hold the same bytes (the
     * detection then keeps the work of unchanged bands); false when they are
     * made for the call.
     */
    virtual bool BandsLast(int index) const = 0;
};

/**
 * Supplies the object lists (and content ratios) of a set's images to a
 * search that visits them in order.
 *
 * Eligible images are those without an object list yet that either hold
 * their pixels when the prefetcher is made (made from a matrix, or loaded)
 * or are covered by the pixel source, when one is given; others are left
 * entirely to their own accessors (lazily loaded images are never loaded
 * here). For an image holding its pixels the detection result is computed
 * from a snapshot of its matrix header, so the pixels must not change while
 * the prefetcher lives; for a covered one, from what the source gives. An
 * image whose pixels are byte-identical (same size, type and bytes) to those
 * of the eligible image before it gets a copy of that image's result instead
 * of a detection of its own: compared for images holding their pixels, as
 * the source tells for two covered neighbours.
 *
 * Results are computed by the calling thread and, when asked for, one worker
 * thread that works ahead of the last index provided, as far as the next
 * few images that need a detection. Each of the two detects in a
 * DetectionWorkspace of its own, kept for the prefetcher's life. A
 * result reaches an Image only through Provide(), on the calling thread, so
 * each Image ends up with exactly what its own accessors would have
 * computed, and only the Images the search reached are touched. The worker
 * is stopped and joined by the destructor (also during unwinding); results
 * it computed for images that were never provided are dropped.
 *
 * Not thread-safe itself: one thread (the one that made it) calls Provide().
 */
class ObjectPrefetch {
public:
    /** @p source, when not null, must outlive the prefetcher. */
    ObjectPrefetch(ImageSets& sets, bool useWorker, const PixelSource* source = nullptr);
    ~ObjectPrefetch();
    ObjectPrefetch(const ObjectPrefetch&) = delete;
    ObjectPrefetch& operator=(const ObjectPrefetch&) = delete;

    /**
     * Makes image @p index carry its object list, and its content ratio when
     * @p withRatio, if it is eligible: hands over the result computed here
     * (computing or waiting for it first). Ineligible images, and results
     * whose computation threw, are left alone, so the Image's own accessor
     * computes (and throws) exactly as it would have.
     */
    void Provide(int index, bool withRatio);

private:
    enum class State { Ineligible, Unclaimed, Working, Done, Failed };

    struct Slot {
        State state = State::Ineligible;
        cv::Mat pixels;      // header snapshot of the eligible image's matrix
        bool fromSource = false;  // read through the pixel source instead
        int sameAs = -1;     // earlier eligible index with byte-identical pixels
        std::shared_ptr<const std::vector<Rect>> objects;  // until the slot's own Image has them
        double ratio = 0.0;
    };

    // The last index the worker may claim once @p index is provided: that of
    // the kLookahead-th slot needing a detection after it.
    int horizonAfter(int index) const;
    // Claims the lowest unclaimed index at or beyond the cursor and not past
    // the horizon; -1 when there is none. Caller holds the lock.
    int claimNext();
    // Marks the eligible images and links covered repeats to their run.
    void findEligible(const PixelSource* source);
    // Computes the result of a claimed slot (outside the lock, in the
    // thread's own @p workspace, which keeps the grey rows of the bands it
    // read last from the source) and stores it.
    void work(int index, std::unique_lock<std::mutex>& lock, DetectionWorkspace& workspace);
    // Index whose result slot @p index shares (following sameAs links).
    int representative(int index) const;
    void workerLoop();

    ImageSets& sets_;
    const PixelSource* source_;
    std::vector<Slot> slots_;
    std::vector<int> toDetect_;  // ascending indices of the slots still unclaimed at the start
    DetectionWorkspace callerWorkspace_;  // used only by the calling thread
    std::mutex mutex_;
    std::condition_variable changed_;
    int cursor_ = 0;
    int horizon_ = 0;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_OBJECT_PREFETCH_H
