#include "VyraImageSets.h"

#include "analysis/FeatureCache.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_map>

namespace vyra {

ImageSets::ImageSets(std::vector<Image>& imgs) : images(imgs), psnrCache(), featuresMatchingCache() {}

ImageSets::ImageSets(std::vector<cv::Mat>& mats) : images(), psnrCache(), featuresMatchingCache() {
    images.reserve(mats.size());
    for (size_t k = 0; k < mats.size(); ++k) {
        images.emplace_back(mats[k], static_cast<int>(k));
    }
}

ImageSets::~ImageSets() {
    featuresMatchingCache.clear();
    psnrCache.clear();
    images.clear();
}

std::vector<Image>& ImageSets::imgs() { return images; }

int ImageSets::size() const { return static_cast<int>(images.size()); }

Image& ImageSets::operator[](int index) { return images[static_cast<size_t>(index)]; }

namespace {

// Sum of squared differences of the first three channels, formed as the
// absolute difference, converted to float, squared and summed per channel.
double literalSumOfSquares(const cv::Mat& a, const cv::Mat& b) {
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    diff.convertTo(diff, CV_32F, 1.0, 0.0);
    diff = diff.mul(diff);
    const cv::Scalar s = cv::sum(diff);
    return s[0] + s[1] + s[2];
}

// The same sum, cheaper where that is exact. For 8-bit matrices of one to
// three channels every squared difference is an integer of at most 65025,
// exact in float, and cv::sum adds the float squares in double: the literal
// result is the exact integer sum over all channels, which cv::norm's
// L2SQR gives too (integer accumulation, returned as double). Four channels
// keep the literal path (their fourth channel is not summed), as do other
// depths. (Builds with IPP may take the norm as a square root squared
// again, which is not exact; they keep the literal path too.)
double sumOfSquaredDifferences(const cv::Mat& a, const cv::Mat& b) {
    if (a.depth() == CV_8U && a.channels() <= 3 && !cv::ipp::useIPP()) return cv::norm(a, b, cv::NORM_L2SQR);
    return literalSumOfSquares(a, b);
}

}  // namespace

double ImageSets::CalculatePSNR(const cv::Mat& a, const cv::Mat& b) {
    if (a.empty() || b.empty() || a.rows != b.rows || a.cols != b.cols) return -1.0;
    // OpenCV cannot subtract matrices of different pixel types; such frames
    // are not comparable.
    if (a.type() != b.type()) return -1.0;
    const double sse = sumOfSquaredDifferences(a, b);
    if (sse <= 1e-10) return 99.99;
    const std::uint64_t samples =
        static_cast<std::uint64_t>(a.channels()) * static_cast<std::uint64_t>(a.total());
    const double mse = sse / static_cast<double>(samples);
    return 10.0 * std::log10(65025.0 / mse);
}

double ImageSets::GetImagesPSNR(int i, int j) {
    const auto key = std::make_pair(i, j);
    const auto found = psnrCache.find(key);
    if (found != psnrCache.end()) return found->second;
    const double psnr = CalculatePSNR((*this)[i].img(), (*this)[j].img());
    psnrCache.emplace(key, psnr);
    return psnr;
}

namespace {

// The boxes of one list, searched for a counterpart of a box: the same box,
// or one of equal area that Rect::ApproximateOverlap accepts with tolerance
// 0.3. Both need the same width and height (equal boxes trivially, and
// ApproximateOverlap checks them first), and the accepted centres lie within
// 0.3 times the width of each other horizontally; so the boxes are grouped
// by width and height and sorted by their doubled centre's x, and only those
// within that distance are asked. The answer is ApproximateOverlap's own, so
// it equals the search through every box, at near-linear cost.
class CounterpartIndex {
public:
    explicit CounterpartIndex(const std::vector<Rect>& boxes) {
        for (const Rect& box : boxes) groups_[sizeKey(box)].push_back(&box);
        for (auto& entry : groups_) {
            std::sort(entry.second.begin(), entry.second.end(),
                      [](const Rect* a, const Rect* b) { return doubledCentreX(*a) < doubledCentreX(*b); });
        }
    }

    bool HasCounterpart(const Rect& box) const {
        const auto group = groups_.find(sizeKey(box));
        if (group == groups_.end()) return false;
        const std::vector<const Rect*>& candidates = group->second;
        // |doubled centre x difference| / 2 <= 0.3 * width, widened by one.
        const std::int64_t reach = static_cast<std::int64_t>(std::ceil(0.6 * box.width)) + 1;
        const std::int64_t low = doubledCentreX(box) - reach;
        const std::int64_t high = doubledCentreX(box) + reach;
        auto it = std::lower_bound(candidates.begin(), candidates.end(), low,
                                   [](const Rect* r, std::int64_t x) { return doubledCentreX(*r) < x; });
        for (; it != candidates.end() && doubledCentreX(**it) <= high; ++it) {
            if (box.ApproximateOverlap(**it, 0.3)) return true;
        }
        return false;
    }

private:
    static std::uint64_t sizeKey(const Rect& box) {
        return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(box.width)) << 32) |
               static_cast<std::uint32_t>(box.height);
    }
    static std::int64_t doubledCentreX(const Rect& box) {
        return static_cast<std::int64_t>(box.left) + static_cast<std::int64_t>(box.right);
    }

    std::unordered_map<std::uint64_t, std::vector<const Rect*>> groups_;
};

double summedArea(const std::vector<Rect>& boxes) {
    double total = 0.0;
    for (const Rect& r : boxes) total += r.area;
    return total;
}

}  // namespace

cv::Vec3i ImageSets::GetImagesObjectsOverlapArea(int i, int j) {
    const std::vector<Rect>& a = (*this)[i].GetImageObjects();
    const std::vector<Rect>& b = (*this)[j].GetImageObjects();
    const CounterpartIndex counterparts(b);
    double overlap = 0.0;
    for (const Rect& r : a) {
        if (counterparts.HasCounterpart(r)) overlap += r.area;
    }
    return cv::Vec3i(static_cast<int>(summedArea(a)), static_cast<int>(summedArea(b)),
                     static_cast<int>(overlap));
}

FeaturesMatchingInfo ImageSets::FeatureMatching(const cv::Mat& a, const cv::Mat& b, bool crossCheck) {
    if (a.empty() || b.empty() || a.rows != b.rows || a.cols != b.cols) return FeaturesMatchingInfo();
    return detail::MatchFeatures(detail::DetectFeatures(a), detail::DetectFeatures(b), crossCheck);
}

FeaturesMatchingInfo& ImageSets::GetImagesFeaturesMatchingInfo(int i, int j, bool crossCheck) {
    const auto key = std::make_tuple(i, j, crossCheck);
    auto found = featuresMatchingCache.find(key);
    if (found != featuresMatchingCache.end()) return found->second;
    FeaturesMatchingInfo info = FeatureMatching((*this)[i].img(), (*this)[j].img(), crossCheck);
    return featuresMatchingCache.emplace(key, std::move(info)).first->second;
}

}  // namespace vyra
