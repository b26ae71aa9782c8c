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

private:
    fs::path previous_;
};

std::string readText(const fs::path& file);
std::vector<std::string> splitLines(const std::string& text);  // no empty last line for a final '\n'
std::vector<unsigned char> readBytes(const fs::path& file);
void writeBytes(const fs::path& file, const std::vector<unsigned char>& bytes);
void writeEmptyFile(const fs::path& file);
void writeCorruptPng(const fs::path& file);  // a PNG signature, then garbage
void writeDeclaredSizePng(const fs::path& file, unsigned width, unsigned height);  // no data for a row
void writePngFolder(const fs::path& dir, const std::vector<std::string>& names, const std::vector<cv::Mat>& frames);
// cv::VideoWriter: mp4v for ".mp4", MJPG otherwise.
bool writeVideo(const fs::path& file, const std::vector<cv::Mat>& frames, double fps);
// With ffmpeg: frame k shows durationsMs[k], so its timestamp is the sum of the durations before it.
bool writeVfrVideo(const fs::path& file, const std::vector<cv::Mat>& frames, const std::vector<int>& durationsMs,
                   const std::vector<std::string>& codecArgs, std::string* log = nullptr);
std::vector<cv::Mat> readVideoFrames(const fs::path& file);  // as cv::VideoCapture decodes them

struct ProcessResult {
    int exitCode = -1;  // exit status, or 128 + signal number
    std::string out, err;
};
// Runs argv (searched in PATH) in @p cwd, standard input /dev/null; standard error a pseudo-terminal on request.
ProcessResult runProcess(const std::vector<std::string>& argv, const fs::path& cwd = {}, bool stderrTerminal = false);
bool haveFfmpeg();
bool hasEncoder(const std::string& name);
void disableCameraBackend();  // OpenCV's gphoto2 back end would scan USB buses for paths nothing opens

template <typename T>
struct Captured {
    T value;
    std::string out, err;
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

// Descriptor 2 while alive, with FFmpeg's log level at its default (AV_LOG_INFO).
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string Text();

private:
    int savedFd_ = -1, captureFd_ = -1, savedLevel_ = 0;
    std::string path_;
};

cv::Mat solidFrame(int width, int height, cv::Scalar bgr = cv::Scalar(255, 255, 255));
// 8x8 blocks of seeded random colours: objects and ORB features everywhere (non-blank). With an
// @p offset the grid starts that many pixels up and left, and its boxes meet none of an unshifted one's.
cv::Mat texturedFrame(int width, int height, unsigned seed, int offset = 0);
cv::Mat logoFrame(int width, int height);         // one dark square in the central area: a logo, blank
cv::Mat cornerMarksFrame(int width, int height);  // four small squares outside it: a first frame, blank
cv::Mat loadedPageFrame(int width, int height);   // texturedFrame with a fixed seed

// 320x240: 0 white, 1-2 logo, 3 corner marks, 4-9 the loaded page. Baseline 9, load finished 4
// (identical to 9), logo from 1 to 3, first frame 3.
constexpr int kLaunchWidth = 320, kLaunchHeight = 240;
std::vector<cv::Mat> launchSequence();

// A textured page under a flat status bar showing @p clock in white.
cv::Mat statusBarFrame(int width, int height, unsigned seed, int barHeight, cv::Scalar barColour, const std::string& clock);

// Visual progress pages of solid parts on white, no two colours within 8 levels: grid, 432 squares of 6x6
// above y = 240 (15552 px, hundreds of objects); image 24x24 at (80, 272), 576 px; spinner 24x24 at
// (24, 272), 576 px; clock: @p clock in black inside kClockRegion (x, y, width, height).
constexpr int kPageWidth = 180, kPageHeight = 320;
constexpr int kClockRegion[4] = {100, 298, 80, 22};
cv::Mat pageFrame(bool grid, bool image = false, bool spinner = false, const std::string& clock = "");
cv::Mat withNoise(const cv::Mat& frame, int amplitude, unsigned seed);  // uniform in +-amplitude, saturated

// PSNR written out: squared differences of the first three channels summed in integers over
// channels * pixels; 99.99 for equal frames.
double referencePsnr(const cv::Mat& a, const cv::Mat& b);
std::string streamText(double value);  // as std::ostream prints it: six significant digits

// Objects with OpenCV's plain calls: grey copy, Canny(10, 30, L1), findContours(LIST, SIMPLE),
// bounding boxes as inclusive Rects in a std::set; none unless 8-bit with 1, 3 or 4 channels.
std::vector<vyra::Rect> plainPipelineObjects(const cv::Mat& frame);
// Per size: textured, noise, faint noise, shapes cut by the borders, a ramp, one colour; BGR, grey, BGRA.
std::vector<cv::Mat> detectionCatalogue(const std::vector<cv::Size>& sizes);

// Image loaders that count their calls and give a fresh copy; the first @p failures calls throw.
class CountingLoader {
public:
    explicit CountingLoader(cv::Mat frame, int failures = 0);
    std::function<cv::Mat()> loader() const;
    int calls() const { return state_->calls; }

private:
    struct State {
        cv::Mat frame;
        int failures, calls;
    };
    std::shared_ptr<State> state_;
};
vyra::Image lazyImage(const CountingLoader& source, int width, int height, int index, std::vector<vyra::Rect> objects = {},
                      double contentRatio = -1.0);

// PNGs of every kind: seeded samples, random row filters, the data over several IDAT chunks.
struct PngSpec {
    int width = 1, height = 1;
    int colorType = 2;  // 0 grey, 2 RGB, 3 palette, 4 grey+alpha, 6 RGBA
    int bitDepth = 8;
    bool interlaced = false;
    int paletteEntries = 0;         // colour type 3; indices may exceed it
    bool transparency = false;  // tRNS
    bool metadata = false;      // gAMA, cHRM, sRGB and an iCCP chunk of garbage
    int exifOrientation = 0;    // an eXIf chunk when > 0
    uint32_t seed = 1;
};
std::vector<unsigned char> MakePng(const PngSpec& shape);

}  // namespace vyra_test

#endif  // VYRA_TESTS_FIXTURES_H
