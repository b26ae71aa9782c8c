// Internal: the analysis of an image set as the library's entries run it,
// with what they choose beyond the public Analyzer: where object detection
// may read pixels without loading the Images, and what happens to the
// warning about a frame of another size than the baseline.
#ifndef VYRA_ANALYSIS_ENTRY_H
#define VYRA_ANALYSIS_ENTRY_H

#include <functional>

#include "VyraAnalysisResults.h"
#include "VyraAnalyzer.h"
#include "VyraImageSets.h"
#include "analysis/FeatureCache.h"
#include "analysis/ObjectPrefetch.h"

namespace vyra {
namespace detail {

/**
 * Told about image @p image, of @p width x @p height, before it is aligned
 * to baseline @p baseline of @p baselineWidth x @p baselineHeight.
 */
using SizeWarning = std::function<void(int image, int width, int height, int baseline, int baselineWidth,
                                       int baselineHeight)>;

/**
 * The analysis' own warning: "Vyra[Warning]: image<i> size(w, h) not equal
 * to baseline[b] size(bw, bh)" and a newline on standard output, flushed.
 */
void PrintSizeWarning(int image, int width, int height, int baseline, int baselineWidth, int baselineHeight);

/** What an entry chooses for one analysis. */
struct AnalysisContext {
    /** Where covered images' objects are detected from (see PixelSource); null: the Images. */
    const PixelSource* pixels = nullptr;
    /** Called for each image aligned to the baseline; empty: nothing is said. */
    SizeWarning sizeWarning = PrintSizeWarning;
};

/**
 * analyzer.Analyze(sets, type, searchStableBaseline) with @p context: the
 * same result for any context.
 */
AnalysisResult Analyze(const Analyzer& analyzer, ImageSets& sets, VyraPageType type, bool searchStableBaseline,
                       const AnalysisContext& context);

/** What the analysis reads of an Analyzer beyond its public members. */
struct AnalyzerAccess {
    static double SimilarOverlapRatio(const Analyzer& analyzer) { return analyzer.similarOverlapRatio; }
};

/**
 * Analyzer::IsImagesSimilar(sets, i, j): PSNR, then object overlap, then
 * feature matching, the first that holds; with @p features, the matches are
 * computed from features detected once per frame (same result).
 */
bool ImagesSimilar(const Analyzer& analyzer, ImageSets& sets, int i, int j, FeatureCache* features);

/**
 * Analyzer::CheckAndResizeImages(sets, baseline), telling @p warn (when set)
 * instead of printing. An image that loads its pixels on demand is aligned
 * each time it loads (and in place when it holds them now), so that it stays
 * aligned after Reduce(); its size reads as the baseline's from then on.
 */
void AlignImagesToBaseline(ImageSets& sets, int baseline, const SizeWarning& warn);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_ANALYSIS_ENTRY_H
