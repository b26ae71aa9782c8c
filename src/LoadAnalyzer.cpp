#include "LoadAnalyzer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <utility>

#include "VyraAnalysisResults.h"
#include "VyraAnalyzer.h"
#include "analysis/Thresholds.h"
#include "recording/FrameFiles.h"
#include "recording/FrameSaver.h"
#include "recording/FrameSource.h"
#include "store/LargeFrameAllocator.h"

using vyra::detail::FrameRange;
using vyra::detail::FrameSaver;
using vyra::detail::FrameSource;
using vyra::detail::ListFrameFiles;
using vyra::detail::OpenFolderSource;
using vyra::detail::OpenVideoSource;
using vyra::detail::ParseNameTime;
using vyra::detail::Policy;
using vyra::detail::SortFrameNames;
using vyra::detail::SourceFrame;
using vyra::detail::SourceOptions;

namespace {

// ------------------------------------------------------------------ constants

const char* const kVideoExtensions[] = {"mkv", "mp4", "mov", "rm", "ram"};
const char* const kSavedFrameFolder = "frames";
const int kFirstSavedFrameNumber = 18938;
const char* const kReportFile = "record.log";
const int kTimestampMode = 1;


// ------------------------------------------------------------------- helpers

// printf-style formatting into a std::string.
std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string formatText(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (length > 0) {
        std::vector<char> buffer(static_cast<size_t>(length) + 1, '\0');
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
        text.assign(buffer.data(), static_cast<size_t>(length));
    }
    va_end(args);
    return text;
}

// Broken-down local time, or false when the calendar cannot represent it.
bool toLocalTime(std::time_t when, std::tm& out) {
    return localtime_r(&when, &out) != nullptr;
}

// Appends every frame of @p source to @p mats, each in a buffer of its own
// from the large-frame allocator; with @p saver, saves frame k as number
// kFirstSavedFrameNumber + k.
void readAll(FrameSource& source, std::vector<cv::Mat>& mats, FrameSaver* saver) {
    for (long number = kFirstSavedFrameNumber;; ++number) {
        SourceFrame frame;
        vyra::detail::UseLargeFrameMemory(frame.pixels);
        if (!source.Next(frame)) {
            break;
        }
        if (saver != nullptr) {
            saver->Save(frame.pixels, number);
        }
        mats.push_back(std::move(frame.pixels));
    }
}

// Where analysis index @p index is found in the names list. Folder runs that
// start past the first file (startIndex > 0) load names[startIndex + k] as
// frame k; the timestamp mode looks frames up by that position. An index of
// -1 (nothing found) stays -1.
int namePosition(int index, int frameMode, int startIndex) {
    if (frameMode != kTimestampMode || startIndex <= 0 || index < 0) {
        return index;
    }
    return startIndex + index;
}

// What a frame line shows for an analysis index: the time in the frame's
// file name in the timestamp mode, the index itself otherwise.
int printedFrameValue(std::vector<std::string>& names, int index, int frameMode,
                      int startIndex) {
    if (frameMode != kTimestampMode) {
        return index;
    }
    return readFileName(names, namePosition(index, frameMode, startIndex));
}

template <typename T>
void printLine(const char* label, const T& value) {
    std::cout << label << value << std::endl;
}

void printFrameLines(const vyra::AnalysisResult& result, std::vector<std::string>& names,
                     int frameMode, int startIndex) {
    const vyra::StaticPageAnalysisResult& found = result.staticResult;
    const auto value = [&](int index) {
        return printedFrameValue(names, index, frameMode, startIndex);
    };
    printLine("页面加载完成时的图像索引:", value(result.loadFinishedIndex));
    printLine("页面logo出现的图像的索引::", value(found.logoAppearIndex));
    printLine("页面logo消失的图像的索引::", value(found.logoDisappearIndex));
    printLine("基准图像的索引::", value(found.baselineIndex));
    printLine("页面首帧出现图像的索引::", value(found.firstFrameIndex));
}

void printMeasureLines(const vyra::AnalysisResult& result) {
    const vyra::StaticPageAnalysisResult& found = result.staticResult;
    printLine("加载完成时的图像和基准图像之间的psnr::", found.loadedPsnr);
    printLine("加载完成的前一张图像和基准图像之间的psnr::", found.preLoadedPsnr);
    printLine("所有图片的物体个数::", found.objectCounts.size());
}

// Decoded frames of the recording; @p names receives a folder's PNG names.
std::vector<cv::Mat> loadFrames(const std::string& path, std::vector<std::string>& names,
                                int startIndex, int endIndex) {
    std::vector<cv::Mat> frames;
    if (checkVideoFile(path)) {
        transformVideo2Mats(path, frames);
    } else {
        transformImages2Mats(path, frames, names, startIndex, endIndex);
    }
    return frames;
}

std::string reportLine(const std::string& path, const vyra::AnalysisResult& result) {
    return getSystemTime() + " " + path + "  结果是 :" +
           std::to_string(result.dynamicResult.featureMatchingResults.size());
}

// One line "Vyra[Error]: <reason>" on standard error; line breaks inside the
// reason become spaces and trailing white space is dropped, so the report
// stays a single line. Allocates nothing.
void printErrorLine(const char* reason) {
    size_t length = std::char_traits<char>::length(reason);
    while (length > 0 && (reason[length - 1] == '\n' || reason[length - 1] == '\r' ||
                          reason[length - 1] == ' ' || reason[length - 1] == '\t')) {
        --length;
    }
    std::cerr << "Vyra[Error]: ";
    for (size_t k = 0; k < length; ++k) {
        const char c = reason[k];
        std::cerr.put(c == '\n' || c == '\r' ? ' ' : c);
    }
    std::cerr << std::endl;
}

double runAnalyse(const char* path, int frameMode, int fps, int startIndex, int endIndex) {
    const int shellStatus = std::system("chcp 65001");
    static_cast<void>(shellStatus);
    if (path == nullptr) {
        printErrorLine("path is NULL");
        return std::numeric_limits<double>::quiet_NaN();
    }
    const std::string recording(path);
    std::cout << formatText(" PATH: %s ;frameMode: %d ;fps: %d ;startIndex: %d ;endIndex: %d \n",
                            recording.c_str(), frameMode, fps, startIndex, endIndex)
              << std::flush;
    return analyseFrame(recording, frameMode, fps, startIndex, endIndex);
}

}  // namespace

// ------------------------------------------------------------ library entry

extern "C" double analyse(const char* path, int frameMode, int fps, int startIndex,
                          int endIndex) {
    try {
        return runAnalyse(path, frameMode, fps, startIndex, endIndex);
    } catch (const std::exception& error) {
        printErrorLine(error.what());
    } catch (...) {
        printErrorLine("unknown exception");
    }
    return std::numeric_limits<double>::quiet_NaN();
}

double analyseFrame(std::string path, int frameMode, int fps, int startIndex, int endIndex) {
    std::vector<std::string> names;
    std::vector<cv::Mat> frames = loadFrames(path, names, startIndex, endIndex);
    printLine("获取到图片数::", frames.size());
    std::cout << "Do Analyzering..." << std::endl;

    using namespace vyra::detail;
    auto analyzer = std::make_unique<vyra::Analyzer>(kPsnrThreshold, kBaselineOverlapRatio,
                                                     kSimilarOverlapRatio, kContentRatioThreshold,
                                                     kObjectCountThreshold);
    const vyra::AnalysisResult result = analyzer->Analyze(frames, STATIC_PAGE, false);

    std::cout << "静态页面分析结果" << std::endl;
    printFrameLines(result, names, frameMode, startIndex);
    printMeasureLines(result);

    const int endPosition = namePosition(result.loadFinishedIndex, frameMode, startIndex) + 1;
    const double launchTime =
        count_launch_time_mseconds(names, startIndex, endPosition, frameMode, fps);
    printLine("计算启动耗时::", launchTime);
    analyzer.reset();

    writeFile(kReportFile, reportLine(path, result));
    return launchTime;
}

// ------------------------------------------------------------ frame sources

bool compareFileType(std::string fileName, std::string type) {
    const size_t dot = fileName.rfind('.');
    const std::string extension = dot == std::string::npos ? fileName : fileName.substr(dot + 1);
    return extension == type;
}

bool checkVideoFile(std::string path) {
    return std::any_of(std::begin(kVideoExtensions), std::end(kVideoExtensions),
                       [&path](const char* extension) { return compareFileType(path, extension); });
}

void getFiles(std::string dir, std::vector<std::string>& files) {
    ListFrameFiles(dir, Policy::Historic, files);
    std::cout << "files size:: " << files.size() << std::endl;
}

void transformImages2Mats(std::string dir, std::vector<cv::Mat>& mats,
                          std::vector<std::string>& names, int startIndex, int endIndex) {
    getFiles(dir, names);
    SortFrameNames(names);
    SourceOptions options;
    options.range = FrameRange{startIndex, endIndex};
    options.policy = Policy::Historic;
    readAll(*OpenFolderSource(dir, names, options), mats, nullptr);
}

void transformVideo2Mats(std::string path, std::vector<cv::Mat>& mats) {
    SourceOptions options;
    options.policy = Policy::Historic;
    const std::unique_ptr<FrameSource> source = OpenVideoSource(path, options);
    // Frames are saved on a second thread while the next ones decode; the
    // writer references the kept frames (no pixel copies) and is done before
    // this returns, so every file is complete by then.
    FrameSaver saver(kSavedFrameFolder, Policy::Historic, true);
    readAll(*source, mats, &saver);
    saver.Finish();
}

bool cmp(const std::string& a, const std::string& b) {
    return a.compare(b) > 0;
}

// ------------------------------------------------- launch time and report

int readFileName(std::vector<std::string>& names, int index) {
    if (index <= 0 || static_cast<size_t>(index) >= names.size()) {
        return 0;
    }
    const long long value = ParseNameTime(names[static_cast<size_t>(index)]).value_or(0);
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

double count_launch_time_mseconds(std::vector<std::string>& names, int startPos, int endPos,
                                  int frameMode, int fps) {
    if (frameMode == kTimestampMode) {
        const int start = readFileName(names, startPos);
        const int end = readFileName(names, endPos);
        std::cout << "cv startTime:" << start / 1000.0 << ", endTime:" << end / 1000.0
                  << std::endl;
        const uint32_t elapsed = static_cast<uint32_t>(end) - static_cast<uint32_t>(start);
        return static_cast<int32_t>(elapsed) / 1000.0;
    }
    const double launchTime = static_cast<double>(endPos) / static_cast<double>(fps);
    std::cout << "ffmpeg startTime:0, endTime:" << launchTime << std::endl;
    return launchTime;
}

void writeFile(std::string fileName, std::string content) {
    std::ofstream out(fileName, std::ios::out | std::ios::app);
    if (out.is_open()) {
        // The line and its newline leave in one write to the end of the
        // file, so that lines appended by other processes never cut it.
        content += '\n';
        out.rdbuf()->pubsetbuf(nullptr, 0);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        out.flush();
    } else {
        std::cout << "open file failure" << std::endl;
    }
    out.close();
}

std::string getSystemTime() {
    std::tm local{};
    if (!toLocalTime(std::time(nullptr), local)) {
        return " 0000-00-00 00:00:00";
    }
    char buffer[50] = {};
    std::snprintf(buffer, sizeof buffer, " %04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return buffer;
}

std::string convertTimeStamp2TimeStr(long timestamp) {
    std::tm local{};
    if (!toLocalTime(static_cast<std::time_t>(timestamp), local)) {
        return "0000-00-00 00:00:00";
    }
    char buffer[80] = {};
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
    return buffer;
}
