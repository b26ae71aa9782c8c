/*
 * libvyra - launch reports: what a measurement looked like, as one HTML page
 * or one PNG contact sheet.
 *
 * Every writer takes a MeasureResult measured with
 * MeasureOptions::report.collect set (its `report` member holds the
 * pictures and series; see VyraReport.h) and stores one file, whole or not
 * at all: the bytes go to a temporary file in the target's folder, which is
 * renamed over the target once every write succeeded. An existing file at
 * the path is replaced.
 *
 * The HTML pages are self-contained: style sheet, script and pictures (JPEG
 * data URIs) are inline, nothing is fetched from the network or another
 * file. They hold:
 *   - the summary: launch time, visually complete, speed index, noise
 *     tolerance, frame count, frame size and timing;
 *   - the key frames, each with its index and time;
 *   - the filmstrip: the frame shown at every step of the report's interval
 *     plus every key frame, in time order, key frames outlined and labelled;
 *     a click on a picture shows it large;
 *   - the visual-progress curve (inline SVG; time on x, progress on y, key
 *     frames marked);
 *   - for the static analysis, every frame's object count and content level
 *     against the thresholds they are judged by; for the dynamic analysis,
 *     every compared pair's keypoints, consistent matches and moving flag.
 *
 * Errors (all writers) are MeasureError:
 *   VYRA_ERROR_INVALID_ARGUMENT  the result holds no report material (measured
 *                                without MeasureOptions::report.collect), or
 *                                the path is empty;
 *   VYRA_ERROR_WRITE             the file cannot be written (missing folder,
 *                                no permission, full disk); the message names
 *                                the path and the reason;
 *   VYRA_ERROR_NO_MEMORY         out of memory.
 */
#ifndef VYRA_LAUNCH_REPORT_H
#define VYRA_LAUNCH_REPORT_H

#include <string>

#include "VyraExport.h"
#include "VyraMeasure.h"

namespace vyra {

/**
 * Writes the launch report of @p result to @p htmlPath. @p title heads the
 * page (usually the recording's path); any text, escaped for HTML.
 */
VYRA_API void WriteReport(const std::string& htmlPath, const MeasureResult& result, const std::string& title);

/**
 * Writes a page comparing two measurements (two builds of an app, say):
 * both filmstrips side by side on one time line (a row per interval step,
 * each column showing the frame its recording showed then), both
 * visual-progress curves on one chart, and a table of every key time of
 * @p a and @p b with the difference b - a. @p titleA and @p titleB name
 * them. The two may come from recordings of different length or frame
 * size, and the two filmstrip intervals may differ (each column keeps its
 * own; rows follow the finer one).
 */
VYRA_API void WriteComparisonReport(const std::string& htmlPath, const MeasureResult& a, const std::string& titleA,
                                    const MeasureResult& b, const std::string& titleB);

/**
 * Writes the filmstrip of @p result (the same pictures as the report's
 * filmstrip: every interval step plus every key frame, in time order) as
 * one PNG contact sheet: up to 10 pictures per row, each with its time in
 * seconds beneath it and, on key frames, its labels and an outline. Text is
 * drawn in ASCII with OpenCV's Hershey font.
 */
VYRA_API void WriteFilmstrip(const std::string& pngPath, const MeasureResult& result);

}  // namespace vyra

#endif /* VYRA_LAUNCH_REPORT_H */
