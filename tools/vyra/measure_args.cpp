#include "measure_args.h"

#include <charconv>
#include <system_error>

namespace vyra::tool {

namespace {

// "x,y,w,h": four integers, each within int's range.
Region parseRegion(const std::string& text) {
    int values[4] = {};
    const char* next = text.c_str();
    const char* const end = next + text.size();
    for (int k = 0; k < 4; ++k) {
        const std::from_chars_result read = std::from_chars(next, end, values[k]);
        if (read.ec == std::errc::result_out_of_range) {
            throw CLI::ValidationError("region '" + text + "'", "a number is out of range");
        }
        next = read.ptr;
        const bool separated = k == 3 || (next != end && *next++ == ',');
        if (read.ec != std::errc() || !separated) {
            throw CLI::ValidationError("region '" + text + "'", "expected x,y,w,h (four integers)");
        }
    }
    if (next != end) {
        throw CLI::ValidationError("region '" + text + "'", "expected x,y,w,h (four integers)");
    }
    return Region{values[0], values[1], values[2], values[3]};
}

}  // namespace

void AddMeasureOptions(CLI::App& cmd, MeasureArgs& args) {
    CLI::Option* fps =
        cmd.add_option("--fps", args.fps, "Frames are evenly spaced at N per second (0.001 to 1000000)")
            ->check(CLI::Number);
    CLI::Option* stamps = cmd.add_flag(
        "--timestamps", args.timestamps,
        "Time frames by their video timestamps or by the millisecond numbers of their file names (default)");
    fps->excludes(stamps);
    cmd.add_option("--start", args.start, "First frame of the range (default 0)");
    cmd.add_option("--end", args.end, "Last frame of the range, inclusive, when above 1 (default: the last frame)");
    cmd.add_option("--crop", args.crop, "Analyse only the rectangle x,y,w,h");
    cmd.add_option("--ignore", args.ignore, "Paint the rectangle x,y,w,h flat on every frame (repeatable)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    cmd.add_flag("--dynamic", args.dynamic, "Run the dynamic page analysis (moving content)");
    cmd.add_flag("--stable-baseline", args.stableBaseline,
                 "Take the end of the first stable run of frames as the loaded page");
    cmd.add_option("--launch-time", args.launchTime,
                   "Launch time at the load-finished frame (frame, default) or at the frame after it "
                   "(next-frame)")
        ->check(CLI::IsMember({"frame", "next-frame"}));
    cmd.add_option("--noise-tolerance", args.noiseTolerance,
                   "Levels (0-255) by which an 8x8 block's mean colour may move between frames "
                   "without counting as a visual change; auto: 0 for frame folders and lossless video, "
                   "the coding noise of lossy video")
        ->check(CLI::IsMember({"auto"}) | CLI::Range(0, 255))
        ->capture_default_str();
    cmd.add_option("--report-interval", args.reportIntervalMs,
                   "Milliseconds between the pictures of a report's filmstrip (above 0)")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
}

MeasureOptions ToMeasureOptions(const MeasureArgs& args) {
    MeasureOptions options;
    if (args.fps) {
        options.timing = Timing::FrameRate;
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
        args.launchTime == "next-frame" ? LaunchTimeMode::NextFrame : LaunchTimeMode::LoadFinishedFrame;
    options.visualProgress.levelTolerance =
        args.noiseTolerance == "auto" ? kVisualProgressLevelToleranceAuto : std::stoi(args.noiseTolerance);
    options.report.intervalMs = args.reportIntervalMs;
    return options;
}

}  // namespace vyra::tool
