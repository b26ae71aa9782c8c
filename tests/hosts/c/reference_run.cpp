// The C++ side of the C host comparison.
//
//   reference_run make-folder <dir>   writes the known launch sequence as
//                                     <dir>/00.png .. 09.png
//   reference_run run <path> <frameMode> <fps> <startIndex> <endIndex>
//                                     runs analyseFrame and prints its result
//                                     the way analyse_host does
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "LoadAnalyzer.h"
#include "fixtures.h"

namespace {

int makeFolder(const std::string& dir) {
    std::vector<std::string> names;
    for (int k = 0; k < 10; ++k) {
        names.push_back("0" + std::to_string(k) + ".png");
    }
    vyra_test::writePngFolder(dir, names, vyra_test::launchSequence());
    return 0;
}

int run(char** args) {
    const double seconds = analyseFrame(args[0], std::atoi(args[1]), std::atoi(args[2]),
                                        std::atoi(args[3]), std::atoi(args[4]));
    std::printf("analyse returned: %.17g\n", seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "make-folder" && argc == 3) {
        return makeFolder(argv[2]);
    }
    if (command == "run" && argc == 7) {
        return run(argv + 2);
    }
    std::fprintf(stderr, "usage: %s make-folder <dir> | run <path> <mode> <fps> <start> <end>\n",
                 argv[0]);
    return 2;
}
