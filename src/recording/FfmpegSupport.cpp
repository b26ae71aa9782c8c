#include "recording/FfmpegSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include <opencv2/core.hpp>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace vyra { namespace detail {

namespace {

const char* FileKind(mode_t mode) {
    if (S_ISDIR(mode)) return "it is a directory";
    if (S_ISFIFO(mode)) return "it is a FIFO";
    if (S_ISCHR(mode)) return "it is a character device";
    if (S_ISBLK(mode)) return "it is a block device";
    if (S_ISSOCK(mode)) return "it is a socket";
    return "it is not a regular file";
}

std::string CannotRead(const char* what, const std::string& path) {
    return std::string("cannot read ") + what + " '" + path + "': ";
}

struct ScalerFormat {
    AVPixelFormat format;
    bool fullRange;
};

ScalerFormat ScalerFormatFor(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P: return {AV_PIX_FMT_YUV420P, true};
        case AV_PIX_FMT_YUVJ411P: return {AV_PIX_FMT_YUV411P, true};
        case AV_PIX_FMT_YUVJ422P: return {AV_PIX_FMT_YUV422P, true};
        case AV_PIX_FMT_YUVJ444P: return {AV_PIX_FMT_YUV444P, true};
        case AV_PIX_FMT_YUVJ440P: return {AV_PIX_FMT_YUV440P, true};
        default: return {format, false};
    }
}

void SetScalerOption(SwsContext* scaler, const char* name, int64_t value) {
    int error = av_opt_set_int(scaler, name, value, 0);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, std::string("cannot set scaler option ") + name);
}

}  // namespace

ScalerPtr MakeScaler(int width, int height, AVPixelFormat from, AVPixelFormat to, const std::string& prefix) {
    const ScalerFormat source = ScalerFormatFor(from);
    const ScalerFormat target = ScalerFormatFor(to);
    const char* name = av_get_pix_fmt_name(from);
    const std::string fromName = name != nullptr ? name : "unknown";
    if (!sws_isSupportedInput(source.format)) {
        throw RecordingError(VYRA_ERROR_UNREADABLE, prefix + "its " + fromName + " pixels cannot be converted");
    }
    ScalerPtr scaler(sws_alloc_context());
    if (!scaler) throw RecordingError(VYRA_ERROR_NO_MEMORY, prefix + "out of memory");
    SetScalerOption(scaler.get(), "srcw", width);
    SetScalerOption(scaler.get(), "srch", height);
    SetScalerOption(scaler.get(), "src_format", source.format);
    SetScalerOption(scaler.get(), "src_range", source.fullRange ? 1 : 0);
    SetScalerOption(scaler.get(), "dstw", width);
    SetScalerOption(scaler.get(), "dsth", height);
    SetScalerOption(scaler.get(), "dst_format", target.format);
    SetScalerOption(scaler.get(), "dst_range", target.fullRange ? 1 : 0);
    SetScalerOption(scaler.get(), "sws_flags", SWS_BICUBIC);
    const int error = sws_init_context(scaler.get(), nullptr, nullptr);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, prefix + "cannot convert " + fromName + " pixels");
    return scaler;
}

void IoContextDeleter::operator()(AVIOContext* io) const noexcept {
    if (io == nullptr) return;
    av_freep(&io->buffer);
    avio_context_free(&io);
}

void Dictionary::Set(const char* key, const std::string& value) {
    int error = av_dict_set(&dict_, key, value.c_str(), 0);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, std::string("cannot set FFmpeg option ") + key);
}

std::string AvErrorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(error, text, sizeof text) < 0) return "FFmpeg error " + std::to_string(error);
    return text;
}

VyraStatus StatusForAvError(int error, VyraStatus otherwise) noexcept {
    return error == AVERROR(ENOMEM) ? VYRA_ERROR_NO_MEMORY : otherwise;
}

void ThrowAvError(int error, VyraStatus otherwise, const std::string& message) {
    throw RecordingError(StatusForAvError(error, otherwise), message + " (" + AvErrorText(error) + ")");
}

void RethrowAsRecordingError(const std::string& context) {
    try {
        throw;
    } catch (const RecordingError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw RecordingError(VYRA_ERROR_NO_MEMORY, context + ": out of memory");
    } catch (const cv::Exception& e) {
        VyraStatus status = e.code == cv::Error::StsNoMem ? VYRA_ERROR_NO_MEMORY : VYRA_ERROR_INTERNAL;
        throw RecordingError(status, context + ": " + (status == VYRA_ERROR_NO_MEMORY ? "out of memory" : e.err));
    } catch (const std::exception& e) {
        throw RecordingError(VYRA_ERROR_INTERNAL, context + ": " + e.what());
    } catch (...) {
        throw RecordingError(VYRA_ERROR_INTERNAL, context + ": unknown error");
    }
}

FramePtr AllocateFrame() {
    FramePtr frame(av_frame_alloc());
    if (!frame) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating an FFmpeg frame");
    return frame;
}

PacketPtr AllocatePacket() {
    PacketPtr packet(av_packet_alloc());
    if (!packet) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating an FFmpeg packet");
    return packet;
}

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.Release();
    }
    return *this;
}

int UniqueFd::Release() noexcept {
    int fd = fd_;
    fd_ = -1;
    return fd;
}

UniqueFd OpenRegularFile(const std::string& path, const char* what) {
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        int error = errno;
        VyraStatus status = (error == ENOENT || error == ENOTDIR) ? VYRA_ERROR_NOT_FOUND : VYRA_ERROR_UNREADABLE;
        if (error == ENOMEM) status = VYRA_ERROR_NO_MEMORY;
        throw RecordingError(status, CannotRead(what, path) + std::strerror(error));
    }
    UniqueFd file(fd);
    struct stat info;
    if (::fstat(fd, &info) != 0) throw RecordingError(VYRA_ERROR_UNREADABLE, CannotRead(what, path) + std::strerror(errno));
    if (!S_ISREG(info.st_mode)) throw RecordingError(VYRA_ERROR_UNREADABLE, CannotRead(what, path) + FileKind(info.st_mode));
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
        throw RecordingError(VYRA_ERROR_UNREADABLE, CannotRead(what, path) + std::strerror(errno));
    return file;
}

int64_t FileSize(int fd, const std::string& path, const char* what) {
    struct stat info;
    if (::fstat(fd, &info) != 0) throw RecordingError(VYRA_ERROR_UNREADABLE, CannotRead(what, path) + std::strerror(errno));
    return static_cast<int64_t>(info.st_size);
}

}}
