// The launch report of one measurement (VyraLaunchReport.h).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>

#include "VyraLaunchReport.h"
#include "recording/FileWriting.h"
#include "report/Html.h"
#include "report/ReportParts.h"

namespace vyra {
namespace detail {

namespace {

std::string cell(const std::string& value, const std::string& name) {
    return "<div><b>" + value + "</b><span>" + Escape(name) + "</span></div>";
}

std::string timingText(const MeasureResult& r) {
    if (r.timing != Timing::FrameRate) return "timestamps";
    char text[64];
    std::snprintf(text, sizeof text, "%g fps", r.fps);
    return text;
}

std::string summary(const MeasureResult& r) {
    const std::string tolerance =
        std::to_string(r.visual.levelTolerance) + (r.visual.levelToleranceEstimated ? " (auto)" : "");
    return "<section class=\"summary\">" + cell(SecondsText(r.launchTime) + " s", "launch time") +
           cell(SecondsText(r.visuallyComplete.time) + " s", "visually complete") +
           cell(std::isnan(r.speedIndexMs) ? "-" : std::to_string(std::lround(r.speedIndexMs)) + " ms",
                "speed index") +
           cell(tolerance, "noise tolerance") + cell(std::to_string(r.frameCount), "frames") +
           cell(std::to_string(r.frameWidth) + "&times;" + std::to_string(r.frameHeight), "frame size") +
           cell(Escape(timingText(r)), "timing") +
           cell(r.analysis.pageType == DYNAMIC_PAGE ? "dynamic" : "static", "analysis") + "</section>";
}

std::string keyFrameTable(const MeasureResult& r) {
    std::string rows;
    for (const KeyFrameField& field : KeyFrameFields()) {
        const KeyFrame& key = r.*field.member;
        rows += "<tr><td>" + Escape(field.label) + "</td><td>" + (key.index < 0 ? "-" : std::to_string(key.index)) +
                "</td><td>" + SecondsText(key.time) + "</td></tr>";
    }
    return "<h2>Key frames</h2><table class=\"keys\"><tr><th>key frame</th><th>index</th><th>time (s)</th></tr>" +
           rows + "</table>";
}

std::string filmstrip(const MeasureResult& r, PagePictures& pictures) {
    std::string figures;
    for (const StripEntry& entry : MergedFilmstrip(r)) {
        figures += Figure(pictures, *entry.picture, entry.at, entry.labels);
    }
    char interval[64];
    std::snprintf(interval, sizeof interval, "%g", MaterialOf(r).intervalMs);
    return "<h2>Filmstrip <small>every " + std::string(interval) + " ms and every key frame</small></h2>"
           "<div class=\"strip\">" + figures + "</div>";
}

// Per-frame series of the static analysis over the frames' times.
ChartSeries frameSeries(const MeasureResult& r, const std::vector<int>& values, const char* name) {
    ChartSeries series{name, "#1c7ed6", {}, true};
    for (size_t k = 0; k < values.size() && k < r.frameTimes.size(); ++k) {
        series.points.emplace_back(r.frameTimes[k], values[k]);
    }
    return series;
}

std::string staticCharts(const MeasureResult& r) {
    const ReportMaterial& m = MaterialOf(r);
    if (m.objectCounts.empty()) return "";
    Chart objects{"Objects per frame", "time (s)", "objects", LastFrameTime(r), 0.0, 1.0, {}, {}, {}};
    objects.series.push_back(frameSeries(r, m.objectCounts, "objects"));
    const int most = *std::max_element(m.objectCounts.begin(), m.objectCounts.end());
    objects.yMax = 1.1 * std::max(most, m.objectCountThreshold);
    objects.yMarks.push_back({double(m.objectCountThreshold), "threshold " + std::to_string(m.objectCountThreshold)});
    Chart levels{"Content level per frame", "time (s)", "level", LastFrameTime(r), 0.0, 4.0, {}, {}, {}};
    levels.series.push_back(frameSeries(r, m.contentLevels, "content level"));
    char ratio[96];
    std::snprintf(ratio, sizeof ratio, "non-blank: %d objects and %g %% content", m.objectCountThreshold,
                  100.0 * m.contentRatioThreshold);
    levels.yMarks.push_back({4.0, ratio});
    return "<h2>Static analysis</h2>" + Svg(objects) + Svg(levels);
}

std::string dynamicTable(const MeasureResult& r) {
    const auto& pairs = r.analysis.dynamicResult.featureMatchingResults;
    if (r.analysis.pageType != DYNAMIC_PAGE) return "";
    std::string rows;
    for (const FeatureMatchingResult& m : pairs) {
        rows += "<tr><td>" + std::to_string(m.firstImageIndex) + "&ndash;" + std::to_string(m.firstImageIndex + 1) +
                "</td><td>" + std::to_string(m.firstKeypointCount) + "</td><td>" +
                std::to_string(m.secondKeypointCount) + "</td><td>" + std::to_string(m.consistentMatchCount) +
                "</td><td>" + (m.isMoving ? "moving" : "-") + "</td></tr>";
    }
    return "<h2>Dynamic analysis: feature matching</h2><table class=\"pairs\"><tr><th>frames</th><th>keypoints</th>"
           "<th>keypoints of the next</th><th>consistent matches</th><th>movement</th></tr>" +
           rows + "</table>";
}

}  // namespace

std::string LaunchReportHtml(const MeasureResult& result, const std::string& title) {
    MaterialOf(result);
    PagePictures pictures;
    Chart progress = ProgressChart({{&result, "visual progress", "#1c7ed6"}});
    std::map<double, std::string> marks;  // key frames at one moment share a mark
    for (const KeyFrameField& field : KeyFrameFields()) {
        const KeyFrame& key = result.*field.member;
        if (key.index < 0) continue;
        std::string& label = marks[key.time];
        label += (label.empty() ? "" : ", ") + std::string(field.label);
    }
    for (const auto& [time, label] : marks) progress.xMarks.push_back({time, label});
    std::string body = "<h1>Launch report</h1><p class=\"sub\">" + Escape(title) + "</p>" + summary(result) +
                       keyFrameTable(result) + filmstrip(result, pictures) + "<h2>Visual progress</h2>" +
                       Svg(progress) + staticCharts(result) + dynamicTable(result);
    return Page("Launch report: " + title, body + pictures.Script());
}

}  // namespace detail

void WriteReport(const std::string& htmlPath, const MeasureResult& result, const std::string& title) {
    detail::RunWriter(htmlPath, [&] {
        const std::string html = detail::LaunchReportHtml(result, title);
        detail::WriteWholeFile(htmlPath, html.data(), html.size(), "report");
    });
}

}  // namespace vyra
