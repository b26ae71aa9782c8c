// Internal: a frame source per kind of recording (a folder of frame files,
// a video), each yielding the frames of the selected range in order with
// their raw time, by the rules of a Policy. Every recording the library
// reads, for vyra::Measure and for analyse(), is read through here.
#ifndef VYRA_FRAME_SOURCE_H
#define VYRA_FRAME_SOURCE_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <vector>

#include <opencv2/core.hpp>

#include "recording/FrameFiles.h"
#include "recording/MediaLimits.h"
#include "recording/Policy.h"

namespace vyra {
namespace detail {

// What to read of a recording, and by which rules.
struct SourceOptions {
    FrameRange range;
    bool timestamps = false;  // give every frame its raw time
    Policy policy = Policy::Quiet;
    MediaLimits limits;       // Policy::Quiet: the largest frame and frame file read
};

// One decoded frame of the range.
struct SourceFrame {
    cv::Mat pixels;          // 8-bit BGR
    double timeMs = 0.0;     // raw time in ms (timestamp timing only, else 0); for frame
                             // files, ms since the first frame read (name times are
                             // subtracted as 64-bit integers, so they stay exact)
    bool timeEstimated = false;
    std::string label;       // names the frame in messages: file name or "frame N"
};

// Yields the frames of one recording's range. Errors are thrown as
// RecordingError (under Policy::Historic only OpenCV's own exceptions pass).
class FrameSource {
public:
    virtual ~FrameSource();

    // The next frame of the range; false after the last one. Under
    // Policy::Quiet, throws VYRA_ERROR_EMPTY when the range turns out to hold
    // no frame (Policy::Historic: false at once). A video
    // frame is decoded into frame.pixels' own buffer when it has the size and
    // type, so pass a buffer nothing else still reads (or an empty one).
    virtual bool Next(SourceFrame& frame) = 0;

    // Makes the next Next() give frame @p index of the range (counted from the
    // range's first frame); a video reads again from its start to go back.
    // Under Policy::Historic there is no going back: false.
    virtual bool SeekTo(size_t index) = 0;

    // Frames the range is expected to hold; 0 when unknown. A video's count
    // comes from its container and may be off.
    virtual size_t ExpectedCount() const = 0;

    // After Next() returned false, with timestamp timing: the raw time of the
    // recording's frame that follows the range, when there is one with a time.
    // A frame folder without a following frame gives absolute time zero on
    // its scale (minus the first frame's name time).
    virtual std::optional<double> FollowingTimeMs() = 0;

    // True when the recording stores its frames losslessly (PNG files, a
    // lossless video codec), so that two decoded frames differ only where
    // the recorded picture did.
    virtual bool Lossless() const = 0;
};

// Opens @p path by what it is: a folder of frame files (listed, sorted),
// else a video. Throws VYRA_ERROR_NOT_FOUND, _UNREADABLE, _EMPTY.
std::unique_ptr<FrameSource> OpenFrameSource(const std::string& path, const SourceOptions& options);

// The frames of folder @p dir whose sorted frame file names are @p names.
std::unique_ptr<FrameSource> OpenFolderSource(const std::string& dir, std::vector<std::string> names,
                                              const SourceOptions& options);

// The frames of the video @p path.
std::unique_ptr<FrameSource> OpenVideoSource(const std::string& path, const SourceOptions& options);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_SOURCE_H
