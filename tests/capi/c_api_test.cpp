// The C interface maps vyra::Measure onto fixed structures: every field of
// VyraResult against the C++ result of the same recording, settings read only
// as far as the caller's struct_size reaches, errors as status and message.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "VyraMeasure.h"
#include "fixtures.h"
#include "vyra.h"

using namespace vyra_test;

namespace {

// 3 white frames then 4 copies of one page, named 0, 100, ..., 600 ms.
std::string writeLaunch(const TempDir& dir) {
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < 7; ++k) {
        frames.push_back(k < 3 ? solidFrame(180, 320) : texturedFrame(180, 320, 11));
        names.push_back("0000" + std::to_string(k) + "00.png");
    }
    writePngFolder(dir / "rec", names, frames);
    return (dir / "rec").string();
}

VyraResult freshResult() {
    VyraResult r;
    std::memset(&r, 0xAB, sizeof r);
    r.struct_size = sizeof r;
    return r;
}

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void expectMapped(const VyraResult& c, const vyra::MeasureResult& m) {
    EXPECT_EQ(c.page_type, m.analysis.pageType == DYNAMIC_PAGE ? VYRA_PAGE_DYNAMIC : VYRA_PAGE_STATIC);
    EXPECT_EQ(c.timing, m.timing == vyra::Timing::FrameRate ? VYRA_TIMING_FRAME_RATE : VYRA_TIMING_TIMESTAMPS);
    EXPECT_EQ(c.launch_time_mode, m.launchTimeMode == vyra::LaunchTimeMode::NextFrame ? VYRA_LAUNCH_TIME_NEXT_FRAME
                                                                                    : VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME);
    EXPECT_EQ(c.fps, m.fps);
    EXPECT_EQ(c.frame_count, m.frameCount);
    EXPECT_EQ(c.frame_width, m.frameWidth);
    EXPECT_EQ(c.frame_height, m.frameHeight);
    EXPECT_TRUE(same(c.launch_time, m.launchTime));
    EXPECT_EQ(c.estimated_time_count, m.estimatedTimeCount);
    size_t count = 0;
    const VyraKeyFrameField* fields = vyra_key_frame_fields(&count);
    ASSERT_EQ(count, vyra::KeyFrameFields().size());
    for (size_t k = 0; k < count; ++k) {
        VyraKeyFrame key;
        std::memcpy(&key, reinterpret_cast<const char*>(&c) + fields[k].offset, sizeof key);
        const vyra::KeyFrame& expected = m.*vyra::KeyFrameFields()[k].member;
        EXPECT_EQ(key.index, expected.index) << fields[k].key;
        EXPECT_TRUE(same(key.time, expected.time)) << fields[k].key;
        EXPECT_STREQ(fields[k].key, vyra::KeyFrameFields()[k].key);
    }
    EXPECT_EQ(c.loaded_psnr, m.analysis.staticResult.loadedPsnr);
    EXPECT_EQ(c.pre_loaded_psnr, m.analysis.staticResult.preLoadedPsnr);
    EXPECT_EQ(c.object_count_length, m.analysis.staticResult.objectCounts.size());
    EXPECT_EQ(c.first_non_blank_object_count, m.analysis.dynamicResult.firstNonBlankObjectCount);
    EXPECT_EQ(c.feature_matching_count, m.analysis.dynamicResult.featureMatchingResults.size());
    EXPECT_TRUE(same(c.speed_index_ms, m.speedIndexMs));
    EXPECT_EQ(c.noise_tolerance, m.visual.levelTolerance);
    EXPECT_EQ(c.noise_tolerance_estimated, m.visual.levelToleranceEstimated ? 1 : 0);
}

}  // namespace

TEST(CApi, EveryFieldIsTheCppResultsAndTheSettingsReachTheMeasurement) {
    TempDir dir;
    const std::string rec = writeLaunch(dir);
    VyraResult r = freshResult();
    char error[128] = "stale";
    ASSERT_EQ(vyra_measure(rec.c_str(), nullptr, &r, error, sizeof error), VYRA_OK) << error;
    EXPECT_STREQ(error, "");
    EXPECT_EQ(r.status, VYRA_OK);
    EXPECT_EQ(r.struct_size, sizeof r);
    expectMapped(r, vyra::Measure(rec));
    // Anchors known by construction: the page from frame 3 at 0.3 s, last at 0.6 s.
    EXPECT_EQ(r.load_finished.index, 3);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.3);
    EXPECT_EQ(r.baseline.index, 6);
    EXPECT_DOUBLE_EQ(r.loaded_psnr, 99.99);
    EXPECT_DOUBLE_EQ(r.pre_loaded_psnr, referencePsnr(solidFrame(180, 320), texturedFrame(180, 320, 11)));

    const std::string saved = (dir / "saved").string();
    const VyraRegion ignore[1] = {{0, 0, 20, 20}};
    std::vector<std::pair<int, uint64_t>> events;
    using Change = std::function<void(VyraSettings&, vyra::MeasureOptions&)>;
    const std::vector<std::pair<const char*, Change>> changes = {
        {"frame rate", [](VyraSettings& s, vyra::MeasureOptions& o) { s.timing = VYRA_TIMING_FRAME_RATE, s.fps = 20, o.timing = vyra::Timing::FrameRate, o.fps = 20; }},
        {"range", [](VyraSettings& s, vyra::MeasureOptions& o) { s.start = 1, s.end = 5, o.start = 1, o.end = 5; }},
        {"next frame", [](VyraSettings& s, vyra::MeasureOptions& o) { s.launch_time_mode = VYRA_LAUNCH_TIME_NEXT_FRAME, o.launchTimeMode = vyra::LaunchTimeMode::NextFrame; }},
        {"dynamic", [](VyraSettings& s, vyra::MeasureOptions& o) { s.page_type = VYRA_PAGE_DYNAMIC, o.pageType = DYNAMIC_PAGE; }},
        {"stable", [](VyraSettings& s, vyra::MeasureOptions& o) { s.stable_baseline = 1, o.stableBaseline = true; }},
        {"crop", [](VyraSettings& s, vyra::MeasureOptions& o) { s.has_crop = 1, s.crop = {0, 0, 180, 240}, o.crop = vyra::Region{0, 0, 180, 240}; }},
        {"ignore", [&](VyraSettings& s, vyra::MeasureOptions& o) { s.ignore = ignore, s.ignore_count = 1, o.ignore = {vyra::Region{0, 0, 20, 20}}; }},
        {"noise tolerance", [](VyraSettings& s, vyra::MeasureOptions& o) { s.noise_tolerance = 20, o.visualProgress.levelTolerance = 20; }},
        {"save frames", [&](VyraSettings& s, vyra::MeasureOptions&) { s.save_frames_dir = saved.c_str(); }},
        {"progress", [&](VyraSettings& s, vyra::MeasureOptions&) {
             s.progress_user = &events;
             s.progress = [](void* user, VyraStage stage, uint64_t done, uint64_t total) {
                 static_cast<std::vector<std::pair<int, uint64_t>>*>(user)->emplace_back(stage * 100 + static_cast<int>(total), done);
             };
         }},
    };
    for (const auto& [what, change] : changes) {
        VyraSettings s;
        vyra_default_settings(&s);
        vyra::MeasureOptions o;
        change(s, o);
        r = freshResult();
        ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK) << what;
        SCOPED_TRACE(what);
        expectMapped(r, vyra::Measure(rec, o));
    }
    EXPECT_TRUE(fs::exists(dir / "saved" / "00000006.png"));
    ASSERT_EQ(events.size(), 9u);
    EXPECT_EQ(events[6], std::make_pair(VYRA_STAGE_DECODING * 100 + 7, uint64_t{7}));
    EXPECT_EQ(events[8], std::make_pair(VYRA_STAGE_ANALYSING * 100 + 1, uint64_t{1}));

    std::vector<double> progress(7, -5.0), times(7, -5.0);
    VyraSettings s;
    vyra_default_settings(&s);
    s.progress_out = progress.data();
    s.frame_times_out = times.data();
    s.series_capacity = 5;  // two frames more than the buffers admit
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(progress, (std::vector<double>{0, 0, 0, 1, 1, -5, -5}));
    EXPECT_EQ(times, (std::vector<double>{0, 0.1, 0.2, 0.3, 0.4, -5, -5}));
}

TEST(CApi, OlderCallersStructuresAreReadAndWrittenOnlyAsFarAsTheyReach) {
    TempDir dir;
    const std::string rec = writeLaunch(dir);
    const size_t known = offsetof(VyraResult, launch_time) + sizeof(double);
    VyraResult r = freshResult();
    r.struct_size = known;
    ASSERT_EQ(vyra_measure(rec.c_str(), nullptr, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.struct_size, known);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.3);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&r);
    for (size_t k = known; k < sizeof r; ++k) ASSERT_EQ(bytes[k], 0xAB) << k;

    VyraSettings s;  // known up to `end`: later fields are garbage and unread
    std::memset(&s, 0x7F, sizeof s);
    s.struct_size = offsetof(VyraSettings, end) + sizeof(int32_t);
    s.timing = VYRA_TIMING_TIMESTAMPS, s.fps = 0.0, s.start = 2, s.end = 0;
    r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.frame_count, 5u);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.1);
    vyra_default_settings(&s);
    s.noise_tolerance = 20;
    s.struct_size = offsetof(VyraSettings, noise_tolerance);  // a caller from before the field: estimated
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.noise_tolerance, 0);
    EXPECT_EQ(r.noise_tolerance_estimated, 1);
}

// A struct_size that ends inside a field: that field is not read (found by
// fuzzing: half of save_frames_dir was read as a pointer, and crashed).
TEST(CApi, AFieldCutByStructSizeIsNotRead) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    const std::string saved = (dir / "saved").string();
    struct Case {
        const char* what;
        size_t structSize;
        uint64_t frames;  // the recording's 7 unless start was read
        bool saves;       // save_frames_dir was read
    };
    const Case cases[] = {
        {"start cut after 2 bytes", offsetof(VyraSettings, start) + 2, 7, false},
        {"start whole", offsetof(VyraSettings, start) + sizeof(int32_t), 5, false},
        {"save_frames_dir cut after 4 bytes", offsetof(VyraSettings, save_frames_dir) + 4, 5, false},
        {"progress_out cut after 1 byte", offsetof(VyraSettings, progress_out) + 1, 5, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VyraSettings s;
        vyra_default_settings(&s);
        s.start = 0x00010002;  // 2 in its low bytes
        s.save_frames_dir = saved.c_str();
        double progress[7];
        s.progress_out = progress;
        s.series_capacity = 7;
        if (c.frames == 5) s.start = 2;
        s.struct_size = c.structSize;
        VyraResult r = freshResult();
        ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
        EXPECT_EQ(r.frame_count, c.frames);
        EXPECT_EQ(fs::exists(saved), c.saves);
        fs::remove_all(saved);
    }
}

TEST(CApi, ErrorsComeBackAsStatusAndMessageWithAnEmptyResult) {
    TempDir dir;
    const std::string rec = writeLaunch(dir);
    const auto store = [](auto& field, int value) { std::memcpy(&field, &value, sizeof field); };
    const struct {
        std::string path;
        std::function<void(VyraSettings&)> spoil;
        VyraStatus status;
        const char* message;
    } cases[] = {
        {(dir / "missing").string(), [](VyraSettings&) {}, VYRA_ERROR_NOT_FOUND, "does not exist"},
        {rec, [](VyraSettings& s) { s.timing = VYRA_TIMING_FRAME_RATE; }, VYRA_ERROR_INVALID_ARGUMENT, "frame rate"},
        {rec, [&](VyraSettings& s) { store(s.timing, 5); }, VYRA_ERROR_INVALID_ARGUMENT, "unknown timing value"},
        {rec, [&](VyraSettings& s) { store(s.page_type, -1); }, VYRA_ERROR_INVALID_ARGUMENT, "unknown page type value"},
        {rec, [&](VyraSettings& s) { store(s.launch_time_mode, 2); }, VYRA_ERROR_INVALID_ARGUMENT, "unknown launch time mode value"},
        {rec, [](VyraSettings& s) { s.ignore_count = 1; }, VYRA_ERROR_INVALID_ARGUMENT, "ignore is NULL"},
        {rec, [](VyraSettings& s) { s.has_crop = 1, s.crop = {170, 0, 20, 20}; }, VYRA_ERROR_INVALID_ARGUMENT, "inside"},
        {rec, [](VyraSettings& s) { s.struct_size = 3; }, VYRA_ERROR_INVALID_ARGUMENT, "struct_size is too small"},
        {rec, [](VyraSettings& s) { s.save_frames_dir = "/dev/null/x"; }, VYRA_ERROR_WRITE, "/dev/null/x"},
    };
    for (const auto& c : cases) {
        VyraSettings s;
        vyra_default_settings(&s);
        c.spoil(s);
        VyraResult r = freshResult();
        char error[256];
        EXPECT_EQ(vyra_measure(c.path.c_str(), &s, &r, error, sizeof error), c.status) << c.message;
        EXPECT_EQ(r.status, c.status);
        EXPECT_NE(std::string(error).find(c.message), std::string::npos) << error;
        EXPECT_EQ(r.frame_count, 0u);
        EXPECT_TRUE(std::isnan(r.launch_time) && std::isnan(r.speed_index_ms) && std::isnan(r.first_visual_change.time));
        EXPECT_EQ(r.load_finished.index, -1);
        EXPECT_EQ(r.loaded_psnr, -1.0);
    }
    char error[8];
    VyraResult r = freshResult();
    EXPECT_EQ(vyra_measure(nullptr, nullptr, &r, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(error, "path is");  // cut to 7 characters and the terminator
    char one = 'x';
    vyra_measure(nullptr, nullptr, &r, &one, 1);
    EXPECT_EQ(one, '\0');
    char reason[64];
    EXPECT_EQ(vyra_measure("x", nullptr, nullptr, reason, sizeof reason), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(reason, "result is NULL");
    r = freshResult();
    r.struct_size = sizeof(size_t);  // no room for the status: untouched
    EXPECT_EQ(vyra_measure("x", nullptr, &r, reason, sizeof reason), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(r.struct_size, sizeof(size_t));
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(&r.status)[0], 0xAB);

    VyraStatus unknown;
    const int values[] = {VYRA_OK - 1, VYRA_ERROR_WRITE + 1};
    for (const int value : values) {
        std::memcpy(&unknown, &value, sizeof unknown);
        EXPECT_STREQ(vyra_status_string(unknown), "unknown status") << value;
    }
    EXPECT_STREQ(vyra_status_string(VYRA_OK), "ok");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_WRITE), "cannot write output");
}

TEST(CApi, ReportsAreWrittenAfterTheMeasurementAndThreadsMeasureAsAlone) {
    TempDir dir;
    const std::string rec = writeLaunch(dir), html = (dir / "r.html").string(), png = (dir / "f.png").string(),
                      unwritable = (dir / "missing" / "r.html").string();
    for (const auto& [report, filmstrip, status] : {std::tuple{html.c_str(), png.c_str(), VYRA_OK},
                                                    std::tuple{unwritable.c_str(), (const char*)nullptr, VYRA_ERROR_WRITE},
                                                    std::tuple{(const char*)nullptr, unwritable.c_str(), VYRA_ERROR_WRITE}}) {
        VyraSettings s;
        vyra_default_settings(&s);
        EXPECT_EQ(s.report_interval_ms, 100.0);
        s.report_path = report, s.filmstrip_path = filmstrip;
        VyraResult r = freshResult();
        char error[256];
        EXPECT_EQ(vyra_measure(rec.c_str(), &s, &r, error, sizeof error), status) << error;
        EXPECT_EQ(r.load_finished.index, 3);  // the result is there either way
        EXPECT_TRUE(status == VYRA_OK || std::strstr(error, "missing") != nullptr) << error;
    }
    EXPECT_EQ(readText(html).rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_EQ(readText(png).substr(1, 3), "PNG");

    // Four recordings (one dynamic) measured at once give what each gave alone (also under ThreadSanitizer).
    std::vector<std::string> recordings;
    for (int r = 0; r < 4; ++r) {
        std::vector<cv::Mat> frames;
        std::vector<std::string> names;
        for (int k = 0; k < 6; ++k) {
            frames.push_back(k < 1 + r ? solidFrame(180, 320) : texturedFrame(180, 320, 20 + r));
            names.push_back(std::to_string(1000 + 100 * k) + ".png");
        }
        writePngFolder(recordings.emplace_back((dir / std::to_string(r)).string()), names, frames);
    }
    const auto measure = [](const std::string& path) {
        VyraSettings s;
        vyra_default_settings(&s);
        s.page_type = path.back() == '3' ? VYRA_PAGE_DYNAMIC : VYRA_PAGE_STATIC;
        VyraResult r = freshResult();
        EXPECT_EQ(vyra_measure(path.c_str(), &s, &r, nullptr, 0), VYRA_OK) << path;
        // Every number of the result, NaN included, by its bits (padding bytes are not the result's).
        std::vector<double> all = {double(r.status), double(r.frame_count), r.launch_time, r.speed_index_ms,
                                   double(r.noise_tolerance), r.loaded_psnr, double(r.load_finished.index)};
        for (const VyraKeyFrame& key : {r.load_finished, r.baseline, r.first_frame, r.motion_start,
                                        r.first_visual_change, r.last_visual_change, r.visually_complete}) {
            all.push_back(key.index);
            all.push_back(key.time);
        }
        return std::string(reinterpret_cast<const char*>(all.data()), all.size() * sizeof(double));
    };
    std::vector<std::string> alone, together(recordings.size());
    for (const std::string& path : recordings) alone.push_back(measure(path));
    std::vector<std::thread> threads;
    for (size_t t = 0; t < recordings.size(); ++t) threads.emplace_back([&, t] { together[t] = measure(recordings[t]); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(alone, together);
    EXPECT_EQ(reinterpret_cast<const double*>(alone[2].data())[6], 3.0);  // load finished: the first page frame
}
