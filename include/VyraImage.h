/*
 * libvyra - vyra::Image, one frame of a recording and what the analysis
 * learns about it.
 */
#ifndef VYRA_IMAGE_H
#define VYRA_IMAGE_H

#include <functional>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraExport.h"
#include "VyraRect.h"

namespace vyra {

namespace detail {
struct ImageCacheAccess;
}

/**
 * One frame: its pixels, its index, and cached size, object list and content
 * ratio.
 *
 * Pixels either come as a matrix at construction (the Image shares the
 * matrix's reference-counted buffer; no pixels are copied) or are produced on
 * demand by a loader. An Image with a loader can give its pixels back with
 * Reduce() and reload them on the next img(); its size, object and ratio
 * caches survive that.
 *
 * Ownership: the Image owns its object list exclusively (a copy copies it, a
 * move hands it over) and its loader; it shares its pixel buffer with every
 * matrix and Image it was copied from or to.
 *
 * Thread safety: none. Accessors fill caches and load pixels without locking;
 * use an Image from one thread at a time.
 */
class VYRA_API Image {
public:
    /** Empty image: index -1, no pixels, no loader; width() and height() read 0. */
    Image();

    /**
     * Image sharing the pixels of @p mat (only read here), with index @p index.
     * Loaded from the start, no loader, objects not yet detected.
     */
    Image(cv::Mat& mat, int index);

    /**
     * Image sharing @p mat with objects and content ratio already known.
     * A non-empty @p objects is copied and returned by GetImageObjects() without
     * detecting; an empty one leaves detection to be done. A negative
     * @p contentRatio leaves the ratio to be computed.
     */
    Image(cv::Mat& mat, std::vector<Rect>& objects, double contentRatio, int index);

    /**
     * Lazily loaded image. @p loader is taken over and called on the first
     * img() (and again after each Reduce()); @p width and @p height seed the
     * size cache (-1 = unknown, read from the pixels on first request).
     * @p objects and @p contentRatio as for the constructor above.
     * An exception thrown by the loader passes to the caller of whatever
     * needed the pixels; the Image then stays unloaded.
     */
    Image(std::function<cv::Mat()> loader, std::vector<Rect>& objects, int width,
          int height, double contentRatio, int index);

    Image(const Image& other);
    Image& operator=(const Image& other);
    /** Moves the matrix, object list and loader; the source is left only to be destroyed or assigned. */
    Image(Image&& other) noexcept;
    Image& operator=(Image&& other) noexcept;
    ~Image();

    /** The frame's index (its position in its set), or -1. */
    int index() const;

    /**
     * The Image's own pixel matrix, loading it first when the Image has a
     * loader and is not loaded. Callers may transform the frame in place
     * through the reference (rotate, resize); width() and height() follow.
     * The reference is valid until the Image is destroyed, moved from or
     * assigned to.
     */
    cv::Mat& img();

    /** Width in pixels: from the cache while unloaded and known, else from img(). */
    int width();
    /** Height in pixels: from the cache while unloaded and known, else from img(). */
    int height();
    /** True when width() * height() <= 0. */
    bool Empty();

    /**
     * Releases the pixels when they can be loaded again (the Image is loaded and
     * has a loader) and returns true; otherwise changes nothing and returns false.
     * Changes made in place through img() are lost: the next img() reloads.
     */
    bool Reduce();

    /**
     * Object boxes of a frame: grey conversion, Canny (10, 30, aperture 3, L1),
     * every contour (RETR_LIST, CHAIN_APPROX_SIMPLE) reduced to its upright
     * bounding box, duplicates merged, sorted by Rect's ordering.
     *
     * Accepted frames: 8-bit with 3 (BGR) or 4 (BGRA) channels, converted to
     * grey; 8-bit with one channel, taken as grey already. Any other frame
     * (another depth, two channels) is not a picture this detector reads and
     * gives an empty list, like an empty frame; nothing is thrown for it.
     */
    static std::vector<Rect> DetectObjects(const cv::Mat& frame);

    /**
     * The Image's object list, detected from img() on first request and cached
     * for the Image's life (not recomputed after pixel changes or Reduce()).
     * The reference stays valid while the Image lives and is neither assigned
     * to nor moved from. If loading or detection throws, the list stays empty
     * and is not detected again.
     */
    std::vector<Rect>& GetImageObjects();

    /** Number of boxes of GetImageObjects(). */
    int GetImageObjectsSize();

    /**
     * Union area of the object boxes divided by the pixel count of img()
     * (0.0 for an empty frame); computed once and cached.
     */
    double GetContentRatio();

private:
    // Library-internal: lets the analysis hand over objects and ratios it has
    // already computed for these pixels (no public behaviour depends on it).
    friend struct detail::ImageCacheAccess;

    cv::Mat mat;
    int cachedWidth;
    int cachedHeight;
    std::unique_ptr<std::vector<Rect>> objects;
    double contentRatio;
    int imageIndex;
    bool loaded;
    std::function<cv::Mat()> loader;
};

}  // namespace vyra

#endif /* VYRA_IMAGE_H */
