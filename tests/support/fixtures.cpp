#include "fixtures.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

extern "C" {
#include <libavutil/log.h>
}

namespace vyra_test {

using Bytes = std::vector<unsigned char>;

// ---- files and processes

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "vyra-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(path_, ignored);
}

ScopedCwd::ScopedCwd(const fs::path& dir) : previous_(fs::current_path()) { fs::current_path(dir); }

ScopedCwd::~ScopedCwd() {
    std::error_code ignored;
    fs::current_path(previous_, ignored);
}

std::string readText(const fs::path& file) {
    const Bytes bytes = readBytes(file);
    return std::string(bytes.begin(), bytes.end());
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

Bytes readBytes(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const fs::path& file, const Bytes& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + file.string());
}

void writeEmptyFile(const fs::path& file) { writeBytes(file, {}); }

void writeCorruptPng(const fs::path& file) {
    Bytes bytes = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    for (int k = 0; k < 64; ++k) bytes.push_back(static_cast<unsigned char>(k * 37 + 11));
    writeBytes(file, bytes);
}

namespace {

void putBe32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
}

void putBe16(Bytes& out, uint32_t v) {
    out.push_back(static_cast<unsigned char>(v >> 8));
    out.push_back(static_cast<unsigned char>(v));
}

// Length, type, data and the CRC of type and data.
void putChunk(Bytes& png, const char* type, const Bytes& data) {
    putBe32(png, static_cast<uint32_t>(data.size()));
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    putBe32(png, static_cast<uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
}

Bytes deflate(const Bytes& raw) {
    uLongf size = compressBound(static_cast<uLong>(raw.size()));
    Bytes out(size);
    if (compress2(out.data(), &size, raw.data(), static_cast<uLong>(raw.size()), 9) != Z_OK) {
        throw std::runtime_error("compress2 failed");
    }
    out.resize(size);
    return out;
}

Bytes pngHeader(unsigned width, unsigned height, int bitDepth, int colorType, bool interlaced) {
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}, header;
    putBe32(header, width);
    putBe32(header, height);
    header.insert(header.end(), {static_cast<unsigned char>(bitDepth), static_cast<unsigned char>(colorType), 0, 0,
                                 static_cast<unsigned char>(interlaced ? 1 : 0)});
    putChunk(png, "IHDR", header);
    return png;
}

}  // namespace

void writeDeclaredSizePng(const fs::path& file, unsigned width, unsigned height) {
    Bytes png = pngHeader(width, height, 8, 2, false);
    putChunk(png, "IDAT", {0x78, 0x01, 0x01, 0x00, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0x01});  // one empty block
    putChunk(png, "IEND", {});
    writeBytes(file, png);
}

void writePngFolder(const fs::path& dir, const std::vector<std::string>& names, const std::vector<cv::Mat>& frames) {
    fs::create_directories(dir);
    for (size_t k = 0; k < names.size(); ++k) {
        if (!cv::imwrite((dir / names[k]).string(), frames.at(k))) throw std::runtime_error("cannot write " + names[k]);
    }
}

bool writeVideo(const fs::path& file, const std::vector<cv::Mat>& frames, double fps) {
    const std::string ext = file.extension().string();
    const int fourcc = ext == ".mp4" || ext == ".mov" ? cv::VideoWriter::fourcc('m', 'p', '4', 'v')
                                                      : cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
    cv::VideoWriter writer(file.string(), cv::CAP_FFMPEG, fourcc, fps, frames.at(0).size());
    if (!writer.isOpened()) return false;
    for (const cv::Mat& frame : frames) writer.write(frame);
    return true;
}

bool writeVfrVideo(const fs::path& file, const std::vector<cv::Mat>& frames, const std::vector<int>& durationsMs,
                   const std::vector<std::string>& codecArgs, std::string* log) {
    const fs::path dir = file.parent_path() / (file.filename().string() + ".frames");
    fs::create_directories(dir);
    std::ofstream list(dir / "list.ffconcat");
    list << "ffconcat version 1.0\n";
    for (size_t k = 0; k < frames.size(); ++k) {
        cv::imwrite((dir / ("f" + std::to_string(k) + ".png")).string(), frames[k]);
        list << "file 'f" << k << ".png'\noption framerate 1000\nduration " << durationsMs.at(k) / 1000.0 << "\n";
    }
    list << "file 'f" << frames.size() - 1 << ".png'\noption framerate 1000\n";  // so the last duration holds
    list.close();
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-f", "concat",
                                     "-safe", "0", "-i", (dir / "list.ffconcat").string(), "-frames:v",
                                     std::to_string(frames.size()), "-fps_mode", "vfr"};
    argv.insert(argv.end(), codecArgs.begin(), codecArgs.end());
    argv.push_back(file.string());
    const ProcessResult run = runProcess(argv);
    fs::remove_all(dir);
    if (log != nullptr) *log = run.err;
    return run.exitCode == 0 && fs::exists(file);
}

std::vector<cv::Mat> readVideoFrames(const fs::path& file) {
    cv::VideoCapture capture(file.string());
    std::vector<cv::Mat> frames;
    for (cv::Mat frame; capture.read(frame) && !frame.empty();) frames.push_back(frame.clone());
    return frames;
}

namespace {

// Reads both descriptors until each ends (or gives EIO, as a pseudo-terminal
// does once the child is gone).
void drain(int outFd, int errFd, std::string& out, std::string& err) {
    struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&out, &err};
    char buffer[4096];
    for (int open = 2; open > 0;) {
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
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0) throw std::runtime_error("pipe failed");
    if (stderrTerminal) {
        errPipe[0] = posix_openpt(O_RDWR | O_NOCTTY);
        if (errPipe[0] < 0 || grantpt(errPipe[0]) != 0 || unlockpt(errPipe[0]) != 0) throw std::runtime_error("no pty");
        errPipe[1] = open(ptsname(errPipe[0]), O_RDWR | O_NOCTTY);
    } else if (pipe(errPipe) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    ProcessResult result;
    drain(outPipe[0], errPipe[0], result.out, result.err);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

bool haveFfmpeg() { return runProcess({"ffmpeg", "-hide_banner", "-version"}).exitCode == 0; }

bool hasEncoder(const std::string& name) {
    return runProcess({"ffmpeg", "-hide_banner", "-encoders"}).out.find(" " + name + " ") != std::string::npos;
}

void disableCameraBackend() { setenv("OPENCV_VIDEOIO_PRIORITY_GPHOTO2", "0", 1); }

StderrCapture::StderrCapture() {
    char path[] = "/tmp/vyra-stderr-XXXXXX";
    captureFd_ = mkstemp(path);
    if (captureFd_ < 0) throw std::runtime_error("mkstemp failed");
    path_ = path;
    std::fflush(stderr);
    savedFd_ = dup(2);
    dup2(captureFd_, 2);
    savedLevel_ = av_log_get_level();
    av_log_set_level(AV_LOG_INFO);
}

StderrCapture::~StderrCapture() {
    std::fflush(stderr);
    av_log_set_level(savedLevel_);
    dup2(savedFd_, 2);
    close(savedFd_);
    close(captureFd_);
    unlink(path_.c_str());
}

std::string StderrCapture::Text() {
    std::fflush(stderr);
    return readText(path_);
}

// ---- frames

cv::Mat solidFrame(int width, int height, cv::Scalar bgr) { return cv::Mat(height, width, CV_8UC3, bgr); }

cv::Mat texturedFrame(int width, int height, unsigned seed, int offset) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> colour(0, 255);
    cv::Mat frame(height, width, CV_8UC3, cv::Scalar(128, 128, 128));
    for (int y = -offset; y < height; y += 8) {
        for (int x = -offset; x < width; x += 8) {
            cv::rectangle(frame, cv::Rect(x, y, 8, 8), cv::Scalar(colour(rng), colour(rng), colour(rng)), cv::FILLED);
        }
    }
    return frame;
}

cv::Mat logoFrame(int width, int height) {
    cv::Mat frame = solidFrame(width, height);
    const int side = std::min(width, height) / 4;
    cv::rectangle(frame, cv::Rect((width - side) / 2, (height - side) / 2, side, side), cv::Scalar::all(40), cv::FILLED);
    return frame;
}

cv::Mat cornerMarksFrame(int width, int height) {
    cv::Mat frame = solidFrame(width, height);
    const int side = std::min(width, height) / 10, margin = side / 2;
    for (int x : {margin, width - margin - side}) {
        for (int y : {margin, height - margin - side}) {
            cv::rectangle(frame, cv::Rect(x, y, side, side), cv::Scalar::all(40), cv::FILLED);
        }
    }
    return frame;
}

cv::Mat loadedPageFrame(int width, int height) { return texturedFrame(width, height, 20240307u); }

std::vector<cv::Mat> launchSequence() {
    const int w = kLaunchWidth, h = kLaunchHeight;
    std::vector<cv::Mat> frames{solidFrame(w, h), logoFrame(w, h), logoFrame(w, h), cornerMarksFrame(w, h)};
    for (int k = 4; k < 10; ++k) frames.push_back(loadedPageFrame(w, h));
    return frames;
}

cv::Mat statusBarFrame(int width, int height, unsigned seed, int barHeight, cv::Scalar barColour, const std::string& clock) {
    cv::Mat frame = texturedFrame(width, height, seed);
    cv::rectangle(frame, cv::Rect(0, 0, width, barHeight), barColour, cv::FILLED);
    if (!clock.empty()) {
        cv::putText(frame, clock, cv::Point(8, barHeight - 6), cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar::all(255), 1, cv::LINE_8);
    }
    return frame;
}

cv::Mat pageFrame(bool grid, bool image, bool spinner, const std::string& clock) {
    cv::Mat frame = solidFrame(kPageWidth, kPageHeight);
    for (int row = 0; grid && row < 24; ++row) {
        for (int column = 0; column < 18; ++column) {
            cv::rectangle(frame, cv::Rect(2 + 10 * column, 2 + 10 * row, 6, 6), cv::Scalar(40, 90, 140), cv::FILLED);
        }
    }
    if (image) cv::rectangle(frame, cv::Rect(80, 272, 24, 24), cv::Scalar(200, 160, 120), cv::FILLED);
    if (spinner) cv::rectangle(frame, cv::Rect(24, 272, 24, 24), cv::Scalar(0, 0, 0), cv::FILLED);
    if (!clock.empty()) {
        cv::putText(frame, clock, cv::Point(kClockRegion[0] + 4, kClockRegion[1] + 17), cv::FONT_HERSHEY_SIMPLEX, 0.5,
                    cv::Scalar(0, 0, 0), 2, cv::LINE_8);
    }
    return frame;
}

cv::Mat withNoise(const cv::Mat& frame, int amplitude, unsigned seed) {
    cv::Mat noise(frame.size(), CV_16SC3), wide, noisy;
    cv::RNG(seed).fill(noise, cv::RNG::UNIFORM, cv::Scalar::all(-amplitude), cv::Scalar::all(amplitude + 1));
    frame.convertTo(wide, CV_16SC3);
    cv::add(wide, noise, wide);
    wide.convertTo(noisy, CV_8UC3);
    return noisy;
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

std::string streamText(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

std::vector<vyra::Rect> plainPipelineObjects(const cv::Mat& frame) {
    if (frame.empty() || frame.depth() != CV_8U || frame.channels() == 2 || frame.channels() > 4) return {};
    cv::Mat grey, edges;
    if (frame.channels() == 1) {
        grey = frame.clone();
    } else {
        cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
    }
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

std::vector<cv::Mat> detectionCatalogue(const std::vector<cv::Size>& sizes) {
    std::vector<cv::Mat> frames;
    unsigned seed = 11;
    for (const cv::Size& size : sizes) {
        const int w = size.width, h = size.height;
        cv::Mat noise(size, CV_8UC3), faint(size, CV_8UC3), ramp(size, CV_8UC3);
        cv::RNG(seed + 1).fill(noise, cv::RNG::UNIFORM, cv::Scalar::all(0), cv::Scalar::all(256));
        cv::RNG(seed + 2).fill(faint, cv::RNG::UNIFORM, cv::Scalar::all(96), cv::Scalar::all(128));  // near both thresholds
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const uchar v = static_cast<uchar>((x * 7 + y * 3) % 256);
                ramp.at<cv::Vec3b>(y, x) = cv::Vec3b(v, static_cast<uchar>(255 - v), static_cast<uchar>(v / 2));
            }
        }
        cv::Mat borders = solidFrame(w, h, cv::Scalar::all(235));  // shapes cut by the frame's edges
        cv::rectangle(borders, cv::Rect(-3, -2, w / 3 + 3, h / 4 + 2), cv::Scalar(20, 40, 60), cv::FILLED);
        cv::rectangle(borders, cv::Rect(w / 2, h - h / 5, w, h), cv::Scalar(90, 10, 200), cv::FILLED);
        cv::circle(borders, cv::Point(w - 2, h / 2), std::max(1, std::min(w, h) / 4), cv::Scalar(0, 0, 0), 2);
        cv::line(borders, cv::Point(0, h / 2), cv::Point(w / 2, 0), cv::Scalar::all(255), 1);
        cv::rectangle(borders, cv::Rect(w / 3, h / 3, std::max(1, w / 4), std::max(1, h / 4)), cv::Scalar::all(60), 1);
        for (const cv::Mat& bgr : {texturedFrame(w, h, seed), noise, faint, borders, ramp, solidFrame(w, h, cv::Scalar(40, 90, 160))}) {
            cv::Mat grey, bgra;
            cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
            cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
            frames.insert(frames.end(), {bgr, grey, bgra});
        }
        seed += 3;
    }
    return frames;
}

CountingLoader::CountingLoader(cv::Mat frame, int failures)
    : state_(std::make_shared<State>(State{std::move(frame), failures, 0})) {}

std::function<cv::Mat()> CountingLoader::loader() const {
    std::shared_ptr<State> state = state_;
    return [state]() {
        if (++state->calls <= state->failures) throw std::runtime_error("CountingLoader: planned failure");
        return state->frame.clone();
    };
}

vyra::Image lazyImage(const CountingLoader& source, int width, int height, int index, std::vector<vyra::Rect> objects,
                      double contentRatio) {
    return vyra::Image(source.loader(), objects, width, height, contentRatio, index);
}

// ---- PNG files

namespace {

int channelsOf(int colorType) { return colorType == 2 ? 3 : colorType == 4 ? 2 : colorType == 6 ? 4 : 1; }

// Samples at @p depth bits each, packed into bytes.
Bytes packRow(const std::vector<uint16_t>& samples, int depth) {
    Bytes row;
    int bit = 0;
    for (uint16_t s : samples) {
        if (depth == 16) {
            putBe16(row, s);
        } else if (depth == 8) {
            row.push_back(static_cast<unsigned char>(s));
        } else {
            if (bit == 0) row.push_back(0);
            row.back() |= static_cast<unsigned char>(s << (8 - depth - bit));
            bit = (bit + depth) % 8;
        }
    }
    return row;
}

// The rows of every pass, each with a random filter (0 none .. 4 Paeth) against the row before in its pass.
Bytes imageData(const PngSpec& shape, std::mt19937& rng) {
    const int channels = channelsOf(shape.colorType), bpp = std::max(1, channels * shape.bitDepth / 8);
    std::vector<uint16_t> samples(size_t(shape.width) * shape.height * channels);
    for (uint16_t& s : samples) s = static_cast<uint16_t>(rng() % (1u << shape.bitDepth));
    static const int adam7[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4}, {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
    static const int progressive[1][4] = {{0, 0, 1, 1}};
    Bytes raw;
    for (int p = 0; p < (shape.interlaced ? 7 : 1); ++p) {
        const int* pass = shape.interlaced ? adam7[p] : progressive[0];
        if (pass[0] >= shape.width || pass[1] >= shape.height) continue;
        Bytes previous;
        for (int y = pass[1]; y < shape.height; y += pass[3]) {
            std::vector<uint16_t> rowSamples;
            for (int x = pass[0]; x < shape.width; x += pass[2]) {
                for (int c = 0; c < channels; ++c) rowSamples.push_back(samples[(size_t(y) * shape.width + x) * channels + c]);
            }
            const Bytes row = packRow(rowSamples, shape.bitDepth);
            const int filter = static_cast<int>(rng() % 5);
            raw.push_back(static_cast<unsigned char>(filter));
            for (size_t i = 0; i < row.size(); ++i) {
                const int a = i >= size_t(bpp) ? row[i - bpp] : 0, b = previous.empty() ? 0 : previous[i],
                          c = !previous.empty() && i >= size_t(bpp) ? previous[i - bpp] : 0;
                const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
                const int paeth = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
                const int predictor = filter == 1 ? a : filter == 2 ? b : filter == 3 ? (a + b) / 2 : filter == 4 ? paeth : 0;
                raw.push_back(static_cast<unsigned char>(row[i] - predictor));
            }
            previous = row;
        }
    }
    return deflate(raw);
}

}  // namespace

Bytes MakePng(const PngSpec& shape) {
    std::mt19937 rng(shape.seed);
    Bytes png = pngHeader(static_cast<unsigned>(shape.width), static_cast<unsigned>(shape.height), shape.bitDepth,
                          shape.colorType, shape.interlaced);
    const auto randomBytes = [&rng](int count) {
        Bytes bytes;
        for (int i = 0; i < count; ++i) bytes.push_back(static_cast<unsigned char>(rng()));
        return bytes;
    };
    if (shape.metadata) {  // gamma, chromaticities, sRGB, a broken ICC profile (libpng only warns)
        Bytes gamma, chrm, iccp = {'I', 'C', 'C', 0, 0, 0x78, 0x9c};
        putBe32(gamma, 45455);
        for (uint32_t v : {31270u, 32900u, 64000u, 33000u, 30000u, 60000u, 15000u, 6000u}) putBe32(chrm, v);
        const Bytes garbage = randomBytes(120);
        iccp.insert(iccp.end(), garbage.begin(), garbage.end());
        putChunk(png, "gAMA", gamma);
        putChunk(png, "cHRM", chrm);
        putChunk(png, "sRGB", Bytes{0});
        putChunk(png, "iCCP", iccp);
    }
    if (shape.exifOrientation > 0) {
        Bytes exif = {'M', 'M', 0, 0x2a, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1};  // IFD0: one SHORT
        putBe16(exif, static_cast<uint32_t>(shape.exifOrientation));
        exif.insert(exif.end(), {0, 0, 0, 0, 0, 0});
        putChunk(png, "eXIf", exif);
    }
    if (shape.colorType == 3) putChunk(png, "PLTE", randomBytes(3 * shape.paletteEntries));
    if (shape.transparency) {
        Bytes trns = shape.colorType == 3 ? randomBytes(shape.paletteEntries) : Bytes();
        for (int c = 0; shape.colorType != 3 && c < channelsOf(shape.colorType); ++c) putBe16(trns, rng() % (1u << shape.bitDepth));
        putChunk(png, "tRNS", trns);
    }
    const Bytes data = imageData(shape, rng);
    for (size_t at = 0; at < data.size(); at += 500) {
        putChunk(png, "IDAT", Bytes(data.begin() + at, data.begin() + std::min(data.size(), at + 500)));
    }
    putChunk(png, "IEND", {});
    return png;
}

}  // namespace vyra_test
