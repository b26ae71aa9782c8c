// Video bytes measured by vyra::Measure: whatever container and codec FFmpeg
// finds in them (the seeds are small MP4, Matroska and AVI files).
//
// The settings come from the input's length, so that the bytes stay a video
// file as they are: bit 0 dynamic page, bit 1 next-frame launch time, bit 2
// frame-rate timing, bit 3 range from frame 1 to 4.
#include <cstddef>
#include <cstdint>
#include <string>

#include <unistd.h>

#include "FuzzSupport.h"
#include "VyraMeasure.h"

namespace {
std::string g_video;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_video = vyra_fuzz::Setup() + "/recording";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vyra_fuzz::WriteFile(g_video, data, size);
    vyra::MeasureOptions options;
    options.pageType = (size & 1) ? DYNAMIC_PAGE : STATIC_PAGE;
    options.launchTimeMode = (size & 2) ? vyra::LaunchTimeMode::NextFrame : vyra::LaunchTimeMode::LoadFinishedFrame;
    if (size & 4) {
        options.timing = vyra::Timing::FrameRate;
        options.fps = 25.0;
    }
    if (size & 8) {
        options.start = 1;
        options.end = 4;
    }
    options.maxFramePixels = 128 * 128;
    options.frameMemoryLimit = 8 << 10;
    try {
        vyra_fuzz::CheckResult(vyra::Measure(g_video, options));
    } catch (const vyra::MeasureError& e) {
        vyra_fuzz::CheckError(e);
    }
    return 0;
}
