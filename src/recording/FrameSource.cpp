#include "recording/FrameSource.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <limits>
#include <system_error>
#include <vector>

#include "recording/FfmpegVideo.h"
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
        : dir_(dir),
          names_(std::move(names)),
          timestamps_(options.timestamps),
          policy_(options.policy),
          limits_(options.limits) {
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
        frame.pixels = ReadFrameFile(dir_ + "/" + name, policy_, limits_);
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
        if (!timestamps_) {
            return std::nullopt;
        }
        if (stop_ >= names_.size()) {
            // No frame follows: absolute time zero, which the next-frame
            // launch time reads then, on the scale of the times above.
            return origin_ ? std::optional<double>(-static_cast<double>(*origin_)) : std::nullopt;
        }
        const std::optional<long long> time = ParseNameTime(names_[stop_]);
        long long sinceOrigin = 0;
        if (!time || !origin_ || __builtin_sub_overflow(*time, *origin_, &sinceOrigin)) {
            return std::nullopt;
        }
        return static_cast<double>(sinceOrigin);
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
        if (*time == LLONG_MAX || *time == LLONG_MIN) {
            throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS, "frame file '" + name +
                                                               "' has a timestamp beyond 64-bit milliseconds");
        }
        previousTime_ = time;
        // Times are kept as ms since the first frame read, taken in 64-bit
        // integers: name times beyond 2^53 ms stay exact.
        if (!origin_) origin_ = time;
        long long sinceOrigin = 0;
        if (__builtin_sub_overflow(*time, *origin_, &sinceOrigin)) {
            throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS,
                                 "frame file '" + name + "' is more than 2^63 ms after the first frame");
        }
        return static_cast<double>(sinceOrigin);
    }

    std::string dir_;
    std::vector<std::string> names_;
    bool timestamps_;
    Policy policy_;
    MediaLimits limits_;
    size_t first_ = 0;
    size_t next_ = 0;
    size_t stop_ = 0;
    size_t expected_ = 0;
    std::optional<long long> previousTime_;
    std::optional<long long> origin_;  // name time of the first frame read
};

// ---- video ----

// Makes the times of a video's frames strictly increasing: a frame without a
// timestamp of its own, or whose timestamp does not come after the previous
// frame's (damaged or oddly muxed files), is timed at the previous frame's
// time plus the mean interval of the frames timed so far (the nominal
// interval while fewer than two are known), and counts as estimated.
class VideoClock {
public:
    explicit VideoClock(double nominalFps) : nominalFps_(nominalFps) {}

    double Stamp(double reportedMs, bool derived, bool& estimated) {
        estimated = count_ > 0 && (derived || !(reportedMs > last_));
        if (estimated) {
            last_ += meanInterval();
        } else {
            if (known_ == 0) firstKnown_ = reportedMs;
            lastKnown_ = reportedMs;
            last_ = reportedMs;
            ++known_;
        }
        ++count_;
        return last_;
    }

private:
    double meanInterval() const {
        if (known_ >= 2) return (lastKnown_ - firstKnown_) / static_cast<double>(known_ - 1);
        if (std::isfinite(nominalFps_) && nominalFps_ > 0.0) return 1000.0 / nominalFps_;
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

// A video read with FFmpeg's libraries (VideoReader): every frame with its
// presentation timestamp.
class VideoSource : public FrameSource {
public:
    VideoSource(const std::string& path, const SourceOptions& options)
        : path_(path),
          range_(options.range),
          limits_(options.limits),
          reader_(std::make_unique<VideoReader>(path, limits_)),
          timestamps_(options.timestamps),
          clock_(reader_->NominalFps()),
          first_(RangeFirst(range_)),
          stop_(RangeStop(range_, std::numeric_limits<size_t>::max())) {
        if (stop_ <= first_) {
            throw RecordingError(VYRA_ERROR_EMPTY, "the range (" + DescribeRange(range_) + ") selects no frame");
        }
        const size_t count = reader_->ExpectedFrameCount();
        const size_t total = std::min(stop_, count);
        expected_ = total > first_ ? total - first_ : 0;
    }

    bool Next(SourceFrame& frame) override {
        skipTo(first_);
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
            reader_ = std::make_unique<VideoReader>(path_, limits_);
            clock_ = VideoClock(reader_->NominalFps());
            position_ = 0;
            ended_ = false;
        }
        skipTo(target);
        return position_ == target;
    }

    size_t ExpectedCount() const override { return expected_; }

    bool Lossless() const override { return reader_->Lossless(); }

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
    // Decodes the next frame (without converting it when @p pixels is null);
    // false at the end of the video.
    bool decode(cv::Mat* pixels, double& timeMs, bool& estimated) {
        double reportedMs = 0.0;
        bool derived = false;
        if (!reader_->Read(pixels, reportedMs, &derived)) {
            ended_ = true;
            return false;
        }
        if (timestamps_) {
            timeMs = clock_.Stamp(reportedMs, derived, estimated);
        }
        ++position_;
        return true;
    }

    void skipTo(size_t target) {
        double timeMs = 0.0;
        bool estimated = false;
        while (position_ < target && !ended_ && decode(nullptr, timeMs, estimated)) {
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
    MediaLimits limits_;
    std::unique_ptr<VideoReader> reader_;
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
