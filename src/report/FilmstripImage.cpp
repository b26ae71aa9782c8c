// The filmstrip as one PNG contact sheet (VyraLaunchReport.h).
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraLaunchReport.h"
#include "recording/FfmpegImage.h"
#include "report/Html.h"
#include "report/ReportParts.h"

namespace vyra {
namespace detail {

namespace {

constexpr int kColumns = 10;
constexpr int kPictureHeight = 160;  // pictures are scaled down to this height at most
constexpr int kPadding = 8;
constexpr int kLineHeight = 16;
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kFontScale = 0.4;
const cv::Scalar kBackground(255, 255, 255);
const cv::Scalar kText(48, 35, 29);
const cv::Scalar kKey(15, 72, 217);  // BGR of the HTML report's key-frame colour

// The pictures of @p strip decoded and scaled to one height, each JPEG decoded once.
std::vector<cv::Mat> thumbnails(const std::vector<StripEntry>& strip) {
    std::map<const std::vector<unsigned char>*, cv::Mat> decoded;
    std::vector<cv::Mat> thumbs;
    for (const StripEntry& entry : strip) {
        cv::Mat& thumb = decoded[entry.picture->jpeg.get()];
        if (thumb.empty()) {
            const cv::Mat picture = DecodeJpeg(*entry.picture->jpeg);
            const int height = std::min(kPictureHeight, picture.rows);
            const int width = std::max(1, picture.cols * height / picture.rows);
            cv::resize(picture, thumb, cv::Size(width, height), 0, 0, cv::INTER_AREA);
        }
        thumbs.push_back(thumb);
    }
    return thumbs;
}

void text(cv::Mat& sheet, const std::string& line, int x, int baseline, const cv::Scalar& colour) {
    cv::putText(sheet, line, cv::Point(x, baseline), kFont, kFontScale, colour, 1, cv::LINE_AA);
}

}  // namespace

cv::Mat FilmstripSheet(const MeasureResult& result) {
    const std::vector<StripEntry> strip = MergedFilmstrip(result);
    const std::vector<cv::Mat> thumbs = thumbnails(strip);
    int width = 1, height = 1;
    size_t labelLines = 0;
    for (size_t k = 0; k < strip.size(); ++k) {
        width = std::max(width, thumbs[k].cols);
        height = std::max(height, thumbs[k].rows);
        labelLines = std::max(labelLines, strip[k].labels.size());
    }
    const int cellWidth = width + 2 * kPadding;
    const int cellHeight = height + 2 * kPadding + kLineHeight * static_cast<int>(1 + labelLines);
    const int columns = std::max(1, std::min<int>(kColumns, static_cast<int>(strip.size())));
    const int rows = std::max(1, static_cast<int>((strip.size() + columns - 1) / columns));
    cv::Mat sheet(rows * cellHeight, columns * cellWidth, CV_8UC3, kBackground);
    for (size_t k = 0; k < strip.size(); ++k) {
        const int x = static_cast<int>(k % columns) * cellWidth + kPadding;
        const int y = static_cast<int>(k / columns) * cellHeight + kPadding;
        thumbs[k].copyTo(sheet(cv::Rect(x, y, thumbs[k].cols, thumbs[k].rows)));
        if (!strip[k].labels.empty()) {
            cv::rectangle(sheet, cv::Rect(x - 3, y - 3, thumbs[k].cols + 6, thumbs[k].rows + 6), kKey, 2);
        }
        int baseline = y + height + kLineHeight;
        text(sheet, SecondsText(strip[k].at) + " s  #" + std::to_string(strip[k].picture->index), x, baseline, kText);
        for (const std::string& label : strip[k].labels) {
            baseline += kLineHeight;
            text(sheet, label, x, baseline, kKey);
        }
    }
    return sheet;
}

}  // namespace detail

void WriteFilmstrip(const std::string& pngPath, const MeasureResult& result) {
    detail::RunWriter(pngPath, [&] { detail::WritePng(pngPath, detail::FilmstripSheet(result)); });
}

}  // namespace vyra
