// vyra: the command-line face of libvyra.
//
//   vyra analyse RECORDING [options]   measure the launch time of a recording
//   vyra sample OUT [options]          render a synthetic launch recording
//
// Exit status: 0 success (also when no load-finished frame was found),
// 1 any other failure (cannot write, out of memory, internal error),
// 2 usage error or invalid argument, 3 input that cannot be used (missing,
// unreadable, empty, no usable timestamps).
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "VyraMeasure.h"
#include "VyraSample.h"
#include "vyra.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInput = 3;

// Version of the --json document layout; bumped when a field changes meaning
// or is removed (adding fields keeps it).
constexpr int kJsonSchemaVersion = 1;

int exitCodeFor(VyraStatus status) {
    switch (status) {
        case VYRA_OK: return kExitOk;
        case VYRA_ERROR_INVALID_ARGUMENT: return kExitUsage;
        case VYRA_ERROR_NOT_FOUND:
        case VYRA_ERROR_UNREADABLE:
        case VYRA_ERROR_EMPTY:
        case VYRA_ERROR_NO_TIMESTAMPS: return kExitInput;
        case VYRA_ERROR_NO_MEMORY:
        case VYRA_ERROR_INTERNAL:
        case VYRA_ERROR_WRITE: break;
    }
    return kExitFailure;
}

void printError(const std::string& message) { std::cerr << "vyra: error: " << message << std::endl; }

// ---- command-line values ----

// "x,y,w,h" with four integers.
vyra::Region parseRegion(const std::string& text) {
    vyra::Region region;
    char tail = '\0';
    if (std::sscanf(text.c_str(), "%d,%d,%d,%d%c", &region.x, &region.y, &region.width, &region.height,
                    &tail) != 4) {
        throw CLI::ValidationError("region '" + text + "'", "expected x,y,w,h (four integers)");
    }
    return region;
}

// "WxH" with two positive integers.
std::pair<int, int> parseSize(const std::string& text) {
    int width = 0;
    int height = 0;
    char tail = '\0';
    if (std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &tail) != 2 || width < 1 || height < 1) {
        throw CLI::ValidationError("size '" + text + "'", "expected WxH (two positive integers)");
    }
    return {width, height};
}

// ---- progress on standard error ----

class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled) {}
    ~ProgressBar() { Clear(); }

    void Update(vyra::MeasureStage stage, size_t done, size_t total) {
        if (!enabled_) {
            return;
        }
        std::string line = stage == vyra::MeasureStage::Decoding ? "decoding  " : "analysing ";
        const int width = 30;
        const int filled = total > 0 ? static_cast<int>(width * std::min(done, total) / total) : 0;
        line += "[" + std::string(static_cast<size_t>(filled), '#') +
                std::string(static_cast<size_t>(width - filled), '.') + "] ";
        line += stage == vyra::MeasureStage::Decoding
                    ? std::to_string(done) + (total > 0 ? "/" + std::to_string(total) : "")
                    : (done >= total ? "done" : "...");
        std::cerr << "\r" << line << "\033[K" << std::flush;
        shown_ = true;
    }

    void Clear() {
        if (shown_) {
            std::cerr << "\r\033[K" << std::flush;
            shown_ = false;
        }
    }

private:
    bool enabled_;
    bool shown_ = false;
};

// ---- vyra analyse ----

struct AnalyseArgs {
    std::string recording;
    std::optional<double> fps;
    bool timestamps = false;
    int start = 0;
    int end = 0;
    std::string crop;
    std::vector<std::string> ignore;
    bool dynamic = false;
    bool stableBaseline = false;
    bool json = false;
    std::string saveFrames;
    std::string launchTime = "frame";
    bool quiet = false;
};

void addAnalyseCommand(CLI::App& app, AnalyseArgs& args) {
    CLI::App* cmd = app.add_subcommand("analyse", "Measure the launch time of a recording");
    cmd->add_option("RECORDING", args.recording, "Video file (any format FFmpeg reads) or folder of PNG frames")
        ->required();
    CLI::Option* fps = cmd->add_option("--fps", args.fps, "Frames are evenly spaced at N per second");
    CLI::Option* stamps = cmd->add_flag(
        "--timestamps", args.timestamps,
        "Time frames by their video timestamps or by the millisecond numbers of their file names (default)");
    fps->excludes(stamps);
    cmd->add_option("--start", args.start, "First frame of the range (default 0)");
    cmd->add_option("--end", args.end, "Last frame of the range, inclusive, when above 1 (default: the last frame)");
    cmd->add_option("--crop", args.crop, "Analyse only the rectangle x,y,w,h");
    cmd->add_option("--ignore", args.ignore, "Paint the rectangle x,y,w,h flat on every frame (repeatable)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    cmd->add_flag("--dynamic", args.dynamic, "Run the dynamic page analysis (moving content)");
    cmd->add_flag("--stable-baseline", args.stableBaseline,
                  "Take the end of the first stable run of frames as the loaded page");
    cmd->add_flag("--json", args.json, "Print one JSON document with every field of the result");
    cmd->add_option("--save-frames", args.saveFrames, "Save the analysed frames as DIR/%08d.png");
    cmd->add_option("--launch-time", args.launchTime,
                    "Launch time at the load-finished frame (frame, default) or at the frame after it "
                    "(next-frame)")
        ->check(CLI::IsMember({"frame", "next-frame"}));
    cmd->add_flag("--quiet", args.quiet, "No progress bar on standard error");
}

vyra::MeasureOptions toOptions(const AnalyseArgs& args) {
    vyra::MeasureOptions options;
    if (args.fps) {
        options.timing = vyra::Timing::FrameRate;
        options.fps = *args.fps;
    }
    options.start = args.start;
    options.end = args.end;
    if (!args.crop.empty()) {
        options.crop = parseRegion(args.crop);
    }
    for (const std::string& text : args.ignore) {
        options.ignore.push_back(parseRegion(text));
    }
    options.pageType = args.dynamic ? DYNAMIC_PAGE : STATIC_PAGE;
    options.stableBaseline = args.stableBaseline;
    options.launchTimeMode =
        args.launchTime == "next-frame" ? vyra::LaunchTimeMode::NextFrame : vyra::LaunchTimeMode::LoadFinishedFrame;
    options.saveFramesDir = args.saveFrames;
    return options;
}

struct NamedKeyFrame {
    const char* label;  // human output
    const char* key;    // JSON
    const vyra::KeyFrame* frame;
};

std::vector<NamedKeyFrame> keyFrames(const vyra::MeasureResult& r) {
    return {{"load finished", "load_finished", &r.loadFinished},
            {"baseline", "baseline", &r.baseline},
            {"logo appear", "logo_appear", &r.logoAppear},
            {"logo disappear", "logo_disappear", &r.logoDisappear},
            {"first frame", "first_frame", &r.firstFrame},
            {"motion start", "motion_start", &r.motionStart}};
}

std::string seconds(double value) {
    if (std::isnan(value)) {
        return "-";
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string timingText(const vyra::MeasureResult& r) {
    if (r.timing == vyra::Timing::FrameRate) {
        std::ostringstream out;
        out << "frame rate " << r.fps << " fps";
        return out.str();
    }
    return "timestamps";
}

void printSummary(const vyra::MeasureResult& r) {
    std::printf("launch time: %s\n",
                std::isnan(r.launchTime) ? "not found" : (seconds(r.launchTime) + " s").c_str());
    std::printf("%-16s %6s %10s\n", "key frame", "index", "time (s)");
    for (const NamedKeyFrame& key : keyFrames(r)) {
        const std::string index = key.frame->index < 0 ? "-" : std::to_string(key.frame->index);
        std::printf("%-16s %6s %10s\n", key.label, index.c_str(), seconds(key.frame->time).c_str());
    }
    std::printf("frames: %zu (%dx%d), timing: %s, launch time at: %s\n", r.frameCount, r.frameWidth,
                r.frameHeight, timingText(r).c_str(),
                r.launchTimeMode == vyra::LaunchTimeMode::NextFrame ? "next frame" : "load-finished frame");
    if (r.estimatedTimeCount > 0) {
        std::printf("note: %zu frame time(s) estimated (the decoder reported no timestamp)\n",
                    r.estimatedTimeCount);
    }
}

Json number(double value) { return std::isnan(value) ? Json(nullptr) : Json(value); }

Json analysisJson(const vyra::AnalysisResult& a) {
    Json matches = Json::array();
    for (const vyra::FeatureMatchingResult& m : a.dynamicResult.featureMatchingResults) {
        matches.push_back({{"first_image_index", m.firstImageIndex},
                           {"first_keypoint_count", m.firstKeypointCount},
                           {"second_keypoint_count", m.secondKeypointCount},
                           {"consistent_match_count", m.consistentMatchCount},
                           {"is_moving", m.isMoving}});
    }
    const vyra::StaticPageAnalysisResult& s = a.staticResult;
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

Json resultJson(const std::string& recording, const vyra::MeasureResult& r) {
    Json keys = Json::object();
    for (const NamedKeyFrame& key : keyFrames(r)) {
        keys[key.key] = {{"index", key.frame->index}, {"time", number(key.frame->time)}};
    }
    Json times = Json::array();
    for (double t : r.frameTimes) {
        times.push_back(number(t));
    }
    return {{"schema_version", kJsonSchemaVersion},
            {"vyra_version", vyra_version()},
            {"recording", recording},
            {"page_type", r.analysis.pageType == DYNAMIC_PAGE ? "dynamic" : "static"},
            {"timing", r.timing == vyra::Timing::FrameRate ? "frame-rate" : "timestamps"},
            {"fps", r.timing == vyra::Timing::FrameRate ? Json(r.fps) : Json(nullptr)},
            {"launch_time_mode", r.launchTimeMode == vyra::LaunchTimeMode::NextFrame ? "next-frame" : "frame"},
            {"launch_time", number(r.launchTime)},
            {"frame_count", r.frameCount},
            {"frame_width", r.frameWidth},
            {"frame_height", r.frameHeight},
            {"estimated_time_count", r.estimatedTimeCount},
            {"key_frames", keys},
            {"frame_times", times},
            {"analysis", analysisJson(r.analysis)}};
}

// Two-space indented JSON in which arrays of plain values (frame times,
// object counts) stay on one line.
void writeJson(std::ostream& out, const Json& value, int indent) {
    const std::string pad(static_cast<size_t>(indent), ' ');
    const std::string inner(static_cast<size_t>(indent) + 2, ' ');
    const bool nested = std::any_of(value.begin(), value.end(),
                                    [](const Json& v) { return v.is_structured(); });
    if (value.is_object() && !value.empty()) {
        out << "{\n";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out << (it == value.begin() ? "" : ",\n") << inner << Json(it.key()).dump() << ": ";
            writeJson(out, it.value(), indent + 2);
        }
        out << "\n" << pad << "}";
    } else if (value.is_array() && nested) {
        out << "[\n";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out << (it == value.begin() ? "" : ",\n") << inner;
            writeJson(out, *it, indent + 2);
        }
        out << "\n" << pad << "]";
    } else {
        out << value.dump();
    }
}

int runAnalyse(const AnalyseArgs& args) {
    vyra::MeasureOptions options = toOptions(args);
    ProgressBar bar(!args.quiet && isatty(fileno(stderr)) != 0);
    options.progress = [&bar](vyra::MeasureStage stage, size_t done, size_t total) {
        bar.Update(stage, done, total);
    };
    vyra::MeasureResult result;
    try {
        result = vyra::Measure(args.recording, options);
    } catch (const vyra::MeasureError& e) {
        bar.Clear();
        printError(e.what());
        return exitCodeFor(e.status());
    }
    bar.Clear();
    if (args.json) {
        writeJson(std::cout, resultJson(args.recording, result), 0);
        std::cout << std::endl;
    } else {
        printSummary(result);
    }
    return kExitOk;
}

// ---- vyra sample ----

struct SampleArgs {
    std::string out;
    vyra::sample::SampleOptions options;
    std::string size;
    bool framesDir = false;
};

void addSampleCommand(CLI::App& app, SampleArgs& args) {
    vyra::sample::SampleOptions& o = args.options;
    args.size = std::to_string(o.width) + "x" + std::to_string(o.height);
    CLI::App* cmd = app.add_subcommand(
        "sample", "Render a synthetic app launch and print the frame index of each stage");
    cmd->add_option("OUT", args.out,
                    "Video file to write (.mp4, .mov, .mkv or .avi), or with --frames-dir a folder")
        ->required();
    cmd->add_option("--seconds", o.seconds, "Length of the recording in seconds")->capture_default_str();
    cmd->add_option("--fps", o.fps, "Frames per second")->capture_default_str();
    cmd->add_option("--size", args.size, "Frame size WxH")->capture_default_str();
    cmd->add_flag("--frames-dir", args.framesDir,
                  "Write PNG frames named by their capture time in milliseconds into the folder OUT");
    cmd->add_option("--seed", o.seed, "Seed of colours, clock and content")->capture_default_str();
    cmd->add_option("--launcher", o.launcherShare, "Share of the recording showing the home screen")
        ->capture_default_str();
    cmd->add_option("--splash", o.splashShare, "Share showing the launch screen")->capture_default_str();
    cmd->add_option("--skeleton", o.skeletonShare, "Share showing placeholders")->capture_default_str();
    cmd->add_option("--content", o.contentShare, "Share showing partial content")->capture_default_str();
    cmd->add_option("--content-steps", o.contentSteps, "Steps of partial content")->capture_default_str();
    cmd->add_option("--jitter", o.timeJitter,
                    "Frame folders only: vary each frame interval by up to this share (0..0.5)")
        ->capture_default_str();
}

int runSample(SampleArgs& args) {
    const std::pair<int, int> size = parseSize(args.size);
    args.options.width = size.first;
    args.options.height = size.second;
    vyra::sample::SampleTruth truth;
    try {
        truth = args.framesDir ? vyra::sample::WriteSampleFrames(args.out, args.options)
                               : vyra::sample::WriteSampleVideo(args.out, args.options);
    } catch (const std::invalid_argument& e) {
        printError(e.what());
        return kExitUsage;
    }
    std::cout << vyra::sample::DescribeTruth(truth) << std::flush;
    return kExitOk;
}

int run(int argc, char** argv) {
    CLI::App app{"vyra: launch time of an app page from a screen recording", "vyra"};
    app.set_version_flag("--version", std::string("vyra ") + vyra_version());
    app.require_subcommand(1);
    AnalyseArgs analyse;
    SampleArgs sample;
    addAnalyseCommand(app, analyse);
    addSampleCommand(app, sample);
    try {
        app.parse(argc, argv);
        if (app.got_subcommand("analyse")) {
            return runAnalyse(analyse);
        }
        return runSample(sample);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            return app.exit(e);
        }
        printError(e.what());
        std::cerr << "Run with --help for more information." << std::endl;
        return kExitUsage;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // FFmpeg's own error log (damaged videos) would add lines to the one
    // message the tool prints; keep it quiet unless the user asked for it.
    setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
    try {
        return run(argc, argv);
    } catch (const vyra::MeasureError& e) {
        printError(e.what());
        return exitCodeFor(e.status());
    } catch (const std::exception& e) {
        printError(e.what());
        return kExitFailure;
    } catch (...) {
        printError("unknown failure");
        return kExitFailure;
    }
}
