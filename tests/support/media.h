// Test helpers for the media readers: videos made with the ffmpeg command,
// PNGs of every kind made by a writer of our own, and capture of what the
// process prints on stderr.
#ifndef VYRA_TESTS_MEDIA_H
#define VYRA_TESTS_MEDIA_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vyra_test {

// Runs `ffmpeg -nostdin -y -loglevel error ARGS`; true when it exits with 0.
bool RunFfmpeg(const std::string& args);
// True when the ffmpeg command lists the encoder `name`.
bool HasEncoder(const std::string& name);

std::vector<unsigned char> ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::vector<unsigned char>& bytes);

// A PNG to generate. Samples are random (seeded); rows use random filter
// types; the image data is split over several IDAT chunks.
struct PngSpec {
    int width = 1;
    int height = 1;
    int colorType = 2;  // 0 grey, 2 RGB, 3 palette, 4 grey+alpha, 6 RGBA
    int bitDepth = 8;
    bool interlaced = false;
    int paletteEntries = 0;  // colour type 3; indices may exceed it
    bool transparency = false;  // tRNS (colour types 0, 2, 3)
    bool colorChunks = false;   // gAMA, cHRM, sRGB and bKGD
    bool iccProfile = false;    // gAMA + iCCP
    bool brokenIccProfile = false;  // iCCP whose compressed profile is garbage
    int exifOrientation = 0;    // eXIf chunk with this orientation when > 0
    bool flat = false;          // all samples 0 (tiny file, large image)
    uint32_t seed = 1;
};
std::vector<unsigned char> MakePng(const PngSpec& spec);
std::string Describe(const PngSpec& spec);

// Captures everything written to file descriptor 2 while alive, with
// FFmpeg's process log level set to AV_LOG_INFO (its default; OpenCV's
// videoio lowers it when used) so that any message FFmpeg would print by
// default is seen. Restores both on destruction.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    std::string Text();  // what was printed so far

private:
    int savedFd_ = -1;
    int captureFd_ = -1;
    int savedLevel_ = 0;
    std::string path_;
};

}  // namespace vyra_test
#endif
