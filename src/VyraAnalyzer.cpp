#include "VyraAnalyzer.h"

#include "analysis/AnalysisEntry.h"
#include "analysis/FrameAlignment.h"
#include "analysis/ImageCacheAccess.h"
#include "analysis/ObjectPrefetch.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <opencv2/imgproc.hpp>

namespace vyra {

namespace {

// The box from 20 % to 80 % of the width and 25 % to 75 % of the height.
cv::Vec<double, 4> centralArea(Image& image) {
    const double w = image.width();
    const double h = image.height();
    return cv::Vec<double, 4>(0.2 * w, 0.25 * h, 0.8 * w, 0.75 * h);
}

// Level 1..4 of a value against a threshold: below 0.1, 0.5, 1.0 times it.
int levelOf(double value, double threshold) {
    if (value < 0.1 * threshold) return 1;
    if (value < 0.5 * threshold) return 2;
    if (value < threshold) return 3;
    return 4;
}

int goodMatchCount(const FeaturesMatchingInfo& info) {
    std::vector<cv::Point2f> goodShifts;
    Analyzer::ExtractGoodMatch(info, goodShifts);
    return static_cast<int>(goodShifts.size());
}

}  // namespace

Analyzer::Analyzer(double psnrThreshold_, double baselineOverlapRatio_, double similarOverlapRatio_,
                   double contentRatioThreshold_, int objectCountThreshold_)
    : psnrThreshold(psnrThreshold_),
      baselineOverlapRatio(baselineOverlapRatio_),
      similarOverlapRatio(similarOverlapRatio_),
      contentRatioThreshold(contentRatioThreshold_),
      objectCountThreshold(objectCountThreshold_) {}

Analyzer::~Analyzer() = default;

// ---------------------------------------------------------------- entry

AnalysisResult Analyzer::Analyze(std::vector<cv::Mat>& frames, VyraPageType type,
                                 bool searchStableBaseline) const {
    ImageSets sets(frames);
    return Analyze(sets, type, searchStableBaseline);
}

AnalysisResult Analyzer::Analyze(ImageSets& sets, VyraPageType type, bool searchStableBaseline) const {
    return detail::Analyze(*this, sets, type, searchStableBaseline, detail::AnalysisContext());
}

// ---------------------------------------------------------------- predicates

int Analyzer::DetectImageContentLevel(Image& image) const {
    const int count = image.GetImageObjectsSize();
    const double ratio = image.GetContentRatio();
    const int countLevel = levelOf(static_cast<double>(count), static_cast<double>(objectCountThreshold));
    const int ratioLevel = levelOf(ratio, contentRatioThreshold);
    return std::min(countLevel, ratioLevel);
}

bool Analyzer::IsImagesSimilarByPSNR(ImageSets& sets, int i, int j) const {
    return sets.GetImagesPSNR(i, j) >= psnrThreshold;
}

bool Analyzer::IsImagesSimilarByOverlapArea(ImageSets& sets, int i, int j, double ratio) const {
    const cv::Vec3i areas = sets.GetImagesObjectsOverlapArea(i, j);
    const int small = std::min(areas[0], areas[1]);
    const int large = std::max(areas[0], areas[1]);
    if (small <= 0) return false;
    return static_cast<double>(areas[2]) >= ratio * small &&
           static_cast<double>(small) >= ratio * large;
}

bool Analyzer::IsNonBlankImage(ImageSets& sets, int k) const {
    const int count = sets[k].GetImageObjectsSize();
    const double ratio = sets[k].GetContentRatio();
    return count >= objectCountThreshold && ratio >= contentRatioThreshold;
}

int Analyzer::CountNumberOfObjectInArea(const std::vector<Rect>& boxes, cv::Vec<double, 4> area) {
    return static_cast<int>(std::count_if(boxes.begin(), boxes.end(), [&area](const Rect& r) {
        return r.left >= area[0] && r.top >= area[1] && r.right <= area[2] && r.bottom <= area[3];
    }));
}

bool Analyzer::IsLogoImage(const std::vector<Rect>& boxes, cv::Vec<double, 4> area) {
    const int total = static_cast<int>(boxes.size());
    if (total == 0) return false;
    return CountNumberOfObjectInArea(boxes, area) >= 0.8 * total;
}

bool Analyzer::IsValidFirstFrameImage(const std::vector<Rect>& boxes, cv::Vec<double, 4> area) {
    const int total = static_cast<int>(boxes.size());
    if (total == 0) return false;
    return (total - CountNumberOfObjectInArea(boxes, area)) > 0.3 * total;
}

bool Analyzer::IsImagesSimilar(ImageSets& sets, int i, int j) const {
    return detail::ImagesSimilar(*this, sets, i, j, nullptr);
}

namespace detail {

bool ImagesSimilar(const Analyzer& analyzer, ImageSets& sets, int i, int j, FeatureCache* features) {
    if (analyzer.IsImagesSimilarByPSNR(sets, i, j) ||
        analyzer.IsImagesSimilarByOverlapArea(sets, i, j, AnalyzerAccess::SimilarOverlapRatio(analyzer))) {
        return true;
    }
    if (features != nullptr) features->Prepare(sets, i, j, true);
    return analyzer.IsImagesSimilarByFeatureMatching(sets, i, j);
}

}  // namespace detail

// ---------------------------------------------------------------- static page

namespace detail {

void AlignFrameToBaseline(cv::Mat& frame, bool portraitFrame, int baselineWidth, int baselineHeight) {
    const bool landscapeBaseline = baselineWidth > baselineHeight;
    if (portraitFrame && landscapeBaseline) {
        cv::transpose(frame, frame);
        cv::flip(frame, frame, 0);
    } else if (!portraitFrame && !landscapeBaseline) {
        cv::transpose(frame, frame);
        cv::flip(frame, frame, 1);
    }
    if (frame.cols != baselineWidth || frame.rows != baselineHeight) {
        cv::resize(frame, frame, cv::Size(baselineWidth, baselineHeight), 0, 0, cv::INTER_LINEAR);
    }
}

}  // namespace detail

void Analyzer::CheckAndResizeImages(ImageSets& sets, int baseline) {
    detail::AlignImagesToBaseline(sets, baseline, detail::PrintSizeWarning);
}

namespace detail {

void PrintSizeWarning(int image, int width, int height, int baseline, int baselineWidth, int baselineHeight) {
    std::printf("Vyra[Warning]: image<%d> size(%d, %d) not equal to baseline[%d] size(%d, %d)\n", image, width,
                height, baseline, baselineWidth, baselineHeight);
    std::fflush(stdout);
}

void AlignImagesToBaseline(ImageSets& sets, int baseline, const SizeWarning& warn) {
    const int n = sets.size();
    if (n <= 1 || baseline >= n || baseline < 0) return;
    const int bw = sets[baseline].width();
    const int bh = sets[baseline].height();
    for (int i = 0; i <= n - 2; ++i) {
        Image& image = sets[i];
        if (image.Empty() || (image.width() == bw && image.height() == bh)) continue;
        if (warn) warn(i, image.width(), image.height(), baseline, bw, bh);
        const bool portrait = image.width() <= image.height();
        if (ImageCacheAccess::Reloads(image)) {
            ImageCacheAccess::AlignOnLoad(image, portrait, bw, bh);
        } else {
            AlignFrameToBaseline(image.img(), portrait, bw, bh);
        }
    }
}

}  // namespace detail

void Analyzer::ReduceUselessImages(ImageSets& sets, int from, int to) {
    if (from > to) return;
    for (int i = std::max(from, 0); i <= to && i < sets.size(); ++i) {
        sets[i].Reduce();
    }
}

int Analyzer::FindBaselineImage(ImageSets& sets, bool searchStableBaseline) const {
    int last = sets.size() - 1;
    while (last >= 0 && sets[last].Empty()) --last;
    if (last < 0) return -1;
    if (!searchStableBaseline || last == 0) return last;

    int first = 0;
    while (first < last && !IsNonBlankImage(sets, first)) ++first;
    if (first == last) return last;

    int candidate = last;
    bool previousSimilar = false;
    for (int i = first; i < last; ++i) {
        const bool similar = IsImagesSimilarByPSNR(sets, i, i + 1) ||
                             IsImagesSimilarByOverlapArea(sets, i, i + 1, baselineOverlapRatio) ||
                             IsImagesContinuousSimilarByFeatureMatching(sets, i - 1, i, i + 1);
        if (similar) {
            candidate = i + 1;
            previousSimilar = true;
        } else if (previousSimilar) {
            if (IsNonBlankImage(sets, candidate)) return candidate;
            previousSimilar = false;
        }
    }
    return candidate;
}

namespace {

AnalysisResult analyzeStaticPage(const Analyzer& analyzer, ImageSets& sets, bool searchStableBaseline,
                                 const detail::AnalysisContext& context) {
    AnalysisResult result;
    const int n = sets.size();
    result.imageCount = static_cast<size_t>(n);
    if (n == 0) return result;

    const int b = analyzer.FindBaselineImage(sets, searchStableBaseline);
    if (b < 0) return result;
    StaticPageAnalysisResult& found = result.staticResult;
    found.baselineIndex = b;

    detail::AlignImagesToBaseline(sets, b, context.sizeWarning);
    Analyzer::ReduceUselessImages(sets, b + 1, n - 1);

    // The searches below ask for objects in index order; they are detected
    // once per run of identical frames and, on a second core, ahead of the
    // search. Each Provide comes right before the accessors that would
    // detect (with the ratio where IsNonBlankImage computes it).
    detail::ObjectPrefetch prefetch(sets, true, context.pixels);

    found.objectCounts.assign(static_cast<size_t>(n), 0);
    prefetch.Provide(b, true);
    found.objectCounts[static_cast<size_t>(b)] = static_cast<size_t>(sets[b].GetImageObjectsSize());

    if (analyzer.IsNonBlankImage(sets, b)) {
        result.loadFinishedIndex = b;
        detail::FeatureCache features;  // the baseline's are detected once
        for (int i = 0; i < b; ++i) {
            prefetch.Provide(i, true);
            found.objectCounts[static_cast<size_t>(i)] = static_cast<size_t>(sets[i].GetImageObjectsSize());
            if (analyzer.IsNonBlankImage(sets, i) && detail::ImagesSimilar(analyzer, sets, i, b, &features)) {
                result.loadFinishedIndex = i;
                break;
            }
        }
        const int lf = result.loadFinishedIndex;
        found.loadedPsnr = sets.GetImagesPSNR(lf, b);
        found.preLoadedPsnr = lf > 0 ? sets.GetImagesPSNR(lf - 1, b) : -1.0;
    }

    const int limit = result.loadFinishedIndex >= 0 ? result.loadFinishedIndex : b;
    bool previousLogo = false;
    for (int i = 0; i <= limit; ++i) {
        prefetch.Provide(i, false);
        const bool isLogo = Analyzer::IsLogoImage(sets[i].GetImageObjects(), centralArea(sets[i]));
        if (found.logoAppearIndex == -1 && isLogo) found.logoAppearIndex = i;
        if (!isLogo && previousLogo) {
            found.logoDisappearIndex = i;
            break;
        }
        previousLogo = isLogo;
    }

    const int start = found.logoDisappearIndex >= 0 ? found.logoDisappearIndex : 0;
    for (int i = start; i < n; ++i) {
        prefetch.Provide(i, false);
        if (Analyzer::IsValidFirstFrameImage(sets[i].GetImageObjects(), centralArea(sets[i]))) {
            found.firstFrameIndex = i;
            break;
        }
    }
    return result;
}

}  // namespace

AnalysisResult Analyzer::AnalyzeStaticPage(ImageSets& sets, bool searchStableBaseline) const {
    return analyzeStaticPage(*this, sets, searchStableBaseline, detail::AnalysisContext());
}

// ---------------------------------------------------------------- feature matches

cv::Vec4d Analyzer::ExtractGoodMatch(const FeaturesMatchingInfo& info,
                                     std::vector<cv::Point2f>& goodShifts) {
    goodShifts.clear();
    const auto& first = std::get<0>(info);
    const auto& second = std::get<1>(info);
    const auto& matches = std::get<2>(info);
    if (first.empty() || second.empty() || matches.empty()) return cv::Vec4d(0.0, 0.0, -1.0, -1.0);

    std::vector<cv::Point2f> shifts;
    shifts.reserve(matches.size());
    double sumX = 0.0, sumY = 0.0;
    for (const cv::DMatch& m : matches) {
        const cv::Point2f d = first[static_cast<size_t>(m.queryIdx)].pt - second[static_cast<size_t>(m.trainIdx)].pt;
        shifts.push_back(d);
        sumX += d.x;
        sumY += d.y;
    }
    const int n = static_cast<int>(matches.size());
    const double meanX = sumX / n;
    const double meanY = sumY / n;
    double varX = 0.0, varY = 0.0;
    for (const cv::Point2f& d : shifts) {
        varX += (d.x - meanX) * (d.x - meanX);
        varY += (d.y - meanY) * (d.y - meanY);
    }
    const double sdX = std::sqrt(varX / n);
    const double sdY = std::sqrt(varY / n);
    for (const cv::Point2f& d : shifts) {
        if (meanX - sdX <= d.x && d.x <= meanX + sdX && meanY - sdY <= d.y && d.y <= meanY + sdY) {
            goodShifts.push_back(d);
        }
    }
    return cv::Vec4d(meanX, meanY, sdX, sdY);
}

bool Analyzer::IsImagesSimilarByFeatureMatching(ImageSets& sets, int i, int j) const {
    const FeaturesMatchingInfo& info = sets.GetImagesFeaturesMatchingInfo(i, j, true);
    const size_t nI = std::get<0>(info).size();
    const size_t nJ = std::get<1>(info).size();
    const size_t nM = std::get<2>(info).size();
    if (nI == 0 || nJ == 0 || nM == 0) return false;
    const double good = goodMatchCount(info);
    const double maxK = static_cast<double>(std::max(nI, nJ));
    const double minK = static_cast<double>(std::min(nI, nJ));
    const double matches = static_cast<double>(nM);
    return maxK >= objectCountThreshold && minK / maxK >= 0.7 && good / matches >= 0.7 &&
           matches / minK >= 0.7;
}

bool Analyzer::IsImagesContinuousSimilarByFeatureMatching(ImageSets& sets, int p, int i, int j) const {
    double prevMatches = 0.0, prevGood = 0.0;
    if (p >= 0) {
        const FeaturesMatchingInfo& previous = sets.GetImagesFeaturesMatchingInfo(p, i, true);
        prevMatches = static_cast<double>(std::get<2>(previous).size());
        prevGood = goodMatchCount(previous);
    }
    const FeaturesMatchingInfo& info = sets.GetImagesFeaturesMatchingInfo(i, j, true);
    const double good = goodMatchCount(info);
    const double matches = static_cast<double>(std::get<2>(info).size());
    const size_t nI = std::get<0>(info).size();
    const size_t nJ = std::get<1>(info).size();
    const double maxK = static_cast<double>(std::max(nI, nJ));
    const double minK = static_cast<double>(std::min(nI, nJ));
    return good > 0 && good >= 0.3 * matches && matches >= 0.3 * minK && minK >= 0.3 * maxK &&
           good >= 0.8 * prevGood && matches >= 0.8 * prevMatches;
}

// ---------------------------------------------------------------- dynamic page

cv::Vec4i Analyzer::AnalyzeMotion(const FeaturesMatchingInfo& info) {
    const auto& first = std::get<0>(info);
    const auto& second = std::get<1>(info);
    const auto& matches = std::get<2>(info);

    std::vector<double> level;
    double sum = 0.0;
    for (const cv::DMatch& m : matches) {
        const cv::Point2f& a = first[static_cast<size_t>(m.queryIdx)].pt;
        const cv::Point2f& b = second[static_cast<size_t>(m.trainIdx)].pt;
        const float dy = std::fabs(a.y - b.y);
        const float dx = std::fabs(a.x - b.x);
        if (dy < 3.0f) {
            level.push_back(static_cast<double>(dx));
            sum += dx;
        }
    }
    int consistent = 0;
    if (!level.empty()) {
        const double count = static_cast<double>(level.size());
        const double mean = sum / count;
        double squares = 0.0;
        for (double dx : level) squares += (dx - mean) * (dx - mean);
        const double sd = std::sqrt(squares / count);
        consistent = static_cast<int>(std::count_if(level.begin(), level.end(), [&](double dx) {
            return mean - sd <= dx && dx <= mean + sd;
        }));
    }
    const int k1 = static_cast<int>(first.size());
    const int k2 = static_cast<int>(second.size());
    const int large = std::max(k1, k2);
    const int small = std::min(k1, k2);
    const bool moving = large > 20 && static_cast<double>(small) / large > 0.3 && !matches.empty() &&
                        static_cast<double>(consistent) / static_cast<double>(matches.size()) > 0.3;
    return cv::Vec4i(k1, k2, consistent, moving ? 1 : 0);
}

namespace {

AnalysisResult analyzeDynamicPage(const Analyzer& analyzer, ImageSets& sets, const detail::PixelSource* source) {
    AnalysisResult result;
    result.pageType = DYNAMIC_PAGE;
    const int n = sets.size();
    result.imageCount = static_cast<size_t>(n);
    if (n == 0) return result;
    const int last = n - 1;
    DynamicPageAnalysisResult& found = result.dynamicResult;

    int start = 0;
    if (last > 1) {
        // Objects in index order, as in the static analysis.
        detail::ObjectPrefetch prefetch(sets, true, source);
        for (int i = 1; i <= last - 1; ++i) {
            prefetch.Provide(i, true);
            if (analyzer.IsNonBlankImage(sets, i)) {
                start = i - 1;
                found.motionStartIndex = i - 1;
                found.firstNonBlankObjectCount = static_cast<size_t>(sets[i].GetImageObjectsSize());
                break;
            }
        }
    }
    if (start >= last) return result;

    detail::FeatureCache features;  // frame j + 1's serve the next pair too
    for (int j = start;; ++j) {
        features.Prepare(sets, j, j + 1, false);
        const cv::Vec4i motion = Analyzer::AnalyzeMotion(sets.GetImagesFeaturesMatchingInfo(j, j + 1, false));
        const int k1 = motion[0], k2 = motion[1], good = motion[2];
        const bool moving = motion[3] != 0;
        found.featureMatchingResults.emplace_back(j, static_cast<unsigned long>(k1),
                                                  static_cast<unsigned long>(k2),
                                                  static_cast<unsigned long>(good), moving);
        const int smaller = std::min(k1, k2);
        const bool changed =
            std::abs(k1 - k2) > 5 ||
            (smaller > 20 && static_cast<double>(smaller - good) / smaller > 0.05);
        if (changed) {
            result.loadFinishedIndex = moving ? j : j + 1;
            return result;
        }
        if (j + 1 == last) return result;
    }
}

}  // namespace

AnalysisResult Analyzer::AnalyzeDynamicPage(ImageSets& sets) const {
    return analyzeDynamicPage(*this, sets, nullptr);
}

namespace detail {

AnalysisResult Analyze(const Analyzer& analyzer, ImageSets& sets, VyraPageType type, bool searchStableBaseline,
                       const AnalysisContext& context) {
    switch (type) {
    case STATIC_PAGE:
        return analyzeStaticPage(analyzer, sets, searchStableBaseline, context);
    case DYNAMIC_PAGE:
        return analyzeDynamicPage(analyzer, sets, context.pixels);
    default:
        return AnalysisResult();
    }
}

}  // namespace detail

}  // namespace vyra
