#include "recording/FrameFiles.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <system_error>

#include "recording/FfmpegImage.h"
#include "recording/OpenCvIo.h"
#include "recording/RecordingError.h"

namespace vyra {
namespace detail {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

[[noreturn]] void throwUnlistable(const std::string& dir, int error) {
    throw RecordingError(VYRA_ERROR_UNREADABLE,
                         "cannot list folder '" + dir + "': " + std::generic_category().message(error));
}

// Every byte of a file, or nothing when it cannot be opened or read (a
// directory opens but fails on the first read).
std::vector<uchar> readFileBytes(const std::string& file) {
    std::vector<uchar> bytes;
    std::ifstream in(file, std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        return bytes;
    }
    std::vector<char> chunk(1 << 16);
    for (;;) {
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        const std::streamsize got = in.gcount();
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
        if (!in) {
            break;
        }
    }
    if (in.bad()) {
        bytes.clear();
    }
    return bytes;
}

}  // namespace

bool IsFrameFileName(const std::string& name) {
    if (name.empty() || name[0] == '.') {
        return false;
    }
    const size_t dot = name.rfind('.');
    return (dot == std::string::npos ? name : name.substr(dot + 1)) == "png";
}

void ListFrameFiles(const std::string& dir, Policy policy, std::vector<std::string>& names) {
    const std::unique_ptr<DIR, DirCloser> listing(opendir(dir.c_str()));
    if (!listing) {
        if (policy == Policy::Quiet) throwUnlistable(dir, errno);
        return;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(listing.get());
        if (entry == nullptr) {
            if (errno != 0 && policy == Policy::Quiet) throwUnlistable(dir, errno);
            return;
        }
        if (IsFrameFileName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
}

void SortFrameNames(std::vector<std::string>& names) { std::sort(names.begin(), names.end()); }

std::optional<long long> ParseNameTime(const std::string& name) {
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
    const char* text = stem.c_str();
    char* stop = nullptr;
    const long long value = std::strtoll(text, &stop, 10);
    if (stop == text) {
        return std::nullopt;
    }
    return value;
}

size_t RangeFirst(const FrameRange& range) { return range.start > 0 ? static_cast<size_t>(range.start) : 0; }

size_t RangeStop(const FrameRange& range, size_t count) {
    const size_t stop = range.end > 1 ? static_cast<size_t>(range.end) + 1 : count;
    return std::min(stop, count);
}

std::string DescribeRange(const FrameRange& range) {
    return "start " + std::to_string(range.start) + ", end " + std::to_string(range.end);
}

cv::Mat ReadFrameFile(const std::string& path, Policy policy, const MediaLimits& limits) {
    if (policy == Policy::Quiet) {
        return DecodePng(ReadFileBytes(path, limits.MaxFileBytes()), limits, path);
    }
    const std::vector<uchar> bytes = readFileBytes(path);
    return bytes.empty() ? cv::Mat() : DecodeWithOpenCv(bytes);
}

}  // namespace detail
}  // namespace vyra
