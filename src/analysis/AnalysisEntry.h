// Internal: the analysis of an image set whose object detection may read
// pixels without loading the Images.
#ifndef VYRA_ANALYSIS_ENTRY_H
#define VYRA_ANALYSIS_ENTRY_H

#include "analysis/ObjectPrefetch.h"
#include "VyraAnalysisResults.h"
#include "VyraAnalyzer.h"
#include "VyraImageSets.h"

namespace vyra {
namespace detail {

/**
 * analyzer.Analyze(sets, type, searchStableBaseline), with the objects of
 * the images @p source covers (see PixelSource) detected from what it gives
 * instead of from the loaded Images, once per run of equal frames; null
 * @p source is the plain analysis. Same result either way.
 */
AnalysisResult Analyze(const Analyzer& analyzer, ImageSets& sets, VyraPageType type, bool searchStableBaseline,
                       const PixelSource* source);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_ANALYSIS_ENTRY_H
