#include "recording/FrameTimes.h"

namespace vyra {
namespace detail {

double FrameRateSeconds(long position, double fps) { return static_cast<double>(position) / fps; }

double FrameTimeMs(const FrameTiming& timing, size_t index, const std::vector<double>& rawTimesMs) {
    return timing.frameRate ? static_cast<double>(index) * 1000.0 / timing.fps : rawTimesMs[index] - rawTimesMs.front();
}

double FrameTimeSeconds(const FrameTiming& timing, size_t index, const std::vector<double>& rawTimesMs) {
    return timing.frameRate ? FrameRateSeconds(static_cast<long>(index), timing.fps)
                            : FrameTimeMs(timing, index, rawTimesMs) / 1000.0;
}

double NextFrameLaunchSeconds(const FrameTiming& timing, int loadFinished, const std::vector<double>& rawTimesMs,
                              std::optional<double> followingRawMs) {
    const size_t next = static_cast<size_t>(loadFinished) + 1;
    if (timing.frameRate) {
        return FrameRateSeconds(static_cast<long>(next), timing.fps);
    }
    if (next < rawTimesMs.size()) {
        return FrameTimeSeconds(timing, next, rawTimesMs);
    }
    return (followingRawMs.value_or(0.0) - rawTimesMs.front()) / 1000.0;
}

}  // namespace detail
}  // namespace vyra
