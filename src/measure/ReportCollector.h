// Internal: gathers a report's filmstrip while the intake reads the frames
// (see VyraReport.h), keeping small JPEG pictures, never frames.
#ifndef VYRA_REPORT_COLLECTOR_H
#define VYRA_REPORT_COLLECTOR_H

#include <cstddef>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraReport.h"

namespace vyra {
namespace detail {

/** A picture of @p frame at @p options' height, as JPEG (see ReportPicture). */
ReportPicture PictureOf(const cv::Mat& frame, int index, double frameTimeMs, const ReportOptions& options);

/**
 * Takes the frames in order, each with its time in ms from the range start,
 * and pictures the frame shown at every step of the filmstrip: frame k is
 * shown from its time until the next frame's. A frame is scaled and encoded
 * only when a step falls on it, once, however many steps do.
 */
class FilmstripCollector {
public:
    explicit FilmstripCollector(const ReportOptions& options);

    /** The next frame; @p repeated when it has the pixels of the frame before. */
    void Add(const cv::Mat& frame, size_t index, double timeMs, bool repeated);

    /** The filmstrip up to the last frame's time, the last frame included. */
    std::vector<ReportPicture> Finish();

private:
    // The steps before @p untilMs (all up to and with it when @p inclusive)
    // show the frame held.
    void picture(double untilMs, bool inclusive);

    ReportOptions options_;
    std::vector<ReportPicture> strip_;
    cv::Mat held_;              // the frame shown now
    size_t heldIndex_ = 0;
    double heldTimeMs_ = 0.0;
    bool holding_ = false;
    ReportPicture heldPicture_;  // its picture, once made
    long nextStep_ = 0;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_REPORT_COLLECTOR_H
