// Input generators shared by the suites: every frame, folder and video a test
// reads is made here, from code, in a temporary directory of its own.
#ifndef VYRA_TESTS_FIXTURES_H
#define VYRA_TESTS_FIXTURES_H

#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

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

// A BGR frame filled with deterministic pseudo-random blocks (seeded), rich
// in edges and ORB features.
cv::Mat texturedFrame(int width, int height, unsigned seed);

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

// Whole content of a text file ("" when missing).
std::string readText(const fs::path& file);

// Splits text at '\n' (a trailing newline gives no empty last line).
std::vector<std::string> splitLines(const std::string& text);

// ---- added for the sample-recording tests ----

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
#endif  // VYRA_TESTS_FIXTURES_H
