// Internal: PNG frames read and written with libavcodec's PNG codec, and
// bounded reading of files, without OpenCV's imgcodecs (libpng there prints
// warnings for damaged files) and without ever printing.
#ifndef VYRA_FFMPEG_IMAGE_H
#define VYRA_FFMPEG_IMAGE_H

#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "recording/MediaLimits.h"
#include "recording/RecordingError.h"

namespace vyra { namespace detail {

// Decodes PNG bytes to an 8-bit BGR image (CV_8UC3), the same pixels
// cv::imdecode(bytes, cv::IMREAD_COLOR) gives with OpenCV 4.6 / libpng: every
// colour type and bit depth, interlaced or not; 16-bit samples keep their
// high byte, alpha and tRNS transparency are dropped (no compositing),
// palettes are expanded (indices beyond the palette are black), grey is
// replicated, gAMA/sRGB/iCCP/cHRM are ignored, and an eXIf orientation is
// applied (flip/transpose like OpenCV).
//
// The chunk structure is checked first, as libpng does: signature, IHDR
// first and valid, CRCs of critical chunks, PLTE for palette images, IDAT
// chunks consecutive, no unknown critical chunk, IEND present. Only IHDR,
// PLTE, IDAT and IEND are passed to the decoder, which then runs strictly
// (any missing row is an error). Ancillary chunks cannot change the result.
//
// Throws RecordingError: VYRA_ERROR_UNREADABLE with one line naming
// `nameForMessages` for bytes that are not a complete valid PNG, or for a
// declared size above limits.maxPixels (checked on the header, before any
// pixel buffer is allocated) or above libpng's 1000000 pixels per side;
// VYRA_ERROR_NO_MEMORY when FFmpeg runs out of memory.
cv::Mat DecodePng(const std::vector<unsigned char>& bytes, const MediaLimits& limits,
                  const std::string& nameForMessages);

// Encodes an 8-bit image (1 channel grey, 3 channels BGR or 4 channels BGRA)
// as PNG (zlib level 1 with the Sub filter, as cv::imwrite does by default)
// and stores it at `path` atomically: the bytes go to a new temporary file in
// the same folder, every write and the close are checked, then it is renamed
// over `path`. On any failure the temporary file is removed, `path` is left
// as it was, and RecordingError(VYRA_ERROR_WRITE, "... '<path>': <strerror>")
// is thrown. An empty image or another type is VYRA_ERROR_INVALID_ARGUMENT.
void WritePng(const std::string& path, const cv::Mat& image);

// A picture of an 8-bit BGR image as JPEG bytes (baseline, 4:2:0) at
// quantiser scale `quality` (1 best .. 31 smallest), for reports.
// RecordingError on failure (VYRA_ERROR_INVALID_ARGUMENT for another image
// type).
std::vector<unsigned char> EncodeJpeg(const cv::Mat& bgr, int quality);

// The 8-bit BGR image of JPEG bytes (as EncodeJpeg writes them);
// RecordingError (VYRA_ERROR_UNREADABLE) for bytes that do not decode.
cv::Mat DecodeJpeg(const std::vector<unsigned char>& bytes);

// Reads a whole regular file (symlinks followed). A FIFO, device, socket or
// directory is refused without blocking, and so is a file larger than
// maxBytes; both, and read errors, are VYRA_ERROR_UNREADABLE (the message
// says "larger than the limit" or gives strerror). A missing path is
// VYRA_ERROR_NOT_FOUND.
std::vector<unsigned char> ReadFileBytes(const std::string& path, size_t maxBytes);

}}
#endif
