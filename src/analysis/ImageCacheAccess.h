// Internal: what the analysis may read and fill in a vyra::Image besides its
// public accessors, so that objects detected once (ahead of time, or for a
// pixel-identical frame) can be handed to the Image instead of detected again.
#ifndef VYRA_IMAGE_CACHE_ACCESS_H
#define VYRA_IMAGE_CACHE_ACCESS_H

#include <vector>

#include <opencv2/core.hpp>

#include "VyraImage.h"
#include "VyraRect.h"

namespace vyra {
namespace detail {

struct ImageCacheAccess {
    /** Content ratio of a union area @p area over a frame of @p pixelCount pixels (0.0 for none). */
    static double RatioOf(int area, size_t pixelCount);

    /** True when the Image holds its pixels now (loaded, or made from a matrix): Pixels() is them. */
    static bool IsResident(const Image& image);

    /** True when the Image's object list is known (detected or handed over). */
    static bool HasObjects(const Image& image);

    /** The Image's object list, which must be known (HasObjects). */
    static const std::vector<Rect>& Objects(const Image& image);

    /** The Image's matrix as it is, without loading anything. */
    static const cv::Mat& Pixels(const Image& image);

    /** The size cache of the Image, as it is (-1 where unknown), without loading anything. */
    static cv::Size CachedSize(const Image& image);

    /** True when the Image has a loader, so that its pixels can be given back and loaded again. */
    static bool Reloads(const Image& image);

    /**
     * Makes an Image with a loader come out of every later load aligned to a
     * baseline of @p width x @p height (AlignFrameToBaseline with
     * @p portraitFrame), aligns the pixels it holds now, if any, and sets its
     * size cache to the baseline's.
     */
    static void AlignOnLoad(Image& image, bool portraitFrame, int width, int height);

    /**
     * Stores @p objects as the Image's object list when it has none yet, and
     * *@p ratio as its content ratio when @p ratio is given and the Image's
     * ratio is not computed yet. The caller vouches that both are what the
     * Image would compute from its current pixels.
     */
    static void Install(Image& image, const std::vector<Rect>& objects, const double* ratio);
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_IMAGE_CACHE_ACCESS_H
