// Regression pins, recorded from the straightforward implementation before
// any optimisation work started: every field of the analysis result and the
// full console text of analyse() on several generated recordings. Any later
// change that alters an index, a PSNR digit, a console line or a saved frame
// file shows up here.
//
// The pinned texts live in tests/regression/*.txt. They were written once by
// running this suite with VYRA_RECORD_PINS=1 before the optimisations and must
// not be re-recorded to make an optimisation pass.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "LoadAnalyzer.h"
#include "VyraAnalyzer.h"
#include "VyraMeasure.h"
#include "fixtures.h"
#include "VyraSample.h"

namespace {

using vyra_test::fs::path;

path pinFile(const std::string& name) {
    return path(VYRA_REGRESSION_DIR) / (name + ".txt");
}

// Compares @p text with the pinned file, or records it when VYRA_RECORD_PINS
// is set.
void expectPinned(const std::string& name, const std::string& text) {
    const path file = pinFile(name);
    const char* record = std::getenv("VYRA_RECORD_PINS");
    if (record != nullptr && std::string(record) == "1") {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
        GTEST_SKIP() << "recorded " << file;
    }
    ASSERT_TRUE(vyra_test::fs::exists(file)) << "missing pin " << file;
    EXPECT_EQ(vyra_test::readText(file), text) << "pin " << name;
}

std::string exact(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

// Every field of a result, one per line, doubles to 17 significant digits.
std::string describe(const vyra::AnalysisResult& r) {
    std::ostringstream out;
    out << "pageType " << r.pageType << "\nimageCount " << r.imageCount << "\nloadFinishedIndex "
        << r.loadFinishedIndex << "\n";
    const vyra::StaticPageAnalysisResult& s = r.staticResult;
    out << "baselineIndex " << s.baselineIndex << "\nlogoAppearIndex " << s.logoAppearIndex
        << "\nlogoDisappearIndex " << s.logoDisappearIndex << "\nfirstFrameIndex "
        << s.firstFrameIndex << "\nloadedPsnr " << exact(s.loadedPsnr) << "\npreLoadedPsnr "
        << exact(s.preLoadedPsnr) << "\nobjectCounts";
    for (size_t count : s.objectCounts) out << ' ' << count;
    const vyra::DynamicPageAnalysisResult& d = r.dynamicResult;
    out << "\nmotionStartIndex " << d.motionStartIndex << "\nfirstNonBlankObjectCount "
        << d.firstNonBlankObjectCount << "\nfeatureMatchingResults " << d.featureMatchingResults.size()
        << "\n";
    for (const vyra::FeatureMatchingResult& f : d.featureMatchingResults) {
        out << "  " << f.firstImageIndex << ' ' << f.firstKeypointCount << ' '
            << f.secondKeypointCount << ' ' << f.consistentMatchCount << ' ' << f.isMoving << "\n";
    }
    return out.str();
}

// A 3 s launch at 10 fps, 180x320 unless another size is given.
vyra::sample::SampleOptions smallSample(unsigned seed, int width = 180, int height = 320) {
    vyra::sample::SampleOptions options;
    options.width = width;
    options.height = height;
    options.seconds = 3.0;
    options.fps = 10;
    options.seed = seed;
    return options;
}

std::vector<cv::Mat> sampleFrames(int width, int height, unsigned seed) {
    const vyra::sample::SampleOptions options = smallSample(seed, width, height);
    return vyra::sample::RenderAllFrames(options, vyra::sample::PlanSample(options));
}

// A portrait launch in which two early frames come in another size: one in
// landscape (rotated, then resized) and one smaller (resized only).
std::vector<cv::Mat> mixedSizeFrames() {
    std::vector<cv::Mat> frames = sampleFrames(180, 320, 5);
    cv::Mat landscape;
    cv::rotate(frames[4], landscape, cv::ROTATE_90_CLOCKWISE);
    frames[4] = landscape;
    cv::Mat smaller;
    cv::resize(frames[9], smaller, cv::Size(150, 270), 0, 0, cv::INTER_AREA);
    frames[9] = smaller;
    return frames;
}

// A strip of texture scrolling sideways by 6 pixels a frame, then a
// different page.
std::vector<cv::Mat> scrollingFrames() {
    const cv::Mat wide = vyra_test::texturedFrame(480, 180, 11);
    std::vector<cv::Mat> frames;
    frames.push_back(vyra_test::solidFrame(320, 180));
    for (int k = 0; k < 8; ++k) frames.push_back(wide(cv::Rect(6 * k, 0, 320, 180)).clone());
    frames.push_back(vyra_test::texturedFrame(320, 180, 99));
    return frames;
}

std::string analyseAndDescribe(std::vector<cv::Mat> frames, VyraPageType type, bool stable) {
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    std::string text;
    const std::string console = vyra_test::stdoutOf([&] { text = describe(analyzer.Analyze(frames, type, stable)); });
    return text + "console:\n" + console;
}

TEST(RegressionPins, PortraitSampleStatic) {
    expectPinned("portrait_static", analyseAndDescribe(sampleFrames(180, 320, 1), STATIC_PAGE, false));
}

TEST(RegressionPins, LandscapeSampleStatic) {
    expectPinned("landscape_static", analyseAndDescribe(sampleFrames(320, 180, 2), STATIC_PAGE, false));
}

TEST(RegressionPins, PortraitSampleStableBaseline) {
    expectPinned("portrait_stable", analyseAndDescribe(sampleFrames(180, 320, 3), STATIC_PAGE, true));
}

TEST(RegressionPins, MixedSizesStatic) {
    expectPinned("mixed_sizes_static", analyseAndDescribe(mixedSizeFrames(), STATIC_PAGE, false));
}

TEST(RegressionPins, SampleDynamic) {
    expectPinned("sample_dynamic", analyseAndDescribe(sampleFrames(180, 320, 4), DYNAMIC_PAGE, false));
}

TEST(RegressionPins, ScrollingPageDynamic) {
    expectPinned("scrolling_dynamic", analyseAndDescribe(scrollingFrames(), DYNAMIC_PAGE, false));
}

// ---- analyse() end to end: console text (paths replaced) and files written.

std::string withPlaceholder(std::string text, const std::string& dir) {
    for (size_t at = text.find(dir); at != std::string::npos; at = text.find(dir, at)) {
        text.replace(at, dir.size(), "<DIR>");
    }
    return text;
}

// FNV-1a of a file's bytes.
std::uint64_t fileHash(const path& file) {
    const std::string bytes = vyra_test::readText(file);
    std::uint64_t hash = 1469598103934665603ULL;
    for (unsigned char c : bytes) {
        hash = (hash ^ c) * 1099511628211ULL;
    }
    return hash;
}

std::string runAnalyse(const vyra_test::TempDir& work, const std::string& recording, int frameMode,
                       int fps, int start, int end) {
    vyra_test::ScopedCwd cwd(work.path());
    const auto run = vyra_test::captureConsole(
        [&] { return analyse(recording.c_str(), frameMode, fps, start, end); });
    return withPlaceholder(run.out, work.str()) + "returned " + exact(run.value) + "\n";
}

TEST(RegressionPins, AnalyseTimestampFolder) {
    vyra_test::TempDir work;
    vyra::sample::SampleOptions options = smallSample(6);
    options.timeJitter = 0.3;
    vyra::sample::WriteSampleFrames((work / "frames-in").string(), options);
    const std::string recording = (work / "frames-in").string();
    std::string text = runAnalyse(work, recording, 1, 0, 0, 0);
    text += runAnalyse(work, recording, 1, 0, 3, 0);
    text += runAnalyse(work, recording, 2, 10, 0, 20);
    expectPinned("analyse_timestamp_folder", text);
}

TEST(RegressionPins, AnalyseVideoWithSavedFrames) {
    vyra_test::TempDir work;
    const vyra::sample::SampleOptions options = smallSample(7);
    vyra::sample::WriteSampleVideo((work / "launch.mp4").string(), options);
    vyra_test::fs::create_directory(work / "frames");
    std::string text = runAnalyse(work, (work / "launch.mp4").string(), 2, 10, 0, 0);
    std::vector<path> saved;
    for (const auto& entry : vyra_test::fs::directory_iterator(work / "frames")) saved.push_back(entry.path());
    std::sort(saved.begin(), saved.end());
    text += "saved " + std::to_string(saved.size()) + "\n";
    for (const path& file : saved) {
        char line[96];
        std::snprintf(line, sizeof line, "%s %016" PRIx64 "\n", file.filename().c_str(), fileHash(file));
        text += line;
    }
    expectPinned("analyse_video", text);
}

// ---- vyra::Measure: every field of the result and the frames it saved.
// Pinned before the measurement API was made to stream its frames.

std::string describeKey(const char* name, const vyra::KeyFrame& key) {
    return std::string(name) + " " + std::to_string(key.index) + " " + exact(key.time) + "\n";
}

std::string describeSeries(const char* name, const std::vector<double>& values) {
    std::string text = name;
    for (double value : values) text += " " + exact(value);
    return text + "\n";
}

std::string describe(const vyra::MeasureResult& r) {
    std::string text = describe(r.analysis);
    text += "frameCount " + std::to_string(r.frameCount) + "\nframeSize " + std::to_string(r.frameWidth) +
            "x" + std::to_string(r.frameHeight) + "\nlaunchTime " + exact(r.launchTime) +
            "\nestimatedTimeCount " + std::to_string(r.estimatedTimeCount) + "\n";
    text += describeSeries("frameTimes", r.frameTimes);
    text += describeKey("loadFinished", r.loadFinished) + describeKey("baseline", r.baseline) +
            describeKey("logoAppear", r.logoAppear) + describeKey("logoDisappear", r.logoDisappear) +
            describeKey("firstFrame", r.firstFrame) + describeKey("motionStart", r.motionStart) +
            describeKey("firstVisualChange", r.firstVisualChange) +
            describeKey("lastVisualChange", r.lastVisualChange) +
            describeKey("visuallyComplete85", r.visuallyComplete85) +
            describeKey("visuallyComplete95", r.visuallyComplete95) +
            describeKey("visuallyComplete99", r.visuallyComplete99);
    text += "speedIndexMs " + exact(r.speedIndexMs) + "\n";
    text += describeSeries("progress", r.visual.progress);
    text += describeSeries("changedFraction", r.visual.changedFraction);
    return text;
}

// FNV-1a of an image file's pixels (as OpenCV decodes it, unchanged), with
// its size and type: the same for two files holding the same picture.
std::uint64_t pixelHash(const path& file) {
    const cv::Mat image = cv::imread(file.string(), cv::IMREAD_UNCHANGED);
    std::uint64_t hash = 1469598103934665603ULL;
    const auto add = [&hash](const void* data, size_t size) {
        for (size_t k = 0; k < size; ++k) hash = (hash ^ static_cast<const unsigned char*>(data)[k]) * 1099511628211ULL;
    };
    const int header[3] = {image.rows, image.cols, image.type()};
    add(header, sizeof header);
    for (int y = 0; y < image.rows; ++y) add(image.ptr(y), image.cols * image.elemSize());
    return hash;
}

// Names and pixel hashes of the image files in @p dir, in name order.
std::string describeFiles(const path& dir) {
    std::vector<path> files;
    for (const auto& entry : vyra_test::fs::directory_iterator(dir)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::string text = "files " + std::to_string(files.size()) + "\n";
    for (const path& file : files) {
        char line[96];
        std::snprintf(line, sizeof line, "%s %016" PRIx64 "\n", file.filename().c_str(), pixelHash(file));
        text += line;
    }
    return text;
}

// Frames named 0000.png, 0001.png, ...
void writeNumberedFolder(const path& dir, const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (size_t k = 0; k < frames.size(); ++k) {
        char name[32];
        std::snprintf(name, sizeof name, "%04zu.png", k);
        names.push_back(name);
    }
    vyra_test::writePngFolder(dir, names, frames);
}

// Every Measure pin holds whether the intake keeps the frames in memory or
// keeps none of them (a limit of 0 bytes), so that the analysis reads them
// again from the recording.
class MeasurePins : public testing::TestWithParam<size_t> {
protected:
    // The options the pins were recorded with (the noise tolerance was 20
    // levels by default then), with the parameter's memory limit.
    vyra::MeasureOptions pinnedOptions() const {
        vyra::MeasureOptions options;
        options.visualProgress.levelTolerance = vyra::kVisualProgressLevelTolerance;
        options.frameMemoryLimit = GetParam();
        return options;
    }

    vyra::MeasureOptions atFrameRate(double fps) const {
        vyra::MeasureOptions options = pinnedOptions();
        options.timing = vyra::Timing::FrameRate;
        options.fps = fps;
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(FrameMemory, MeasurePins, testing::Values(vyra::kDefaultFrameMemoryLimit, size_t(0)));

TEST_P(MeasurePins, MeasureVideoWithSavedFrames) {
    vyra_test::TempDir work;
    vyra::sample::WriteSampleVideo((work / "launch.mp4").string(), smallSample(8));
    vyra::MeasureOptions options = pinnedOptions();
    options.saveFramesDir = (work / "saved").string();
    const std::string text = describe(vyra::Measure((work / "launch.mp4").string(), options));
    expectPinned("measure_video", text + describeFiles(work / "saved"));
}

TEST_P(MeasurePins, MeasureTimestampFolderRangeAndNextFrame) {
    vyra_test::TempDir work;
    vyra::sample::SampleOptions sample = smallSample(9);
    sample.timeJitter = 0.3;
    vyra::sample::WriteSampleFrames((work / "in").string(), sample);
    vyra::MeasureOptions options = pinnedOptions();
    options.start = 2;
    options.end = 27;
    options.launchTimeMode = vyra::LaunchTimeMode::NextFrame;
    expectPinned("measure_timestamp_folder", describe(vyra::Measure((work / "in").string(), options)));
}

TEST_P(MeasurePins, MeasureMixedSizesStaticAndStable) {
    vyra_test::TempDir work;
    writeNumberedFolder(work / "in", mixedSizeFrames());
    vyra::MeasureOptions options = atFrameRate(10.0);
    std::string text = describe(vyra::Measure((work / "in").string(), options));
    options.stableBaseline = true;
    text += describe(vyra::Measure((work / "in").string(), options));
    expectPinned("measure_mixed_sizes", text);
}

TEST_P(MeasurePins, MeasureDynamicPages) {
    vyra_test::TempDir work;
    writeNumberedFolder(work / "scroll", scrollingFrames());
    writeNumberedFolder(work / "sample", sampleFrames(180, 320, 10));
    vyra::MeasureOptions options = atFrameRate(30.0);
    options.pageType = DYNAMIC_PAGE;
    std::string text = describe(vyra::Measure((work / "scroll").string(), options));
    text += describe(vyra::Measure((work / "sample").string(), options));
    expectPinned("measure_dynamic", text);
}

TEST_P(MeasurePins, MeasureCropIgnoreStableWithSavedFrames) {
    vyra_test::TempDir work;
    writeNumberedFolder(work / "in", sampleFrames(180, 320, 11));
    vyra::MeasureOptions options = atFrameRate(10.0);
    options.crop = vyra::Region{0, 10, 180, 300};
    options.ignore = {vyra::Region{0, 0, 180, 12}, vyra::Region{60, 150, 40, 20}};
    options.stableBaseline = true;
    options.saveFramesDir = (work / "saved").string();
    const std::string text = describe(vyra::Measure((work / "in").string(), options));
    expectPinned("measure_crop_ignore", text + describeFiles(work / "saved"));
}

}  // namespace
