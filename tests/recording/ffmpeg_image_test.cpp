// FfmpegImage: PNG decoding against cv::imdecode (the reference), PNG
// writing with checked failures, bounded file reading.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <random>

#include <opencv2/imgcodecs.hpp>
#include <zlib.h>

extern "C" {
#include <libavutil/mem.h>
}

#include "recording/FfmpegImage.h"
#include "fixtures.h"
#include "media.h"

using vyra::detail::DecodePng;
using vyra::detail::MediaLimits;
using vyra::detail::ReadFileBytes;
using vyra::detail::RecordingError;
using vyra::detail::WritePng;
using vyra_test::Describe;
using vyra_test::MakePng;
using vyra_test::PngSpec;
using vyra_test::StderrCapture;
using vyra_test::TempDir;

namespace {

using Bytes = std::vector<unsigned char>;

bool Identical(const cv::Mat& a, const cv::Mat& b) {
    return a.type() == b.type() && a.size() == b.size() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0);
}

// Calls `f`, expecting a RecordingError with `status`; returns its message.
template <class F>
std::string ErrorOf(F f, VyraStatus status) {
    try {
        f();
    } catch (const RecordingError& e) {
        EXPECT_EQ(e.status(), status) << e.what();
        return e.what();
    }
    ADD_FAILURE() << "no RecordingError thrown";
    return "";
}

// Every colour type and bit depth, progressive and Adam7, at sizes with
// partial bytes and empty interlace passes; the largest size also carries
// transparency, colour metadata or an ICC profile, and palettes shorter than
// the index range.
std::vector<PngSpec> EveryPngKind() {
    const int kinds[][2] = {{0, 1}, {0, 2}, {0, 4}, {0, 8}, {0, 16}, {4, 8}, {4, 16}, {2, 8},
                            {2, 16}, {6, 8}, {6, 16}, {3, 1}, {3, 2}, {3, 4}, {3, 8}};
    const int sizes[][2] = {{1, 1}, {1, 9}, {11, 1}, {37, 23}};
    std::vector<PngSpec> specs;
    uint32_t seed = 1;
    for (const auto& kind : kinds) {
        for (bool interlaced : {false, true}) {
            for (const auto& size : sizes) {
                PngSpec spec;
                spec.colorType = kind[0];
                spec.bitDepth = kind[1];
                spec.width = size[0];
                spec.height = size[1];
                spec.interlaced = interlaced;
                spec.seed = seed++;
                spec.paletteEntries = std::min(256, 1 << spec.bitDepth);
                if (size[0] == 37) {
                    spec.transparency = spec.colorType == 0 || spec.colorType == 2 || spec.colorType == 3;
                    spec.colorChunks = !interlaced;
                    spec.iccProfile = interlaced;
                    spec.brokenIccProfile = !interlaced && spec.colorType == 2;  // libpng only warns
                    if (spec.colorType == 3) spec.paletteEntries = (spec.paletteEntries + 1) / 2;
                }
                specs.push_back(spec);
            }
        }
    }
    return specs;
}

TEST(DecodePng, MatchesImdecodeForEveryKind) {
    for (const PngSpec& spec : EveryPngKind()) {
        SCOPED_TRACE(Describe(spec));
        Bytes png = MakePng(spec);
        cv::Mat expected = cv::imdecode(png, cv::IMREAD_COLOR);
        ASSERT_FALSE(expected.empty());
        StderrCapture capture;
        cv::Mat actual = DecodePng(png, MediaLimits(), "frame.png");
        EXPECT_TRUE(Identical(actual, expected));
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST(DecodePng, AppliesExifOrientationLikeImdecode) {
    for (int orientation = 1; orientation <= 8; ++orientation) {
        PngSpec spec;
        spec.width = 7;
        spec.height = 4;
        spec.exifOrientation = orientation;
        spec.seed = 100 + orientation;
        SCOPED_TRACE(Describe(spec));
        Bytes png = MakePng(spec);
        EXPECT_TRUE(Identical(DecodePng(png, MediaLimits(), "x.png"), cv::imdecode(png, cv::IMREAD_COLOR)));
    }
}

// Offset of the chunk `type` (its length field) in a PNG.
size_t ChunkOffset(const Bytes& png, const char* type) {
    for (size_t at = 8; at + 8 <= png.size();) {
        if (std::equal(type, type + 4, png.begin() + at + 4)) return at;
        at += 12 + ((size_t(png[at]) << 24) | (png[at + 1] << 16) | (png[at + 2] << 8) | png[at + 3]);
    }
    return std::string::npos;
}

TEST(DecodePng, RefusesWhatImdecodeRefuses) {
    PngSpec spec;
    spec.width = 40;
    spec.height = 30;
    const Bytes good = MakePng(spec);
    const size_t idat = ChunkOffset(good, "IDAT"), iend = ChunkOffset(good, "IEND");
    const size_t idatLength = (good[idat + 2] << 8) | good[idat + 3];
    Bytes badCrc = good, badData = good;
    badCrc[idat + 8 + idatLength] ^= 0x55;  // the stored CRC of the first IDAT
    badData[idat + 8] = 0xff;                // zlib header of the image data, CRC recomputed
    badData[idat + 9] = 0xff;
    const uLong crc = crc32(0, badData.data() + idat + 4, static_cast<uInt>(4 + idatLength));
    for (int i = 0; i < 4; ++i) badData[idat + 8 + idatLength + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    std::vector<unsigned char> jpeg;
    cv::imencode(".jpg", cv::Mat(8, 8, CV_8UC3, cv::Scalar(10, 20, 30)), jpeg);
    std::mt19937 rng(7);
    Bytes noise(5000);
    for (auto& b : noise) b = static_cast<unsigned char>(rng());
    const struct {
        const char* name;
        Bytes bytes;
        bool png;  // imdecode must refuse it too
    } cases[] = {
        {"empty", {}, false},
        {"jpeg", jpeg, false},
        {"noise", noise, false},
        {"signature only", Bytes(good.begin(), good.begin() + 8), true},
        {"cut in IDAT", Bytes(good.begin(), good.begin() + idat + 40), true},
        {"cut before IEND", Bytes(good.begin(), good.begin() + iend), true},
        {"IDAT CRC error", badCrc, true},
        {"bad zlib stream", badData, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.png) {
            EXPECT_TRUE(cv::imdecode(c.bytes, cv::IMREAD_COLOR).empty());
        }
        StderrCapture capture;
        std::string message = ErrorOf([&] { DecodePng(c.bytes, MediaLimits(), "shot-0042.png"); }, VYRA_ERROR_UNREADABLE);
        EXPECT_NE(message.find("'shot-0042.png'"), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST(DecodePng, RefusesDeclaredSizeAboveLimitBeforeDecoding) {
    // 16000 x 16000 grey declared, 1.5 MB of image data behind it.
    PngSpec spec;
    spec.width = 1000;
    spec.height = 1500;
    spec.colorType = 0;
    Bytes png = MakePng(spec);
    const uint32_t side = 16000;
    for (size_t at : {size_t(16), size_t(20)})
        for (int i = 0; i < 4; ++i) png[at + i] = static_cast<unsigned char>(side >> (24 - 8 * i));
    const uLong crc = crc32(0, png.data() + 12, 17);
    for (int i = 0; i < 4; ++i) png[29 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    av_max_alloc(256 << 20);  // decoding 256 Mpixel would now fail with ENOMEM instead
    std::string message = ErrorOf([&] { DecodePng(png, MediaLimits(), "big.png"); }, VYRA_ERROR_UNREADABLE);
    av_max_alloc(INT_MAX);
    EXPECT_NE(message.find("16000x16000"), std::string::npos) << message;
    EXPECT_NE(message.find("limit of 67108864 pixels"), std::string::npos) << message;
}

// The decoder pads its rows to 64 pixels; found by fuzzing: a 100x160 PNG
// was refused as damaged (and FFmpeg printed why) under a limit of 16000
// pixels. A frame of exactly the limit decodes, one pixel more is refused.
TEST(DecodePng, FrameOfExactlyTheLimitDecodesQuietly) {
    const struct { int width, height; } sizes[] = {{100, 160}, {36, 64}, {1, 50}, {65, 1}, {130, 7}};
    for (const auto& size : sizes) {
        PngSpec spec;
        spec.width = size.width;
        spec.height = size.height;
        const Bytes png = MakePng(spec);
        SCOPED_TRACE(Describe(spec));
        MediaLimits limits;
        limits.maxPixels = int64_t(size.width) * size.height;
        StderrCapture capture;
        cv::Mat frame;
        ASSERT_NO_THROW(frame = DecodePng(png, limits, "exact.png"));
        EXPECT_EQ(frame.size(), cv::Size(size.width, size.height));
        limits.maxPixels -= 1;
        ErrorOf([&] { DecodePng(png, limits, "over.png"); }, VYRA_ERROR_UNREADABLE);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST(DecodePng, ReportsOutOfMemory) {
    PngSpec spec;
    spec.width = 1000;
    spec.height = 1000;
    spec.flat = true;  // a few KB of PNG
    Bytes png = MakePng(spec);
    ASSERT_LT(png.size(), 100000u);
    av_max_alloc(1 << 20);  // the 3 MB frame cannot be allocated
    ErrorOf([&] { DecodePng(png, MediaLimits(), "oom.png"); }, VYRA_ERROR_NO_MEMORY);
    av_max_alloc(INT_MAX);
}

cv::Mat RandomImage(int rows, int cols, int type, unsigned seed) {
    cv::Mat image(rows, cols, type);
    cv::theRNG().state = seed;
    cv::randu(image, 0, 256);
    return image;
}

TEST(WritePng, RoundTripsGreyBgrAndBgra) {
    TempDir dir;
    for (int type : {CV_8UC1, CV_8UC3, CV_8UC4}) {
        SCOPED_TRACE(type);
        const cv::Mat image = RandomImage(23, 37, type, 5u + type);
        const std::string path = (dir / "frame.png").string();
        WritePng(path, image);  // the second and third round overwrite the first file
        const Bytes png = vyra_test::ReadWholeFile(path);
        EXPECT_TRUE(Identical(cv::imdecode(png, cv::IMREAD_UNCHANGED), image));
        EXPECT_TRUE(Identical(DecodePng(png, MediaLimits(), path), cv::imdecode(png, cv::IMREAD_COLOR)));
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.str()), {}), 1);  // no temporary left
}

TEST(WritePng, FailsIntoMissingFolder) {
    TempDir dir;
    const std::string path = (dir / "missing/frame.png").string();
    std::string message = ErrorOf([&] { WritePng(path, RandomImage(4, 4, CV_8UC3, 1)); }, VYRA_ERROR_WRITE);
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;
}

TEST(WritePng, RefusesImagesItCannotStore) {
    ErrorOf([] { WritePng("/tmp/x.png", cv::Mat()); }, VYRA_ERROR_INVALID_ARGUMENT);
    ErrorOf([] { WritePng("/tmp/x.png", cv::Mat(4, 4, CV_16UC3)); }, VYRA_ERROR_INVALID_ARGUMENT);
}

// A folder on a 64 KiB tmpfs (mounted when running as root), else an
// ordinary folder with RLIMIT_FSIZE lowered so that writes fail with EFBIG.
class FullFilesystem {
public:
    FullFilesystem() {
        mounted_ = geteuid() == 0 && mount("tmpfs", dir_.str().c_str(), "tmpfs", 0, "size=64k") == 0;
        if (!mounted_) {
            getrlimit(RLIMIT_FSIZE, &saved_);
            rlimit limited = saved_;
            limited.rlim_cur = 64 * 1024;
            setrlimit(RLIMIT_FSIZE, &limited);
            previousHandler_ = signal(SIGXFSZ, SIG_IGN);
        }
    }
    ~FullFilesystem() {
        if (mounted_) {
            umount(dir_.str().c_str());
        } else {
            setrlimit(RLIMIT_FSIZE, &saved_);
            signal(SIGXFSZ, previousHandler_);
        }
    }
    std::filesystem::path operator/(const std::string& name) const { return dir_ / name; }
    std::string str() const { return dir_.str(); }
    const char* ExpectedError() const { return mounted_ ? "No space left on device" : "File too large"; }

private:
    TempDir dir_;
    bool mounted_ = false;
    rlimit saved_{};
    sighandler_t previousHandler_ = SIG_DFL;
};

TEST(WritePng, FailsOnFullFilesystemAndKeepsTheOldFile) {
    FullFilesystem full;
    const std::string path = (full / "frame.png").string();
    vyra_test::WriteWholeFile(path, Bytes{'o', 'l', 'd'});
    const cv::Mat noise = RandomImage(300, 300, CV_8UC3, 9);  // ~270 KB, incompressible
    std::string message = ErrorOf([&] { WritePng(path, noise); }, VYRA_ERROR_WRITE);
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find(full.ExpectedError()), std::string::npos) << message;
    EXPECT_EQ(vyra_test::ReadWholeFile(path), (Bytes{'o', 'l', 'd'}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(full.str()), {}), 1);  // temporary removed
}

TEST(ReadFileBytes, ReadsRegularFilesWithinTheLimit) {
    TempDir dir;
    Bytes content(100000);
    std::mt19937 rng(3);
    for (auto& b : content) b = static_cast<unsigned char>(rng());
    vyra_test::WriteWholeFile((dir / "a.bin").string(), content);
    EXPECT_EQ(ReadFileBytes((dir / "a.bin").string(), content.size()), content);
    std::string message = ErrorOf([&] { ReadFileBytes((dir / "a.bin").string(), content.size() - 1); }, VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find("larger than the limit"), std::string::npos) << message;
}

TEST(ReadFileBytes, RefusesWhatIsNotARegularFile) {
    TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").string().c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", (dir / "zero").string().c_str()), 0);
    for (const std::string& path : {(dir / "fifo").string(), (dir / "zero").string(), dir.str()}) {
        SCOPED_TRACE(path);
        std::string message = ErrorOf([&] { ReadFileBytes(path, 1 << 20); }, VYRA_ERROR_UNREADABLE);
        EXPECT_NE(message.find(path), std::string::npos) << message;
    }
    ErrorOf([&] { ReadFileBytes((dir / "none").string(), 1 << 20); }, VYRA_ERROR_NOT_FOUND);
    // A regular file whose read fails: /proc/self/mem at address 0 gives EIO.
    std::string message = ErrorOf([] { ReadFileBytes("/proc/self/mem", 1 << 20); }, VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find("Input/output error"), std::string::npos) << message;
}

}  // namespace
