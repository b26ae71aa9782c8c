// Hot primitives of the analysis at phone resolution (1080x1920), on frames
// of a rendered sample launch: object detection, union area, PSNR, feature
// matching, and the whole static analysis on an in-memory frame list.
#include <benchmark/benchmark.h>

#include <vector>

#include "VyraAnalyzer.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"
#include "VyraSample.h"

namespace {

struct SampleFrames {
    vyra::sample::SampleOptions options;
    vyra::sample::SampleTruth truth;
    std::vector<cv::Mat> frames;
};

// Renders the 10 s 30 fps 1080x1920 sample once per process.
const SampleFrames& sampleFrames() {
    static const SampleFrames sample = [] {
        SampleFrames s;
        s.options.seconds = 10.0;
        s.options.fps = 30;
        s.options.width = 1080;
        s.options.height = 1920;
        s.truth = vyra::sample::PlanSample(s.options);
        for (int k = 0; k < s.truth.frameCount; ++k) {
            s.frames.push_back(vyra::sample::RenderFrame(s.options, s.truth, k));
        }
        return s;
    }();
    return sample;
}

const cv::Mat& loadedFrame() { return sampleFrames().frames.back(); }

void BM_DetectObjects(benchmark::State& state) {
    const cv::Mat& frame = loadedFrame();
    for (auto _ : state) {
        benchmark::DoNotOptimize(vyra::Image::DetectObjects(frame));
    }
}
BENCHMARK(BM_DetectObjects)->Unit(benchmark::kMillisecond);

void BM_CalculateTotalArea(benchmark::State& state) {
    const std::vector<vyra::Rect> boxes = vyra::Image::DetectObjects(loadedFrame());
    for (auto _ : state) {
        benchmark::DoNotOptimize(vyra::Rect::CalculateTotalArea(boxes));
    }
    state.counters["boxes"] = static_cast<double>(boxes.size());
}
BENCHMARK(BM_CalculateTotalArea)->Unit(benchmark::kMillisecond);

void BM_CalculatePSNR(benchmark::State& state) {
    const SampleFrames& s = sampleFrames();
    const cv::Mat& a = s.frames[static_cast<size_t>(s.truth.contentStart)];
    const cv::Mat& b = s.frames.back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(vyra::ImageSets::CalculatePSNR(a, b));
    }
}
BENCHMARK(BM_CalculatePSNR)->Unit(benchmark::kMillisecond);

void BM_FeatureMatching(benchmark::State& state) {
    const SampleFrames& s = sampleFrames();
    const cv::Mat& a = s.frames[static_cast<size_t>(s.truth.loadedIndex)];
    const cv::Mat& b = s.frames.back();
    const bool crossCheck = state.range(0) != 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vyra::ImageSets::FeatureMatching(a, b, crossCheck));
    }
}
BENCHMARK(BM_FeatureMatching)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_AnalyzeStaticPage(benchmark::State& state) {
    const SampleFrames& s = sampleFrames();
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    for (auto _ : state) {
        std::vector<cv::Mat> frames = s.frames;  // headers only; pixels are shared
        benchmark::DoNotOptimize(analyzer.Analyze(frames, STATIC_PAGE, false));
    }
    state.counters["frames"] = static_cast<double>(s.frames.size());
}
BENCHMARK(BM_AnalyzeStaticPage)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
