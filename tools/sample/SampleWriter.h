/*
 * vyra_sample - writing rendered frames as a video or as PNG files, with
 * FFmpeg's libraries (the tool does not load OpenCV's codecs).
 */
#ifndef VYRA_SAMPLE_WRITER_H
#define VYRA_SAMPLE_WRITER_H

#include <memory>
#include <string>

#include <opencv2/core.hpp>

namespace vyra::sample {

/**
 * A constant-rate video of 8-bit BGR frames of one size. The codec follows
 * the extension: ".mp4" and ".mov" MPEG-4 part 2, ".mkv" and ".avi" MJPEG,
 * both at a high fixed quality, a key frame every 12 frames, 4:2:0.
 * Everything is a function of the frames: the same frames give the same file.
 * @throws std::invalid_argument for another extension, odd dimensions or a
 *         frame rate outside 1..240; std::runtime_error when the file cannot
 *         be written (the message says why).
 */
class VideoWriter {
public:
    VideoWriter(const std::string& path, int width, int height, int fps);
    ~VideoWriter();
    VideoWriter(const VideoWriter&) = delete;
    VideoWriter& operator=(const VideoWriter&) = delete;

    void Write(const cv::Mat& bgr);
    /** Drains the encoder and finishes the file; the destructor does it too, ignoring failures. */
    void Close();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/** Writes an 8-bit BGR frame as a PNG file. @throws std::runtime_error when it cannot be written. */
void WritePng(const std::string& path, const cv::Mat& bgr);

}  // namespace vyra::sample

#endif  // VYRA_SAMPLE_WRITER_H
