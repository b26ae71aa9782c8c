// End-to-end tests of the vyra tool: the built executable (path in the
// environment variable VYRA_CLI) runs on recordings made here or by its own
// `vyra sample` command, whose printed ground truth the analysis must recover.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cli_support.h"
#include "fixtures.h"
#include "vyra.h"

using namespace vyra_test;
using Json = nlohmann::json;

namespace {

// The ground truth `vyra sample` prints.
struct Truth {
    int frames = -1;
    int loadFinished = -1;
    int logoAppear = -1;
    int logoDisappear = -1;
    int firstFrame = -1;
};

Truth parseTruth(const std::string& out) {
    Truth truth;
    for (const std::string& line : splitLines(out)) {
        std::sscanf(line.c_str(), "frames: %d", &truth.frames);
        std::sscanf(line.c_str(),
                    "expected: loadFinishedIndex %d, logoAppearIndex %d, logoDisappearIndex %d, "
                    "firstFrameIndex %d",
                    &truth.loadFinished, &truth.logoAppear, &truth.logoDisappear, &truth.firstFrame);
    }
    return truth;
}

Truth makeSample(const std::vector<std::string>& args) {
    std::vector<std::string> full = {"sample"};
    full.insert(full.end(), args.begin(), args.end());
    const ProcessResult run = runVyra(full);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const Truth truth = parseTruth(run.out);
    EXPECT_GT(truth.frames, 0) << run.out;
    EXPECT_GE(truth.loadFinished, 0) << run.out;
    return truth;
}

Json analyseJson(const std::vector<std::string>& args) {
    std::vector<std::string> full = {"analyse"};
    full.insert(full.end(), args.begin(), args.end());
    full.push_back("--json");
    const ProcessResult run = runVyra(full);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    return Json::parse(run.out);
}

// Sorted PNG names of a folder.
std::vector<std::string> pngNames(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() == ".png") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

long long nameMs(const std::string& name) { return std::stoll(name.substr(0, name.find('.'))); }

// 4 white frames then 6 page frames at these capture times (ms).
const std::vector<long long> kTimes = {1000, 1033, 1100, 1180, 1250, 1290, 1400, 1433, 1500, 1600};

fs::path writeLaunchFolder(const TempDir& dir) {
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (size_t k = 0; k < kTimes.size(); ++k) {
        frames.push_back(k < 4 ? solidFrame(180, 320) : texturedFrame(180, 320, 7));
        names.push_back("0000" + std::to_string(kTimes[k]) + ".png");
    }
    writePngFolder(dir / "rec", names, frames);
    return dir / "rec";
}

void expectOneErrorLine(const ProcessResult& run, int exitCode, const std::string& part) {
    EXPECT_EQ(run.exitCode, exitCode) << run.err;
    EXPECT_EQ(run.out, "");
    const std::vector<std::string> lines = splitLines(run.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("vyra: error: ", 0), 0u) << run.err;
    EXPECT_NE(lines[0].find(part), std::string::npos) << run.err;
}

}  // namespace

// ---- help, version, usage ----

TEST(Cli, VersionAndHelp) {
    const ProcessResult version = runVyra({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, std::string("vyra ") + vyra_version() + "\n");
    const ProcessResult help = runVyra({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("analyse"), std::string::npos);
    EXPECT_NE(help.out.find("sample"), std::string::npos);
    EXPECT_NE(help.out.find("compare"), std::string::npos);
    const ProcessResult analyseHelp = runVyra({"analyse", "--help"});
    EXPECT_EQ(analyseHelp.exitCode, 0);
    for (const char* flag : {"--fps", "--timestamps", "--start", "--end", "--crop", "--ignore", "--dynamic",
                             "--stable-baseline", "--json", "--save-frames", "--launch-time", "--quiet", "--report",
                             "--report-interval", "--filmstrip"}) {
        EXPECT_NE(analyseHelp.out.find(flag), std::string::npos) << flag;
    }
}

TEST(Cli, UsageErrorsExitWithTwo) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    const fs::path notUtf8 = dir / "launch\xff\xfe";  // a JSON document cannot carry this path
    fs::copy(rec, notUtf8);
    const std::vector<std::vector<std::string>> cases = {
        {"analyse", notUtf8.string(), "--json"},
        {},
        {"analyse"},
        {"measure", rec},
        {"analyse", rec, "--fps", "10", "--timestamps"},
        {"analyse", rec, "--crop", "1,2,3"},
        {"analyse", rec, "--ignore", "a,b,c,d"},
        {"analyse", rec, "--launch-time", "soon"},
        {"analyse", rec, "--start", "x"},
        {"analyse", rec, "--bogus"},
        {"analyse", rec, "--fps", ""},
        {"analyse", rec, "--fps", "1e-308"},
        {"analyse", rec, "--fps", "nan"},
        {"analyse", rec, "--crop", "99999999999,0,10,10"},
        {"analyse", rec, "--crop", "1,2,3,4,5"},
        {"sample", (dir / "s.mkv").string(), "--size", "100"},
        {"analyse", rec, "--report", "r.html", "--report-interval", "0"},
        {"compare", rec, rec},
        {"compare", rec, "--report", "r.html"},
    };
    for (const std::vector<std::string>& args : cases) {
        const ProcessResult run = runVyra(args);
        std::string joined;
        for (const std::string& a : args) joined += a + " ";
        EXPECT_EQ(run.exitCode, 2) << joined << run.err;
        EXPECT_EQ(run.out, "") << joined;
        EXPECT_EQ(run.err.rfind("vyra: error: ", 0), 0u) << joined << run.err;
    }
}

TEST(Cli, BadInputsGiveTheirExitStatusAndOneMessage) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    fs::create_directories(dir / "empty");
    std::ofstream(dir / "junk.mp4") << "no video in here";
    writePngFolder(dir / "named", {"a.png", "b.png"}, {solidFrame(180, 320), solidFrame(180, 320)});

    expectOneErrorLine(runVyra({"analyse", (dir / "missing.mp4").string()}), 3, "does not exist");
    expectOneErrorLine(runVyra({"analyse", (dir / "junk.mp4").string()}), 3, "junk.mp4");
    expectOneErrorLine(runVyra({"analyse", (dir / "empty").string()}), 3, "no PNG");
    expectOneErrorLine(runVyra({"analyse", rec, "--start", "10"}), 3, "selects no frame");
    expectOneErrorLine(runVyra({"analyse", (dir / "named").string()}), 3, "a.png");
    expectOneErrorLine(runVyra({"analyse", rec, "--fps", "0"}), 2, "frame rate");
    expectOneErrorLine(runVyra({"analyse", rec, "--crop", "100,300,100,100"}), 2, "does not lie inside");
    expectOneErrorLine(runVyra({"analyse", rec, "--ignore", "0,0,5,5", "--ignore", "170,0,20,5"}), 2,
                       "170,0,20,5");
    std::ofstream(dir / "file") << "x";
    expectOneErrorLine(runVyra({"analyse", rec, "--save-frames", (dir / "file" / "sub").string()}), 1, "sub");
    expectOneErrorLine(runVyra({"analyse", rec, "--report", (dir / "file" / "r.html").string()}), 1, "r.html");
    expectOneErrorLine(runVyra({"analyse", rec, "--filmstrip", (dir / "file" / "f.png").string()}), 1, "f.png");
    expectOneErrorLine(runVyra({"compare", rec, (dir / "missing").string(), "--report", (dir / "c.html").string()}),
                       3, "does not exist");
    EXPECT_FALSE(fs::exists(dir / "c.html"));
}

// ---- output ----

TEST(Cli, OutputThatCannotBeWrittenIsAFailure) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    for (const char* format : {"--json", "--quiet"}) {
        const ProcessResult run = runProcess({"sh", "-c", "\"$0\" analyse \"$1\" $2 > /dev/full", cliPath(), rec, format});
        EXPECT_EQ(run.exitCode, 1) << format;
        EXPECT_EQ(run.err, "vyra: error: cannot write standard output: No space left on device\n") << format;
    }
}

TEST(Cli, HumanSummaryListsLaunchTimeAndKeyFrames) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    const ProcessResult run = runVyra({"analyse", rec});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out,
              "launch time: 0.250 s\n"
              "key frame         index   time (s)\n"
              "load finished         4      0.250\n"
              "baseline              9      0.600\n"
              "logo appear           -          -\n"
              "logo disappear        -          -\n"
              "first frame           4      0.250\n"
              "motion start          -          -\n"
              "frames: 10 (180x320), timing: timestamps, launch time at: load-finished frame\n"
              "visual progress   index   time (s)\n"
              "first change          4      0.250\n"
              "last change           4      0.250\n"
              "complete 85           4      0.250\n"
              "complete 95           4      0.250\n"
              "complete 99           4      0.250\n"
              "complete 100          4      0.250\n"
              "speed index: 250.0 ms, noise tolerance: 0 (auto)\n");  // 250 ms at progress 0

    const ProcessResult next = runVyra({"analyse", rec, "--fps", "20", "--launch-time", "next-frame", "--start", "1",
                                        "--noise-tolerance", "7", "--progress"});
    EXPECT_EQ(next.exitCode, 0) << next.err;
    const std::vector<std::string> lines = splitLines(next.out);
    ASSERT_EQ(lines.size(), 27u) << next.out;
    EXPECT_EQ(lines[0], "launch time: 0.200 s");  // (3 + 1) / 20
    EXPECT_EQ(lines[2], "load finished         3      0.150");
    EXPECT_EQ(lines[8], "frames: 9 (180x320), timing: frame rate 20 fps, launch time at: next frame");
    EXPECT_EQ(lines[9], "visual progress   index   time (s)");
    EXPECT_EQ(lines[10], "first change          3      0.150");
    EXPECT_EQ(lines[14], "complete 99           3      0.150");
    EXPECT_EQ(lines[15], "complete 100          3      0.150");
    EXPECT_EQ(lines[16], "speed index: 150.0 ms, noise tolerance: 7");
    EXPECT_EQ(lines[17], " frame   time (s)  progress");
    EXPECT_EQ(lines[18], "     0      0.000    0.0000");
    EXPECT_EQ(lines[20], "     2      0.100    0.0000");
    EXPECT_EQ(lines[21], "     3      0.150    1.0000");
    EXPECT_EQ(lines[26], "     8      0.400    1.0000");
}

TEST(Cli, NothingFoundIsSuccessWithNullLaunchTime) {
    TempDir dir;
    writePngFolder(dir / "rec", {"0100.png", "0200.png", "0300.png"},
                   {solidFrame(180, 320), solidFrame(180, 320), solidFrame(180, 320)});
    const ProcessResult human = runVyra({"analyse", (dir / "rec").string()});
    EXPECT_EQ(human.exitCode, 0);
    EXPECT_EQ(splitLines(human.out).at(0), "launch time: not found");
    const Json json = analyseJson({(dir / "rec").string()});
    EXPECT_TRUE(json["launch_time"].is_null());
    EXPECT_EQ(json["key_frames"]["load_finished"]["index"], -1);
    EXPECT_TRUE(json["key_frames"]["load_finished"]["time"].is_null());
    EXPECT_EQ(json["key_frames"]["baseline"]["index"], 2);
    EXPECT_DOUBLE_EQ(json["key_frames"]["baseline"]["time"].get<double>(), 0.2);
}

TEST(Cli, JsonCarriesEveryFieldOfTheResult) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    const Json j = analyseJson({rec, "--end", "8"});
    EXPECT_EQ(j["schema_version"], 1);
    EXPECT_EQ(j["vyra_version"], vyra_version());
    EXPECT_EQ(j["recording"], rec);
    EXPECT_EQ(j["page_type"], "static");
    EXPECT_EQ(j["timing"], "timestamps");
    EXPECT_TRUE(j["fps"].is_null());
    EXPECT_EQ(j["launch_time_mode"], "frame");
    EXPECT_DOUBLE_EQ(j["launch_time"].get<double>(), 0.25);
    EXPECT_EQ(j["frame_count"], 9);
    EXPECT_EQ(j["frame_width"], 180);
    EXPECT_EQ(j["frame_height"], 320);
    EXPECT_EQ(j["estimated_time_count"], 0);
    const std::vector<std::string> keys = {"load_finished", "baseline",    "logo_appear",
                                           "logo_disappear", "first_frame", "motion_start"};
    ASSERT_EQ(j["key_frames"].size(), keys.size());
    for (const std::string& key : keys) ASSERT_TRUE(j["key_frames"].contains(key)) << key;
    EXPECT_EQ(j["key_frames"]["baseline"]["index"], 8);
    EXPECT_DOUBLE_EQ(j["key_frames"]["baseline"]["time"].get<double>(), 0.5);
    ASSERT_EQ(j["frame_times"].size(), 9u);
    for (size_t k = 0; k < 9; ++k) {
        EXPECT_DOUBLE_EQ(j["frame_times"][k].get<double>(), (kTimes[k] - 1000) / 1000.0) << k;
    }
    const Json& a = j["analysis"];
    EXPECT_EQ(a["page_type"], 0);
    EXPECT_EQ(a["image_count"], 9);
    EXPECT_EQ(a["load_finished_index"], 4);
    EXPECT_EQ(a["static"]["baseline_index"], 8);
    EXPECT_EQ(a["static"]["logo_appear_index"], -1);
    EXPECT_EQ(a["static"]["logo_disappear_index"], -1);
    EXPECT_EQ(a["static"]["first_frame_index"], 4);
    EXPECT_EQ(a["static"]["object_counts"].size(), 9u);
    EXPECT_EQ(a["static"]["object_counts"][0], 0);  // a white frame has no object
    EXPECT_DOUBLE_EQ(a["static"]["loaded_psnr"].get<double>(), 99.99);
    EXPECT_EQ(a["dynamic"]["motion_start_index"], -1);
    EXPECT_EQ(a["dynamic"]["first_non_blank_object_count"], 0);
    EXPECT_TRUE(a["dynamic"]["feature_matching_results"].empty());
    const Json& v = j["visual_progress"];
    for (const char* key : {"first_visual_change", "last_visual_change", "visually_complete_85",
                            "visually_complete_95", "visually_complete_99", "visually_complete"}) {
        EXPECT_EQ(v[key]["index"], 4) << key;  // white up to frame 3, the final page from frame 4
        EXPECT_DOUBLE_EQ(v[key]["time"].get<double>(), 0.25) << key;
    }
    EXPECT_DOUBLE_EQ(v["speed_index_ms"].get<double>(), 250.0);
    EXPECT_EQ(v["noise_tolerance"], 0);  // a folder of PNG files has no coding noise
    EXPECT_EQ(v["noise_tolerance_estimated"], true);
    EXPECT_FALSE(v.contains("progress"));
    const Json p = analyseJson({rec, "--end", "8", "--progress"})["visual_progress"]["progress"];
    ASSERT_EQ(p.size(), 9u);
    for (size_t k = 0; k < 9; ++k) {
        EXPECT_EQ(p[k]["index"], k);
        EXPECT_DOUBLE_EQ(p[k]["time"].get<double>(), (kTimes[k] - 1000) / 1000.0) << k;
        EXPECT_EQ(p[k]["progress"].get<double>(), k < 4 ? 0.0 : 1.0) << k;
    }

    const Json d = analyseJson({rec, "--dynamic"});
    EXPECT_EQ(d["page_type"], "dynamic");
    EXPECT_EQ(d["analysis"]["page_type"], 1);
    EXPECT_EQ(d["key_frames"]["motion_start"]["index"], 3);
    const Json& first = d["analysis"]["dynamic"]["feature_matching_results"].at(0);
    EXPECT_EQ(first["first_image_index"], 3);
    for (const char* field : {"first_keypoint_count", "second_keypoint_count", "consistent_match_count", "is_moving"}) {
        EXPECT_TRUE(first.contains(field)) << field;
    }
}

TEST(Cli, ReportsAreWrittenBesideAnUnchangedOutput) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    const ProcessResult plain = runVyra({"analyse", rec, "--quiet"});
    const fs::path html = dir / "r.html", png = dir / "f.png";
    const ProcessResult reported =
        runVyra({"analyse", rec, "--quiet", "--report", html.string(), "--filmstrip", png.string()});
    EXPECT_EQ(reported.exitCode, 0) << reported.err;
    EXPECT_EQ(reported.out, plain.out);
    EXPECT_NE(readText(html).find("<p class=\"sub\">" + rec + "</p>"), std::string::npos);
    EXPECT_FALSE(cv::imread(png.string()).empty());
}

TEST(Cli, CompareListsBothKeyTimesAndTheirDifference) {
    TempDir dir;
    const fs::path a = writeLaunchFolder(dir);
    // b: the same frames at twice the pace's intervals, so every key time doubles.
    std::vector<std::string> names;
    for (const long long t : kTimes) names.push_back(std::to_string(1000 + 2 * (t - 1000)) + ".png");
    std::vector<cv::Mat> frames;
    for (const auto& entry : pngNames(a)) frames.push_back(cv::imread((a / entry).string()));
    writePngFolder(dir / "b", names, frames);
    const ProcessResult run = runVyra({"compare", a.string(), (dir / "b").string(), "--end", "8", "--quiet",
                                       "--report", (dir / "c.html").string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // White up to frame 3, the page from frame 4 (0.25 s in a), baseline frame 8 (0.5 s).
    const char* loaded = "      0.250      0.500     +0.250\n";
    const char* none = "          -          -          -\n";
    std::string expected = "a: " + a.string() + "\nb: " + (dir / "b").string() + "\n" +
                           "key time (s)              a          b      b - a\n";
    for (const char* row : {"launch time", "load finished"}) expected += std::string(row) + std::string(16 - strlen(row), ' ') + loaded;
    expected += "baseline              0.500      1.000     +0.500\n";
    for (const char* row : {"logo appear", "logo disappear"}) expected += std::string(row) + std::string(16 - strlen(row), ' ') + none;
    expected += std::string("first frame     ") + loaded + "motion start    " + none;
    for (const char* row : {"first change", "last change", "complete 85", "complete 95", "complete 99", "complete 100",
                            "speed index"}) {
        expected += std::string(row) + std::string(16 - strlen(row), ' ') + loaded;
    }
    EXPECT_EQ(run.out, expected);
    EXPECT_TRUE(fs::exists(dir / "c.html"));
}

TEST(Cli, IgnoredClockRegionMakesFramesIdentical) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < 5; ++k) {
        frames.push_back(statusBarFrame(180, 320, 9, 24, cv::Scalar(20, 20, 20), "10:0" + std::to_string(k)));
        names.push_back("00" + std::to_string(k) + "000.png");
    }
    writePngFolder(dir / "rec", names, frames);
    const std::string rec = (dir / "rec").string();
    EXPECT_LT(analyseJson({rec})["analysis"]["static"]["loaded_psnr"].get<double>(), 99.99);
    const Json ignored = analyseJson({rec, "--ignore", "2,2,80,20", "--ignore", "150,290,10,10"});
    EXPECT_DOUBLE_EQ(ignored["analysis"]["static"]["loaded_psnr"].get<double>(), 99.99);
}

// ---- visual progress ----

std::string writePageFolder(const TempDir& dir, const std::vector<int>& timesMs, const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (int t : timesMs) names.push_back(std::to_string(10000 + t) + ".png");
    writePngFolder(dir / "rec", names, frames);
    return (dir / "rec").string();
}

TEST(CliVisual, LateImageIsVisuallyComplete99AndTheLaunchTimeIsTheLoadFinishedFramesOwnTime) {
    TempDir dir;
    const cv::Mat white = pageFrame(false);
    const cv::Mat grid = pageFrame(true);
    const cv::Mat full = pageFrame(true, true);
    const std::string rec =
        writePageFolder(dir, {0, 100, 200, 1200, 2200, 2300}, {white, white, grid, grid, full, full});
    const Json j = analyseJson({rec, "--progress"});
    const Json& v = j["visual_progress"];
    EXPECT_EQ(v["first_visual_change"]["index"], 2);
    EXPECT_EQ(v["last_visual_change"]["index"], 4);
    EXPECT_EQ(v["visually_complete_95"]["index"], 2);
    EXPECT_EQ(v["visually_complete_99"]["index"], 4);
    EXPECT_DOUBLE_EQ(v["visually_complete_99"]["time"].get<double>(), 2.2);
    EXPECT_EQ(v["visually_complete"]["index"], 4);
    EXPECT_NEAR(v["speed_index_ms"].get<double>(), 200.0 + 2000.0 / 28.0, 1e-9);
    const std::vector<double> expected = {0.0, 0.0, 27.0 / 28.0, 27.0 / 28.0, 1.0, 1.0};
    ASSERT_EQ(v["progress"].size(), expected.size());
    for (size_t k = 0; k < expected.size(); ++k) {
        EXPECT_DOUBLE_EQ(v["progress"][k]["progress"].get<double>(), expected[k]) << k;
    }
    const int loaded = j["key_frames"]["load_finished"]["index"];
    ASSERT_GE(loaded, 2);
    EXPECT_LE(loaded, 4);
    EXPECT_EQ(j["launch_time"], j["key_frames"]["load_finished"]["time"]);
    EXPECT_EQ(j["launch_time"], j["frame_times"][static_cast<size_t>(loaded)]);
}

TEST(CliVisual, NoiseToleranceDecidesWhetherNoiseIsAChange) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    std::vector<int> times;
    for (int k = 0; k < 6; ++k) {
        frames.push_back(withNoise(pageFrame(k >= 1), 6, 40u + static_cast<unsigned>(k)));
        times.push_back(100 * k);
    }
    const std::string rec = writePageFolder(dir, times, frames);
    const Json tolerant = analyseJson({rec, "--noise-tolerance", "20"})["visual_progress"];
    EXPECT_EQ(tolerant["last_visual_change"]["index"], 1);
    EXPECT_EQ(tolerant["noise_tolerance"], 20);
    EXPECT_EQ(tolerant["noise_tolerance_estimated"], false);
    const Json strict = analyseJson({rec, "--noise-tolerance", "0"})["visual_progress"];
    EXPECT_EQ(strict["last_visual_change"]["index"], 5);
    EXPECT_EQ(strict["noise_tolerance"], 0);
    for (const char* bad : {"-1", "256", "x", "Auto"}) {
        const ProcessResult run = runVyra({"analyse", rec, "--noise-tolerance", bad});
        EXPECT_EQ(run.exitCode, 2) << bad;
        EXPECT_EQ(run.out, "") << bad;
    }
}

TEST(CliVisual, IgnoredClockIsNoVisualChange) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    std::vector<int> times;
    for (int k = 0; k < 5; ++k) {
        frames.push_back(pageFrame(k >= 1, false, false, "9:4" + std::to_string(k)));
        times.push_back(100 * k);
    }
    const std::string rec = writePageFolder(dir, times, frames);
    const std::string region = std::to_string(kClockRegion[0]) + "," + std::to_string(kClockRegion[1]) + "," +
                               std::to_string(kClockRegion[2]) + "," + std::to_string(kClockRegion[3]);
    EXPECT_EQ(analyseJson({rec})["visual_progress"]["last_visual_change"]["index"], 4);
    const Json v = analyseJson({rec, "--ignore", region})["visual_progress"];
    EXPECT_EQ(v["last_visual_change"]["index"], 1);
    EXPECT_DOUBLE_EQ(v["speed_index_ms"].get<double>(), 100.0);
}

// ---- files and progress ----

TEST(Cli, WritesNothingUnlessAskedToSaveFrames) {
    TempDir dir;
    TempDir cwd;
    const std::string rec = writeLaunchFolder(dir).string();
    EXPECT_EQ(runVyra({"analyse", rec}, cwd.path()).exitCode, 0);
    EXPECT_TRUE(fs::is_empty(cwd.path()));
    EXPECT_EQ(runVyra({"analyse", rec, "--save-frames", "seen", "--start", "6"}, cwd.path()).exitCode, 0);
    EXPECT_EQ(pngNames(cwd.path() / "seen"),
              (std::vector<std::string>{"00000000.png", "00000001.png", "00000002.png", "00000003.png"}));
}

TEST(Cli, ProgressBarOnlyOnATerminalAndNotWhenQuiet) {
    TempDir dir;
    const std::string rec = writeLaunchFolder(dir).string();
    const ProcessResult piped = runVyra({"analyse", rec});
    EXPECT_EQ(piped.err, "");
    const ProcessResult terminal = runVyra({"analyse", rec}, {}, true);
    EXPECT_EQ(terminal.exitCode, 0);
    EXPECT_NE(terminal.err.find("decoding"), std::string::npos) << terminal.err;
    EXPECT_NE(terminal.err.find("10/10"), std::string::npos) << terminal.err;
    EXPECT_NE(terminal.err.find("analysing"), std::string::npos) << terminal.err;
    EXPECT_EQ(terminal.out, piped.out);
    const ProcessResult quiet = runVyra({"analyse", rec, "--quiet"}, {}, true);
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, piped.out);
}

// ---- videos ----

TEST(Cli, VariableFrameRateVideoReportsPresentationTimes) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    TempDir dir;
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 6; ++k) frames.push_back(k < 2 ? solidFrame(180, 320) : texturedFrame(180, 320, 4));
    std::string log;
    ASSERT_TRUE(writeVfrVideo(dir / "vfr.mkv", frames, {250, 30, 400, 60, 90, 120}, {"-c:v", "ffv1"}, &log)) << log;
    const Json j = analyseJson({(dir / "vfr.mkv").string()});
    EXPECT_EQ(j["key_frames"]["load_finished"]["index"], 2);
    EXPECT_NEAR(j["launch_time"].get<double>(), 0.28, 1e-9);  // 250 + 30 ms, not 2 / fps
    EXPECT_NEAR(j["key_frames"]["baseline"]["time"].get<double>(), 0.83, 1e-9);
}

// ---- sample recordings: the analysis recovers the generator's ground truth ----

TEST(CliSample, VideoSampleHumanAndJsonOutput) {
    TempDir dir;
    const std::string video = (dir / "launch.mkv").string();
    const Truth truth = makeSample({video, "--seconds", "3", "--fps", "20", "--size", "180x320", "--seed", "4"});
    EXPECT_EQ(truth.frames, 60);

    const ProcessResult human = runVyra({"analyse", video});
    ASSERT_EQ(human.exitCode, 0) << human.err;
    int index = -1;
    char time[32] = "";
    for (const std::string& line : splitLines(human.out)) {
        std::sscanf(line.c_str(), "load finished %d %31s", &index, time);
    }
    EXPECT_LE(std::abs(index - truth.loadFinished), 1) << human.out;
    char expected[32];
    std::snprintf(expected, sizeof expected, "%.3f", index * 0.05);
    EXPECT_STREQ(time, expected);

    const Json j = analyseJson({video});
    EXPECT_EQ(j["frame_count"], truth.frames);
    EXPECT_EQ(j["key_frames"]["load_finished"]["index"], index);
    EXPECT_NEAR(j["launch_time"].get<double>(), index * 0.05, 1e-9);
    EXPECT_EQ(j["analysis"]["load_finished_index"], index);
}

struct FolderVariant {
    const char* name;
    std::vector<std::string> args;
};

void PrintTo(const FolderVariant& variant, std::ostream* os) { *os << variant.name; }

class CliSampleFolders : public ::testing::TestWithParam<FolderVariant> {};

TEST_P(CliSampleFolders, TimestampFolderGroundTruthIsRecovered) {
    TempDir dir;
    const fs::path out = dir / "frames";
    std::vector<std::string> args = {out.string(), "--frames-dir"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    const Truth truth = makeSample(args);
    const std::vector<std::string> names = pngNames(out);
    ASSERT_EQ(static_cast<int>(names.size()), truth.frames);

    const Json j = analyseJson({out.string()});
    EXPECT_EQ(j["key_frames"]["load_finished"]["index"], truth.loadFinished);
    EXPECT_EQ(j["key_frames"]["logo_appear"]["index"], truth.logoAppear);
    EXPECT_EQ(j["key_frames"]["logo_disappear"]["index"], truth.logoDisappear);
    EXPECT_EQ(j["key_frames"]["first_frame"]["index"], truth.firstFrame);
    const double expected =
        static_cast<double>(nameMs(names[static_cast<size_t>(truth.loadFinished)]) - nameMs(names[0])) / 1000.0;
    EXPECT_DOUBLE_EQ(j["launch_time"].get<double>(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Variants, CliSampleFolders,
    ::testing::Values(FolderVariant{"portrait", {"--size", "180x320", "--seconds", "2", "--fps", "15"}},
                      FolderVariant{"landscape", {"--size", "320x180", "--seconds", "2", "--fps", "15", "--seed", "3"}},
                      FolderVariant{"no_launcher_no_skeleton",
                                    {"--size", "180x320", "--seconds", "2", "--fps", "15", "--launcher", "0",
                                     "--skeleton", "0", "--splash", "0.3", "--seed", "5"}},
                      FolderVariant{"long_splash_jittered_times",
                                    {"--size", "216x384", "--seconds", "3", "--fps", "12", "--splash", "0.35",
                                     "--content", "0.15", "--content-steps", "2", "--jitter", "0.4", "--seed", "8"}}),
    [](const ::testing::TestParamInfo<FolderVariant>& info) { return std::string(info.param.name); });
