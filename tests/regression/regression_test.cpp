// Regression pins, recorded from the straightforward implementation before
// any optimisation work: every field of the analysis and measurement results,
// the console text of analyse() and the frames saved, on sample recordings.
// The pinned texts are tests/regression/*.txt; VYRA_RECORD_PINS=1 writes them
// anew, which is never done to make a change pass.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "LoadAnalyzer.h"
#include "VyraAnalyzer.h"
#include "VyraMeasure.h"
#include "VyraSample.h"
#include "fixtures.h"

namespace {

using vyra_test::fs::path;

std::string exact(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

std::string describe(const vyra::AnalysisResult& r) {
    const vyra::StaticPageAnalysisResult& s = r.staticResult;
    const vyra::DynamicPageAnalysisResult& d = r.dynamicResult;
    std::ostringstream out;
    out << "pageType " << r.pageType << "\nimageCount " << r.imageCount << "\nloadFinishedIndex " << r.loadFinishedIndex
        << "\nbaselineIndex " << s.baselineIndex << "\nlogoAppearIndex " << s.logoAppearIndex << "\nlogoDisappearIndex "
        << s.logoDisappearIndex << "\nfirstFrameIndex " << s.firstFrameIndex << "\nloadedPsnr " << exact(s.loadedPsnr)
        << "\npreLoadedPsnr " << exact(s.preLoadedPsnr) << "\nobjectCounts";
    for (size_t count : s.objectCounts) out << ' ' << count;
    out << "\nmotionStartIndex " << d.motionStartIndex << "\nfirstNonBlankObjectCount " << d.firstNonBlankObjectCount
        << "\nfeatureMatchingResults " << d.featureMatchingResults.size() << "\n";
    for (const vyra::FeatureMatchingResult& f : d.featureMatchingResults) {
        out << "  " << f.firstImageIndex << ' ' << f.firstKeypointCount << ' ' << f.secondKeypointCount << ' '
            << f.consistentMatchCount << ' ' << f.isMoving << "\n";
    }
    return out.str();
}

std::string describe(const vyra::MeasureResult& r) {
    std::string text = describe(r.analysis) + "frameCount " + std::to_string(r.frameCount) + "\nframeSize " +
                       std::to_string(r.frameWidth) + "x" + std::to_string(r.frameHeight) + "\nlaunchTime " +
                       exact(r.launchTime) + "\nestimatedTimeCount " + std::to_string(r.estimatedTimeCount) + "\n";
    const auto series = [&text](const char* name, const std::vector<double>& values) {
        text += name;
        for (double value : values) text += " " + exact(value);
        text += "\n";
    };
    series("frameTimes", r.frameTimes);
    for (const auto& [name, key] : std::vector<std::pair<const char*, const vyra::KeyFrame*>>{
             {"loadFinished", &r.loadFinished}, {"baseline", &r.baseline}, {"logoAppear", &r.logoAppear},
             {"logoDisappear", &r.logoDisappear}, {"firstFrame", &r.firstFrame}, {"motionStart", &r.motionStart},
             {"firstVisualChange", &r.firstVisualChange}, {"lastVisualChange", &r.lastVisualChange},
             {"visuallyComplete85", &r.visuallyComplete85}, {"visuallyComplete95", &r.visuallyComplete95},
             {"visuallyComplete99", &r.visuallyComplete99}}) {
        text += std::string(name) + " " + std::to_string(key->index) + " " + exact(key->time) + "\n";
    }
    text += "speedIndexMs " + exact(r.speedIndexMs) + "\n";
    series("progress", r.visual.progress);
    series("changedFraction", r.visual.changedFraction);
    return text;
}

// Names and FNV-1a hashes of the files in @p dir, of their bytes or of the
// pixels they decode to (with size and type).
std::string describeFiles(const path& dir, bool pixels) {
    std::vector<path> files;
    for (const auto& entry : vyra_test::fs::directory_iterator(dir)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::string text = (pixels ? "files " : "saved ") + std::to_string(files.size()) + "\n";
    for (const path& file : files) {
        std::uint64_t hash = 1469598103934665603ULL;
        const auto add = [&hash](const void* data, size_t size) {
            for (size_t k = 0; k < size; ++k) hash = (hash ^ static_cast<const unsigned char*>(data)[k]) * 1099511628211ULL;
        };
        if (pixels) {
            const cv::Mat image = cv::imread(file.string(), cv::IMREAD_UNCHANGED);
            const int header[3] = {image.rows, image.cols, image.type()};
            add(header, sizeof header);
            for (int y = 0; y < image.rows; ++y) add(image.ptr(y), image.cols * image.elemSize());
        } else {
            const std::string bytes = vyra_test::readText(file);
            add(bytes.data(), bytes.size());
        }
        char line[96];
        std::snprintf(line, sizeof line, "%s %016" PRIx64 "\n", file.filename().c_str(), hash);
        text += line;
    }
    return text;
}

// A 3 s launch at 10 fps, 180x320 unless another size is given.
vyra::sample::SampleOptions sample(unsigned seed, int width = 180, int height = 320) {
    vyra::sample::SampleOptions options;
    options.width = width, options.height = height, options.seconds = 3.0, options.fps = 10, options.seed = seed;
    return options;
}

std::vector<cv::Mat> sampleFrames(unsigned seed, int width = 180, int height = 320) {
    return vyra::sample::RenderAllFrames(sample(seed, width, height), vyra::sample::PlanSample(sample(seed, width, height)));
}

// Two early frames of another size: one turned to landscape, one smaller.
std::vector<cv::Mat> mixedSizeFrames() {
    std::vector<cv::Mat> frames = sampleFrames(5);
    cv::Mat turned, smaller;
    cv::rotate(frames[4], turned, cv::ROTATE_90_CLOCKWISE);
    cv::resize(frames[9], smaller, cv::Size(150, 270), 0, 0, cv::INTER_AREA);
    frames[4] = turned, frames[9] = smaller;
    return frames;
}

// A strip of texture scrolling sideways 6 px a frame, then another page.
std::vector<cv::Mat> scrollingFrames() {
    const cv::Mat wide = vyra_test::texturedFrame(480, 180, 11);
    std::vector<cv::Mat> frames = {vyra_test::solidFrame(320, 180)};
    for (int k = 0; k < 8; ++k) frames.push_back(wide(cv::Rect(6 * k, 0, 320, 180)).clone());
    frames.push_back(vyra_test::texturedFrame(320, 180, 99));
    return frames;
}

std::string analysed(std::vector<cv::Mat> frames, VyraPageType type, bool stable) {
    std::string text;
    const std::string console = vyra_test::stdoutOf(
        [&] { text = describe(vyra::Analyzer(20.0, 0.5, 0.85, 0.15, 200).Analyze(frames, type, stable)); });
    return text + "console:\n" + console;
}

// analyse() in @p work: its console (the folder replaced by <DIR>) and what it returned.
std::string runAnalyse(const vyra_test::TempDir& work, const std::string& recording, int mode, int fps, int start, int end) {
    vyra_test::ScopedCwd cwd(work.path());
    const auto run = vyra_test::captureConsole([&] { return analyse(recording.c_str(), mode, fps, start, end); });
    std::string text = run.out;
    for (size_t at = text.find(work.str()); at != std::string::npos; at = text.find(work.str(), at)) {
        text.replace(at, work.str().size(), "<DIR>");
    }
    return text + "returned " + exact(run.value) + "\n";
}

std::string folder(const path& dir, const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (size_t k = 0; k < frames.size(); ++k) names.push_back(cv::format("%04zu.png", k));
    vyra_test::writePngFolder(dir, names, frames);
    return dir.string();
}

// Measure with the options the pins were recorded with (a noise tolerance of
// 20 levels was the default then) and the given frame memory limit.
std::string measured(const std::string& recording, size_t memory, std::function<void(vyra::MeasureOptions&)> change) {
    vyra::MeasureOptions options;
    options.visualProgress.levelTolerance = vyra::kVisualProgressLevelTolerance;
    options.frameMemoryLimit = memory;
    change(options);
    return describe(vyra::Measure(recording, options));
}

void atFrameRate(vyra::MeasureOptions& o, double fps) { o.timing = vyra::Timing::FrameRate, o.fps = fps; }

TEST(RegressionPins, EveryPinnedTextIsProducedAgain) {
    vyra_test::TempDir work;
    vyra::sample::SampleOptions jittered = sample(6);
    jittered.timeJitter = 0.3;
    vyra::sample::WriteSampleFrames((work / "frames-in").string(), jittered);
    vyra::sample::WriteSampleVideo((work / "launch.mp4").string(), sample(7));
    jittered = sample(9);
    jittered.timeJitter = 0.3;
    vyra::sample::WriteSampleFrames((work / "jittered9").string(), jittered);
    vyra::sample::WriteSampleVideo((work / "launch8.mp4").string(), sample(8));
    const std::string mixed = folder(work / "mixed", mixedSizeFrames()), scroll = folder(work / "scroll", scrollingFrames()),
                      dynamic = folder(work / "dynamic", sampleFrames(10)), cropped = folder(work / "cropped", sampleFrames(11));
    std::vector<std::pair<std::string, std::function<std::string()>>> pins = {
        {"portrait_static", [] { return analysed(sampleFrames(1), STATIC_PAGE, false); }},
        {"landscape_static", [] { return analysed(sampleFrames(2, 320, 180), STATIC_PAGE, false); }},
        {"portrait_stable", [] { return analysed(sampleFrames(3), STATIC_PAGE, true); }},
        {"mixed_sizes_static", [] { return analysed(mixedSizeFrames(), STATIC_PAGE, false); }},
        {"sample_dynamic", [] { return analysed(sampleFrames(4), DYNAMIC_PAGE, false); }},
        {"scrolling_dynamic", [] { return analysed(scrollingFrames(), DYNAMIC_PAGE, false); }},
        {"analyse_timestamp_folder", [&] {
             const std::string in = (work / "frames-in").string();
             std::string text = runAnalyse(work, in, 1, 0, 0, 0);
             text += runAnalyse(work, in, 1, 0, 3, 0);
             return text + runAnalyse(work, in, 2, 10, 0, 20);
         }},
        {"analyse_video", [&] {
             vyra_test::fs::create_directory(work / "frames");
             const std::string text = runAnalyse(work, (work / "launch.mp4").string(), 2, 10, 0, 0);
             return text + describeFiles(work / "frames", false);
         }},
    };
    // Every Measure pin holds whether the frames are kept in memory or read again (a limit of 0 bytes).
    for (const size_t memory : {vyra::kDefaultFrameMemoryLimit, size_t(0)}) {
        const std::string saved = (work / ("saved" + std::to_string(memory))).string();
        pins.emplace_back("measure_video", [=, &work] {
            const std::string text = measured((work / "launch8.mp4").string(), memory,
                                              [&](vyra::MeasureOptions& o) { o.saveFramesDir = saved + "v"; });
            return text + describeFiles(saved + "v", true);  // after the measurement wrote them
        });
        pins.emplace_back("measure_timestamp_folder", [=, &work] {
            return measured((work / "jittered9").string(), memory, [](vyra::MeasureOptions& o) {
                o.start = 2, o.end = 27, o.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
            });
        });
        pins.emplace_back("measure_mixed_sizes", [=] {
            const std::string last = measured(mixed, memory, [](vyra::MeasureOptions& o) { atFrameRate(o, 10); });
            return last + measured(mixed, memory, [](vyra::MeasureOptions& o) { atFrameRate(o, 10), o.stableBaseline = true; });
        });
        pins.emplace_back("measure_dynamic", [=] {
            const auto options = [](vyra::MeasureOptions& o) { atFrameRate(o, 30), o.pageType = DYNAMIC_PAGE; };
            const std::string first = measured(scroll, memory, options);
            return first + measured(dynamic, memory, options);
        });
        pins.emplace_back("measure_crop_ignore", [=] {
            const std::string text = measured(cropped, memory, [&](vyra::MeasureOptions& o) {
                atFrameRate(o, 10), o.crop = vyra::Region{0, 10, 180, 300}, o.stableBaseline = true;
                o.ignore = {vyra::Region{0, 0, 180, 12}, vyra::Region{60, 150, 40, 20}}, o.saveFramesDir = saved + "c";
            });
            return text + describeFiles(saved + "c", true);
        });
    }
    const char* record = std::getenv("VYRA_RECORD_PINS");
    for (const auto& [name, produce] : pins) {
        const path file = path(VYRA_REGRESSION_DIR) / (name + ".txt");
        const std::string text = produce();
        if (record != nullptr && std::string(record) == "1") {
            std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
        } else {
            EXPECT_EQ(vyra_test::readText(file), text) << "pin " << name;
        }
    }
}

}  // namespace
