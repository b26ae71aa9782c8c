// The streaming intake of vyra::Measure: the tracker's shortcut for repeated
// frames, and Measure end to end (same results as the in-memory analysis,
// errors in frame order, progress on the calling thread). The internal units
// it is built from are tested in tests/internal/frame_store_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraAnalyzer.h"
#include "VyraMeasure.h"
#include "VyraVisualProgress.h"
#include "fixtures.h"

namespace {

using vyra_test::TempDir;

// ---- VisualProgressTracker::AddRepeatedFrame

void expectSameProgress(const vyra::VisualProgress& a, const vyra::VisualProgress& b) {
    EXPECT_EQ(a.timesMs, b.timesMs);
    EXPECT_EQ(a.progress, b.progress);
    EXPECT_EQ(a.changedFraction, b.changedFraction);
    EXPECT_EQ(a.firstVisualChange, b.firstVisualChange);
    EXPECT_EQ(a.lastVisualChange, b.lastVisualChange);
    EXPECT_EQ(a.visuallyComplete85, b.visuallyComplete85);
    EXPECT_EQ(a.visuallyComplete95, b.visuallyComplete95);
    EXPECT_EQ(a.visuallyComplete99, b.visuallyComplete99);
    EXPECT_EQ(a.speedIndexMs, b.speedIndexMs);
}

TEST(VisualProgressRepeats, RecordExactlyWhatAddingTheSameFrameRecords) {
    const cv::Mat white = vyra_test::solidFrame(64, 48);
    const cv::Mat half = white.clone();
    half(cv::Rect(0, 0, 64, 24)).setTo(cv::Scalar(20, 90, 200));
    const cv::Mat page = vyra_test::texturedFrame(64, 48, 3);
    // Repeats right after frame 0 (still compared with frame 0), inside
    // the change and at the end.
    const std::vector<std::pair<const cv::Mat*, bool>> sequence = {
        {&white, false}, {&white, true}, {&half, false}, {&half, true},
        {&half, true},   {&page, false}, {&page, true}};
    vyra::VisualProgressTracker full;
    vyra::VisualProgressTracker shortcut;
    double t = 0.0;
    for (const auto& [frame, repeated] : sequence) {
        ASSERT_TRUE(full.AddFrame(*frame, t));
        ASSERT_TRUE(repeated ? shortcut.AddRepeatedFrame(t) : shortcut.AddFrame(*frame, t));
        t += 40.0;
    }
    expectSameProgress(full.Finish(), shortcut.Finish());
    EXPECT_EQ(shortcut.Finish().firstVisualChange, 2);
    EXPECT_EQ(shortcut.Finish().lastVisualChange, 5);
}

TEST(VisualProgressChangedRows, RecordExactlyWhatAddingTheWholeFrameRecords) {
    // Each frame changes a random band of rows (sometimes none, sometimes
    // all) of the one before; the block size does or does not divide the
    // bands. A frame of another size in the middle is read whole.
    for (const int blockSize : {8, 5, 20}) {
        for (const int channels : {3, 1}) {
            vyra::VisualProgressOptions options;
            options.blockSize = blockSize;
            options.levelTolerance = 3;
            vyra::VisualProgressTracker full(options);
            vyra::VisualProgressTracker rows(options);
            cv::RNG rng(blockSize * 10 + channels);
            const int type = CV_MAKETYPE(CV_8U, channels);
            cv::Mat previous(60, 44, type, cv::Scalar::all(200));
            ASSERT_TRUE(full.AddFrame(previous, 0.0));
            ASSERT_TRUE(rows.AddFrame(previous, 0.0));
            for (int k = 1; k < 30; ++k) {
                cv::Mat frame = k == 15 ? cv::Mat(50, 44, type, cv::Scalar::all(90)) : previous.clone();
                std::vector<cv::Range> changed;
                if (k != 15 && k % 7 != 0) {
                    const int begin = rng.uniform(-3, frame.rows);
                    const int end = std::min(frame.rows + 3, begin + rng.uniform(1, 25));
                    const int from = std::max(begin, 0), to = std::min(end, frame.rows);
                    if (to > from) {
                        cv::Mat band = frame.rowRange(from, to);
                        rng.fill(band, cv::RNG::UNIFORM, cv::Scalar::all(k % 3 == 0 ? 0 : 180),
                                 cv::Scalar::all(k % 3 == 0 ? 256 : 200));
                    }
                    changed.emplace_back(begin, end);  // may reach past the frame
                    if (k % 4 == 0) changed.emplace_back(0, 1);  // a row that did not change
                }
                ASSERT_TRUE(full.AddFrame(frame, k * 10.0));
                ASSERT_TRUE(rows.AddChangedFrame(frame, k * 10.0, previous, changed));
                previous = frame;
            }
            SCOPED_TRACE(testing::Message() << "block " << blockSize << " channels " << channels);
            expectSameProgress(full.Finish(), rows.Finish());
        }
    }
}

TEST(VisualProgressChangedRows, RefuseWhatAddFrameRefuses) {
    vyra::VisualProgressTracker tracker;
    const cv::Mat frame = vyra_test::solidFrame(16, 16);
    ASSERT_TRUE(tracker.AddFrame(frame, 50.0));
    EXPECT_FALSE(tracker.AddChangedFrame(frame, 40.0, frame, {}));
    EXPECT_FALSE(tracker.AddChangedFrame(cv::Mat(), 60.0, frame, {}));
    EXPECT_EQ(tracker.FrameCount(), 1);
}

TEST(VisualProgressRepeats, AreRefusedWithoutAFrameOrWithABadTime) {
    vyra::VisualProgressTracker tracker;
    EXPECT_FALSE(tracker.AddRepeatedFrame(0.0));
    ASSERT_TRUE(tracker.AddFrame(vyra_test::solidFrame(8, 8), 100.0));
    EXPECT_FALSE(tracker.AddRepeatedFrame(99.0));
    EXPECT_FALSE(tracker.AddRepeatedFrame(std::nan("")));
    EXPECT_EQ(tracker.FrameCount(), 1);
    EXPECT_TRUE(tracker.AddRepeatedFrame(100.0));
    EXPECT_EQ(tracker.FrameCount(), 2);
}

// ---- Measure end to end

void writeNumbered(const vyra_test::fs::path& dir, const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (size_t k = 0; k < frames.size(); ++k) {
        names.push_back(std::to_string(1000 + k) + ".png");
    }
    vyra_test::writePngFolder(dir, names, frames);
}

// White with 600 small dark rectangles at seeded places: hundreds of
// objects, laid out unlike the regular blocks of loadedPageFrame().
cv::Mat busyFrame(int width, int height, unsigned seed) {
    cv::Mat frame = vyra_test::solidFrame(width, height);
    cv::RNG rng(seed);
    for (int k = 0; k < 600; ++k) {
        const cv::Point corner(rng.uniform(0, width - 9), rng.uniform(0, height - 9));
        const cv::Size size(rng.uniform(3, 9), rng.uniform(3, 9));
        cv::rectangle(frame, cv::Rect(corner, size), cv::Scalar::all(rng.uniform(0, 90)), cv::FILLED);
    }
    return frame;
}

vyra::MeasureOptions atTenFps() {
    vyra::MeasureOptions options;
    options.timing = vyra::Timing::FrameRate;
    options.fps = 10.0;
    return options;
}

TEST(MeasureStreaming, ManyComparedFramesGiveTheInMemoryAnalysisResult) {
    // Busy pages that all differ from the final one: every frame is detected,
    // compared by PSNR, overlap and feature matching with the baseline, and
    // the frames are loaded and given back one after another.
    std::vector<cv::Mat> frames = {vyra_test::solidFrame(320, 240)};
    for (unsigned k = 0; k < 12; ++k) frames.push_back(busyFrame(320, 240, 40 + k));
    for (int k = 0; k < 3; ++k) frames.push_back(vyra_test::loadedPageFrame(320, 240));
    for (int k = 1; k <= 12; ++k) {  // non-blank, so each is compared with the baseline
        vyra::Image image(frames[static_cast<size_t>(k)], k);
        ASSERT_GE(image.GetImageObjectsSize(), 200) << k;
        ASSERT_GE(image.GetContentRatio(), 0.15) << k;
    }
    TempDir dir;
    writeNumbered(dir / "rec", frames);

    for (const bool stable : {false, true}) {
        vyra::MeasureOptions options = atTenFps();
        options.stableBaseline = stable;
        const vyra::MeasureResult measured = vyra::Measure((dir / "rec").string(), options);
        std::vector<cv::Mat> copy = frames;
        const vyra::AnalysisResult expected =
            vyra::Analyzer(20.0, 0.5, 0.85, 0.15, 200).Analyze(copy, STATIC_PAGE, stable);
        EXPECT_EQ(measured.analysis.loadFinishedIndex, expected.loadFinishedIndex) << stable;
        EXPECT_EQ(measured.analysis.staticResult.baselineIndex, expected.staticResult.baselineIndex);
        EXPECT_EQ(measured.analysis.staticResult.objectCounts, expected.staticResult.objectCounts);
        EXPECT_EQ(measured.analysis.staticResult.loadedPsnr, expected.staticResult.loadedPsnr);
        EXPECT_EQ(measured.analysis.staticResult.preLoadedPsnr, expected.staticResult.preLoadedPsnr);
        EXPECT_EQ(measured.analysis.staticResult.firstFrameIndex, expected.staticResult.firstFrameIndex);
        EXPECT_EQ(measured.analysis.loadFinishedIndex, 13);  // the first frame of the final page
    }
}

TEST(MeasureStreaming, AnEarlierFramesFailureWinsOverALaterUnreadableFrame) {
    // Frame 1 is too small for the ignore region; frame 3 does not decode.
    TempDir dir;
    const cv::Mat page = vyra_test::texturedFrame(120, 200, 5);
    writeNumbered(dir / "rec", {page, vyra_test::solidFrame(60, 100), page, page});
    vyra_test::writeCorruptPng(dir / "rec" / "1003.png");
    vyra::MeasureOptions options = atTenFps();
    options.ignore = {vyra::Region{70, 150, 20, 20}};
    try {
        vyra::Measure((dir / "rec").string(), options);
        FAIL() << "no error";
    } catch (const vyra::MeasureError& e) {
        EXPECT_EQ(e.status(), VYRA_ERROR_INVALID_ARGUMENT) << e.what();
        EXPECT_NE(std::string(e.what()).find("1001.png"), std::string::npos) << e.what();
    }
    // Without the ignore region the unreadable frame is the error.
    try {
        vyra::Measure((dir / "rec").string(), atTenFps());
        FAIL() << "no error";
    } catch (const vyra::MeasureError& e) {
        EXPECT_EQ(e.status(), VYRA_ERROR_UNREADABLE) << e.what();
        EXPECT_NE(std::string(e.what()).find("1003.png"), std::string::npos) << e.what();
    }
}

TEST(MeasureStreaming, ProgressIsReportedOnTheCallingThreadOnly) {
    TempDir dir;
    std::vector<cv::Mat> frames(3, vyra_test::solidFrame(120, 200));
    for (unsigned k = 0; k < 20; ++k) frames.push_back(vyra_test::texturedFrame(120, 200, k));
    writeNumbered(dir / "rec", frames);
    vyra::MeasureOptions options = atTenFps();
    const std::thread::id caller = std::this_thread::get_id();
    int reports = 0;
    int elsewhere = 0;
    options.progress = [&](vyra::MeasureStage, size_t, size_t) {
        ++reports;
        elsewhere += std::this_thread::get_id() == caller ? 0 : 1;
    };
    vyra::Measure((dir / "rec").string(), options);
    EXPECT_EQ(reports, 23 + 2);
    EXPECT_EQ(elsewhere, 0);
}

TEST(MeasureStreaming, AThrowingProgressCallbackStopsTheMeasurementCleanly) {
    TempDir dir;
    writeNumbered(dir / "rec", std::vector<cv::Mat>(30, vyra_test::texturedFrame(120, 200, 2)));
    vyra::MeasureOptions options = atTenFps();
    options.saveFramesDir = (dir / "saved").string();
    options.progress = [](vyra::MeasureStage, size_t done, size_t) {
        if (done == 5) throw std::runtime_error("cancelled");
    };
    EXPECT_THROW(vyra::Measure((dir / "rec").string(), options), std::runtime_error);
    // Frames decoded before the cancel may have been saved; nothing beyond
    // the queue's reach was read, and no thread is left writing.
    size_t saved = 0;
    for (const auto& entry : vyra_test::fs::directory_iterator(dir / "saved")) {
        saved += entry.path().extension() == ".png" ? 1 : 0;
    }
    EXPECT_GE(saved, 4u);
    EXPECT_LE(saved, 5u + 12u);
}

}  // namespace
