// VideoReader against cv::VideoCapture(path, cv::CAP_FFMPEG) (the
// reference) on videos generated here, plus damaged and hostile inputs.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

extern "C" {
#include <libavutil/mem.h>
}

#include "recording/FfmpegVideo.h"
#include "fixtures.h"
#include "media.h"

using vyra::detail::MediaLimits;
using vyra::detail::RecordingError;
using vyra::detail::VideoReader;
using vyra_test::RunFfmpeg;
using vyra_test::StderrCapture;
using vyra_test::TempDir;

namespace {

struct Decoded {
    std::vector<cv::Mat> frames;
    std::vector<double> ms;
};

Decoded ReadWithOpenCv(const std::string& path) {
    cv::VideoCapture capture(path, cv::CAP_FFMPEG);
    Decoded out;
    cv::Mat frame;
    while (capture.read(frame)) {
        out.frames.push_back(frame.clone());
        out.ms.push_back(capture.get(cv::CAP_PROP_POS_MSEC));
    }
    return out;
}

Decoded ReadWithReader(const std::string& path, const MediaLimits& limits = MediaLimits()) {
    VideoReader reader(path, limits);
    Decoded out;
    cv::Mat frame;
    double ms = -1;
    while (reader.Read(&frame, ms)) {
        out.frames.push_back(frame.clone());
        out.ms.push_back(ms);
    }
    return out;
}

bool Identical(const cv::Mat& a, const cv::Mat& b) {
    return a.type() == b.type() && a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0;
}

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

// Videos shared by the tests, generated once per run.
class Media {
public:
    static Media& Get() {
        static Media media;
        return media;
    }
    std::string Path(const std::string& name) const { return (dir_ / name).string(); }

    // Generates `name` with `ffmpeg ARGS <path>` unless already done.
    std::string Ffmpeg(const std::string& name, const std::string& args) {
        std::string path = Path(name);
        if (made_.count(name) == 0) made_[name] = RunFfmpeg(args + " '" + path + "'");
        return made_[name] ? path : "";
    }

private:
    TempDir dir_;
    std::map<std::string, bool> made_;
};

std::string TestSource(int width, int height, int frames) {
    return "-f lavfi -i testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) +
           ":rate=30 -frames:v " + std::to_string(frames);
}
// 361x641 from a 400x700 source: odd sizes on both axes.
std::string OddSource(int frames) { return TestSource(400, 700, frames) + " -vf scale=361:641"; }

std::string MakeMp4vWithVideoWriter(const std::string& path) {
    cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('m', 'p', '4', 'v'), 30, cv::Size(361, 641));
    if (!writer.isOpened()) return "";
    cv::Mat frame(641, 361, CV_8UC3);
    cv::theRNG().state = 17;
    for (int i = 0; i < 12; ++i) {  // a moving block and a patch of noise on a changing background
        frame.setTo(cv::Scalar(40 + 10 * i, 90, 200 - 12 * i));
        frame(cv::Rect(20 * i, 300, 120, 90)).setTo(cv::Scalar(255, 255 - 20 * i, 20 * i));
        cv::Mat patch = frame(cv::Rect(100, 40 + 8 * i, 150, 100));
        cv::randu(patch, 0, 256);
        writer.write(frame);
    }
    return path;
}

std::string H264Mkv() {
    return Media::Get().Ffmpeg("h264.mkv", TestSource(320, 240, 24) + " -c:v libx264 -bf 3 -pix_fmt yuv420p");
}
std::string Mjpeg422Avi() {
    return Media::Get().Ffmpeg("mjpeg422.avi", TestSource(362, 240, 12) + " -c:v mjpeg -pix_fmt yuvj422p");
}
std::string Ffv1Bgr0Mkv() {
    return Media::Get().Ffmpeg("ffv1_bgr0.mkv", OddSource(12) + " -c:v ffv1 -pix_fmt bgr0");
}

struct VideoCase {
    const char* name;
    const char* encoder;  // ffmpeg encoder the case needs
    std::function<std::string()> make;
    double timeTolerance;  // container time base rounding (matroska: 1 ms)
    bool reordered;        // B-frames: the last frames are drained from the decoder
};

std::vector<VideoCase> VideoCases() {
    Media& m = Media::Get();
    return {
        {"h264_bframes_mp4", "libx264", [&m] { return m.Ffmpeg("h264.mp4", TestSource(320, 240, 24) + " -c:v libx264 -bf 3 -pix_fmt yuv420p"); }, 1e-9, true},
        {"h264_bframes_mkv", "libx264", H264Mkv, 0.5, true},
        {"h264_bframes_mpegts", "libx264", [&m] { return m.Ffmpeg("h264.ts", TestSource(320, 240, 24) + " -c:v libx264 -bf 3 -pix_fmt yuv420p"); }, 1e-6, true},
        {"h264_rotated_mp4", "libx264", [&m] { return m.Ffmpeg("rotated.mp4", TestSource(320, 240, 12) + " -c:v libx264 -pix_fmt yuv420p -metadata:s:v:0 rotate=270"); }, 1e-9, true},
        {"h264_1080x1920_mp4", "libx264", [&m] { return m.Ffmpeg("h264_1080x1920.mp4", TestSource(1080, 1920, 6) + " -c:v libx264 -bf 2 -pix_fmt yuv420p"); }, 1e-9, true},
        {"h264_10bit_362x642_mkv", "libx264", [&m] { return m.Ffmpeg("h264_10bit.mkv", TestSource(362, 642, 12) + " -c:v libx264 -pix_fmt yuv420p10le"); }, 0.5, true},
        {"hevc_362x642_mp4", "libx265", [&m] { return m.Ffmpeg("hevc.mp4", TestSource(362, 642, 12) + " -c:v libx265 -x265-params log-level=error -pix_fmt yuv420p"); }, 1e-9, true},
        {"mpeg4_videowriter_mp4v_361x641", "mpeg4", [&m] { return MakeMp4vWithVideoWriter(m.Path("mp4v.mp4")); }, 1e-9, false},
        {"mjpeg_yuvj422p_362x240_avi", "mjpeg", Mjpeg422Avi, 1e-9, false},
        {"mjpeg_yuvj420p_361x641_mkv", "mjpeg", [&m] { return m.Ffmpeg("mjpeg420.mkv", OddSource(12) + " -c:v mjpeg -pix_fmt yuvj420p"); }, 0.5, false},
        {"ffv1_bgr0_361x641_mkv", "ffv1", Ffv1Bgr0Mkv, 0.5, false},
        {"ffv1_yuv444p_361x641_mkv", "ffv1", [&m] { return m.Ffmpeg("ffv1_444.mkv", OddSource(12) + " -c:v ffv1 -pix_fmt yuv444p"); }, 0.5, false},
        {"vp9_361x641_webm", "libvpx-vp9", [&m] { return m.Ffmpeg("vp9.webm", OddSource(12) + " -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -pix_fmt yuv420p"); }, 0.5, false},
    };
}

void PrintTo(const VideoCase& c, std::ostream* out) { *out << c.name; }

class VideoIdentity : public ::testing::TestWithParam<VideoCase> {};

// Pixels byte for byte, times where OpenCV reports one (it reports 0 for
// frames drained at the end), every time against the clip's 30 fps grid,
// the container estimates, and nothing printed.
TEST_P(VideoIdentity, MatchesVideoCapture) {
    const VideoCase& c = GetParam();
    if (!vyra_test::HasEncoder(c.encoder)) GTEST_SKIP() << "ffmpeg lacks the " << c.encoder << " encoder";
    const std::string path = c.make();
    ASSERT_FALSE(path.empty()) << "could not generate the video";
    const Decoded theirs = ReadWithOpenCv(path);
    StderrCapture printed;
    const Decoded ours = ReadWithReader(path);
    EXPECT_EQ(printed.Text(), "");
    ASSERT_GT(theirs.frames.size(), 0u);
    ASSERT_EQ(ours.frames.size(), theirs.frames.size());
    size_t compared = 0, drained = 0;
    for (size_t i = 0; i < ours.frames.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        EXPECT_TRUE(Identical(ours.frames[i], theirs.frames[i]));
        EXPECT_NEAR(ours.ms[i], i * 1000.0 / 30, c.timeTolerance);
        if (i == 0 || theirs.ms[i] != 0) {
            EXPECT_EQ(ours.ms[i], theirs.ms[i]);
            ++compared;
        } else {
            ++drained;
        }
    }
    EXPECT_GE(compared, ours.frames.size() / 2);
    if (c.reordered) {
        EXPECT_GT(drained, 0u) << "no drained frame: the case does not test draining";
    }
    cv::VideoCapture capture(path, cv::CAP_FFMPEG);
    VideoReader reader(path, MediaLimits());
    EXPECT_EQ(double(reader.ExpectedFrameCount()), capture.get(cv::CAP_PROP_FRAME_COUNT));
    EXPECT_EQ(reader.NominalFps(), capture.get(cv::CAP_PROP_FPS));
}

INSTANTIATE_TEST_SUITE_P(Formats, VideoIdentity, ::testing::ValuesIn(VideoCases()),
                         [](const ::testing::TestParamInfo<VideoCase>& info) { return std::string(info.param.name); });

TEST(VideoReader, DeliversEachFrameAtItsOwnSizeWhenTheSizeChanges) {
    Media& m = Media::Get();
    const std::string small = m.Ffmpeg("small.mkv", TestSource(320, 240, 8) + " -c:v mjpeg");
    const std::string large = m.Ffmpeg("large.mkv", TestSource(640, 480, 8) + " -c:v mjpeg");
    std::ofstream(m.Path("list.txt")) << "file '" << small << "'\nfile '" << large << "'\n";
    const std::string joined = m.Ffmpeg("joined.mkv", "-f concat -safe 0 -i '" + m.Path("list.txt") + "' -c copy");
    ASSERT_FALSE(joined.empty());
    Decoded expected = ReadWithOpenCv(small), second = ReadWithOpenCv(large);
    expected.frames.insert(expected.frames.end(), second.frames.begin(), second.frames.end());
    ASSERT_EQ(expected.frames.size(), 16u);
    StderrCapture capture;
    const Decoded ours = ReadWithReader(joined);
    ASSERT_EQ(ours.frames.size(), expected.frames.size());
    for (size_t i = 0; i < ours.frames.size(); ++i) {
        EXPECT_TRUE(Identical(ours.frames[i], expected.frames[i])) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(ours.ms[i], ours.ms[i - 1]) << "frame " << i;
        }
    }
    EXPECT_EQ(capture.Text(), "");
}

// A file cut in the middle yields the frames before the cut, silently: each
// frame equal to the uncut file's frame of the same time. (With B-frames the
// packets before the cut are not a prefix in presentation order.)
TEST(VideoReader, ReadsTheFramesBeforeATruncation) {
    Media& m = Media::Get();
    const std::string mkv = H264Mkv();
    const std::string mp4 = m.Ffmpeg("faststart.mp4", TestSource(320, 240, 24) + " -c:v libx264 -bf 3 -pix_fmt yuv420p -movflags +faststart");
    for (const std::string& full : {mkv, mp4}) {
        SCOPED_TRACE(full);
        std::vector<unsigned char> bytes = vyra_test::ReadWholeFile(full);
        bytes.resize(bytes.size() / 2);
        const std::string cut = full + ".cut" + full.substr(full.rfind('.'));
        vyra_test::WriteWholeFile(cut, bytes);
        const Decoded reference = ReadWithOpenCv(full);
        StderrCapture capture;
        const Decoded ours = ReadWithReader(cut);
        EXPECT_GT(ours.frames.size(), 4u);
        EXPECT_LT(ours.frames.size(), reference.frames.size());
        size_t next = 0;
        for (size_t i = 0; i < ours.frames.size(); ++i) {
            const size_t index = size_t(std::lround(ours.ms[i] * 30 / 1000));
            ASSERT_GE(index, next) << "frame " << i << " at " << ours.ms[i] << " ms is out of order";
            ASSERT_LT(index, reference.frames.size());
            EXPECT_TRUE(Identical(ours.frames[i], reference.frames[index])) << "frame " << i;
            next = index + 1;
        }
        EXPECT_EQ(ours.ms[0], 0.0);
        EXPECT_EQ(capture.Text(), "");
    }
}

// Damage in the middle of the stream is skipped, silently.
TEST(VideoReader, SkipsDamagedPacketsSilently) {
    const std::string full = H264Mkv();
    std::vector<unsigned char> bytes = vyra_test::ReadWholeFile(full);
    std::mt19937 rng(11);
    for (size_t i = bytes.size() / 2; i < bytes.size() / 2 + 400; ++i) bytes[i] = static_cast<unsigned char>(rng());
    const std::string damaged = full + ".damaged.mkv";
    vyra_test::WriteWholeFile(damaged, bytes);
    StderrCapture capture;
    const Decoded ours = ReadWithReader(damaged);
    EXPECT_GE(ours.frames.size(), 12u);
    for (size_t i = 1; i < ours.frames.size(); ++i) EXPECT_GT(ours.ms[i], ours.ms[i - 1]) << "frame " << i;
    EXPECT_EQ(capture.Text(), "");
}

// Files that hold no readable recording: one-line UNREADABLE naming the
// file, nothing printed, and nothing they name is opened.
TEST(VideoReader, RefusesFilesWithoutARecording) {
    Media& m = Media::Get();
    const std::string video = H264Mkv();
    std::mt19937 rng(5);
    std::vector<unsigned char> noise(50000), garbled = vyra_test::ReadWholeFile(
        m.Ffmpeg("mjpeg_small.mkv", TestSource(160, 120, 6) + " -c:v mjpeg"));
    for (auto& b : noise) b = static_cast<unsigned char>(rng());
    for (size_t i = 600; i < garbled.size(); ++i) garbled[i] = static_cast<unsigned char>(rng());
    std::vector<unsigned char> png;
    cv::imencode(".png", cv::Mat(16, 16, CV_8UC3, cv::Scalar(1, 2, 3)), png);
    std::vector<unsigned char> cut = vyra_test::ReadWholeFile(
        m.Ffmpeg("moov_at_end.mp4", TestSource(320, 240, 24) + " -c:v libx264"));
    cut.resize(cut.size() / 2);
    auto text = [](const std::string& s) { return std::vector<unsigned char>(s.begin(), s.end()); };
    const std::pair<const char*, std::vector<unsigned char>> cases[] = {
        {"empty.mp4", {}},
        {"noise.mkv", noise},
        {"notes.txt", text("not a video\n")},
        {"garbled.mkv", garbled},
        {"cut_moov_at_end.mp4", cut},
        {"image.png", png},
        {"list.ffconcat", text("ffconcat version 1.0\nfile '" + video + "'\n")},
        {"playlist.m3u8", text("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1.0,\n" + video + "\n#EXT-X-ENDLIST\n")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const std::string path = m.Path(c.first);
        vyra_test::WriteWholeFile(path, c.second);
        StderrCapture capture;
        std::string message = ErrorOf([&] { ReadWithReader(path); }, VYRA_ERROR_UNREADABLE);
        EXPECT_NE(message.find("'" + path + "'"), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST(VideoReader, OpensOnlyRegularFiles) {
    TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo.mp4").string().c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", (dir / "zero.mp4").string().c_str()), 0);
    ASSERT_EQ(mkdir((dir / "folder.mp4").string().c_str(), 0700), 0);
    for (const char* name : {"fifo.mp4", "zero.mp4", "folder.mp4"}) {
        std::string message = ErrorOf([&] { VideoReader((dir / name).string(), MediaLimits()); }, VYRA_ERROR_UNREADABLE);
        EXPECT_NE(message.find((dir / name).string()), std::string::npos) << message;
    }
    ErrorOf([&] { VideoReader((dir / "missing.mp4").string(), MediaLimits()); }, VYRA_ERROR_NOT_FOUND);
}

TEST(VideoReader, RefusesFramesAboveThePixelLimit) {
    MediaLimits limits;
    limits.maxPixels = 320 * 240 - 1;
    std::string message = ErrorOf([&] { VideoReader(H264Mkv(), limits); }, VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find("limit of 76799 pixels"), std::string::npos) << message;
}

// Decoders pad their buffers (rows to 64 pixels; MPEG-4 part 2 a 280-row
// band). Found by fuzzing: a 36x64 MPEG-4 video under a limit of 16384 pixels
// decoded no frame and FFmpeg printed why. Videos whose frames have exactly
// the limit are read whole and quietly; one pixel less refuses them.
TEST(VideoReader, FramesOfExactlyTheLimitAreRead) {
    struct Case {
        const char* name;
        int width, height;
        const char* codec;
    };
    const Case cases[] = {{"mpeg4_36x64.mp4", 36, 64, "-c:v mpeg4"},
                          {"mpeg4_100x160.mp4", 100, 160, "-c:v mpeg4"},
                          {"h264_100x160.mkv", 100, 160, "-c:v libx264 -pix_fmt yuv420p"},
                          {"mjpeg_36x64.avi", 36, 64, "-c:v mjpeg"},
                          {"ffv1_8x200.mkv", 8, 200, "-c:v ffv1"},
                          {"vp8_130x20.webm", 130, 20, "-c:v libvpx"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = Media::Get().Ffmpeg(c.name, TestSource(c.width, c.height, 4) + " " + c.codec);
        if (path.empty()) continue;  // an encoder this ffmpeg lacks
        MediaLimits limits;
        limits.maxPixels = int64_t(c.width) * c.height;
        StderrCapture capture;
        Decoded decoded;
        ASSERT_NO_THROW(decoded = ReadWithReader(path, limits));
        ASSERT_EQ(decoded.frames.size(), 4u);
        EXPECT_EQ(decoded.frames[0].size(), cv::Size(c.width, c.height));
        limits.maxPixels -= 1;
        ErrorOf([&] { ReadWithReader(path, limits); }, VYRA_ERROR_UNREADABLE);
        EXPECT_EQ(capture.Text(), "");
    }
}

// A stream that declares its first frames' size and later holds larger ones
// (two MJPEG streams joined): the larger frames are refused as they decode.
TEST(VideoReader, LaterFramesAboveTheLimitAreRefused) {
    Media& m = Media::Get();
    const std::string small = m.Ffmpeg("part_32x24.mkv", TestSource(32, 24, 3) + " -c:v mjpeg");
    const std::string large = m.Ffmpeg("part_48x32.mkv", TestSource(48, 32, 3) + " -c:v mjpeg");
    ASSERT_FALSE(small.empty());
    ASSERT_FALSE(large.empty());
    const std::string list = m.Path("parts_32x24_48x32.txt");
    std::ofstream(list) << "file '" << small << "'\nfile '" << large << "'\n";
    const std::string joined = m.Ffmpeg("joined_32x24_48x32.mkv", "-f concat -safe 0 -i '" + list + "' -c copy");
    ASSERT_FALSE(joined.empty());
    MediaLimits limits;
    limits.maxPixels = 32 * 24;
    std::string message = ErrorOf([&] { ReadWithReader(joined, limits); }, VYRA_ERROR_UNREADABLE);
    EXPECT_NE(message.find("48x32"), std::string::npos) << message;
    limits.maxPixels = 48 * 32;
    EXPECT_EQ(ReadWithReader(joined, limits).frames.size(), 6u);
}

// FFV1 passes an allocation failure on as ENOMEM (H.264 and MJPEG turn it
// into a decoding error, reported as such).
TEST(VideoReader, ReportsOutOfMemory) {
    const std::string path = Media::Get().Ffmpeg("ffv1_1080x1920.mkv", TestSource(1080, 1920, 2) + " -c:v ffv1");
    av_max_alloc(1 << 20);  // a 1080x1920 frame cannot be allocated
    std::string message = ErrorOf([&] { ReadWithReader(path); }, VYRA_ERROR_NO_MEMORY);
    av_max_alloc(INT_MAX);
    EXPECT_NE(message.find("out of memory"), std::string::npos) << message;
}

class CountingAllocator : public cv::MatAllocator {
public:
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step, cv::AccessFlag flags,
                           cv::UMatUsageFlags usage) const override {
        ++count;
        return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
    }
    bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
    }
    void deallocate(cv::UMatData* data) const override { cv::Mat::getStdAllocator()->deallocate(data); }
    mutable int count = 0;
};

// Read(nullptr) skips frames; Read(&mat) fills mat with the Mat's allocator
// and reuses its buffer.
TEST(VideoReader, SkipsWithoutConversionAndReusesTheCallersBuffer) {
    const std::string path = H264Mkv();
    const Decoded reference = ReadWithOpenCv(path);
    VideoReader reader(path, MediaLimits());
    double ms = 0;
    ASSERT_TRUE(reader.Read(nullptr, ms));
    ASSERT_TRUE(reader.Read(nullptr, ms));
    EXPECT_EQ(ms, reference.ms[1]);
    CountingAllocator allocator;
    cv::Mat frame;
    frame.allocator = &allocator;
    ASSERT_TRUE(reader.Read(&frame, ms));
    EXPECT_TRUE(Identical(frame, reference.frames[2]));
    const uchar* data = frame.data;
    ASSERT_TRUE(reader.Read(&frame, ms));
    EXPECT_TRUE(Identical(frame, reference.frames[3]));
    EXPECT_EQ(frame.data, data);
    EXPECT_EQ(allocator.count, 1);
}

// Readers in different threads at the same time give the sequential result.
TEST(VideoReader, SeparateReadersWorkConcurrently) {
    const std::vector<std::string> paths = {H264Mkv(), H264Mkv(), Ffv1Bgr0Mkv(), Mjpeg422Avi()};
    std::vector<Decoded> expected, actual(paths.size());
    for (const std::string& path : paths) expected.push_back(ReadWithOpenCv(path));
    std::vector<std::thread> threads;
    std::vector<std::string> errors(paths.size());
    for (size_t t = 0; t < paths.size(); ++t) {
        threads.emplace_back([&, t] {
            try {
                actual[t] = ReadWithReader(paths[t]);
            } catch (const std::exception& e) {
                errors[t] = e.what();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (size_t t = 0; t < paths.size(); ++t) {
        SCOPED_TRACE(paths[t]);
        EXPECT_EQ(errors[t], "");
        ASSERT_EQ(actual[t].frames.size(), expected[t].frames.size());
        for (size_t i = 0; i < actual[t].frames.size(); ++i)
            EXPECT_TRUE(Identical(actual[t].frames[i], expected[t].frames[i])) << "frame " << i;
    }
}

}  // namespace
