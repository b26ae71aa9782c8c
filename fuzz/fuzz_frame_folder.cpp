// A folder of PNG frames made from the input, measured by vyra::Measure and
// by the historic entry analyse().
//
// Input: two bytes of settings, then up to five frame records separated by
// kSeparator (more separators stay inside the last record). A record's first
// byte moves the time in the file name (the first: 0..255 ms; the others: by
// -128..127 ms from the previous name, so names may repeat or go back); the
// rest are the bytes of the file "%08lld.png".
//   byte 0: bit 0 frame-rate timing, bit 1 dynamic page, bit 2 next-frame
//           launch time, bit 3 stable baseline, bit 4 crop, bit 5 ignore region
//   byte 1: range start (high nibble % 4 - 1) and end (low nibble % 8)
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FuzzSupport.h"
#include "LoadAnalyzer.h"
#include "VyraMeasure.h"

namespace {

const char kSeparator[] = "-vyra-frame-";
const size_t kSeparatorSize = sizeof kSeparator - 1;

std::string g_scratch;
std::string g_folder;

}  // namespace

// analyse() runs the shell command "chcp 65001" on every call (and ignores
// its outcome); a fork and exec per input would cost more than the rest of
// the run, so this process answers it itself.
extern "C" int system(const char*) { return 0; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_scratch = vyra_fuzz::Setup();
    g_folder = g_scratch + "/frames";
    mkdir(g_folder.c_str(), 0700);
    // analyse()'s OpenCV decoder gets the same pixel limit as Measure.
    setenv("OPENCV_IO_MAX_IMAGE_PIXELS", "16384", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint8_t flags = data[0];
    const uint8_t range = data[1];
    const uint8_t* rest = data + 2;
    const uint8_t* end = data + size;

    vyra_fuzz::EmptyFolder(g_folder);
    long long time = 0;
    for (int frame = 0; frame < 5 && rest < end; ++frame) {
        const uint8_t* stop = frame == 4 ? end : static_cast<const uint8_t*>(memmem(rest, end - rest, kSeparator, kSeparatorSize));
        if (stop == nullptr) stop = end;
        const size_t length = static_cast<size_t>(stop - rest);
        const size_t timeBytes = length > 0 ? 1 : 0;
        if (length > 0) time = frame == 0 ? rest[0] : time + static_cast<int8_t>(rest[0]);
        char name[48];
        std::snprintf(name, sizeof name, "/%08lld.png", time);
        vyra_fuzz::WriteFile(g_folder + name, rest + timeBytes, length - timeBytes);
        rest = stop == end ? end : stop + kSeparatorSize;
    }

    vyra::MeasureOptions options;
    if (flags & 1) {
        options.timing = vyra::Timing::FrameRate;
        options.fps = 10.0;
    }
    options.pageType = (flags & 2) ? DYNAMIC_PAGE : STATIC_PAGE;
    options.launchTimeMode = (flags & 4) ? vyra::LaunchTimeMode::NextFrame : vyra::LaunchTimeMode::LoadFinishedFrame;
    options.stableBaseline = (flags & 8) != 0;
    if (flags & 16) options.crop = vyra::Region{1, 1, 8, 6};
    if (flags & 32) options.ignore.push_back(vyra::Region{0, 0, 4, 3});
    options.start = (range >> 4) % 4 - 1;
    options.end = range % 8;
    options.maxFramePixels = 128 * 128;
    options.frameMemoryLimit = 8 << 10;
    try {
        vyra_fuzz::CheckResult(vyra::Measure(g_folder, options));
    } catch (const vyra::MeasureError& e) {
        vyra_fuzz::CheckError(e);
    }

    // analyse() appends to record.log in the current folder: it runs in the
    // scratch folder (libFuzzer's own paths may be relative to the first).
    const int here = open(".", O_RDONLY | O_DIRECTORY);
    if (here < 0 || chdir(g_scratch.c_str()) != 0) vyra_fuzz::Fail("cannot enter the scratch folder");
    analyse(g_folder.c_str(), (flags & 1) ? 0 : 1, 10, options.start, options.end);
    unlink("record.log");
    if (fchdir(here) != 0) vyra_fuzz::Fail("cannot return from the scratch folder");
    close(here);
    return 0;
}
