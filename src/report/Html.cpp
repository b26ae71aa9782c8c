#include "report/Html.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

extern "C" {
#include <libavutil/base64.h>
}

namespace vyra {
namespace detail {

namespace {

// The plot area inside the SVG's 800 x 320 view box.
constexpr double kWidth = 800.0;
constexpr double kHeight = 320.0;
constexpr double kLeft = 56.0;
constexpr double kRight = 16.0;
constexpr double kTop = 28.0;
constexpr double kBottom = 44.0;

std::string number(double value, const char* format = "%.1f") {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

struct Scale {
    const Chart& chart;
    double x(double value) const {
        const double span = chart.xMax > 0.0 ? chart.xMax : 1.0;
        return kLeft + (kWidth - kLeft - kRight) * std::clamp(value / span, 0.0, 1.0);
    }
    double y(double value) const {
        const double span = chart.yMax > chart.yMin ? chart.yMax - chart.yMin : 1.0;
        return kHeight - kBottom - (kHeight - kTop - kBottom) * std::clamp((value - chart.yMin) / span, 0.0, 1.0);
    }
};

std::string polyline(const ChartSeries& series, const Scale& scale) {
    std::string points;
    for (size_t k = 0; k < series.points.size(); ++k) {
        const auto& [x, y] = series.points[k];
        if (series.steps && k > 0) points += number(scale.x(x)) + "," + number(scale.y(series.points[k - 1].second)) + " ";
        points += number(scale.x(x)) + "," + number(scale.y(y)) + " ";
    }
    return "<polyline class=\"series\" fill=\"none\" stroke=\"" + series.colour + "\" stroke-width=\"2\" points=\"" +
           points + "\"><title>" + Escape(series.name) + "</title></polyline>";
}

std::string axes(const Chart& chart, const Scale& scale) {
    std::string svg = "<g class=\"axes\">";
    for (int tick = 0; tick <= 4; ++tick) {
        const double x = chart.xMax * tick / 4.0;
        const double y = chart.yMin + (chart.yMax - chart.yMin) * tick / 4.0;
        svg += "<line x1=\"" + number(scale.x(x)) + "\" y1=\"" + number(kTop) + "\" x2=\"" + number(scale.x(x)) +
               "\" y2=\"" + number(kHeight - kBottom) + "\"/>";
        svg += "<text x=\"" + number(scale.x(x)) + "\" y=\"" + number(kHeight - kBottom + 16) +
               "\" text-anchor=\"middle\">" + number(x, "%.2f") + "</text>";
        svg += "<line x1=\"" + number(kLeft) + "\" y1=\"" + number(scale.y(y)) + "\" x2=\"" +
               number(kWidth - kRight) + "\" y2=\"" + number(scale.y(y)) + "\"/>";
        svg += "<text x=\"" + number(kLeft - 6) + "\" y=\"" + number(scale.y(y) + 4) + "\" text-anchor=\"end\">" +
               number(y, std::fabs(chart.yMax) < 10 ? "%.2f" : "%.0f") + "</text>";
    }
    svg += "<text x=\"" + number((kLeft + kWidth - kRight) / 2) + "\" y=\"" + number(kHeight - 6) +
           "\" text-anchor=\"middle\">" + Escape(chart.xLabel) + "</text>";
    svg += "<text x=\"14\" y=\"" + number(kTop - 10) + "\">" + Escape(chart.yLabel) + "</text></g>";
    return svg;
}

std::string marks(const Chart& chart, const Scale& scale) {
    std::string svg;
    for (const ChartMark& mark : chart.xMarks) {
        const std::string x = number(scale.x(mark.at));
        svg += "<g class=\"mark\"><line x1=\"" + x + "\" y1=\"" + number(kTop) + "\" x2=\"" + x + "\" y2=\"" +
               number(kHeight - kBottom) + "\"/><text transform=\"translate(" + x + "," + number(kTop + 4) +
               ") rotate(90)\">" + Escape(mark.label) + "</text></g>";
    }
    for (const ChartMark& mark : chart.yMarks) {
        const std::string y = number(scale.y(mark.at));
        svg += "<g class=\"threshold\"><line x1=\"" + number(kLeft) + "\" y1=\"" + y + "\" x2=\"" +
               number(kWidth - kRight) + "\" y2=\"" + y + "\"/><text x=\"" + number(kWidth - kRight - 4) +
               "\" y=\"" + number(scale.y(mark.at) - 4) + "\" text-anchor=\"end\">" + Escape(mark.label) +
               "</text></g>";
    }
    return svg;
}

}  // namespace

std::string Escape(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&': escaped += "&amp;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            case '"': escaped += "&quot;"; break;
            case '\'': escaped += "&#39;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

std::string JpegDataUri(const std::vector<unsigned char>& jpeg) {
    std::string encoded(AV_BASE64_SIZE(jpeg.size()), '\0');
    av_base64_encode(&encoded[0], static_cast<int>(encoded.size()), jpeg.data(), static_cast<int>(jpeg.size()));
    encoded.resize(encoded.size() - 1);  // the terminating NUL
    return "data:image/jpeg;base64," + encoded;
}

std::string SecondsText(double seconds) { return std::isnan(seconds) ? "-" : number(seconds, "%.3f"); }

std::string Svg(const Chart& chart) {
    const Scale scale{chart};
    std::string svg = "<svg class=\"chart\" viewBox=\"0 0 " + number(kWidth, "%.0f") + " " +
                      number(kHeight, "%.0f") + "\" role=\"img\" aria-label=\"" + Escape(chart.title) + "\">";
    svg += axes(chart, scale) + marks(chart, scale);
    for (const ChartSeries& series : chart.series) svg += polyline(series, scale);
    svg += "<g class=\"legend\">";
    double x = kWidth - kRight;
    for (auto it = chart.series.rbegin(); it != chart.series.rend(); ++it) {
        x -= 8.0 * static_cast<double>(it->name.size()) + 28.0;
        svg += "<rect x=\"" + number(x) + "\" y=\"8\" width=\"14\" height=\"4\" fill=\"" + it->colour +
               "\"/><text x=\"" + number(x + 18) + "\" y=\"14\">" + Escape(it->name) + "</text>";
    }
    return svg + "</g></svg>";
}

std::string PagePictures::Img(const ReportPicture& picture, const std::string& alt) {
    const auto* jpeg = picture.jpeg.get();
    auto [it, added] = ids_.emplace(jpeg, jpegs_.size());
    if (added) jpegs_.push_back(jpeg);
    return "<img data-p=\"" + std::to_string(it->second) + "\" width=\"" + std::to_string(picture.width) +
           "\" height=\"" + std::to_string(picture.height) + "\" alt=\"" + Escape(alt) + "\">";
}

std::string PagePictures::Script() const {
    std::string script = "<script>const pictures = [";
    for (const auto* jpeg : jpegs_) {
        script += "\n'" + JpegDataUri(*jpeg) + "',";
    }
    return script +
           "];\ndocument.querySelectorAll('img[data-p]').forEach(img => { img.src = pictures[img.dataset.p]; });"
           "</script>";
}

std::string Figure(PagePictures& pictures, const ReportPicture& picture, double at,
                   const std::vector<std::string>& labels) {
    std::string caption = SecondsText(at) + " s";
    std::string names;
    for (const std::string& label : labels) names += (names.empty() ? "" : ", ") + label;
    const std::string alt = "frame " + std::to_string(picture.index) + " at " + caption;
    return std::string("<figure") + (labels.empty() ? "" : " class=\"key\"") + ">" + pictures.Img(picture, alt) +
           "<figcaption>" + caption + " &middot; #" + std::to_string(picture.index) +
           (names.empty() ? "" : "<br><b>" + Escape(names) + "</b>") + "</figcaption></figure>";
}

std::string Page(const std::string& title, const std::string& body) {
    static const char* const kStyle = R"(
:root { font-family: system-ui, sans-serif; color: #1d2330; background: #f6f7f9; }
body { margin: 0 auto; padding: 16px; max-width: 1200px; }
h1 { font-size: 1.4em; margin: 0 0 4px; } h2 { font-size: 1.1em; margin: 24px 0 8px; }
.sub { color: #5b6475; margin: 0 0 16px; word-break: break-all; }
.summary { display: grid; grid-template-columns: repeat(auto-fit, minmax(150px, 1fr)); gap: 8px; }
.summary div { background: #fff; border-radius: 8px; padding: 8px 12px; box-shadow: 0 1px 2px #0002; }
.summary b { display: block; font-size: 1.3em; }
.summary span { color: #5b6475; font-size: .85em; }
table { border-collapse: collapse; background: #fff; width: 100%; font-variant-numeric: tabular-nums; }
th, td { text-align: left; padding: 4px 10px; border-bottom: 1px solid #e3e6eb; }
.strip { display: flex; gap: 8px; overflow-x: auto; padding: 4px 0 12px; }
.strip.grid { display: grid; grid-auto-flow: column; grid-template-rows: auto auto; justify-content: start; }
.strip.grid figure { align-self: start; }
.strip .name { writing-mode: vertical-rl; transform: rotate(180deg); font-weight: bold; align-self: center; }
figure.ended { display: flex; align-items: center; justify-content: center; min-width: 60px; cursor: default; }
figure { margin: 0; flex: none; width: min-content; background: #fff; border-radius: 6px; padding: 4px; box-shadow: 0 1px 2px #0002;
         border: 2px solid transparent; cursor: zoom-in; }
figure.key { border-color: #d9480f; }
figure img { display: block; height: 160px; width: auto; border-radius: 3px; }
figcaption { font-size: .75em; color: #5b6475; }
figcaption b { color: #d9480f; }
.chart { width: 100%; height: auto; background: #fff; border-radius: 8px; box-shadow: 0 1px 2px #0002; }
.chart text { font-size: 12px; fill: #5b6475; } .chart .title { font-size: 14px; fill: #1d2330; }
.axes line { stroke: #e3e6eb; } .mark line { stroke: #d9480f; stroke-dasharray: 4 3; }
.mark text { fill: #d9480f; font-size: 11px; } .threshold line { stroke: #2b8a3e; stroke-dasharray: 6 3; }
.threshold text { fill: #2b8a3e; }
#large { position: fixed; inset: 0; background: #000c; display: none; align-items: center; justify-content: center;
         flex-direction: column; cursor: zoom-out; }
#large.open { display: flex; } #large img { max-width: 95vw; max-height: 85vh; image-rendering: auto; }
#large p { color: #fff; }
@media (max-width: 600px) { body { padding: 8px; } figure img { height: 120px; } }
)";
    static const char* const kScript = R"(
const large = document.getElementById('large');
document.querySelectorAll('figure img').forEach(img => img.addEventListener('click', () => {
  large.querySelector('img').src = img.src;
  large.querySelector('p').textContent = img.closest('figure').querySelector('figcaption').textContent;
  large.classList.add('open');
}));
large.addEventListener('click', () => large.classList.remove('open'));
document.addEventListener('keydown', e => { if (e.key === 'Escape') large.classList.remove('open'); });
)";
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
           "<title>" + Escape(title) + "</title><style>" + kStyle + "</style></head><body>" + body +
           "<div id=\"large\"><img alt=\"frame\"><p></p></div><script>" + kScript + "</script></body></html>\n";
}

}  // namespace detail
}  // namespace vyra
