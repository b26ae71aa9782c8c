// vyra: what every subcommand shares: exit statuses and the one-line error.
#ifndef VYRA_TOOL_COMMAND_H
#define VYRA_TOOL_COMMAND_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "VyraStatus.h"

namespace vyra::tool {

// Exit statuses of the vyra tool.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // cannot write, out of memory, internal error
constexpr int kExitUsage = 2;    // usage error or invalid argument
constexpr int kExitInput = 3;    // missing, unreadable or empty input, no usable timestamps
constexpr int kExitSomeFailed = 4;  // vyra batch: some recordings failed (their lines carry the error)

/** The exit status for a measurement that ended with @p status. */
int ExitCodeFor(VyraStatus status);

/** "vyra: error: <message>" and a newline on standard error. */
void PrintError(const std::string& message);

/**
 * Writes @p text whole to standard output (file descriptor 1, unbuffered).
 * On failure (a full disk, /dev/full, a closed descriptor) returns false and
 * puts the system's reason in @p error.
 */
bool WriteStandardOutput(const std::string& text, std::string& error);

/**
 * A subcommand, registered on the application: run() is called when the
 * command line named it and parsed; it returns the exit status. A
 * CLI::ParseError thrown by run() is a usage error like one of the parse.
 */
struct Subcommand {
    CLI::App* command;
    std::function<int()> run;
};

Subcommand AddBatchCommand(CLI::App& app);    // batch.cpp
Subcommand AddAnalyseCommand(CLI::App& app);  // analyse.cpp
Subcommand AddSampleCommand(CLI::App& app);   // sample.cpp
Subcommand AddCompareCommand(CLI::App& app);  // compare.cpp

}  // namespace vyra::tool

#endif  // VYRA_TOOL_COMMAND_H
