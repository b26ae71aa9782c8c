#include "recording/FrameSource.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <system_error>
#include <vector>

#include <opencv2/videoio.hpp>

#include "recording/OpenCvIo.h"
#include "recording/RecordingError.h"

namespace vyra {
namespace detail {

namespace fs = std::filesystem;

FrameSource::~FrameSource() = default;

namespace {

// ---- folder of PNG frames ----

class FolderSource : public FrameSource {
public:
    FolderSource(const std::string& dir, std::vector<std::string> names, const SourceOptions& options)
        : dir_(dir), names_(std::move(names)), timestamps_(options.timestamps), policy_(options.policy) {
        const FrameRange& range = options.range;
        first_ = next_ = RangeFirst(range);
        stop_ = RangeStop(range, names_.size());
        if (policy_ == Policy::Historic) {
            stop_ = std::max(stop_, next_);
        } else if (names_.empty()) {
            throw RecordingError(VYRA_ERROR_EMPTY, "folder '" + dir + "' holds no PNG frame files");
        } else if (stop_ <= next_) {
            throw RecordingError(VYRA_ERROR_EMPTY, "the range (" + DescribeRange(range) +
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
        frame.pixels = ReadFrameFile(dir_ + "/" + name, policy_);
        ++next_;
        return true;
    }

    bool SeekTo(size_t index) override {
        next_ = first_ + index;
        return true;
    }

    size_t ExpectedCount() const override { return expected_; }

    bool Lossless() const override { return true; }

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
            throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS,
                               "frame file '" + name +
                                   "' carries no timestamp in its name; give a frame rate instead");
        }
        if (previousTime_ && *time <= *previousTime_) {
            throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS,
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
    Policy policy_;
    size_t first_ = 0;
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
        throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS,
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
        throw RecordingError(VYRA_ERROR_UNREADABLE, "cannot open '" + path + "' as a video: " + e.what());
    }
    if (!capture.isOpened()) {
        throw RecordingError(VYRA_ERROR_UNREADABLE,
                             "'" + path + "' is neither a folder nor a video that can be decoded");
    }
    return capture;
}

class VideoSource : public FrameSource {
public:
    VideoSource(const std::string& path, const SourceOptions& options)
        : path_(path),
          range_(options.range),
          capture_(openVideo(path)),
          timestamps_(options.timestamps),
          clock_(capture_.get(cv::CAP_PROP_FPS)),
          first_(RangeFirst(range_)),
          stop_(RangeStop(range_, std::numeric_limits<size_t>::max())) {
        if (stop_ <= first_) {
            throw RecordingError(VYRA_ERROR_EMPTY, "the range (" + DescribeRange(range_) + ") selects no frame");
        }
        const double count = capture_.get(cv::CAP_PROP_FRAME_COUNT);
        if (std::isfinite(count) && count > 0.0) {
            const size_t total = std::min(stop_, static_cast<size_t>(count));
            expected_ = total > first_ ? total - first_ : 0;
        }
    }

    ~VideoSource() override { capture_.release(); }

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

    bool SeekTo(size_t index) override {
        const size_t target = first_ + index;
        if (target < position_) {
            capture_.release();
            capture_ = openVideo(path_);
            clock_ = VideoClock(capture_.get(cv::CAP_PROP_FPS));
            position_ = 0;
            ended_ = false;
        }
        double timeMs = 0.0;
        bool estimated = false;
        while (position_ < target && !ended_ && decode(nullptr, timeMs, estimated)) {
        }
        return position_ == target;
    }

    size_t ExpectedCount() const override { return expected_; }

    // OpenCV names the codec only by a four-character code.
    bool Lossless() const override {
        const int code = static_cast<int>(capture_.get(cv::CAP_PROP_FOURCC));
        for (const char* lossless : {"FFV1", "png ", "MPNG", "HFYU", "FFVH", "UTVD"}) {
            if (code == cv::VideoWriter::fourcc(lossless[0], lossless[1], lossless[2], lossless[3])) return true;
        }
        return false;
    }

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
            return read(pixels, timeMs, estimated);
        } catch (const cv::Exception& e) {
            throw RecordingError(VYRA_ERROR_UNREADABLE, "decoding '" + path_ + "' failed: " + std::string(e.what()));
        }
    }

    bool read(cv::Mat* pixels, double& timeMs, bool& estimated) {
        const bool ok = pixels == nullptr ? capture_.grab() : capture_.read(*pixels) && !pixels->empty();
        if (!ok) {
            ended_ = true;
            return false;
        }
        if (timestamps_) {
            timeMs = clock_.Stamp(capture_.get(cv::CAP_PROP_POS_MSEC), estimated);
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
            throw RecordingError(VYRA_ERROR_UNREADABLE, "no frame of '" + path_ + "' could be decoded");
        }
        throw RecordingError(VYRA_ERROR_EMPTY, "the range (" + DescribeRange(range_) + ") selects no frame of the " +
                                                   std::to_string(position_) + " frames in '" + path_ + "'");
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

// A video as analyse() reads it: every frame, through OpenCV's own choice of
// back end; a video that does not open has no frames, and a failure of
// OpenCV passes through.
class HistoricVideoSource : public FrameSource {
public:
    explicit HistoricVideoSource(const std::string& path) : capture_(path) {}

    bool Next(SourceFrame& frame) override {
        if (!capture_.IsOpened() || !capture_.Read(frame.pixels) || frame.pixels.empty()) {
            return false;
        }
        frame.label = "frame " + std::to_string(count_++);
        return true;
    }

    bool SeekTo(size_t) override { return false; }

    size_t ExpectedCount() const override { return 0; }

    bool Lossless() const override { return false; }

    std::optional<double> FollowingTimeMs() override { return std::nullopt; }

private:
    OpenCvCapture capture_;
    size_t count_ = 0;
};

}  // namespace

std::unique_ptr<FrameSource> OpenFolderSource(const std::string& dir, std::vector<std::string> names,
                                              const SourceOptions& options) {
    return std::make_unique<FolderSource>(dir, std::move(names), options);
}

std::unique_ptr<FrameSource> OpenVideoSource(const std::string& path, const SourceOptions& options) {
    if (options.policy == Policy::Historic) {
        return std::make_unique<HistoricVideoSource>(path);
    }
    return std::make_unique<VideoSource>(path, options);
}

std::unique_ptr<FrameSource> OpenFrameSource(const std::string& path, const SourceOptions& options) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) {
        throw RecordingError(VYRA_ERROR_NOT_FOUND, "recording '" + path + "' does not exist");
    }
    if (!fs::is_directory(status)) {
        return OpenVideoSource(path, options);
    }
    std::vector<std::string> names;
    ListFrameFiles(path, options.policy, names);
    SortFrameNames(names);
    return OpenFolderSource(path, std::move(names), options);
}

}  // namespace detail
}  // namespace vyra
