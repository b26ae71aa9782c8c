#include "output.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <vector>

#include "vyra.h"

namespace vyra::tool {

std::string Format(const char* pattern, ...) {
    va_list args;
    va_start(args, pattern);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) {
        std::vsnprintf(&text[0], text.size() + 1, pattern, args);
    }
    va_end(args);
    return text;
}

std::string SecondsText(double value) { return std::isnan(value) ? "-" : Format("%.3f", value); }

bool IsJsonText(const std::string& text) {
    try {
        static_cast<void>(Json(text).dump());
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

namespace {

std::string milliseconds(double value) { return std::isnan(value) ? "-" : Format("%.1f ms", value); }

std::string timingText(const MeasureResult& r) {
    if (r.timing == Timing::FrameRate) {
        std::ostringstream out;
        out << "frame rate " << r.fps << " fps";
        return out.str();
    }
    return "timestamps";
}

// The key frame table of @p group under @p title: name, index and time per row.
void writeKeyFrameTable(std::ostream& out, const char* title, KeyFrameGroup group, const MeasureResult& r) {
    out << Format("%-16s %6s %10s\n", title, "index", "time (s)");
    for (const KeyFrameField& field : KeyFrameFields()) {
        if (field.group != group) continue;
        const KeyFrame& key = r.*field.member;
        const std::string index = key.index < 0 ? "-" : std::to_string(key.index);
        out << Format("%-16s %6s %10s\n", field.label, index.c_str(), SecondsText(key.time).c_str());
    }
}

void writeVisualProgress(std::ostream& out, const MeasureResult& r, const OutputOptions& options) {
    writeKeyFrameTable(out, "visual progress", KeyFrameGroup::VisualProgress, r);
    out << Format("speed index: %s, noise tolerance: %d%s\n", milliseconds(r.speedIndexMs).c_str(),
                  r.visual.levelTolerance, r.visual.levelToleranceEstimated ? " (auto)" : "");
    if (!options.progressSeries) {
        return;
    }
    out << Format("%6s %10s %9s\n", "frame", "time (s)", "progress");
    for (size_t k = 0; k < r.visual.progress.size(); ++k) {
        out << Format("%6zu %10s %9.4f\n", k, SecondsText(r.frameTimes[k]).c_str(), r.visual.progress[k]);
    }
}

Json number(double value) { return std::isnan(value) ? Json(nullptr) : Json(value); }

Json analysisJson(const AnalysisResult& a) {
    Json matches = Json::array();
    for (const FeatureMatchingResult& m : a.dynamicResult.featureMatchingResults) {
        matches.push_back({{"first_image_index", m.firstImageIndex},
                           {"first_keypoint_count", m.firstKeypointCount},
                           {"second_keypoint_count", m.secondKeypointCount},
                           {"consistent_match_count", m.consistentMatchCount},
                           {"is_moving", m.isMoving}});
    }
    const StaticPageAnalysisResult& s = a.staticResult;
    return {{"page_type", a.pageType},
            {"image_count", a.imageCount},
            {"load_finished_index", a.loadFinishedIndex},
            {"static",
             {{"baseline_index", s.baselineIndex},
              {"logo_appear_index", s.logoAppearIndex},
              {"logo_disappear_index", s.logoDisappearIndex},
              {"first_frame_index", s.firstFrameIndex},
              {"object_counts", s.objectCounts},
              {"loaded_psnr", s.loadedPsnr},
              {"pre_loaded_psnr", s.preLoadedPsnr}}},
            {"dynamic",
             {{"motion_start_index", a.dynamicResult.motionStartIndex},
              {"first_non_blank_object_count", a.dynamicResult.firstNonBlankObjectCount},
              {"feature_matching_results", matches}}}};
}

Json keyFramesJson(KeyFrameGroup group, const MeasureResult& r) {
    Json keys = Json::object();
    for (const KeyFrameField& field : KeyFrameFields()) {
        if (field.group != group) continue;
        const KeyFrame& key = r.*field.member;
        keys[field.key] = {{"index", key.index}, {"time", number(key.time)}};
    }
    return keys;
}

Json visualJson(const MeasureResult& r, const OutputOptions& options) {
    Json visual = keyFramesJson(KeyFrameGroup::VisualProgress, r);
    visual["speed_index_ms"] = number(r.speedIndexMs);
    visual["noise_tolerance"] = r.visual.levelTolerance;
    visual["noise_tolerance_estimated"] = r.visual.levelToleranceEstimated;
    if (options.progressSeries) {
        Json series = Json::array();
        for (size_t k = 0; k < r.visual.progress.size(); ++k) {
            series.push_back({{"index", k}, {"time", number(r.frameTimes[k])}, {"progress", r.visual.progress[k]}});
        }
        visual["progress"] = series;
    }
    return visual;
}

void writeJsonValue(std::ostream& out, const Json& value, int indent) {
    const std::string pad(static_cast<size_t>(indent), ' ');
    const std::string inner(static_cast<size_t>(indent) + 2, ' ');
    const bool nested = std::any_of(value.begin(), value.end(), [](const Json& v) { return v.is_structured(); });
    if (value.is_object() && !value.empty()) {
        out << "{\n";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out << (it == value.begin() ? "" : ",\n") << inner << Json(it.key()).dump() << ": ";
            writeJsonValue(out, it.value(), indent + 2);
        }
        out << "\n" << pad << "}";
    } else if (value.is_array() && nested) {
        out << "[\n";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out << (it == value.begin() ? "" : ",\n") << inner;
            writeJsonValue(out, *it, indent + 2);
        }
        out << "\n" << pad << "]";
    } else {
        out << value.dump();
    }
}

}  // namespace

void WriteSummary(std::ostream& out, const MeasureResult& r, const OutputOptions& options) {
    out << "launch time: " << (std::isnan(r.launchTime) ? "not found" : SecondsText(r.launchTime) + " s") << "\n";
    writeKeyFrameTable(out, "key frame", KeyFrameGroup::Analysis, r);
    out << Format("frames: %zu (%dx%d), timing: %s, launch time at: %s\n", r.frameCount, r.frameWidth, r.frameHeight,
                  timingText(r).c_str(),
                  r.launchTimeMode == LaunchTimeMode::NextFrame ? "next frame" : "load-finished frame");
    if (r.estimatedTimeCount > 0) {
        out << Format("note: %zu frame time(s) estimated (the decoder reported no timestamp)\n", r.estimatedTimeCount);
    }
    writeVisualProgress(out, r, options);
}

Json ResultJson(const MeasureResult& r, const OutputOptions& options) {
    Json times = Json::array();
    for (double t : r.frameTimes) {
        times.push_back(number(t));
    }
    return {{"schema_version", kJsonSchemaVersion},
            {"vyra_version", vyra_version()},
            {"recording", options.recording},
            {"page_type", r.analysis.pageType == DYNAMIC_PAGE ? "dynamic" : "static"},
            {"timing", r.timing == Timing::FrameRate ? "frame-rate" : "timestamps"},
            {"fps", r.timing == Timing::FrameRate ? Json(r.fps) : Json(nullptr)},
            {"launch_time_mode", r.launchTimeMode == LaunchTimeMode::NextFrame ? "next-frame" : "frame"},
            {"launch_time", number(r.launchTime)},
            {"frame_count", r.frameCount},
            {"frame_width", r.frameWidth},
            {"frame_height", r.frameHeight},
            {"estimated_time_count", r.estimatedTimeCount},
            {"key_frames", keyFramesJson(KeyFrameGroup::Analysis, r)},
            {"frame_times", times},
            {"visual_progress", visualJson(r, options)},
            {"analysis", analysisJson(r.analysis)}};
}

void WriteJson(std::ostream& out, const Json& value) {
    writeJsonValue(out, value, 0);
    out << "\n";
}

}  // namespace vyra::tool
