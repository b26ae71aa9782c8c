// vyra sample OUT [options]: renders a synthetic app launch recording and
// prints where each stage starts.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include "VyraSample.h"
#include "command.h"

namespace vyra::tool {

namespace {

struct SampleArgs {
    std::string out;
    sample::SampleOptions options;
    std::string size;
    bool framesDir = false;
};

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

int runSample(SampleArgs& args) {
    const std::pair<int, int> size = parseSize(args.size);
    args.options.width = size.first;
    args.options.height = size.second;
    sample::SampleTruth truth;
    try {
        truth = args.framesDir ? sample::WriteSampleFrames(args.out, args.options)
                               : sample::WriteSampleVideo(args.out, args.options);
    } catch (const std::invalid_argument& e) {
        PrintError(e.what());
        return kExitUsage;
    }
    std::string error;
    if (!WriteStandardOutput(sample::DescribeTruth(truth), error)) {
        PrintError("cannot write standard output: " + error);
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

Subcommand AddSampleCommand(CLI::App& app) {
    auto args = std::make_shared<SampleArgs>();
    sample::SampleOptions& o = args->options;
    args->size = std::to_string(o.width) + "x" + std::to_string(o.height);
    CLI::App* cmd =
        app.add_subcommand("sample", "Render a synthetic app launch and print the frame index of each stage");
    cmd->add_option("OUT", args->out, "Video file to write (.mp4, .mov, .mkv or .avi), or with --frames-dir a folder")
        ->required();
    cmd->add_option("--seconds", o.seconds, "Length of the recording in seconds")->capture_default_str();
    cmd->add_option("--fps", o.fps, "Frames per second")->capture_default_str();
    cmd->add_option("--size", args->size, "Frame size WxH")->capture_default_str();
    cmd->add_flag("--frames-dir", args->framesDir,
                  "Write PNG frames named by their capture time in milliseconds into the folder OUT");
    cmd->add_option("--seed", o.seed, "Seed of colours, clock and content")->capture_default_str();
    cmd->add_option("--launcher", o.launcherShare, "Share of the recording showing the home screen")
        ->capture_default_str();
    cmd->add_option("--splash", o.splashShare, "Share showing the launch screen")->capture_default_str();
    cmd->add_option("--skeleton", o.skeletonShare, "Share showing placeholders")->capture_default_str();
    cmd->add_option("--content", o.contentShare, "Share showing partial content")->capture_default_str();
    cmd->add_option("--content-steps", o.contentSteps, "Steps of partial content")->capture_default_str();
    cmd->add_option("--jitter", o.timeJitter, "Frame folders only: vary each frame interval by up to this share (0..0.5)")
        ->capture_default_str();
    return {cmd, [args] { return runSample(*args); }};
}

}  // namespace vyra::tool
