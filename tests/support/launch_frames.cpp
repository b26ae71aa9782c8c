#include "launch_frames.h"

#include <random>

#include <opencv2/imgproc.hpp>

namespace vyra_test {

namespace {

const cv::Scalar kWhite(255, 255, 255);

// Rectangle from fractions of the frame size, corners inclusive.
cv::Rect fractionRect(int width, int height, double x1, double y1, double x2, double y2) {
    const cv::Point topLeft(static_cast<int>(x1 * width), static_cast<int>(y1 * height));
    const cv::Point bottomRight(static_cast<int>(x2 * width), static_cast<int>(y2 * height));
    return cv::Rect(topLeft, bottomRight + cv::Point(1, 1));
}

}  // namespace

cv::Mat makeBlankFrame(int width, int height) {
    return cv::Mat(height, width, CV_8UC3, kWhite);
}

cv::Mat makeLogoFrame(int width, int height) {
    cv::Mat frame = makeBlankFrame(width, height);
    // Disc centred at (0.5w, 0.45h) with radius 0.1h: spans 0.35h .. 0.55h.
    const cv::Point centre(width / 2, static_cast<int>(0.45 * height));
    cv::circle(frame, centre, static_cast<int>(0.1 * height), cv::Scalar(40, 90, 200),
               cv::FILLED, cv::LINE_8);
    // Name bar 0.4w .. 0.6w, 0.62h .. 0.68h.
    cv::rectangle(frame, fractionRect(width, height, 0.4, 0.62, 0.6, 0.68),
                  cv::Scalar(60, 60, 60), cv::FILLED, cv::LINE_8);
    return frame;
}

cv::Mat makeHalfLoadedFrame(int width, int height) {
    cv::Mat frame = makeBlankFrame(width, height);
    const cv::Scalar header(90, 60, 30);
    const cv::Scalar card(160, 160, 160);
    cv::rectangle(frame, fractionRect(width, height, 0.0, 0.0, 1.0, 0.12), header, cv::FILLED,
                  cv::LINE_8);
    cv::rectangle(frame, fractionRect(width, height, 0.05, 0.2, 0.95, 0.45), card, cv::FILLED,
                  cv::LINE_8);
    cv::rectangle(frame, fractionRect(width, height, 0.05, 0.52, 0.45, 0.92), card, cv::FILLED,
                  cv::LINE_8);
    cv::rectangle(frame, fractionRect(width, height, 0.55, 0.52, 0.95, 0.92), card, cv::FILLED,
                  cv::LINE_8);
    return frame;
}

cv::Mat makeLoadedFrame(int width, int height) {
    cv::Mat frame = makeBlankFrame(width, height);
    const int pitch = 12;
    for (int row = 0; (row + 1) * pitch <= height - 6; ++row) {
        for (int col = 0; (col + 1) * pitch <= width - 6; ++col) {
            const int blockWidth = 5 + (col * 3 + row) % 4;
            const int blockHeight = 5 + (col + row * 3) % 4;
            const int shade = 20 * ((col + 2 * row) % 4);
            const cv::Rect block(6 + col * pitch + 2, 6 + row * pitch + 2, blockWidth,
                                 blockHeight);
            cv::rectangle(frame, block, cv::Scalar(shade, shade, shade), cv::FILLED,
                          cv::LINE_8);
        }
    }
    return frame;
}

cv::Mat makeClutteredFrame(int width, int height, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> x(0, width - 1);
    std::uniform_int_distribution<int> y(0, height - 1);
    std::uniform_int_distribution<int> size(4, 14);
    std::uniform_int_distribution<int> colour(0, 200);
    cv::Mat frame(height, width, CV_8UC3, cv::Scalar(235, 235, 235));
    const int shapes = width * height / 150;
    for (int k = 0; k < shapes; ++k) {
        const cv::Scalar bgr(colour(rng), colour(rng), colour(rng));
        const cv::Point origin(x(rng), y(rng));
        const int w = size(rng);
        const int h = size(rng);
        if (k % 2 == 0) {
            cv::circle(frame, origin, w / 2 + 1, bgr, cv::FILLED, cv::LINE_8);
        } else {
            cv::rectangle(frame, cv::Rect(origin.x, origin.y, w, h), bgr, cv::FILLED,
                          cv::LINE_8);
        }
    }
    return frame;
}

std::vector<cv::Mat> makeTenFrameLaunch() {
    std::vector<cv::Mat> frames{makeBlankFrame(), makeLogoFrame(), makeLogoFrame(),
                                makeHalfLoadedFrame()};
    for (int k = 4; k < 10; ++k) {
        frames.push_back(makeLoadedFrame());
    }
    return frames;
}

std::vector<cv::Mat> makeScrollingFrames(int count, int width, int height, int shift,
                                         unsigned seed) {
    const cv::Mat strip = makeClutteredFrame(width + (kMaxScrollWindows - 1) * shift, height, seed);
    std::vector<cv::Mat> frames;
    for (int k = 0; k < count && k < kMaxScrollWindows; ++k) {
        frames.push_back(strip.colRange(k * shift, k * shift + width).clone());
    }
    return frames;
}

}  // namespace vyra_test
