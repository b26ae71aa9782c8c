/*
 * libvyra - vyra::ImageSets, the ordered frames of one analysis with
 * pairwise comparisons memoised per ordered pair.
 */
#ifndef VYRA_IMAGE_SETS_H
#define VYRA_IMAGE_SETS_H

#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

#include "VyraExport.h"
#include "VyraImage.h"

/**
 * Feature matches of an ordered pair of frames (a, b): keypoints of a,
 * keypoints of b, and the matches from a (queryIdx) to b (trainIdx).
 */
typedef std::tuple<std::vector<cv::KeyPoint>, std::vector<cv::KeyPoint>, std::vector<cv::DMatch>>
    FeaturesMatchingInfo;

namespace vyra {

namespace detail {
struct ImageSetsCacheAccess;
}

using ::FeaturesMatchingInfo;

/**
 * The frames of one analysis, indexed from 0, with memoised PSNR and feature
 * matches per ordered pair (i, j). Keys are never normalised: (i, j) and
 * (j, i) are separate entries. Entries are never invalidated, also not when an
 * image's pixels are changed through operator[] or imgs() afterwards.
 *
 * Indices are not checked: callers pass 0 <= i, j < size().
 *
 * Thread safety: none; queries fill caches and may load pixels.
 */
class VYRA_API ImageSets {
public:
    /** Copies the given images in order; both caches empty. */
    explicit ImageSets(std::vector<Image>& imgs);
    /**
     * Image k = Image(mats[k], k), sharing each frame's pixel buffer (no pixel
     * is copied); @p mats is only read.
     */
    explicit ImageSets(std::vector<cv::Mat>& mats);
    ~ImageSets();

    ImageSets(const ImageSets&) = delete;
    ImageSets& operator=(const ImageSets&) = delete;

    /** The image vector itself. */
    std::vector<Image>& imgs();
    /** Number of images. */
    int size() const;
    /** The image at @p index. */
    Image& operator[](int index);

    /**
     * PSNR in dB of two pixel matrices, the squared differences summed over
     * at most three channels (a fourth is never added):
     *   - -1.0 when either is empty, their row or column counts differ, or
     *     their pixel types differ (OpenCV could not subtract them);
     *   - 99.99 when the sum of squared differences is <= 1e-10;
     *   - otherwise 10 * log10(65025 / mse), mse = sse / (channels * pixels of a).
     */
    static double CalculatePSNR(const cv::Mat& a, const cv::Mat& b);

    /** Memoised CalculatePSNR(image i, image j); -1.0 is cached like any value. */
    double GetImagesPSNR(int i, int j);

    /**
     * (summed object area of i, summed object area of j, shared area): a box of
     * i counts as shared when j has an equal box, or else a box of the same area
     * that Rect::ApproximateOverlap accepts with tolerance 0.3. Not cached; each
     * image caches its own objects.
     */
    cv::Vec3i GetImagesObjectsOverlapArea(int i, int j);

    /**
     * ORB (500 features, scale 1.2, 8 levels, edge 31, first level 0, WTA_K 2,
     * Harris score, patch 31, FAST 20) on both frames, then brute-force Hamming
     * matches from @p a to @p b, cross-checked when @p crossCheck. Empty
     * frames or frames of different size give three empty vectors.
     */
    static FeaturesMatchingInfo FeatureMatching(const cv::Mat& a, const cv::Mat& b,
                                                bool crossCheck);

    /**
     * Memoised FeatureMatching(image i, image j, crossCheck). The reference
     * stays valid, and the entry unchanged, for the life of the set.
     */
    FeaturesMatchingInfo& GetImagesFeaturesMatchingInfo(int i, int j, bool crossCheck);

private:
    // Library-internal: lets the analysis memoise feature matches it has
    // computed from features detected once per frame (no public behaviour
    // depends on it).
    friend struct detail::ImageSetsCacheAccess;

    std::vector<Image> images;
    std::map<std::pair<int, int>, double> psnrCache;
    std::map<std::tuple<int, int, bool>, FeaturesMatchingInfo> featuresMatchingCache;
};

}  // namespace vyra

#endif /* VYRA_IMAGE_SETS_H */
