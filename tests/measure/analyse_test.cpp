// The historic entry analyse() and the helpers it is built from: the console
// text of a run line by line, the launch time in both frame modes, record.log,
// the frames it reads and saves, and its failures. Recordings are made from
// vyra_test::launchSequence(), whose findings are known by construction.
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "LoadAnalyzer.h"
#include "VyraTime.h"
#include "fixtures.h"

namespace {

using namespace vyra_test;

std::vector<std::string> names(const std::vector<long long>& times, int digits = 0) {
    std::vector<std::string> out;
    for (long long t : times) {
        std::string text = std::to_string(t);
        out.push_back(std::string(std::max(0, digits - static_cast<int>(text.size())), '0') + text + ".png");
    }
    return out;
}

// The console of a run after the file listing: the findings as printed (frame
// indices, or the times of their files in the timestamp mode) and the launch.
std::vector<std::string> runLines(size_t frames, const std::vector<int>& found, const std::string& loadedPsnr,
                                  const std::string& preLoadedPsnr, const std::string& launchLine,
                                  const std::string& launchTime) {
    return {"获取到图片数::" + std::to_string(frames), "Do Analyzering...", "静态页面分析结果",
            "页面加载完成时的图像索引:" + std::to_string(found[0]), "页面logo出现的图像的索引::" + std::to_string(found[1]),
            "页面logo消失的图像的索引::" + std::to_string(found[2]), "基准图像的索引::" + std::to_string(found[3]),
            "页面首帧出现图像的索引::" + std::to_string(found[4]), "加载完成时的图像和基准图像之间的psnr::" + loadedPsnr,
            "加载完成的前一张图像和基准图像之间的psnr::" + preLoadedPsnr,
            "所有图片的物体个数::" + std::to_string(frames), launchLine, "计算启动耗时::" + launchTime};
}

std::string pathLine(const std::string& path, int mode, int fps, int start, int end) {
    return " PATH: " + path + " ;frameMode: " + std::to_string(mode) + " ;fps: " + std::to_string(fps) +
           " ;startIndex: " + std::to_string(start) + " ;endIndex: " + std::to_string(end) + " ";
}

std::string localTime(const char* format) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[40];
    std::strftime(text, sizeof text, format, &local);
    return text;
}

TEST(Analyse, RunsPrintEveryFindingAndReturnTheLaunchTime) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const std::vector<cv::Mat> launch = launchSequence();
    const cv::Mat white = launch[0], page = launch[9];
    writePngFolder(dir / "launch", names({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 2), launch);
    writePngFolder(dir / "stamps", names({0, 1000, 2500, 4000}), {white, page, page, page});
    writePngFolder(dir / "shifted", names({1000, 1100, 1200, 1500, 2000, 2100, 2300}),
                   {white, white, white, white, page, page, page});
    writePngFolder(dir / "blank", names({1000, 1100, 1200}), {white, white, white});
    fs::create_directory(dir / "empty");
    const std::string pre = streamText(referencePsnr(launch[3], page)), white9 = streamText(referencePsnr(white, page));
    // A video: decoded whole (the range does not apply), without names to read in the timestamp mode.
    disableCameraBackend();
    ASSERT_TRUE(writeVideo(dir / "launch.mp4", launch, 10.0));
    const std::vector<cv::Mat> decoded = readVideoFrames(dir / "launch.mp4");
    ASSERT_EQ(decoded.size(), 10u);
    const std::string loaded = streamText(referencePsnr(decoded[4], decoded[9])),
                      decodedPre = streamText(referencePsnr(decoded[3], decoded[9]));
    const struct {
        std::string folder;
        int mode, fps, start, end;
        size_t files, frames;
        std::vector<int> found;  // load finished, logo appear, logo disappear, baseline, first frame
        std::string loadedPsnr, preLoadedPsnr, launchLine, launchTime;
        double returned;
    } cases[] = {
        {"launch", 0, 10, 0, 0, 10, 10, {4, 1, 3, 9, 3}, "99.99", pre, "ffmpeg startTime:0, endTime:0.5", "0.5", 0.5},
        {"launch", 0, 10, -5, 0, 10, 10, {4, 1, 3, 9, 3}, "99.99", pre, "ffmpeg startTime:0, endTime:0.5", "0.5", 0.5},
        {"launch", 0, 10, 0, 1, 10, 10, {4, 1, 3, 9, 3}, "99.99", pre, "ffmpeg startTime:0, endTime:0.5", "0.5", 0.5},
        // Files 2 to 5 inclusive: logo, marks, page, page.
        {"launch", 0, 10, 2, 5, 10, 4, {2, 0, 1, 3, 1}, "99.99", pre, "ffmpeg startTime:0, endTime:0.3", "0.3", 0.3},
        // Timestamps: frame lines show the times in the names (nothing: position -1, read as 0); the
        // launch runs from the range's first name (position 0 reads 0) to the name after the found frame.
        {"launch", 1, 10, 0, 0, 10, 10, {4, 1, 3, 9, 3}, "99.99", pre, "cv startTime:0, endTime:0.005", "0.005", 0.005},
        {"stamps", 1, 30, 0, 0, 4, 4, {1000, 0, 0, 4000, 1000}, "99.99", white9, "cv startTime:0, endTime:2.5", "2.5", 2.5},
        {"shifted", 1, 30, 2, 0, 7, 5, {2000, 0, 0, 2300, 2000}, "99.99", white9, "cv startTime:1.2, endTime:2.1", "0.9", 0.9},
        {"shifted", 0, 10, 2, 0, 7, 5, {2, -1, -1, 4, 2}, "99.99", white9, "ffmpeg startTime:0, endTime:0.3", "0.3", 0.3},
        {"blank", 1, 30, 1, 0, 3, 2, {0, 0, 0, 1200, 0}, "-1", "-1", "cv startTime:1.1, endTime:0", "-1.1", -1.1},
        {"empty", 0, 30, 0, 0, 0, 0, {-1, -1, -1, -1, -1}, "-1", "-1", "ffmpeg startTime:0, endTime:0", "0", 0.0},
        {"launch", 0, 0, 0, 0, 10, 10, {4, 1, 3, 9, 3}, "99.99", pre, "ffmpeg startTime:0, endTime:inf", "inf",
         std::numeric_limits<double>::infinity()},
        {"launch.mp4", 0, 10, 3, 5, 0, 10, {4, 1, 3, 9, 3}, loaded, decodedPre, "ffmpeg startTime:0, endTime:0.5", "0.5", 0.5},
        {"launch.mp4", 1, 10, 0, 0, 0, 10, {0, 0, 0, 0, 0}, loaded, decodedPre, "cv startTime:0, endTime:0", "0", 0.0},
        {"absent.mkv", 0, 25, 0, 0, 0, 0, {-1, -1, -1, -1, -1}, "-1", "-1", "ffmpeg startTime:0, endTime:0", "0", 0.0},
    };
    const std::string before = localTime(" %Y-%m-%d %H:%M:%S");
    std::vector<std::string> report;
    for (const auto& c : cases) {
        const std::string path = (dir / c.folder).string();
        report.push_back(" " + path + "  结果是 :0");
        const auto run = captureConsole([&] { return analyse(path.c_str(), c.mode, c.fps, c.start, c.end); });
        std::vector<std::string> expected = {pathLine(path, c.mode, c.fps, c.start, c.end)};
        if (c.folder.find('.') == std::string::npos) expected.push_back("files size:: " + std::to_string(c.files));
        for (const std::string& line : runLines(c.frames, c.found, c.loadedPsnr, c.preLoadedPsnr, c.launchLine, c.launchTime)) {
            expected.push_back(line);
        }
        EXPECT_EQ(splitLines(run.out), expected) << c.folder << " mode " << c.mode << " start " << c.start;
        EXPECT_EQ(run.value, c.returned) << c.folder;
        EXPECT_EQ(run.err.find("Vyra[Error]"), std::string::npos) << run.err;
    }
    // One record.log line per run, " YYYY-MM-DD hh:mm:ss <path>  结果是 :0", at the local time.
    const std::string after = localTime(" %Y-%m-%d %H:%M:%S");
    const std::vector<std::string> lines = splitLines(readText(dir / "record.log"));
    ASSERT_EQ(lines.size(), report.size());
    for (size_t k = 0; k < lines.size(); ++k) {
        EXPECT_LE(before, lines[k].substr(0, 20)) << lines[k];
        EXPECT_LE(lines[k].substr(0, 20), after) << lines[k];
        EXPECT_EQ(lines[k].substr(20), report[k]);
    }
    EXPECT_FALSE(fs::exists(dir / "frames"));  // videos save their frames only into a folder that exists
}

TEST(Analyse, FailuresReturnNaNWithOneErrorLineAndNoReport) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    const auto none = captureConsole([] { return analyse(nullptr, 0, 30, 0, 0); });
    EXPECT_TRUE(std::isnan(none.value));
    EXPECT_EQ(none.out, "");
    EXPECT_THAT(splitLines(none.err), testing::Contains("Vyra[Error]: path is NULL"));

    // The decoder refuses a header of 40000 x 40000 pixels with a cv::Exception.
    fs::create_directory(dir / "huge");
    writeDeclaredSizePng(dir / "huge" / "0.png", 40000, 40000);
    const std::string huge = (dir / "huge").string();
    const auto run = captureConsole([&] { return analyse(huge.c_str(), 0, 30, 0, 0); });
    EXPECT_TRUE(std::isnan(run.value));
    EXPECT_EQ(run.out, pathLine(huge, 0, 30, 0, 0) + "\nfiles size:: 1\n");
    int errors = 0;
    for (const std::string& line : splitLines(run.err)) errors += line.rfind("Vyra[Error]: ", 0) == 0 && line.size() > 13;
    EXPECT_EQ(errors, 1) << run.err;
    EXPECT_FALSE(fs::exists(dir / "record.log"));
    testing::internal::CaptureStdout();
    EXPECT_THROW(analyseFrame(huge, 0, 30, 0, 0), cv::Exception);  // the C++ driver lets it through
    testing::internal::GetCapturedStdout();
}

TEST(Analyse, RecordLinesAreAppendedWholeOrReportedAsUnwritable) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    EXPECT_EQ(stdoutOf([] { writeFile("record.log", "first"), writeFile("record.log", ""); }), "");
    EXPECT_EQ(readText(dir / "record.log"), "first\n\n");
    EXPECT_EQ(stdoutOf([] { writeFile("missing/record.log", "line"); }), "open file failure\n");

    // Lines longer than a stream buffer, from several processes at once, stay whole.
    std::vector<pid_t> children;
    for (int p = 0; p < 4; ++p) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int k = 0; k < 100; ++k) writeFile("long.log", std::string(9000, static_cast<char>('a' + p)));
            _exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
    }
    std::vector<int> perProcess(4, 0);
    for (const std::string& line : splitLines(readText(dir / "long.log"))) {
        ASSERT_EQ(line, std::string(9000, line[0])) << "a line was cut";
        ++perProcess[static_cast<size_t>(line[0] - 'a')];
    }
    EXPECT_EQ(perProcess, std::vector<int>(4, 100));

    // A run whose report cannot be written still returns its launch time.
    TempDir other;
    ScopedCwd inOther(other.path());
    writePngFolder(other / "launch", names({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 2), launchSequence());
    fs::create_directory(other / "record.log");
    const auto run = captureConsole([&] { return analyse((other / "launch").c_str(), 0, 10, 0, 0); });
    EXPECT_EQ(run.value, 0.5);
    EXPECT_EQ(splitLines(run.out).back(), "open file failure");
}

TEST(AnalyseParts, FileNamesAreReadAsTheLow32BitsOfTheirLeadingNumber) {
    std::vector<std::string> list{"500.png", "00012345.png", "123.456.png", "frame_12.png", "-20.png", " 42.png",
                                  "+7.png", "12ab.png", "nodot", "77", "1700000000000.png", "4294967297.png",
                                  "2147483648.png", "-2147483649.png"};
    // Position 0 and positions outside the list read 0; 1700000000000 = 395 * 2^32 + 3487918080.
    const int expected[] = {0, 12345, 123, 0, -20, 42, 7, 12, 0, 77, -807049216, 1, -2147483647 - 1, 2147483647};
    for (size_t k = 0; k < list.size(); ++k) EXPECT_EQ(readFileName(list, static_cast<int>(k)), expected[k]) << list[k];
    EXPECT_EQ(readFileName(list, -1), 0);
    EXPECT_EQ(readFileName(list, static_cast<int>(list.size())), 0);

    struct {
        std::vector<std::string> names;
        int start, end, mode, fps;
        std::string printed;
        double seconds;
    } launches[] = {
        {{"0.png", "1000.png", "3500.png"}, 1, 2, 1, 30, "cv startTime:1, endTime:3.5", 2.5},
        {{"700.png", "1000.png", "3500.png"}, 0, 2, 1, 0, "cv startTime:0, endTime:3.5", 3.5},
        {{"0.png", "1000.png", "3500.png"}, 2, 0, 1, 30, "cv startTime:3.5, endTime:0", -3.5},
        {{"0.png", "1700000000000.png", "1700000002500.png"}, 1, 2, 1, 30, "cv startTime:-807049, endTime:-807047", 2.5},
        {{"0.png", "2147483000.png", "2147484500.png"}, 1, 2, 1, 30, "cv startTime:2.14748e+06, endTime:-2.14748e+06", 1.5},
        {{"0.png", "1000.png"}, 1, 46, 0, 30, "ffmpeg startTime:0, endTime:1.53333", 46 / 30.0},
        {{}, 2, 45, 7, 30, "ffmpeg startTime:0, endTime:1.5", 1.5},  // any mode but 1 counts frames
        {{}, 0, 10, 0, -4, "ffmpeg startTime:0, endTime:-2.5", -2.5},
    };
    for (auto& c : launches) {
        double seconds = 0.0;
        EXPECT_EQ(stdoutOf([&] { seconds = count_launch_time_mseconds(c.names, c.start, c.end, c.mode, c.fps); }),
                  c.printed + "\n");
        EXPECT_DOUBLE_EQ(seconds, c.seconds) << c.printed;
    }
}

TEST(AnalyseParts, VideosAreKnownByFiveExtensionsAndFoldersListVisiblePngsInByteOrder) {
    // (Frame ranges: the runs above.)
    for (const char* path : {"a.mp4", "a.mkv", "a.mov", "a.rm", "a.ram", "dir.d/clip.mov", "mp4"}) {
        EXPECT_TRUE(checkVideoFile(path)) << path;
    }
    for (const char* path : {"a.MP4", "a.avi", "a.mp4.bak", "a", "", "a.rmvb", "a.mkv ", "a.png"}) {
        EXPECT_FALSE(checkVideoFile(path)) << path;
    }
    EXPECT_TRUE(compareFileType("a.tar.png", "png") && compareFileType("a.", "") && compareFileType("png", "png"));
    EXPECT_FALSE(compareFileType("a.tar.png", "tar.png") || compareFileType("apng", "png"));
    EXPECT_TRUE(cmp("b", "a") && cmp("ab", "a") && cmp("9.png", "10.png") && cmp("\xe4\xb8\xad", "z"));
    EXPECT_FALSE(cmp("a", "b") || cmp("a", "a"));

    // Frames read as BGR in name order; what does not decode (a folder, empty, corrupt) as an empty matrix.
    TempDir dir;
    std::vector<std::string> frameNames = {"b.png", "a.png", "\xe4\xb8\xad.png", "A.png", "10.png", "9.png"};
    std::vector<cv::Mat> frames;
    for (size_t k = 0; k < frameNames.size(); ++k) frames.push_back(solidFrame(4, 4, cv::Scalar(double(k), 0, 0)));
    writePngFolder(dir.path(), frameNames, frames);
    writePngFolder(dir.path(), {".hidden.png", "x.PNG"}, {solidFrame(4, 4), solidFrame(4, 4)});
    cv::imwrite((dir / "g.png").string(), cv::Mat(6, 8, CV_8UC1, cv::Scalar(77)));
    cv::imwrite((dir / "h.png").string(), cv::Mat(6, 8, CV_16UC3, cv::Scalar(65535, 0, 256)));  // 8 bits: 255, 0, 1
    writeEmptyFile(dir / "e.png");
    writeCorruptPng(dir / "f.png");
    std::ofstream(dir / "notes.txt") << "not a frame";
    fs::create_directory(dir / "sub.png");
    std::vector<std::string> listed{"earlier.png"};
    EXPECT_EQ(stdoutOf([&] { getFiles(dir.str(), listed); }), "files size:: 12\n");
    std::vector<std::string> read;
    std::vector<cv::Mat> mats{cv::Mat(1, 1, CV_8UC1)};  // kept
    EXPECT_EQ(stdoutOf([&] { transformImages2Mats(dir.str(), mats, read, 0, 0); }), "files size:: 11\n");
    EXPECT_EQ(read, (std::vector<std::string>{"10.png", "9.png", "A.png", "a.png", "b.png", "e.png", "f.png", "g.png",
                                              "h.png", "sub.png", "\xe4\xb8\xad.png"}));
    std::vector<int> blue;
    for (size_t k = 1; k < mats.size(); ++k) blue.push_back(mats[k].empty() ? -1 : mats[k].type() == CV_8UC3 ? mats[k].at<cv::Vec3b>(0, 0)[0] : -2);
    EXPECT_EQ(blue, (std::vector<int>{4, 5, 3, 1, 0, -1, -1, 77, 255, -1, 2}));
    EXPECT_EQ(stdoutOf([&] { getFiles((dir / "missing").string(), listed); }), "files size:: 12\n");  // nothing added
}

TEST(AnalyseParts, TimesAreLocalAndIntervalsAreSecondsCutToMicroseconds) {
    const char* saved = std::getenv("TZ");
    const std::string previous = saved != nullptr ? saved : "";
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(convertTimeStamp2TimeStr(0), "1970-01-01 00:00:00");
    EXPECT_EQ(convertTimeStamp2TimeStr(-1), "1969-12-31 23:59:59");
    EXPECT_EQ(convertTimeStamp2TimeStr(1709802303L), "2024-03-07 09:05:03");  // 19789 days + 09:05:03
    EXPECT_EQ(convertTimeStamp2TimeStr(std::numeric_limits<long>::max()), "0000-00-00 00:00:00");
    setenv("TZ", "XYZ-8", 1);  // eight hours ahead
    tzset();
    EXPECT_EQ(convertTimeStamp2TimeStr(0), "1970-01-01 08:00:00");
    const std::string before = localTime(" %Y-%m-%d %H:%M:%S"), now = getSystemTime(),
                      after = localTime(" %Y-%m-%d %H:%M:%S");
    EXPECT_TRUE(before <= now && now <= after) << now;
    saved != nullptr ? setenv("TZ", previous.c_str(), 1) : unsetenv("TZ");
    tzset();

    using namespace std::chrono;
    const double past = vyra::GetTimeInterval(vyra::GetCurrentTime() - milliseconds(2500) - nanoseconds(999));
    EXPECT_GE(past, 2.5);
    EXPECT_LT(past, 60.0);
    EXPECT_NEAR(past * 1e6, std::round(past * 1e6), 1e-3) << "whole microseconds";
    // One hour and 999 ns ahead: cut toward zero, never below -3600 s.
    const double ahead = vyra::GetTimeInterval(vyra::GetCurrentTime() + hours(1) + nanoseconds(999));
    EXPECT_GE(ahead, -3600.0);
    EXPECT_LT(ahead, -3500.0);
}

}  // namespace
