// Running the built vyra tool (its path in the environment variable
// VYRA_CLI, else the compiled-in VYRA_CLI_DEFAULT, else "vyra" on PATH).
#ifndef VYRA_TESTS_CLI_SUPPORT_H
#define VYRA_TESTS_CLI_SUPPORT_H

#include <cstdlib>
#include <string>
#include <vector>

#include "fixtures.h"

namespace vyra_test {

inline std::string cliPath() {
    const char* env = std::getenv("VYRA_CLI");
#ifdef VYRA_CLI_DEFAULT
    return env != nullptr && *env != '\0' ? env : VYRA_CLI_DEFAULT;
#else
    return env != nullptr ? env : "vyra";
#endif
}

inline ProcessResult runVyra(std::vector<std::string> args, const fs::path& cwd = {}, bool terminal = false) {
    args.insert(args.begin(), cliPath());
    return runProcess(args, cwd, terminal);
}

}  // namespace vyra_test

#endif  // VYRA_TESTS_CLI_SUPPORT_H
