// The frame store keeps frames as bands shared with the frame before when
// their bytes are equal, and gives every frame back exactly.
#include <gtest/gtest.h>

#include <vector>

#include "store/FrameStore.h"

namespace {

using vyra::detail::FrameStore;

cv::Mat noise(int rows, int cols, int type, unsigned seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, cv::Scalar::all(0), cv::Scalar::all(256));
    return m;
}

bool sameBytes(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0.0);
}

size_t bytesOf(const cv::Mat& m) { return m.total() * m.elemSize(); }

TEST(FrameStore, GivesBackEveryFrameAndHoldsEachDifferentBandOnce) {
    const int band = FrameStore::kBandRows, rows = 3 * band + 5;  // three full bands and a short one
    const cv::Mat first = noise(rows, 24, CV_8UC3, 11), big = noise(50, 70, CV_8UC3, 9);
    cv::Mat second = first.clone(), third;
    second.at<cv::Vec3b>(band + 3, 7)[1] ^= 1;  // one value in band 1
    third = second.clone();
    third.at<cv::Vec3b>(rows - 1, 23)[2] ^= 0x80;  // the last value of the short band
    const cv::Mat grey(rows, 72, CV_8UC1, third.data);  // the same bytes read as another type
    const std::vector<cv::Mat> frames = {first, first.clone(), second, third, grey, noise(1, 5, CV_8UC1, 3),
                                         noise(17, 9, CV_8UC4, 4), noise(40, 11, CV_8UC2, 5), big(cv::Rect(3, 4, 30, 35)),
                                         noise(20, 180000, CV_8UC3, 41), cv::Mat(), cv::Mat()};
    const std::vector<bool> repeats = {false, true, false, false, false, false, false, false, false, false, false, true};
    FrameStore store;
    for (size_t k = 0; k < frames.size(); ++k) EXPECT_EQ(store.Append(frames[k]), repeats[k]) << k;
    size_t held = bytesOf(first) + static_cast<size_t>(band) * 24 * 3 + 5 * 24 * 3;  // frames 0-3
    for (size_t k = 4; k < frames.size(); ++k) held += bytesOf(frames[k]);
    EXPECT_EQ(store.BytesHeld(), held);
    FrameStore moved(std::move(store));
    FrameStore assigned;
    assigned.Append(noise(5, 5, CV_8UC3, 43));
    assigned = std::move(moved);
    ASSERT_EQ(assigned.Size(), frames.size());
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_TRUE(sameBytes(assigned.Load(k), frames[k])) << k;
        EXPECT_EQ(assigned.FrameSize(k), frames[k].size()) << k;
        EXPECT_EQ(assigned.SameAsPrevious(k), repeats[k]) << k;
    }
    // The shared bands are the very same memory; a repeat shares the whole list.
    const std::vector<cv::Mat>&bands1 = *assigned.Bands(1), &bands2 = *assigned.Bands(2), &bands3 = *assigned.Bands(3);
    ASSERT_EQ(bands2.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(bands2[i].rows, i < 3 ? band : 5);
        EXPECT_EQ(bands2[i].data == bands1[i].data, i != 1) << i;
        EXPECT_EQ(bands3[i].data == bands2[i].data, i != 3) << i;
    }
    EXPECT_EQ(assigned.Bands(0), assigned.Bands(1));
    cv::Mat buffer;
    assigned.LoadInto(2, buffer);
    const uchar* data = buffer.data;
    assigned.LoadInto(3, buffer);  // of the same size: the same buffer
    EXPECT_EQ(buffer.data, data);
    EXPECT_TRUE(sameBytes(buffer, third));
}

// (The rows reported changed and the load window: the pinned Measure results of regression/, with and
// without frames kept in memory.)

}  // namespace
