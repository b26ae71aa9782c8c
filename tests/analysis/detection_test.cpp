// The cheaper paths of the analysis give exactly what the plain ones give:
// detection in a reused workspace and on bands shared with the frame before
// (against OpenCV's plain pipeline, vyra_test::plainPipelineObjects) and
// objects prefetched from a pixel source. (Features detected once per frame
// are held to the pinned dynamic results in regression/.)
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraImageSets.h"
#include "analysis/ImageCacheAccess.h"
#include "analysis/ObjectDetection.h"
#include "analysis/ObjectPrefetch.h"
#include "store/FrameStore.h"
#include "fixtures.h"

namespace {

using vyra::Image;
using vyra::ImageSets;
using vyra::detail::DetectionWorkspace;
using vyra::detail::ImageCacheAccess;

std::vector<cv::Mat> bandsOf(const cv::Mat& frame, int rows) {
    std::vector<cv::Mat> bands;
    for (int y = 0; y < frame.rows; y += rows) bands.push_back(frame.rowRange(y, std::min(y + rows, frame.rows)));
    return bands;
}

cv::Mat stacked(const std::vector<cv::Mat>& bands) {
    cv::Mat frame;
    cv::vconcat(bands, frame);
    return frame;
}

TEST(DetectionWorkspace, ReusedAcrossSizesTypesAndRegionsGivesThePlainBoxes) {
    std::vector<cv::Mat> frames = vyra_test::detectionCatalogue(
        {cv::Size(1, 1), cv::Size(9, 1), cv::Size(2, 3), cv::Size(121, 203), cv::Size(720, 1000)});
    const cv::Mat outer = vyra_test::texturedFrame(160, 140, 5);
    frames.push_back(outer(cv::Rect(3, 5, 100, 90)));  // a region: borders come from its own pixels
    frames.push_back(outer(cv::Rect(7, 9, 1, 40)));
    size_t withBoxes = 0;
    DetectionWorkspace reused;
    for (int pass = 0; pass < 2; ++pass) {
        for (size_t k = 0; k < frames.size(); ++k) {
            const size_t i = pass == 0 ? k : frames.size() - 1 - k;
            const cv::Mat before = frames[i].clone();
            const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(frames[i].clone());
            EXPECT_EQ(reused.Detect(frames[i]), expected) << "frame " << i;
            EXPECT_EQ(DetectionWorkspace().Detect(frames[i]), expected) << "frame " << i;
            EXPECT_EQ(cv::norm(frames[i], before, cv::NORM_INF), 0.0);
            withBoxes += expected.empty() ? 0 : 1;
        }
    }
    EXPECT_GE(withBoxes, frames.size() / 2);  // the comparison means something
    cv::Mat floating;
    outer.convertTo(floating, CV_32FC3);
    EXPECT_TRUE(reused.Detect(floating).empty());
    EXPECT_EQ(reused.Detect(outer), vyra_test::plainPipelineObjects(outer));
}

TEST(DetectionWorkspace, BandsSharedWithTheFrameBeforeGiveThePlainBoxesOfTheWholeFrame) {
    // Each step repaints one to three bands (new blocks, a bar, or a line on a
    // band's first or last row, where the neighbours' gradients change too)
    // and keeps every other band as the very same matrix.
    for (const int code : {-1, int(cv::COLOR_BGR2GRAY), int(cv::COLOR_BGR2BGRA)}) {
        for (const int rows : {16, 5, 1}) {
            cv::Mat first = vyra_test::texturedFrame(150, 203, 3);
            if (code >= 0) cv::cvtColor(first, first, code);
            std::vector<std::vector<cv::Mat>> walk{bandsOf(first, rows)};  // keeps every band alive
            std::mt19937 rng(17u + static_cast<unsigned>(rows));
            DetectionWorkspace workspace;
            for (int step = 0; step < (code < 0 ? 40 : 10); ++step) {
                ASSERT_EQ(workspace.DetectBands(walk.back()), vyra_test::plainPipelineObjects(stacked(walk.back())))
                    << "channels " << first.channels() << ", bands of " << rows << ", step " << step;
                std::vector<cv::Mat> next = walk.back();
                for (unsigned n = 1 + rng() % 3; n > 0; --n) {
                    cv::Mat& band = next[rng() % next.size()];
                    band = band.clone();
                    const cv::Scalar colour(rng() % 256, rng() % 256, rng() % 256);
                    const int x = static_cast<int>(rng() % static_cast<unsigned>(band.cols));
                    const int y = rng() % 2 == 0 ? 0 : band.rows - 1;
                    if (rng() % 2 == 0) {
                        cv::rectangle(band, cv::Rect(x, 0, band.cols - x, band.rows), colour, cv::FILLED);
                    } else {
                        cv::line(band, {x, y}, {band.cols - 1, y}, colour);
                    }
                }
                walk.push_back(next);
            }
        }
    }
    // A whole frame, a failing call and a finer cut in between do not pass
    // for kept bands; nor do the bands of a frame store read in any order.
    const cv::Mat page = vyra_test::texturedFrame(120, 96, 21), other = vyra_test::texturedFrame(120, 96, 22);
    DetectionWorkspace workspace;
    workspace.DetectBands(bandsOf(page, 16));
    workspace.Detect(other);
    EXPECT_EQ(workspace.DetectBands(bandsOf(page, 16)), vyra_test::plainPipelineObjects(page));
    std::vector<cv::Mat> broken = bandsOf(other, 16);
    broken.back() = cv::Mat(broken.back().rows, 7, CV_8UC3, cv::Scalar(1, 2, 3));
    EXPECT_THROW(workspace.DetectBands(broken), cv::Exception);
    EXPECT_EQ(workspace.DetectBands(bandsOf(page, 16)), vyra_test::plainPipelineObjects(page));
    EXPECT_EQ(workspace.DetectBands(bandsOf(other, 8)), vyra_test::plainPipelineObjects(other));
    EXPECT_TRUE(workspace.DetectBands({}).empty());

    vyra::detail::FrameStore store;
    for (unsigned k = 0; k < 6; ++k) {
        cv::Mat frame = page.clone();
        frame.rowRange(16 * k, 16 * k + 16).setTo(cv::Scalar(k * 40, 0, 0));
        store.Append(frame);
        store.Append(frame);  // a repeat shares every band
    }
    for (const size_t k : {11u, 0u, 5u, 6u, 1u, 10u, 3u, 2u}) {
        EXPECT_EQ(workspace.DetectBands(*store.Bands(k)), vyra_test::plainPipelineObjects(store.Load(k))) << k;
    }
}

// Frames in a list, read as bands; a frame equals the previous one when its
// bytes do. Counts its reads; reading a frame listed in @p failing throws.
class ListSource : public vyra::detail::PixelSource {
public:
    ListSource(std::vector<cv::Mat> frames, std::vector<bool> covered, std::set<int> failing = {})
        : frames_(std::move(frames)), covered_(std::move(covered)), failing_(std::move(failing)),
          reads_(frames_.size(), 0) {}
    bool Covers(int index, cv::Size) const override { return covered_[static_cast<size_t>(index)]; }
    bool BandsLast(int) const override { return true; }
    bool SameAsPrevious(int index) const override {
        const cv::Mat &a = frames_[static_cast<size_t>(index)], &b = frames_[static_cast<size_t>(index) - 1];
        return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0;
    }
    std::shared_ptr<const std::vector<cv::Mat>> Bands(int index) const override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++reads_[static_cast<size_t>(index)];
        if (failing_.count(index) != 0) throw std::runtime_error("unreadable");
        return std::make_shared<const std::vector<cv::Mat>>(bandsOf(frames_[static_cast<size_t>(index)], 16));
    }
    std::vector<int> reads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reads_;
    }

private:
    std::vector<cv::Mat> frames_;
    std::vector<bool> covered_;
    std::set<int> failing_;
    mutable std::mutex mutex_;
    mutable std::vector<int> reads_;
};

TEST(ObjectPrefetch, CoveredImagesGetThePlainObjectsOncePerRunWithoutLoading) {
    // Runs: logo x3, page, marks x2, logo (equal to the first run, not next to it).
    const cv::Mat logo = vyra_test::logoFrame(160, 120), page = vyra_test::loadedPageFrame(160, 120),
                  marks = vyra_test::cornerMarksFrame(160, 120);
    const std::vector<cv::Mat> frames = {logo, logo.clone(), logo.clone(), page, marks, marks.clone(), logo.clone()};
    const struct {
        const char* what;
        std::vector<bool> covered;
        std::set<int> failing;
        std::vector<bool> prefetched;
        std::vector<int> reads;
    } cases[] = {
        {"all covered", std::vector<bool>(7, true), {}, std::vector<bool>(7, true), {1, 0, 0, 1, 1, 0, 1}},
        // An uncovered image is left alone and breaks the run: 2 reads anew.
        {"1 uncovered", {true, false, true, true, true, true, true}, {}, {true, false, true, true, true, true, true},
         {1, 0, 1, 1, 1, 0, 1}},
        // A failed read leaves its whole run to the images' own accessors.
        {"0 unreadable", std::vector<bool>(7, true), {0}, {false, false, false, true, true, true, true},
         {1, 0, 0, 1, 1, 0, 1}},
    };
    for (const auto& c : cases) {
        for (const bool worker : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (worker ? ", with worker" : ""));
            std::vector<vyra_test::CountingLoader> loaders(frames.begin(), frames.end());
            std::vector<Image> images;
            for (int k = 0; k < 7; ++k) images.push_back(vyra_test::lazyImage(loaders[k], 160, 120, k));
            ImageSets sets(images);
            const ListSource source(frames, c.covered, c.failing);
            {
                vyra::detail::ObjectPrefetch prefetch(sets, worker, &source);
                for (int k = 0; k < 7; ++k) prefetch.Provide(k, true);
            }
            EXPECT_EQ(source.reads(), c.reads);
            for (int k = 0; k < 7; ++k) {
                EXPECT_EQ(ImageCacheAccess::HasObjects(sets[k]), c.prefetched[k]) << k;
                if (c.prefetched[k]) {
                    EXPECT_EQ(loaders[k].calls(), 0) << k;
                }
                EXPECT_EQ(sets[k].GetImageObjects(), vyra_test::plainPipelineObjects(frames[k])) << k;
            }
        }
    }
    // Objects handed over and pixels in memory win over the source.
    std::vector<vyra::Rect> given = {vyra::Rect(1, 2, 3, 4)};
    cv::Mat first = logo.clone(), resident = page.clone();
    std::vector<Image> images{Image(first, given, 0.25, 0), Image(resident, 1)};
    ImageSets sets(images);
    const ListSource source({logo, logo}, {true, true});
    vyra::detail::ObjectPrefetch prefetch(sets, false, &source);
    prefetch.Provide(0, true);
    prefetch.Provide(1, true);
    EXPECT_EQ(sets[0].GetImageObjects(), given);
    EXPECT_EQ(sets[1].GetImageObjects(), vyra_test::plainPipelineObjects(page));
    EXPECT_EQ(source.reads(), (std::vector<int>{0, 0}));
}

}  // namespace
