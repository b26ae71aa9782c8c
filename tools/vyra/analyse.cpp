// vyra analyse RECORDING [options]: measures the launch time of a recording.
#include <unistd.h>

#include <memory>
#include <sstream>

#include "VyraLaunchReport.h"
#include "command.h"
#include "measure_args.h"
#include "output.h"
#include "progress_bar.h"

namespace vyra::tool {

namespace {

struct AnalyseArgs {
    std::string recording;
    MeasureArgs measure;
    bool json = false;
    std::string saveFrames;
    std::string report;
    std::string filmstrip;
    bool progress = false;
    bool quiet = false;
};

int runAnalyse(const AnalyseArgs& args) {
    MeasureOptions options = ToMeasureOptions(args.measure);
    options.saveFramesDir = args.saveFrames;
    options.report.collect = !args.report.empty() || !args.filmstrip.empty();
    if (args.json && !IsJsonText(args.recording)) {
        PrintError("the recording's path is not valid UTF-8, which a JSON document cannot carry; rename it or "
                   "leave out --json");
        return kExitUsage;
    }
    ProgressBar bar(!args.quiet && isatty(fileno(stderr)) != 0);
    options.progress = [&bar](MeasureStage stage, size_t done, size_t total) { bar.Update(stage, done, total); };
    MeasureResult result;
    try {
        result = Measure(args.recording, options);
    } catch (const MeasureError& e) {
        bar.Clear();
        PrintError(e.what());
        return ExitCodeFor(e.status());
    }
    bar.Clear();
    try {
        if (!args.report.empty()) WriteReport(args.report, result, args.recording);
        if (!args.filmstrip.empty()) WriteFilmstrip(args.filmstrip, result);
    } catch (const MeasureError& e) {
        PrintError(e.what());
        return ExitCodeFor(e.status());
    }
    OutputOptions output;
    output.recording = args.recording;
    output.progressSeries = args.progress;
    std::ostringstream text;
    if (args.json) {
        WriteJson(text, ResultJson(result, output));
    } else {
        WriteSummary(text, result, output);
    }
    std::string error;
    if (!WriteStandardOutput(text.str(), error)) {
        PrintError("cannot write standard output: " + error);
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

Subcommand AddAnalyseCommand(CLI::App& app) {
    auto args = std::make_shared<AnalyseArgs>();
    CLI::App* cmd = app.add_subcommand("analyse", "Measure the launch time of a recording");
    cmd->add_option("RECORDING", args->recording, "Video file (any format FFmpeg reads) or folder of PNG frames")
        ->required();
    AddMeasureOptions(*cmd, args->measure);
    cmd->add_flag("--json", args->json, "Print one JSON document with every field of the result");
    cmd->add_option("--save-frames", args->saveFrames, "Save the analysed frames as DIR/%08d.png");
    cmd->add_option("--report", args->report, "Also write the launch report, one self-contained HTML file");
    cmd->add_option("--filmstrip", args->filmstrip, "Also write the report's filmstrip as one PNG contact sheet");
    cmd->add_flag("--progress", args->progress, "Also list every frame's visual progress");
    cmd->add_flag("--quiet", args->quiet, "No progress bar on standard error");
    return {cmd, [args] { return runAnalyse(*args); }};
}

}  // namespace vyra::tool
