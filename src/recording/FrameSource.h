// Frame intake of the measurement API: one frame source per kind of
// recording, each yielding the frames of the selected range in order with
// their raw time. All decoding of recordings for vyra::Measure happens here.
// Internal to the library (not installed).
#ifndef VYRA_FRAME_SOURCE_H
#define VYRA_FRAME_SOURCE_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <opencv2/core.hpp>

namespace vyra {
namespace detail {

// The range as the caller gave it; see RangeStop for how it is read.
struct FrameRange {
    int start = 0;
    int end = 0;
};

// First position of the range: start, or 0 for a negative start.
size_t RangeFirst(const FrameRange& range);
// One past the last position for a recording of @p count frames:
// end + 1 when end > 1, else count; never beyond count.
size_t RangeStop(const FrameRange& range, size_t count);

// One decoded frame of the range.
struct SourceFrame {
    cv::Mat pixels;          // 8-bit BGR
    double timeMs = 0.0;     // raw time in ms (timestamp timing only, else 0)
    bool timeEstimated = false;
    std::string label;       // names the frame in messages: file name or "frame N"
};

// Yields the frames of one recording's range. Errors are thrown as
// vyra::MeasureError.
class FrameSource {
public:
    virtual ~FrameSource();

    // The next frame of the range; false after the last one. Throws
    // VYRA_ERROR_EMPTY when the range turns out to hold no frame. A video
    // frame is decoded into frame.pixels' own buffer when it has the size and
    // type, so pass a buffer nothing else still reads (or an empty one).
    virtual bool Next(SourceFrame& frame) = 0;

    // Frames the range is expected to hold; 0 when unknown. A video's count
    // comes from its container and may be off.
    virtual size_t ExpectedCount() const = 0;

    // After Next() returned false, with timestamp timing: the raw time of the
    // recording's frame that follows the range, when there is one with a time.
    virtual std::optional<double> FollowingTimeMs() = 0;
};

// Opens @p path: a folder of PNG frames, or else a video. With
// @p timestamps the frames carry their raw times (presentation timestamp or
// file-name number). Throws VYRA_ERROR_NOT_FOUND, _UNREADABLE, _EMPTY.
std::unique_ptr<FrameSource> OpenFrameSource(const std::string& path, const FrameRange& range,
                                             bool timestamps);

// The number a frame file name starts with: the text before its last dot
// (the whole name without a dot) read like strtol, base 10. Empty when that
// text holds no number.
std::optional<long long> ParseNameTime(const std::string& name);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_SOURCE_H
