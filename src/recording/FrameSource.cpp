#include "recording/FrameSource.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <system_error>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "VyraMeasure.h"

namespace vyra {
namespace detail {

namespace fs = std::filesystem;

size_t RangeFirst(const FrameRange& range) {
    return range.start > 0 ? static_cast<size_t>(range.start) : 0;
}

size_t RangeStop(const FrameRange& range, size_t count) {
    const size_t stop = range.end > 1 ? static_cast<size_t>(range.end) + 1 : count;
    return std::min(stop, count);
}

FrameSource::~FrameSource() = default;

std::optional<long long> ParseNameTime(const std::string& name) {
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
    const char* text = stem.c_str();
    char* stop = nullptr;
    const long long value = std::strtoll(text, &stop, 10);
    if (stop == text) {
        return std::nullopt;
    }
    return value;
}

namespace {

std::string describeRange(const FrameRange& range) {
    return "start " + std::to_string(range.start) + ", end " + std::to_string(range.end);
}

// ---- folder of PNG frames ----

bool isFrameFileName(const std::string& name) {
    if (name.empty() || name[0] == '.') {
        return false;
    }
    const size_t dot = name.rfind('.');
    const std::string extension = dot == std::string::npos ? name : name.substr(dot + 1);
    return extension == "png";
}

std::vector<std::string> listFrameFiles(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code error;
    fs::directory_iterator it(dir, error);
    if (error) {
        throw MeasureError(VYRA_ERROR_UNREADABLE, "cannot list folder '" + dir + "': " + error.message());
    }
    for (; it != fs::directory_iterator(); it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (isFrameFileName(name)) {
            names.push_back(name);
        }
    }
    if (error) {
        throw MeasureError(VYRA_ERROR_UNREADABLE, "cannot list folder '" + dir + "': " + error.message());
    }
    std::sort(names.begin(), names.end());
    return names;
}

cv::Mat decodeFrameFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<unsigned char> bytes;
    if (in) {
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    cv::Mat frame;
    if (!bytes.empty()) {
        try {
            frame = cv::imdecode(bytes, cv::IMREAD_COLOR);
        } catch (const cv::Exception&) {
            frame.release();
        }
    }
    if (frame.empty()) {
        throw MeasureError(VYRA_ERROR_UNREADABLE, "cannot read or decode frame file '" + file + "'");
    }
    return frame;
}

class FolderSource : public FrameSource {
public:
    FolderSource(const std::string& dir, const FrameRange& range, bool timestamps)
        : dir_(dir), names_(listFrameFiles(dir)), timestamps_(timestamps) {
        if (names_.empty()) {
            throw MeasureError(VYRA_ERROR_EMPTY, "folder '" + dir + "' holds no PNG frame files");
        }
        next_ = RangeFirst(range);
        stop_ = RangeStop(range, names_.size());
        if (stop_ <= next_) {
            throw MeasureError(VYRA_ERROR_EMPTY, "the range (" + describeRange(range) +
                                                     ") selects no frame of the " +
                                                     std::to_string(names_.size()) +
                                                     " PNG files in '" + dir + "'");
        }
        expected_ = stop_ - next_;
    }

    bool Next(SourceFrame& frame) override {
        if (next_ >= stop_) {
            return false;
        }
        const std::string& name = names_[next_];
        frame.label = name;
        frame.timeEstimated = false;
        frame.timeMs = timestamps_ ? timeOf(name) : 0.0;
        frame.pixels = decodeFrameFile(dir_ + "/" + name);
        ++next_;
        return true;
    }

    size_t ExpectedCount() const override { return expected_; }

    std::optional<double> FollowingTimeMs() override {
        if (!timestamps_ || stop_ >= names_.size()) {
            return std::nullopt;
        }
        const std::optional<long long> time = ParseNameTime(names_[stop_]);
        if (!time) {
            return std::nullopt;
        }
        return static_cast<double>(*time);
    }

private:
    double timeOf(const std::string& name) {
        const std::optional<long long> time = ParseNameTime(name);
        if (!time) {
            throw MeasureError(VYRA_ERROR_NO_TIMESTAMPS,
                               "frame file '" + name +
                                   "' carries no timestamp in its name; give a frame rate instead");
        }
        if (previousTime_ && *time <= *previousTime_) {
            throw MeasureError(VYRA_ERROR_NO_TIMESTAMPS,
                               "frame file '" + name + "' has a timestamp (" + std::to_string(*time) +
                                   ") not above the previous one (" + std::to_string(*previousTime_) +
                                   "); names must sort in time order (zero-pad them) or give a "
                                   "frame rate instead");
        }
        previousTime_ = time;
        return static_cast<double>(*time);
    }

    std::string dir_;
    std::vector<std::string> names_;
    bool timestamps_;
    size_t next_ = 0;
    size_t stop_ = 0;
    size_t expected_ = 0;
    std::optional<long long> previousTime_;
};

// ---- video ----

// Turns the CAP_PROP_POS_MSEC value reported after each decoded frame into
// the frame's time, estimating the frames whose timestamp went missing.
class VideoClock {
public:
    explicit VideoClock(double nominalFps) : nominalFps_(nominalFps) {}

    double Stamp(double reportedMs, bool& estimated) {
        if (count_ == 0 && !std::isfinite(reportedMs)) {
            reportedMs = 0.0;
        }
        estimated = count_ > 0 && !(reportedMs > last_ && std::isfinite(reportedMs));
        if (estimated) {
            last_ += meanInterval();
        } else {
            if (known_ == 0) {
                firstKnown_ = reportedMs;
            }
            lastKnown_ = reportedMs;
            last_ = reportedMs;
            ++known_;
        }
        ++count_;
        return last_;
    }

private:
    double meanInterval() const {
        if (known_ >= 2) {
            return (lastKnown_ - firstKnown_) / static_cast<double>(known_ - 1);
        }
        if (std::isfinite(nominalFps_) && nominalFps_ > 0.0) {
            return 1000.0 / nominalFps_;
        }
        throw MeasureError(VYRA_ERROR_NO_TIMESTAMPS,
                           "the video reports no usable frame timestamps; give a frame rate instead");
    }

    double nominalFps_;
    size_t count_ = 0;
    size_t known_ = 0;
    double firstKnown_ = 0.0;
    double lastKnown_ = 0.0;
    double last_ = 0.0;
};

// Videos are read through OpenCV's FFmpeg back end only: it reads every
// container and codec FFmpeg knows, reports presentation timestamps, and
// fails quietly where other back ends (GStreamer) print their own errors.
cv::VideoCapture openVideo(const std::string& path) {
    cv::VideoCapture capture;
    try {
        capture.open(path, cv::CAP_FFMPEG);
    } catch (const cv::Exception& e) {
        throw MeasureError(VYRA_ERROR_UNREADABLE, "cannot open '" + path + "' as a video: " + e.what());
    }
    if (!capture.isOpened()) {
        throw MeasureError(VYRA_ERROR_UNREADABLE,
                           "'" + path + "' is neither a folder nor a video that can be decoded");
    }
    return capture;
}

class VideoSource : public FrameSource {
public:
    VideoSource(const std::string& path, const FrameRange& range, bool timestamps)
        : path_(path),
          range_(range),
          capture_(openVideo(path)),
          timestamps_(timestamps),
          clock_(capture_.get(cv::CAP_PROP_FPS)),
          first_(RangeFirst(range)),
          stop_(RangeStop(range, std::numeric_limits<size_t>::max())) {
        if (stop_ <= first_) {
            throw MeasureError(VYRA_ERROR_EMPTY,
                               "the range (" + describeRange(range) + ") selects no frame");
        }
        const double count = capture_.get(cv::CAP_PROP_FRAME_COUNT);
        if (std::isfinite(count) && count > 0.0) {
            const size_t total = std::min(stop_, static_cast<size_t>(count));
            expected_ = total > first_ ? total - first_ : 0;
        }
    }

    bool Next(SourceFrame& frame) override {
        skipToRange();
        double timeMs = 0.0;
        bool estimated = false;
        // Decodes into the frame's buffer, reusing it when it has the size.
        if (position_ >= stop_ || ended_ || !decode(&frame.pixels, timeMs, estimated)) {
            checkNotEmpty();
            return false;
        }
        frame.timeMs = timeMs;
        frame.timeEstimated = estimated;
        frame.label = "frame " + std::to_string(position_ - 1);
        return true;
    }

    size_t ExpectedCount() const override { return expected_; }

    std::optional<double> FollowingTimeMs() override {
        if (!timestamps_ || ended_) {
            return std::nullopt;
        }
        double timeMs = 0.0;
        bool estimated = false;
        if (!decode(nullptr, timeMs, estimated)) {
            return std::nullopt;
        }
        return timeMs;
    }

private:
    // Decodes the next frame (only grabs it when @p pixels is null); false at
    // the end of the video.
    bool decode(cv::Mat* pixels, double& timeMs, bool& estimated) {
        try {
            const bool ok = capture_.grab() && (pixels == nullptr || capture_.retrieve(*pixels)) &&
                            (pixels == nullptr || !pixels->empty());
            if (!ok) {
                ended_ = true;
                return false;
            }
            if (timestamps_) {
                timeMs = clock_.Stamp(capture_.get(cv::CAP_PROP_POS_MSEC), estimated);
            }
        } catch (const cv::Exception& e) {
            throw MeasureError(VYRA_ERROR_UNREADABLE,
                               "decoding '" + path_ + "' failed: " + std::string(e.what()));
        }
        ++position_;
        return true;
    }

    void skipToRange() {
        double timeMs = 0.0;
        bool estimated = false;
        while (position_ < first_ && !ended_ && decode(nullptr, timeMs, estimated)) {
        }
    }

    void checkNotEmpty() const {
        if (position_ > first_) {
            return;
        }
        if (position_ == 0) {
            throw MeasureError(VYRA_ERROR_UNREADABLE, "no frame of '" + path_ + "' could be decoded");
        }
        throw MeasureError(VYRA_ERROR_EMPTY, "the range (" + describeRange(range_) +
                                                 ") selects no frame of the " +
                                                 std::to_string(position_) + " frames in '" + path_ +
                                                 "'");
    }

    std::string path_;
    FrameRange range_;
    cv::VideoCapture capture_;
    bool timestamps_;
    VideoClock clock_;
    size_t first_;
    size_t stop_;
    size_t position_ = 0;  // frames decoded so far
    size_t expected_ = 0;
    bool ended_ = false;
};

}  // namespace

std::unique_ptr<FrameSource> OpenFrameSource(const std::string& path, const FrameRange& range,
                                             bool timestamps) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) {
        throw MeasureError(VYRA_ERROR_NOT_FOUND, "recording '" + path + "' does not exist");
    }
    if (fs::is_directory(status)) {
        return std::make_unique<FolderSource>(path, range, timestamps);
    }
    return std::make_unique<VideoSource>(path, range, timestamps);
}

}  // namespace detail
}  // namespace vyra
