#include "fixtures.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

namespace vyra_test {

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "vyra-test-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(path_, ignored);
}

ScopedCwd::ScopedCwd(const fs::path& dir) : previous_(fs::current_path()) {
    fs::current_path(dir);
}

ScopedCwd::~ScopedCwd() {
    std::error_code ignored;
    fs::current_path(previous_, ignored);
}

cv::Mat solidFrame(int width, int height, cv::Scalar bgr) {
    return cv::Mat(height, width, CV_8UC3, bgr);
}

cv::Mat texturedFrame(int width, int height, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> colour(0, 255);
    cv::Mat frame(height, width, CV_8UC3, cv::Scalar(128, 128, 128));
    const int block = 8;
    for (int y = 0; y < height; y += block) {
        for (int x = 0; x < width; x += block) {
            cv::rectangle(frame, cv::Rect(x, y, block, block),
                          cv::Scalar(colour(rng), colour(rng), colour(rng)), cv::FILLED);
        }
    }
    return frame;
}

void writePngFolder(const fs::path& dir, const std::vector<std::string>& names,
                    const std::vector<cv::Mat>& frames) {
    if (names.size() != frames.size()) {
        throw std::invalid_argument("writePngFolder: names and frames differ in length");
    }
    fs::create_directories(dir);
    for (size_t k = 0; k < names.size(); ++k) {
        if (!cv::imwrite((dir / names[k]).string(), frames[k])) {
            throw std::runtime_error("cannot write " + (dir / names[k]).string());
        }
    }
}

void writeEmptyFile(const fs::path& file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
}

void writeCorruptPng(const fs::path& file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    const unsigned char signature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    out.write(reinterpret_cast<const char*>(signature), sizeof signature);
    for (int k = 0; k < 64; ++k) {
        out.put(static_cast<char>((k * 37 + 11) & 0xff));
    }
}

bool writeVideo(const fs::path& file, const std::vector<cv::Mat>& frames, double fps) {
    if (frames.empty()) {
        return false;
    }
    const std::string ext = file.extension().string();
    const int fourcc = ext == ".mp4" || ext == ".mov" ? cv::VideoWriter::fourcc('m', 'p', '4', 'v')
                                                      : cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
    cv::VideoWriter writer(file.string(), cv::CAP_FFMPEG, fourcc, fps, frames.front().size());
    if (!writer.isOpened()) {
        return false;
    }
    for (const cv::Mat& frame : frames) {
        writer.write(frame);
    }
    writer.release();
    return true;
}

int countVideoFrames(const fs::path& file) {
    cv::VideoCapture capture(file.string());
    int count = 0;
    cv::Mat frame;
    while (capture.read(frame) && !frame.empty()) {
        ++count;
    }
    return count;
}

std::string readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// ---- added for the sample-recording tests ----

std::vector<cv::Mat> readVideoFrames(const fs::path& file) {
    cv::VideoCapture capture(file.string());
    std::vector<cv::Mat> frames;
    cv::Mat frame;
    while (capture.read(frame) && !frame.empty()) {
        frames.push_back(frame.clone());
    }
    return frames;
}

}  // namespace vyra_test
