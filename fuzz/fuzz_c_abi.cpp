// The C interface: vyra_measure() with settings made of random bytes, of a
// random struct_size, over a small folder of frames (or a missing path, a
// file of junk, NULL). The harness makes the pointers in the settings valid
// (the bytes choose NULL or a buffer, counts and sizes) and checks what the
// interface promises: a known status, also in result->status; nothing
// written to the result past its struct_size or to the error buffer past
// error_size; a NUL-terminated message; the "nothing found" values after an
// error; progress_out values in [0, 1].
#include <fuzzer/FuzzedDataProvider.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "FuzzSupport.h"
#include "recording/FfmpegImage.h"
#include "vyra.h"

using vyra_fuzz::Check;

namespace {

std::string g_folder;
std::string g_junk;
std::string g_saved;
std::string g_report;
std::string g_filmstrip;

const size_t kSlack = 32;  // bytes past each structure, which must stay untouched
const uint8_t kCanary = 0xA5;

void progress(void*, VyraStage stage, uint64_t, uint64_t) {
    Check(stage == VYRA_STAGE_DECODING || stage == VYRA_STAGE_ANALYSING, "progress with an unknown stage");
}

// A launch in four 32x24 frames: a blank screen, a logo, then the page.
void writeRecording() {
    cv::Mat frame(24, 32, CV_8UC3, cv::Scalar(255, 255, 255));
    vyra::detail::WritePng(g_folder + "/00001000.png", frame);
    cv::rectangle(frame, cv::Rect(12, 8, 8, 8), cv::Scalar(0, 0, 200), cv::FILLED);
    vyra::detail::WritePng(g_folder + "/00001040.png", frame);
    for (int y = 2; y < 22; y += 4) cv::rectangle(frame, cv::Rect(2, y, 28, 2), cv::Scalar(40, 40, 40), cv::FILLED);
    vyra::detail::WritePng(g_folder + "/00001080.png", frame);
    vyra::detail::WritePng(g_folder + "/00001120.png", frame);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string scratch = vyra_fuzz::Setup();
    g_folder = scratch + "/frames";
    g_junk = scratch + "/junk.mp4";
    g_saved = scratch + "/saved";
    g_report = scratch + "/report.html";
    g_filmstrip = scratch + "/filmstrip.png";
    mkdir(g_folder.c_str(), 0700);
    writeRecording();
    const uint8_t junk[] = {0, 0, 0, 0x18, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 1, 2, 3};
    vyra_fuzz::WriteFile(g_junk, junk, sizeof junk);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);

    // Settings: random bytes of a random declared size, pointers made valid.
    alignas(VyraSettings) unsigned char settingsBytes[sizeof(VyraSettings) + kSlack];
    const std::vector<uint8_t> raw = in.ConsumeBytes<uint8_t>(sizeof settingsBytes);
    std::memset(settingsBytes, 0, sizeof settingsBytes);
    if (!raw.empty()) std::memcpy(settingsBytes, raw.data(), raw.size());
    VyraSettings* s = reinterpret_cast<VyraSettings*>(settingsBytes);
    if (in.ConsumeBool()) {
        // Often start from the defaults, so that deep paths are reached.
        VyraSettings defaults;
        vyra_default_settings(&defaults);
        std::memcpy(settingsBytes, &defaults, sizeof defaults);
        s->timing = static_cast<VyraTiming>(in.ConsumeIntegralInRange(-1, 2));
        s->page_type = static_cast<VyraPage>(in.ConsumeIntegralInRange(-1, 2));
        s->launch_time_mode = static_cast<VyraLaunchTimeMode>(in.ConsumeIntegralInRange(-1, 2));
        s->fps = in.ConsumeFloatingPoint<double>();
        s->start = in.ConsumeIntegralInRange(-2, 5);
        s->end = in.ConsumeIntegralInRange(-2, 5);
        s->has_crop = in.ConsumeBool();
        s->crop = VyraRegion{in.ConsumeIntegralInRange(-2, 40), in.ConsumeIntegralInRange(-2, 30),
                             in.ConsumeIntegralInRange(-2, 40), in.ConsumeIntegralInRange(-2, 30)};
        s->noise_tolerance = in.ConsumeIntegralInRange(-2, 300);
    }
    s->struct_size = in.ConsumeBool() ? sizeof(VyraSettings) : in.ConsumeIntegralInRange<size_t>(0, sizeof settingsBytes);

    std::vector<VyraRegion> ignore(in.ConsumeIntegralInRange<size_t>(0, 4));
    for (VyraRegion& r : ignore) {
        r = VyraRegion{in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(),
                       in.ConsumeIntegral<int32_t>()};
        if (in.ConsumeBool()) {
            r = VyraRegion{in.ConsumeIntegralInRange(-1, 32), in.ConsumeIntegralInRange(-1, 24),
                           in.ConsumeIntegralInRange(-1, 33), in.ConsumeIntegralInRange(-1, 25)};
        }
    }
    const bool nullIgnore = in.ConsumeIntegralInRange(0, 7) == 0;
    s->ignore = nullIgnore ? nullptr : ignore.data();
    s->ignore_count = ignore.size();
    const char* const dirs[] = {nullptr, "", g_saved.c_str()};
    s->save_frames_dir = in.ConsumeIntegralInRange(0, 7) == 0 ? in.PickValueInArray(dirs) : nullptr;
    s->progress = in.ConsumeBool() ? progress : nullptr;
    std::vector<double> progressOut(in.ConsumeIntegralInRange<size_t>(0, 8), -7.0);
    std::vector<double> timesOut(progressOut.size(), -7.0);
    s->progress_out = in.ConsumeBool() ? progressOut.data() : nullptr;
    s->frame_times_out = in.ConsumeBool() ? timesOut.data() : nullptr;
    s->series_capacity = in.ConsumeIntegralInRange<size_t>(0, progressOut.size());
    const char* const reports[] = {nullptr, "", g_report.c_str()};
    const char* const filmstrips[] = {nullptr, "", g_filmstrip.c_str()};
    s->report_path = in.ConsumeIntegralInRange(0, 15) == 0 ? in.PickValueInArray(reports) : nullptr;
    s->filmstrip_path = in.ConsumeIntegralInRange(0, 15) == 0 ? in.PickValueInArray(filmstrips) : nullptr;

    // The result and the error buffer, with canaries past their sizes.
    alignas(VyraResult) unsigned char resultBytes[sizeof(VyraResult) + kSlack];
    std::memset(resultBytes, kCanary, sizeof resultBytes);
    const size_t resultSize = in.ConsumeBool() ? sizeof(VyraResult) : in.ConsumeIntegralInRange<size_t>(0, sizeof resultBytes);
    std::memcpy(resultBytes, &resultSize, sizeof resultSize);
    char errorBytes[64 + kSlack];
    std::memset(errorBytes, kCanary, sizeof errorBytes);
    const size_t errorSize = in.ConsumeIntegralInRange<size_t>(0, 64);
    const bool nullError = in.ConsumeIntegralInRange(0, 7) == 0;

    const char* const paths[] = {g_folder.c_str(), g_folder.c_str(), g_folder.c_str(), g_junk.c_str(),
                                 "/nonexistent/vyra", nullptr};
    const char* path = in.PickValueInArray(paths);
    const bool nullSettings = in.ConsumeIntegralInRange(0, 15) == 0;
    VyraResult* result = reinterpret_cast<VyraResult*>(resultBytes);

    const VyraStatus status = vyra_measure(path, nullSettings ? nullptr : s, result, nullError ? nullptr : errorBytes,
                                           errorSize);

    Check(status >= VYRA_OK && status <= VYRA_ERROR_WRITE, "unknown status");
    const size_t minimum = offsetof(VyraResult, status) + sizeof(VyraStatus);
    const size_t written = resultSize < minimum ? 0 : std::min(resultSize, sizeof(VyraResult));
    if (resultSize < minimum) Check(status == VYRA_ERROR_INVALID_ARGUMENT, "a too small result accepted");
    Check(std::memcmp(resultBytes, &resultSize, sizeof resultSize) == 0, "result->struct_size changed");
    for (size_t k = std::max(written, sizeof resultSize); k < sizeof resultBytes; ++k) {
        Check(resultBytes[k] == kCanary, "result written past its struct_size");
    }
    if (written > 0) Check(result->status == status, "result->status differs from the returned status");
    if (written == sizeof(VyraResult)) {
        if (status == VYRA_OK) {
            Check(result->frame_count >= 1 && result->frame_width >= 1 && result->frame_height >= 1, "empty result");
        } else if (status != VYRA_ERROR_WRITE) {
            Check(result->frame_count == 0 && std::isnan(result->launch_time) && result->load_finished.index == -1,
                  "an error with values in the result");
        }
    }
    if (!nullError) {
        for (size_t k = errorSize; k < sizeof errorBytes; ++k) Check(errorBytes[k] == char(kCanary), "error written past its size");
        if (errorSize > 0) Check(std::memchr(errorBytes, '\0', errorSize) != nullptr, "error message not terminated");
        if (errorSize > 1) {
            Check((status == VYRA_OK) == (errorBytes[0] == '\0'), "error message and status disagree");
        }
    }
    if (status == VYRA_OK && !nullSettings && s->struct_size >= sizeof(VyraSettings) && s->progress_out != nullptr) {
        const size_t filled = std::min<size_t>(s->series_capacity, written >= offsetof(VyraResult, frame_width) ? result->frame_count : 0);
        for (size_t k = 0; k < filled; ++k) Check(progressOut[k] >= 0.0 && progressOut[k] <= 1.0, "progress outside [0, 1]");
    }
    vyra_fuzz::EmptyFolder(g_saved);
    return 0;
}
