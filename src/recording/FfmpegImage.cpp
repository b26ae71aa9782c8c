#include "recording/FfmpegImage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>

extern "C" {
#include <libavutil/crc.h>
#include <libavutil/opt.h>
}

#include "recording/FfmpegSupport.h"
#include "recording/FileWriting.h"

namespace vyra { namespace detail {

namespace {

// --- PNG structure -------------------------------------------------------------

constexpr unsigned char kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
// libpng's default PNG_USER_WIDTH_MAX / PNG_USER_HEIGHT_MAX.
constexpr uint32_t kLibpngMaxSide = 1000000;

constexpr uint32_t ChunkType(const char (&name)[5]) {
    return (uint32_t(uint8_t(name[0])) << 24) | (uint32_t(uint8_t(name[1])) << 16) |
           (uint32_t(uint8_t(name[2])) << 8) | uint32_t(uint8_t(name[3]));
}
constexpr uint32_t kIHDR = ChunkType("IHDR");
constexpr uint32_t kPLTE = ChunkType("PLTE");
constexpr uint32_t kIDAT = ChunkType("IDAT");
constexpr uint32_t kIEND = ChunkType("IEND");
constexpr uint32_t kEXIF = ChunkType("eXIf");

uint32_t ReadBe32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

bool IsCritical(uint32_t type) { return (type & 0x20000000u) == 0; }  // upper-case first letter

struct PngChunk {
    size_t offset = 0;  // of its length field
    uint32_t length = 0;
    uint32_t type = 0;
    const unsigned char* Data(const std::vector<unsigned char>& bytes) const { return bytes.data() + offset + 8; }
    size_t TotalSize() const { return size_t(length) + 12; }
};

struct PngHeader {
    uint32_t width = 0;
    uint32_t height = 0;
    int bitDepth = 0;
    int colorType = 0;
};

struct PngLayout {
    PngHeader header;
    std::vector<PngChunk> decoded;  // IHDR, PLTE (palette images), IDAT..., IEND
    std::vector<unsigned char> exif;
};

// Walks the chunks of a PNG with libpng's structural checks and keeps what
// the decoder needs.
class PngReader {
public:
    PngReader(const std::vector<unsigned char>& bytes, const std::string& name) : bytes_(bytes), name_(name) {}

    [[noreturn]] void Fail(const std::string& reason) const {
        throw RecordingError(VYRA_ERROR_UNREADABLE, "cannot decode image '" + name_ + "': " + reason);
    }

    PngLayout Parse() {
        if (bytes_.size() < sizeof kPngSignature || std::memcmp(bytes_.data(), kPngSignature, sizeof kPngSignature) != 0)
            Fail("not a PNG file");
        size_t offset = sizeof kPngSignature;
        PngChunk chunk = NextChunk(offset);
        if (chunk.type != kIHDR) Fail("damaged PNG (IHDR is not the first chunk)");
        layout_.header = ParseHeader(chunk);
        layout_.decoded.push_back(chunk);
        do {
            offset += chunk.TotalSize();
            chunk = NextChunk(offset);
        } while (Accept(chunk));
        layout_.exif = !exifBeforeImage_.empty() ? std::move(exifBeforeImage_) : std::move(exifAfterImage_);
        return std::move(layout_);
    }

private:
    // Takes the chunk after IHDR; false once it is IEND. Ancillary chunks
    // other than eXIf do not change libpng's 8-bit BGR output and are left out.
    bool Accept(const PngChunk& chunk) {
        if (inImage_ && chunk.type != kIDAT) {
            inImage_ = false;
            afterImage_ = true;
        }
        switch (chunk.type) {
            case kIEND:
                if (!afterImage_) Fail("damaged PNG (no image data)");
                layout_.decoded.push_back(chunk);
                return false;
            case kIDAT: AcceptImageData(chunk); return true;
            case kPLTE: AcceptPalette(chunk); return true;
            case kEXIF: AcceptExif(chunk); return true;
            default:
                if (IsCritical(chunk.type)) Fail("damaged PNG (unexpected critical chunk)");
                return true;
        }
    }

    void AcceptImageData(const PngChunk& chunk) {
        if (afterImage_) Fail("damaged PNG (image data split by other chunks)");
        if (layout_.header.colorType == 3 && !seenPalette_) Fail("damaged PNG (palette missing)");
        inImage_ = true;
        layout_.decoded.push_back(chunk);
    }

    // A palette in a non-palette image is a suggestion libpng ignores.
    void AcceptPalette(const PngChunk& chunk) {
        if (seenPalette_ || inImage_ || afterImage_) Fail("damaged PNG (misplaced palette)");
        seenPalette_ = true;
        if (layout_.header.colorType != 3) return;
        if (chunk.length == 0 || chunk.length % 3 != 0 || chunk.length > 3 * 256) Fail("damaged PNG (invalid palette)");
        layout_.decoded.push_back(chunk);
    }

    // Like libpng (and OpenCV, which looks before the image data first): the
    // first valid eXIf before the image data, else the first after it.
    void AcceptExif(const PngChunk& chunk) {
        std::vector<unsigned char>& exif = afterImage_ ? exifAfterImage_ : exifBeforeImage_;
        if (exif.empty() && ValidExif(chunk)) exif.assign(chunk.Data(bytes_), chunk.Data(bytes_) + chunk.length);
    }

    // The chunk at `offset`, with its CRC checked when it is critical.
    PngChunk NextChunk(size_t offset) const {
        if (bytes_.size() - offset < 12) Fail("truncated PNG");
        PngChunk chunk;
        chunk.offset = offset;
        chunk.length = ReadBe32(bytes_.data() + offset);
        chunk.type = ReadBe32(bytes_.data() + offset + 4);
        if (chunk.length > 0x7fffffffu) Fail("damaged PNG (chunk length out of range)");
        if (bytes_.size() - offset - 12 < chunk.length) Fail("truncated PNG");
        if (IsCritical(chunk.type) && !CrcMatches(chunk)) Fail("damaged PNG (CRC error)");
        return chunk;
    }

    bool CrcMatches(const PngChunk& chunk) const {
        const unsigned char* start = bytes_.data() + chunk.offset + 4;  // type and data
        uint32_t crc = av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), UINT32_MAX, start, size_t(chunk.length) + 4) ^ UINT32_MAX;
        return crc == ReadBe32(start + 4 + chunk.length);
    }

    // An eXIf chunk libpng keeps: intact, at least 2 bytes, "II" or "MM".
    bool ValidExif(const PngChunk& chunk) const {
        if (chunk.length < 2 || !CrcMatches(chunk)) return false;
        const unsigned char* data = chunk.Data(bytes_);
        return data[0] == data[1] && (data[0] == 'I' || data[0] == 'M');
    }

    PngHeader ParseHeader(const PngChunk& chunk) const {
        if (chunk.length != 13) Fail("damaged PNG (bad IHDR)");
        const unsigned char* data = chunk.Data(bytes_);
        PngHeader header;
        header.width = ReadBe32(data);
        header.height = ReadBe32(data + 4);
        header.bitDepth = data[8];
        header.colorType = data[9];
        bool depthOk = false;
        switch (header.colorType) {
            case 0: depthOk = header.bitDepth == 1 || header.bitDepth == 2 || header.bitDepth == 4 || header.bitDepth == 8 || header.bitDepth == 16; break;
            case 3: depthOk = header.bitDepth == 1 || header.bitDepth == 2 || header.bitDepth == 4 || header.bitDepth == 8; break;
            case 2: case 4: case 6: depthOk = header.bitDepth == 8 || header.bitDepth == 16; break;
            default: break;
        }
        if (header.width == 0 || header.height == 0 || header.width > 0x7fffffffu || header.height > 0x7fffffffu || !depthOk ||
            data[10] != 0 || data[11] != 0 || data[12] > 1)
            Fail("damaged PNG (bad IHDR)");
        return header;
    }

    const std::vector<unsigned char>& bytes_;
    const std::string& name_;
    PngLayout layout_;
    bool seenPalette_ = false;
    bool inImage_ = false;     // in the run of IDAT chunks
    bool afterImage_ = false;  // past it
    std::vector<unsigned char> exifBeforeImage_;
    std::vector<unsigned char> exifAfterImage_;
};

// --- Decoding ------------------------------------------------------------------

// The PNG the decoder sees: signature plus the chunks that define the pixels.
PacketPtr MakeDecoderInput(const std::vector<unsigned char>& bytes, const PngLayout& layout, const std::string& name) {
    size_t size = sizeof kPngSignature;
    for (const PngChunk& chunk : layout.decoded) size += chunk.TotalSize();
    if (size > size_t(INT32_MAX) - AV_INPUT_BUFFER_PADDING_SIZE)
        throw RecordingError(VYRA_ERROR_UNREADABLE, "cannot decode image '" + name + "': PNG image data too large");
    PacketPtr packet = AllocatePacket();
    int error = av_new_packet(packet.get(), static_cast<int>(size));
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, "cannot decode image '" + name + "': no packet");
    unsigned char* out = packet->data;
    std::memcpy(out, kPngSignature, sizeof kPngSignature);
    out += sizeof kPngSignature;
    for (const PngChunk& chunk : layout.decoded) {
        std::memcpy(out, bytes.data() + chunk.offset, chunk.TotalSize());
        out += chunk.TotalSize();
    }
    return packet;
}

CodecContextPtr OpenPngDecoder(const MediaLimits& limits, const std::string& name) {
    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_PNG);
    if (decoder == nullptr) throw RecordingError(VYRA_ERROR_INTERNAL, "FFmpeg has no PNG decoder");
    CodecContextPtr codec(avcodec_alloc_context3(decoder));
    if (!codec) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating a PNG decoder");
    codec->log_level_offset = kQuietLogLevelOffset;
    codec->max_pixels = limits.DecoderMaxPixels();  // the header was checked against maxPixels
    codec->thread_count = 1;
    codec->err_recognition = AV_EF_EXPLODE;          // stop at the first error
    codec->strict_std_compliance = FF_COMPLIANCE_STRICT;
    codec->discard_damaged_percentage = 0;           // a missing row is an error
    int error = avcodec_open2(codec.get(), decoder, nullptr);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, "cannot decode image '" + name + "': no PNG decoder");
    return codec;
}

FramePtr DecodeFrame(AVCodecContext& codec, const AVPacket& packet, const std::string& name) {
    const std::string failure = "cannot decode image '" + name + "': damaged PNG";
    int error = avcodec_send_packet(&codec, &packet);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, failure);
    FramePtr frame = AllocateFrame();
    error = avcodec_receive_frame(&codec, frame.get());
    if (error == AVERROR(EAGAIN)) {
        error = avcodec_send_packet(&codec, nullptr);
        if (error >= 0) error = avcodec_receive_frame(&codec, frame.get());
    }
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, failure);
    return frame;
}

// Writes one row of BGR from a decoded row of `format`.
void ConvertRow(AVPixelFormat format, const uint8_t* in, const uint32_t* palette, int width, uint8_t* out) {
    auto grey = [out](int x, uint8_t v) { out[3 * x] = out[3 * x + 1] = out[3 * x + 2] = v; };
    auto rgb = [out](int x, uint8_t r, uint8_t g, uint8_t b) {
        out[3 * x] = b;
        out[3 * x + 1] = g;
        out[3 * x + 2] = r;
    };
    switch (format) {
        case AV_PIX_FMT_GRAY8: for (int x = 0; x < width; ++x) grey(x, in[x]); break;
        case AV_PIX_FMT_YA8: for (int x = 0; x < width; ++x) grey(x, in[2 * x]); break;
        case AV_PIX_FMT_GRAY16BE: for (int x = 0; x < width; ++x) grey(x, in[2 * x]); break;
        case AV_PIX_FMT_YA16BE: for (int x = 0; x < width; ++x) grey(x, in[4 * x]); break;
        case AV_PIX_FMT_MONOBLACK:
            for (int x = 0; x < width; ++x) grey(x, (in[x >> 3] >> (7 - (x & 7))) & 1 ? 255 : 0);
            break;
        case AV_PIX_FMT_RGB24: for (int x = 0; x < width; ++x) rgb(x, in[3 * x], in[3 * x + 1], in[3 * x + 2]); break;
        case AV_PIX_FMT_RGBA: for (int x = 0; x < width; ++x) rgb(x, in[4 * x], in[4 * x + 1], in[4 * x + 2]); break;
        case AV_PIX_FMT_RGB48BE: for (int x = 0; x < width; ++x) rgb(x, in[6 * x], in[6 * x + 2], in[6 * x + 4]); break;
        case AV_PIX_FMT_RGBA64BE: for (int x = 0; x < width; ++x) rgb(x, in[8 * x], in[8 * x + 2], in[8 * x + 4]); break;
        case AV_PIX_FMT_PAL8:
            for (int x = 0; x < width; ++x) {
                uint32_t argb = palette[in[x]];
                rgb(x, uint8_t(argb >> 16), uint8_t(argb >> 8), uint8_t(argb));
            }
            break;
        default: break;  // excluded by ToBgr
    }
}

bool IsPngOutputFormat(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_GRAY8: case AV_PIX_FMT_YA8: case AV_PIX_FMT_GRAY16BE: case AV_PIX_FMT_YA16BE:
        case AV_PIX_FMT_MONOBLACK: case AV_PIX_FMT_RGB24: case AV_PIX_FMT_RGBA: case AV_PIX_FMT_RGB48BE:
        case AV_PIX_FMT_RGBA64BE: case AV_PIX_FMT_PAL8:
            return true;
        default:
            return false;
    }
}

cv::Mat ToBgr(const AVFrame& frame, const PngHeader& header, const std::string& name) {
    auto format = static_cast<AVPixelFormat>(frame.format);
    if (!IsPngOutputFormat(format) || frame.width != int(header.width) || frame.height != int(header.height))
        throw RecordingError(VYRA_ERROR_INTERNAL, "cannot decode image '" + name + "': unexpected decoder output");
    const auto* palette = reinterpret_cast<const uint32_t*>(frame.data[1]);
    cv::Mat bgr(frame.height, frame.width, CV_8UC3);
    for (int y = 0; y < frame.height; ++y)
        ConvertRow(format, frame.data[0] + static_cast<ptrdiff_t>(y) * frame.linesize[0], palette, frame.width, bgr.ptr(y));
    return bgr;
}

// Reads the EXIF orientation (tag 0x0112 in IFD0) exactly as OpenCV's
// ExifReader does, including where it gives up: IFD0 entries are parsed in
// order, and the first read out of bounds (for any tag OpenCV decodes) ends
// the parsing, keeping the entries parsed before it.
class ExifOrientationReader {
public:
    explicit ExifOrientationReader(const std::vector<unsigned char>& exif) : data_(exif), intel_(exif[0] == 'I') {}

    // 1..8 as stored, 0 when there is no readable orientation entry.
    int Read() const {
        uint32_t mark = 0, start = 0, count = 0;
        if (!U16(2, mark) || mark != 0x2a || !U32(4, start) || !U16(start, count)) return 0;
        uint32_t offset = start + 2;
        for (uint32_t i = 0; i < count; ++i, offset += 12) {
            uint32_t tag = 0, value = 0;
            if (!U16(offset, tag)) return 0;
            if (tag == 0x0112) return U16(size_t(offset) + 8, value) ? int(value) : 0;
            if (!EntryReadable(tag, offset)) return 0;
        }
        return 0;
    }

private:
    bool U16(size_t at, uint32_t& value) const {
        if (at + 1 >= data_.size()) return false;
        value = intel_ ? data_[at] | (data_[at + 1] << 8) : (data_[at] << 8) | data_[at + 1];
        return true;
    }
    bool U32(size_t at, uint32_t& value) const {
        if (at + 3 >= data_.size()) return false;
        const unsigned char* p = data_.data() + at;
        value = intel_ ? p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24)
                       : (uint32_t(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
        return true;
    }
    // `count` unsigned rationals at the offset stored in the entry.
    bool Rationals(uint32_t offset, int count) const {
        uint32_t at = 0, ignored = 0;
        if (!U32(size_t(offset) + 8, at)) return false;
        for (int i = 0; i < count; ++i, at += 8)
            if (!U32(at, ignored) || !U32(size_t(at) + 4, ignored)) return false;
        return true;
    }
    bool Text(uint32_t offset) const {
        uint32_t size = 0, dataOffset = 8;
        if (!U32(size_t(offset) + 4, size)) return false;
        if (size > 4 && !U32(size_t(offset) + 8, dataOffset)) return false;
        return dataOffset <= data_.size() && size_t(dataOffset) + size <= data_.size();
    }
    bool EntryReadable(uint32_t tag, uint32_t offset) const {
        uint32_t ignored = 0;
        switch (tag) {
            case 0x010E: case 0x010F: case 0x0110: case 0x0131: case 0x0132: case 0x8298: return Text(offset);
            case 0x011A: case 0x011B: return Rationals(offset, 1);
            case 0x013E: return Rationals(offset, 2);
            case 0x013F: case 0x0214: return Rationals(offset, 6);
            case 0x0211: return Rationals(offset, 3);
            case 0x0128: case 0x0213: return U16(size_t(offset) + 8, ignored);
            default: return true;
        }
    }

    const std::vector<unsigned char>& data_;
    bool intel_;
};

// Applies an EXIF orientation like OpenCV's imdecode.
void ApplyOrientation(int orientation, cv::Mat& image) {
    switch (orientation) {
        case 2: cv::flip(image, image, 1); break;
        case 3: cv::flip(image, image, -1); break;
        case 4: cv::flip(image, image, 0); break;
        case 5: cv::transpose(image, image); break;
        case 6: cv::transpose(image, image); cv::flip(image, image, 1); break;
        case 7: cv::transpose(image, image); cv::flip(image, image, -1); break;
        case 8: cv::transpose(image, image); cv::flip(image, image, 0); break;
        default: break;
    }
}

// --- Encoding ------------------------------------------------------------------

AVPixelFormat PngFormatFor(const cv::Mat& image) {
    switch (image.type()) {
        case CV_8UC1: return AV_PIX_FMT_GRAY8;
        case CV_8UC3: return AV_PIX_FMT_RGB24;
        case CV_8UC4: return AV_PIX_FMT_RGBA;
        default: return AV_PIX_FMT_NONE;
    }
}

// Copies `image` (grey, BGR or BGRA) into `frame` (GRAY8, RGB24 or RGBA).
void FillFrame(const cv::Mat& image, AVFrame& frame) {
    const int channels = image.channels();
    for (int y = 0; y < image.rows; ++y) {
        const uint8_t* in = image.ptr(y);
        uint8_t* out = frame.data[0] + static_cast<ptrdiff_t>(y) * frame.linesize[0];
        if (channels == 1) {
            std::memcpy(out, in, size_t(image.cols));
            continue;
        }
        for (int x = 0; x < image.cols; ++x, in += channels, out += channels) {
            out[0] = in[2];
            out[1] = in[1];
            out[2] = in[0];
            if (channels == 4) out[3] = in[3];
        }
    }
}

PacketPtr EncodePng(const cv::Mat& image, const std::string& path) {
    const std::string failure = "cannot write PNG '" + path + "': encoding failed";
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (encoder == nullptr) throw RecordingError(VYRA_ERROR_INTERNAL, "FFmpeg has no PNG encoder");
    CodecContextPtr codec(avcodec_alloc_context3(encoder));
    if (!codec) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating a PNG encoder");
    codec->log_level_offset = kQuietLogLevelOffset;
    codec->width = image.cols;
    codec->height = image.rows;
    codec->pix_fmt = PngFormatFor(image);
    codec->time_base = AVRational{1, 1};
    codec->thread_count = 1;
    codec->compression_level = 1;  // zlib's fastest, like cv::imwrite's default
    Dictionary options;
    options.Set("pred", "sub");     // cv::imwrite's default filter
    int error = avcodec_open2(codec.get(), encoder, options.Address());
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, failure);

    FramePtr frame = AllocateFrame();
    frame->format = codec->pix_fmt;
    frame->width = image.cols;
    frame->height = image.rows;
    error = av_frame_get_buffer(frame.get(), 0);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, failure);
    FillFrame(image, *frame);

    PacketPtr packet = AllocatePacket();
    error = avcodec_send_frame(codec.get(), frame.get());
    if (error >= 0) error = avcodec_receive_packet(codec.get(), packet.get());
    if (error == AVERROR(EAGAIN)) {
        error = avcodec_send_frame(codec.get(), nullptr);
        if (error >= 0) error = avcodec_receive_packet(codec.get(), packet.get());
    }
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, failure);
    return packet;
}

// --- Files ---------------------------------------------------------------------

cv::Mat DecodePngBytes(const std::vector<unsigned char>& bytes, const MediaLimits& limits, const std::string& nameForMessages) {
    PngReader reader(bytes, nameForMessages);
    PngLayout layout = reader.Parse();
    const PngHeader& header = layout.header;
    if (header.width > kLibpngMaxSide || header.height > kLibpngMaxSide ||
        int64_t(header.width) * int64_t(header.height) > limits.maxPixels)
        reader.Fail("PNG of " + std::to_string(header.width) + "x" + std::to_string(header.height) +
                    " pixels exceeds the limit of " + std::to_string(limits.maxPixels) + " pixels (and " +
                    std::to_string(kLibpngMaxSide) + " per side)");
    PacketPtr packet = MakeDecoderInput(bytes, layout, nameForMessages);
    CodecContextPtr codec = OpenPngDecoder(limits, nameForMessages);
    FramePtr frame = DecodeFrame(*codec, *packet, nameForMessages);
    cv::Mat bgr = ToBgr(*frame, header, nameForMessages);
    if (!layout.exif.empty()) ApplyOrientation(ExifOrientationReader(layout.exif).Read(), bgr);
    return bgr;
}

void WritePngFile(const std::string& path, const cv::Mat& image) {
    if (image.empty() || PngFormatFor(image) == AV_PIX_FMT_NONE)
        throw RecordingError(VYRA_ERROR_INVALID_ARGUMENT,
                             "cannot write PNG '" + path + "': expected a non-empty 8-bit image with 1, 3 or 4 channels");
    PacketPtr packet = EncodePng(image, path);
    WriteWholeFile(path, packet->data, size_t(packet->size), "PNG");
}

std::vector<unsigned char> ReadRegularFile(const std::string& path, size_t maxBytes) {
    UniqueFd file = OpenRegularFile(path, "file");
    const auto tooLarge = [&] {
        return RecordingError(VYRA_ERROR_UNREADABLE, "cannot read file '" + path + "': it is larger than the limit of " +
                              std::to_string(maxBytes) + " bytes");
    };
    int64_t size = FileSize(file.Get(), path, "file");
    if (uint64_t(size) > maxBytes) throw tooLarge();
    std::vector<unsigned char> bytes(size_t(size) + 1);  // one more byte notices a file that grew
    size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            if (bytes.size() > maxBytes) throw tooLarge();
            bytes.resize(std::min(maxBytes < SIZE_MAX ? maxBytes + 1 : maxBytes, bytes.size() * 2));
        }
        ssize_t count = ::read(file.Get(), bytes.data() + filled, bytes.size() - filled);
        if (count == 0) break;
        if (count < 0) {
            if (errno == EINTR) continue;
            throw RecordingError(VYRA_ERROR_UNREADABLE, "cannot read file '" + path + "': " + std::strerror(errno));
        }
        filled += size_t(count);
    }
    if (filled > maxBytes) throw tooLarge();
    bytes.resize(filled);
    return bytes;
}

// --- JPEG pictures -------------------------------------------------------------

// Converts between a packed BGR image and `frame` of another pixel format.
void Convert(const uint8_t* const source[], const int sourceStride[], AVPixelFormat from, int width, int height,
             uint8_t* const target[], const int targetStride[], AVPixelFormat to) {
    ScalerPtr scaler = MakeScaler(width, height, from, to, "cannot convert a picture: ");
    sws_scale(scaler.get(), source, sourceStride, 0, height, target, targetStride);
}

std::vector<unsigned char> EncodeJpegBytes(const cv::Mat& bgr, int quality) {
    if (bgr.empty() || bgr.type() != CV_8UC3) {
        throw RecordingError(VYRA_ERROR_INVALID_ARGUMENT, "a JPEG picture needs an 8-bit BGR image");
    }
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (encoder == nullptr) throw RecordingError(VYRA_ERROR_INTERNAL, "FFmpeg has no JPEG encoder");
    CodecContextPtr codec(avcodec_alloc_context3(encoder));
    if (!codec) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating a JPEG encoder");
    codec->log_level_offset = kQuietLogLevelOffset;
    codec->width = bgr.cols;
    codec->height = bgr.rows;
    codec->pix_fmt = AV_PIX_FMT_YUVJ420P;
    codec->time_base = AVRational{1, 1};
    codec->thread_count = 1;
    codec->flags |= AV_CODEC_FLAG_QSCALE;
    codec->global_quality = FF_QP2LAMBDA * std::clamp(quality, 1, 31);
    int error = avcodec_open2(codec.get(), encoder, nullptr);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, "cannot open the JPEG encoder");
    FramePtr frame = AllocateFrame();
    frame->format = codec->pix_fmt;
    frame->width = bgr.cols;
    frame->height = bgr.rows;
    frame->quality = codec->global_quality;
    error = av_frame_get_buffer(frame.get(), 0);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_NO_MEMORY, "cannot allocate a picture");
    const uint8_t* source[1] = {bgr.data};
    const int stride[1] = {static_cast<int>(bgr.step[0])};
    Convert(source, stride, AV_PIX_FMT_BGR24, bgr.cols, bgr.rows, frame->data, frame->linesize, codec->pix_fmt);
    PacketPtr packet = AllocatePacket();
    error = avcodec_send_frame(codec.get(), frame.get());
    if (error >= 0) error = avcodec_receive_packet(codec.get(), packet.get());
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, "cannot encode a JPEG picture");
    return std::vector<unsigned char>(packet->data, packet->data + packet->size);
}

cv::Mat DecodeJpegBytes(const std::vector<unsigned char>& bytes) {
    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    if (decoder == nullptr) throw RecordingError(VYRA_ERROR_INTERNAL, "FFmpeg has no JPEG decoder");
    CodecContextPtr codec(avcodec_alloc_context3(decoder));
    if (!codec) throw RecordingError(VYRA_ERROR_NO_MEMORY, "out of memory allocating a JPEG decoder");
    codec->log_level_offset = kQuietLogLevelOffset;
    codec->thread_count = 1;
    int error = avcodec_open2(codec.get(), decoder, nullptr);
    if (error < 0) ThrowAvError(error, VYRA_ERROR_INTERNAL, "cannot open the JPEG decoder");
    PacketPtr packet = AllocatePacket();
    packet->data = const_cast<uint8_t*>(bytes.data());
    packet->size = static_cast<int>(bytes.size());
    FramePtr frame = AllocateFrame();
    error = avcodec_send_packet(codec.get(), packet.get());
    if (error >= 0) error = avcodec_receive_frame(codec.get(), frame.get());
    packet->data = nullptr;
    packet->size = 0;
    if (error < 0) ThrowAvError(error, VYRA_ERROR_UNREADABLE, "cannot decode a JPEG picture");
    cv::Mat bgr(frame->height, frame->width, CV_8UC3);
    uint8_t* target[1] = {bgr.data};
    const int stride[1] = {static_cast<int>(bgr.step[0])};
    Convert(frame->data, frame->linesize, static_cast<AVPixelFormat>(frame->format), frame->width, frame->height,
            target, stride, AV_PIX_FMT_BGR24);
    return bgr;
}

}  // namespace

std::vector<unsigned char> EncodeJpeg(const cv::Mat& bgr, int quality) {
    try {
        return EncodeJpegBytes(bgr, quality);
    } catch (...) {
        RethrowAsRecordingError("cannot encode a JPEG picture");
    }
}

cv::Mat DecodeJpeg(const std::vector<unsigned char>& bytes) {
    try {
        return DecodeJpegBytes(bytes);
    } catch (...) {
        RethrowAsRecordingError("cannot decode a JPEG picture");
    }
}

cv::Mat DecodePng(const std::vector<unsigned char>& bytes, const MediaLimits& limits, const std::string& nameForMessages) {
    try {
        return DecodePngBytes(bytes, limits, nameForMessages);
    } catch (...) {
        RethrowAsRecordingError("cannot decode image '" + nameForMessages + "'");
    }
}

void WritePng(const std::string& path, const cv::Mat& image) {
    try {
        WritePngFile(path, image);
    } catch (...) {
        RethrowAsRecordingError("cannot write PNG '" + path + "'");
    }
}

std::vector<unsigned char> ReadFileBytes(const std::string& path, size_t maxBytes) {
    try {
        return ReadRegularFile(path, maxBytes);
    } catch (...) {
        RethrowAsRecordingError("cannot read file '" + path + "'");
    }
}

}}
