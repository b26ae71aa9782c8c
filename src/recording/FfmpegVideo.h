// Internal: reads the frames of a video file with FFmpeg (libavformat,
// libavcodec, libswscale), in presentation order, as 8-bit BGR images with
// their presentation times.
//
// Pixels are the ones cv::VideoCapture(path, cv::CAP_FFMPEG).read() returns
// for the same file (OpenCV 4.6 with the same FFmpeg): the decoded frame is
// converted by swscale (SWS_BICUBIC, BGR24) at the decoder's coded size into
// a 32-byte aligned buffer, its visible part is copied out, and a display
// matrix rotation of 90/180/270 degrees is applied with cv::rotate. Unlike
// OpenCV, a frame whose size differs from the stream's is delivered at its
// own size, and every frame has its own timestamp.
//
// Safety on untrusted files:
//  - only a regular file is read, through a descriptor this class opened
//    and checked (no FIFO, device or directory; no race between the check
//    and the reads: FFmpeg never opens the path itself);
//  - only single-file containers are accepted (kAllowedContainers in
//    FfmpegVideo.cpp; the format is detected like avformat_open_input does):
//    playlists and scripts that name other files or URLs (hls, dash, concat,
//    imf, ...), image sequences and devices are refused with
//    VYRA_ERROR_UNREADABLE before FFmpeg parses them; nested opens are also
//    limited to the "file" protocol and mov external references are off;
//  - frames above MediaLimits::maxPixels are refused: the declared size of
//    every video stream when the file is opened, and each decoded frame as
//    the decoder returns it; the decoders' max_pixels
//    (MediaLimits::DecoderMaxPixels, also for the decoders
//    avformat_find_stream_info runs) bounds their buffers before that.
//    Other memory is bounded by FFmpeg's probe limits and by the file size.
//
// Logging: nothing is printed for the files this class reads, damaged ones
// included, without touching the process-wide av_log level or callback:
//  - the decoder contexts get log_level_offset = kQuietLogLevelOffset: ours,
//    and through avformat_find_stream_info's options the demuxer's own
//    per-stream contexts, which its parsers log through as well;
//  - the demuxer context gets a private copy of its AVClass whose
//    log_level_offset_offset designates a muxing-only int of the context set
//    to the same offset (AVFormatContext has no level offset of its own);
//  - the scaler (whose class has no level offset) is only created for inputs
//    it takes silently: yuvj* formats are handed over as their yuv* twin with
//    full range (the same conversion, without the deprecation warning), and
//    formats it cannot read are refused before sws_init_context.
// What can still reach the process-wide callback: libavcodec's "Picture size
// WxH exceeds specified max pixel count" (logged by av_image_check_size2 with
// a fixed offset of 0) when a stream that did not declare its size has
// frames above the decoders' max_pixels; messages FFmpeg logs without a context
// (av_log(NULL, ...), a few rare demuxer conditions); AV_LOG_PANIC just
// before an abort; and, on CPUs for which swscale has no YUV->RGB SIMD code
// (it has x86 and PowerPC code), its "No accelerated colorspace conversion
// found" warning once per scaler.
//
// Thread safety: one reader must be used by one thread at a time; separate
// readers can be used concurrently from different threads.
#ifndef VYRA_FFMPEG_VIDEO_H
#define VYRA_FFMPEG_VIDEO_H

#include <cstddef>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "recording/MediaLimits.h"
#include "recording/RecordingError.h"

namespace vyra { namespace detail {

class VideoReader {
public:
    // Opens the video and its best video stream. Throws RecordingError:
    // VYRA_ERROR_NOT_FOUND for a missing path, VYRA_ERROR_UNREADABLE for
    // anything that is not a regular file holding a decodable video stream in
    // an accepted container (or whose declared frame size exceeds
    // limits.maxPixels), VYRA_ERROR_NO_MEMORY when FFmpeg runs out of memory.
    VideoReader(const std::string& path, const MediaLimits& limits);
    ~VideoReader();
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    // Decodes the next frame in presentation order (the decoder's output
    // order, frames held back by B-frame reordering included). Returns false
    // at the end of the stream. Damaged packets are skipped; a truncated file
    // ends after the last frame that could be read.
    //
    // bgr: when non-null, receives the frame as CV_8UC3 at the frame's own
    // size, rotated as the stream's display matrix says (its buffer is reused
    // when size and type already match; otherwise it is allocated with the
    // Mat's own allocator). When null the frame is decoded but not converted
    // (for skipping frames cheaply).
    //
    // timeMs: the frame's presentation time in milliseconds,
    //   (double)(ts - start) * ((double)tb.num / (double)tb.den) * 1000
    // in this order, which is OpenCV's CAP_PROP_POS_MSEC formula, where tb is
    // the stream time base, start the stream's start_time (0 when unknown),
    // and ts the frame's pts, or its best_effort_timestamp (derived from the
    // packet dts) when the pts is missing. A frame with neither gets the
    // previous frame's time plus the packet duration or, failing that, one
    // nominal frame interval; the first frame gets 0. Only when no frame rate
    // is known either does Read throw VYRA_ERROR_NO_TIMESTAMPS.
    // (OpenCV reports 0 for the frames it drains from the decoder at the end
    // of the stream, and uses the packet dts when a pts is exactly 0; here
    // every frame keeps its own pts.)
    //
    // Throws VYRA_ERROR_UNREADABLE when the stream ends without a single
    // decodable frame although packets failed to decode, VYRA_ERROR_NO_MEMORY
    // on out of memory, VYRA_ERROR_INTERNAL if the pixel conversion fails.
    // estimated: when non-null, set to whether timeMs was derived from the
    // previous frame's (the frame had no timestamp of its own).
    bool Read(cv::Mat* bgr, double& timeMs, bool* estimated = nullptr);

    // True when the stream's codec stores pictures losslessly only (FFV1,
    // PNG, raw video, ...): decoded frames differ only where the recorded
    // picture did.
    bool Lossless() const;

    // Number of frames the container announces (its frame count, else
    // duration x NominalFps() rounded), 0 when it does not say. An estimate:
    // Read decides.
    size_t ExpectedFrameCount() const;

    // The stream's average frame rate (else its real base frame rate), 0 when
    // the container gives neither.
    double NominalFps() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}}
#endif
