// The C interface: defaults, status texts, versioned structures, errors at
// the boundary, and results that match the construction of the recording.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <cstdio>
#include <string>
#include <vector>

#include "fixtures.h"
#include "vyra.h"

using namespace vyra_test;

namespace {

constexpr int kW = 180;
constexpr int kH = 320;

// 3 white frames then 4 copies of one page, named 0, 100, ..., 600 ms (zero-padded).
fs::path writeLaunch(const TempDir& dir) {
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < 7; ++k) {
        frames.push_back(k < 3 ? solidFrame(kW, kH) : texturedFrame(kW, kH, 11));
        names.push_back("0000" + std::to_string(k) + "00.png");
    }
    writePngFolder(dir / "rec", names, frames);
    return dir / "rec";
}

VyraResult freshResult() {
    VyraResult r;
    std::memset(&r, 0xAB, sizeof r);
    r.struct_size = sizeof r;
    return r;
}

void expectNothing(const VyraResult& r) {
    EXPECT_EQ(r.frame_count, 0u);
    EXPECT_TRUE(std::isnan(r.launch_time));
    EXPECT_EQ(r.load_finished.index, -1);
    EXPECT_TRUE(std::isnan(r.load_finished.time));
    EXPECT_EQ(r.baseline.index, -1);
    EXPECT_EQ(r.motion_start.index, -1);
    EXPECT_EQ(r.loaded_psnr, -1.0);
    EXPECT_EQ(r.object_count_length, 0u);
    for (const VyraKeyFrame* key : {&r.first_visual_change, &r.last_visual_change, &r.visually_complete_85,
                                    &r.visually_complete_95, &r.visually_complete_99}) {
        EXPECT_EQ(key->index, -1);
        EXPECT_TRUE(std::isnan(key->time));
    }
    EXPECT_TRUE(std::isnan(r.speed_index_ms));
}

}  // namespace

TEST(CApi, DefaultSettingsAreTheDocumentedOnes) {
    VyraSettings s;
    std::memset(&s, 0x5A, sizeof s);
    vyra_default_settings(&s);
    EXPECT_EQ(s.struct_size, sizeof(VyraSettings));
    EXPECT_EQ(s.timing, VYRA_TIMING_TIMESTAMPS);
    EXPECT_EQ(s.fps, 0.0);
    EXPECT_EQ(s.start, 0);
    EXPECT_EQ(s.end, 0);
    EXPECT_EQ(s.page_type, VYRA_PAGE_STATIC);
    EXPECT_EQ(s.stable_baseline, 0);
    EXPECT_EQ(s.has_crop, 0);
    EXPECT_EQ(s.ignore, nullptr);
    EXPECT_EQ(s.ignore_count, 0u);
    EXPECT_EQ(s.launch_time_mode, VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME);
    EXPECT_EQ(s.save_frames_dir, nullptr);
    EXPECT_EQ(s.progress, nullptr);
    EXPECT_EQ(s.progress_user, nullptr);
    EXPECT_EQ(s.noise_tolerance, VYRA_NOISE_TOLERANCE_AUTO);
    EXPECT_EQ(s.progress_out, nullptr);
    EXPECT_EQ(s.frame_times_out, nullptr);
    EXPECT_EQ(s.series_capacity, 0u);
    vyra_default_settings(nullptr);  // does nothing
}

TEST(CApi, StatusTextsAndVersions) {
    EXPECT_STREQ(vyra_status_string(VYRA_OK), "ok");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_INVALID_ARGUMENT), "invalid argument");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_NOT_FOUND), "not found");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_UNREADABLE), "unreadable input");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_EMPTY), "no frames to analyse");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_NO_MEMORY), "out of memory");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_INTERNAL), "internal error");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_NO_TIMESTAMPS), "no usable timestamps");
    EXPECT_STREQ(vyra_status_string(VYRA_ERROR_WRITE), "cannot write output");
    VyraStatus unknown;
    const int ninetyNine = 99;  // what a C caller may pass
    std::memcpy(&unknown, &ninetyNine, sizeof unknown);
    EXPECT_STREQ(vyra_status_string(unknown), "unknown status");
    unsigned major = 0, minor = 0, patch = 0;
    char tail = '\0';
    EXPECT_EQ(std::sscanf(vyra_version(), "%u.%u.%u%c", &major, &minor, &patch, &tail), 3) << vyra_version();
    EXPECT_EQ(vyra_abi_version(), VYRA_ABI_VERSION);
}

TEST(CApi, MeasureFillsEveryField) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    VyraResult r = freshResult();
    char error[128] = "stale";
    ASSERT_EQ(vyra_measure(rec.c_str(), nullptr, &r, error, sizeof error), VYRA_OK) << error;
    EXPECT_STREQ(error, "");
    EXPECT_EQ(r.struct_size, sizeof r);
    EXPECT_EQ(r.status, VYRA_OK);
    EXPECT_EQ(r.page_type, VYRA_PAGE_STATIC);
    EXPECT_EQ(r.timing, VYRA_TIMING_TIMESTAMPS);
    EXPECT_EQ(r.launch_time_mode, VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME);
    EXPECT_EQ(r.fps, 0.0);
    EXPECT_EQ(r.frame_count, 7u);
    EXPECT_EQ(r.frame_width, kW);
    EXPECT_EQ(r.frame_height, kH);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.3);
    EXPECT_EQ(r.estimated_time_count, 0u);
    EXPECT_EQ(r.load_finished.index, 3);
    EXPECT_DOUBLE_EQ(r.load_finished.time, 0.3);
    EXPECT_EQ(r.baseline.index, 6);
    EXPECT_DOUBLE_EQ(r.baseline.time, 0.6);
    EXPECT_EQ(r.first_frame.index, 3);
    EXPECT_EQ(r.logo_appear.index, -1);
    EXPECT_TRUE(std::isnan(r.logo_appear.time));
    EXPECT_EQ(r.logo_disappear.index, -1);
    EXPECT_EQ(r.motion_start.index, -1);
    EXPECT_DOUBLE_EQ(r.loaded_psnr, 99.99);
    EXPECT_EQ(r.object_count_length, 7u);
    EXPECT_EQ(r.first_non_blank_object_count, 0u);
    EXPECT_EQ(r.feature_matching_count, 0u);
    // White up to 0.2 s, the final page from frame 3 at 0.3 s.
    for (const VyraKeyFrame* key : {&r.first_visual_change, &r.last_visual_change, &r.visually_complete_85,
                                    &r.visually_complete_95, &r.visually_complete_99}) {
        EXPECT_EQ(key->index, 3);
        EXPECT_DOUBLE_EQ(key->time, 0.3);
    }
    EXPECT_DOUBLE_EQ(r.speed_index_ms, 300.0);
}

TEST(CApi, ProgressSeriesFillsOnlyTheCallersCapacity) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    std::vector<double> progress(7, -5.0);
    std::vector<double> times(7, -5.0);
    VyraSettings s;
    vyra_default_settings(&s);
    s.progress_out = progress.data();
    s.frame_times_out = times.data();
    s.series_capacity = 5;  // two frames more than the buffers admit
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(progress, (std::vector<double>{0.0, 0.0, 0.0, 1.0, 1.0, -5.0, -5.0}));
    for (size_t k = 0; k < 5; ++k) EXPECT_DOUBLE_EQ(times[k], 0.1 * static_cast<double>(k)) << k;
    EXPECT_EQ(times[5], -5.0);

    s.progress_out = nullptr;  // one buffer alone is fine
    s.series_capacity = 7;
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_DOUBLE_EQ(times[6], 0.6);
}

TEST(CApi, NoiseToleranceIsReadOnlyWhenTheCallerKnowsIt) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < 5; ++k) {
        frames.push_back(withNoise(pageFrame(k >= 1), 6, 70u + static_cast<unsigned>(k)));
        names.push_back("00" + std::to_string(k) + "00.png");
    }
    writePngFolder(dir / "rec", names, frames);
    const fs::path rec = dir / "rec";
    VyraSettings s;
    vyra_default_settings(&s);
    s.noise_tolerance = 20;
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.last_visual_change.index, 1);
    EXPECT_DOUBLE_EQ(r.last_visual_change.time, 0.1);
    EXPECT_EQ(r.noise_tolerance, 20);
    EXPECT_EQ(r.noise_tolerance_estimated, 0);

    // A caller from before the field gets the default: read from the
    // recording, 0 for a folder of PNG files, so every frame's noise counts.
    s.struct_size = offsetof(VyraSettings, noise_tolerance);
    r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.last_visual_change.index, 4);
    EXPECT_EQ(r.noise_tolerance, 0);
    EXPECT_EQ(r.noise_tolerance_estimated, 1);
}

TEST(CApi, SettingsReachTheMeasurement) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    VyraSettings s;
    vyra_default_settings(&s);
    s.timing = VYRA_TIMING_FRAME_RATE;
    s.fps = 20.0;
    s.start = 1;
    s.launch_time_mode = VYRA_LAUNCH_TIME_NEXT_FRAME;
    s.has_crop = 1;
    s.crop = VyraRegion{0, 0, 180, 240};
    const std::string saved = (dir / "saved").string();
    s.save_frames_dir = saved.c_str();
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.frame_count, 6u);
    EXPECT_EQ(r.frame_width, 180);
    EXPECT_EQ(r.frame_height, 240);
    EXPECT_EQ(r.timing, VYRA_TIMING_FRAME_RATE);
    EXPECT_EQ(r.fps, 20.0);
    EXPECT_EQ(r.launch_time_mode, VYRA_LAUNCH_TIME_NEXT_FRAME);
    EXPECT_EQ(r.load_finished.index, 2);
    EXPECT_DOUBLE_EQ(r.load_finished.time, 0.1);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.15);  // (2 + 1) / 20
    EXPECT_TRUE(fs::exists(dir / "saved" / "00000005.png"));

    s.page_type = VYRA_PAGE_DYNAMIC;
    s.has_crop = 0;
    s.save_frames_dir = nullptr;
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.page_type, VYRA_PAGE_DYNAMIC);
    EXPECT_EQ(r.motion_start.index, 1);  // file 2, just before the first page frame
    EXPECT_GT(r.feature_matching_count, 0u);
    EXPECT_EQ(r.object_count_length, 0u);
}

TEST(CApi, IgnoreRegionsArePassedByPointerAndCount) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 4; ++k) {
        frames.push_back(statusBarFrame(kW, kH, 5, 24, cv::Scalar(30, 60, 90), "12:0" + std::to_string(k)));
    }
    writePngFolder(dir / "rec", {"0000.png", "0100.png", "0200.png", "0300.png"}, frames);
    VyraSettings s;
    vyra_default_settings(&s);
    const VyraRegion clock[1] = {{4, 4, 70, 16}};
    s.ignore = clock;
    s.ignore_count = 1;
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure((dir / "rec").c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_DOUBLE_EQ(r.loaded_psnr, 99.99);
    s.ignore_count = 0;
    ASSERT_EQ(vyra_measure((dir / "rec").c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_LT(r.loaded_psnr, 99.99);
}

TEST(CApi, ProgressCallbackGetsTheUserPointer) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    struct Log {
        std::vector<std::pair<int, uint64_t>> events;
    } log;
    VyraSettings s;
    vyra_default_settings(&s);
    s.progress = [](void* user, VyraStage stage, uint64_t done, uint64_t total) {
        static_cast<Log*>(user)->events.emplace_back(static_cast<int>(stage) * 100 + static_cast<int>(total),
                                                     done);
    };
    s.progress_user = &log;
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    ASSERT_EQ(log.events.size(), 9u);
    EXPECT_EQ(log.events.front(), std::make_pair(VYRA_STAGE_DECODING * 100 + 7, uint64_t{1}));
    EXPECT_EQ(log.events[6], std::make_pair(VYRA_STAGE_DECODING * 100 + 7, uint64_t{7}));
    EXPECT_EQ(log.events[7], std::make_pair(VYRA_STAGE_ANALYSING * 100 + 1, uint64_t{0}));
    EXPECT_EQ(log.events[8], std::make_pair(VYRA_STAGE_ANALYSING * 100 + 1, uint64_t{1}));
}

TEST(CApi, ErrorsComeBackAsStatusAndMessageWithAnEmptyResult) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    char error[256];
    VyraResult r = freshResult();
    EXPECT_EQ(vyra_measure((dir / "missing").c_str(), nullptr, &r, error, sizeof error), VYRA_ERROR_NOT_FOUND);
    EXPECT_EQ(r.status, VYRA_ERROR_NOT_FOUND);
    EXPECT_NE(std::string(error).find("does not exist"), std::string::npos) << error;
    expectNothing(r);

    VyraSettings s;
    vyra_default_settings(&s);
    s.timing = VYRA_TIMING_FRAME_RATE;
    r = freshResult();
    EXPECT_EQ(vyra_measure(rec.c_str(), &s, &r, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(std::string(error).find("frame rate"), std::string::npos) << error;
    expectNothing(r);

    EXPECT_EQ(vyra_measure(nullptr, nullptr, &r, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(error, "path is NULL");

    // Enum fields holding numbers outside their enumerators, as C allows.
    const auto store = [](auto& field, int value) { std::memcpy(&field, &value, sizeof field); };
    const std::vector<std::pair<const char*, std::function<void(VyraSettings&)>>> invalid = {
        {"timing", [&](VyraSettings& v) { store(v.timing, 5); }},
        {"page", [&](VyraSettings& v) { store(v.page_type, -1); }},
        {"mode", [&](VyraSettings& v) { store(v.launch_time_mode, 2); }},
        {"ignore", [](VyraSettings& v) { v.ignore_count = 1; }},
        {"crop", [](VyraSettings& v) { v.has_crop = 1, v.crop = VyraRegion{170, 0, 20, 20}; }},
        {"size", [](VyraSettings& v) { v.struct_size = 3; }},
    };
    for (const auto& [what, spoil] : invalid) {
        vyra_default_settings(&s);
        spoil(s);
        EXPECT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_ERROR_INVALID_ARGUMENT) << what;
    }
}

TEST(CApi, ErrorTextIsCutToTheBuffer) {
    char error[8];
    std::memset(error, 'x', sizeof error);
    VyraResult r = freshResult();
    EXPECT_EQ(vyra_measure(nullptr, nullptr, &r, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(error, "path is");  // 7 characters and the terminator
    char one = 'x';
    EXPECT_EQ(vyra_measure(nullptr, nullptr, &r, &one, 1), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(one, '\0');
}

TEST(CApi, ResultTooSmallForStatusIsRejectedUntouched) {
    char error[64];
    EXPECT_EQ(vyra_measure("x", nullptr, nullptr, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(error, "result is NULL");
    VyraResult r = freshResult();
    r.struct_size = sizeof(size_t);
    EXPECT_EQ(vyra_measure("x", nullptr, &r, error, sizeof error), VYRA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(r.struct_size, sizeof(size_t));
    unsigned char status[sizeof r.status];
    std::memset(status, 0xAB, sizeof status);
    EXPECT_EQ(std::memcmp(&r.status, status, sizeof status), 0);
}

TEST(CApi, OlderCallersStructuresAreReadAndWrittenOnlyAsFarAsTheyReach) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    // A caller that knows VyraResult only up to launch_time.
    const size_t known = offsetof(VyraResult, launch_time) + sizeof(double);
    VyraResult r = freshResult();
    r.struct_size = known;
    ASSERT_EQ(vyra_measure(rec.c_str(), nullptr, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.struct_size, known);
    EXPECT_EQ(r.frame_count, 7u);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.3);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&r);
    for (size_t k = known; k < sizeof r; ++k) EXPECT_EQ(bytes[k], 0xAB) << k;

    // A caller that knows VyraSettings only up to end: later fields are not read.
    VyraSettings s;
    std::memset(&s, 0x7F, sizeof s);
    s.struct_size = offsetof(VyraSettings, end) + sizeof(int32_t);
    s.timing = VYRA_TIMING_TIMESTAMPS;
    s.fps = 0.0;
    s.start = 2;
    s.end = 0;
    r = freshResult();
    ASSERT_EQ(vyra_measure(rec.c_str(), &s, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.frame_count, 5u);
    EXPECT_EQ(r.load_finished.index, 1);
    EXPECT_DOUBLE_EQ(r.launch_time, 0.1);
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

TEST(CApi, NoLoadFinishedFrameIsOkWithNaNLaunchTime) {
    TempDir dir;
    writePngFolder(dir / "rec", {"0000.png", "0050.png", "0100.png"},
                   {solidFrame(kW, kH), solidFrame(kW, kH), solidFrame(kW, kH)});
    VyraResult r = freshResult();
    ASSERT_EQ(vyra_measure((dir / "rec").c_str(), nullptr, &r, nullptr, 0), VYRA_OK);
    EXPECT_EQ(r.frame_count, 3u);
    EXPECT_TRUE(std::isnan(r.launch_time));
    EXPECT_EQ(r.load_finished.index, -1);
    EXPECT_EQ(r.baseline.index, 2);
    EXPECT_DOUBLE_EQ(r.baseline.time, 0.1);
}

TEST(CApi, ReportsAreWrittenAfterTheMeasurementAndTheirFailureIsTheStatus) {
    TempDir dir;
    const fs::path rec = writeLaunch(dir);
    const std::string html = (dir / "r.html").string(), png = (dir / "f.png").string();
    const std::string unwritable = (dir / "missing" / "r.html").string();
    struct Case {
        const char* report;
        const char* filmstrip;
        VyraStatus status;
    } cases[] = {
        {html.c_str(), png.c_str(), VYRA_OK},
        {unwritable.c_str(), nullptr, VYRA_ERROR_WRITE},
        {nullptr, unwritable.c_str(), VYRA_ERROR_WRITE},
    };
    for (const Case& c : cases) {
        VyraSettings s;
        vyra_default_settings(&s);
        EXPECT_EQ(s.report_interval_ms, 100.0);
        s.report_path = c.report;
        s.filmstrip_path = c.filmstrip;
        VyraResult r = freshResult();
        char error[256];
        EXPECT_EQ(vyra_measure(rec.c_str(), &s, &r, error, sizeof error), c.status) << error;
        EXPECT_EQ(r.load_finished.index, 3);  // the result is there either way
        if (c.status != VYRA_OK) {
            EXPECT_NE(std::strstr(error, "missing"), nullptr) << error;
        }
    }
    EXPECT_EQ(readText(html).rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_EQ(readText(png).substr(1, 3), "PNG");
}
