// The noise floor read from the recording: small real changes count in a
// lossless folder, and real H.264 at the qualities recorders use moves no
// visual key frame by more than one frame.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraMeasure.h"
#include "VyraVisualProgress.h"
#include "fixtures.h"

using namespace vyra_test;

TEST(NoiseEstimate, AGlyphSizeChangeInALosslessFolderIsSeen) {
    TempDir dir;
    std::vector<cv::Mat> frames;
    std::vector<std::string> names;
    for (int k = 0; k < 6; ++k) {
        cv::Mat frame = solidFrame(320, 240);
        cv::putText(frame, "Settings", cv::Point(20, 120), cv::FONT_HERSHEY_SIMPLEX, k < 3 ? 0.50 : 0.52,
                    cv::Scalar(30, 30, 30), 1, cv::LINE_AA);
        frames.push_back(frame);
        names.push_back(std::to_string(1000 + 100 * k) + ".png");
    }
    writePngFolder(dir / "rec", names, frames);
    const vyra::MeasureResult r = vyra::Measure((dir / "rec").string(), {});
    EXPECT_EQ(r.visual.levelTolerance, 0);
    EXPECT_EQ(r.lastVisualChange.index, 3);
    EXPECT_EQ(r.visuallyComplete.index, 3);
}

TEST(NoiseEstimate, H264AtCrf23And30MovesNoKeyFrameByMoreThanOneFrame) {
    TempDir dir;
    vyra::MeasureResult lossless;
    ASSERT_NO_THROW(lossless = vyra::Measure([&] {
        const fs::path folder = dir / "png";
        std::vector<cv::Mat> frames;
        std::vector<std::string> names;
        // White, a splash mark, a skeleton, text arriving line by line, an image, then still.
        for (int k = 0; k < 40; ++k) {
            cv::Mat frame = solidFrame(240, 320);
            if (k >= 5) cv::circle(frame, {120, 160}, 20, cv::Scalar(40, 40, 200), cv::FILLED);
            if (k >= 10) frame(cv::Rect(10, 10, 220, 30)).setTo(cv::Scalar(210, 210, 210));
            for (int line = 0; line < 6 && k >= 14 + 2 * line; ++line) {
                cv::putText(frame, "line of text " + std::to_string(line), {12, 70 + 22 * line},
                            cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar(20, 20, 20), 1, cv::LINE_AA);
            }
            if (k >= 28) frame(cv::Rect(150, 230, 60, 60)).setTo(cv::Scalar(60, 140, 90));
            frames.push_back(frame);
            names.push_back(cv::format("%03d.png", k));
        }
        writePngFolder(folder, names, frames);
        return folder.string();
    }(), [] {
        vyra::MeasureOptions o;
        o.timing = vyra::Timing::FrameRate;
        o.fps = 10;
        return o;
    }()));
    for (const int crf : {23, 30}) {
        SCOPED_TRACE("CRF " + std::to_string(crf));
        const fs::path video = dir / ("crf" + std::to_string(crf) + ".mp4");
        if (!hasEncoder("libx264")) GTEST_SKIP() << "ffmpeg with libx264 is not available";
        const ProcessResult encoded = runProcess({"ffmpeg", "-loglevel", "error", "-y", "-framerate", "10", "-i",
                                                  (dir / "png" / "%03d.png").string(), "-c:v", "libx264", "-crf",
                                                  std::to_string(crf), "-g", "8", "-pix_fmt", "yuv420p",
                                                  video.string()});
        ASSERT_EQ(encoded.exitCode, 0) << encoded.err;
        const vyra::MeasureResult lossy = vyra::Measure(video.string(), {});
        EXPECT_TRUE(lossy.visual.levelToleranceEstimated);
        for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
            if (field.group != vyra::KeyFrameGroup::VisualProgress) continue;
            EXPECT_NEAR((lossy.*field.member).index, (lossless.*field.member).index, 1) << field.label;
        }
    }
}
