/*
 * libvyra - vyra::Analyzer, the analysis engine.
 */
#ifndef VYRA_ANALYZER_H
#define VYRA_ANALYZER_H

#include <vector>

#include <opencv2/core.hpp>

#include "VyraAnalysisResults.h"
#include "VyraExport.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"

namespace vyra {

namespace detail {
struct AnalyzerAccess;
}

/**
 * Holds five thresholds fixed at construction and answers questions about the
 * images of one ImageSets: blank or not, logo image, valid first frame,
 * similar pairs; on top of them it runs the static and the dynamic page
 * analysis.
 *
 * An Analyzer is immutable; every analysis is const or static, so one Analyzer
 * serves any number of analyses in turn. Each analysis writes into the image
 * set it is given (pixel loading, caches, rotation and resizing), so one set
 * must not be analysed from two threads at once.
 *
 * Image indices are positions in the set and are not checked.
 * Exceptions from OpenCV or allocation pass through unchanged; the analyses
 * raise none of their own.
 */
class VYRA_API Analyzer {
public:
    /**
     * @param psnrThreshold minimum PSNR (dB) of two similar images
     * @param baselineOverlapRatio overlap ratio used by the stable-baseline walk
     * @param similarOverlapRatio overlap ratio used by IsImagesSimilar
     * @param contentRatioThreshold minimum content ratio of a non-blank image
     * @param objectCountThreshold minimum object count of a non-blank image, and
     *        minimum keypoint count of the richer frame for feature similarity
     */
    Analyzer(double psnrThreshold, double baselineOverlapRatio, double similarOverlapRatio,
             double contentRatioThreshold, int objectCountThreshold);
    ~Analyzer();

    /**
     * Wraps @p frames into a local ImageSets (sharing their pixels) and returns
     * Analyze(set, type, searchStableBaseline). The set and its caches are
     * released on return, also when an exception passes through. Frames whose
     * size differs from the baseline's may be rotated/resized in the set only:
     * a frame's matrix header in @p frames is not replaced.
     */
    AnalysisResult Analyze(std::vector<cv::Mat>& frames, VyraPageType type,
                           bool searchStableBaseline) const;

    /**
     * STATIC_PAGE: AnalyzeStaticPage(sets, searchStableBaseline);
     * DYNAMIC_PAGE: AnalyzeDynamicPage(sets); any other value: a
     * default-constructed result, without touching the images.
     */
    AnalysisResult Analyze(ImageSets& sets, VyraPageType type, bool searchStableBaseline) const;

    /** Content level 1..4: the smaller of the object-count level and the ratio level. */
    int DetectImageContentLevel(Image& image) const;
    /** PSNR(i, j) >= psnrThreshold. */
    bool IsImagesSimilarByPSNR(ImageSets& sets, int i, int j) const;
    /** shared >= ratio * small and small >= ratio * large, with small > 0. */
    bool IsImagesSimilarByOverlapArea(ImageSets& sets, int i, int j, double ratio) const;
    /** object count >= objectCountThreshold and content ratio >= contentRatioThreshold (both evaluated). */
    bool IsNonBlankImage(ImageSets& sets, int k) const;

    /** Boxes lying inside @p area = (x1, y1, x2, y2), all bounds inclusive. */
    static int CountNumberOfObjectInArea(const std::vector<Rect>& boxes, cv::Vec<double, 4> area);
    /** At least 80 % of the boxes inside @p area; false for no boxes. */
    static bool IsLogoImage(const std::vector<Rect>& boxes, cv::Vec<double, 4> area);
    /** More than 30 % of the boxes outside @p area; false for no boxes. */
    static bool IsValidFirstFrameImage(const std::vector<Rect>& boxes, cv::Vec<double, 4> area);

    /** PSNR, then overlap (similarOverlapRatio), then feature matching; the first that holds. */
    bool IsImagesSimilar(ImageSets& sets, int i, int j) const;

    /**
     * Brings images 0 .. size()-2 to the orientation and size of image
     * @p baseline (transpose + flip, then linear resize), printing one
     * "Vyra[Warning]: ..." line per image that differs. The last image is
     * never examined. Does nothing for sets of at most one image or a baseline
     * out of range.
     *
     * An image with a loader is not loaded for this: its loader is made to
     * align what it loads, every time (and pixels it holds now are aligned in
     * place), so the image stays aligned after Reduce() and a reload; its
     * width() and height() read as the baseline's from then on. An image
     * made from a matrix is aligned in place.
     */
    static void CheckAndResizeImages(ImageSets& sets, int baseline);
    /** Reduce() on every image with index in [from, to] below size(). */
    static void ReduceUselessImages(ImageSets& sets, int from, int to);

    /**
     * The baseline image: the last non-empty image, or with
     * @p searchStableBaseline the end of the first stable run of consecutive
     * similar images whose end is non-blank. -1 when every image is empty.
     */
    int FindBaselineImage(ImageSets& sets, bool searchStableBaseline) const;

    /** Baseline, alignment, load-finished, logo and first-frame searches. */
    AnalysisResult AnalyzeStaticPage(ImageSets& sets, bool searchStableBaseline) const;

    /**
     * Displacement statistics (mean dx, mean dy, sd dx, sd dy) of the matches of
     * @p info, population deviations; fills @p goodShifts (emptied first) with
     * the displacements within one deviation of the mean on both axes,
     * bounds inclusive. (0, 0, -1, -1) when either keypoint list or the match
     * list is empty.
     */
    static cv::Vec4d ExtractGoodMatch(const FeaturesMatchingInfo& info,
                                      std::vector<cv::Point2f>& goodShifts);
    /** Cross-checked ORB similarity of images i and j (four ratio tests). */
    bool IsImagesSimilarByFeatureMatching(ImageSets& sets, int i, int j) const;
    /**
     * Looser similarity of (i, j) along a walk, also compared with the previous
     * pair (p, i); p < 0 means there is no previous pair.
     */
    bool IsImagesContinuousSimilarByFeatureMatching(ImageSets& sets, int p, int i, int j) const;

    /** (keypoints of a, keypoints of b, consistent level matches, moving 0/1). */
    static cv::Vec4i AnalyzeMotion(const FeaturesMatchingInfo& info);
    /** Walk of consecutive pairs until the first changed pair. */
    AnalysisResult AnalyzeDynamicPage(ImageSets& sets) const;

private:
    // Library-internal: lets the analysis read the thresholds it runs with.
    friend struct detail::AnalyzerAccess;

    double psnrThreshold;
    double baselineOverlapRatio;
    double similarOverlapRatio;
    double contentRatioThreshold;
    int objectCountThreshold;
};

}  // namespace vyra

#endif /* VYRA_ANALYZER_H */
