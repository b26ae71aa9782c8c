/*
 * libvyra - result records of one analysis and the page types.
 *
 * The records are plain value types with public fields; copying a record
 * copies its lists. Every index field is a frame index in [0, imageCount) or
 * -1 for "not found"; every PSNR is in dB, or -1.0 when it was not computed.
 */
#ifndef VYRA_ANALYSIS_RESULTS_H
#define VYRA_ANALYSIS_RESULTS_H

#include <cstddef>
#include <vector>

#include "VyraExport.h"

/**
 * Kind of analysis requested from vyra::Analyzer::Analyze. Any other value is
 * accepted by the type and answered with a default-constructed result.
 */
enum VyraPageType {
    STATIC_PAGE = 0,  ///< settles into one fixed final picture
    DYNAMIC_PAGE = 1  ///< content keeps moving
};

namespace vyra {

/** Outcome of comparing image i with image i + 1 by matched keypoints. */
struct VYRA_API FeatureMatchingResult {
    int firstImageIndex;          ///< i; the second image is i + 1. Default -1
    size_t firstKeypointCount;    ///< keypoints of image i. Default 0
    size_t secondKeypointCount;   ///< keypoints of image i + 1. Default 0
    size_t consistentMatchCount;  ///< level matches within one deviation of the mean sideways shift. Default 0
    bool isMoving;                ///< one common sideways movement. Default false

    FeatureMatchingResult();
    FeatureMatchingResult(int firstImageIndex, unsigned long firstKeypointCount,
                          unsigned long secondKeypointCount,
                          unsigned long consistentMatchCount, bool isMoving);
};

/** Findings of the static page analysis. */
struct VYRA_API StaticPageAnalysisResult {
    int baselineIndex;                ///< image taken as the fully loaded page
    int logoAppearIndex;              ///< first image of the first run of logo images
    int logoDisappearIndex;           ///< first image after that run
    int firstFrameIndex;              ///< first valid first frame, from logoDisappearIndex on (or 0)
    std::vector<size_t> objectCounts; ///< one entry per image once a baseline is found, else empty
    double loadedPsnr;                ///< PSNR(load finished, baseline), -1.0 when not computed
    double preLoadedPsnr;             ///< PSNR(load finished - 1, baseline), -1.0 when not computed

    StaticPageAnalysisResult();
};

/** Findings of the dynamic page analysis. */
struct VYRA_API DynamicPageAnalysisResult {
    int motionStartIndex;             ///< image just before the first non-blank image, or -1
    size_t firstNonBlankObjectCount;  ///< object count of that first non-blank image, or 0
    std::vector<FeatureMatchingResult> featureMatchingResults; ///< one per compared pair, in order

    DynamicPageAnalysisResult();
};

/** Result of one call of vyra::Analyzer::Analyze. */
struct VYRA_API AnalysisResult {
    int pageType;              ///< a VyraPageType value: 0 static (also the default), 1 dynamic
    size_t imageCount;         ///< number of images in the analysed set
    int loadFinishedIndex;     ///< image at which the page counts as loaded, or -1
    StaticPageAnalysisResult staticResult;    ///< filled by the static analysis only
    DynamicPageAnalysisResult dynamicResult;  ///< filled by the dynamic analysis only

    AnalysisResult();
};

}  // namespace vyra

#endif /* VYRA_ANALYSIS_RESULTS_H */
