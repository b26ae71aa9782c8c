// Inputs shared by the suites: every frame, folder, video and PNG a test reads
// is made here, from code, in a temporary directory of its own.
#ifndef VYRA_TESTS_FIXTURES_H
#define VYRA_TESTS_FIXTURES_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "VyraImage.h"

namespace vyra_test {

namespace fs = std::filesystem;

// ---- files and processes

// A fresh directory under the system temp dir, removed with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

// Changes the working directory for the lifetime of the object.
class ScopedCwd {
public:
    explicit ScopedCwd(const fs::path& dir);
    ~ScopedCwd();
    ScopedCwd(const ScopedCwd&) = delete;
    ScopedCwd& operator=(const ScopedCwd&) = delete;

private:
    fs::path previous_;
};

std::string readText(const fs::path& file);                // "" when missing
std::vector<std::string> splitLines(const std::string& text);  // no empty last line for a final '\n'
std::vector<unsigned char> readBytes(const fs::path& file);
void writeBytes(const fs::path& file, const std::vector<unsigned char>& bytes);
void writeEmptyFile(const fs::path& file);
void writeCorruptPng(const fs::path& file);  // a PNG signature, then garbage
// A PNG whose header declares width x height, with too little data for a row.
void writeDeclaredSizePng(const fs::path& file, unsigned width, unsigned height);
// Writes frames[k] as dir/names[k] (PNG).
void writePngFolder(const fs::path& dir, const std::vector<std::string>& names, const std::vector<cv::Mat>& frames);
// cv::VideoWriter: ".mp4" and ".mov" take mp4v, others MJPG. False when it cannot open.
bool writeVideo(const fs::path& file, const std::vector<cv::Mat>& frames, double fps);
// With the ffmpeg command: frame k shows for durationsMs[k], so its timestamp is
// the sum of the durations before it; @p codecArgs follow the input.
bool writeVfrVideo(const fs::path& file, const std::vector<cv::Mat>& frames, const std::vector<int>& durationsMs,
                   const std::vector<std::string>& codecArgs, std::string* log = nullptr);
std::vector<cv::Mat> readVideoFrames(const fs::path& file);  // every frame cv::VideoCapture decodes

struct ProcessResult {
    int exitCode = -1;  // exit status, or 128 + signal number
    std::string out;
    std::string err;
};
// Runs argv (searched in PATH) in @p cwd with standard input from /dev/null;
// with @p stderrTerminal its standard error is a pseudo-terminal.
ProcessResult runProcess(const std::vector<std::string>& argv, const fs::path& cwd = {}, bool stderrTerminal = false);
bool haveFfmpeg();
bool hasEncoder(const std::string& name);  // the ffmpeg command lists it

// Switches off OpenCV's gphoto2 back end, which scans USB buses for cameras
// when a path no file back end opens is offered to it.
void disableCameraBackend();

// ---- console

template <typename T>
struct Captured {
    T value;
    std::string out;
    std::string err;
};

// Runs @p action with standard output and error captured at the descriptors.
template <typename Action>
auto captureConsole(Action&& action) -> Captured<decltype(action())> {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto value = std::forward<Action>(action)();
    std::string out = testing::internal::GetCapturedStdout();
    return {std::move(value), std::move(out), testing::internal::GetCapturedStderr()};
}

template <typename Action>
std::string stdoutOf(Action&& action) {
    testing::internal::CaptureStdout();
    std::forward<Action>(action)();
    return testing::internal::GetCapturedStdout();
}

// Everything written to descriptor 2 while alive, with FFmpeg's log level at
// its default (AV_LOG_INFO), so that any message FFmpeg would print is seen.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    std::string Text();

private:
    int savedFd_ = -1, captureFd_ = -1, savedLevel_ = 0;
    std::string path_;
};

// ---- frames

cv::Mat solidFrame(int width, int height, cv::Scalar bgr = cv::Scalar(255, 255, 255));

// 8x8 blocks of seeded random colours: edges and ORB features everywhere, so
// hundreds of objects over the whole frame (non-blank). With an @p offset the
// grid starts that many pixels up and left, and its boxes meet none of an
// unshifted frame's.
cv::Mat texturedFrame(int width, int height, unsigned seed, int offset = 0);

// One dark square in the middle: all its objects lie in the central area
// (20-80 % of the width, 25-75 % of the height): a logo frame, blank.
cv::Mat logoFrame(int width, int height);
// Four small squares near the corners, outside the central area: a valid
// first frame, blank, no logo.
cv::Mat cornerMarksFrame(int width, int height);
cv::Mat loadedPageFrame(int width, int height);  // texturedFrame with a fixed seed

// The launch of 10 frames of kLaunchWidth x kLaunchHeight: 0 white, 1-2 logo,
// 3 corner marks, 4-9 the loaded page. Baseline 9, load finished 4 (identical
// to 9), logo from 1 to 3, first frame 3.
constexpr int kLaunchWidth = 320;
constexpr int kLaunchHeight = 240;
std::vector<cv::Mat> launchSequence();

// @p count windows moving @p shift px right a frame along one strip of seeded
// shapes. About 72 px high, ORB finds keypoints on the full-resolution level
// only, so every keypoint that stays in view moves by exactly (shift, 0).
std::vector<cv::Mat> scrollingFrames(int count, int width, int height, int shift, unsigned seed);

// A textured page under a flat status bar showing @p clock in white.
cv::Mat statusBarFrame(int width, int height, unsigned seed, int barHeight, cv::Scalar barColour, const std::string& clock);

// Visual progress pages, solid parts on white (no two colours within 8 levels):
//   grid: 432 squares of 6x6 above y = 240, 15552 px, hundreds of objects;
//   image: 24x24 at (80, 272), 576 px; spinner: 24x24 at (24, 272), 576 px;
//   clock: @p clock in black inside kClockRegion (x, y, width, height).
constexpr int kPageWidth = 180;
constexpr int kPageHeight = 320;
constexpr int kClockRegion[4] = {100, 298, 80, 22};
cv::Mat pageFrame(bool grid, bool image = false, bool spinner = false, const std::string& clock = "");
cv::Mat withNoise(const cv::Mat& frame, int amplitude, unsigned seed);  // uniform in +-amplitude, saturated

// PSNR of two 8-bit frames of one size and type written out directly: the
// squared differences of the first three channels summed in integers over
// channels * pixels; 99.99 when they are equal.
double referencePsnr(const cv::Mat& a, const cv::Mat& b);
std::string streamText(double value);  // as std::ostream prints it: six significant digits

// The objects of a frame computed with OpenCV's plain calls: grey copy,
// Canny(10, 30, L1), findContours(LIST, SIMPLE), each bounding box as an
// inclusive Rect, merged and sorted in a std::set. Frames that are not 8-bit
// with 1, 3 or 4 channels give none.
std::vector<vyra::Rect> plainPipelineObjects(const cv::Mat& frame);
// For each size: textured, noise, faint noise, shapes cut by the borders, a
// ramp and one colour, each as BGR, grey and BGRA.
std::vector<cv::Mat> detectionCatalogue(const std::vector<cv::Size>& sizes);

// Loaders for vyra::Image that count their calls and give a fresh copy each
// time; the first @p failures calls throw std::runtime_error.
class CountingLoader {
public:
    explicit CountingLoader(cv::Mat frame, int failures = 0);
    std::function<cv::Mat()> loader() const;
    int calls() const { return state_->calls; }

private:
    struct State {
        cv::Mat frame;
        int failures;
        int calls;
    };
    std::shared_ptr<State> state_;
};
vyra::Image lazyImage(const CountingLoader& source, int width, int height, int index,
                      std::vector<vyra::Rect> objects = {}, double contentRatio = -1.0);

// ---- PNG files of every kind, with seeded samples, random row filters and
// the image data split over several IDAT chunks.
struct PngSpec {
    int width = 1, height = 1;
    int colorType = 2;  // 0 grey, 2 RGB, 3 palette, 4 grey+alpha, 6 RGBA
    int bitDepth = 8;
    bool interlaced = false;
    int paletteEntries = 0;       // colour type 3; indices may exceed it
    bool transparency = false;    // tRNS
    bool metadata = false;        // gAMA, cHRM, sRGB, bKGD
    bool brokenIccProfile = false;  // an iCCP chunk of garbage: libpng only warns
    int exifOrientation = 0;      // an eXIf chunk when > 0
    bool flat = false;            // all samples 0: a tiny file for a large image
    uint32_t seed = 1;
};
std::vector<unsigned char> MakePng(const PngSpec& spec);
std::string Describe(const PngSpec& spec);

}  // namespace vyra_test

#endif  // VYRA_TESTS_FIXTURES_H
