// Shared by the fuzz targets: a private scratch folder, files written whole,
// standard output silenced, and the checks every quiet result must pass.
#ifndef VYRA_FUZZ_SUPPORT_H
#define VYRA_FUZZ_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <utility>
#include <mutex>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "VyraMeasure.h"

namespace vyra_fuzz {

// Stops the process with a message: a broken promise of the library, which
// libFuzzer reports as a crash with the input that caused it.
[[noreturn]] inline void Fail(const std::string& what) {
    std::fprintf(stderr, "vyra fuzz check failed: %s\n", what.c_str());
    std::abort();
}

inline void Check(bool ok, const std::string& what) {
    if (!ok) Fail(what);
}

// FFmpeg messages that reached the process-wide log callback at a level its
// default callback prints, counted by context and format, with the first
// text of each; the library promises that only a few rare kinds do (see
// src/recording/FfmpegVideo.h). Printed once when the process ends, instead
// of each message.
struct FfmpegLog {
    std::mutex mutex;
    std::map<std::string, std::pair<unsigned long, std::string>> counts;
};

inline FfmpegLog& TheFfmpegLog() {
    static FfmpegLog* log = new FfmpegLog;  // outlives the atexit report
    return *log;
}

inline void CountFfmpegMessage(void* context, int level, const char* format, va_list args) {
    if ((level & 0xff) > av_log_get_level()) return;
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    const AVClass* const* cls = static_cast<const AVClass* const*>(context);
    const std::string from = cls != nullptr && *cls != nullptr ? (*cls)->class_name : "(no context)";
    FfmpegLog& log = TheFfmpegLog();
    const std::lock_guard<std::mutex> lock(log.mutex);
    auto& entry = log.counts[from + ": " + format];
    if (entry.first++ == 0) entry.second = text;
}

inline void ReportFfmpegMessages() {
    FfmpegLog& log = TheFfmpegLog();
    const std::lock_guard<std::mutex> lock(log.mutex);
    if (log.counts.empty()) return;
    std::fprintf(stderr, "FFmpeg messages that reached the process-wide log (count, context: first text):\n");
    for (const auto& [key, entry] : log.counts) {
        std::fprintf(stderr, "  %lu  %s: %s", entry.first, key.substr(0, key.find(':')).c_str(), entry.second.c_str());
    }
}

// Once per process: standard output goes to /dev/null (analyse() and the
// historic helpers print there), FFmpeg's messages are counted (above), the
// OpenCV codec module is looked up in the
// build tree unless VYRA_PLUGIN_DIR says otherwise, and a fresh scratch
// folder is made (removed at exit); returns its path.
inline std::string Setup() {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    setenv("VYRA_PLUGIN_DIR", VYRA_FUZZ_PLUGIN_DIR, 0);
    av_log_set_callback(CountFfmpegMessage);
    std::atexit(ReportFfmpegMessages);
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vyra-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) Fail("cannot make a scratch folder");
    static std::string scratch = pattern;
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    });
    return pattern;
}

inline void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) Fail("cannot write " + path);
    if (size > 0 && std::fwrite(data, 1, size, file) != size) Fail("cannot write " + path);
    std::fclose(file);
}

// Removes every entry of folder @p dir (plain files only are ever made there).
inline void EmptyFolder(const std::string& dir) {
    DIR* listing = opendir(dir.c_str());
    if (listing == nullptr) return;
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") unlink((dir + "/" + name).c_str());
    }
    closedir(listing);
}

inline bool ValidStatus(VyraStatus status) { return status > VYRA_OK && status <= VYRA_ERROR_WRITE; }

inline bool KeyFrameConsistent(const vyra::KeyFrame& key, const vyra::MeasureResult& r) {
    if (key.index == -1) return std::isnan(key.time);
    return key.index >= 0 && static_cast<size_t>(key.index) < r.frameCount &&
           key.time == r.frameTimes[static_cast<size_t>(key.index)];
}

// What every successful measurement promises, whatever the recording held.
inline void CheckResult(const vyra::MeasureResult& r) {
    Check(r.frameCount >= 1, "a result without frames");
    Check(r.frameTimes.size() == r.frameCount, "frameTimes does not hold one time per frame");
    Check(r.frameTimes[0] == 0.0, "the first frame is not at time 0");
    Check(r.frameWidth >= 1 && r.frameHeight >= 1, "a result with an empty frame size");
    Check(r.estimatedTimeCount <= r.frameCount, "more estimated times than frames");
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        Check(KeyFrameConsistent(r.*field.member, r), std::string("key frame ") + field.key + " out of place");
    }
    Check(r.visual.progress.empty() || r.visual.progress.size() == r.frameCount,
          "visual progress does not hold one value per frame");
    for (const double p : r.visual.progress) Check(p >= 0.0 && p <= 1.0, "visual progress outside [0, 1]");
}

inline void CheckError(const vyra::MeasureError& e) {
    Check(ValidStatus(e.status()), "an error with an unknown status");
    Check(e.what()[0] != '\0', "an error without a message");
}

}  // namespace vyra_fuzz

#endif  // VYRA_FUZZ_SUPPORT_H
