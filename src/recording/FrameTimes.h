// Internal: the times of the frames read from a recording, counted from the
// range's first frame, and the launch time by the historic rule.
#ifndef VYRA_FRAME_TIMES_H
#define VYRA_FRAME_TIMES_H

#include <cstddef>
#include <optional>
#include <vector>

namespace vyra {
namespace detail {

/**
 * How frame positions become times: by each frame's raw time (a name's
 * number or a presentation timestamp, in ms), or evenly at a frame rate.
 */
struct FrameTiming {
    bool frameRate = false;
    double fps = 0.0;  ///< frames per second, above 0 with frameRate
};

/** Seconds of frame @p position at @p fps frames per second: position / fps, in double. */
double FrameRateSeconds(long position, double fps);

/**
 * Milliseconds of frame @p index from the first frame: index * 1000 / fps at
 * a frame rate, else its raw time less the first frame's (@p rawTimesMs holds
 * at least index + 1 entries).
 */
double FrameTimeMs(const FrameTiming& timing, size_t index, const std::vector<double>& rawTimesMs);

/** The same time in seconds (index / fps at a frame rate). */
double FrameTimeSeconds(const FrameTiming& timing, size_t index, const std::vector<double>& rawTimesMs);

/**
 * The launch time, in seconds from the first frame, by the rule of the
 * historic entry analyse(): the time of the frame after the load-finished
 * frame @p loadFinished. At a frame rate that is (loadFinished + 1) / fps,
 * also past the last frame. By raw times it is that frame's time, read from
 * @p rawTimesMs inside the range or else from @p followingRawMs (the
 * recording's frame after the range); when the recording has no such frame
 * its raw time reads as 0, as in analyse(), which gives minus the first
 * frame's raw time.
 */
double NextFrameLaunchSeconds(const FrameTiming& timing, int loadFinished, const std::vector<double>& rawTimesMs,
                              std::optional<double> followingRawMs);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_TIMES_H
