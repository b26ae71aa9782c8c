#include "measure/ReportCollector.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "recording/FfmpegImage.h"

namespace vyra {
namespace detail {

namespace {

// JPEG quantiser scale of the pictures: good enough to read text.
constexpr int kPictureQuality = 4;

}  // namespace

ReportPicture PictureOf(const cv::Mat& frame, int index, double frameTimeMs, const ReportOptions& options) {
    ReportPicture picture;
    picture.index = index;
    picture.frameTime = frameTimeMs / 1000.0;
    const int height = std::clamp(options.pictureHeight, 16, 4096);
    const int width = std::max(1, static_cast<int>(std::lround(frame.cols * static_cast<double>(height) / frame.rows)));
    cv::Mat small;
    cv::resize(frame, small, cv::Size(width, height), 0, 0, cv::INTER_AREA);
    if (small.channels() == 1) cv::cvtColor(small, small, cv::COLOR_GRAY2BGR);
    if (small.channels() == 4) cv::cvtColor(small, small, cv::COLOR_BGRA2BGR);
    picture.width = small.cols;
    picture.height = small.rows;
    picture.jpeg = std::make_shared<const std::vector<unsigned char>>(EncodeJpeg(small, kPictureQuality));
    return picture;
}

FilmstripCollector::FilmstripCollector(const ReportOptions& options) : options_(options) {}

void FilmstripCollector::Add(const cv::Mat& frame, size_t index, double timeMs, bool repeated) {
    picture(timeMs, false);
    heldIndex_ = index;
    heldTimeMs_ = timeMs;
    if (holding_ && repeated) return;  // the same pixels, and picture, go on
    frame.copyTo(held_);
    holding_ = true;
    heldPicture_ = ReportPicture();
}

std::vector<ReportPicture> FilmstripCollector::Finish() {
    if (holding_) picture(heldTimeMs_, true);
    return std::move(strip_);
}

void FilmstripCollector::picture(double untilMs, bool inclusive) {
    if (!holding_) return;
    for (;; ++nextStep_) {
        const double stepMs = static_cast<double>(nextStep_) * options_.intervalMs;
        if (stepMs > untilMs || (!inclusive && stepMs == untilMs)) return;
        if (!heldPicture_.jpeg) {
            heldPicture_ = PictureOf(held_, static_cast<int>(heldIndex_), heldTimeMs_, options_);
        }
        ReportPicture step = heldPicture_;
        step.index = static_cast<int>(heldIndex_);
        step.frameTime = heldTimeMs_ / 1000.0;
        step.shownAt = stepMs / 1000.0;
        strip_.push_back(step);
    }
}

}  // namespace detail
}  // namespace vyra
