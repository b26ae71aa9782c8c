// Whole runs through the library entry: recordings whose launch is known by
// construction, the console text of a run line by line, the launch time in
// both frame modes, the report file and the failure paths of analyse().
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include "LoadAnalyzer.h"
#include "capture.h"
#include "fixtures.h"

namespace {

using namespace vyra_test;

// What the analysis reports, as the frame lines print it.
struct Findings {
    int loadFinished;
    int logoAppear;
    int logoDisappear;
    int baseline;
    int firstFrame;
    std::string loadedPsnr;
    std::string preLoadedPsnr;
    size_t objectCounts;
};

std::string pathLine(const std::string& path, int frameMode, int fps, int startIndex,
                     int endIndex) {
    return " PATH: " + path + " ;frameMode: " + std::to_string(frameMode) +
           " ;fps: " + std::to_string(fps) + " ;startIndex: " + std::to_string(startIndex) +
           " ;endIndex: " + std::to_string(endIndex) + " ";
}

// The lines of a run from the frame count to the launch time.
std::vector<std::string> runLines(size_t frameCount, const Findings& f,
                                  const std::string& launchLine, const std::string& launchTime) {
    return {
        "获取到图片数::" + std::to_string(frameCount),
        "Do Analyzering...",
        "静态页面分析结果",
        "页面加载完成时的图像索引:" + std::to_string(f.loadFinished),
        "页面logo出现的图像的索引::" + std::to_string(f.logoAppear),
        "页面logo消失的图像的索引::" + std::to_string(f.logoDisappear),
        "基准图像的索引::" + std::to_string(f.baseline),
        "页面首帧出现图像的索引::" + std::to_string(f.firstFrame),
        "加载完成时的图像和基准图像之间的psnr::" + f.loadedPsnr,
        "加载完成的前一张图像和基准图像之间的psnr::" + f.preLoadedPsnr,
        "所有图片的物体个数::" + std::to_string(f.objectCounts),
        launchLine,
        "计算启动耗时::" + launchTime,
    };
}

std::vector<std::string> concat(std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

Captured<double> runAnalyse(const std::string& path, int frameMode, int fps, int startIndex,
                            int endIndex) {
    return captureConsole([&] { return analyse(path.c_str(), frameMode, fps, startIndex, endIndex); });
}

void expectConsole(const Captured<double>& run, const std::vector<std::string>& lines) {
    EXPECT_EQ(splitLines(run.out), lines);
    ASSERT_FALSE(run.out.empty());
    EXPECT_EQ(run.out.back(), '\n');
}

// Lines on standard error that carry the library's error prefix.
std::vector<std::string> errorLines(const std::string& err) {
    std::vector<std::string> found;
    for (const std::string& line : splitLines(err)) {
        if (line.rfind("Vyra[Error]: ", 0) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

// Every line of record.log is " YYYY-MM-DD hh:mm:ss <path>  结果是 :0".
void expectReportLines(const fs::path& log, const std::string& path, size_t count) {
    const std::string text = readText(log);
    const std::vector<std::string> lines = splitLines(text);
    ASSERT_EQ(lines.size(), count) << text;
    EXPECT_EQ(text.back(), '\n');
    for (const std::string& line : lines) {
        ASSERT_GE(line.size(), 20u) << line;
        EXPECT_THAT(line.substr(0, 20),
                    testing::MatchesRegex(" [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"));
        EXPECT_EQ(line.substr(20), " " + path + "  结果是 :0");
    }
}

std::vector<std::string> zeroPaddedNames(size_t count, int width) {
    std::vector<std::string> names;
    for (size_t k = 0; k < count; ++k) {
        std::string number = std::to_string(k);
        names.push_back(std::string(static_cast<size_t>(width) - number.size(), '0') + number + ".png");
    }
    return names;
}

// Writes launchSequence() as 00.png .. 09.png into dir/name.
fs::path writeLaunchFolder(const TempDir& dir, const std::string& name = "launch") {
    const fs::path folder = dir / name;
    writePngFolder(folder, zeroPaddedNames(10, 2), launchSequence());
    return folder;
}

// What the analysis finds in launchSequence() (frame indices), with the PSNR
// values derived from the frames themselves.
Findings launchFindings(const std::vector<cv::Mat>& frames) {
    return {4, 1, 3, 9, 3, streamText(referencePsnr(frames[4], frames[9])),
            streamText(referencePsnr(frames[3], frames[9])), 10};
}

cv::Mat white() { return solidFrame(kLaunchWidth, kLaunchHeight); }
cv::Mat loaded() { return loadedPageFrame(kLaunchWidth, kLaunchHeight); }

// ------------------------------------------------------------ folder runs

TEST(AnalyseFolder, PrintsEveryFindingAndReturnsTheLaunchTime) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    fs::create_directory(dir / "frames");

    const Captured<double> run = runAnalyse(folder.string(), 0, 10, 0, 0);

    // Frames 4..9 are pixel-identical: the loaded frame and the baseline give 99.99.
    const Findings found = launchFindings(launchSequence());
    ASSERT_EQ(found.loadedPsnr, "99.99");
    expectConsole(run, concat({pathLine(folder.string(), 0, 10, 0, 0), "files size:: 10"},
                              runLines(10, found, "ffmpeg startTime:0, endTime:0.5", "0.5")));
    EXPECT_DOUBLE_EQ(run.value, 0.5);
    EXPECT_TRUE(errorLines(run.err).empty()) << run.err;
    expectReportLines(dir / "record.log", folder.string(), 1);
    EXPECT_TRUE(fs::is_empty(dir / "frames")) << "folder input saves no frames";
}

TEST(AnalyseFolder, NegativeStartIndexLoadsFromTheFirstFile) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    const Captured<double> run = runAnalyse(folder.string(), 0, 10, -5, 0);
    expectConsole(run, concat({pathLine(folder.string(), 0, 10, -5, 0), "files size:: 10"},
                              runLines(10, launchFindings(launchSequence()),
                                       "ffmpeg startTime:0, endTime:0.5", "0.5")));
    EXPECT_DOUBLE_EQ(run.value, 0.5);
}

TEST(AnalyseFolder, FrameRateModeWithLoadFinishedAt44) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    std::vector<cv::Mat> frames(44, white());
    frames.push_back(loaded());
    frames.push_back(loaded());
    const fs::path folder = dir / "rate";
    writePngFolder(folder, zeroPaddedNames(frames.size(), 3), frames);

    const Captured<double> run = runAnalyse(folder.string(), 0, 30, 0, 0);

    // Baseline 45; 44 is the first non-blank frame and identical to it; no
    // logo frames; the first frame with objects outside the centre is 44.
    const Findings found{44, -1, -1, 45, 44, "99.99",
                         streamText(referencePsnr(frames[43], frames[45])), 46};
    expectConsole(run, concat({pathLine(folder.string(), 0, 30, 0, 0), "files size:: 46"},
                              runLines(46, found, "ffmpeg startTime:0, endTime:1.5", "1.5")));
    EXPECT_DOUBLE_EQ(run.value, 1.5);
}

TEST(AnalyseFolder, TimestampModePrintsTheTimesInTheNames) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const std::vector<cv::Mat> frames{white(), loaded(), loaded(), loaded()};
    const fs::path folder = dir / "stamps";
    writePngFolder(folder, {"0.png", "1000.png", "2500.png", "4000.png"}, frames);

    const Captured<double> run = runAnalyse(folder.string(), 1, 30, 0, 0);

    // Indices found: load finished 1, no logo (-1 prints 0), baseline 3,
    // first frame 1. Start time: position 0 reads 0; end: position 2.
    const Findings found{1000, 0, 0, 4000, 1000, "99.99",
                         streamText(referencePsnr(frames[0], frames[3])), 4};
    expectConsole(run, concat({pathLine(folder.string(), 1, 30, 0, 0), "files size:: 4"},
                              runLines(4, found, "cv startTime:0, endTime:2.5", "2.5")));
    EXPECT_DOUBLE_EQ(run.value, 2.5);
}

// Seven time-named files: four blank, then three of the loaded page.
fs::path writeShiftedFolder(const TempDir& dir) {
    const fs::path folder = dir / "shifted";
    writePngFolder(folder,
                   {"1000.png", "1100.png", "1200.png", "1500.png", "2000.png", "2100.png",
                    "2300.png"},
                   {white(), white(), white(), white(), loaded(), loaded(), loaded()});
    return folder;
}

TEST(AnalyseFolder, TimestampModeLooksUpFramesFromTheStartIndex) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeShiftedFolder(dir);

    const Captured<double> run = runAnalyse(folder.string(), 1, 30, 2, 0);

    // Loaded: positions 2..6, frame k is names[2 + k]. Found: load finished
    // k 2 (2000), baseline k 4 (2300), first frame k 2 (2000), no logo (0).
    // Launch: names[2] = 1200 to names[2 + 2 + 1] = 2100.
    const Findings found{2000, 0, 0, 2300, 2000, "99.99",
                         streamText(referencePsnr(white(), loaded())), 5};
    expectConsole(run, concat({pathLine(folder.string(), 1, 30, 2, 0), "files size:: 7"},
                              runLines(5, found, "cv startTime:1.2, endTime:2.1", "0.9")));
    EXPECT_DOUBLE_EQ(run.value, 0.9);
}

TEST(AnalyseFolder, FrameRateModeCountsFromTheFirstLoadedFrame) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeShiftedFolder(dir);

    const Captured<double> run = runAnalyse(folder.string(), 0, 10, 2, 0);

    const Findings found{2, -1, -1, 4, 2, "99.99", streamText(referencePsnr(white(), loaded())),
                         5};
    expectConsole(run, concat({pathLine(folder.string(), 0, 10, 2, 0), "files size:: 7"},
                              runLines(5, found, "ffmpeg startTime:0, endTime:0.3", "0.3")));
    EXPECT_DOUBLE_EQ(run.value, 0.3);
}

TEST(AnalyseFolder, TimestampModeNothingFoundGoesBackToTheStartFile) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = dir / "blank";
    writePngFolder(folder, {"1000.png", "1100.png", "1200.png"}, {white(), white(), white()});

    const Captured<double> run = runAnalyse(folder.string(), 1, 30, 1, 0);

    // Baseline k 1 (names[2] = 1200) is blank: nothing loads, the end
    // position stays -1 + 1 = 0 and reads 0; the start is names[1] = 1100.
    const Findings found{0, 0, 0, 1200, 0, "-1", "-1", 2};
    expectConsole(run, concat({pathLine(folder.string(), 1, 30, 1, 0), "files size:: 3"},
                              runLines(2, found, "cv startTime:1.1, endTime:0", "-1.1")));
    EXPECT_DOUBLE_EQ(run.value, -1.1);
}

TEST(AnalyseFolder, FolderWithoutPngsReportsDefaults) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    fs::create_directory(dir / "empty");
    std::ofstream(dir / "empty" / "notes.txt") << "no frames here";

    const Captured<double> run = runAnalyse((dir / "empty").string(), 0, 30, 0, 0);

    const Findings none{-1, -1, -1, -1, -1, "-1", "-1", 0};
    expectConsole(run, concat({pathLine((dir / "empty").string(), 0, 30, 0, 0), "files size:: 0"},
                              runLines(0, none, "ffmpeg startTime:0, endTime:0", "0")));
    EXPECT_EQ(run.value, 0.0);
    expectReportLines(dir / "record.log", (dir / "empty").string(), 1);
}

TEST(AnalyseFolder, ZeroFpsGivesInfinityOrNaN) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    const Captured<double> found = runAnalyse(folder.string(), 0, 0, 0, 0);
    EXPECT_TRUE(std::isinf(found.value));
    const std::vector<std::string> lines = splitLines(found.out);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "ffmpeg startTime:0, endTime:inf");
    EXPECT_EQ(lines.back(), "计算启动耗时::inf");

    fs::create_directory(dir / "empty");
    const Captured<double> none = runAnalyse((dir / "empty").string(), 0, 0, 0, 0);
    EXPECT_TRUE(std::isnan(none.value));
    const std::vector<std::string> noneLines = splitLines(none.out);
    ASSERT_GE(noneLines.size(), 2u);
    EXPECT_THAT(noneLines[noneLines.size() - 2],
                testing::MatchesRegex("ffmpeg startTime:0, endTime:-?nan"));
    EXPECT_THAT(noneLines.back(), testing::MatchesRegex("计算启动耗时::-?nan"));
    EXPECT_EQ(splitLines(readText(dir / "record.log")).size(), 2u);
}

// ------------------------------------------------------------ video runs

// A recording of launchSequence() in @p file, and the frames as they decode.
std::vector<cv::Mat> writeLaunchVideo(const fs::path& file) {
    if (!writeVideo(file, launchSequence(), 10.0)) {
        return {};
    }
    std::vector<cv::Mat> decoded;
    cv::VideoCapture capture(file.string());
    for (cv::Mat frame; capture.read(frame) && !frame.empty(); frame = cv::Mat()) {
        decoded.push_back(frame);
    }
    return decoded;
}

TEST(AnalyseVideo, DecodesSavesAndAnalysesEveryFrame) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path video = dir / "launch.mp4";
    const std::vector<cv::Mat> decoded = writeLaunchVideo(video);
    ASSERT_EQ(decoded.size(), 10u);
    fs::create_directory(dir / "frames");

    // The range arguments do not apply to a video.
    const Captured<double> run = runAnalyse(video.string(), 0, 10, 3, 5);

    // The codec is lossy, but blank, logo, corner and loaded frames keep
    // their character; the PSNR values come from the decoded frames.
    expectConsole(run, concat({pathLine(video.string(), 0, 10, 3, 5)},
                              runLines(10, launchFindings(decoded),
                                       "ffmpeg startTime:0, endTime:0.5", "0.5")));
    EXPECT_DOUBLE_EQ(run.value, 0.5);
    std::set<std::string> saved;
    for (const auto& entry : fs::directory_iterator(dir / "frames")) {
        saved.insert(entry.path().filename().string());
    }
    std::set<std::string> expected;
    for (int number = 18938; number < 18948; ++number) {
        expected.insert("000" + std::to_string(number) + ".png");
    }
    EXPECT_EQ(saved, expected);
    expectReportLines(dir / "record.log", video.string(), 1);
}

TEST(AnalyseVideo, TimestampModeHasNoNamesToRead) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path video = dir / "launch.mp4";
    const std::vector<cv::Mat> decoded = writeLaunchVideo(video);
    ASSERT_EQ(decoded.size(), 10u);

    const Captured<double> run = runAnalyse(video.string(), 1, 10, 0, 0);

    Findings found = launchFindings(decoded);
    found.loadFinished = found.logoAppear = found.logoDisappear = found.baseline =
        found.firstFrame = 0;
    expectConsole(run, concat({pathLine(video.string(), 1, 10, 0, 0)},
                              runLines(10, found, "cv startTime:0, endTime:0", "0")));
    EXPECT_EQ(run.value, 0.0);
    EXPECT_FALSE(fs::exists(dir / "frames")) << "the frames folder is never created";
}

TEST(AnalyseVideo, MissingVideoIsARunWithoutFrames) {
    disableCameraBackend();
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const std::string video = (dir / "absent.mkv").string();
    const Captured<double> run = runAnalyse(video, 0, 25, 0, 0);
    const Findings none{-1, -1, -1, -1, -1, "-1", "-1", 0};
    expectConsole(run, concat({pathLine(video, 0, 25, 0, 0)},
                              runLines(0, none, "ffmpeg startTime:0, endTime:0", "0")));
    EXPECT_EQ(run.value, 0.0);
    expectReportLines(dir / "record.log", video, 1);
}

// ---------------------------------------------------------------- report

TEST(AnalyseReport, EveryRunAppendsOneLine) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    // The path goes into the report as given, here with a trailing slash.
    const std::string given = folder.string() + "/";
    EXPECT_DOUBLE_EQ(runAnalyse(given, 0, 10, 0, 0).value, 0.5);
    EXPECT_DOUBLE_EQ(runAnalyse(given, 0, 20, 0, 0).value, 0.25);
    expectReportLines(dir / "record.log", given, 2);
}

TEST(AnalyseReport, LongLinesFromManyProcessesStayWhole) {
    // Each line is longer than a stream buffer, so that a line written in
    // pieces would be cut by the lines of other processes.
    TempDir dir;
    const std::string file = (dir / "record.log").string();
    const int processes = 8;
    const int lines = 300;
    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int k = 0; k < lines; ++k) writeFile(file, std::string(9000, static_cast<char>('a' + p)));
            _exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::ifstream in(file);
    std::vector<int> perProcess(processes, 0);
    for (std::string line; std::getline(in, line);) {
        ASSERT_EQ(line.size(), 9000u);
        ASSERT_EQ(line.find_first_not_of(line[0]), std::string::npos) << "a line was cut";
        ++perProcess[static_cast<size_t>(line[0] - 'a')];
    }
    EXPECT_EQ(perProcess, std::vector<int>(processes, lines));
}

TEST(AnalyseReport, UnwritableReportStillReturnsTheLaunchTime) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    fs::create_directory(dir / "record.log");

    const Captured<double> run = runAnalyse(folder.string(), 0, 10, 0, 0);

    std::vector<std::string> expected =
        concat({pathLine(folder.string(), 0, 10, 0, 0), "files size:: 10"},
               runLines(10, launchFindings(launchSequence()), "ffmpeg startTime:0, endTime:0.5",
                        "0.5"));
    expected.push_back("open file failure");
    expectConsole(run, expected);
    EXPECT_DOUBLE_EQ(run.value, 0.5);
    EXPECT_TRUE(fs::is_empty(dir / "record.log"));
}

TEST(AnalyseFrame, IsTheRunWithoutTheParameterLine) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const fs::path folder = writeLaunchFolder(dir);
    const Captured<double> entry = runAnalyse(folder.string(), 1, 10, 0, 0);
    const Captured<double> driver =
        captureConsole([&] { return analyseFrame(folder.string(), 1, 10, 0, 0); });
    // Names 00.png .. 09.png: the load-finished frame 4 is named 04, the end
    // position 5 reads 5 ms.
    EXPECT_DOUBLE_EQ(driver.value, 0.005);
    EXPECT_EQ(entry.value, driver.value);
    EXPECT_EQ(entry.out, pathLine(folder.string(), 1, 10, 0, 0) + "\n" + driver.out);
    expectReportLines(dir / "record.log", folder.string(), 2);
}

// -------------------------------------------------------------- failures

TEST(AnalyseFailure, NullPathIsRejectedBeforeAnythingIsPrinted) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const Captured<double> run =
        captureConsole([] { return analyse(nullptr, 0, 30, 0, 0); });
    EXPECT_TRUE(std::isnan(run.value));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(errorLines(run.err).size(), 1u) << run.err;
    EXPECT_FALSE(fs::exists(dir / "record.log"));
}

TEST(AnalyseFailure, OpenCvExceptionBecomesNaNAndOneErrorLine) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    // The decoder refuses a header of 40000 x 40000 pixels with cv::Exception.
    const fs::path folder = dir / "huge";
    fs::create_directory(folder);
    writeDeclaredSizePng(folder / "0.png", 40000, 40000);

    const Captured<double> run = runAnalyse(folder.string(), 0, 30, 0, 0);

    EXPECT_TRUE(std::isnan(run.value));
    EXPECT_EQ(run.out, pathLine(folder.string(), 0, 30, 0, 0) + "\nfiles size:: 1\n");
    const std::vector<std::string> errors = errorLines(run.err);
    ASSERT_EQ(errors.size(), 1u) << run.err;
    EXPECT_GT(errors[0].size(), std::string("Vyra[Error]: ").size());
    EXPECT_FALSE(fs::exists(dir / "record.log"));

    // The C++ driver itself lets the exception through.
    testing::internal::CaptureStdout();
    EXPECT_THROW(analyseFrame(folder.string(), 0, 30, 0, 0), cv::Exception);
    testing::internal::GetCapturedStdout();
}

// Virtual memory in use by this process, in bytes.
[[maybe_unused]] rlim_t currentAddressSpace() {
    std::ifstream statm("/proc/self/statm");
    unsigned long pages = 0;
    statm >> pages;
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// Child side: analyse() with too little address space for one decoded frame.
// Exit code 0: NaN and exactly one error line; 1: not NaN; 2: other lines;
// 3: the set-up failed. The death test owns standard error, so the child
// sends its console to files of its own.
[[maybe_unused]] [[noreturn]] void analyseWithoutMemory(const std::string& folder) {
    std::FILE* out = std::freopen("child-stdout.txt", "w", stdout);
    std::FILE* err = std::freopen("child-stderr.txt", "w", stderr);
    const rlim_t limit = currentAddressSpace() + (48u << 20);
    const rlimit cap{limit, limit};
    if (out == nullptr || err == nullptr || setrlimit(RLIMIT_AS, &cap) != 0) {
        _exit(3);
    }
    const double value = analyse(folder.c_str(), 0, 30, 0, 0);
    std::fflush(stdout);
    std::fflush(stderr);
    if (!std::isnan(value)) {
        _exit(1);
    }
    _exit(errorLines(readText("child-stderr.txt")).size() == 1 ? 0 : 2);
}

TEST(AnalyseFailureDeathTest, AllocationFailureBecomesNaN) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer reserves far more address space than any limit allows";
#else
    TempDir dir;
    ScopedCwd cwd(dir.path());
    // A header of 6000 x 6000 pixels passes the decoder's size check and
    // asks for a 108 MB matrix, more than the child may map.
    const fs::path folder = dir / "big";
    fs::create_directory(folder);
    writeDeclaredSizePng(folder / "0.png", 6000, 6000);
    EXPECT_EXIT(analyseWithoutMemory(folder.string()), testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
