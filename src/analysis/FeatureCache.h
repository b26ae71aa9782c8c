// Internal: ORB features of single frames, detected once and matched pair by
// pair. ImageSets::FeatureMatching(a, b) detects the features of both frames
// each time; the analysis compares many frames with one baseline, and the
// dynamic analysis each frame with the one before and after it, so most of
// that work was done twice.
#ifndef VYRA_FEATURE_CACHE_H
#define VYRA_FEATURE_CACHE_H

#include <list>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

#include "VyraImageSets.h"

namespace vyra {
namespace detail {

/** The ORB keypoints and descriptors of one frame. */
struct ImageFeatures {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
};

/** The features ImageSets::FeatureMatching detects on @p frame. */
ImageFeatures DetectFeatures(const cv::Mat& frame);

/**
 * What ImageSets::FeatureMatching(a, b, crossCheck) gives for two frames of
 * one size whose features are @p a and @p b: their keypoints and the
 * brute-force Hamming matches from a to b, cross-checked when asked.
 */
FeaturesMatchingInfo MatchFeatures(const ImageFeatures& a, const ImageFeatures& b, bool crossCheck);

/**
 * Fills the memo of ImageSets::GetImagesFeaturesMatchingInfo ahead of the
 * call, with exactly what it would compute, from features detected at most
 * once per frame while the frame is among the last few asked for (the
 * baseline of a search stays among them). One analysis, one thread.
 */
class FeatureCache {
public:
    /** Memoises pair (i, j, crossCheck) of @p sets unless it is memoised already. */
    void Prepare(ImageSets& sets, int i, int j, bool crossCheck);

private:
    static constexpr size_t kKept = 3;

    const ImageFeatures& featuresOf(ImageSets& sets, int index);

    std::list<std::pair<int, ImageFeatures>> kept_;  // most recently used last; entries never move
};

/** What the analysis may reach in an ImageSets beyond its public members. */
struct ImageSetsCacheAccess {
    static bool HasFeatureMatches(const ImageSets& sets, int i, int j, bool crossCheck);
    static void InstallFeatureMatches(ImageSets& sets, int i, int j, bool crossCheck, FeaturesMatchingInfo info);
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FEATURE_CACHE_H
