#include "media.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

extern "C" {
#include <libavutil/log.h>
}

namespace vyra_test {


bool RunFfmpeg(const std::string& args) {
    return std::system(("ffmpeg -hide_banner -nostdin -y -loglevel error " + args).c_str()) == 0;
}

bool HasEncoder(const std::string& name) {
    return std::system(("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q ' " + name + " '").c_str()) == 0;
}

std::vector<unsigned char> ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteWholeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

// --- PNG writer ------------------------------------------------------------------

namespace {

using Bytes = std::vector<unsigned char>;

void PutBe32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
}
void PutBe16(Bytes& out, uint32_t v) {
    out.push_back(static_cast<unsigned char>(v >> 8));
    out.push_back(static_cast<unsigned char>(v));
}

void PutChunk(Bytes& png, const char* type, const Bytes& data) {
    PutBe32(png, static_cast<uint32_t>(data.size()));
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    PutBe32(png, static_cast<uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
}

Bytes Deflate(const Bytes& raw) {
    uLongf size = compressBound(static_cast<uLong>(raw.size()));
    Bytes out(size);
    if (compress2(out.data(), &size, raw.data(), static_cast<uLong>(raw.size()), 9) != Z_OK)
        throw std::runtime_error("compress2 failed");
    out.resize(size);
    return out;
}

int Channels(int colorType) {
    switch (colorType) {
        case 2: return 3;
        case 4: return 2;
        case 6: return 4;
        default: return 1;
    }
}

// Packs samples (channels per pixel) of one row at `depth` bits each.
Bytes PackRow(const std::vector<uint16_t>& samples, int depth) {
    Bytes row;
    if (depth == 16) {
        for (uint16_t s : samples) PutBe16(row, s);
    } else if (depth == 8) {
        for (uint16_t s : samples) row.push_back(static_cast<unsigned char>(s));
    } else {
        int bit = 0;
        for (uint16_t s : samples) {
            if (bit == 0) row.push_back(0);
            row.back() |= static_cast<unsigned char>(s << (8 - depth - bit));
            bit = (bit + depth) % 8;
        }
    }
    return row;
}

int Paeth(int a, int b, int c) {
    int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    return pa <= pb && pa <= pc ? a : (pb <= pc ? b : c);
}

// Appends `row` filtered with `filter` (0..4) against `previous` (same pass).
void PutFilteredRow(Bytes& out, const Bytes& row, const Bytes& previous, int filter, int bpp) {
    out.push_back(static_cast<unsigned char>(filter));
    for (size_t i = 0; i < row.size(); ++i) {
        int a = i >= size_t(bpp) ? row[i - bpp] : 0;
        int b = previous.empty() ? 0 : previous[i];
        int c = !previous.empty() && i >= size_t(bpp) ? previous[i - bpp] : 0;
        int predictor = filter == 1 ? a : filter == 2 ? b : filter == 3 ? (a + b) / 2 : filter == 4 ? Paeth(a, b, c) : 0;
        out.push_back(static_cast<unsigned char>(row[i] - predictor));
    }
}

Bytes ImageData(const PngSpec& spec, std::mt19937& rng) {
    const int channels = Channels(spec.colorType);
    const uint32_t maxSample = (1u << spec.bitDepth) - 1;
    std::vector<uint16_t> samples(size_t(spec.width) * spec.height * channels);
    for (uint16_t& s : samples) s = spec.flat ? 0 : static_cast<uint16_t>(rng() % (maxSample + 1));
    const int bpp = std::max(1, channels * spec.bitDepth / 8);
    static const int kAdam7[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                                     {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
    static const int kProgressive[1][4] = {{0, 0, 1, 1}};
    const int (*passes)[4] = spec.interlaced ? kAdam7 : kProgressive;
    const int passCount = spec.interlaced ? 7 : 1;
    Bytes raw;
    for (int p = 0; p < passCount; ++p) {
        const int x0 = passes[p][0], y0 = passes[p][1], dx = passes[p][2], dy = passes[p][3];
        if (x0 >= spec.width || y0 >= spec.height) continue;
        Bytes previous;
        for (int y = y0; y < spec.height; y += dy) {
            std::vector<uint16_t> rowSamples;
            for (int x = x0; x < spec.width; x += dx)
                for (int c = 0; c < channels; ++c) rowSamples.push_back(samples[(size_t(y) * spec.width + x) * channels + c]);
            Bytes row = PackRow(rowSamples, spec.bitDepth);
            PutFilteredRow(raw, row, previous, static_cast<int>(rng() % 5), bpp);
            previous = row;
        }
    }
    return Deflate(raw);
}

// A small valid ICC profile (libpng checks the header and tag table) with
// one tag of random bytes, so that the iCCP chunk has a realistic size.
Bytes IccProfile(bool grey, std::mt19937& rng) {
    Bytes profile(144 + 128, 0);
    for (size_t i = 144; i < profile.size(); ++i) profile[i] = static_cast<unsigned char>(rng());
    auto put = [&profile](size_t at, const char* text) { std::copy(text, text + 4, profile.begin() + at); };
    auto put32 = [&profile](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) profile[at + i] = static_cast<unsigned char>(v >> (24 - 8 * i));
    };
    put32(0, static_cast<uint32_t>(profile.size()));
    put32(8, 0x02100000);
    put(12, "mntr");
    put(16, grey ? "GRAY" : "RGB ");
    put(20, "XYZ ");
    put(36, "acsp");
    put32(68, 0x0000F6D6);  // D50 illuminant
    put32(72, 0x00010000);
    put32(76, 0x0000D32D);
    put32(128, 1);  // tag table: one 'desc' tag over the random bytes
    put(132, "desc");
    put32(136, 144);
    put32(140, 128);
    return profile;
}

Bytes ExifWithOrientation(int orientation) {
    Bytes exif = {'M', 'M', 0, 0x2a};
    PutBe32(exif, 8);           // IFD0 offset
    PutBe16(exif, 1);           // one entry
    PutBe16(exif, 0x0112);      // orientation
    PutBe16(exif, 3);           // SHORT
    PutBe32(exif, 1);
    PutBe16(exif, static_cast<uint32_t>(orientation));
    PutBe16(exif, 0);
    PutBe32(exif, 0);           // no next IFD
    return exif;
}

}  // namespace

std::vector<unsigned char> MakePng(const PngSpec& spec) {
    std::mt19937 rng(spec.seed);
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    Bytes header;
    PutBe32(header, static_cast<uint32_t>(spec.width));
    PutBe32(header, static_cast<uint32_t>(spec.height));
    header.insert(header.end(), {static_cast<unsigned char>(spec.bitDepth), static_cast<unsigned char>(spec.colorType), 0, 0,
                                 static_cast<unsigned char>(spec.interlaced ? 1 : 0)});
    PutChunk(png, "IHDR", header);
    const bool grey = (spec.colorType & 2) == 0;
    if (spec.colorChunks) {
        Bytes gamma, chrm;
        PutBe32(gamma, 45455);
        for (uint32_t v : {31270u, 32900u, 64000u, 33000u, 30000u, 60000u, 15000u, 6000u}) PutBe32(chrm, v);
        PutChunk(png, "gAMA", gamma);
        PutChunk(png, "cHRM", chrm);
        PutChunk(png, "sRGB", Bytes{0});
    }
    if (spec.iccProfile) {
        Bytes gamma, iccp = {'I', 'C', 'C', 0, 0};
        PutBe32(gamma, 45455);
        Bytes profile = Deflate(IccProfile(grey, rng));
        iccp.insert(iccp.end(), profile.begin(), profile.end());
        PutChunk(png, "gAMA", gamma);
        PutChunk(png, "iCCP", iccp);
    }
    if (spec.brokenIccProfile) {
        Bytes iccp = {'I', 'C', 'C', 0, 0, 0x78, 0x9c};
        for (int i = 0; i < 120; ++i) iccp.push_back(static_cast<unsigned char>(rng()));
        PutChunk(png, "iCCP", iccp);
    }
    if (spec.exifOrientation > 0) PutChunk(png, "eXIf", ExifWithOrientation(spec.exifOrientation));
    if (spec.colorType == 3) {
        Bytes palette;
        for (int i = 0; i < 3 * spec.paletteEntries; ++i) palette.push_back(static_cast<unsigned char>(rng()));
        PutChunk(png, "PLTE", palette);
    }
    if (spec.transparency) {
        Bytes trns;
        if (spec.colorType == 3) {
            for (int i = 0; i < spec.paletteEntries; ++i) trns.push_back(static_cast<unsigned char>(rng()));
        } else {
            for (int c = 0; c < Channels(spec.colorType); ++c) PutBe16(trns, rng() % (1u << spec.bitDepth));
        }
        PutChunk(png, "tRNS", trns);
    }
    if (spec.colorChunks) {  // bKGD: a background that a compositing decoder would use
        Bytes background;
        if (spec.colorType == 3) background.push_back(0);
        else for (int c = 0; c < (grey ? 1 : 3); ++c) PutBe16(background, rng() % (1u << spec.bitDepth));
        PutChunk(png, "bKGD", background);
    }
    Bytes data = ImageData(spec, rng);
    for (size_t at = 0; at < data.size(); at += 500)
        PutChunk(png, "IDAT", Bytes(data.begin() + at, data.begin() + std::min(data.size(), at + 500)));
    PutChunk(png, "IEND", {});
    return png;
}

std::string Describe(const PngSpec& spec) {
    static const char* kTypes[] = {"grey", "?", "rgb", "palette", "greyalpha", "?", "rgba"};
    std::string text = std::string(kTypes[spec.colorType]) + std::to_string(spec.bitDepth) + "_" +
                       std::to_string(spec.width) + "x" + std::to_string(spec.height);
    if (spec.interlaced) text += "_adam7";
    if (spec.transparency) text += "_trns";
    if (spec.colorChunks) text += "_srgb";
    if (spec.iccProfile) text += "_iccp";
    if (spec.brokenIccProfile) text += "_badiccp";
    if (spec.exifOrientation > 0) text += "_exif" + std::to_string(spec.exifOrientation);
    if (spec.colorType == 3) text += "_pal" + std::to_string(spec.paletteEntries);
    return text;
}

// --- stderr capture ------------------------------------------------------------------

StderrCapture::StderrCapture() {
    char path[] = "/tmp/vyra-stderr-XXXXXX";
    captureFd_ = mkstemp(path);
    if (captureFd_ < 0) throw std::runtime_error("mkstemp failed");
    path_ = path;
    std::fflush(stderr);
    savedFd_ = dup(2);
    dup2(captureFd_, 2);
    savedLevel_ = av_log_get_level();
    av_log_set_level(AV_LOG_INFO);
}

StderrCapture::~StderrCapture() {
    std::fflush(stderr);
    av_log_set_level(savedLevel_);
    dup2(savedFd_, 2);
    close(savedFd_);
    close(captureFd_);
    unlink(path_.c_str());
}

std::string StderrCapture::Text() {
    std::fflush(stderr);
    std::vector<unsigned char> bytes = ReadWholeFile(path_);
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace vyra_test
