// The page comparing two measurements (VyraLaunchReport.h).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "VyraLaunchReport.h"
#include "recording/FileWriting.h"
#include "report/Html.h"
#include "report/ReportParts.h"

namespace vyra {
namespace detail {

namespace {

constexpr const char* kColourA = "#1c7ed6";
constexpr const char* kColourB = "#d9480f";

std::string differenceText(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%+.3f", b - a);
    return text;
}

std::string timeRow(const std::string& name, double a, double b) {
    return "<tr><td>" + Escape(name) + "</td><td>" + SecondsText(a) + "</td><td>" + SecondsText(b) + "</td><td>" +
           differenceText(a, b) + "</td></tr>";
}

std::string differences(const MeasureResult& a, const std::string& titleA, const MeasureResult& b,
                        const std::string& titleB) {
    std::string rows = timeRow("launch time", a.launchTime, b.launchTime);
    for (const KeyFrameField& field : KeyFrameFields()) {
        rows += timeRow(field.label, (a.*field.member).time, (b.*field.member).time);
    }
    rows += timeRow("speed index", a.speedIndexMs / 1000.0, b.speedIndexMs / 1000.0);
    return "<h2>Key times (s)</h2><table class=\"keys\"><tr><th></th><th>" + Escape(titleA) + "</th><th>" +
           Escape(titleB) + "</th><th>difference</th></tr>" + rows + "</table>";
}

// The cell of one filmstrip at moment @p at: the latest picture shown by
// then, labelled only where a key frame falls on that very moment.
std::string cellAt(const std::vector<StripEntry>& strip, const MeasureResult& r, double at,
                   PagePictures& pictures) {
    if (strip.empty() || at > LastFrameTime(r)) return "<figure class=\"ended\"><figcaption>ended</figcaption></figure>";
    auto after = std::upper_bound(strip.begin(), strip.end(), at,
                                  [](double moment, const StripEntry& entry) { return moment < entry.at; });
    if (after == strip.begin()) return "<figure class=\"ended\"><figcaption>-</figcaption></figure>";
    const StripEntry& shown = *(after - 1);
    std::vector<std::string> labels;
    for (auto it = after; it != strip.begin() && (it - 1)->at == at; --it) {
        labels.insert(labels.begin(), (it - 1)->labels.begin(), (it - 1)->labels.end());
    }
    return Figure(pictures, *shown.picture, at, labels);
}

std::string alignedFilmstrips(const MeasureResult& a, const std::string& titleA, const MeasureResult& b,
                              const std::string& titleB, PagePictures& pictures) {
    const std::vector<StripEntry> stripA = MergedFilmstrip(a);
    const std::vector<StripEntry> stripB = MergedFilmstrip(b);
    std::set<double> moments;
    for (const auto* strip : {&stripA, &stripB}) {
        for (const StripEntry& entry : *strip) moments.insert(entry.at);
    }
    std::string cells = "<div class=\"name\" style=\"color:" + std::string(kColourA) + "\">" + Escape(titleA) +
                        "</div><div class=\"name\" style=\"color:" + kColourB + "\">" + Escape(titleB) + "</div>";
    for (const double at : moments) {
        cells += cellAt(stripA, a, at, pictures) + cellAt(stripB, b, at, pictures);
    }
    return "<h2>Filmstrips on one time line</h2><div class=\"strip grid\">" + cells + "</div>";
}

}  // namespace

std::string ComparisonReportHtml(const MeasureResult& a, const std::string& titleA, const MeasureResult& b,
                                 const std::string& titleB) {
    MaterialOf(a);
    MaterialOf(b);
    PagePictures pictures;
    const Chart progress = ProgressChart({{&a, titleA, kColourA}, {&b, titleB, kColourB}});
    const std::string body = "<h1>Launch comparison</h1><p class=\"sub\">" + Escape(titleA) + " &middot; " +
                             Escape(titleB) + "</p>" + differences(a, titleA, b, titleB) +
                             alignedFilmstrips(a, titleA, b, titleB, pictures) + "<h2>Visual progress</h2>" +
                             Svg(progress);
    return Page("Launch comparison: " + titleA + " / " + titleB, body + pictures.Script());
}

}  // namespace detail

void WriteComparisonReport(const std::string& htmlPath, const MeasureResult& a, const std::string& titleA,
                           const MeasureResult& b, const std::string& titleB) {
    detail::RunWriter(htmlPath, [&] {
        const std::string html = detail::ComparisonReportHtml(a, titleA, b, titleB);
        detail::WriteWholeFile(htmlPath, html.data(), html.size(), "report");
    });
}

}  // namespace vyra
