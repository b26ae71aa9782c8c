// Frame file names and the timing functions: which names are frames, the
// time in a name, the order of names, ranges, frame times and the launch
// time, in the quiet units and in the historic helpers of analyse(). Each
// answer is checked against what its documentation promises.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "LoadAnalyzer.h"
#include "recording/FrameFiles.h"
#include "recording/FrameTimes.h"

using vyra_fuzz::Check;

namespace {

// The number a name starts with, read as documented: the text before the
// last dot, leading white space, a sign, decimal digits, saturated.
std::optional<long long> referenceNameTime(const std::string& name) {
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
    size_t k = 0;
    while (k < stem.size() && std::isspace(static_cast<unsigned char>(stem[k]))) ++k;
    bool negative = false;
    if (k < stem.size() && (stem[k] == '+' || stem[k] == '-')) negative = stem[k++] == '-';
    if (k == stem.size() || !std::isdigit(static_cast<unsigned char>(stem[k]))) return std::nullopt;
    unsigned long long magnitude = 0;
    const unsigned long long limit = negative ? 1ULL + LLONG_MAX : LLONG_MAX;
    for (; k < stem.size() && std::isdigit(static_cast<unsigned char>(stem[k])); ++k) {
        const unsigned digit = static_cast<unsigned>(stem[k] - '0');
        magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
    }
    if (negative) return magnitude == 1ULL + LLONG_MAX ? LLONG_MIN : -static_cast<long long>(magnitude);
    return static_cast<long long>(magnitude);
}

std::string extensionOf(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(dot + 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vyra_fuzz::Setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<std::string> names(in.ConsumeIntegralInRange<size_t>(1, 6));
    for (std::string& name : names) name = in.ConsumeRandomLengthString(40);

    for (const std::string& name : names) {
        const bool frame = vyra::detail::IsFrameFileName(name);
        Check(frame == (!name.empty() && name[0] != '.' && extensionOf(name) == "png"), "IsFrameFileName");
        Check(compareFileType(name, "png") == (extensionOf(name) == "png"), "compareFileType");
        const std::string ext = extensionOf(name);
        Check(checkVideoFile(name) == (ext == "mkv" || ext == "mp4" || ext == "mov" || ext == "rm" || ext == "ram"),
              "checkVideoFile");
        Check(vyra::detail::ParseNameTime(name) == referenceNameTime(name), "ParseNameTime of '" + name + "'");
    }
    Check(cmp(names.front(), names.back()) == (names.front().compare(names.back()) > 0), "cmp");

    std::vector<std::string> sorted = names;
    vyra::detail::SortFrameNames(sorted);
    Check(std::is_sorted(sorted.begin(), sorted.end()) && std::is_permutation(sorted.begin(), sorted.end(), names.begin()),
          "SortFrameNames");

    const int start = in.ConsumeIntegral<int>();
    const int end = in.ConsumeIntegral<int>();
    const int index = in.ConsumeIntegral<int>();
    for (int position : {index, start, end}) {
        const bool inside = position > 0 && static_cast<size_t>(position) < sorted.size();
        const long long time = inside ? referenceNameTime(sorted[static_cast<size_t>(position)]).value_or(0) : 0;
        Check(readFileName(sorted, position) == static_cast<int32_t>(static_cast<uint32_t>(time)), "readFileName");
    }

    const size_t count = in.ConsumeIntegral<size_t>();
    const vyra::detail::FrameRange range{start, end};
    Check(vyra::detail::RangeFirst(range) == static_cast<size_t>(std::max(start, 0)), "RangeFirst");
    const size_t stop = vyra::detail::RangeStop(range, count);
    Check(stop <= count && (end <= 1 ? stop == count : stop == std::min(count, static_cast<size_t>(end) + 1)),
          "RangeStop");
    Check(!vyra::detail::DescribeRange(range).empty(), "DescribeRange");

    // Frame times: raw times in ms (any doubles), or a frame rate.
    std::vector<double> raw(in.ConsumeIntegralInRange<size_t>(1, 8));
    for (double& t : raw) t = in.ConsumeBool() ? in.ConsumeFloatingPoint<double>() : in.ConsumeIntegral<int32_t>();
    const double fps = in.ConsumeFloatingPoint<double>();
    const int loadFinished = in.ConsumeIntegralInRange<int>(-1, static_cast<int>(raw.size()) - 1);
    const std::optional<double> following =
        in.ConsumeBool() ? std::optional<double>(in.ConsumeFloatingPoint<double>()) : std::nullopt;
    for (const bool atFrameRate : {false, true}) {
        const vyra::detail::FrameTiming timing{atFrameRate, fps};
        for (size_t k = 0; k < raw.size(); ++k) {
            const double ms = vyra::detail::FrameTimeMs(timing, k, raw);
            const double s = vyra::detail::FrameTimeSeconds(timing, k, raw);
            const double expected = atFrameRate ? static_cast<double>(k) / fps : (raw[k] - raw[0]) / 1000.0;
            Check((std::isnan(s) && std::isnan(expected)) || s == expected, "FrameTimeSeconds");
            Check(!atFrameRate || std::isnan(ms) || std::isnan(s) || std::isinf(ms) || std::fabs(ms / 1000.0 - s) <= 1e-9 * std::fabs(s) + 1e-300,
                  "FrameTimeMs and FrameTimeSeconds disagree");
        }
        const double launch = vyra::detail::NextFrameLaunchSeconds(timing, loadFinished, raw, following);
        const size_t next = static_cast<size_t>(loadFinished + 1);
        const double expected = atFrameRate          ? static_cast<double>(next) / fps
                                : next < raw.size() ? (raw[next] - raw[0]) / 1000.0
                                                    : (following.value_or(0.0) - raw[0]) / 1000.0;
        Check((std::isnan(launch) && std::isnan(expected)) || launch == expected, "NextFrameLaunchSeconds");
    }

    // The historic launch time: 32-bit name times, or endPos / fps.
    const int intFps = in.ConsumeIntegral<int>();
    const int a = readFileName(sorted, start);
    const int b = readFileName(sorted, end);
    const double byNames = count_launch_time_mseconds(sorted, start, end, 1, intFps);
    Check(byNames == static_cast<int32_t>(static_cast<uint32_t>(b) - static_cast<uint32_t>(a)) / 1000.0,
          "count_launch_time_mseconds by names");
    const double byRate = count_launch_time_mseconds(sorted, start, end, 0, intFps);
    const double rateExpected = static_cast<double>(end) / static_cast<double>(intFps);
    Check((std::isnan(byRate) && std::isnan(rateExpected)) || byRate == rateExpected,
          "count_launch_time_mseconds by frame rate");

    Check(!convertTimeStamp2TimeStr(in.ConsumeIntegral<long>()).empty(), "convertTimeStamp2TimeStr");
    return 0;
}
