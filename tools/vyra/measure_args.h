// vyra: the measurement options every measuring subcommand takes (--fps,
// --start, --crop, ...), as command-line options and as MeasureOptions.
#ifndef VYRA_TOOL_MEASURE_ARGS_H
#define VYRA_TOOL_MEASURE_ARGS_H

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "VyraMeasure.h"

namespace vyra::tool {

/** The options as given on the command line. */
struct MeasureArgs {
    std::optional<double> fps;
    bool timestamps = false;
    int start = 0;
    int end = 0;
    std::string crop;
    std::vector<std::string> ignore;
    bool dynamic = false;
    bool stableBaseline = false;
    std::string launchTime = "frame";
    std::string noiseTolerance = "auto";  ///< "auto" or 0..255
    double reportIntervalMs = kDefaultReportIntervalMs;  ///< filmstrip step of --report and --filmstrip
};

/** Adds the options to @p command, storing into @p args (which must outlive the parse). */
void AddMeasureOptions(CLI::App& command, MeasureArgs& args);

/** The MeasureOptions @p args ask for; a malformed region throws CLI::ValidationError. */
MeasureOptions ToMeasureOptions(const MeasureArgs& args);

}  // namespace vyra::tool

#endif  // VYRA_TOOL_MEASURE_ARGS_H
