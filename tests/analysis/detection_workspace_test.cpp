// The detection workspace, used directly: whatever it detected before, and
// whatever buffers it holds, each frame gets the boxes of OpenCV's plain
// pipeline (vyra_test::plainPipelineObjects), whether it comes whole or as
// bands partly shared with the frame detected before.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "store/FrameStore.h"
#include "analysis/ObjectDetection.h"
#include "fixtures.h"

namespace {

using vyra::detail::DetectionWorkspace;

std::string describe(const cv::Mat& frame, size_t k) {
    return "frame " + std::to_string(k) + " " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows) +
           " channels " + std::to_string(frame.channels());
}

// Small sizes, odd sizes and single rows and columns.
std::vector<cv::Size> smallSizes() {
    return {cv::Size(1, 1), cv::Size(9, 1), cv::Size(1, 9), cv::Size(2, 3), cv::Size(17, 5),
            cv::Size(64, 48), cv::Size(121, 203), cv::Size(200, 120)};
}

TEST(DetectionWorkspace, FreshWorkspaceGivesThePlainPipelinesBoxes) {
    const std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(smallSizes());
    size_t withBoxes = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        DetectionWorkspace workspace;
        const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(frames[k]);
        EXPECT_EQ(workspace.Detect(frames[k]), expected) << describe(frames[k], k);
        if (!expected.empty()) ++withBoxes;
    }
    // The comparison means something: many frames have objects.
    EXPECT_GE(withBoxes, frames.size() / 3);
}

TEST(DetectionWorkspace, OneWorkspaceReusedAcrossSizesAndTypesInAnyOrder) {
    std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(smallSizes());
    std::vector<std::vector<vyra::Rect>> expected;
    for (const cv::Mat& frame : frames) expected.push_back(vyra_test::plainPipelineObjects(frame));

    DetectionWorkspace workspace;
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]) << "forward, " << describe(frames[k], k);
    }
    for (size_t k = frames.size(); k-- > 0;) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]) << "backward, " << describe(frames[k], k);
    }
    // Interleaved: a frame with objects, then one without, of the same size.
    for (size_t k = 0; k + 17 < frames.size(); k += 18) {
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]);
        EXPECT_EQ(workspace.Detect(frames[k + 15]), expected[k + 15]);  // one colour
        EXPECT_EQ(workspace.Detect(frames[k]), expected[k]);
    }
}

TEST(DetectionWorkspace, MegapixelFramesBetweenSmallOnes) {
    // Large enough for the buffers to span several megabytes (kept in one
    // block that grows from the first size to the second), and small frames
    // whose buffers are allocated on their own.
    const std::vector<cv::Mat> large = vyra_test::detectionCatalogue({cv::Size(720, 1000), cv::Size(800, 1100)});
    const std::vector<cv::Mat> small = vyra_test::detectionCatalogue({cv::Size(90, 160)});
    const size_t perSize = small.size();
    DetectionWorkspace workspace;
    for (size_t k = 0; k < perSize; k += 5) {
        for (const cv::Mat* frame : {&small[k], &large[k], &large[perSize + k], &large[k]}) {
            EXPECT_EQ(workspace.Detect(*frame), vyra_test::plainPipelineObjects(*frame)) << describe(*frame, k);
        }
    }
}

TEST(DetectionWorkspace, RegionsOfLargerFramesSeeOnlyTheirOwnPixels) {
    // The parts outside the region hold strong edges; replicated borders
    // must come from the region itself.
    const cv::Mat outer = vyra_test::texturedFrame(160, 140, 5);
    cv::Mat greyOuter;
    cv::cvtColor(outer, greyOuter, cv::COLOR_BGR2GRAY);
    DetectionWorkspace workspace;
    for (const cv::Rect& region : {cv::Rect(3, 5, 100, 90), cv::Rect(60, 50, 100, 90), cv::Rect(7, 9, 1, 40)}) {
        for (const cv::Mat& source : {outer, greyOuter}) {
            const cv::Mat part = source(region);
            ASSERT_FALSE(part.isContinuous() && region.width > 1);
            EXPECT_EQ(workspace.Detect(part), vyra_test::plainPipelineObjects(part.clone()))
                << region << " channels " << source.channels();
        }
    }
}

TEST(DetectionWorkspace, UnreadableFramesGiveNothingAndLeaveTheWorkspaceUsable) {
    const cv::Mat textured = vyra_test::texturedFrame(64, 48, 9);
    const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(textured);
    ASSERT_FALSE(expected.empty());
    cv::Mat wide, floating, twoChannels;
    textured.convertTo(wide, CV_16UC3, 256.0);
    textured.convertTo(floating, CV_32FC3);
    cv::Mat planes[3];
    cv::split(textured, planes);
    cv::merge(planes, 2, twoChannels);

    DetectionWorkspace workspace;
    EXPECT_EQ(workspace.Detect(textured), expected);
    for (const cv::Mat& unreadable : {cv::Mat(), wide, floating, twoChannels}) {
        EXPECT_TRUE(workspace.Detect(unreadable).empty()) << unreadable.type();
        EXPECT_EQ(workspace.Detect(textured), expected) << "after type " << unreadable.type();
    }
}

TEST(DetectionWorkspace, InputFrameIsLeftAsItWas) {
    const std::vector<cv::Mat> frames = vyra_test::detectionCatalogue({cv::Size(40, 30)});
    DetectionWorkspace workspace;
    for (const cv::Mat& frame : frames) {
        const cv::Mat before = frame.clone();
        workspace.Detect(frame);
        EXPECT_EQ(cv::norm(frame, before, cv::NORM_INF), 0.0);
    }
}

// ---- frames given as bands

// @p frame cut into bands of @p bandRows rows (the last one shorter): views
// of the frame's own rows.
std::vector<cv::Mat> cutIntoBands(const cv::Mat& frame, int bandRows) {
    std::vector<cv::Mat> bands;
    for (int y = 0; y < frame.rows; y += bandRows) {
        bands.push_back(frame.rowRange(y, std::min(y + bandRows, frame.rows)));
    }
    return bands;
}

cv::Mat stack(const std::vector<cv::Mat>& bands) {
    cv::Mat frame;
    cv::vconcat(bands, frame);
    return frame;
}

// BGR @p picture with the channel count of @p like (1, 3 or 4).
cv::Mat withChannelsOf(const cv::Mat& like, const cv::Mat& picture) {
    cv::Mat converted = picture;
    if (like.channels() == 1) cv::cvtColor(picture, converted, cv::COLOR_BGR2GRAY);
    if (like.channels() == 4) cv::cvtColor(picture, converted, cv::COLOR_BGR2BGRA);
    return converted;
}

// A recording in bands, as a frame store holds it: each step repaints one to
// three bands into new matrices and keeps every other band as the very same
// matrix. Repaints put edges on the bands' first and last rows, where the
// gradients of the neighbouring, unchanged bands change with them. Every
// band ever made stays alive as long as the walk.
class BandWalk {
public:
    BandWalk(const cv::Mat& first, int bandRows, unsigned seed) : rng_(seed) {
        frames_.push_back(cutIntoBands(first.clone(), bandRows));
    }

    const std::vector<cv::Mat>& bands() const { return frames_.back(); }

    void Step() {
        std::vector<cv::Mat> next = frames_.back();
        const int count = 1 + static_cast<int>(rng_() % 3);
        for (int k = 0; k < count; ++k) {
            const size_t i = rng_() % next.size();
            next[i] = repainted(next[i]);
        }
        frames_.push_back(std::move(next));
    }

private:
    cv::Mat repainted(const cv::Mat& band) {
        cv::Mat painted = band.clone();
        const cv::Scalar colour(rng_() % 256, rng_() % 256, rng_() % 256);
        const int x = static_cast<int>(rng_() % static_cast<unsigned>(painted.cols));
        const int width = 1 + static_cast<int>(rng_() % static_cast<unsigned>(painted.cols - x));
        switch (rng_() % 3) {
        case 0:  // new blocks of colour, their borders on the band's borders
            withChannelsOf(painted, vyra_test::texturedFrame(painted.cols, painted.rows, rng_())).copyTo(painted);
            break;
        case 1:  // a bar over every row of the band
            cv::rectangle(painted, cv::Rect(x, 0, width, painted.rows), colour, cv::FILLED);
            break;
        default:  // a line on the band's first or last row only
            cv::line(painted, cv::Point(x, rng_() % 2 == 0 ? 0 : painted.rows - 1),
                     cv::Point(x + width - 1, rng_() % 2 == 0 ? 0 : painted.rows - 1), colour);
            break;
        }
        return painted;
    }

    std::mt19937 rng_;
    std::vector<std::vector<cv::Mat>> frames_;
};

// A flat page with a few shapes: large areas without edges, where a stale
// gradient row would show.
cv::Mat sparsePage(int width, int height) {
    cv::Mat page(height, width, CV_8UC3, cv::Scalar(240, 240, 240));
    cv::rectangle(page, cv::Rect(10, 20, width / 2, height / 3), cv::Scalar(30, 90, 200), cv::FILLED);
    cv::circle(page, cv::Point(width / 2, height * 2 / 3), width / 5, cv::Scalar(20, 20, 20), 2);
    return page;
}

TEST(DetectionWorkspaceBands, EveryStepOfAWalkGivesThePlainPipelinesBoxes) {
    for (const int bandRows : {16, 5, 1}) {
        for (const cv::Mat& first : {vyra_test::texturedFrame(150, 203, 3), sparsePage(150, 203)}) {
            SCOPED_TRACE("bands of " + std::to_string(bandRows) + " rows");
            BandWalk walk(first, bandRows, 17u + static_cast<unsigned>(bandRows));
            DetectionWorkspace workspace;
            size_t withBoxes = 0;
            for (int step = 0; step < 40; ++step) {
                const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(stack(walk.bands()));
                ASSERT_EQ(workspace.DetectBands(walk.bands()), expected) << "step " << step;
                if (!expected.empty()) ++withBoxes;
                walk.Step();
            }
            EXPECT_EQ(withBoxes, 40u);
        }
    }
}

TEST(DetectionWorkspaceBands, GreyAndFourChannelBandsToo) {
    for (const int code : {cv::COLOR_BGR2GRAY, cv::COLOR_BGR2BGRA}) {
        cv::Mat first;
        cv::cvtColor(vyra_test::texturedFrame(64, 70, 8), first, code);
        BandWalk walk(first, 16, 5);
        DetectionWorkspace workspace;
        for (int step = 0; step < 12; ++step) {
            EXPECT_EQ(workspace.DetectBands(walk.bands()), vyra_test::plainPipelineObjects(stack(walk.bands())))
                << "channels " << first.channels() << ", step " << step;
            walk.Step();
        }
    }
}

TEST(DetectionWorkspaceBands, WholeFramesFailuresAndNewCutsInBetweenAreNotMistakenForKeptBands) {
    BandWalk walk(sparsePage(120, 96), 16, 11);
    const std::vector<cv::Mat> before = walk.bands();
    walk.Step();
    const std::vector<cv::Mat> after = walk.bands();
    const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(stack(after));
    const cv::Mat other = vyra_test::texturedFrame(120, 96, 21);
    ASSERT_NE(vyra_test::plainPipelineObjects(other), expected);

    DetectionWorkspace workspace;
    // A whole frame of the same size in between fills the buffers with its own rows.
    workspace.DetectBands(before);
    workspace.Detect(other);
    EXPECT_EQ(workspace.DetectBands(after), expected) << "after a whole frame";

    // A call that fails part-way.
    workspace.DetectBands(before);
    std::vector<cv::Mat> mixed = cutIntoBands(other, 16);
    mixed.back() = cv::Mat(mixed.back().rows, 7, CV_8UC3, cv::Scalar(1, 2, 3));
    EXPECT_THROW(workspace.DetectBands(mixed), cv::Exception);
    EXPECT_EQ(workspace.DetectBands(after), expected) << "after a failed call";

    // More bands than the call before: the first band of `other` cut in two.
    workspace.DetectBands(before);
    std::vector<cv::Mat> finer = cutIntoBands(other, 16);
    finer.insert(finer.begin() + 1, finer.front().rowRange(8, 16));
    finer.front() = finer.front().rowRange(0, 8);
    EXPECT_EQ(workspace.DetectBands(finer), vyra_test::plainPipelineObjects(other)) << "a finer cut";
    EXPECT_EQ(workspace.DetectBands(after), expected) << "after a finer cut";

    // Frames of another size, and unreadable or empty band lists.
    EXPECT_EQ(workspace.DetectBands(cutIntoBands(other.rowRange(0, 50), 16)),
              vyra_test::plainPipelineObjects(other.rowRange(0, 50).clone()));
    cv::Mat floating;
    other.convertTo(floating, CV_32FC3);
    EXPECT_TRUE(workspace.DetectBands(cutIntoBands(floating, 16)).empty());
    EXPECT_TRUE(workspace.DetectBands({}).empty());
    EXPECT_EQ(workspace.DetectBands(after), expected) << "after other sizes and types";
}

TEST(DetectionWorkspaceBands, FrameStoreBandsInAnyOrder) {
    BandWalk walk(vyra_test::texturedFrame(96, 150, 4), 16, 29);
    vyra::detail::FrameStore store;
    for (int step = 0; step < 12; ++step) {
        store.Append(stack(walk.bands()));
        store.Append(stack(walk.bands()));  // a repeat: shares every band
        walk.Step();
    }
    std::vector<size_t> order(store.Size());
    for (size_t k = 0; k < order.size(); ++k) order[k] = k;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    order.insert(order.end(), {0, 1, 2, 3, 2, 1, 0});
    DetectionWorkspace workspace;
    for (const size_t k : order) {
        EXPECT_EQ(workspace.DetectBands(*store.Bands(k)), vyra_test::plainPipelineObjects(store.Load(k)))
            << "frame " << k;
    }
}

}  // namespace
