#include "VyraAnalysisResults.h"

namespace vyra {

FeatureMatchingResult::FeatureMatchingResult()
    : firstImageIndex(-1),
      firstKeypointCount(0),
      secondKeypointCount(0),
      consistentMatchCount(0),
      isMoving(false) {}

FeatureMatchingResult::FeatureMatchingResult(int firstImageIndex_, unsigned long firstKeypointCount_,
                                             unsigned long secondKeypointCount_,
                                             unsigned long consistentMatchCount_, bool isMoving_)
    : firstImageIndex(firstImageIndex_),
      firstKeypointCount(firstKeypointCount_),
      secondKeypointCount(secondKeypointCount_),
      consistentMatchCount(consistentMatchCount_),
      isMoving(isMoving_) {}

StaticPageAnalysisResult::StaticPageAnalysisResult()
    : baselineIndex(-1),
      logoAppearIndex(-1),
      logoDisappearIndex(-1),
      firstFrameIndex(-1),
      objectCounts(),
      loadedPsnr(-1.0),
      preLoadedPsnr(-1.0) {}

DynamicPageAnalysisResult::DynamicPageAnalysisResult()
    : motionStartIndex(-1), firstNonBlankObjectCount(0), featureMatchingResults() {}

AnalysisResult::AnalysisResult()
    : pageType(STATIC_PAGE), imageCount(0), loadFinishedIndex(-1), staticResult(), dynamicResult() {}

}  // namespace vyra
