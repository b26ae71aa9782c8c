#include "VyraMeasure.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <set>
#include <sstream>
#include <utility>

#include <opencv2/core.hpp>

#include "analysis/AnalysisEntry.h"
#include "analysis/Thresholds.h"
#include "measure/LoadWindow.h"
#include "measure/ReportCollector.h"
#include "recording/FrameTimes.h"
#include "recording/RecordingError.h"
#include "measure/FramePreparer.h"
#include "measure/FrameReloader.h"
#include "measure/Intake.h"
#include "measure/KeyFrames.h"
#include "VyraAnalyzer.h"
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

void validateRegionShape(const Region& region, const char* what) {
    if (region.width < 1 || region.height < 1) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, std::string(what) + " region " +
                                                            detail::DescribeRegion(region) +
                                                            " needs a width and height of at least 1");
    }
}

void validateOptions(const MeasureOptions& options) {
    if (options.timing == Timing::FrameRate && !(options.fps >= kMinFps && options.fps <= kMaxFps)) {
        std::ostringstream given;
        given << options.fps;
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "the frame rate must be a number from 0.001 to 1000000 "
                                                        "with frame-rate timing (got " + given.str() + ")");
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
    if (options.report.collect && !(options.report.intervalMs > 0.0 && std::isfinite(options.report.intervalMs))) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "the report's interval must be a number of ms above 0");
    }
    if (options.maxFramePixels < 1) {
        throw MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                           "the frame size limit must be at least 1 pixel (got " +
                               std::to_string(options.maxFramePixels) + ")");
    }
    if (options.crop) {
        validateRegionShape(*options.crop, "crop");
    }
    for (const Region& region : options.ignore) {
        validateRegionShape(region, "ignore");
    }
}

// Image @p index of the analysis: pixels loaded on demand from the store, or
// read again from the recording when the store did not keep them.
Image storedImage(const detail::Intake& intake, size_t index, detail::LoadWindow& window,
                  detail::FrameReloader& reloader) {
    const cv::Size size = intake.store.FrameSize(index);
    auto loader = [&intake, &window, &reloader, index]() {
        window.BeforeLoad(static_cast<int>(index));
        return intake.store.Resident(index) ? intake.store.Load(index) : reloader.Load(index);
    };
    std::vector<Rect> none;
    return Image(loader, none, size.width, size.height, -1.0, static_cast<int>(index));
}

// The frames of the recording, read for the object detection without
// loading the images: from the store, or read again when the store did not
// keep them; only those whose Image loads them as they are.
class StoredPixels : public detail::PixelSource {
public:
    StoredPixels(const detail::FrameStore& store, detail::FrameReloader& reloader)
        : store_(store), reloader_(reloader) {}

    bool Covers(int index, cv::Size imageSize) const override {
        return store_.FrameSize(static_cast<size_t>(index)) == imageSize;
    }

    bool SameAsPrevious(int index) const override { return store_.SameAsPrevious(static_cast<size_t>(index)); }

    std::shared_ptr<const std::vector<cv::Mat>> Bands(int index) const override {
        const size_t k = static_cast<size_t>(index);
        if (store_.Resident(k)) return store_.Bands(k);
        return std::make_shared<const std::vector<cv::Mat>>(1, reloader_.Load(k));
    }

    bool BandsLast(int index) const override { return store_.Resident(static_cast<size_t>(index)); }

private:
    const detail::FrameStore& store_;
    detail::FrameReloader& reloader_;
};

// An OpenCV failure as the library reports it: running out of memory is
// VYRA_ERROR_NO_MEMORY, anything else an internal error.
MeasureError openCvError(const cv::Exception& e, const std::string& context) {
    if (e.code == cv::Error::StsNoMem) {
        return MeasureError(VYRA_ERROR_NO_MEMORY, "out of memory: " + context + e.what());
    }
    return MeasureError(VYRA_ERROR_INTERNAL, context + e.what());
}

// The frames a report pictures of the analysis: every key frame, once, in
// index order; and for the static analysis every frame's object count and
// content level (detected now where the analysis did not need them).
std::shared_ptr<ReportMaterial> reportMaterial(const Analyzer& analyzer, ImageSets& sets, const AnalysisResult& analysis,
                                               const detail::Intake& intake, const detail::PixelSource& stored,
                                               detail::FrameReloader& reloader, const MeasureOptions& options) {
    auto material = std::make_shared<ReportMaterial>();
    material->intervalMs = options.report.intervalMs;
    material->filmstrip = intake.filmstrip;
    std::set<int> keys;
    for (size_t row = 0; row < KeyFrameFields().size(); ++row) {
        const int index = detail::KeyFrameIndex(row, analysis, intake.visual);
        if (index >= 0 && static_cast<size_t>(index) < intake.store.Size()) keys.insert(index);
    }
    const detail::FrameTiming timing = detail::TimingOf(options);
    for (const int k : keys) {
        const size_t index = static_cast<size_t>(k);
        const cv::Mat frame = intake.store.Resident(index) ? intake.store.Load(index) : reloader.Load(index);
        material->keyFrames.push_back(
            detail::PictureOf(frame, k, detail::FrameTimeMs(timing, index, intake.rawTimesMs), options.report));
    }
    if (options.pageType == STATIC_PAGE) {
        detail::ObjectPrefetch prefetch(sets, true, &stored);
        for (int k = 0; k < sets.size(); ++k) {
            prefetch.Provide(k, true);
            material->objectCounts.push_back(sets[k].GetImageObjectsSize());
            material->contentLevels.push_back(analyzer.DetectImageContentLevel(sets[k]));
        }
        material->objectCountThreshold = detail::kObjectCountThreshold;
        material->contentRatioThreshold = detail::kContentRatioThreshold;
    }
    return material;
}

struct Analysed {
    AnalysisResult analysis;
    std::shared_ptr<const ReportMaterial> report;  // when the options ask for one
};

Analysed analyse(const std::string& path, const detail::Intake& intake, const MeasureOptions& options) {
    detail::ReportProgress(options, MeasureStage::Analysing, 0, 1);
    Analysed analysed;
    {
        detail::LoadWindow window;
        detail::FrameReloader reloader(path, options, intake.ignoreColours);
        std::vector<Image> images;
        images.reserve(intake.store.Size());
        for (size_t k = 0; k < intake.store.Size(); ++k) {
            images.push_back(storedImage(intake, k, window, reloader));
        }
        ImageSets sets(images);
        images.clear();
        window.Attach(sets.imgs());
        // Frames of another size than the last are brought to its size
        // before either analysis, silently (see VyraMeasure.h); the static
        // analysis then finds every frame of its baseline's size.
        detail::AnalysisContext context;
        context.sizeWarning = nullptr;
        detail::AlignImagesToBaseline(sets, sets.size() - 1, context.sizeWarning);
        const Analyzer analyzer(detail::kPsnrThreshold, detail::kBaselineOverlapRatio,
                                detail::kSimilarOverlapRatio, detail::kContentRatioThreshold,
                                detail::kObjectCountThreshold);
        try {
            const StoredPixels stored(intake.store, reloader);
            context.pixels = &stored;
            analysed.analysis = detail::Analyze(analyzer, sets, options.pageType, options.stableBaseline, context);
            if (options.report.collect) {
                analysed.report =
                    reportMaterial(analyzer, sets, analysed.analysis, intake, stored, reloader, options);
            }
        } catch (const cv::Exception& e) {
            throw openCvError(e, "the analysis failed: ");
        }
    }
    detail::ReportProgress(options, MeasureStage::Analysing, 1, 1);
    return analysed;
}

// Seconds from the range's first frame for every frame.
std::vector<double> frameTimes(const detail::Intake& intake, const detail::FrameTiming& timing) {
    std::vector<double> times(intake.rawTimesMs.size());
    for (size_t k = 0; k < times.size(); ++k) {
        times[k] = detail::FrameTimeSeconds(timing, k, intake.rawTimesMs);
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

MeasureResult buildResult(AnalysisResult analysis, const detail::Intake& intake, int width, int height,
                          const MeasureOptions& options) {
    const detail::FrameTiming timing = detail::TimingOf(options);
    MeasureResult result;
    result.frameCount = intake.rawTimesMs.size();
    result.frameWidth = width;
    result.frameHeight = height;
    result.timing = options.timing;
    result.fps = timing.frameRate ? options.fps : 0.0;
    result.launchTimeMode = options.launchTimeMode;
    result.estimatedTimeCount = intake.estimatedTimeCount;
    result.frameTimes = frameTimes(intake, timing);
    const std::vector<KeyFrameField>& fields = KeyFrameFields();
    for (size_t row = 0; row < fields.size(); ++row) {
        result.*fields[row].member = keyFrame(detail::KeyFrameIndex(row, analysis, intake.visual), result.frameTimes);
    }
    if (result.loadFinished.index >= 0) {
        result.launchTime = options.launchTimeMode == LaunchTimeMode::NextFrame
                                ? detail::NextFrameLaunchSeconds(timing, result.loadFinished.index, intake.rawTimesMs,
                                                                 intake.followingTimeMs)
                                : result.loadFinished.time;
    }
    result.speedIndexMs = intake.visual.speedIndexMs;
    result.visual = intake.visual;
    result.analysis = std::move(analysis);
    return result;
}

MeasureResult measure(const std::string& path, const MeasureOptions& options) {
    validateOptions(options);
    const detail::Intake intake = detail::ReadRecording(path, options);
    const cv::Size size = intake.store.FrameSize(intake.store.Size() - 1);
    Analysed analysed = analyse(path, intake, options);
    MeasureResult result = buildResult(std::move(analysed.analysis), intake, size.width, size.height, options);
    result.report = std::move(analysed.report);
    return result;
}

}  // namespace

MeasureResult Measure(const std::string& path, const MeasureOptions& options) {
    try {
        return measure(path, options);
    } catch (const detail::RecordingError& e) {
        throw MeasureError(e.status(), e.what());
    } catch (const cv::Exception& e) {
        throw openCvError(e, "");
    } catch (const std::bad_alloc&) {
        throw MeasureError(VYRA_ERROR_NO_MEMORY, "out of memory");
    }
}

}  // namespace vyra
