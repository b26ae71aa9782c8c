/*
 * libvyra - what a launch report shows beyond the measures: pictures of the
 * frames (a filmstrip at a fixed interval, every key frame) and per-frame
 * series of the analysis. vyra::Measure collects them only when
 * MeasureOptions::report asks for it; the measured results are identical
 * either way.
 */
#ifndef VYRA_REPORT_H
#define VYRA_REPORT_H

#include <limits>
#include <memory>
#include <vector>

#include "VyraExport.h"

namespace vyra {

/** Default of ReportOptions::intervalMs. */
constexpr double kDefaultReportIntervalMs = 100.0;

/** Default of ReportOptions::pictureHeight. */
constexpr int kDefaultReportPictureHeight = 360;

/** What to collect for a report. */
struct VYRA_API ReportOptions {
    /** Collect the material (MeasureResult::report); off by default. */
    bool collect = false;
    /**
     * The filmstrip's step in ms: a picture of the frame shown at 0,
     * interval, 2 x interval, ... up to the last frame's time. Above 0.
     */
    double intervalMs = kDefaultReportIntervalMs;
    /** Pictures are scaled to this height in pixels (16..4096), keeping their aspect. */
    int pictureHeight = kDefaultReportPictureHeight;
};

/** A picture of one analysed frame (after ignore painting and cropping). */
struct VYRA_API ReportPicture {
    int index = -1;                                    ///< the frame's index in the range
    double frameTime = std::numeric_limits<double>::quiet_NaN();  ///< its time, seconds from the range start
    double shownAt = std::numeric_limits<double>::quiet_NaN();    ///< filmstrip: the moment pictured, seconds
    int width = 0;                                     ///< of the picture, pixels
    int height = 0;
    std::shared_ptr<const std::vector<unsigned char>> jpeg;  ///< the picture, JPEG; shared by pictures of one frame
};

/** The material of a report (MeasureResult::report). */
struct VYRA_API ReportMaterial {
    double intervalMs = kDefaultReportIntervalMs;  ///< the filmstrip's step
    std::vector<ReportPicture> filmstrip;          ///< in time order, one per step
    std::vector<ReportPicture> keyFrames;          ///< every frame that is a key frame, once, in index order
    /**
     * Static analysis only (empty for the dynamic one): every frame's object
     * count and content level (1..4, Analyzer::DetectImageContentLevel), and
     * the thresholds they are judged by (a frame is non-blank from
     * objectCountThreshold objects and contentRatioThreshold of content on).
     */
    std::vector<int> objectCounts;
    std::vector<int> contentLevels;
    int objectCountThreshold = 0;
    double contentRatioThreshold = 0.0;
};

}  // namespace vyra

#endif /* VYRA_REPORT_H */
