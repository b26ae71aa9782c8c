// vyra: the command-line face of libvyra.
//
//   vyra analyse RECORDING [options]   measure the launch time of a recording
//   vyra batch INPUTS... --out FILE    measure many recordings, one JSON line each
//   vyra sample OUT [options]          render a synthetic launch recording
//
// Exit status: 0 success (also when no load-finished frame was found),
// 1 any other failure (cannot write, out of memory, internal error),
// 2 usage error or invalid argument, 3 input that cannot be used (missing,
// unreadable, empty, no usable timestamps); vyra batch also 4 when some
// recordings failed and 130 when interrupted.
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "VyraMeasure.h"
#include "command.h"
#include "vyra.h"

namespace {

using namespace vyra::tool;

int run(int argc, char** argv) {
    CLI::App app{"vyra: launch time of an app page from a screen recording", "vyra"};
    app.set_version_flag("--version", std::string("vyra ") + vyra_version());
    app.require_subcommand(1);
    const std::vector<Subcommand> commands = {AddAnalyseCommand(app), AddBatchCommand(app), AddCompareCommand(app),
                                              AddSampleCommand(app)};
    try {
        app.parse(argc, argv);
        for (const Subcommand& command : commands) {
            if (command.command->parsed()) {
                return command.run();
            }
        }
        return kExitUsage;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            return app.exit(e);
        }
        PrintError(e.what());
        std::cerr << "Run with --help for more information." << std::endl;
        return kExitUsage;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const vyra::MeasureError& e) {
        PrintError(e.what());
        return ExitCodeFor(e.status());
    } catch (const std::exception& e) {
        PrintError(e.what());
        return kExitFailure;
    } catch (...) {
        PrintError("unknown failure");
        return kExitFailure;
    }
}
