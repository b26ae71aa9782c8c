#include "recording/FfmpegVideo.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "recording/FfmpegSupport.h"

namespace vyra { namespace detail {

namespace {

// Demuxers (AVInputFormat::name) accepted for recordings. Each reads its
// media from the one file it is given. Everything else is refused, in
// particular the playlists and scripts that open further files or URLs (hls,
// dash, concat, imf, webm_dash_manifest), image2 sequences and devices.
constexpr const char* kAllowedContainers[] = {
    "mov,mp4,m4a,3gp,3g2,mj2", "matroska,webm", "avi", "flv", "mpegts", "mpeg", "asf",
    "ogg", "nut", "ivf", "h264", "hevc", "m4v", "mpegvideo", "mjpeg", "mpjpeg", "obu",
    "gif", "apng", "yuv4mpegpipe",
};

// Consecutive failures without progress (read errors, or decoder errors
// without new input) after which a stream is treated as ended.
constexpr int kMaxConsecutiveFailures = 512;

constexpr int kIoBufferSize = 64 * 1024;

bool IsAllowedContainer(const AVInputFormat& format) {
    for (const char* name : kAllowedContainers) {
        if (std::strcmp(format.name, name) == 0) return true;
    }
    return false;
}

std::string CannotRead(const std::string& path) { return "cannot read video '" + path + "': "; }

[[noreturn]] void ThrowUnreadable(const std::string& path, const std::string& reason) {
    throw RecordingError(VYRA_ERROR_UNREADABLE, CannotRead(path) + reason);
}

[[noreturn]] void ThrowOutOfMemory(const std::string& path) {
    throw RecordingError(VYRA_ERROR_NO_MEMORY, CannotRead(path) + "out of memory");
}

double ToDouble(AVRational r) { return r.num == 0 || r.den == 0 ? 0.0 : (double)r.num / (double)r.den; }

// --- Reading the file through our own descriptor ---------------------------

struct FileSource {
    int fd = -1;
    int64_t position = 0;
};

int ReadFromFile(void* opaque, uint8_t* buffer, int size) {
    auto* source = static_cast<FileSource*>(opaque);
    for (;;) {
        ssize_t count = ::pread(source->fd, buffer, static_cast<size_t>(size), source->position);
        if (count > 0) {
            source->position += count;
            return static_cast<int>(count);
        }
        if (count == 0) return AVERROR_EOF;
        if (errno != EINTR) return AVERROR(errno);
    }
}

int64_t SeekInFile(void* opaque, int64_t offset, int whence) {
    auto* source = static_cast<FileSource*>(opaque);
    whence &= ~AVSEEK_FORCE;
    struct stat info;
    if (whence == AVSEEK_SIZE || whence == SEEK_END) {
        if (::fstat(source->fd, &info) != 0) return AVERROR(errno);
        if (whence == AVSEEK_SIZE) return info.st_size;
    }
    int64_t base;
    switch (whence) {
        case SEEK_SET: base = 0; break;
        case SEEK_CUR: base = source->position; break;
        case SEEK_END: base = info.st_size; break;
        default: return AVERROR(EINVAL);
    }
    if ((offset > 0 && base > std::numeric_limits<int64_t>::max() - offset) || base + offset < 0)
        return AVERROR(EINVAL);
    source->position = base + offset;
    return source->position;
}

// Reads up to `size` bytes at `offset`, fewer only at the end of the file.
size_t ReadAt(int fd, uint8_t* buffer, size_t size, int64_t offset, const std::string& path) {
    size_t done = 0;
    while (done < size) {
        ssize_t count = ::pread(fd, buffer + done, size - done, offset + static_cast<int64_t>(done));
        if (count == 0) break;
        if (count < 0) {
            if (errno == EINTR) continue;
            ThrowUnreadable(path, std::strerror(errno));
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

// Detects the container like av_probe_input_buffer2 does for
// avformat_open_input (same probe sizes, same score thresholds, same file
// name for extension hints), without its log messages. Returns null when no
// format matches.
const AVInputFormat* ProbeContainer(int fd, const std::string& path) {
    constexpr int kMinProbe = 2048;     // PROBE_BUF_MIN
    constexpr int kMaxProbe = 1 << 20;  // PROBE_BUF_MAX
    std::vector<uint8_t> buffer;
    size_t filled = 0;
    bool atEnd = false;
    for (int probeSize = kMinProbe; probeSize <= kMaxProbe && !atEnd;
         probeSize = std::min(probeSize << 1, std::max(kMaxProbe, probeSize + 1))) {
        int score = probeSize < kMaxProbe ? AVPROBE_SCORE_RETRY : 0;
        buffer.resize(static_cast<size_t>(probeSize) + AVPROBE_PADDING_SIZE);
        size_t count = ReadAt(fd, buffer.data() + filled, probeSize - filled, static_cast<int64_t>(filled), path);
        if (count == 0) {
            score = 0;
            atEnd = true;
        }
        filled += count;
        std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(filled), buffer.end(), 0);
        AVProbeData probe = {};
        probe.filename = path.c_str();
        probe.buf = buffer.data();
        probe.buf_size = static_cast<int>(filled);
        const AVInputFormat* format = av_probe_input_format2(&probe, 1, &score);
        if (format != nullptr) return format;
    }
    return nullptr;
}

IoContextPtr MakeIoContext(FileSource& source, const std::string& path) {
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    if (buffer == nullptr) ThrowOutOfMemory(path);
    IoContextPtr io(avio_alloc_context(buffer, kIoBufferSize, 0, &source, ReadFromFile, nullptr, SeekInFile));
    if (!io) {
        av_free(buffer);
        ThrowOutOfMemory(path);
    }
    return io;
}

// Per-stream options for the decoders avformat_find_stream_info opens
// internally: quiet, and bounded like ours. Owns the dictionaries, which
// FFmpeg may replace while consuming entries.
class StreamProbeOptions {
public:
    StreamProbeOptions(unsigned streamCount, const MediaLimits& limits) : dicts_(streamCount, nullptr) {
        for (AVDictionary*& dict : dicts_) {
            Set(&dict, "log_level_offset", std::to_string(kQuietLogLevelOffset));
            Set(&dict, "max_pixels", std::to_string(limits.DecoderMaxPixels()));
        }
    }
    ~StreamProbeOptions() {
        for (AVDictionary*& dict : dicts_) av_dict_free(&dict);
    }
    StreamProbeOptions(const StreamProbeOptions&) = delete;
    StreamProbeOptions& operator=(const StreamProbeOptions&) = delete;

    AVDictionary** Data() { return dicts_.empty() ? nullptr : dicts_.data(); }

private:
    static void Set(AVDictionary** dict, const char* key, const std::string& value) {
        int error = av_dict_set(dict, key, value.c_str(), 0);
        if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, std::string("cannot set FFmpeg option ") + key);
    }

    std::vector<AVDictionary*> dicts_;
};

void CheckFrameSize(const std::string& path, int width, int height, const MediaLimits& limits) {
    if (width > 0 && height > 0 && static_cast<int64_t>(width) * height > limits.maxPixels)
        ThrowUnreadable(path, "frames of " + std::to_string(width) + "x" + std::to_string(height) +
                        " pixels exceed the limit of " + std::to_string(limits.maxPixels) + " pixels");
}

// Makes the demuxer context log quietly. AVFormatContext's class has no
// log level offset, so the context gets its own copy of the class whose
// offset designates AVFormatContext::metadata_header_padding (read by muxers
// only), set to kQuietLogLevelOffset. `quietClass` must outlive the context.
void QuietenDemuxer(AVFormatContext& format, AVClass& quietClass) {
    quietClass = *format.av_class;
    quietClass.log_level_offset_offset = static_cast<int>(offsetof(AVFormatContext, metadata_header_padding));
    format.av_class = &quietClass;
    format.metadata_header_padding = kQuietLogLevelOffset;
}

FormatContextPtr OpenContainer(const std::string& path, const AVInputFormat* container, AVIOContext* io,
                               const MediaLimits& limits, AVClass& quietClass) {
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) ThrowOutOfMemory(path);
    QuietenDemuxer(*raw, quietClass);
    raw->pb = io;  // custom I/O: FFmpeg never opens `path` itself
    Dictionary options;
    options.Set("protocol_whitelist", "file");
    options.Set("enable_drefs", "0");  // mov: never follow references to other files
    int error = avformat_open_input(&raw, path.c_str(), container, options.Address());  // frees raw on failure
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, CannotRead(path) + "damaged or unsupported " + container->name + " file");
    FormatContextPtr format(raw);
    // Refused before any frame is decoded (the probing decoders would
    // reject such frames too, but libavcodec logs that unconditionally).
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream& stream = *format->streams[i];
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(stream.disposition & AV_DISPOSITION_ATTACHED_PIC))
            CheckFrameSize(path, stream.codecpar->width, stream.codecpar->height, limits);
    }

    StreamProbeOptions probeOptions(format->nb_streams, limits);
    error = avformat_find_stream_info(format.get(), probeOptions.Data());
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, CannotRead(path) + "cannot find its streams");
    return format;
}

CodecContextPtr OpenDecoder(const std::string& path, const AVStream& stream, const AVCodec& decoder,
                            const MediaLimits& limits) {
    CodecContextPtr codec(avcodec_alloc_context3(&decoder));
    if (!codec) ThrowOutOfMemory(path);
    int error = avcodec_parameters_to_context(codec.get(), stream.codecpar);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, CannotRead(path) + "bad codec parameters");
    codec->log_level_offset = kQuietLogLevelOffset;
    codec->max_pixels = limits.DecoderMaxPixels();  // each frame is checked against maxPixels
    codec->pkt_timebase = stream.time_base;
    codec->thread_count = 0;  // one per core, plus one for frame threading
    codec->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    error = avcodec_open2(codec.get(), &decoder, nullptr);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, CannotRead(path) + "cannot open the " + decoder.name + " decoder");
    return codec;
}

// --- Conversion to BGR --------------------------------------------------------

const char* PixelFormatName(AVPixelFormat format) {
    const char* name = av_get_pix_fmt_name(format);
    return name != nullptr ? name : "unknown";
}

// The display rotation OpenCV applies to the frames of `stream`: the stream's
// display matrix angle rounded to whole degrees, as a cv::RotateFlags code,
// or -1 for none (no matrix, 0 degrees, or not a multiple of 90).
int RotationCode(const AVStream& stream) {
    const uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    if (matrix == nullptr) return -1;
    long degrees = std::lrint(av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix)));
    if (degrees < 0) degrees += 360;
    switch (degrees) {
        case 90: return cv::ROTATE_90_CLOCKWISE;
        case 180: return cv::ROTATE_180;
        case 270: return cv::ROTATE_90_COUNTERCLOCKWISE;
        default: return -1;
    }
}

// True when every plane of `frame` holds `width` x `height` pixels inside
// the buffers the frame references (decoders allocate their coded size, which
// may exceed the visible one).
bool FrameBuffersCover(const AVFrame& frame, int width, int height) {
    auto format = static_cast<AVPixelFormat>(frame.format);
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    int rowBytes[4] = {0};
    if (desc == nullptr || av_image_fill_linesizes(rowBytes, format, width) < 0) return false;
    int planes = av_pix_fmt_count_planes(format);
    for (int p = 0; p < planes; ++p) {
        if (frame.data[p] == nullptr || frame.linesize[p] < rowBytes[p] || rowBytes[p] <= 0) return false;
        int rows = (p == 1 || p == 2) ? AV_CEIL_RSHIFT(height, desc->log2_chroma_h) : height;
        const uint8_t* end = frame.data[p] + static_cast<ptrdiff_t>(frame.linesize[p]) * (rows - 1) + rowBytes[p];
        bool covered = false;
        for (const AVBufferRef* buffer : frame.buf) {
            if (buffer != nullptr && frame.data[p] >= buffer->data && frame.data[p] < buffer->data + buffer->size) {
                covered = end <= buffer->data + buffer->size;
                break;
            }
        }
        if (!covered) return false;
    }
    return true;
}

// Size the frame is converted at. Like OpenCV this is the decoder's coded
// size (the visible part is cropped afterwards), which matters for the
// chroma filtering at the bottom and right edges; frames of another size
// than the decoder currently reports, or whose buffers do not extend to the
// coded size, are converted at their own size.
cv::Size ConversionSize(const AVFrame& frame, const AVCodecContext& codec) {
    cv::Size own(frame.width, frame.height);
    if (frame.width != codec.width || frame.height != codec.height) return own;
    if (codec.coded_width < frame.width || codec.coded_height < frame.height) return own;
    if (!FrameBuffersCover(frame, codec.coded_width, codec.coded_height)) return own;
    return cv::Size(codec.coded_width, codec.coded_height);
}

// Converts decoded frames to BGR24 exactly like OpenCV's FFmpeg capture:
// sws_scale with SWS_BICUBIC at the conversion size into a BGR24 frame
// allocated as OpenCV allocates it (av_frame_get_buffer, 32-byte alignment),
// then the visible part is copied out. The scaler and buffer are rebuilt
// whenever size or format change.
class BgrConverter {
public:
    // rotation: a cv::RotateFlags code applied afterwards, or -1.
    void Convert(const AVFrame& frame, const AVCodecContext& codec, int rotation, const std::string& path, cv::Mat& out) {
        cv::Size size = ConversionSize(frame, codec);
        Prepare(size, static_cast<AVPixelFormat>(frame.format), path);
        int rows = sws_scale(scaler_.get(), frame.data, frame.linesize, 0, size.height, bgr_->data, bgr_->linesize);
        if (rows != size.height)
            throw RecordingError(VYRA_ERROR_INTERNAL, CannotRead(path) + "conversion of " + PixelFormatName(format_) +
                                 " frames to BGR failed");
        cv::Mat visible(frame.height, frame.width, CV_8UC3, bgr_->data[0], static_cast<size_t>(bgr_->linesize[0]));
        if (rotation < 0) {
            visible.copyTo(out);
        } else {
            cv::rotate(visible, out, rotation);
        }
    }

private:
    void Prepare(cv::Size size, AVPixelFormat format, const std::string& path) {
        if (scaler_ && size == size_ && format == format_) return;
        scaler_.reset();
        bgr_.reset();
        size_ = size;
        format_ = format;
        scaler_ = MakeScaler(size.width, size.height, format, AV_PIX_FMT_BGR24, CannotRead(path));
        bgr_ = AllocateFrame();
        bgr_->format = AV_PIX_FMT_BGR24;
        bgr_->width = size.width;
        bgr_->height = size.height;
        int error = av_frame_get_buffer(bgr_.get(), 32);
        if (error < 0) {
            scaler_.reset();
            ThrowAvError(error, VYRA_ERROR_INTERNAL, CannotRead(path) + "cannot allocate a BGR frame");
        }
    }

    ScalerPtr scaler_;
    FramePtr bgr_;
    cv::Size size_;
    AVPixelFormat format_ = AV_PIX_FMT_NONE;
};

}  // namespace

// --- The reader ---------------------------------------------------------------

struct VideoReader::State {
    // Declared in dependency order: destroyed format first, the descriptor last.
    std::string path;
    MediaLimits limits;
    UniqueFd file;
    FileSource source;
    AVClass quietFormatClass = {};
    IoContextPtr io;
    FormatContextPtr format;
    AVStream* stream = nullptr;
    int rotation = -1;  // cv::RotateFlags code, -1 for none
    CodecContextPtr codec;
    PacketPtr packet;
    FramePtr frame;
    BgrConverter converter;

    bool inputEnded = false;     // the decoder has been sent its flush packet
    bool finished = false;       // the decoder returned its last frame
    size_t framesDelivered = 0;
    size_t decodeFailures = 0;
    bool haveLastTime = false;
    double lastTimeMs = 0.0;

    void Open(const std::string& videoPath, const MediaLimits& videoLimits);
    bool ReceiveFrame();
    void FeedDecoder();
    void EndInput();
    double FrameTimeMs(bool& estimated);
    double NominalFps() const;
};

void VideoReader::State::Open(const std::string& videoPath, const MediaLimits& videoLimits) {
    path = videoPath;
    limits = videoLimits;
    file = OpenRegularFile(path, "video");
    source.fd = file.Get();
    if (FileSize(file.Get(), path, "video") == 0) ThrowUnreadable(path, "the file is empty");
    const AVInputFormat* container = ProbeContainer(file.Get(), path);
    if (container == nullptr) ThrowUnreadable(path, "not a video file (unknown format)");
    if (!IsAllowedContainer(*container))
        ThrowUnreadable(path, std::string("format '") + container->name + "' is not accepted as a recording");
    io = MakeIoContext(source, path);
    format = OpenContainer(path, container, io.get(), limits, quietFormatClass);

    const AVCodec* decoder = nullptr;
    int index = av_find_best_stream(format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    if (index == AVERROR_STREAM_NOT_FOUND) ThrowUnreadable(path, "it has no video stream");
    if (index == AVERROR_DECODER_NOT_FOUND || decoder == nullptr) {
        AVCodecID id = AV_CODEC_ID_NONE;
        for (unsigned i = 0; i < format->nb_streams; ++i)
            if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) id = format->streams[i]->codecpar->codec_id;
        ThrowUnreadable(path, std::string("no decoder for its ") + avcodec_get_name(id) + " video");
    }
    if (index < 0) ThrowAvError(index, VYRA_ERROR_UNREADABLE, CannotRead(path) + "cannot select its video stream");
    stream = format->streams[index];
    rotation = RotationCode(*stream);

    CheckFrameSize(path, stream->codecpar->width, stream->codecpar->height, limits);
    codec = OpenDecoder(path, *stream, *decoder, limits);
    packet = AllocatePacket();
    frame = AllocateFrame();
}

// Sends the decoder its flush packet: it then returns its delayed frames.
// A decoding error it reports belongs to a frame still in the decoder; the
// flush itself is taken.
void VideoReader::State::EndInput() {
    inputEnded = true;
    int error = avcodec_send_packet(codec.get(), nullptr);
    if (error == AVERROR(ENOMEM)) ThrowOutOfMemory(path);
    if (error < 0 && error != AVERROR_EOF) ++decodeFailures;
}

// Reads packets until one of our stream has been given to the decoder, or
// ends the input. Read errors end the input too (a truncated or damaged file
// ends where it can no longer be read) unless the demuxer gets past them.
// A packet the decoder fails on is counted and consumed.
void VideoReader::State::FeedDecoder() {
    int readErrorsInARow = 0;
    for (;;) {
        int error = av_read_frame(format.get(), packet.get());
        if (error == AVERROR(ENOMEM)) ThrowOutOfMemory(path);
        if (error == AVERROR_EOF || (error < 0 && format->pb != nullptr && avio_feof(format->pb))) break;
        if (error < 0) {
            if (++readErrorsInARow >= kMaxConsecutiveFailures) break;
            continue;
        }
        readErrorsInARow = 0;
        if (packet->stream_index != stream->index) {
            av_packet_unref(packet.get());
            continue;
        }
        // An error here either refuses the packet or reports a damaged frame
        // decoded from it; in both cases the packet is consumed.
        error = avcodec_send_packet(codec.get(), packet.get());
        av_packet_unref(packet.get());
        if (error == AVERROR(ENOMEM)) ThrowOutOfMemory(path);
        if (error == AVERROR(EAGAIN))  // only sent after the decoder asked for input
            throw RecordingError(VYRA_ERROR_INTERNAL, CannotRead(path) + "decoder refused input while it had none");
        if (error < 0) ++decodeFailures;
        return;
    }
    EndInput();
}

// Fetches the next decoded frame into `frame`; false once the decoder is
// drained.
bool VideoReader::State::ReceiveFrame() {
    int errorsInARow = 0;  // decoder errors without new input in between
    while (!finished) {
        int error = avcodec_receive_frame(codec.get(), frame.get());
        if (error == 0) {
            CheckFrameSize(path, frame->width, frame->height, limits);
            return true;
        }
        if (error == AVERROR_EOF) {
            finished = true;
        } else if (error == AVERROR(EAGAIN)) {
            if (inputEnded) {
                finished = true;  // a drained decoder must say EOF; do not spin
            } else {
                FeedDecoder();
                errorsInARow = 0;
            }
        } else if (error == AVERROR(ENOMEM)) {
            ThrowOutOfMemory(path);
        } else {
            ++decodeFailures;  // a damaged frame (reported here with frame threading)
            if (++errorsInARow >= kMaxConsecutiveFailures) finished = true;
        }
    }
    if (framesDelivered == 0 && decodeFailures > 0)
        ThrowUnreadable(path, "no frame could be decoded (" + std::to_string(decodeFailures) + " damaged packets)");
    return false;
}

double VideoReader::State::NominalFps() const {
    double fps = ToDouble(stream->avg_frame_rate);
    return fps > 0 ? fps : ToDouble(stream->r_frame_rate);
}

double VideoReader::State::FrameTimeMs(bool& estimated) {
    int64_t ts = frame->pts != AV_NOPTS_VALUE ? frame->pts : frame->best_effort_timestamp;
    double timeMs;
    estimated = ts == AV_NOPTS_VALUE && haveLastTime;
    if (ts != AV_NOPTS_VALUE) {
        int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
        timeMs = (double)(ts - start) * ToDouble(stream->time_base) * 1000;
    } else if (!haveLastTime) {
        timeMs = 0.0;
    } else if (frame->pkt_duration > 0) {
        timeMs = lastTimeMs + (double)frame->pkt_duration * ToDouble(stream->time_base) * 1000;
    } else if (NominalFps() > 0) {
        timeMs = lastTimeMs + 1000.0 / NominalFps();
    } else {
        throw RecordingError(VYRA_ERROR_NO_TIMESTAMPS, CannotRead(path) + "frame " + std::to_string(framesDelivered) +
                             " has no timestamp and the frame rate is unknown");
    }
    haveLastTime = true;
    lastTimeMs = timeMs;
    return timeMs;
}

VideoReader::VideoReader(const std::string& path, const MediaLimits& limits) {
    try {
        state_.reset(new State);
        state_->Open(path, limits);
    } catch (...) {
        RethrowAsRecordingError("cannot read video '" + path + "'");
    }
}

VideoReader::~VideoReader() = default;

bool VideoReader::Read(cv::Mat* bgr, double& timeMs, bool* estimated) {
    State& s = *state_;
    try {
        if (!s.ReceiveFrame()) return false;
        struct Unref {
            AVFrame* frame;
            ~Unref() { av_frame_unref(frame); }
        } unref{s.frame.get()};
        bool derived = false;
        timeMs = s.FrameTimeMs(derived);
        if (estimated != nullptr) *estimated = derived;
        if (bgr != nullptr) s.converter.Convert(*s.frame, *s.codec, s.rotation, s.path, *bgr);
        ++s.framesDelivered;
        return true;
    } catch (...) {
        RethrowAsRecordingError("cannot read video '" + s.path + "'");
    }
}

size_t VideoReader::ExpectedFrameCount() const {
    const State& s = *state_;
    if (s.stream->nb_frames > 0) return static_cast<size_t>(s.stream->nb_frames);
    double seconds = s.format->duration > 0 ? (double)s.format->duration / AV_TIME_BASE : 0.0;
    if (seconds <= 0 && s.stream->duration > 0) seconds = (double)s.stream->duration * ToDouble(s.stream->time_base);
    double frames = std::floor(seconds * s.NominalFps() + 0.5);
    return frames > 0 ? static_cast<size_t>(frames) : 0;
}

double VideoReader::NominalFps() const { return state_->NominalFps(); }

bool VideoReader::Lossless() const {
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(state_->stream->codecpar->codec_id);
    return descriptor != nullptr && (descriptor->props & AV_CODEC_PROP_LOSSLESS) != 0 &&
           (descriptor->props & AV_CODEC_PROP_LOSSY) == 0;
}

}}
