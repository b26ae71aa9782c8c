// Static page analysis of a rendered sample launch held in memory, timed on
// its own (rendering is not counted).
//
//   vyra_bench_analysis [seconds] [repeats]
//
// Renders the 1080x1920 30 fps sample of the given length (default 10 s),
// then runs Analyzer::Analyze(frames, STATIC_PAGE, false) `repeats` times
// (default 5) and prints one line per run and a summary:
//
//   run <k> <milliseconds> ms, cpu <milliseconds> ms, <n> page faults
//   median_ms <milliseconds>
//   result <every field of the result, doubles to 17 digits>
//
// The result line lets two builds be checked for identical answers. Under
// valgrind --tool=callgrind --instr-atstart=no only the analysis is
// instrumented.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/resource.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#endif

#include "VyraAnalyzer.h"
#include "VyraSample.h"

namespace {

long minorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// User plus system CPU time of the process, all threads, in milliseconds.
double cpuMilliseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

std::string describe(const vyra::AnalysisResult& r) {
    const vyra::StaticPageAnalysisResult& s = r.staticResult;
    char text[512];
    std::snprintf(text, sizeof text,
                  "imageCount %zu loadFinished %d baseline %d logoAppear %d logoDisappear %d "
                  "firstFrame %d loadedPsnr %.17g preLoadedPsnr %.17g objectCounts",
                  r.imageCount, r.loadFinishedIndex, s.baselineIndex, s.logoAppearIndex,
                  s.logoDisappearIndex, s.firstFrameIndex, s.loadedPsnr, s.preLoadedPsnr);
    std::string line = text;
    for (size_t count : s.objectCounts) line += " " + std::to_string(count);
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    vyra::sample::SampleOptions options;
    options.seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    options.fps = 30;
    options.width = 1080;
    options.height = 1920;
    const int repeats = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    const std::vector<cv::Mat> rendered =
        vyra::sample::RenderAllFrames(options, vyra::sample::PlanSample(options));

    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    std::vector<double> times;
    std::string result;
    for (int k = 0; k < repeats; ++k) {
        std::vector<cv::Mat> frames = rendered;  // headers only; pixels are shared
        const long faultsBefore = minorFaults();
        const double cpuBefore = cpuMilliseconds();
        const auto start = std::chrono::steady_clock::now();
        CALLGRIND_START_INSTRUMENTATION;
        const vyra::AnalysisResult found = analyzer.Analyze(frames, STATIC_PAGE, false);
        CALLGRIND_STOP_INSTRUMENTATION;
        const auto stop = std::chrono::steady_clock::now();
        times.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
        std::printf("run %d %.1f ms, cpu %.1f ms, %ld page faults\n", k, times.back(),
                    cpuMilliseconds() - cpuBefore, minorFaults() - faultsBefore);
        result = describe(found);
    }
    std::sort(times.begin(), times.end());
    std::printf("median_ms %.1f\nresult %s\n", times[times.size() / 2], result.c_str());
    return 0;
}
