// The C interface: settings and results as fixed structures over
// vyra::Measure, with every exception caught at the boundary.
#include "vyra.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "VyraLaunchReport.h"
#include "VyraMeasure.h"
#include "measure/KeyFrames.h"

#ifndef VYRA_VERSION_STRING
#define VYRA_VERSION_STRING "0.0.0"
#endif

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

VyraKeyFrame noKeyFrame() { return VyraKeyFrame{-1, kNaN}; }

VyraResult emptyResult() {
    VyraResult r;
    std::memset(&r, 0, sizeof r);
    r.struct_size = sizeof r;
    r.status = VYRA_OK;
    r.page_type = VYRA_PAGE_STATIC;
    r.timing = VYRA_TIMING_TIMESTAMPS;
    r.launch_time_mode = VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME;
    r.launch_time = kNaN;
#define VYRA_NONE(group, label, key, member, index) r.key = noKeyFrame();
    VYRA_KEY_FRAME_TABLE(VYRA_NONE)
#undef VYRA_NONE
    r.speed_index_ms = kNaN;
    r.noise_tolerance = -1;
    r.loaded_psnr = -1.0;
    r.pre_loaded_psnr = -1.0;
    return r;
}

// Where each field of VyraSettings ends, in declaration order.
#define VYRA_END(field) offsetof(VyraSettings, field) + sizeof(VyraSettings::field)
constexpr size_t kSettingsFieldEnds[] = {
    VYRA_END(struct_size),     VYRA_END(timing),         VYRA_END(fps),
    VYRA_END(start),           VYRA_END(end),            VYRA_END(page_type),
    VYRA_END(stable_baseline), VYRA_END(has_crop),       VYRA_END(crop),
    VYRA_END(ignore),          VYRA_END(ignore_count),   VYRA_END(launch_time_mode),
    VYRA_END(save_frames_dir), VYRA_END(progress),       VYRA_END(progress_user),
    VYRA_END(noise_tolerance), VYRA_END(progress_out),   VYRA_END(frame_times_out),
    VYRA_END(series_capacity), VYRA_END(report_path),    VYRA_END(filmstrip_path),
    VYRA_END(report_interval_ms)};
#undef VYRA_END
static_assert(kSettingsFieldEnds[sizeof kSettingsFieldEnds / sizeof(size_t) - 1] == sizeof(VyraSettings),
              "every field of VyraSettings is listed, the last one last");

// The bytes of the fields that lie wholly within @p structSize: a size that
// ends inside a field (a pointer cut in half) leaves that field out.
size_t wholeFieldBytes(size_t structSize) {
    size_t bytes = 0;
    for (const size_t end : kSettingsFieldEnds) {
        if (end <= structSize) bytes = end;
    }
    return bytes;
}

// The caller's settings over the defaults: only the fields within its struct_size.
VyraSettings readSettings(const VyraSettings* given) {
    VyraSettings settings;
    vyra_default_settings(&settings);
    if (given != nullptr) {
        if (given->struct_size < sizeof(size_t)) {
            throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT,
                                     "settings->struct_size is too small; call vyra_default_settings()");
        }
        std::memcpy(&settings, given, wholeFieldBytes(given->struct_size));
        settings.struct_size = sizeof settings;
    }
    return settings;
}

// The number a C caller stored in an enum field, read without assuming it is
// one of the enumerators (C allows any int there).
template <typename Enum>
int rawValue(const Enum& field) {
    static_assert(sizeof(Enum) == sizeof(int), "C enums are int-sized");
    int value = 0;
    std::memcpy(&value, &field, sizeof value);
    return value;
}

std::string text(const char* borrowed) { return borrowed != nullptr ? borrowed : ""; }

vyra::Region toRegion(const VyraRegion& r) { return vyra::Region{r.x, r.y, r.width, r.height}; }

vyra::MeasureOptions toOptions(const VyraSettings& s) {
    vyra::MeasureOptions options;
    switch (rawValue(s.timing)) {
        case VYRA_TIMING_TIMESTAMPS: options.timing = vyra::Timing::Timestamps; break;
        case VYRA_TIMING_FRAME_RATE: options.timing = vyra::Timing::FrameRate; break;
        default: throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "unknown timing value");
    }
    switch (rawValue(s.launch_time_mode)) {
        case VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME:
            options.launchTimeMode = vyra::LaunchTimeMode::LoadFinishedFrame;
            break;
        case VYRA_LAUNCH_TIME_NEXT_FRAME: options.launchTimeMode = vyra::LaunchTimeMode::NextFrame; break;
        default: throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "unknown launch time mode value");
    }
    switch (rawValue(s.page_type)) {
        case VYRA_PAGE_STATIC: options.pageType = STATIC_PAGE; break;
        case VYRA_PAGE_DYNAMIC: options.pageType = DYNAMIC_PAGE; break;
        default: throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "unknown page type value");
    }
    options.fps = s.fps;
    options.start = s.start;
    options.end = s.end;
    options.stableBaseline = s.stable_baseline != 0;
    if (s.has_crop != 0) {
        options.crop = toRegion(s.crop);
    }
    if (s.ignore_count > 0 && s.ignore == nullptr) {
        throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "ignore_count is set but ignore is NULL");
    }
    for (size_t k = 0; k < s.ignore_count; ++k) {
        options.ignore.push_back(toRegion(s.ignore[k]));
    }
    options.saveFramesDir = text(s.save_frames_dir);
    options.visualProgress.levelTolerance = s.noise_tolerance;
    options.report.collect = !text(s.report_path).empty() || !text(s.filmstrip_path).empty();
    options.report.intervalMs = s.report_interval_ms;
    if (s.progress != nullptr) {
        const VyraProgressCallback callback = s.progress;
        void* const user = s.progress_user;
        options.progress = [callback, user](vyra::MeasureStage stage, size_t done, size_t total) {
            callback(user, stage == vyra::MeasureStage::Decoding ? VYRA_STAGE_DECODING : VYRA_STAGE_ANALYSING,
                     static_cast<uint64_t>(done), static_cast<uint64_t>(total));
        };
    }
    return options;
}

VyraKeyFrame toKeyFrame(const vyra::KeyFrame& key) { return VyraKeyFrame{key.index, key.time}; }

void fillResult(VyraResult& r, const vyra::MeasureResult& m) {
    const vyra::AnalysisResult& a = m.analysis;
    r.page_type = a.pageType == DYNAMIC_PAGE ? VYRA_PAGE_DYNAMIC : VYRA_PAGE_STATIC;
    r.timing = m.timing == vyra::Timing::FrameRate ? VYRA_TIMING_FRAME_RATE : VYRA_TIMING_TIMESTAMPS;
    r.launch_time_mode = m.launchTimeMode == vyra::LaunchTimeMode::NextFrame
                             ? VYRA_LAUNCH_TIME_NEXT_FRAME
                             : VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME;
    r.fps = m.fps;
    r.frame_count = m.frameCount;
    r.frame_width = m.frameWidth;
    r.frame_height = m.frameHeight;
    r.launch_time = m.launchTime;
    r.estimated_time_count = m.estimatedTimeCount;
#define VYRA_SET(group, label, key, member, index) r.key = toKeyFrame(m.member);
    VYRA_KEY_FRAME_TABLE(VYRA_SET)
#undef VYRA_SET
    r.loaded_psnr = a.staticResult.loadedPsnr;
    r.pre_loaded_psnr = a.staticResult.preLoadedPsnr;
    r.object_count_length = a.staticResult.objectCounts.size();
    r.first_non_blank_object_count = a.dynamicResult.firstNonBlankObjectCount;
    r.feature_matching_count = a.dynamicResult.featureMatchingResults.size();
    r.speed_index_ms = m.speedIndexMs;
    r.noise_tolerance = m.visual.levelTolerance;
    r.noise_tolerance_estimated = m.visual.levelToleranceEstimated ? 1 : 0;
}

// Copies as much of @p values as fits into the caller's buffer, if any.
void copySeries(double* out, size_t capacity, const std::vector<double>& values) {
    if (out == nullptr) {
        return;
    }
    const size_t count = std::min(capacity, values.size());
    for (size_t k = 0; k < count; ++k) {
        out[k] = values[k];
    }
}

void fillSeries(const VyraSettings& s, const vyra::MeasureResult& m) {
    copySeries(s.progress_out, s.series_capacity, m.visual.progress);
    copySeries(s.frame_times_out, s.series_capacity, m.frameTimes);
}

void writeError(char* error, size_t size, const char* message) {
    if (error == nullptr || size == 0) {
        return;
    }
    const size_t length = std::min(std::strlen(message), size - 1);
    std::memcpy(error, message, length);
    error[length] = '\0';
}

// Copies the bytes of @p full that fit into the caller's structure.
void publish(VyraResult* result, VyraResult full) {
    const size_t size = std::min(result->struct_size, sizeof full);
    full.struct_size = result->struct_size;
    std::memcpy(result, &full, size);
}

// Measures into @p full; @p filled tells whether it holds the measurement
// (also when only writing a report failed afterwards).
VyraStatus measure(const char* path, const VyraSettings* settings, VyraResult& full, bool& filled, char* error,
                   size_t errorSize) {
    try {
        if (path == nullptr) {
            throw vyra::MeasureError(VYRA_ERROR_INVALID_ARGUMENT, "path is NULL");
        }
        const VyraSettings given = readSettings(settings);
        const vyra::MeasureResult measured = vyra::Measure(path, toOptions(given));
        fillResult(full, measured);
        fillSeries(given, measured);
        filled = true;
        if (!text(given.report_path).empty()) vyra::WriteReport(given.report_path, measured, path);
        if (!text(given.filmstrip_path).empty()) vyra::WriteFilmstrip(given.filmstrip_path, measured);
        writeError(error, errorSize, "");
        return VYRA_OK;
    } catch (const vyra::MeasureError& e) {
        writeError(error, errorSize, e.what());
        return e.status();
    } catch (const std::bad_alloc&) {
        writeError(error, errorSize, "out of memory");
        return VYRA_ERROR_NO_MEMORY;
    } catch (const std::exception& e) {
        writeError(error, errorSize, e.what());
        return VYRA_ERROR_INTERNAL;
    } catch (...) {
        writeError(error, errorSize, "unknown failure");
        return VYRA_ERROR_INTERNAL;
    }
}

}  // namespace

extern "C" {

void vyra_default_settings(VyraSettings* settings) {
    if (settings == nullptr) {
        return;
    }
    std::memset(settings, 0, sizeof *settings);
    settings->struct_size = sizeof *settings;
    settings->timing = VYRA_TIMING_TIMESTAMPS;
    settings->fps = 0.0;
    settings->start = 0;
    settings->end = 0;
    settings->page_type = VYRA_PAGE_STATIC;
    settings->stable_baseline = 0;
    settings->has_crop = 0;
    settings->ignore = nullptr;
    settings->ignore_count = 0;
    settings->launch_time_mode = VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME;
    settings->save_frames_dir = nullptr;
    settings->progress = nullptr;
    settings->progress_user = nullptr;
    settings->noise_tolerance = VYRA_NOISE_TOLERANCE_AUTO;
    settings->progress_out = nullptr;
    settings->frame_times_out = nullptr;
    settings->series_capacity = 0;
    settings->report_path = nullptr;
    settings->filmstrip_path = nullptr;
    settings->report_interval_ms = vyra::kDefaultReportIntervalMs;
}

const char* vyra_status_string(VyraStatus status) {
    const int value = rawValue(status);
    if (value < VYRA_OK || value > VYRA_ERROR_WRITE) {
        return "unknown status";
    }
    return vyra::StatusString(static_cast<VyraStatus>(value));
}

VyraStatus vyra_measure(const char* path, const VyraSettings* settings, VyraResult* result, char* error,
                        size_t error_size) {
    constexpr size_t minimumSize = offsetof(VyraResult, status) + sizeof(VyraStatus);
    if (result == nullptr || result->struct_size < minimumSize) {
        writeError(error, error_size,
                   result == nullptr ? "result is NULL" : "result->struct_size is too small");
        return VYRA_ERROR_INVALID_ARGUMENT;
    }
    VyraResult full = emptyResult();
    bool filled = false;
    full.status = measure(path, settings, full, filled, error, error_size);
    if (!filled) {
        const VyraStatus status = full.status;
        full = emptyResult();
        full.status = status;
    }
    publish(result, full);
    return full.status;
}

const VyraKeyFrameField* vyra_key_frame_fields(size_t* count) {
    static_assert(static_cast<int>(vyra::KeyFrameGroup::Analysis) == VYRA_KEY_FRAME_ANALYSIS &&
                      static_cast<int>(vyra::KeyFrameGroup::VisualProgress) == VYRA_KEY_FRAME_VISUAL_PROGRESS,
                  "the C and C++ groups have the same values");
#define VYRA_FIELD(group, label, key, member, index)                                        \
    {label, #key, static_cast<VyraKeyFrameGroup>(vyra::KeyFrameGroup::group), offsetof(VyraResult, key)},
    static const VyraKeyFrameField fields[] = {VYRA_KEY_FRAME_TABLE(VYRA_FIELD)};
#undef VYRA_FIELD
    if (count != nullptr) *count = sizeof fields / sizeof fields[0];
    return fields;
}

const char* vyra_version(void) { return VYRA_VERSION_STRING; }

unsigned vyra_abi_version(void) { return VYRA_ABI_VERSION; }

}  // extern "C"
