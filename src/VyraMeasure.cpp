#include "VyraMeasure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "DefaultThresholds.h"
#include "FrameAlignment.h"
#include "VyraAnalyzer.h"
#include "VyraFrameSource.h"
#include "VyraImage.h"
#include "VyraImageSets.h"

namespace vyra {

MeasureError::MeasureError(VyraStatus status, const std::string& message)
    : std::runtime_error(message), status_(status) {}

VyraStatus MeasureError::status() const noexcept { return status_; }

const char* StatusString(VyraStatus status) {
    switch (status) {
        case VYRA_OK: return "ok";
        case VYRA_ERROR_INVALID_ARGUMENT: return "invalid argument";
        case VYRA_ERROR_NOT_FOUND: return "not found";
        case VYRA_ERROR_UNREADABLE: return "unreadable input";
        case VYRA_ERROR_EMPTY: return "no frames to analyse";
        case VYRA_ERROR_NO_MEMORY: return "out of memory";
        case VYRA_ERROR_INTERNAL: return "internal error";
        case VYRA_ERROR_NO_TIMESTAMPS: return "no usable timestamps";
        case VYRA_ERROR_WRITE: return "cannot write output";
    }
    return "unknown status";
}

namespace {

namespace fs = std::filesystem;


std::string describe(const Region& region) {
    return std::to_string(region.x) + "," + std::to_string(region.y) + "," +
           std::to_string(region.width) + "," + std::to_string(region.height);
}

void validateRegionShape(const Region& region, const char* what) {
    if (region.width < 1 || region.height < 1) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, std::string(what) + " region " +
                                                            describe(region) +
                                                            " needs a width and height of at least 1");
    }
}

void validateOptions(const MeasureOptions& options) {
    if (options.timing == Timing::FrameRate && !(std::isfinite(options.fps) && options.fps > 0.0)) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                           "the frame rate must be a number above 0 with frame-rate timing (got " +
                               std::to_string(options.fps) + ")");
    }
    if (options.timing != Timing::FrameRate && options.timing != Timing::Timestamps) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "unknown timing");
    }
    if (options.pageType != STATIC_PAGE && options.pageType != DYNAMIC_PAGE) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                           "unknown page type " + std::to_string(static_cast<int>(options.pageType)));
    }
    if (options.launchTimeMode != LaunchTimeMode::LoadFinishedFrame &&
        options.launchTimeMode != LaunchTimeMode::NextFrame) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "unknown launch time mode");
    }
    if (options.crop) {
        validateRegionShape(*options.crop, "crop");
    }
    for (const Region& region : options.ignore) {
        validateRegionShape(region, "ignore");
    }
}

cv::Rect toRect(const Region& region) { return cv::Rect(region.x, region.y, region.width, region.height); }

// Per-channel median of the pixels of @p frame inside @p area that are not
// inside @p hole.
cv::Scalar medianColour(const cv::Mat& frame, const cv::Rect& area, const cv::Rect& hole) {
    const int channels = frame.channels();
    std::vector<std::vector<unsigned char>> values(static_cast<size_t>(channels));
    for (int y = area.y; y < area.y + area.height; ++y) {
        const unsigned char* row = frame.ptr<unsigned char>(y);
        for (int x = area.x; x < area.x + area.width; ++x) {
            if (hole.contains(cv::Point(x, y))) {
                continue;
            }
            for (int c = 0; c < channels; ++c) {
                values[static_cast<size_t>(c)].push_back(row[x * channels + c]);
            }
        }
    }
    cv::Scalar colour;
    for (int c = 0; c < channels && c < 4; ++c) {
        std::vector<unsigned char>& v = values[static_cast<size_t>(c)];
        if (v.empty()) {
            continue;
        }
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        colour[c] = v[v.size() / 2];
    }
    return colour;
}

// The flat colour an ignore region is painted in: the median of the ring of
// pixels just outside it, or of its own outermost pixels when it covers the
// whole frame.
cv::Scalar ignoreColour(const cv::Mat& frame, const cv::Rect& region) {
    const cv::Rect bounds(0, 0, frame.cols, frame.rows);
    const cv::Rect ring = cv::Rect(region.x - 1, region.y - 1, region.width + 2, region.height + 2) & bounds;
    if (ring.area() > region.area()) {
        return medianColour(frame, ring, region);
    }
    const cv::Rect inner(region.x + 1, region.y + 1, std::max(region.width - 2, 0),
                         std::max(region.height - 2, 0));
    return medianColour(frame, region, inner);
}

// Paints the ignore regions and cuts the crop out of every frame; the paint
// colours are taken from the first frame it sees.
class FramePreparer {
public:
    explicit FramePreparer(const MeasureOptions& options) : options_(options) {}

    cv::Mat Prepare(const cv::Mat& decoded, const std::string& label) {
        for (const Region& region : options_.ignore) {
            checkInside(region, decoded, label, "ignore");
        }
        if (options_.crop) {
            checkInside(*options_.crop, decoded, label, "crop");
        }
        if (colours_.empty()) {
            for (const Region& region : options_.ignore) {
                colours_.push_back(ignoreColour(decoded, toRect(region)));
            }
        }
        cv::Mat frame = decoded;
        for (size_t k = 0; k < options_.ignore.size(); ++k) {
            cv::rectangle(frame, toRect(options_.ignore[k]), colours_[k], cv::FILLED);
        }
        if (options_.crop) {
            frame = frame(toRect(*options_.crop)).clone();
        }
        return frame;
    }

private:
    static void checkInside(const Region& region, const cv::Mat& frame, const std::string& label,
                            const char* what) {
        const cv::Rect rect = toRect(region);
        if ((rect & cv::Rect(0, 0, frame.cols, frame.rows)) != rect) {
            throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                               std::string(what) + " region " + describe(region) +
                                   " does not lie inside " + label + " (" +
                                   std::to_string(frame.cols) + "x" + std::to_string(frame.rows) + ")");
        }
    }

    const MeasureOptions& options_;
    std::vector<cv::Scalar> colours_;
};

// Writes the analysed frames as dir/%08d.png.
class FrameSaver {
public:
    explicit FrameSaver(const std::string& dir) : dir_(dir) {
        if (dir_.empty()) {
            return;
        }
        std::error_code error;
        fs::create_directories(dir_, error);
        if (error || !fs::is_directory(dir_)) {
            throw MeasureError(VYRA_ERROR_WRITE, "cannot create folder '" + dir_ + "'" +
                                                     (error ? ": " + error.message() : ""));
        }
    }

    void Save(const cv::Mat& frame, size_t index) const {
        if (dir_.empty()) {
            return;
        }
        char name[32];
        std::snprintf(name, sizeof name, "%08zu.png", index);
        const std::string file = (fs::path(dir_) / name).string();
        bool written = false;
        try {
            written = cv::imwrite(file, frame);
        } catch (const cv::Exception&) {
            written = false;
        }
        if (!written) {
            throw MeasureError(VYRA_ERROR_WRITE, "cannot write frame file '" + file + "'");
        }
    }

private:
    std::string dir_;
};

// The frames of the range, prepared for the analysis, with their raw times.
struct Intake {
    std::vector<Image> images;
    std::vector<double> rawTimesMs;
    std::optional<double> followingTimeMs;
    size_t estimatedTimeCount = 0;
    VisualProgress visual;
};

void report(const MeasureOptions& options, MeasureStage stage, size_t done, size_t total) {
    if (options.progress) {
        options.progress(stage, done, total);
    }
}

// Milliseconds of frame @p index from the range's first frame: index / fps,
// or the raw time less the first frame's raw time.
double relativeTimeMs(size_t index, const std::vector<double>& rawTimesMs, const MeasureOptions& options) {
    return options.timing == Timing::FrameRate
               ? static_cast<double>(index) * 1000.0 / options.fps
               : rawTimesMs[index] - rawTimesMs.front();
}

void trackProgress(VisualProgressTracker& tracker, const cv::Mat& frame, double timeMs,
                   const std::string& label) {
    if (!tracker.AddFrame(frame, timeMs)) {
        throw MeasureError(VYRA_ERROR_INTERNAL,
                           "the visual progress cannot take " + label + " (unsupported pixels or a time "
                           "before the previous frame's)");
    }
}

Intake collectFrames(const std::string& path, const MeasureOptions& options) {
    const bool timestamps = options.timing == Timing::Timestamps;
    std::unique_ptr<detail::FrameSource> source =
        detail::OpenFrameSource(path, detail::FrameRange{options.start, options.end}, timestamps);
    FramePreparer preparer(options);
    const FrameSaver saver(options.saveFramesDir);
    VisualProgressTracker tracker(options.visualProgress);
    Intake intake;
    detail::SourceFrame decoded;
    while (source->Next(decoded)) {
        cv::Mat frame = preparer.Prepare(decoded.pixels, decoded.label);
        decoded.pixels.release();
        const size_t index = intake.images.size();
        saver.Save(frame, index);
        intake.rawTimesMs.push_back(decoded.timeMs);
        trackProgress(tracker, frame, relativeTimeMs(index, intake.rawTimesMs, options), decoded.label);
        intake.images.emplace_back(frame, static_cast<int>(index));
        intake.estimatedTimeCount += decoded.timeEstimated ? 1 : 0;
        report(options, MeasureStage::Decoding, index + 1, std::max(source->ExpectedCount(), index + 1));
    }
    intake.followingTimeMs = source->FollowingTimeMs();
    intake.visual = tracker.Finish();
    return intake;
}

// Brings every frame to the size of the last one, as the analysis would,
// so that the analysis has nothing to align (and nothing to announce).
void alignToLastFrame(std::vector<Image>& images) {
    const int width = images.back().width();
    const int height = images.back().height();
    for (Image& image : images) {
        if (image.width() != width || image.height() != height) {
            const bool portrait = image.width() <= image.height();
            detail::AlignFrameToBaseline(image.img(), portrait, width, height);
        }
    }
}

AnalysisResult analyse(std::vector<Image>& images, const MeasureOptions& options) {
    report(options, MeasureStage::Analysing, 0, 1);
    AnalysisResult analysis;
    {
        ImageSets sets(images);
        images.clear();
        const Analyzer analyzer(detail::kPsnrThreshold, detail::kBaselineOverlapRatio,
                                detail::kSimilarOverlapRatio, detail::kContentRatioThreshold,
                                detail::kObjectCountThreshold);
        try {
            analysis = analyzer.Analyze(sets, options.pageType, options.stableBaseline);
        } catch (const cv::Exception& e) {
            throw MeasureError(VYRA_ERROR_INTERNAL, std::string("the analysis failed: ") + e.what());
        }
    }
    report(options, MeasureStage::Analysing, 1, 1);
    return analysis;
}

// Seconds from the range's first frame for every frame.
std::vector<double> relativeTimes(const Intake& intake, const MeasureOptions& options) {
    std::vector<double> times(intake.rawTimesMs.size());
    for (size_t k = 0; k < times.size(); ++k) {
        times[k] = options.timing == Timing::FrameRate
                       ? static_cast<double>(k) / options.fps
                       : relativeTimeMs(k, intake.rawTimesMs, options) / 1000.0;
    }
    return times;
}

KeyFrame keyFrame(int index, const std::vector<double>& times) {
    KeyFrame key;
    if (index >= 0 && static_cast<size_t>(index) < times.size()) {
        key.index = index;
        key.time = times[static_cast<size_t>(index)];
    }
    return key;
}

// Time of frame @p index + 1 as the historic entry reads it (see the header).
double nextFrameTime(int index, const std::vector<double>& times, const Intake& intake,
                     const MeasureOptions& options) {
    const size_t next = static_cast<size_t>(index) + 1;
    if (options.timing == Timing::FrameRate) {
        return static_cast<double>(next) / options.fps;
    }
    if (next < times.size()) {
        return times[next];
    }
    const double absoluteMs = intake.followingTimeMs.value_or(0.0);
    return (absoluteMs - intake.rawTimesMs.front()) / 1000.0;
}

MeasureResult buildResult(AnalysisResult analysis, const Intake& intake, int width, int height,
                          const MeasureOptions& options) {
    MeasureResult result;
    result.frameCount = intake.rawTimesMs.size();
    result.frameWidth = width;
    result.frameHeight = height;
    result.timing = options.timing;
    result.fps = options.timing == Timing::FrameRate ? options.fps : 0.0;
    result.launchTimeMode = options.launchTimeMode;
    result.estimatedTimeCount = intake.estimatedTimeCount;
    result.frameTimes = relativeTimes(intake, options);
    const std::vector<double>& times = result.frameTimes;
    result.loadFinished = keyFrame(analysis.loadFinishedIndex, times);
    result.baseline = keyFrame(analysis.staticResult.baselineIndex, times);
    result.logoAppear = keyFrame(analysis.staticResult.logoAppearIndex, times);
    result.logoDisappear = keyFrame(analysis.staticResult.logoDisappearIndex, times);
    result.firstFrame = keyFrame(analysis.staticResult.firstFrameIndex, times);
    result.motionStart = keyFrame(analysis.dynamicResult.motionStartIndex, times);
    if (result.loadFinished.index >= 0) {
        result.launchTime = options.launchTimeMode == LaunchTimeMode::NextFrame
                                ? nextFrameTime(result.loadFinished.index, times, intake, options)
                                : result.loadFinished.time;
    }
    result.firstVisualChange = keyFrame(intake.visual.firstVisualChange, times);
    result.lastVisualChange = keyFrame(intake.visual.lastVisualChange, times);
    result.visuallyComplete85 = keyFrame(intake.visual.visuallyComplete85, times);
    result.visuallyComplete95 = keyFrame(intake.visual.visuallyComplete95, times);
    result.visuallyComplete99 = keyFrame(intake.visual.visuallyComplete99, times);
    result.speedIndexMs = intake.visual.speedIndexMs;
    result.visual = intake.visual;
    result.analysis = std::move(analysis);
    return result;
}

}  // namespace

MeasureResult Measure(const std::string& path, const MeasureOptions& options) {
    validateOptions(options);
    Intake intake = collectFrames(path, options);
    alignToLastFrame(intake.images);
    const int width = intake.images.back().width();
    const int height = intake.images.back().height();
    AnalysisResult analysis = analyse(intake.images, options);
    return buildResult(std::move(analysis), intake, width, height, options);
}

}  // namespace vyra
