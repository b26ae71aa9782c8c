#include "fixtures.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
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

cv::Mat texturedFrame(int width, int height, unsigned seed, int offset) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> colour(0, 255);
    cv::Mat frame(height, width, CV_8UC3, cv::Scalar(128, 128, 128));
    const int block = 8;
    for (int y = -offset; y < height; y += block) {
        for (int x = -offset; x < width; x += block) {
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

// ---- lazily loaded images (core class suites) ----

CountingLoader::CountingLoader(cv::Mat frame, int failures)
    : state_(std::make_shared<State>(State{std::move(frame), failures, 0})) {}

std::function<cv::Mat()> CountingLoader::loader() const {
    std::shared_ptr<State> state = state_;
    return [state]() {
        ++state->calls;
        if (state->calls <= state->failures) {
            throw std::runtime_error("CountingLoader: planned failure");
        }
        return state->frame.clone();
    };
}

vyra::Image lazyImage(const CountingLoader& source, int width, int height, int index,
                      std::vector<vyra::Rect> objects, double contentRatio) {
    return vyra::Image(source.loader(), objects, width, height, contentRatio, index);
}

}  // namespace vyra_test

// ---- run driver inputs (frame folders and recordings with known answers) ----
#include <algorithm>
#include <cmath>
#include <cstdint>

namespace vyra_test {

namespace {

void putBigEndian32(std::string& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xffu));
    }
}

uint32_t crc32Of(const std::string& bytes) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

// One PNG chunk: length, type, data, CRC of type and data.
std::string pngChunk(const std::string& type, const std::string& data) {
    std::string chunk;
    putBigEndian32(chunk, static_cast<uint32_t>(data.size()));
    chunk += type + data;
    putBigEndian32(chunk, crc32Of(type + data));
    return chunk;
}

}  // namespace

cv::Mat logoFrame(int width, int height) {
    cv::Mat frame = solidFrame(width, height);
    const int side = std::min(width, height) / 4;
    cv::rectangle(frame, cv::Rect((width - side) / 2, (height - side) / 2, side, side),
                  cv::Scalar(40, 40, 40), cv::FILLED);
    return frame;
}

cv::Mat cornerMarksFrame(int width, int height) {
    cv::Mat frame = solidFrame(width, height);
    const int side = std::min(width, height) / 10;
    const int margin = side / 2;
    for (int x : {margin, width - margin - side}) {
        for (int y : {margin, height - margin - side}) {
            cv::rectangle(frame, cv::Rect(x, y, side, side), cv::Scalar(40, 40, 40), cv::FILLED);
        }
    }
    return frame;
}

cv::Mat loadedPageFrame(int width, int height) {
    return texturedFrame(width, height, 20240307u);
}

std::vector<cv::Mat> launchSequence() {
    const int w = kLaunchWidth;
    const int h = kLaunchHeight;
    std::vector<cv::Mat> frames{solidFrame(w, h), logoFrame(w, h), logoFrame(w, h),
                                cornerMarksFrame(w, h)};
    const cv::Mat loaded = loadedPageFrame(w, h);
    for (int k = 4; k < 10; ++k) {
        frames.push_back(loaded.clone());
    }
    return frames;
}

double referencePsnr(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type() || a.depth() != CV_8U) {
        throw std::invalid_argument("referencePsnr: two 8-bit frames of one size and type expected");
    }
    const int channels = a.channels();
    uint64_t sse = 0;
    for (int y = 0; y < a.rows; ++y) {
        for (int x = 0; x < a.cols * channels; ++x) {
            const int64_t d = int64_t(a.ptr<uchar>(y)[x]) - int64_t(b.ptr<uchar>(y)[x]);
            sse += x % channels < 3 ? uint64_t(d * d) : 0;
        }
    }
    if (sse == 0) return 99.99;
    return 10.0 * std::log10(65025.0 / (double(sse) / (double(channels) * a.rows * a.cols)));
}

std::vector<cv::Mat> scrollingFrames(int count, int width, int height, int shift, unsigned seed) {
    const int stripWidth = width + (count - 1) * shift;
    cv::Mat strip(height, stripWidth, CV_8UC3, cv::Scalar(235, 235, 235));
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> colour(0, 200), size(4, 14), x(0, stripWidth - 1), y(0, height - 1);
    for (int k = 0; k < stripWidth * height / 150; ++k) {
        const cv::Scalar bgr(colour(rng), colour(rng), colour(rng));
        const cv::Point origin(x(rng), y(rng));
        const int w = size(rng), h = size(rng);
        if (k % 2 == 0) {
            cv::circle(strip, origin, w / 2 + 1, bgr, cv::FILLED, cv::LINE_8);
        } else {
            cv::rectangle(strip, cv::Rect(origin.x, origin.y, w, h), bgr, cv::FILLED, cv::LINE_8);
        }
    }
    std::vector<cv::Mat> frames;
    for (int k = 0; k < count; ++k) frames.push_back(strip.colRange(k * shift, k * shift + width).clone());
    return frames;
}

std::string streamText(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

void writeDeclaredSizePng(const fs::path& file, unsigned width, unsigned height) {
    std::string header;
    putBigEndian32(header, width);
    putBigEndian32(header, height);
    header += std::string("\x08\x02\x00\x00\x00", 5);  // 8-bit RGB, no interlace
    // zlib stream of one empty stored block: too little data for any row.
    const std::string idat("\x78\x01\x01\x00\x00\xff\xff\x00\x00\x00\x01", 11);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << std::string("\x89PNG\r\n\x1a\n", 8) << pngChunk("IHDR", header)
        << pngChunk("IDAT", idat) << pngChunk("IEND", "");
}

void disableCameraBackend() {
    setenv("OPENCV_VIDEOIO_PRIORITY_GPHOTO2", "0", 1);
}

}  // namespace vyra_test

// ---- sample-recording tests ----
namespace vyra_test {

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

// ---- product face: processes, ffmpeg-made videos, status-bar frames ----
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

namespace vyra_test {

namespace {

// Reads everything from the given descriptors until each reports end of
// input (or EIO, which a pseudo-terminal master returns once the child is gone).
void drain(int outFd, int errFd, std::string& out, std::string& err) {
    struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&out, &err};
    int open = 2;
    char buffer[4096];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int k = 0; k < 2; ++k) {
            if (fds[k].fd < 0 || fds[k].revents == 0) continue;
            const ssize_t n = read(fds[k].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[k]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[k].fd);
                fds[k].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const fs::path& cwd, bool stderrTerminal) {
    int outPipe[2];
    if (pipe(outPipe) != 0) throw std::runtime_error("pipe failed");
    int errRead = -1;
    int errWrite = -1;
    if (stderrTerminal) {
        errRead = posix_openpt(O_RDWR | O_NOCTTY);
        if (errRead < 0 || grantpt(errRead) != 0 || unlockpt(errRead) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        errWrite = open(ptsname(errRead), O_RDWR | O_NOCTTY);
    } else {
        int errPipe[2];
        if (pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
        errRead = errPipe[0];
        errWrite = errPipe[1];
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        dup2(outPipe[1], 1);
        dup2(errWrite, 2);
        close(outPipe[0]);
        close(errRead);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errWrite);
    ProcessResult result;
    drain(outPipe[0], errRead, result.out, result.err);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

bool haveFfmpeg() {
    return runProcess({"ffmpeg", "-hide_banner", "-version"}).exitCode == 0;
}

bool writeVfrVideo(const fs::path& file, const std::vector<cv::Mat>& frames,
                   const std::vector<int>& durationsMs, const std::vector<std::string>& codecArgs,
                   std::string* log) {
    if (frames.empty() || frames.size() != durationsMs.size()) return false;
    const fs::path dir = file.parent_path() / (file.filename().string() + ".frames");
    fs::create_directories(dir);
    std::ofstream list(dir / "list.ffconcat");
    list << "ffconcat version 1.0\n";
    for (size_t k = 0; k < frames.size(); ++k) {
        const std::string name = "f" + std::to_string(k) + ".png";
        cv::imwrite((dir / name).string(), frames[k]);
        list << "file '" << name << "'\noption framerate 1000\nduration "
             << durationsMs[k] / 1000.0 << "\n";
    }
    // The last entry is repeated so that its duration is honoured.
    list << "file 'f" << frames.size() - 1 << ".png'\noption framerate 1000\n";
    list.close();
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y",
                                     "-f", "concat", "-safe", "0", "-i", (dir / "list.ffconcat").string(),
                                     "-frames:v", std::to_string(frames.size()), "-fps_mode", "vfr"};
    argv.insert(argv.end(), codecArgs.begin(), codecArgs.end());
    argv.push_back(file.string());
    const ProcessResult run = runProcess(argv);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    if (log != nullptr) *log = run.err;
    return run.exitCode == 0 && fs::exists(file);
}

cv::Mat statusBarFrame(int width, int height, unsigned seed, int barHeight, cv::Scalar barColour,
                       const std::string& clock) {
    cv::Mat frame = texturedFrame(width, height, seed);
    cv::rectangle(frame, cv::Rect(0, 0, width, barHeight), barColour, cv::FILLED);
    if (!clock.empty()) {
        cv::putText(frame, clock, cv::Point(8, barHeight - 6), cv::FONT_HERSHEY_SIMPLEX, 0.5,
                    cv::Scalar(255, 255, 255), 1, cv::LINE_8);
    }
    return frame;
}

}  // namespace vyra_test

// ---- visual progress: pages of solid parts with exact pixel counts ----
namespace vyra_test {

cv::Mat pageFrame(bool grid, bool image, bool spinner, const std::string& clock) {
    cv::Mat frame = solidFrame(kPageWidth, kPageHeight);
    if (grid) {
        for (int row = 0; row < 24; ++row) {
            for (int column = 0; column < 18; ++column) {
                cv::rectangle(frame, cv::Rect(2 + 10 * column, 2 + 10 * row, 6, 6), cv::Scalar(40, 90, 140),
                              cv::FILLED);
            }
        }
    }
    if (image) {
        cv::rectangle(frame, cv::Rect(80, 272, 24, 24), cv::Scalar(200, 160, 120), cv::FILLED);
    }
    if (spinner) {
        cv::rectangle(frame, cv::Rect(24, 272, 24, 24), cv::Scalar(0, 0, 0), cv::FILLED);
    }
    if (!clock.empty()) {
        cv::putText(frame, clock, cv::Point(kClockRegion[0] + 4, kClockRegion[1] + 17),
                    cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar(0, 0, 0), 2, cv::LINE_8);
    }
    return frame;
}

cv::Mat withNoise(const cv::Mat& frame, int amplitude, unsigned seed) {
    cv::Mat noise(frame.size(), CV_16SC3);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::UNIFORM, cv::Scalar::all(-amplitude), cv::Scalar::all(amplitude + 1));
    cv::Mat wide;
    frame.convertTo(wide, CV_16SC3);
    cv::Mat noisy;
    cv::add(wide, noise, wide);
    wide.convertTo(noisy, CV_8UC3);
    return noisy;
}

}  // namespace vyra_test

// ---- object detection written out with OpenCV's plain calls ----
namespace vyra_test {

std::vector<vyra::Rect> plainPipelineObjects(const cv::Mat& frame) {
    if (frame.empty() || frame.depth() != CV_8U) return {};
    cv::Mat grey;
    if (frame.channels() == 1) {
        grey = frame.clone();
    } else if (frame.channels() == 3 || frame.channels() == 4) {
        cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
    } else {
        return {};
    }
    cv::Mat edges;
    cv::Canny(grey, edges, 10.0, 30.0, 3, false);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(edges, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
    std::set<vyra::Rect> boxes;
    for (const auto& contour : contours) {
        const cv::Rect box = cv::boundingRect(contour);
        boxes.insert(vyra::Rect(box.x, box.y, box.x + box.width - 1, box.y + box.height - 1));
    }
    return std::vector<vyra::Rect>(boxes.begin(), boxes.end());
}

namespace {

// Filled and outlined shapes, some cut by the frame's edges.
cv::Mat bordersFrame(cv::Size size) {
    cv::Mat frame(size, CV_8UC3, cv::Scalar(235, 235, 235));
    const int w = size.width, h = size.height;
    cv::rectangle(frame, cv::Rect(-3, -2, w / 3 + 3, h / 4 + 2), cv::Scalar(20, 40, 60), cv::FILLED);
    cv::rectangle(frame, cv::Rect(w / 2, h - h / 5, w, h), cv::Scalar(90, 10, 200), cv::FILLED);
    cv::circle(frame, cv::Point(w - 2, h / 2), std::max(1, std::min(w, h) / 4), cv::Scalar(0, 0, 0), 2);
    cv::line(frame, cv::Point(0, h / 2), cv::Point(w / 2, 0), cv::Scalar(255, 255, 255), 1);
    cv::rectangle(frame, cv::Rect(w / 3, h / 3, std::max(1, w / 4), std::max(1, h / 4)), cv::Scalar(60, 60, 60), 1);
    return frame;
}

cv::Mat rampFrame(cv::Size size) {
    cv::Mat frame(size, CV_8UC3);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const uchar v = static_cast<uchar>((x * 7 + y * 3) % 256);
            frame.at<cv::Vec3b>(y, x) = cv::Vec3b(v, static_cast<uchar>(255 - v), static_cast<uchar>(v / 2));
        }
    }
    return frame;
}

// Uniform noise between low and high - 1 in every channel.
cv::Mat noiseFrame(cv::Size size, unsigned seed, int low, int high) {
    cv::Mat frame(size, CV_8UC3);
    cv::RNG rng(seed);
    rng.fill(frame, cv::RNG::UNIFORM, cv::Scalar::all(low), cv::Scalar::all(high));
    return frame;
}

}  // namespace

std::vector<cv::Mat> detectionCatalogue(const std::vector<cv::Size>& sizes) {
    std::vector<cv::Mat> frames;
    unsigned seed = 11;
    for (const cv::Size& size : sizes) {
        // Faint noise puts many gradients near both Canny thresholds.
        const cv::Mat contents[] = {texturedFrame(size.width, size.height, seed), noiseFrame(size, seed + 1, 0, 256),
                                    noiseFrame(size, seed + 2, 96, 128), bordersFrame(size), rampFrame(size),
                                    solidFrame(size.width, size.height, cv::Scalar(40, 90, 160))};
        seed += 3;
        for (const cv::Mat& bgr : contents) {
            cv::Mat grey, bgra;
            cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
            cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
            frames.push_back(bgr);
            frames.push_back(grey);
            frames.push_back(bgra);
        }
    }
    return frames;
}

}  // namespace vyra_test
