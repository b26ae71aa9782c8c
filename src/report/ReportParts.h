// Internal: what every report writer shares: the material of a result, the
// filmstrip with its key frames merged in, key frame labels, and storing the
// finished file with the library's errors.
#ifndef VYRA_REPORT_PARTS_H
#define VYRA_REPORT_PARTS_H

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraMeasure.h"
#include "VyraReport.h"
#include "report/Html.h"

namespace vyra {
namespace detail {

/** The report material of @p result; MeasureError (VYRA_ERROR_INVALID_ARGUMENT) when it has none. */
const ReportMaterial& MaterialOf(const MeasureResult& result);

/** The labels of the key frames of @p result at frame @p index, in table order ("load finished", ...). */
std::vector<std::string> KeyFrameLabels(const MeasureResult& result, int index);

/** One picture of a filmstrip as the reports show it. */
struct StripEntry {
    const ReportPicture* picture = nullptr;
    double at = 0.0;                  ///< the moment shown, seconds
    std::vector<std::string> labels;  ///< non-empty on key frames
};

/**
 * The filmstrip of @p result with every key frame merged in, in time order:
 * a key frame whose moment is a step of the strip showing that very frame
 * labels the step; any other key frame is an entry of its own, after the
 * steps at the same moment.
 */
std::vector<StripEntry> MergedFilmstrip(const MeasureResult& result);

/** The time of the last analysed frame of @p result, seconds (0 without frames). */
double LastFrameTime(const MeasureResult& result);

/** A measurement drawn on a chart. */
struct ChartedResult {
    const MeasureResult* result;
    std::string name;
    std::string colour;
};

/** The visual-progress curves (in %) of @p results over time, on one chart reaching the latest last frame. */
Chart ProgressChart(const std::vector<ChartedResult>& results);

/** The launch report page of @p result (see WriteReport). */
std::string LaunchReportHtml(const MeasureResult& result, const std::string& title);

/** The comparison page of @p a and @p b (see WriteComparisonReport). */
std::string ComparisonReportHtml(const MeasureResult& a, const std::string& titleA, const MeasureResult& b,
                                 const std::string& titleB);

/** The filmstrip contact sheet of @p result, 8-bit BGR (see WriteFilmstrip). */
cv::Mat FilmstripSheet(const MeasureResult& result);

/**
 * Runs @p write, which stores a report at @p path, turning the library's
 * internal errors into MeasureError and std::bad_alloc into
 * VYRA_ERROR_NO_MEMORY. An empty @p path is VYRA_ERROR_INVALID_ARGUMENT.
 */
void RunWriter(const std::string& path, const std::function<void()>& write);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_REPORT_PARTS_H
