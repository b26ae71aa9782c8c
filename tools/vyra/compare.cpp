// vyra compare A B --report OUT.html [options]: measures two recordings (two
// builds of an app, say) with the same options, prints their key times side
// by side and writes the comparison report.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "VyraLaunchReport.h"
#include "command.h"
#include "measure_args.h"
#include "progress_bar.h"

namespace vyra::tool {

namespace {

struct CompareArgs {
    std::string a;
    std::string b;
    MeasureArgs measure;
    std::string report;
    bool quiet = false;
};

std::string seconds(double value) {
    if (std::isnan(value)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string row(const char* name, double a, double b) {
    char text[160];
    std::string difference = "-";
    if (!std::isnan(a) && !std::isnan(b)) {
        char signed_[32];
        std::snprintf(signed_, sizeof signed_, "%+.3f", b - a);
        difference = signed_;
    }
    std::snprintf(text, sizeof text, "%-16s %10s %10s %10s\n", name, seconds(a).c_str(), seconds(b).c_str(),
                  difference.c_str());
    return text;
}

// The key times of both, one row each: launch time, every key frame, speed index.
std::string comparisonText(const CompareArgs& args, const MeasureResult& a, const MeasureResult& b) {
    std::string text = "a: " + args.a + "\nb: " + args.b + "\n";
    char header[160];
    std::snprintf(header, sizeof header, "%-16s %10s %10s %10s\n", "key time (s)", "a", "b", "b - a");
    text += header + row("launch time", a.launchTime, b.launchTime);
    for (const KeyFrameField& field : KeyFrameFields()) {
        text += row(field.label, (a.*field.member).time, (b.*field.member).time);
    }
    return text + row("speed index", a.speedIndexMs / 1000.0, b.speedIndexMs / 1000.0);
}

int runCompare(const CompareArgs& args) {
    MeasureOptions options = ToMeasureOptions(args.measure);
    options.report.collect = true;
    ProgressBar bar(!args.quiet && isatty(fileno(stderr)) != 0);
    options.progress = [&bar](MeasureStage stage, size_t done, size_t total) { bar.Update(stage, done, total); };
    try {
        const MeasureResult a = Measure(args.a, options);
        const MeasureResult b = Measure(args.b, options);
        bar.Clear();
        WriteComparisonReport(args.report, a, args.a, b, args.b);
        std::string error;
        if (!WriteStandardOutput(comparisonText(args, a, b), error)) {
            PrintError("cannot write standard output: " + error);
            return kExitFailure;
        }
    } catch (const MeasureError& e) {
        bar.Clear();
        PrintError(e.what());
        return ExitCodeFor(e.status());
    }
    return kExitOk;
}

}  // namespace

Subcommand AddCompareCommand(CLI::App& app) {
    auto args = std::make_shared<CompareArgs>();
    CLI::App* cmd = app.add_subcommand("compare", "Compare the launches of two recordings in one report");
    cmd->add_option("A", args->a, "First recording (video file or folder of PNG frames)")->required();
    cmd->add_option("B", args->b, "Second recording, measured with the same options")->required();
    cmd->add_option("--report", args->report, "The comparison report to write, one self-contained HTML file")
        ->required();
    AddMeasureOptions(*cmd, args->measure);
    cmd->add_flag("--quiet", args->quiet, "No progress bar on standard error");
    return {cmd, [args] { return runCompare(*args); }};
}

}  // namespace vyra::tool
