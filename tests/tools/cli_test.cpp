// The vyra tool end to end: its console text byte for byte, every JSON field
// against the library's result of the same recording, exit statuses and the
// one error line, the files it writes, and the ground truth of `vyra sample`.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "VyraMeasure.h"
#include "cli_support.h"
#include "fixtures.h"
#include "vyra.h"

using namespace vyra_test;
using Json = nlohmann::json;

namespace {

// 4 white frames then 6 page frames at these capture times (ms).
const std::vector<long long> kTimes = {1000, 1033, 1100, 1180, 1250, 1290, 1400, 1433, 1500, 1600};

std::string writeLaunch(const fs::path& dir, long long scale = 1) {
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (size_t k = 0; k < kTimes.size(); ++k) {
        frames.push_back(k < 4 ? solidFrame(180, 320) : texturedFrame(180, 320, 7));
        names.push_back(std::to_string(100000 + 1000 + scale * (kTimes[k] - 1000)) + ".png");
    }
    writePngFolder(dir, names, frames);
    return dir.string();
}

Json analyseJson(std::vector<std::string> args) {
    args.insert(args.begin(), "analyse");
    args.push_back("--json");
    const ProcessResult run = runVyra(args);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    return Json::parse(run.out);
}

Json number(double value) { return std::isnan(value) ? Json(nullptr) : Json(value); }

// Every field of the tool's JSON document is the library's result's.
void expectJsonOf(const Json& j, const vyra::MeasureResult& m, const std::string& recording) {
    const vyra::StaticPageAnalysisResult& s = m.analysis.staticResult;
    const vyra::DynamicPageAnalysisResult& d = m.analysis.dynamicResult;
    const bool rate = m.timing == vyra::Timing::FrameRate;
    const std::vector<std::pair<const char*, Json>> fields = {
        {"/schema_version", 1}, {"/vyra_version", vyra_version()}, {"/recording", recording},
        {"/page_type", m.analysis.pageType == DYNAMIC_PAGE ? "dynamic" : "static"},
        {"/timing", rate ? "frame-rate" : "timestamps"}, {"/fps", rate ? Json(m.fps) : Json(nullptr)},
        {"/launch_time_mode", m.launchTimeMode == vyra::LaunchTimeMode::NextFrame ? "next-frame" : "frame"},
        {"/launch_time", number(m.launchTime)}, {"/frame_count", m.frameCount}, {"/frame_width", m.frameWidth},
        {"/frame_height", m.frameHeight}, {"/estimated_time_count", m.estimatedTimeCount},
        {"/visual_progress/speed_index_ms", number(m.speedIndexMs)},
        {"/visual_progress/noise_tolerance", m.visual.levelTolerance},
        {"/visual_progress/noise_tolerance_estimated", m.visual.levelToleranceEstimated},
        {"/analysis/page_type", m.analysis.pageType}, {"/analysis/image_count", m.analysis.imageCount},
        {"/analysis/load_finished_index", m.analysis.loadFinishedIndex},
        {"/analysis/static/baseline_index", s.baselineIndex}, {"/analysis/static/logo_appear_index", s.logoAppearIndex},
        {"/analysis/static/logo_disappear_index", s.logoDisappearIndex},
        {"/analysis/static/first_frame_index", s.firstFrameIndex}, {"/analysis/static/object_counts", s.objectCounts},
        {"/analysis/static/loaded_psnr", s.loadedPsnr}, {"/analysis/static/pre_loaded_psnr", s.preLoadedPsnr},
        {"/analysis/dynamic/motion_start_index", d.motionStartIndex},
        {"/analysis/dynamic/first_non_blank_object_count", d.firstNonBlankObjectCount},
    };
    for (const auto& [pointer, value] : fields) EXPECT_EQ(j.at(Json::json_pointer(pointer)), value) << pointer;
    std::vector<Json> times;
    for (double t : m.frameTimes) times.push_back(number(t));
    EXPECT_EQ(j["frame_times"], Json(times));
    size_t analysisKeys = 0;
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        const bool analysis = field.group == vyra::KeyFrameGroup::Analysis;
        analysisKeys += analysis;
        const Json& key = j[analysis ? "key_frames" : "visual_progress"][field.key];
        EXPECT_EQ(key, (Json{{"index", (m.*field.member).index}, {"time", number((m.*field.member).time)}})) << field.key;
    }
    EXPECT_EQ(j["key_frames"].size(), analysisKeys);
    if (j["visual_progress"].contains("progress")) {
        std::vector<Json> series;
        for (size_t k = 0; k < m.visual.progress.size(); ++k) {
            series.push_back({{"index", k}, {"time", number(m.frameTimes[k])}, {"progress", m.visual.progress[k]}});
        }
        EXPECT_EQ(j["visual_progress"]["progress"], Json(series));
    }
    const Json& matches = j["analysis"]["dynamic"]["feature_matching_results"];
    ASSERT_EQ(matches.size(), d.featureMatchingResults.size());
    for (size_t k = 0; k < matches.size(); ++k) {
        const vyra::FeatureMatchingResult& f = d.featureMatchingResults[k];
        EXPECT_EQ(matches[k], (Json{{"first_image_index", f.firstImageIndex}, {"first_keypoint_count", f.firstKeypointCount},
                                    {"second_keypoint_count", f.secondKeypointCount},
                                    {"consistent_match_count", f.consistentMatchCount}, {"is_moving", f.isMoving}}))
            << k;
    }
}

// The ground truth `vyra sample` prints: frames, load finished, logo appear and disappear, first frame.
std::vector<int> makeSample(std::vector<std::string> args) {
    args.insert(args.begin(), "sample");
    const ProcessResult run = runVyra(args);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    std::vector<int> truth(5, -1);
    for (const std::string& line : splitLines(run.out)) {
        std::sscanf(line.c_str(), "frames: %d", &truth[0]);
        std::sscanf(line.c_str(), "expected: loadFinishedIndex %d, logoAppearIndex %d, logoDisappearIndex %d, firstFrameIndex %d",
                    &truth[1], &truth[2], &truth[3], &truth[4]);
    }
    return truth;
}

}  // namespace

TEST(Cli, TheSummaryIsPrintedByteForByte) {
    TempDir dir;
    const std::string rec = writeLaunch(dir / "rec");
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
              "speed index: 250.0 ms, noise tolerance: 0 (auto)\n");
    const ProcessResult next = runVyra({"analyse", rec, "--fps", "20", "--launch-time", "next-frame", "--start", "1",
                                        "--noise-tolerance", "255", "--progress"});
    const std::vector<std::string> lines = splitLines(next.out);
    ASSERT_EQ(lines.size(), 27u) << next.out << next.err;
    const std::vector<std::pair<size_t, std::string>> expected = {
        {0, "launch time: 0.200 s"},  // (3 + 1) / 20
        {2, "load finished         3      0.150"},
        {8, "frames: 9 (180x320), timing: frame rate 20 fps, launch time at: next frame"},
        {16, "speed index: 0.0 ms, noise tolerance: 255"},  // 255 levels tolerate every change
        {17, " frame   time (s)  progress"},
        {18, "     0      0.000    0.0000"},
        {21, "     3      0.150    1.0000"},
        {26, "     8      0.400    1.0000"}};
    for (const auto& [k, line] : expected) EXPECT_EQ(lines[k], line) << k;
    const ProcessResult none = runVyra({"analyse", writeLaunch(dir / "white", 1), "--end", "3"});
    EXPECT_EQ(splitLines(none.out).at(0), "launch time: not found");

    // compare: both key times and their difference; b has every interval doubled.
    const std::string b = writeLaunch(dir / "b", 2);
    const ProcessResult compared = runVyra({"compare", rec, b, "--end", "8", "--quiet", "--report", (dir / "c.html").string()});
    ASSERT_EQ(compared.exitCode, 0) << compared.err;
    std::string table = "a: " + rec + "\nb: " + b + "\nkey time (s)              a          b      b - a\n";
    const auto row = [&table](const std::string& name, const char* values) {
        table += name + std::string(16 - name.size(), ' ') + values + "\n";
    };
    for (const char* name : {"launch time", "load finished"}) row(name, "      0.250      0.500     +0.250");
    row("baseline", "      0.500      1.000     +0.500");
    for (const char* name : {"logo appear", "logo disappear"}) row(name, "          -          -          -");
    row("first frame", "      0.250      0.500     +0.250");
    row("motion start", "          -          -          -");
    for (const char* name : {"first change", "last change", "complete 85", "complete 95", "complete 99", "complete 100", "speed index"}) {
        row(name, "      0.250      0.500     +0.250");
    }
    EXPECT_EQ(compared.out, table);
    EXPECT_EQ(readText(dir / "c.html").rfind("<!DOCTYPE html>", 0), 0u);
}

TEST(Cli, JsonCarriesEveryFieldOfTheLibrarysResult) {
    TempDir dir;
    const std::vector<int> truth = makeSample({(dir / "frames").string(), "--frames-dir", "--size", "180x320", "--seconds", "2",
                                               "--fps", "15", "--jitter", "0.3", "--seed", "5"});
    const std::string rec = (dir / "frames").string();
    // The ground truth of the sample is recovered ...
    const Json j = analyseJson({rec});
    EXPECT_EQ(j["frame_count"], truth[0]);
    int k = 1;
    for (const char* key : {"load_finished", "logo_appear", "logo_disappear", "first_frame"}) {
        EXPECT_EQ(j["key_frames"][key]["index"], truth[k++]) << key;
    }
    // ... and every field is the library's.
    expectJsonOf(j, vyra::Measure(rec), rec);
    vyra::MeasureOptions o;
    o.pageType = DYNAMIC_PAGE, o.timing = vyra::Timing::FrameRate, o.fps = 15, o.start = 2, o.end = 20;
    o.launchTimeMode = vyra::LaunchTimeMode::NextFrame, o.visualProgress.levelTolerance = 7;
    expectJsonOf(analyseJson({rec, "--dynamic", "--fps", "15", "--start", "2", "--end", "20", "--launch-time", "next-frame",
                              "--noise-tolerance", "7"}),
                 vyra::Measure(rec, o), rec);
    o = vyra::MeasureOptions();
    o.crop = vyra::Region{0, 12, 180, 300}, o.ignore = {vyra::Region{0, 0, 60, 20}, vyra::Region{100, 100, 10, 10}};
    o.stableBaseline = true;
    const Json cropped = analyseJson({rec, "--crop", "0,12,180,300", "--ignore", "0,0,60,20", "--ignore", "100,100,10,10",
                                      "--stable-baseline", "--progress"});
    expectJsonOf(cropped, vyra::Measure(rec, o), rec);
    EXPECT_EQ(cropped["visual_progress"]["progress"].size(), static_cast<size_t>(truth[0]));
    EXPECT_FALSE(j["visual_progress"].contains("progress"));
}

TEST(Cli, ErrorsExitWithTheirStatusAndOneLine) {
    TempDir dir;
    const std::string rec = writeLaunch(dir / "rec");
    const fs::path notUtf8 = dir / "launch\xff\xfe";  // a JSON document cannot carry this path
    fs::copy(rec, notUtf8);
    fs::create_directories(dir / "empty");
    std::ofstream(dir / "file") << "x";
    const std::string file = (dir / "file").string();
    const struct {
        std::vector<std::string> args;
        int exitCode;
        const char* message;  // a part of the first line after "vyra: error: "
    } cases[] = {
        {{}, 2, ""}, {{"analyse"}, 2, "RECORDING"}, {{"measure", rec}, 2, ""}, {{"analyse", rec, "--bogus"}, 2, "bogus"},
        {{"analyse", notUtf8.string(), "--json"}, 2, "not valid UTF-8"},
        {{"analyse", rec, "--fps", "10", "--timestamps"}, 2, "excludes"},
        {{"analyse", rec, "--crop", "1,2,3"}, 2, "x,y,w,h"}, {{"analyse", rec, "--crop", "1,2,3,4,5"}, 2, "x,y,w,h"},
        {{"analyse", rec, "--crop", "99999999999,0,10,10"}, 2, "out of range"}, {{"analyse", rec, "--ignore", "a,b,c,d"}, 2, "x,y,w,h"},
        {{"analyse", rec, "--launch-time", "soon"}, 2, "soon"}, {{"analyse", rec, "--start", "x"}, 2, "x"},
        {{"analyse", rec, "--fps", ""}, 2, ""}, {{"analyse", rec, "--fps", "1e-308"}, 2, "frame rate"},
        {{"analyse", rec, "--fps", "nan"}, 2, ""},
        {{"analyse", rec, "--noise-tolerance", "256"}, 2, ""}, {{"analyse", rec, "--noise-tolerance", "-1"}, 2, ""},
        {{"analyse", rec, "--noise-tolerance", "Auto"}, 2, ""}, {{"sample", (dir / "s.mkv").string(), "--size", "100"}, 2, ""},
        {{"analyse", rec, "--report", "r.html", "--report-interval", "0"}, 2, "interval"},
        {{"compare", rec, rec}, 2, "--report"}, {{"compare", rec, "--report", "r.html"}, 2, "B"},
        {{"analyse", rec, "--crop", "100,300,100,100"}, 2, "does not lie inside"},
        {{"analyse", rec, "--ignore", "0,0,5,5", "--ignore", "170,0,20,5"}, 2, "170,0,20,5"},
        // (Bad recordings: tools/bad_input_test.cpp.)
        {{"compare", rec, (dir / "missing").string(), "--report", (dir / "c.html").string()}, 3, "does not exist"},
        {{"analyse", rec, "--save-frames", file + "/sub"}, 1, "sub"}, {{"analyse", rec, "--report", file + "/r.html"}, 1, "r.html"},
        {{"analyse", rec, "--filmstrip", file + "/f.png"}, 1, "f.png"},
    };
    for (const auto& c : cases) {
        std::string joined;
        for (const std::string& a : c.args) joined += a + " ";
        const ProcessResult run = runVyra(c.args);
        EXPECT_EQ(run.exitCode, c.exitCode) << joined << run.err;
        EXPECT_EQ(run.out, "") << joined;
        EXPECT_EQ(run.err.rfind("vyra: error: ", 0), 0u) << joined << run.err;
        EXPECT_NE(splitLines(run.err).at(0).find(c.message), std::string::npos) << joined << run.err;
    }
    EXPECT_FALSE(fs::exists(dir / "c.html"));
    for (const char* format : {"--json", "--quiet"}) {
        const ProcessResult full = runProcess({"sh", "-c", "\"$0\" analyse \"$1\" $2 > /dev/full", cliPath(), rec, format});
        EXPECT_EQ(full.exitCode, 1) << format;
        EXPECT_EQ(full.err, "vyra: error: cannot write standard output: No space left on device\n") << format;
    }
    const ProcessResult version = runVyra({"--version"});
    EXPECT_EQ(version.out, std::string("vyra ") + vyra_version() + "\n");
    const ProcessResult help = runVyra({"analyse", "--help"});
    EXPECT_EQ(help.exitCode, 0);
}

TEST(Cli, WritesOnlyWhatItIsAskedToAndShowsProgressOnlyOnATerminal) {
    TempDir dir, cwd;
    const std::string rec = writeLaunch(dir / "rec");
    const ProcessResult plain = runVyra({"analyse", rec}, cwd.path());
    EXPECT_EQ(plain.err, "");
    EXPECT_TRUE(fs::is_empty(cwd.path()));
    const ProcessResult saved = runVyra({"analyse", rec, "--save-frames", "seen", "--start", "6", "--report", "r.html",
                                         "--filmstrip", "f.png"}, cwd.path(), true);
    EXPECT_EQ(saved.exitCode, 0) << saved.err;
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(cwd.path() / "seen")) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"00000000.png", "00000001.png", "00000002.png", "00000003.png"}));
    EXPECT_NE(readText(cwd.path() / "r.html").find("<p class=\"sub\">" + rec + "</p>"), std::string::npos);
    EXPECT_FALSE(cv::imread((cwd.path() / "f.png").string()).empty());
    for (const char* shown : {"decoding", "4/4", "analysing"}) EXPECT_NE(saved.err.find(shown), std::string::npos) << saved.err;
    EXPECT_EQ(runVyra({"analyse", rec}, {}, true).out, plain.out);
    const ProcessResult quiet = runVyra({"analyse", rec, "--quiet"}, {}, true);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, plain.out);
}
