// Internal: frames of a recording read again, for the analysis of frames the
// intake's store did not keep (see FrameStore's byte limit).
#ifndef VYRA_FRAME_RELOADER_H
#define VYRA_FRAME_RELOADER_H

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraMeasure.h"
#include "measure/FramePreparer.h"
#include "recording/FrameSource.h"

namespace vyra {
namespace detail {

/**
 * Reads frames of the range of @p path again and prepares them exactly as
 * the intake did (the same ignore colours, the same crop), on demand. Reading
 * goes forward: a frame after the last one read costs the decoding of the
 * frames in between (a frame file: nothing), a frame before it is read from
 * the recording's start again, unless it is among the last kRecentFrames
 * frames read, which are kept: enough for the analysis and the object
 * detection working a few frames ahead of it (ObjectPrefetch) to share one
 * reading. The recording is opened on the first Load().
 *
 * Errors are thrown as RecordingError or MeasureError, like the intake's.
 * Load() may be called from several threads; @p options must outlive the
 * reloader.
 */
class FrameReloader {
public:
    static constexpr size_t kRecentFrames = 12;

    FrameReloader(std::string path, const MeasureOptions& options, std::vector<cv::Scalar> ignoreColours);

    /** Prepared frame @p index of the range, in a matrix of its own. */
    cv::Mat Load(size_t index);

private:
    std::string path_;
    const MeasureOptions& options_;
    FramePreparer preparer_;
    std::unique_ptr<FrameSource> source_;
    size_t next_ = 0;  // index the source gives next
    std::deque<std::pair<size_t, cv::Mat>> recent_;
    std::mutex mutex_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_RELOADER_H
