// Launch-time arithmetic in both frame modes, times read from file names,
// the report file writer, local time formatting and the timing helpers.
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LoadAnalyzer.h"
#include "VyraTime.h"
#include "capture.h"
#include "fixtures.h"

namespace {

using namespace vyra_test;

// ----------------------------------------------------------- readFileName

TEST(ReadFileName, ParsesTheTextBeforeTheLastDot) {
    std::vector<std::string> names{"500.png", "00012345.png", "123.456.png", "frame_12.png",
                                   "-20.png", " 42.png", "+7.png", "12ab.png", "nodot",
                                   "77"};
    EXPECT_EQ(readFileName(names, 1), 12345);
    EXPECT_EQ(readFileName(names, 2), 123);
    EXPECT_EQ(readFileName(names, 3), 0);
    EXPECT_EQ(readFileName(names, 4), -20);
    EXPECT_EQ(readFileName(names, 5), 42);  // leading white space is skipped
    EXPECT_EQ(readFileName(names, 6), 7);
    EXPECT_EQ(readFileName(names, 7), 12);  // digits up to the first non-digit
    EXPECT_EQ(readFileName(names, 8), 0);
    EXPECT_EQ(readFileName(names, 9), 77);  // no dot: the whole name
}

TEST(ReadFileName, PositionsOutsideOneToSizeReadZero) {
    std::vector<std::string> names{"500.png", "600.png", "700.png"};
    EXPECT_EQ(readFileName(names, 0), 0);  // position 0 always reads as 0
    EXPECT_EQ(readFileName(names, -1), 0);
    EXPECT_EQ(readFileName(names, 3), 0);
    EXPECT_EQ(readFileName(names, 2), 700);
    std::vector<std::string> none;
    EXPECT_EQ(readFileName(none, 1), 0);
    EXPECT_EQ(readFileName(none, 0), 0);
}

TEST(ReadFileName, KeepsTheLow32Bits) {
    // 1700000000000 = 395 * 2^32 + 3487918080, and 3487918080 - 2^32 = -807049216.
    std::vector<std::string> names{"0.png", "1700000000000.png", "4294967297.png",
                                   "2147483648.png", "-2147483649.png"};
    EXPECT_EQ(readFileName(names, 1), -807049216);
    EXPECT_EQ(readFileName(names, 2), 1);
    EXPECT_EQ(readFileName(names, 3), -2147483647 - 1);
    EXPECT_EQ(readFileName(names, 4), 2147483647);
}

// ------------------------------------------------ count_launch_time_mseconds

TEST(CountLaunchTime, TimestampModeSubtractsTheNamedTimes) {
    std::vector<std::string> names{"0.png", "1000.png", "3500.png"};
    double seconds = 0.0;
    const std::string out =
        stdoutOf([&] { seconds = count_launch_time_mseconds(names, 1, 2, 1, 30); });
    EXPECT_EQ(out, "cv startTime:1, endTime:3.5\n");
    EXPECT_DOUBLE_EQ(seconds, 2.5);
}

TEST(CountLaunchTime, TimestampModeStartPositionZeroReadsZero) {
    std::vector<std::string> names{"700.png", "1000.png", "3500.png"};
    double seconds = 0.0;
    const std::string out =
        stdoutOf([&] { seconds = count_launch_time_mseconds(names, 0, 2, 1, 0); });
    EXPECT_EQ(out, "cv startTime:0, endTime:3.5\n");
    EXPECT_DOUBLE_EQ(seconds, 3.5);
}

TEST(CountLaunchTime, TimestampModeDifferenceWrapsIn32Bits) {
    // Cut values: 1700000000000 -> -807049216, 1700000002500 -> -807046716,
    // printed divided by 1000 with six significant digits.
    std::vector<std::string> names{"0.png", "1700000000000.png", "1700000002500.png"};
    double seconds = 0.0;
    const std::string out =
        stdoutOf([&] { seconds = count_launch_time_mseconds(names, 1, 2, 1, 30); });
    EXPECT_EQ(out, "cv startTime:-807049, endTime:-807047\n");
    EXPECT_DOUBLE_EQ(seconds, 2.5);

    // Across the signed boundary: 2147483000 stays, 2147484500 cuts to
    // 2147484500 - 2^32 = -2147482796; the wrapped difference is 1500.
    std::vector<std::string> boundary{"0.png", "2147483000.png", "2147484500.png"};
    const std::string across =
        stdoutOf([&] { seconds = count_launch_time_mseconds(boundary, 1, 2, 1, 30); });
    EXPECT_EQ(across, "cv startTime:2.14748e+06, endTime:-2.14748e+06\n");
    EXPECT_DOUBLE_EQ(seconds, 1.5);
}

TEST(CountLaunchTime, TimestampModeEndBeforeStartIsNegative) {
    std::vector<std::string> names{"0.png", "1000.png", "3500.png"};
    double seconds = 0.0;
    const std::string out =
        stdoutOf([&] { seconds = count_launch_time_mseconds(names, 2, 0, 1, 30); });
    EXPECT_EQ(out, "cv startTime:3.5, endTime:0\n");
    EXPECT_DOUBLE_EQ(seconds, -3.5);

    std::vector<std::string> none;
    const std::string empty =
        stdoutOf([&] { seconds = count_launch_time_mseconds(none, 0, 5, 1, 30); });
    EXPECT_EQ(empty, "cv startTime:0, endTime:0\n");
    EXPECT_EQ(seconds, 0.0);
}

TEST(CountLaunchTime, FrameRateModeDividesTheEndPositionByFps) {
    std::vector<std::string> names{"0.png", "1000.png", "3500.png"};
    double seconds = 0.0;
    std::string out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 1, 46, 0, 30); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:1.53333\n");
    EXPECT_DOUBLE_EQ(seconds, 46 / 30.0);

    // Every mode other than 1 counts frames; the names and start are unused.
    out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 2, 45, 7, 30); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:1.5\n");
    EXPECT_DOUBLE_EQ(seconds, 1.5);

    out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 1, 0, 0, 25); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:0\n");
    EXPECT_EQ(seconds, 0.0);

    out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 0, 1, -1, 3); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:0.333333\n");
    EXPECT_DOUBLE_EQ(seconds, 1 / 3.0);
}

TEST(CountLaunchTime, FrameRateModeDoesNotValidateFps) {
    std::vector<std::string> names;
    double seconds = 0.0;
    std::string out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 0, 46, 0, 0); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:inf\n");
    EXPECT_TRUE(std::isinf(seconds));
    EXPECT_GT(seconds, 0.0);

    out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 0, 0, 0, 0); });
    EXPECT_THAT(out, testing::MatchesRegex("ffmpeg startTime:0, endTime:-?nan\n"));
    EXPECT_TRUE(std::isnan(seconds));

    out = stdoutOf([&] { seconds = count_launch_time_mseconds(names, 0, 10, 0, -4); });
    EXPECT_EQ(out, "ffmpeg startTime:0, endTime:-2.5\n");
    EXPECT_DOUBLE_EQ(seconds, -2.5);
}

// -------------------------------------------------------------- writeFile

TEST(WriteFile, AppendsOneLinePerCall) {
    TempDir dir;
    const fs::path file = dir / "record.log";
    std::string out = stdoutOf([&] {
        writeFile(file.string(), "first line");
        writeFile(file.string(), " 2024  结果是 :0");
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(readText(file), "first line\n 2024  结果是 :0\n");

    // Text already there stays in front.
    const fs::path other = dir / "other.log";
    std::ofstream(other) << "kept";
    stdoutOf([&] { writeFile(other.string(), ""); });
    EXPECT_EQ(readText(other), "kept\n");
}

TEST(WriteFile, UnopenableFileIsReportedOnTheConsole) {
    TempDir dir;
    const fs::path file = dir / "missing" / "record.log";
    EXPECT_EQ(stdoutOf([&] { writeFile(file.string(), "line"); }), "open file failure\n");
    EXPECT_FALSE(fs::exists(dir / "missing"));

    fs::create_directory(dir / "record.log");
    EXPECT_EQ(stdoutOf([&] { writeFile((dir / "record.log").string(), "line"); }),
              "open file failure\n");
}

// ---------------------------------------------------------------- clocks

// Restores the TZ environment variable (and the library's view of it).
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            previous_ = old;
            hadPrevious_ = true;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (hadPrevious_) {
            setenv("TZ", previous_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::string previous_;
    bool hadPrevious_ = false;
};

// The test's own rendering of the current local time in the report format.
std::string localNowText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, " %Y-%m-%d %H:%M:%S", &local);
    return text;
}

TEST(GetSystemTime, IsASpaceThenDateAndTime) {
    const std::string before = localNowText();
    const std::string now = getSystemTime();
    const std::string after = localNowText();
    EXPECT_EQ(now.size(), 20u);
    EXPECT_THAT(now,
                testing::MatchesRegex(" [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"));
    // Fixed-width fields sort like the times they show.
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(GetSystemTime, FollowsTheTimeZone) {
    ScopedTimeZone utc("UTC");
    const std::string before = localNowText();
    const std::string now = getSystemTime();
    const std::string after = localNowText();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(ConvertTimeStamp2TimeStr, FormatsLocalTime) {
    {
        ScopedTimeZone utc("UTC");
        EXPECT_EQ(convertTimeStamp2TimeStr(0), "1970-01-01 00:00:00");
        EXPECT_EQ(convertTimeStamp2TimeStr(-1), "1969-12-31 23:59:59");
        // 19789 days (54 years with 13 leap days, then 66 days) + 09:05:03.
        EXPECT_EQ(convertTimeStamp2TimeStr(1709802303L), "2024-03-07 09:05:03");
    }
    {
        ScopedTimeZone east("XYZ-8");  // eight hours ahead of UTC
        EXPECT_EQ(convertTimeStamp2TimeStr(0), "1970-01-01 08:00:00");
    }
}

TEST(ConvertTimeStamp2TimeStr, UnrepresentableTimeGivesZeroFields) {
    ScopedTimeZone utc("UTC");
    EXPECT_EQ(convertTimeStamp2TimeStr(std::numeric_limits<long>::max()), "0000-00-00 00:00:00");
    EXPECT_EQ(convertTimeStamp2TimeStr(std::numeric_limits<long>::min()), "0000-00-00 00:00:00");
}

TEST(VyraTime, CurrentTimeIsTheSystemClock) {
    const auto before = std::chrono::system_clock::now();
    const auto now = vyra::GetCurrentTime();
    const auto after = std::chrono::system_clock::now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(VyraTime, IntervalIsInSecondsWithMicrosecondResolution) {
    using namespace std::chrono;
    // A start 2.5 s and 999 ns in the past: at least 2.5 s have elapsed.
    const auto start = vyra::GetCurrentTime() - seconds(2) - milliseconds(500) - nanoseconds(999);
    const double elapsed = vyra::GetTimeInterval(start);
    EXPECT_GE(elapsed, 2.5);
    EXPECT_LT(elapsed, 3600.0);
    const double micros = elapsed * 1e6;
    EXPECT_NEAR(micros, std::round(micros), 1e-3) << "whole microseconds";

    // A start in the future gives a negative interval.
    const double ahead = vyra::GetTimeInterval(vyra::GetCurrentTime() + hours(1));
    EXPECT_LT(ahead, 0.0);
    EXPECT_GE(ahead, -3600.0);
    EXPECT_LT(ahead, -3000.0);
}

TEST(VyraTime, IntervalTruncatesTowardZero) {
    using namespace std::chrono;
    // The start lies one hour and 999 ns ahead. Whatever time passes before
    // the interval is taken, the exact difference lies in (-3600 s - 1 us,
    // -3600 s + elapsed], so cutting toward zero never goes below -3600 s
    // (rounding down would give -3600.000001 when less than 999 ns elapsed).
    const auto start = vyra::GetCurrentTime() + hours(1) + nanoseconds(999);
    const double ahead = vyra::GetTimeInterval(start);
    EXPECT_GE(ahead, -3600.0);
}

}  // namespace
