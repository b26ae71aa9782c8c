// Internal: the reading half of vyra::Measure. Frames are decoded on the
// calling thread while a second thread prepares them (ignore regions, crop),
// saves them when asked, feeds the visual progress and keeps them in a
// FrameStore, from which the analysis reads them afterwards.
#ifndef VYRA_MEASURE_INTAKE_H
#define VYRA_MEASURE_INTAKE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "recording/FrameSource.h"
#include "recording/FrameTimes.h"
#include "store/FrameStore.h"
#include "VyraMeasure.h"
#include "VyraVisualProgress.h"

namespace vyra {
namespace detail {

/** The frames of the range, prepared for the analysis, and what was learnt reading them. */
struct Intake {
    FrameStore store;                       // every frame; the last one always resident
    std::vector<cv::Scalar> ignoreColours;  // the colours the ignore regions were painted in
    std::vector<double> rawTimesMs;
    std::optional<double> followingTimeMs;
    size_t estimatedTimeCount = 0;
    VisualProgress visual;
    std::vector<ReportPicture> filmstrip;  // when the options ask for a report
};

/** The timing of @p options' frames. */
FrameTiming TimingOf(const MeasureOptions& options);

/** How the recording of @p options is read: range, limits, and times when @p timestamps. */
SourceOptions SourceOptionsOf(const MeasureOptions& options, bool timestamps);

/** Calls options.progress(stage, done, total) when a callback is set. */
void ReportProgress(const MeasureOptions& options, MeasureStage stage, size_t done, size_t total);

/**
 * Reads the range of the recording at @p path with @p options (already
 * validated): prepares, saves and keeps every frame, times it, tracks the
 * visual progress and reports MeasureStage::Decoding progress (on the calling
 * thread). Errors are thrown as MeasureError (or std::bad_alloc), the first one in
 * frame order when several occur; no thread outlives the call.
 */
Intake ReadRecording(const std::string& path, const MeasureOptions& options);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_MEASURE_INTAKE_H
