#include "analysis/FeatureCache.h"

#include <algorithm>

namespace vyra {
namespace detail {

namespace {

// ORB's edgeThreshold: no keypoint is kept within this many pixels of the
// border of a pyramid level.
constexpr int kOrbEdgeThreshold = 31;

}  // namespace

ImageFeatures DetectFeatures(const cv::Mat& frame) {
    ImageFeatures features;
    // A frame whose smaller side is at most twice the edge threshold has no
    // keypoint at any level (OpenCV drops them all), and on a frame one pixel
    // wide or high OpenCV fails to build the pyramid (a level rounds to zero
    // pixels): such frames have no features, without asking ORB.
    if (std::min(frame.rows, frame.cols) <= 2 * kOrbEdgeThreshold) return features;
    const cv::Ptr<cv::ORB> orb = cv::ORB::create(500, 1.2f, 8, kOrbEdgeThreshold, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
    orb->detectAndCompute(frame, cv::noArray(), features.keypoints, features.descriptors, false);
    return features;
}

FeaturesMatchingInfo MatchFeatures(const ImageFeatures& a, const ImageFeatures& b, bool crossCheck) {
    FeaturesMatchingInfo info;
    std::get<0>(info) = a.keypoints;
    std::get<1>(info) = b.keypoints;
    if (!a.descriptors.empty() && !b.descriptors.empty()) {
        cv::BFMatcher matcher(cv::NORM_HAMMING, crossCheck);
        matcher.match(a.descriptors, b.descriptors, std::get<2>(info), cv::noArray());
    }
    return info;
}

void FeatureCache::Prepare(ImageSets& sets, int i, int j, bool crossCheck) {
    if (ImageSetsCacheAccess::HasFeatureMatches(sets, i, j, crossCheck)) return;
    const cv::Mat& a = sets[i].img();
    const cv::Mat& b = sets[j].img();
    if (a.empty() || b.empty() || a.rows != b.rows || a.cols != b.cols) return;  // the set's own call gives nothing
    const ImageFeatures& first = featuresOf(sets, i);
    const ImageFeatures& second = featuresOf(sets, j);  // the one before stays in the list
    ImageSetsCacheAccess::InstallFeatureMatches(sets, i, j, crossCheck, MatchFeatures(first, second, crossCheck));
    while (kept_.size() > kKept) kept_.pop_front();
}

const ImageFeatures& FeatureCache::featuresOf(ImageSets& sets, int index) {
    const auto found = std::find_if(kept_.begin(), kept_.end(), [index](const auto& k) { return k.first == index; });
    if (found != kept_.end()) {
        kept_.splice(kept_.end(), kept_, found);
    } else {
        kept_.emplace_back(index, DetectFeatures(sets[index].img()));
    }
    return kept_.back().second;
}

bool ImageSetsCacheAccess::HasFeatureMatches(const ImageSets& sets, int i, int j, bool crossCheck) {
    return sets.featuresMatchingCache.count(std::make_tuple(i, j, crossCheck)) > 0;
}

void ImageSetsCacheAccess::InstallFeatureMatches(ImageSets& sets, int i, int j, bool crossCheck,
                                                 FeaturesMatchingInfo info) {
    sets.featuresMatchingCache.emplace(std::make_tuple(i, j, crossCheck), std::move(info));
}

}  // namespace detail
}  // namespace vyra
