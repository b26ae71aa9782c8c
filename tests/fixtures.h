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

#endif  // VYRA_TESTS_FIXTURES_H
