// vyra batch: the spread and group helpers in-process, and the built tool on
// frame folders whose launch times are known by construction.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "batch_results.h"
#include "cli_support.h"
#include "fixtures.h"

using namespace vyra_test;
using Json = nlohmann::json;

namespace {

// ---- spread and groups ----

TEST(BatchTable, SpreadIsMedianNearestRankP90MinMax) {
    struct Case {
        std::vector<double> values;
        double median, p90, min, max;
    };
    std::vector<double> twenty;
    for (int k = 1; k <= 20; ++k) twenty.push_back(k);
    const std::vector<double> ten(twenty.rbegin() + 10, twenty.rend()), eleven(twenty.begin(), twenty.begin() + 11);  // ten: 10 .. 1
    const std::vector<Case> cases = {
        {{4.0}, 4.0, 4.0, 4.0, 4.0},
        {{3.0, 1.0}, 2.0, 3.0, 1.0, 3.0},         // p90: rank ceil(1.8) = 2
        {{5.0, 1.0, 3.0}, 3.0, 5.0, 1.0, 5.0},    // rank ceil(2.7) = 3
        {ten, 5.5, 9.0, 1.0, 10.0},               // rank 9 exactly
        {eleven, 6.0, 10.0, 1.0, 11.0},           // rank ceil(9.9) = 10
        {twenty, 10.5, 18.0, 1.0, 20.0},          // rank 18
    };
    for (const Case& c : cases) {
        const vyra::tool::Spread s = vyra::tool::SpreadOf(c.values);
        EXPECT_EQ((std::vector<double>{double(s.count), s.median, s.p90, s.min, s.max}),
                  (std::vector<double>{double(c.values.size()), c.median, c.p90, c.min, c.max}));
    }
    const vyra::tool::Spread none = vyra::tool::SpreadOf({});
    EXPECT_TRUE(std::isnan(none.median) && std::isnan(none.p90) && std::isnan(none.min) && std::isnan(none.max));
}

TEST(BatchTable, GroupIsFirstCaptureOrWholeMatch) {
    const std::regex device("/(pixel|galaxy)[0-9]*/");
    const std::regex cold("cold|warm");
    const std::regex optional("x(y?)z");
    const struct {
        const std::regex* pattern;
        std::string path, group;
    } cases[] = {
        {nullptr, "a/b.mp4", "all"}, {&device, "lab/pixel7/1.mp4", "pixel"}, {&device, "lab/ipad/1.mp4", "(none)"},
        {&cold, "pixel/warm-3.mp4", "warm"}, {&optional, "r/xz.mp4", "(none)"}, {&optional, "r/xyz.mp4", "y"},
    };
    for (const auto& c : cases) EXPECT_EQ(vyra::tool::GroupOf(c.path, c.pattern), c.group) << c.path;
}

// ---- the tool ----

// A frame folder: @p white white frames, then three frames of a textured
// page, @p stepMs apart. The page is loaded, and visually complete, at
// frame @p white, white * stepMs / 1000 s from the first frame.
std::string writeLaunch(const fs::path& dir, int white, int stepMs) {
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < white + 3; ++k) {
        frames.push_back(k < white ? solidFrame(180, 320) : texturedFrame(180, 320, 7));
        names.push_back(std::to_string(100000 + k * stepMs) + ".png");
    }
    writePngFolder(dir, names, frames);
    return dir.string();
}

std::vector<Json> readLines(const fs::path& file) {
    const std::string text = readText(file);
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    std::vector<Json> lines;
    for (const std::string& line : splitLines(text)) lines.push_back(Json::parse(line));
    return lines;
}

std::map<std::string, Json> byPath(const std::vector<Json>& lines) {
    std::map<std::string, Json> map;
    for (const Json& line : lines) EXPECT_TRUE(map.emplace(line["path"], line).second) << line["path"];
    return map;
}

// The rows of the group table, split into words ("|" dropped), by group.
std::map<std::string, std::vector<std::string>> tableRows(const std::string& out) {
    std::map<std::string, std::vector<std::string>> rows;
    const std::vector<std::string> lines = splitLines(out);
    for (size_t k = 2; k < lines.size(); ++k) {
        std::istringstream words(lines[k]);
        std::vector<std::string> row;
        for (std::string word; words >> word;) {
            if (word != "|") row.push_back(word);
        }
        rows[row.at(0)] = std::vector<std::string>(row.begin() + 1, row.end());
    }
    return rows;
}

std::string fixed3(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::vector<std::string> row(int count, int failed, std::vector<double> launch, std::vector<double> complete) {
    std::vector<std::string> words = {std::to_string(count), std::to_string(failed)};
    for (double v : launch) words.push_back(fixed3(v));
    for (double v : complete) words.push_back(fixed3(v));
    return words;
}

TEST(Batch, OneLinePerRecordingErrorsIncludedAndATablePerGroup) {
    TempDir dir;
    // Launch times with --launch-time next-frame are one step after the
    // visually complete frame: (white + 1) * step.
    const struct {
        const char* name;
        int white, step;
    } launches[] = {{"pixel/cold1", 1, 100}, {"pixel/cold2", 2, 100}, {"pixel/cold3", 3, 100},
                    {"galaxy/cold1", 2, 50}, {"galaxy/cold2", 4, 50}};
    std::vector<std::string> args = {"batch"};
    for (const auto& l : launches) args.push_back(writeLaunch(dir / l.name, l.white, l.step));
    fs::create_directories(dir / "galaxy" / "broken");
    writeCorruptPng(dir / "galaxy" / "broken" / "0001.png");
    args.push_back((dir / "galaxy" / "broken").string());
    const fs::path out = dir / "results.jsonl";
    for (const char* a : {"--out", out.c_str(), "--jobs", "2", "--group-by", "/(pixel|galaxy)/", "--launch-time",
                          "next-frame"}) {
        args.push_back(a);
    }
    const ProcessResult run = runVyra(args);
    EXPECT_EQ(run.exitCode, 4) << run.err;
    EXPECT_EQ(splitLines(run.err).size(), 1u) << run.err;
    EXPECT_EQ(run.err.rfind("vyra: error: " + (dir / "galaxy" / "broken").string() + ": ", 0), 0u) << run.err;

    const std::map<std::string, Json> lines = byPath(readLines(out));
    ASSERT_EQ(lines.size(), 6u);
    for (const auto& l : launches) {
        const Json& line = lines.at((dir / l.name).string());
        EXPECT_EQ(line["error"], nullptr);
        EXPECT_EQ(line["status"], 0);
        EXPECT_EQ(line["recording"], (dir / l.name).string());
        EXPECT_EQ(line["launch_time_mode"], "next-frame");
        EXPECT_NEAR(line["launch_time"].get<double>(), (l.white + 1) * l.step / 1000.0, 1e-9) << l.name;
        EXPECT_NEAR(line["visual_progress"]["visually_complete"]["time"].get<double>(), l.white * l.step / 1000.0,
                    1e-9);
        EXPECT_GE(line["wall_s"].get<double>(), 0.0);
    }
    const Json& broken = lines.at((dir / "galaxy" / "broken").string());
    EXPECT_NE(broken["error"].get<std::string>().find("0001.png"), std::string::npos) << broken;
    EXPECT_EQ(broken["status"], 3);
    EXPECT_EQ(broken["status_name"], "unreadable input");
    EXPECT_EQ(broken.count("launch_time"), 0u);

    // pixel: launch 0.2 0.3 0.4, complete 0.1 0.2 0.3; galaxy: launch 0.15
    // 0.25, complete 0.1 0.2, and the broken one. p90 is rank ceil(0.9 n).
    const auto rows = tableRows(run.out);
    ASSERT_EQ(rows.size(), 2u) << run.out;
    EXPECT_EQ(rows.at("pixel"), row(3, 0, {0.3, 0.4, 0.2, 0.4}, {0.2, 0.3, 0.1, 0.3})) << run.out;
    EXPECT_EQ(rows.at("galaxy"), row(3, 1, {0.2, 0.25, 0.15, 0.25}, {0.15, 0.2, 0.1, 0.2})) << run.out;
}

TEST(Batch, ResumesFromTheResultsFileAndDropsAPartialLastLine) {
    TempDir dir;
    std::vector<std::string> recs;
    for (int k = 1; k <= 4; ++k) recs.push_back(writeLaunch(dir / ("r" + std::to_string(k)), k, 100));
    const fs::path out = dir / "results.jsonl";
    ASSERT_EQ(runVyra({"batch", recs[0], recs[1], "--out", out.string()}).exitCode, 0);
    // r1's line is replaced by one no measurement gives: if r1 were measured
    // again the table would not show its 9.5 s.
    std::vector<Json> first = readLines(out);
    ASSERT_EQ(first.size(), 2u);
    for (Json& line : first) {
        if (line["path"] == recs[0]) line["launch_time"] = 9.5;
    }
    const std::string kept = first[0].dump() + "\n" + first[1].dump() + "\n";
    std::ofstream(out, std::ios::binary) << kept << "{\"path\": \"" << recs[2];

    const std::vector<std::string> all = {"batch", recs[0], recs[1], recs[2], recs[3], "--out", out.string()};
    const ProcessResult run = runVyra(all);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("removed a partial last line"), std::string::npos) << run.err;
    const std::string text = readText(out);
    EXPECT_EQ(text.substr(0, kept.size()), kept);
    const std::map<std::string, Json> lines = byPath(readLines(out));
    EXPECT_EQ(lines.size(), 4u);
    EXPECT_NEAR(lines.at(recs[3])["launch_time"].get<double>(), 0.4, 1e-9);
    // launch 9.5 0.2 0.3 0.4; complete 0.1 0.2 0.3 0.4
    EXPECT_EQ(tableRows(run.out).at("all"), row(4, 0, {0.35, 9.5, 0.2, 9.5}, {0.25, 0.4, 0.1, 0.4})) << run.out;

    const ProcessResult again = runVyra(all);
    EXPECT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(again.out, run.out);
    EXPECT_EQ(readText(out), text);
}

TEST(Batch, InputsAreExpandedFromFoldersAndLists) {
    TempDir dir;
    const fs::path lab = dir / "lab";
    writeLaunch(lab / "day1" / "a", 1, 100);
    writeLaunch(lab / "day1" / "b", 1, 100);
    writeLaunch(lab / ".trash" / "c", 1, 100);
    fs::create_directories(lab / "day2");
    std::ofstream(lab / "day2" / "clip.MP4") << "not a video";
    std::ofstream(lab / "day2" / "notes.txt") << "not a recording";
    const std::string single = writeLaunch(dir / "single", 1, 100);
    std::ofstream(dir / "list.txt") << "# runs\n" << single << "/\n\n" << (lab / "day1" / "a").string() << "\r\n";

    const fs::path out = dir / "out.jsonl";
    const ProcessResult run = runVyra({"batch", lab.string(), "@" + (dir / "list.txt").string(), "--out", out.string()});
    EXPECT_EQ(run.exitCode, 4) << run.err;  // clip.MP4 is no video
    std::set<std::string> paths;
    for (const auto& [path, line] : byPath(readLines(out))) paths.insert(path);
    EXPECT_EQ(paths, (std::set<std::string>{(lab / "day1" / "a").string(), (lab / "day1" / "b").string(),
                                            (lab / "day2" / "clip.MP4").string(), single}));
}

TEST(Batch, UsageAndInputErrorsWriteNothing) {
    TempDir dir;
    const std::string rec = writeLaunch(dir / "rec", 1, 100);
    fs::create_directories(dir / "empty");
    const fs::path notUtf8 = dir / "launch\xff";
    fs::copy(rec, notUtf8);
    const std::string out = (dir / "out.jsonl").string();
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::string message;
    } cases[] = {
        {{rec}, 2, "--out is required"}, {{"--out", out}, 2, "INPUTS is required"},
        {{rec, "--out", out, "--jobs", "0"}, 2, "--jobs"}, {{rec, "--out", out, "--group-by", "(a"}, 2, "no regular expression"},
        {{rec, "--out", out, "--crop", "1,2"}, 2, "region"}, {{notUtf8.string(), "--out", out}, 2, "not valid UTF-8"},
        {{"@" + (dir / "nolist").string(), "--out", out}, 3, "cannot read the list"},
        {{(dir / "empty").string(), "--out", out}, 3, "hold no recording"}, {{rec, "--out", dir.str()}, 1, "cannot open"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"batch"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const ProcessResult run = runVyra(args);
        EXPECT_EQ(run.exitCode, c.exitCode) << c.message << run.err;
        EXPECT_EQ(run.out, "") << c.message;
        EXPECT_EQ(run.err.rfind("vyra: error: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_FALSE(fs::exists(out)) << c.message;
    }
}

TEST(Batch, InterruptedBatchLeavesWholeLinesAndResumes) {
    TempDir dir;
    std::vector<std::string> args = {cliPath(), "batch"};
    const int count = 40;
    for (int k = 0; k < count; ++k) args.push_back(writeLaunch(dir / ("r" + std::to_string(k)), 1 + k % 3, 100));
    const fs::path out = dir / "results.jsonl";
    for (const char* a : {"--out", out.c_str(), "--jobs", "1"}) args.push_back(a);

    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        freopen("/dev/null", "w", stderr);
        freopen("/dev/null", "w", stdout);
        execv(argv[0], argv.data());
        _exit(127);
    }
    while (readText(out).find('\n') == std::string::npos) usleep(2000);  // the first line is written
    kill(pid, SIGINT);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    const size_t done = readLines(out).size();
    EXPECT_GE(done, 1u);
    EXPECT_LT(done, static_cast<size_t>(count));

    args.erase(args.begin());
    const ProcessResult rest = runVyra(args);
    EXPECT_EQ(rest.exitCode, 0) << rest.err;
    EXPECT_EQ(byPath(readLines(out)).size(), static_cast<size_t>(count));
    EXPECT_EQ(tableRows(rest.out).at("all").at(0), std::to_string(count));
}

}  // namespace
