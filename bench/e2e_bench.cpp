// End-to-end measuring pieces for scripts/bench, one per mode; time and peak
// memory are taken from outside (/usr/bin/time).
//
//   vyra_bench_e2e render <out.mp4> <seconds>   1080x1920 30 fps sample video
//   vyra_bench_e2e decode <video>               OpenCV decode, every frame kept;
//                                               prints "decoded_bytes <n>"
//   vyra_bench_e2e png <video> <dir>            decode, then cv::imwrite of each
//                                               frame into <dir>, one after another
//   vyra_bench_e2e analyse <video> <workdir>    analyse() with <workdir> as the
//                                               current directory (frames/ made there)
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "LoadAnalyzer.h"
#include "VyraSample.h"

namespace {

std::vector<cv::Mat> decodeAll(const std::string& video) {
    std::vector<cv::Mat> frames;
    cv::VideoCapture capture(video, cv::CAP_ANY);
    for (;;) {
        cv::Mat frame;
        capture.read(frame);
        if (frame.empty()) break;
        frames.push_back(frame);
    }
    return frames;
}

int usage() {
    std::cerr << "usage: vyra_bench_e2e render|decode|png|analyse ...\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage();
    const std::string mode = argv[1];
    const std::string path = argv[2];
    if (mode == "render" && argc == 4) {
        vyra::sample::SampleOptions options;
        options.seconds = std::atof(argv[3]);
        options.fps = 30;
        options.width = 1080;
        options.height = 1920;
        vyra::sample::WriteSampleVideo(path, options);
        return 0;
    }
    if (mode == "decode") {
        const std::vector<cv::Mat> frames = decodeAll(path);
        size_t bytes = 0;
        for (const cv::Mat& f : frames) bytes += f.total() * f.elemSize();
        std::printf("frames %zu\ndecoded_bytes %zu\n", frames.size(), bytes);
        return 0;
    }
    if (mode == "png" && argc == 4) {
        const std::vector<cv::Mat> frames = decodeAll(path);
        char name[64];
        for (size_t k = 0; k < frames.size(); ++k) {
            std::snprintf(name, sizeof name, "/%08zu.png", k);
            cv::imwrite(std::string(argv[3]) + name, frames[k]);
        }
        return 0;
    }
    if (mode == "analyse" && argc == 4) {
        std::filesystem::create_directories(std::filesystem::path(argv[3]) / "frames");
        std::filesystem::current_path(argv[3]);
        const double seconds = analyse(path.c_str(), 2, 30, 0, 0);
        std::printf("launch %.6g\n", seconds);
        return 0;
    }
    return usage();
}
