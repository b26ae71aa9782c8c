// Internal: pieces shared by the FFmpeg-based frame readers and writers:
// owners for FFmpeg objects, translation of FFmpeg errors, quiet codec
// contexts and opening of regular files.
#ifndef VYRA_FFMPEG_SUPPORT_H
#define VYRA_FFMPEG_SUPPORT_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <memory>
#include <string>

#include "recording/RecordingError.h"

namespace vyra { namespace detail {

// Added to the level of every message one of our codec contexts logs
// (AVCodecContext::log_level_offset; frame-threading copies of the context
// inherit it). av_log's default callback drops messages whose (level & 0xff)
// is above the process log level: FATAL (8) .. TRACE (56) become 72 .. 120,
// above every level it prints, so the contexts stay silent without touching
// the process-wide av_log level or callback. AV_LOG_PANIC (0) is never
// shifted by FFmpeg; it is only logged right before FFmpeg aborts.
constexpr int kQuietLogLevelOffset = 64;

struct FormatContextDeleter {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct ScalerDeleter {
    void operator()(SwsContext* scaler) const noexcept { sws_freeContext(scaler); }
};
// An AVIOContext made by avio_alloc_context; its buffer (which FFmpeg may
// have replaced) is freed with it.
struct IoContextDeleter {
    void operator()(AVIOContext* io) const noexcept;
};

using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;
using IoContextPtr = std::unique_ptr<AVIOContext, IoContextDeleter>;

// Owns an AVDictionary of options.
class Dictionary {
public:
    Dictionary() = default;
    ~Dictionary() { av_dict_free(&dict_); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    Dictionary(Dictionary&& other) noexcept : dict_(other.dict_) { other.dict_ = nullptr; }
    Dictionary& operator=(Dictionary&&) = delete;

    void Set(const char* key, const std::string& value);
    AVDictionary** Address() noexcept { return &dict_; }

private:
    AVDictionary* dict_ = nullptr;
};

// A scaler converting width x height pixels of format `from` to format `to`
// at the same size (bicubic). The yuvj* formats are handed to swscale as
// their yuv* twins in full range, which converts the same without swscale's
// deprecation message. Throws RecordingError, its message starting with
// `prefix`: VYRA_ERROR_UNREADABLE when swscale cannot read `from`,
// VYRA_ERROR_NO_MEMORY, or VYRA_ERROR_INTERNAL when it cannot convert.
ScalerPtr MakeScaler(int width, int height, AVPixelFormat from, AVPixelFormat to, const std::string& prefix);

// Text of an FFmpeg error code, e.g. "Invalid data found when processing input".
std::string AvErrorText(int error);

// VYRA_ERROR_NO_MEMORY for AVERROR(ENOMEM), `otherwise` for any other error.
VyraStatus StatusForAvError(int error, VyraStatus otherwise) noexcept;

// Throws RecordingError(StatusForAvError(error, otherwise),
// "<message> (<FFmpeg's text for error>)").
[[noreturn]] void ThrowAvError(int error, VyraStatus otherwise, const std::string& message);

// To be called in a catch (...) block: rethrows a RecordingError as is, and
// anything else as RecordingError: std::bad_alloc and OpenCV's out-of-memory
// as VYRA_ERROR_NO_MEMORY, other exceptions as VYRA_ERROR_INTERNAL; the
// message is "<context>: <what went wrong>".
[[noreturn]] void RethrowAsRecordingError(const std::string& context);

// Allocations that fail throw RecordingError(VYRA_ERROR_NO_MEMORY).
FramePtr AllocateFrame();
PacketPtr AllocatePacket();

// A file descriptor closed on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const noexcept { return fd_; }
    int Release() noexcept;

private:
    int fd_ = -1;
};

// Opens `path` read-only and accepts it only if it is a regular file (a
// symlink is followed to its target). A FIFO, socket, device or directory is
// refused with VYRA_ERROR_UNREADABLE without blocking (the open uses
// O_NONBLOCK, cleared again for the regular file); a missing path is
// VYRA_ERROR_NOT_FOUND. `what` names the kind of file in messages, e.g.
// "video" gives "cannot read video '/x/y.mp4': it is a directory".
UniqueFd OpenRegularFile(const std::string& path, const char* what);

// Size in bytes of the open file `fd`, VYRA_ERROR_UNREADABLE when fstat fails.
int64_t FileSize(int fd, const std::string& path, const char* what);

}}
#endif
