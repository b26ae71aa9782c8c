// Input generators shared by the suites: every frame, folder and video a test
// reads is made here, from code, in a temporary directory of its own.
#ifndef VYRA_TESTS_FIXTURES_H
#define VYRA_TESTS_FIXTURES_H

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

// A fresh directory under the system temp dir, removed with everything in it
// when the object goes out of scope.
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

// A BGR frame of one colour.
cv::Mat solidFrame(int width, int height, cv::Scalar bgr = cv::Scalar(255, 255, 255));

// A BGR frame of 8x8 blocks of pseudo-random colours (seeded), rich in edges
// and ORB features; with an @p offset the block grid starts that many pixels
// up and left of the frame, so its boxes meet no box of an unshifted frame.
cv::Mat texturedFrame(int width, int height, unsigned seed, int offset = 0);

// @p count windows of @p width x @p height moving @p shift px to the right a
// frame along one strip of seeded random shapes. About 72 px high, ORB finds
// keypoints on the full-resolution level only, so every keypoint that stays
// in view moves by exactly (shift, 0).
std::vector<cv::Mat> scrollingFrames(int count, int width, int height, int shift, unsigned seed);

// Writes frames[k] as dir/names[k] (PNG). The two lists have equal length.
void writePngFolder(const fs::path& dir, const std::vector<std::string>& names,
                    const std::vector<cv::Mat>& frames);

// A file of zero bytes.
void writeEmptyFile(const fs::path& file);

// A file whose name says PNG but whose bytes are not a decodable image: a
// valid PNG signature followed by garbage.
void writeCorruptPng(const fs::path& file);

// Writes frames to a video with cv::VideoWriter; the container follows the
// extension (".mp4" uses mp4v, ".mkv" MJPG, ".avi" MJPG). Returns false when
// the writer could not be opened.
bool writeVideo(const fs::path& file, const std::vector<cv::Mat>& frames, double fps);

// Number of frames cv::VideoCapture reads from a file.
int countVideoFrames(const fs::path& file);

// Runs @p action with standard output and standard error captured (at the
// file descriptors); its result and the text written to each.
template <typename T>
struct Captured {
    T value;
    std::string out;
    std::string err;
};

template <typename Action>
auto captureConsole(Action&& action) -> Captured<decltype(action())> {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto value = std::forward<Action>(action)();
    std::string out = testing::internal::GetCapturedStdout();
    return {std::move(value), std::move(out), testing::internal::GetCapturedStderr()};
}

// What @p action writes to standard output.
template <typename Action>
std::string stdoutOf(Action&& action) {
    testing::internal::CaptureStdout();
    std::forward<Action>(action)();
    return testing::internal::GetCapturedStdout();
}

// Whole content of a text file ("" when missing).
std::string readText(const fs::path& file);

// Splits text at '\n' (a trailing newline gives no empty last line).
std::vector<std::string> splitLines(const std::string& text);

// ---- lazily loaded images (core class suites) ----

// Makes loaders for vyra::Image that count their calls. Every call returns a
// fresh deep copy of the frame, so changes made to a loaded image never reach
// the next load. The first `failures` calls (shared by all loaders made by one
// object) throw std::runtime_error instead.
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

// Image(loader, objects, width, height, contentRatio, index) with the
// loader of `source`.
vyra::Image lazyImage(const CountingLoader& source, int width, int height, int index,
                      std::vector<vyra::Rect> objects = {}, double contentRatio = -1.0);

}  // namespace vyra_test

// ---- run driver inputs (frame folders and recordings with known answers) ----
namespace vyra_test {

// Size of the frames of the launch recordings below.
constexpr int kLaunchWidth = 320;
constexpr int kLaunchHeight = 240;

// A white frame with one dark square in the middle of the screen: its
// objects all lie inside the central area (20-80 % of the width, 25-75 % of
// the height), so it is a logo frame, and it has far fewer than 200 objects.
cv::Mat logoFrame(int width, int height);

// A white frame with four small dark squares near the corners, all outside
// the central area: a valid first frame, few objects (blank), no logo.
cv::Mat cornerMarksFrame(int width, int height);

// The fully loaded page: texturedFrame with a fixed seed. Every 8x8 block has
// a random colour, so block edges are contours nearly everywhere: hundreds of
// objects covering the whole frame (object count >= 200, content ratio near 1).
cv::Mat loadedPageFrame(int width, int height);

// A launch of 10 frames of kLaunchWidth x kLaunchHeight whose static analysis
// is known by construction:
//   0 white, 1-2 logo, 3 corner marks, 4-9 the identical loaded page.
// Baseline 9 (last non-empty), load finished 4 (first non-blank frame, PSNR
// 99.99 against the baseline), logo appears 1 and vanishes 3, first frame 3
// (the search starts at 3, which has all objects outside the centre).
std::vector<cv::Mat> launchSequence();

// PSNR of two 8-bit frames of one size and type, written out directly: the
// squared differences of the first three channels summed in integers over
// channels * pixels; 99.99 when they are equal.
double referencePsnr(const cv::Mat& a, const cv::Mat& b);

// A number as std::ostream prints it by default (six significant digits).
std::string streamText(double value);

// A PNG file whose header declares width x height (a valid signature, IHDR
// with its checksum, a tiny IDAT and IEND), without the pixel data to match.
void writeDeclaredSizePng(const fs::path& file, unsigned width, unsigned height);

// Switches off OpenCV's gphoto2 capture back end for this process. A path
// that no file back end opens is offered to every back end, and gphoto2 then
// scans the USB buses for cameras (leaking its device lists). Call before the
// process's first cv::VideoCapture; tests that open missing videos do.
void disableCameraBackend();

}  // namespace vyra_test

// ---- sample-recording tests ----
namespace vyra_test {

// Every frame cv::VideoCapture decodes from a file, each with its own buffer.
std::vector<cv::Mat> readVideoFrames(const fs::path& file);

}  // namespace vyra_test



// ---- product face: processes, ffmpeg-made videos, status-bar frames ----
namespace vyra_test {

// Output of a finished child process.
struct ProcessResult {
    int exitCode = -1;  // exit status, or 128 + signal number
    std::string out;
    std::string err;
};

// Runs argv[0] (searched in PATH when it has no slash) with its arguments in
// @p cwd (empty: the current directory). With @p stderrTerminal the child's
// standard error is a pseudo-terminal (so isatty(2) holds). Standard input is
// /dev/null.
ProcessResult runProcess(const std::vector<std::string>& argv, const fs::path& cwd = {},
                         bool stderrTerminal = false);

// True when an ffmpeg executable can be run.
bool haveFfmpeg();

// Writes a variable-frame-rate video with ffmpeg: frames[k] is shown for
// durationsMs[k] milliseconds, so frame k's presentation timestamp is the sum
// of durationsMs[0..k-1] (exact: the input time base is 1 ms). The codec
// arguments follow the input, for example {"-c:v", "ffv1"}. Returns false when
// ffmpeg fails; @p log receives its standard error.
bool writeVfrVideo(const fs::path& file, const std::vector<cv::Mat>& frames,
                   const std::vector<int>& durationsMs, const std::vector<std::string>& codecArgs,
                   std::string* log = nullptr);

// A textured page (texturedFrame(width, height, seed)) under a flat status bar
// of @p barHeight rows in @p barColour, with @p clock drawn in white inside
// the bar at (8, barHeight - 6) (nothing drawn for an empty text).
cv::Mat statusBarFrame(int width, int height, unsigned seed, int barHeight, cv::Scalar barColour,
                       const std::string& clock);

}  // namespace vyra_test

// ---- visual progress: pages of solid parts with exact pixel counts ----
namespace vyra_test {

// Size of the visual progress pages.
constexpr int kPageWidth = 180;
constexpr int kPageHeight = 320;

// The parts of a page, each a solid colour on white, none overlapping:
//   grid:    432 squares of 6x6 (18 columns x 24 rows, one every 10 px from
//            (2, 2), all above y = 240) in (40, 90, 140): 15552 pixels, and
//            hundreds of objects, so the analysis sees content;
//   image:   a 24x24 square at (80, 272) in (200, 160, 120): 576 pixels;
//   spinner: a 24x24 square at (24, 272) in (0, 0, 0): 576 pixels;
//   clock:   @p clock ("": none) in black, thickness 2, inside kClockRegion.
// Every colour value lies more than 8 levels from the others of its channel
// and from 255, so with the default histogram slop the progress between
// such pages is the ratio of their changed pixel counts.
constexpr int kGridPixels = 15552;
constexpr int kImagePixels = 576;
constexpr int kSpinnerPixels = 576;
cv::Mat pageFrame(bool grid, bool image = false, bool spinner = false, const std::string& clock = "");

// Rows y >= 296 hold the clock (x, y, width, height).
constexpr int kClockRegion[4] = {100, 298, 80, 22};

// @p frame with every channel of every pixel moved by a uniform random amount
// in [-amplitude, amplitude] (seeded; saturated at 0 and 255).
cv::Mat withNoise(const cv::Mat& frame, int amplitude, unsigned seed);

}  // namespace vyra_test

#endif  // VYRA_TESTS_FIXTURES_H

// ---- object detection written out with OpenCV's plain calls ----
namespace vyra_test {

// The object boxes of a frame computed the straightforward way: grey copy
// (cvtColor BGR2GRAY for 3 or 4 channels, a clone for one), cv::Canny(grey,
// 10, 30, 3, L1), cv::findContours(RETR_LIST, CHAIN_APPROX_SIMPLE), each
// contour's cv::boundingRect as an inclusive vyra::Rect, merged and sorted in
// a std::set. Empty frames and frames that are not 8-bit with 1, 3 or 4
// channels give no boxes.
std::vector<vyra::Rect> plainPipelineObjects(const cv::Mat& frame);

// A catalogue of frames for comparing detectors: every combination of the
// given sizes (width x height) with 1, 3 and 4 channels and several contents
// (coloured blocks, uniform noise, faint noise, shapes touching all four
// borders, a smooth ramp, one colour), in that order, each as BGR, grey and
// BGRA.
std::vector<cv::Mat> detectionCatalogue(const std::vector<cv::Size>& sizes);

}  // namespace vyra_test
