// Bad input, one table: every row an input and its defined outcome, checked
// through vyra::Measure and the vyra tool (the status, its exit status and a
// part of the one error line). Nothing may crash, hang or print from the
// quiet paths.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "VyraMeasure.h"
#include "cli_support.h"
#include "fixtures.h"
#include "measure_args.h"
#include <sstream>

using namespace vyra_test;

namespace {

// The exit status the tool documents for each status.
int exitStatusOf(VyraStatus status) {
    switch (status) {
        case VYRA_OK: return 0;
        case VYRA_ERROR_INVALID_ARGUMENT: return 2;
        case VYRA_ERROR_NOT_FOUND:
        case VYRA_ERROR_UNREADABLE:
        case VYRA_ERROR_EMPTY:
        case VYRA_ERROR_NO_TIMESTAMPS: return 3;
        default: return 1;
    }
}

void writeFile(const fs::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

// A folder of frames named by these ms times; frame k grey level 40 k.
fs::path timedFolder(const fs::path& dir, const std::vector<std::string>& names, cv::Size size = {16, 12}) {
    std::vector<cv::Mat> frames;
    for (size_t k = 0; k < names.size(); ++k) frames.push_back(solidFrame(size.width, size.height, cv::Scalar::all(40.0 * k)));
    writePngFolder(dir, names, frames);
    return dir;
}

fs::path ffmpegVideo(const fs::path& file, const std::string& args) {
    std::vector<std::string> argv = {"ffmpeg", "-nostdin"};
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
    argv.push_back(file.string());
    EXPECT_EQ(runProcess(argv).exitCode, 0) << args;
    return file;
}

fs::path cutFile(const fs::path& from, const fs::path& to, double share) {
    std::ifstream in(from, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    writeFile(to, bytes.substr(0, static_cast<size_t>(bytes.size() * share)));
    return to;
}

struct Row {
    std::string what;
    std::function<fs::path(const fs::path&)> make;  // builds the input in the given folder
    std::vector<std::string> options;               // options of `vyra analyse`
    VyraStatus status;
    std::string error;          // part of the error line ("" for success)
    long frames = -1;           // on success: frames analysed (-1: any count from 1 on)
    double secondFrameTime = NAN;  // on success, when set: the second frame's time
};

std::vector<Row> rows() {
    const std::string lavfi = "-loglevel error -y -f lavfi -i testsrc=size=64x48:rate=10";
    return {
        {"missing path", [](const fs::path& d) { return d / "missing.mp4"; }, {}, VYRA_ERROR_NOT_FOUND, "does not exist"},
        {"text named .mp4", [](const fs::path& d) { writeFile(d / "t.mp4", "not a video"); return d / "t.mp4"; }, {},
         VYRA_ERROR_UNREADABLE, "t.mp4"},
        {"folder named like a video", [](const fs::path& d) { return timedFolder(d / "v.mp4", {"1000.png", "1100.png"}); },
         {}, VYRA_OK, "", 2, 0.1},
        {"PNG where a folder is expected", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}) / "1000.png"; },
         {}, VYRA_ERROR_UNREADABLE, "1000.png"},
        {"empty folder", [](const fs::path& d) { fs::create_directories(d / "e"); return d / "e"; }, {},
         VYRA_ERROR_EMPTY, "holds no PNG"},
        {"only .png is a folder", [](const fs::path& d) { fs::create_directories(d / "f" / "1000.png"); return d / "f"; },
         {}, VYRA_ERROR_UNREADABLE, "it is a directory"},
        {"symlink loop", [](const fs::path& d) {
             fs::create_directories(d / "f");
             fs::create_symlink("1100.png", d / "f" / "1000.png");
             fs::create_symlink("1000.png", d / "f" / "1100.png");
             return d / "f"; }, {}, VYRA_ERROR_UNREADABLE, "1000.png"},
        {"FIFO frame", [](const fs::path& d) { fs::create_directories(d / "f"); mkfifo((d / "f" / "1000.png").c_str(), 0600); return d / "f"; },
         {}, VYRA_ERROR_UNREADABLE, "it is a FIFO"},
        {"FIFO recording", [](const fs::path& d) { mkfifo((d / "r.mp4").c_str(), 0600); return d / "r.mp4"; },
         {}, VYRA_ERROR_UNREADABLE, "FIFO"},
        {"frame linked to /dev/zero", [](const fs::path& d) { fs::create_directories(d / "f"); fs::create_symlink("/dev/zero", d / "f" / "1000.png"); return d / "f"; },
         {}, VYRA_ERROR_UNREADABLE, "character device"},
        {"names with a space and a newline", [](const fs::path& d) { return timedFolder(d / "f", {"1000 a.png", "1100\nb.png"}); },
         {}, VYRA_OK, "", 2, 0.1},
        {"names without digits", [](const fs::path& d) { return timedFolder(d / "f", {"a.png", "b.png"}); }, {},
         VYRA_ERROR_NO_TIMESTAMPS, "carries no timestamp"},
        {"names without digits, frame rate", [](const fs::path& d) { return timedFolder(d / "f", {"a.png", "b.png"}); },
         {"--fps", "4"}, VYRA_OK, "", 2, 0.25},
        {"duplicate timestamps", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1000b.png"}); }, {},
         VYRA_ERROR_NO_TIMESTAMPS, "not above the previous"},
        {"decreasing timestamps", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "900.png"}); }, {},
         VYRA_ERROR_NO_TIMESTAMPS, "not above the previous"},
        {"timestamps beyond 2^63", [](const fs::path& d) { return timedFolder(d / "f", {"99999999999999999998.png", "99999999999999999999.png"}); },
         {}, VYRA_ERROR_NO_TIMESTAMPS, "beyond 64-bit"},
        {"timestamps beyond 2^53 stay exact", [](const fs::path& d) { return timedFolder(d / "f", {"9007199254740993.png", "9007199254740994.png"}); },
         {}, VYRA_OK, "", 2, 0.001},
        {"JPEG bytes named .png", [](const fs::path& d) {
             fs::create_directories(d / "f");
             std::vector<unsigned char> jpeg;
             cv::imencode(".jpg", solidFrame(8, 8), jpeg);
             writeFile(d / "f" / "1000.png", std::string(jpeg.begin(), jpeg.end()));
             return d / "f"; }, {}, VYRA_ERROR_UNREADABLE, "not a PNG"},
        {"16-bit, grey, palette and RGBA PNGs", [](const fs::path& d) {
             fs::create_directories(d / "f");
             cv::Mat deep(12, 16, CV_16UC3, cv::Scalar::all(30000)), grey(12, 16, CV_8UC1, cv::Scalar(90)),
                 rgba(12, 16, CV_8UC4, cv::Scalar(1, 2, 3, 128));
             cv::imwrite((d / "f" / "1000.png").string(), deep);
             cv::imwrite((d / "f" / "1100.png").string(), grey);
             cv::imwrite((d / "f" / "1200.png").string(), rgba);
             cv::imwrite((d / "f" / "1300.png").string(), grey, {cv::IMWRITE_PNG_BILEVEL, 1});
             return d / "f"; }, {}, VYRA_OK, "", 4, 0.1},
        {"1x1 frames", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1100.png"}, {1, 1}); }, {}, VYRA_OK, "", 2},
        {"1xN frames", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1100.png"}, {1, 300}); }, {}, VYRA_OK, "", 2},
        {"mixed sizes", [](const fs::path& d) {
             timedFolder(d / "f", {"1000.png"}, {16, 12});
             timedFolder(d / "f", {"1100.png"}, {40, 7});
             return d / "f"; }, {}, VYRA_OK, "", 2},
        {"PNG header claiming 60000x60000", [](const fs::path& d) {
             fs::create_directories(d / "f");
             writeDeclaredSizePng(d / "f" / "1000.png", 60000, 60000);
             return d / "f"; }, {}, VYRA_ERROR_UNREADABLE, "limit"},
        {"20000 tiny frames", [](const fs::path& d) {
             std::vector<std::string> names;
             for (int k = 0; k < 20000; ++k) names.push_back(std::to_string(100000 + k * 10) + ".png");
             std::vector<cv::Mat> frames(names.size(), solidFrame(2, 2));
             writePngFolder(d / "f", names, frames);
             return d / "f"; }, {}, VYRA_OK, "", 20000, 0.01},
        {"video with one frame", [lavfi](const fs::path& d) { return ffmpegVideo(d / "one.mkv", lavfi + " -frames:v 1 -c:v mjpeg"); },
         {}, VYRA_OK, "", 1},
        {"frame size changing mid-stream", [lavfi](const fs::path& d) {
             ffmpegVideo(d / "a.mkv", lavfi + " -t 1 -c:v mjpeg");
             ffmpegVideo(d / "b.mkv", "-loglevel error -y -f lavfi -i testsrc=size=96x64:rate=10 -t 1 -c:v mjpeg");
             writeFile(d / "list.txt", "file a.mkv\nfile b.mkv\n");
             return ffmpegVideo(d / "ab.mkv", "-loglevel error -y -f concat -safe 0 -i " + (d / "list.txt").string() + " -c copy"); },
         {}, VYRA_OK, "", 20, 0.1},
        {"MP4 cut before its index", [lavfi](const fs::path& d) {
             return cutFile(ffmpegVideo(d / "t.mp4", lavfi + " -t 2 -c:v mpeg4"), d / "cut.mp4", 0.6); },
         {}, VYRA_ERROR_UNREADABLE, "cut.mp4"},
        {"MKV cut in the middle keeps the frames before the cut", [lavfi](const fs::path& d) {
             return cutFile(ffmpegVideo(d / "t.mkv", lavfi + " -t 2 -c:v mjpeg"), d / "cut.mkv", 0.5); },
         {}, VYRA_OK, "", -1, 0.1},
        {"MKV cut after its header", [lavfi](const fs::path& d) {
             return cutFile(ffmpegVideo(d / "t.mkv", lavfi + " -t 2 -c:v mjpeg"), d / "cut.mkv", 0.02); },
         {}, VYRA_ERROR_UNREADABLE, "cut.mkv"},
        {"fps 0", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); }, {"--fps", "0"}, VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps negative", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); }, {"--fps", "-1"}, VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps above the limit", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); }, {"--fps", "1000000.1"}, VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps below the limit", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); }, {"--fps", "0.00099"}, VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {"fps at the limits", [](const fs::path& d) { return timedFolder(d / "f", {"a.png", "b.png"}); }, {"--fps", "0.001"}, VYRA_OK, "", 2, 1000.0},
        {"fps at the upper limit", [](const fs::path& d) { return timedFolder(d / "f", {"a.png", "b.png"}); }, {"--fps", "1000000"}, VYRA_OK, "", 2, 1e-6},
        {"crop without area", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); }, {"--crop", "0,0,0,10"}, VYRA_ERROR_INVALID_ARGUMENT, "width and height"},
        {"empty file named .mkv", [](const fs::path& d) { writeFile(d / "z.mkv", ""); return d / "z.mkv"; }, {}, VYRA_ERROR_UNREADABLE, "z.mkv"},
        {"corrupt PNG among frames", [](const fs::path& d) { timedFolder(d / "f", {"1000.png"}); writeCorruptPng(d / "f" / "1100.png"); return d / "f"; },
         {}, VYRA_ERROR_UNREADABLE, "1100.png"},
        {"start INT_MAX", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1100.png"}); },
         {"--start", std::to_string(INT_MAX)}, VYRA_ERROR_EMPTY, "selects no frame"},
        {"start INT_MIN, end INT_MIN", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1100.png"}); },
         {"--start", std::to_string(INT_MIN), "--end", std::to_string(INT_MIN)}, VYRA_OK, "", 2, 0.1},
        {"end INT_MAX", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png", "1100.png"}); },
         {"--end", std::to_string(INT_MAX)}, VYRA_OK, "", 2, 0.1},
        {"crop overflowing int", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); },
         {"--crop", "2147483647,0,10,10"}, VYRA_ERROR_INVALID_ARGUMENT, "does not lie inside"},
        {"ignore overflowing int", [](const fs::path& d) { return timedFolder(d / "f", {"1000.png"}); },
         {"--ignore", "0,2147483647,10,2147483647"}, VYRA_ERROR_INVALID_ARGUMENT, "does not lie inside"},
    };
}

// The options the tool would measure with.
vyra::MeasureOptions optionsOf(const std::vector<std::string>& args) {
    CLI::App app;
    vyra::tool::MeasureArgs parsed;
    vyra::tool::AddMeasureOptions(app, parsed);
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
    return vyra::tool::ToMeasureOptions(parsed);
}

}  // namespace

TEST(BadInput, EveryRowHasItsDefinedOutcomeInTheLibraryAndTheTool) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.what);
        TempDir dir;
        const fs::path input = row.make(dir.path());
        vyra::MeasureOptions options = optionsOf(row.options);
        options.progress = nullptr;
        VyraStatus status = VYRA_OK;
        std::string error;
        vyra::MeasureResult result;
        testing::internal::CaptureStdout();
        try {
            result = vyra::Measure(input.string(), options);
        } catch (const vyra::MeasureError& e) {
            status = e.status();
            error = e.what();
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // the quiet path prints nothing
        EXPECT_EQ(status, row.status) << error;
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
        if (row.status == VYRA_OK) {
            if (row.frames >= 0) {
                EXPECT_EQ(result.frameCount, size_t(row.frames));
            }
            EXPECT_GE(result.frameCount, 1u);
            if (!std::isnan(row.secondFrameTime)) {
                EXPECT_DOUBLE_EQ(result.frameTimes.at(1), row.secondFrameTime);
            }
        }

        std::vector<std::string> argv = {cliPath(), "analyse", input.string(), "--json", "--quiet"};
        argv.insert(argv.end(), row.options.begin(), row.options.end());
        const ProcessResult run = runProcess(argv);
        EXPECT_EQ(run.exitCode, exitStatusOf(row.status)) << run.err;
        if (row.status == VYRA_OK) {
            EXPECT_EQ(run.err, "");
            EXPECT_NE(run.out.find("\"frame_count\": " + std::to_string(result.frameCount) + ","), std::string::npos);
        } else {
            EXPECT_EQ(run.out, "");
            EXPECT_EQ(run.err, "vyra: error: " + error + "\n");
        }
    }
}
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Under a 1 GiB address-space limit frames too large for it are an error
// with its own exit status and message, not a crash.
TEST(BadInput, FramesBeyondTheMemoryLimitAreAnOutOfMemoryError) {
    TempDir dir;
    std::vector<cv::Mat> frames(2, solidFrame(8000, 8000));
    frames[1] = solidFrame(8000, 8000, cv::Scalar(0, 0, 0));
    writePngFolder(dir / "f", {"1000.png", "1100.png"}, frames);
    const ProcessResult run = runProcess(
        {"sh", "-c", "ulimit -v 1048576 && exec \"$0\" analyse \"$1\" --quiet", cliPath(), (dir / "f").string()});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("vyra: error: "), std::string::npos);
    EXPECT_NE(run.err.find("out of memory"), std::string::npos) << run.err;
}
#endif
