#include "SampleWriter.h"

#include <cstdio>
#include <filesystem>
#include <new>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace vyra::sample {

namespace {

// High fixed quality (quantiser scale 2 of 1..31) for both codecs.
constexpr int kQuality = 2;
constexpr int kKeyFrameInterval = 12;

std::string errorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

void check(int error, const std::string& what) {
    if (error < 0) throw std::runtime_error("sample: " + what + ": " + errorText(error));
}

struct Format {
    AVCodecID codec;
    AVPixelFormat pixels;
};

Format formatFor(const std::string& path) {
    const std::string ext = std::filesystem::path(path).extension().string();
    if (ext == ".mp4" || ext == ".mov") return {AV_CODEC_ID_MPEG4, AV_PIX_FMT_YUV420P};
    if (ext == ".mkv" || ext == ".avi") return {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P};
    throw std::invalid_argument("sample: unsupported video extension \"" + ext + "\" (use .mp4, .mov, .mkv or .avi)");
}

// One encoder for one image: the frame in, its packets out through @p take.
template <typename Take>
void encode(AVCodecContext* codec, const AVFrame* frame, AVPacket* packet, Take take) {
    check(avcodec_send_frame(codec, frame), "cannot encode a frame");
    for (;;) {
        const int error = avcodec_receive_packet(codec, packet);
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF) return;
        check(error, "cannot encode a frame");
        take(packet);
        av_packet_unref(packet);
    }
}

// The encoder context, scaler, frame and packet one image or video needs.
struct Encoder {
    AVCodecContext* codec = nullptr;
    SwsContext* scaler = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;

    Encoder(AVCodecID id, AVPixelFormat pixels, int width, int height, AVRational timeBase, bool globalHeader) {
        const AVCodec* encoder = avcodec_find_encoder(id);
        if (encoder == nullptr) throw std::runtime_error(std::string("sample: no ") + avcodec_get_name(id) + " encoder");
        codec = avcodec_alloc_context3(encoder);
        frame = av_frame_alloc();
        packet = av_packet_alloc();
        if (codec == nullptr || frame == nullptr || packet == nullptr) throw std::bad_alloc();
        codec->width = width;
        codec->height = height;
        codec->pix_fmt = pixels;
        codec->time_base = timeBase;
        codec->gop_size = kKeyFrameInterval;
        codec->thread_count = 1;  // the same bytes on every machine
        codec->flags |= AV_CODEC_FLAG_QSCALE;
        codec->global_quality = FF_QP2LAMBDA * kQuality;
        if (globalHeader) codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        check(avcodec_open2(codec, encoder, nullptr), std::string("cannot open the ") + encoder->name + " encoder");
        frame->format = pixels;
        frame->width = width;
        frame->height = height;
        check(av_frame_get_buffer(frame, 0), "cannot allocate a frame");
        scaler = sws_getContext(width, height, AV_PIX_FMT_BGR24, width, height, pixels, SWS_BICUBIC, nullptr,
                                nullptr, nullptr);
        if (scaler == nullptr) throw std::runtime_error("sample: cannot convert frames to the encoder's pixels");
    }

    ~Encoder() {
        sws_freeContext(scaler);
        av_packet_free(&packet);
        av_frame_free(&frame);
        avcodec_free_context(&codec);
    }

    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    // @p bgr into the frame, stamped @p pts.
    void fill(const cv::Mat& bgr, int64_t pts) {
        if (bgr.type() != CV_8UC3 || bgr.cols != codec->width || bgr.rows != codec->height) {
            throw std::invalid_argument("sample: frames must be 8-bit BGR of the video's size");
        }
        check(av_frame_make_writable(frame), "cannot write a frame");
        const uint8_t* source[1] = {bgr.data};
        const int stride[1] = {static_cast<int>(bgr.step[0])};
        sws_scale(scaler, source, stride, 0, bgr.rows, frame->data, frame->linesize);
        frame->pts = pts;
    }
};

}  // namespace

struct VideoWriter::State {
    AVFormatContext* format = nullptr;
    AVStream* stream = nullptr;
    std::unique_ptr<Encoder> encoder;
    int64_t next = 0;
    bool open = false;  // the header is written, the trailer not yet

    ~State() {
        if (format != nullptr) {
            if (!(format->oformat->flags & AVFMT_NOFILE)) avio_closep(&format->pb);
            avformat_free_context(format);
        }
    }

    // Writes @p packet of one frame (its duration set, or the container would
    // end the stream at the last frame's start).
    void put(AVPacket* packet) {
        packet->duration = 1;
        av_packet_rescale_ts(packet, encoder->codec->time_base, stream->time_base);
        packet->stream_index = stream->index;
        check(av_interleaved_write_frame(format, packet), "cannot write the video");
    }
};

VideoWriter::VideoWriter(const std::string& path, int width, int height, int fps) : state_(std::make_unique<State>()) {
    const Format chosen = formatFor(path);
    if (fps < 1 || fps > 240) throw std::invalid_argument("sample: the frame rate must lie in 1..240");
    State& s = *state_;
    check(avformat_alloc_output_context2(&s.format, nullptr, nullptr, path.c_str()), "cannot write " + path);
    s.encoder = std::make_unique<Encoder>(chosen.codec, chosen.pixels, width, height, AVRational{1, fps},
                                          (s.format->oformat->flags & AVFMT_GLOBALHEADER) != 0);
    s.stream = avformat_new_stream(s.format, nullptr);
    if (s.stream == nullptr) throw std::bad_alloc();
    s.stream->time_base = s.encoder->codec->time_base;
    check(avcodec_parameters_from_context(s.stream->codecpar, s.encoder->codec), "cannot write " + path);
    check(avio_open(&s.format->pb, path.c_str(), AVIO_FLAG_WRITE), "cannot write " + path);
    check(avformat_write_header(s.format, nullptr), "cannot write " + path);
    s.open = true;
}

VideoWriter::~VideoWriter() {
    try {
        Close();
    } catch (...) {
        // Close() reports failures to those who call it.
    }
}

void VideoWriter::Write(const cv::Mat& bgr) {
    State& s = *state_;
    s.encoder->fill(bgr, s.next++);
    encode(s.encoder->codec, s.encoder->frame, s.encoder->packet, [&s](AVPacket* p) { s.put(p); });
}

void VideoWriter::Close() {
    State& s = *state_;
    if (!s.open) return;
    s.open = false;
    encode(s.encoder->codec, nullptr, s.encoder->packet, [&s](AVPacket* p) { s.put(p); });
    check(av_write_trailer(s.format), "cannot finish the video");
    check(avio_closep(&s.format->pb), "cannot finish the video");
}

void WritePng(const std::string& path, const cv::Mat& bgr) {
    Encoder png(AV_CODEC_ID_PNG, AV_PIX_FMT_RGB24, bgr.cols, bgr.rows, AVRational{1, 1}, false);
    png.fill(bgr, 0);
    std::string bytes;
    encode(png.codec, png.frame, png.packet,
           [&bytes](AVPacket* p) { bytes.append(reinterpret_cast<const char*>(p->data), p->size); });
    encode(png.codec, nullptr, png.packet,
           [&bytes](AVPacket* p) { bytes.append(reinterpret_cast<const char*>(p->data), p->size); });
    std::FILE* file = std::fopen(path.c_str(), "wb");
    const bool written = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (file == nullptr || std::fclose(file) != 0 || !written) throw std::runtime_error("sample: cannot write " + path);
}

}  // namespace vyra::sample
