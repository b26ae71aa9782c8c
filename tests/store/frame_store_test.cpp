// Internal units of the streaming intake: the band store that keeps the
// frames, the memory frame buffers are mapped in, and the window that lets
// the analysis give loaded frames back.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "store/FrameStore.h"
#include "store/LargeFrameAllocator.h"
#include "measure/LoadWindow.h"
#include "VyraImage.h"

namespace {

using vyra::detail::FrameStore;

cv::Mat noise(int rows, int cols, int type, unsigned seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, cv::Scalar::all(0), cv::Scalar::all(256));
    return m;
}

bool sameBytes(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

size_t bytesOf(const cv::Mat& m) { return m.total() * m.elemSize(); }

// ---- FrameStore

TEST(FrameStore, GivesBackEveryFrameExactlyWhateverItsSizeAndType) {
    FrameStore store;
    // Heights that are and are not multiples of the band height, 1-4 channels,
    // a frame that is a view into a larger one (rows not contiguous).
    const cv::Mat big = noise(50, 70, CV_8UC3, 9);
    const std::vector<cv::Mat> frames = {noise(32, 20, CV_8UC3, 1), noise(33, 20, CV_8UC3, 2),
                                         noise(1, 5, CV_8UC1, 3),   noise(17, 9, CV_8UC4, 4),
                                         noise(40, 11, CV_8UC2, 5), big(cv::Rect(3, 4, 30, 35))};
    for (const cv::Mat& frame : frames) store.Append(frame);
    ASSERT_EQ(store.Size(), frames.size());
    for (size_t k = 0; k < frames.size(); ++k) {
        const cv::Mat loaded = store.Load(k);
        EXPECT_TRUE(loaded.isContinuous());
        EXPECT_TRUE(sameBytes(loaded, frames[k])) << "frame " << k;
        EXPECT_EQ(store.FrameSize(k), frames[k].size());
    }
}

TEST(FrameStore, SharesBandsEqualToThePreviousFramesAndCountsEachOnce) {
    const int rows = 3 * FrameStore::kBandRows + 5;  // three full bands and a short one
    const cv::Mat first = noise(rows, 24, CV_8UC3, 11);
    const size_t bandBytes = static_cast<size_t>(FrameStore::kBandRows) * 24 * 3;
    const size_t shortBandBytes = 5 * 24 * 3;

    FrameStore store;
    EXPECT_FALSE(store.Append(first));
    EXPECT_EQ(store.BytesHeld(), bytesOf(first));

    EXPECT_TRUE(store.Append(first.clone()));  // equal bytes, other buffer
    EXPECT_EQ(store.BytesHeld(), bytesOf(first));

    cv::Mat second = first.clone();
    second.at<cv::Vec3b>(FrameStore::kBandRows + 3, 7)[1] ^= 1;  // one value in band 1
    EXPECT_FALSE(store.Append(second));
    EXPECT_EQ(store.BytesHeld(), bytesOf(first) + bandBytes);

    cv::Mat third = second.clone();
    third.at<cv::Vec3b>(rows - 1, 23)[2] ^= 0x80;  // last value of the short band
    EXPECT_FALSE(store.Append(third));
    EXPECT_EQ(store.BytesHeld(), bytesOf(first) + bandBytes + shortBandBytes);

    EXPECT_FALSE(store.SameAsPrevious(0));
    EXPECT_TRUE(store.SameAsPrevious(1));
    EXPECT_FALSE(store.SameAsPrevious(2));
    EXPECT_FALSE(store.SameAsPrevious(3));
    EXPECT_TRUE(sameBytes(store.Load(1), first));
    EXPECT_TRUE(sameBytes(store.Load(2), second));
    EXPECT_TRUE(sameBytes(store.Load(3), third));

    // The bands themselves: the shared ones are the very same memory.
    const std::vector<cv::Mat>& bands1 = *store.Bands(1);
    const std::vector<cv::Mat>& bands2 = *store.Bands(2);
    const std::vector<cv::Mat>& bands3 = *store.Bands(3);
    ASSERT_EQ(bands2.size(), 4u);
    const std::vector<int> bandRows = {FrameStore::kBandRows, FrameStore::kBandRows, FrameStore::kBandRows, 5};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(bands2[i].rows, bandRows[i]) << "band " << i;
        EXPECT_EQ(bands2[i].data == bands1[i].data, i != 1) << "band " << i;
        EXPECT_EQ(bands3[i].data == bands2[i].data, i != 3) << "band " << i;
    }
    cv::Mat stacked;
    cv::vconcat(bands3, stacked);
    EXPECT_TRUE(sameBytes(stacked, third));
    EXPECT_EQ(store.Bands(0), store.Bands(1));  // a repeated frame shares the whole list
}

TEST(FrameStore, ReportsTheRowsOfTheBandsItCouldNotShare) {
    const int band = FrameStore::kBandRows;
    const cv::Mat first = noise(4 * band + 3, 12, CV_8UC3, 51);
    FrameStore store;
    std::vector<cv::Range> changed = {cv::Range(7, 8)};
    store.Append(first, &changed);
    ASSERT_EQ(changed.size(), 1u);  // no previous frame: all rows
    EXPECT_EQ(changed[0], cv::Range(0, first.rows));

    cv::Mat second = first.clone();
    second.at<cv::Vec3b>(band + 1, 0)[0] ^= 1;      // band 1
    second.at<cv::Vec3b>(2 * band + 5, 3)[2] ^= 1;  // band 2
    second.at<cv::Vec3b>(4 * band + 2, 11)[1] ^= 1;  // the short last band
    store.Append(second, &changed);
    ASSERT_EQ(changed.size(), 2u);  // bands 1 and 2 merged, then band 4
    EXPECT_EQ(changed[0], cv::Range(band, 3 * band));
    EXPECT_EQ(changed[1], cv::Range(4 * band, 4 * band + 3));

    EXPECT_TRUE(store.Append(second, &changed));
    EXPECT_TRUE(changed.empty());

    const cv::Mat other = noise(10, 12, CV_8UC3, 52);
    store.Append(other, &changed);
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(changed[0], cv::Range(0, 10));
}

TEST(FrameStore, FramesOfAnotherSizeOrTypeShareNothing) {
    const cv::Mat frame = noise(20, 10, CV_8UC3, 21);
    FrameStore store;
    store.Append(frame);
    cv::Mat grey(20, 30, CV_8UC1, frame.data);  // the same bytes read as another type
    EXPECT_FALSE(store.Append(grey));
    cv::Mat taller;
    cv::vconcat(frame, frame.rowRange(0, 1), taller);  // same first rows, one more
    EXPECT_FALSE(store.Append(taller));
    EXPECT_EQ(store.BytesHeld(), bytesOf(frame) + bytesOf(grey) + bytesOf(taller));
    EXPECT_TRUE(sameBytes(store.Load(1), grey));
    EXPECT_TRUE(sameBytes(store.Load(2), taller));
}

TEST(FrameStore, LoadIntoReusesABufferOfTheRightSizeOnly) {
    FrameStore store;
    store.Append(noise(40, 30, CV_8UC3, 31));
    store.Append(noise(40, 30, CV_8UC3, 32));
    store.Append(noise(8, 8, CV_8UC3, 33));
    cv::Mat buffer;
    store.LoadInto(0, buffer);
    const uchar* data = buffer.data;
    store.LoadInto(1, buffer);
    EXPECT_EQ(buffer.data, data);
    EXPECT_TRUE(sameBytes(buffer, store.Load(1)));
    store.LoadInto(2, buffer);
    EXPECT_EQ(buffer.size(), cv::Size(8, 8));
    EXPECT_TRUE(sameBytes(buffer, store.Load(2)));
}

TEST(FrameStore, BandsLargerThanAMemoryBlockAndMovedStoresKeepTheirPixels) {
    // One band of this frame holds 16 x 180000 x 3 bytes, more than a block.
    const cv::Mat wide = noise(20, 180000, CV_8UC3, 41);
    const cv::Mat small = noise(30, 40, CV_8UC1, 42);
    FrameStore store;
    store.Append(small);
    store.Append(wide);
    store.Append(small);
    FrameStore moved(std::move(store));
    FrameStore assigned;
    assigned.Append(noise(5, 5, CV_8UC3, 43));
    assigned = std::move(moved);
    ASSERT_EQ(assigned.Size(), 3u);
    EXPECT_TRUE(sameBytes(assigned.Load(0), small));
    EXPECT_TRUE(sameBytes(assigned.Load(1), wide));
    EXPECT_TRUE(sameBytes(assigned.Load(2), small));
    EXPECT_EQ(assigned.BytesHeld(), 2 * bytesOf(small) + bytesOf(wide));
}

TEST(FrameStore, EmptyFramesAreKeptAsEmpty) {
    FrameStore store;
    store.Append(cv::Mat());
    EXPECT_TRUE(store.Append(cv::Mat()));
    EXPECT_TRUE(store.Load(1).empty());
    EXPECT_EQ(store.BytesHeld(), 0u);
}

// ---- LargeFrameAllocator

bool hugePageAligned(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % (size_t(2) << 20) == 0; }

TEST(LargeFrameMemory, FrameSizedMatricesAreMappedAlignedSmallOnesAreNot) {
    using vyra::detail::LargeFrameAllocator;
    cv::Mat frame;
    vyra::detail::UseLargeFrameMemory(frame);
    frame.create(1920, 1080, CV_8UC3);
    ASSERT_NE(frame.u, nullptr);
    EXPECT_EQ(frame.u->currAllocator, LargeFrameAllocator());
    EXPECT_TRUE(hugePageAligned(frame.data));
    frame.setTo(cv::Scalar(1, 2, 3));  // every byte writable
    EXPECT_EQ(cv::sum(frame), cv::Scalar(1920.0 * 1080, 2 * 1920.0 * 1080, 3 * 1920.0 * 1080, 0));

    // Shared and copied like any matrix; the last reference frees it.
    cv::Mat shared = frame;
    frame.release();
    EXPECT_EQ(shared.at<cv::Vec3b>(1919, 1079), cv::Vec3b(1, 2, 3));
    shared.release();

    cv::Mat small;
    vyra::detail::UseLargeFrameMemory(small);
    small.create(100, 100, CV_8UC3);
    EXPECT_NE(small.u->currAllocator, LargeFrameAllocator());

    // Re-creating with the same size keeps the buffer; another size maps anew.
    cv::Mat reused;
    vyra::detail::UseLargeFrameMemory(reused);
    reused.create(1000, 1000, CV_8UC3);
    const uchar* data = reused.data;
    reused.create(1000, 1000, CV_8UC3);
    EXPECT_EQ(reused.data, data);
    reused.create(2000, 1000, CV_8UC3);
    EXPECT_EQ(reused.u->currAllocator, LargeFrameAllocator());
    EXPECT_TRUE(hugePageAligned(reused.data));
}

TEST(LargeFrameMemory, RawBlocksAreAlignedAndWritable) {
    for (const size_t bytes : {size_t(1), size_t(2) << 20, (size_t(2) << 20) + 1, size_t(13) << 20}) {
        void* block = vyra::detail::MapLargeBlock(bytes);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(hugePageAligned(block));
        std::memset(block, 0x5a, bytes);
        EXPECT_EQ(static_cast<unsigned char*>(block)[bytes - 1], 0x5a);
        vyra::detail::ReleaseLargeBlock(block, bytes);
    }
}

// ---- LoadWindow

// Images 0..n-1 whose loader counts its calls and goes through the window.
struct WindowedImages {
    explicit WindowedImages(int n) : loads(static_cast<size_t>(n), 0) {
        for (int k = 0; k < n; ++k) {
            std::vector<vyra::Rect> none;
            images.emplace_back(
                [this, k]() {
                    window.BeforeLoad(k);
                    ++loads[static_cast<size_t>(k)];
                    return cv::Mat(2, 2, CV_8UC1, cv::Scalar(k));
                },
                none, 2, 2, -1.0, k);
        }
        window.Attach(images);
    }
    // The pixel value of image k, loading it when needed.
    int value(int k) { return images[static_cast<size_t>(k)].img().at<uchar>(0, 0); }

    vyra::detail::LoadWindow window;
    std::vector<vyra::Image> images;
    std::vector<int> loads;
};

TEST(LoadWindow, ReleasesFramesTwoBehindTheLowerOfTheLastTwoLoads) {
    WindowedImages set(12);
    for (int k = 0; k <= 6; ++k) EXPECT_EQ(set.value(k), k);
    // Loading 6 after 5 released everything below 3.
    for (int k = 0; k <= 6; ++k) EXPECT_EQ(set.loads[static_cast<size_t>(k)], 1) << k;
    EXPECT_EQ(set.value(3), 3);
    EXPECT_EQ(set.loads[3], 1);  // still there
    EXPECT_EQ(set.value(2), 2);
    EXPECT_EQ(set.loads[2], 2);  // was released, loaded again
}

TEST(LoadWindow, AFrameComparedWithTheBaselineStaysWhicheverLoadsFirst) {
    // A comparison reads both references before using them; the second load
    // must not release the first frame.
    for (const bool baselineFirst : {false, true}) {
        WindowedImages set(30);
        const int b = 29;
        for (int i = 0; i < 20; ++i) {
            cv::Mat& x = baselineFirst ? set.images[b].img() : set.images[static_cast<size_t>(i)].img();
            cv::Mat& y = baselineFirst ? set.images[static_cast<size_t>(i)].img() : set.images[b].img();
            ASSERT_FALSE(x.empty()) << i;
            ASSERT_FALSE(y.empty()) << i;
            const int frame = baselineFirst ? y.at<uchar>(0, 0) : x.at<uchar>(0, 0);
            const int base = baselineFirst ? x.at<uchar>(0, 0) : y.at<uchar>(0, 0);
            EXPECT_EQ(frame, i);
            EXPECT_EQ(base, b);
        }
        // Frames that were left behind were given back: at most a few of the
        // twenty remain loaded (a window of three plus the baseline).
        int stillLoaded = 0;
        for (int i = 0; i < 20; ++i) {
            const int before = set.loads[static_cast<size_t>(i)];
            set.value(i);
            stillLoaded += set.loads[static_cast<size_t>(i)] == before ? 1 : 0;
        }
        EXPECT_LE(stillLoaded, 4) << "baseline first " << baselineFirst;
    }
}

TEST(LoadWindow, NeighboursOfAMovingComparisonStay) {
    WindowedImages set(10);
    for (int i = 1; i + 1 < 10; ++i) {
        cv::Mat& previous = set.images[static_cast<size_t>(i - 1)].img();
        cv::Mat& current = set.images[static_cast<size_t>(i)].img();
        cv::Mat& next = set.images[static_cast<size_t>(i + 1)].img();
        ASSERT_FALSE(previous.empty() || current.empty() || next.empty()) << i;
        EXPECT_EQ(previous.at<uchar>(0, 0) + 1, current.at<uchar>(0, 0));
        EXPECT_EQ(current.at<uchar>(0, 0) + 1, next.at<uchar>(0, 0));
    }
    for (int k = 0; k < 10; ++k) EXPECT_EQ(set.loads[static_cast<size_t>(k)], 1) << k;
}

}  // namespace
