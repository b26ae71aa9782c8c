// PNG frames through FFmpeg's libraries: decoded exactly as cv::imdecode
// decodes them (the reference) for every kind of PNG, refused with one line
// naming the file, written back losslessly, read within limits.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <random>

#include <opencv2/imgcodecs.hpp>
#include <zlib.h>

extern "C" {
#include <libavutil/mem.h>
}

#include "recording/FfmpegImage.h"
#include "fixtures.h"

using vyra::detail::DecodePng;
using vyra::detail::MediaLimits;
using vyra::detail::RecordingError;
using vyra_test::MakePng;
using vyra_test::PngSpec;
using vyra_test::StderrCapture;

namespace {

using Bytes = std::vector<unsigned char>;

bool identical(const cv::Mat& a, const cv::Mat& b) {
    return a.type() == b.type() && a.size() == b.size() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0);
}

// The message of the RecordingError @p f throws, which must carry @p status.
template <class F>
std::string errorOf(F f, VyraStatus status) {
    try {
        f();
    } catch (const RecordingError& e) {
        EXPECT_EQ(e.status(), status) << e.what();
        return e.what();
    }
    ADD_FAILURE() << "no RecordingError thrown";
    return "";
}

std::string describe(const PngSpec& s) {
    return cv::format("type %d, %d bits, %dx%d%s%s%s, exif %d, palette %d", s.colorType, s.bitDepth, s.width, s.height,
                      s.interlaced ? ", Adam7" : "", s.transparency ? ", tRNS" : "", s.metadata ? ", metadata" : "",
                      s.exifOrientation, s.paletteEntries);
}

void setCrc(Bytes& png, size_t chunk, size_t length) {
    const uLong crc = crc32(0, png.data() + chunk + 4, static_cast<uInt>(4 + length));
    for (int i = 0; i < 4; ++i) png[chunk + 8 + length + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
}

TEST(DecodePng, DecodesEveryKindOfPngAsImdecodeDoesAndSilently) {
    const int kinds[][2] = {{0, 1}, {0, 2}, {0, 4}, {0, 8}, {0, 16}, {4, 8}, {4, 16}, {2, 8},
                            {2, 16}, {6, 8}, {6, 16}, {3, 1}, {3, 2}, {3, 4}, {3, 8}};
    uint32_t seed = 1;
    std::vector<PngSpec> specs;
    for (const auto& kind : kinds) {
        for (const bool interlaced : {false, true}) {
            // Sizes with partial bytes and empty Adam7 passes; the largest with chunks to ignore.
            for (const auto& size : {std::pair{1, 1}, std::pair{1, 9}, std::pair{11, 1}, std::pair{37, 23}}) {
                PngSpec shape;
                shape.colorType = kind[0], shape.bitDepth = kind[1], shape.interlaced = interlaced;
                shape.width = size.first, shape.height = size.second, shape.seed = seed++;
                shape.paletteEntries = std::min(256, 1 << shape.bitDepth);
                if (size.first == 37) {
                    shape.transparency = shape.colorType == 0 || shape.colorType == 2 || shape.colorType == 3;
                    shape.metadata = !interlaced;
                    if (shape.colorType == 3) shape.paletteEntries = (shape.paletteEntries + 1) / 2;  // indices past the end
                }
                specs.push_back(shape);
            }
        }
    }
    for (int orientation = 1; orientation <= 8; ++orientation) {
        PngSpec shape;
        shape.width = 7, shape.height = 4, shape.exifOrientation = orientation, shape.seed = 100 + orientation;
        specs.push_back(shape);
    }
    for (const PngSpec& shape : specs) {
        const Bytes png = MakePng(shape);
        const cv::Mat expected = cv::imdecode(png, cv::IMREAD_COLOR);
        ASSERT_FALSE(expected.empty()) << describe(shape);
        StderrCapture capture;
        EXPECT_TRUE(identical(DecodePng(png, MediaLimits(), "frame.png"), expected)) << describe(shape);
        EXPECT_EQ(capture.Text(), "") << describe(shape);
    }
}

TEST(DecodePng, RefusesDamagedLargeAndUnaffordableImagesWithOneLineNamingTheFile) {
    PngSpec shape;
    shape.width = 40, shape.height = 30;
    const Bytes good = MakePng(shape);
    const size_t idat = 33, idatLength = (good[idat + 2] << 8) | good[idat + 3];  // the first chunk after IHDR
    Bytes badCrc = good, badZlib = good;
    badCrc[idat + 8 + idatLength] ^= 0x55;
    badZlib[idat + 8] = badZlib[idat + 9] = 0xff;
    setCrc(badZlib, idat, idatLength);
    Bytes jpeg, noise(5000);
    cv::imencode(".jpg", cv::Mat(8, 8, CV_8UC3, cv::Scalar(10, 20, 30)), jpeg);
    std::mt19937 rng(7);
    for (auto& b : noise) b = static_cast<unsigned char>(rng());
    const std::pair<const char*, Bytes> cases[] = {
        {"empty", {}}, {"jpeg", jpeg}, {"noise", noise}, {"signature only", Bytes(good.begin(), good.begin() + 8)},
        {"cut in IDAT", Bytes(good.begin(), good.begin() + idat + 40)}, {"cut before IEND", Bytes(good.begin(), good.end() - 12)},
        {"IDAT CRC", badCrc}, {"zlib stream", badZlib},
    };
    for (const auto& [what, bytes] : cases) {
        StderrCapture capture;
        const std::string message = errorOf([&] { DecodePng(bytes, MediaLimits(), "shot-0042.png"); }, VYRA_ERROR_UNREADABLE);
        EXPECT_NE(message.find("'shot-0042.png'"), std::string::npos) << what << ": " << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        EXPECT_EQ(capture.Text(), "") << what;
    }
    // 16000 x 16000 declared over 1.5 MB of data: refused before decoding
    // (decoding would fail with ENOMEM under this allocation cap).
    PngSpec large;
    large.width = 1000, large.height = 1500, large.colorType = 0;
    Bytes png = MakePng(large);
    for (size_t at : {16u, 20u}) {
        for (int i = 0; i < 4; ++i) png[at + i] = static_cast<unsigned char>(16000u >> (24 - 8 * i));
    }
    setCrc(png, 8, 13);
    av_max_alloc(256 << 20);
    std::string message = errorOf([&] { DecodePng(png, MediaLimits(), "big.png"); }, VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find("16000x16000"), std::string::npos) << message;
    EXPECT_NE(message.find("limit of 67108864 pixels"), std::string::npos) << message;
    Bytes flat;  // a few KB for a 3 MB frame
    cv::imencode(".png", cv::Mat(1000, 1000, CV_8UC3, cv::Scalar::all(0)), flat);
    av_max_alloc(1 << 20);
    errorOf([&] { DecodePng(flat, MediaLimits(), "oom.png"); }, VYRA_ERROR_NO_MEMORY);
    av_max_alloc(INT_MAX);
}

TEST(WritePng, WritesLosslesslyOrFailsWithTheReasonLeavingTheOldFile) {
    vyra_test::TempDir dir;
    const std::string path = (dir / "frame.png").string();
    for (const int type : {CV_8UC1, CV_8UC3, CV_8UC4}) {
        cv::Mat image(23, 37, type);
        cv::randu(image, 0, 256);
        vyra::detail::WritePng(path, image);  // each round overwrites the file before
        EXPECT_TRUE(identical(cv::imread(path, cv::IMREAD_UNCHANGED), image)) << type;
    }
    EXPECT_EQ(std::distance(vyra_test::fs::directory_iterator(dir.path()), {}), 1);  // no temporary left
    errorOf([] { vyra::detail::WritePng("/tmp/x.png", cv::Mat()); }, VYRA_ERROR_INVALID_ARGUMENT);
    errorOf([] { vyra::detail::WritePng("/tmp/x.png", cv::Mat(4, 4, CV_16UC3)); }, VYRA_ERROR_INVALID_ARGUMENT);
    const std::string missing = (dir / "missing/frame.png").string();
    std::string message = errorOf([&] { vyra::detail::WritePng(missing, cv::Mat(4, 4, CV_8UC3)); }, VYRA_ERROR_WRITE);
    EXPECT_NE(message.find(missing), std::string::npos) << message;
    EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;

    // Files larger than 64 KiB cannot be written: the write fails with EFBIG.
    rlimit saved{}, limited{};
    getrlimit(RLIMIT_FSIZE, &saved);
    limited = saved;
    limited.rlim_cur = 64 * 1024;
    setrlimit(RLIMIT_FSIZE, &limited);
    const auto previous = signal(SIGXFSZ, SIG_IGN);
    cv::Mat noise(300, 300, CV_8UC3);
    cv::randu(noise, 0, 256);  // about 270 KB, incompressible
    message = errorOf([&] { vyra::detail::WritePng(path, noise); }, VYRA_ERROR_WRITE);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, previous);
    EXPECT_NE(message.find("File too large"), std::string::npos) << message;
    EXPECT_EQ(std::distance(vyra_test::fs::directory_iterator(dir.path()), {}), 1);  // the temporary is removed
    EXPECT_EQ(cv::imread(path, cv::IMREAD_UNCHANGED).size(), cv::Size(37, 23));     // the old file stays
}

TEST(ReadFileBytes, ReadsRegularFilesWithinTheLimitOnly) {
    // (FIFOs, devices and folders as frames: tools/bad_input_test.cpp.)
    vyra_test::TempDir dir;
    Bytes content(100000);
    std::mt19937 rng(3);
    for (auto& b : content) b = static_cast<unsigned char>(rng());
    vyra_test::writeBytes(dir / "a.bin", content);
    EXPECT_EQ(vyra::detail::ReadFileBytes((dir / "a.bin").string(), content.size()), content);
    EXPECT_NE(errorOf([&] { vyra::detail::ReadFileBytes((dir / "a.bin").string(), content.size() - 1); }, VYRA_ERROR_UNREADABLE)
                  .find("larger than the limit"),
              std::string::npos);
    errorOf([&] { vyra::detail::ReadFileBytes((dir / "none").string(), 1 << 20); }, VYRA_ERROR_NOT_FOUND);
    // A regular file whose read fails: /proc/self/mem at address 0 gives EIO.
    EXPECT_NE(errorOf([] { vyra::detail::ReadFileBytes("/proc/self/mem", 1 << 20); }, VYRA_ERROR_UNREADABLE).find("Input/output error"),
              std::string::npos);
}

}  // namespace

// The decoder pads its rows to 64 pixels; found by fuzzing: a 100x160 PNG
// was refused as damaged (and FFmpeg printed why) under a limit of 16000
// pixels. A frame of exactly the limit decodes, one pixel more is refused.
TEST(DecodePng, FrameOfExactlyTheLimitDecodesQuietly) {
    const struct { int width, height; } sizes[] = {{100, 160}, {36, 64}, {1, 50}, {65, 1}, {130, 7}};
    for (const auto& size : sizes) {
        PngSpec shape;
        shape.width = size.width;
        shape.height = size.height;
        const Bytes png = MakePng(shape);
        SCOPED_TRACE(describe(shape));
        MediaLimits limits;
        limits.maxPixels = int64_t(size.width) * size.height;
        StderrCapture capture;
        cv::Mat frame;
        ASSERT_NO_THROW(frame = DecodePng(png, limits, "exact.png"));
        EXPECT_EQ(frame.size(), cv::Size(size.width, size.height));
        limits.maxPixels -= 1;
        errorOf([&] { DecodePng(png, limits, "over.png"); }, VYRA_ERROR_UNREADABLE);
        EXPECT_EQ(capture.Text(), "");
    }
}
