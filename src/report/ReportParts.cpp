#include "report/ReportParts.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "recording/RecordingError.h"

namespace vyra {
namespace detail {

namespace {

// Moments closer than this (seconds) are one: a step is a multiple of the
// interval, a frame time a difference of timestamps, and the two roundings
// may differ in the last bits.
constexpr double kSameMoment = 1e-9;

}  // namespace

const ReportMaterial& MaterialOf(const MeasureResult& result) {
    if (!result.report) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                           "the result holds no report material: measure with the report collected "
                           "(MeasureOptions::report.collect)");
    }
    return *result.report;
}

std::vector<std::string> KeyFrameLabels(const MeasureResult& result, int index) {
    std::vector<std::string> labels;
    for (const KeyFrameField& field : KeyFrameFields()) {
        if ((result.*field.member).index == index && index >= 0) labels.emplace_back(field.label);
    }
    return labels;
}

std::vector<StripEntry> MergedFilmstrip(const MeasureResult& result) {
    const ReportMaterial& material = MaterialOf(result);
    std::vector<StripEntry> entries;
    for (const ReportPicture& step : material.filmstrip) {
        entries.push_back({&step, step.shownAt, {}});
    }
    for (const ReportPicture& key : material.keyFrames) {
        auto same = std::find_if(entries.begin(), entries.end(), [&key](const StripEntry& entry) {
            return entry.picture->index == key.index && std::fabs(entry.at - key.frameTime) < kSameMoment;
        });
        if (same != entries.end()) {
            same->labels = KeyFrameLabels(result, key.index);
        } else {
            entries.push_back({&key, key.frameTime, KeyFrameLabels(result, key.index)});
        }
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const StripEntry& a, const StripEntry& b) { return a.at < b.at; });
    return entries;
}

double LastFrameTime(const MeasureResult& result) {
    return result.frameTimes.empty() ? 0.0 : result.frameTimes.back();
}

Chart ProgressChart(const std::vector<ChartedResult>& results) {
    Chart chart{"Visual progress", "time (s)", "progress (%)", 0.0, 0.0, 100.0, {}, {}, {}};
    for (const ChartedResult& charted : results) {
        const MeasureResult& r = *charted.result;
        ChartSeries series{charted.name, charted.colour, {}, true};
        for (size_t k = 0; k < r.visual.progress.size() && k < r.frameTimes.size(); ++k) {
            series.points.emplace_back(r.frameTimes[k], 100.0 * r.visual.progress[k]);
        }
        chart.series.push_back(std::move(series));
        chart.xMax = std::max(chart.xMax, LastFrameTime(r));
    }
    return chart;
}

void RunWriter(const std::string& path, const std::function<void()>& write) {
    if (path.empty()) throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "no path to write the report to");
    try {
        write();
    } catch (const RecordingError& e) {
        throw MeasureError(e.status(), e.what());
    } catch (const std::bad_alloc&) {
        throw MeasureError(VYRA_ERROR_NO_MEMORY, "out of memory while writing a report");
    }
}

}  // namespace detail
}  // namespace vyra
