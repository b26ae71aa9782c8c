// Internal: the analysis thresholds every measuring entry of the library uses
// (the historic analyse() and the quiet Measure()), kept in one place.
#ifndef VYRA_DEFAULT_THRESHOLDS_H
#define VYRA_DEFAULT_THRESHOLDS_H

namespace vyra {
namespace detail {

constexpr double kPsnrThreshold = 20.0;
constexpr double kBaselineOverlapRatio = 0.5;
constexpr double kSimilarOverlapRatio = 0.85;
constexpr double kContentRatioThreshold = 0.15;
constexpr int kObjectCountThreshold = 200;

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_DEFAULT_THRESHOLDS_H
