// Internal: a recording made of frame files. Which names are frames, how
// they are listed and ordered, the time in a name, the range of a recording
// that is read, and reading one frame file.
#ifndef VYRA_FRAME_FILES_H
#define VYRA_FRAME_FILES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "recording/MediaLimits.h"
#include "recording/Policy.h"

namespace vyra {
namespace detail {

/**
 * True when @p name is a frame file name: it does not begin with a dot and
 * the text after its last dot (the whole name when it has none) is exactly
 * "png".
 */
bool IsFrameFileName(const std::string& name);

/**
 * Appends the frame file names of folder @p dir to @p names in the order the
 * directory listing gives them (entries are not looked at beyond their name).
 * A folder that cannot be listed throws RecordingError (VYRA_ERROR_UNREADABLE)
 * under Policy::Quiet; under Policy::Historic it appends what was listed
 * before the failure, nothing when the folder cannot be opened.
 */
void ListFrameFiles(const std::string& dir, Policy policy, std::vector<std::string>& names);

/** Sorts frame names byte-wise ascending (10.png before 9.png). */
void SortFrameNames(std::vector<std::string>& names);

/**
 * The number a frame file name starts with: the text before its last dot
 * (the whole name without a dot) read like strtol, base 10 (leading white
 * space, a sign, digits; saturated at the long long limits). Empty when that
 * text holds no number.
 */
std::optional<long long> ParseNameTime(const std::string& name);

/** The range of a recording that is read, as a caller gives it. */
struct FrameRange {
    int start = 0;  ///< first position; negative counts as 0
    int end = 0;    ///< last position, inclusive, when above 1; else to the end
};

/** First position of the range: start, or 0 for a negative start. */
size_t RangeFirst(const FrameRange& range);

/**
 * One past the last position of the range in a recording of @p count frames:
 * end + 1 when end > 1, else count; never beyond count.
 */
size_t RangeStop(const FrameRange& range, size_t count);

/** "start S, end E" of a range, as messages quote it. */
std::string DescribeRange(const FrameRange& range);

/**
 * The frame stored in the file @p path, as 8-bit BGR.
 *
 * Policy::Quiet: a regular file of at most @p limits' bytes holding a PNG
 * image of at most its pixels, decoded with FFmpeg's PNG decoder to the
 * pixels cv::imdecode(IMREAD_COLOR) gives (see FfmpegImage.h); anything else
 * throws RecordingError (VYRA_ERROR_UNREADABLE, _NOT_FOUND, _NO_MEMORY).
 *
 * Policy::Historic: the bytes read whole and decoded with
 * cv::imdecode(IMREAD_COLOR) (OpenCV's own codecs, from
 * recording/OpenCvIo.h); a file that cannot be opened or read, is empty or
 * does not decode gives an empty matrix, and OpenCV's exceptions pass
 * through.
 */
cv::Mat ReadFrameFile(const std::string& path, Policy policy, const MediaLimits& limits = MediaLimits());

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_FILES_H
