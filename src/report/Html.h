// Internal: the pieces the HTML reports are made of: text escaped for HTML,
// pictures as data URIs, numbers as the reports print them, and charts as
// inline SVG.
#ifndef VYRA_REPORT_HTML_H
#define VYRA_REPORT_HTML_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "VyraReport.h"

namespace vyra {
namespace detail {

/** @p text with &, <, >, " and ' replaced by entities. */
std::string Escape(const std::string& text);

/** "data:image/jpeg;base64,..." of JPEG bytes. */
std::string JpegDataUri(const std::vector<unsigned char>& jpeg);

/** Seconds with three decimals, "-" for NaN. */
std::string SecondsText(double seconds);

/** A line of a chart: points in data units, drawn as steps (each value held to the next point) or straight. */
struct ChartSeries {
    std::string name;
    std::string colour;  // CSS colour
    std::vector<std::pair<double, double>> points;
    bool steps = true;
};

/** A vertical mark at x (a key frame) or a horizontal one at y (a threshold), with its label. */
struct ChartMark {
    double at = 0.0;
    std::string label;
};

struct Chart {
    std::string title;
    std::string xLabel;
    std::string yLabel;
    double xMax = 1.0;  // x runs from 0
    double yMin = 0.0;
    double yMax = 1.0;
    std::vector<ChartSeries> series;
    std::vector<ChartMark> xMarks;
    std::vector<ChartMark> yMarks;
};

/** @p chart as an inline <svg> element that scales to the page's width. */
std::string Svg(const Chart& chart);

/**
 * The pictures of a page, each JPEG stored once however often the page
 * shows it (a filmstrip shows a still screen at many steps).
 */
class PagePictures {
public:
    /** An <img> of @p picture (which must hold a JPEG), alt text @p alt. */
    std::string Img(const ReportPicture& picture, const std::string& alt);
    /** The <script> that gives every <img> of Img() its picture; once per page, after them. */
    std::string Script() const;

private:
    // Pictures of equal bytes are one (the filmstrip and the key frames
    // picture a frame separately; the encoder is deterministic).
    struct SameBytes {
        bool operator()(const std::vector<unsigned char>* a, const std::vector<unsigned char>* b) const {
            return *a < *b;
        }
    };
    std::map<const std::vector<unsigned char>*, size_t, SameBytes> ids_;
    std::vector<const std::vector<unsigned char>*> jpegs_;
};

/** A filmstrip <figure>: @p picture, the moment @p at (seconds) and, on key frames, @p labels. */
std::string Figure(PagePictures& pictures, const ReportPicture& picture, double at,
                   const std::vector<std::string>& labels);

/** The page around @p body: doctype, head with the reports' style sheet and @p title, and their script. */
std::string Page(const std::string& title, const std::string& body);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_REPORT_HTML_H
