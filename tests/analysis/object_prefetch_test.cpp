// The object prefetcher reading frames through a pixel source, the way
// vyra::Measure hands it the frame store: covered images get the objects
// and ratio of OpenCV's plain pipeline on their own pixels without ever
// being loaded, the source is read once per run of frames it declares
// equal, and everything else is left to the Images' own accessors.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/ImageCacheAccess.h"
#include "analysis/ObjectPrefetch.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "fixtures.h"

namespace {

using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;
using vyra::detail::ImageCacheAccess;
using vyra::detail::ObjectPrefetch;
using vyra::detail::PixelSource;

// Frames in a list, each read as bands of 16 rows (views of its own rows,
// made once); a frame is declared equal to the previous one when its bytes
// are (checked here with cv::norm, independently of the prefetcher). Counts
// its reads; reading a frame listed in `failing` throws.
class ListSource : public PixelSource {
public:
    ListSource(std::vector<cv::Mat> frames, std::vector<bool> covered, std::set<int> failing = {})
        : frames_(std::move(frames)), covered_(std::move(covered)), failing_(std::move(failing)),
          reads_(frames_.size(), 0) {
        for (const cv::Mat& frame : frames_) {
            auto bands = std::make_shared<std::vector<cv::Mat>>();
            for (int y = 0; y < frame.rows; y += 16) bands->push_back(frame.rowRange(y, std::min(y + 16, frame.rows)));
            bands_.push_back(std::move(bands));
        }
    }

    bool Covers(int index, cv::Size) const override { return covered_[static_cast<size_t>(index)]; }

    bool BandsLast(int) const override { return true; }

    bool SameAsPrevious(int index) const override {
        const cv::Mat& a = frames_[static_cast<size_t>(index)];
        const cv::Mat& b = frames_[static_cast<size_t>(index) - 1];
        return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
    }

    std::shared_ptr<const std::vector<cv::Mat>> Bands(int index) const override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++reads_[static_cast<size_t>(index)];
        }
        if (failing_.count(index) != 0) throw std::runtime_error("unreadable");
        return bands_[static_cast<size_t>(index)];
    }

    int reads(int index) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reads_[static_cast<size_t>(index)];
    }

private:
    std::vector<cv::Mat> frames_;
    std::vector<std::shared_ptr<const std::vector<cv::Mat>>> bands_;
    std::vector<bool> covered_;
    std::set<int> failing_;
    mutable std::mutex mutex_;
    mutable std::vector<int> reads_;
};

// Lazily loaded images of `frames`, their loaders counting calls.
struct LazySet {
    explicit LazySet(const std::vector<cv::Mat>& frames) {
        std::vector<Image> images;
        for (size_t k = 0; k < frames.size(); ++k) {
            loaders.emplace_back(frames[k]);
            images.push_back(vyra_test::lazyImage(loaders.back(), frames[k].cols, frames[k].rows,
                                                  static_cast<int>(k)));
        }
        sets = std::make_unique<ImageSets>(images);
    }
    int loads() const {
        int total = 0;
        for (const vyra_test::CountingLoader& loader : loaders) total += loader.calls();
        return total;
    }
    std::vector<vyra_test::CountingLoader> loaders;
    std::unique_ptr<ImageSets> sets;
};

double plainRatio(const cv::Mat& frame) {
    const std::vector<Rect> boxes = vyra_test::plainPipelineObjects(frame);
    return static_cast<double>(Rect::CalculateTotalArea(boxes)) / static_cast<double>(frame.total());
}

// Logo, logo, logo, loaded page, corner marks, corner marks, logo again:
// four runs, the last one equal to the first but not next to it.
std::vector<cv::Mat> runsOfFrames() {
    const cv::Mat logo = vyra_test::logoFrame(160, 120);
    const cv::Mat page = vyra_test::loadedPageFrame(160, 120);
    const cv::Mat marks = vyra_test::cornerMarksFrame(160, 120);
    return {logo.clone(), logo.clone(), logo.clone(), page, marks.clone(), marks.clone(), logo.clone()};
}

TEST(ObjectPrefetchFromSource, CoveredImagesGetThePlainObjectsOncePerRunWithoutLoading) {
    const std::vector<cv::Mat> frames = runsOfFrames();
    for (const bool useWorker : {false, true}) {
        SCOPED_TRACE(useWorker ? "with worker" : "calling thread only");
        LazySet lazy(frames);
        const ListSource source(frames, std::vector<bool>(frames.size(), true));
        {
            ObjectPrefetch prefetch(*lazy.sets, useWorker, &source);
            for (int k = 0; k < static_cast<int>(frames.size()); ++k) prefetch.Provide(k, true);
        }
        for (int k = 0; k < static_cast<int>(frames.size()); ++k) {
            Image& image = (*lazy.sets)[k];
            ASSERT_TRUE(ImageCacheAccess::HasObjects(image)) << "image " << k;
            EXPECT_EQ(image.GetImageObjects(), vyra_test::plainPipelineObjects(frames[k])) << "image " << k;
            EXPECT_DOUBLE_EQ(image.GetContentRatio(), plainRatio(frames[k])) << "image " << k;
        }
        EXPECT_EQ(lazy.loads(), 0);
        const std::vector<int> expectedReads = {1, 0, 0, 1, 1, 0, 1};
        for (int k = 0; k < static_cast<int>(frames.size()); ++k) {
            EXPECT_EQ(source.reads(k), expectedReads[static_cast<size_t>(k)]) << "image " << k;
        }
    }
}

TEST(ObjectPrefetchFromSource, UncoveredImagesAreLeftAloneAndBreakARun) {
    const std::vector<cv::Mat> frames = runsOfFrames();
    LazySet lazy(frames);
    // Image 1 is not covered: image 2, equal to it, cannot share its result.
    const ListSource source(frames, {true, false, true, true, true, true, true});
    ObjectPrefetch prefetch(*lazy.sets, true, &source);
    prefetch.Provide(1, true);
    EXPECT_FALSE(ImageCacheAccess::HasObjects((*lazy.sets)[1]));
    prefetch.Provide(2, true);
    EXPECT_TRUE(ImageCacheAccess::HasObjects((*lazy.sets)[2]));
    EXPECT_EQ(source.reads(1), 0);
    EXPECT_EQ(source.reads(2), 1);
    EXPECT_EQ((*lazy.sets)[2].GetImageObjects(), vyra_test::plainPipelineObjects(frames[2]));
    // The uncovered image detects by itself, from its loader.
    EXPECT_EQ((*lazy.sets)[1].GetImageObjects(), vyra_test::plainPipelineObjects(frames[1]));
    EXPECT_EQ(lazy.loaders[1].calls(), 1);
}

TEST(ObjectPrefetchFromSource, AFailedReadLeavesTheWholeRunToItsOwnAccessors) {
    const std::vector<cv::Mat> frames = runsOfFrames();
    LazySet lazy(frames);
    const ListSource source(frames, std::vector<bool>(frames.size(), true), {0});
    ObjectPrefetch prefetch(*lazy.sets, false, &source);
    for (int k = 0; k < 4; ++k) prefetch.Provide(k, true);
    for (int k = 0; k < 3; ++k) EXPECT_FALSE(ImageCacheAccess::HasObjects((*lazy.sets)[k])) << "image " << k;
    EXPECT_TRUE(ImageCacheAccess::HasObjects((*lazy.sets)[3]));
    EXPECT_EQ(source.reads(0), 1);
    EXPECT_EQ((*lazy.sets)[2].GetImageObjects(), vyra_test::plainPipelineObjects(frames[2]));
}

TEST(ObjectPrefetchFromSource, KnownObjectsAndResidentPixelsWinOverTheSource) {
    const std::vector<cv::Mat> frames = runsOfFrames();
    std::vector<Image> images;
    // Image 0 carries objects of its own (not what detection would find).
    const vyra_test::CountingLoader first(frames[0]);
    const std::vector<Rect> given = {Rect(1, 2, 3, 4)};
    images.push_back(vyra_test::lazyImage(first, frames[0].cols, frames[0].rows, 0, given, 0.25));
    // Image 1 holds its pixels: a page the source does not have.
    cv::Mat resident = frames[3].clone();
    images.emplace_back(resident, 1);
    ImageSets sets(images);
    const ListSource source({frames[0], frames[1]}, {true, true});
    ObjectPrefetch prefetch(sets, false, &source);
    prefetch.Provide(0, true);
    prefetch.Provide(1, true);
    EXPECT_EQ(sets[0].GetImageObjects(), given);
    EXPECT_DOUBLE_EQ(sets[0].GetContentRatio(), 0.25);
    EXPECT_EQ(sets[1].GetImageObjects(), vyra_test::plainPipelineObjects(frames[3]));
    EXPECT_EQ(source.reads(0), 0);
    EXPECT_EQ(source.reads(1), 0);
    EXPECT_EQ(first.calls(), 0);
}

// A frame of width w released: empty, but its row step still w * 3 bytes.
cv::Mat released(int width) {
    cv::Mat frame(8, width, CV_8UC3, cv::Scalar(1, 2, 3));
    frame.release();
    return frame;
}

// Empty frames: undecodable (analyse() keeps them in their place) or
// released. Found by fuzzing: two released frames of different widths in a
// row were compared with memcmp on null pointers (undefined behaviour,
// reported by the sanitizer build). Every image gets what its own accessor
// gives.
TEST(ObjectPrefetch, EmptyFramesInARunGetTheirOwnResult) {
    const cv::Mat page = vyra_test::loadedPageFrame(160, 120);
    const std::vector<std::vector<cv::Mat>> cases = {
        {released(64), released(36)},
        {cv::Mat(), cv::Mat(), page.clone(), released(5), cv::Mat()},
        {page.clone(), cv::Mat(0, 160, CV_8UC3), cv::Mat(0, 80, CV_8UC3), cv::Mat(120, 0, CV_8UC3)},
    };
    for (const std::vector<cv::Mat>& frames : cases) {
        for (const bool useWorker : {false, true}) {
            std::vector<cv::Mat> mats = frames;
            ImageSets sets(mats);
            {
                ObjectPrefetch prefetch(sets, useWorker);
                for (int k = 0; k < sets.size(); ++k) prefetch.Provide(k, true);
            }
            for (int k = 0; k < sets.size(); ++k) {
                const cv::Mat& frame = frames[static_cast<size_t>(k)];
                EXPECT_EQ(sets[k].GetImageObjects(), frame.empty() ? std::vector<Rect>() : vyra_test::plainPipelineObjects(frame));
                EXPECT_DOUBLE_EQ(sets[k].GetContentRatio(), frame.empty() ? 0.0 : plainRatio(frame));
            }
        }
    }
}

}  // namespace
