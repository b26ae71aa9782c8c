// A phone screen recording in which every frame differs: a feed of text
// lines and picture cards scrolling steadily up, a spinner turning and a
// progress bar running, under a status bar. Writes raw BGR frames to
// standard output, for an encoder to read (scripts/bench pipes it into
// ffmpeg):
//
//   vyra_bench_phone <seconds> [fps=60] [width=1080] [height=2400]
//
// The feed is drawn once as a tall strip and each frame shows a window of
// it, so rendering costs little next to encoding.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include <opencv2/imgproc.hpp>

namespace {

// Lines of pseudo-words and picture cards, @p height pixels tall.
cv::Mat feedStrip(int width, int height, unsigned seed) {
    cv::Mat strip(height, width, CV_8UC3, cv::Scalar(250, 250, 250));
    std::mt19937 random(seed);
    const int margin = width / 20;
    const double scale = width / 720.0;
    int y = 0;
    while (y < height) {
        if (random() % 5 == 0) {  // a picture card
            const int cardHeight = static_cast<int>(width * 0.45);
            cv::Rect card(margin, y + margin / 2, width - 2 * margin, cardHeight);
            for (int k = 0; k < 40; ++k) {
                const cv::Scalar colour(random() % 256, random() % 256, random() % 256);
                const cv::Point centre(card.x + static_cast<int>(random() % card.width),
                                       card.y + static_cast<int>(random() % card.height));
                cv::circle(strip, centre, static_cast<int>(8 + random() % 60 * scale), colour, cv::FILLED);
            }
            cv::rectangle(strip, card, cv::Scalar(120, 120, 120), 2);
            y += cardHeight + margin;
        } else {  // a line of words
            std::string line;
            const int words = 4 + static_cast<int>(random() % 6);
            for (int w = 0; w < words; ++w) {
                for (int c = 3 + static_cast<int>(random() % 8); c > 0; --c) {
                    line += static_cast<char>('a' + random() % 26);
                }
                line += ' ';
            }
            const int lineHeight = static_cast<int>(44 * scale);
            cv::putText(strip, line, cv::Point(margin, y + lineHeight), cv::FONT_HERSHEY_SIMPLEX, 1.1 * scale,
                        cv::Scalar(30, 30, 30), std::max(1, static_cast<int>(2 * scale)), cv::LINE_AA);
            y += lineHeight + static_cast<int>(14 * scale);
        }
    }
    return strip;
}

void drawChrome(cv::Mat& frame, int k, int fps) {
    const int width = frame.cols;
    const int bar = frame.rows / 30;
    cv::rectangle(frame, cv::Rect(0, 0, width, bar), cv::Scalar(40, 40, 40), cv::FILLED);
    const int seconds = k / fps;
    const std::string clock = std::to_string(9 + seconds / 60) + ":" + (seconds % 60 < 10 ? "0" : "") +
                              std::to_string(seconds % 60);
    cv::putText(frame, clock, cv::Point(width / 20, bar * 3 / 4), cv::FONT_HERSHEY_SIMPLEX, bar / 40.0,
                cv::Scalar(255, 255, 255), 2, cv::LINE_AA);
    // A spinner turning 6 degrees a frame, and a progress bar filling in 5 s.
    const cv::Point centre(width - bar * 2, bar * 3);
    const double angle = k * 6.0 * CV_PI / 180.0;
    cv::ellipse(frame, centre, cv::Size(bar, bar), angle * 180.0 / CV_PI, 0, 270, cv::Scalar(200, 90, 20), bar / 4,
                cv::LINE_AA);
    const double done = std::fmod(k / (5.0 * fps), 1.0);
    cv::rectangle(frame, cv::Rect(0, bar, static_cast<int>(width * done), bar / 6), cv::Scalar(20, 160, 240),
                  cv::FILLED);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: vyra_bench_phone <seconds> [fps] [width] [height] > frames.bgr\n");
        return 2;
    }
    const double seconds = std::atof(argv[1]);
    const int fps = argc > 2 ? std::atoi(argv[2]) : 60;
    const int width = argc > 3 ? std::atoi(argv[3]) : 1080;
    const int height = argc > 4 ? std::atoi(argv[4]) : 2400;
    const int frames = static_cast<int>(std::lround(seconds * fps));
    const int step = std::max(1, height / 400);  // pixels scrolled per frame
    const cv::Mat strip = feedStrip(width, height + frames * step, 7);
    cv::Mat frame;
    for (int k = 0; k < frames; ++k) {
        strip.rowRange(k * step, k * step + height).copyTo(frame);
        drawChrome(frame, k, fps);
        const size_t bytes = frame.total() * frame.elemSize();
        if (std::fwrite(frame.data, 1, bytes, stdout) != bytes) return 1;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
