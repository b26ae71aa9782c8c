// vyra::ImageSets: construction, PSNR and its memo, object overlap, and ORB
// feature matching with its memo.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"
#include "fixtures.h"

namespace {

using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;
using vyra_test::CountingLoader;
using vyra_test::lazyImage;

// ---- construction ----

TEST(ImageSetsConstruction, FromMatsIndicesArePositionsAndPixelsAreShared) {
    std::vector<cv::Mat> mats = {vyra_test::solidFrame(40, 30), vyra_test::texturedFrame(40, 30, 1),
                                 vyra_test::solidFrame(20, 10, cv::Scalar(1, 2, 3))};
    ImageSets sets(mats);
    ASSERT_EQ(sets.size(), 3);
    for (int k = 0; k < sets.size(); ++k) {
        EXPECT_EQ(sets[k].index(), k);
        EXPECT_EQ(sets[k].img().data, mats[k].data);
        EXPECT_FALSE(sets[k].Reduce());  // made from a matrix: no loader
    }
    EXPECT_EQ(sets[2].width(), 20);
    EXPECT_EQ(sets[2].height(), 10);
    ASSERT_EQ(sets.imgs().size(), 3u);
    EXPECT_EQ(&sets.imgs()[1], &sets[1]);
}

TEST(ImageSetsConstruction, FromImagesCopiesThemInOrder) {
    cv::Mat first = vyra_test::solidFrame(40, 30);
    cv::Mat second = vyra_test::solidFrame(50, 20);
    std::vector<Rect> boxes = {Rect(1, 1, 4, 4)};
    std::vector<Image> images;
    images.emplace_back(first, boxes, 0.25, 7);
    images.emplace_back(second, 3);

    ImageSets sets(images);
    ASSERT_EQ(sets.size(), 2);
    // The caller's images are left as they were.
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].index(), 7);
    EXPECT_EQ(images[0].GetImageObjects(), boxes);
    EXPECT_EQ(images[1].img().data, second.data);
    // Copies keep their own index, not their position.
    EXPECT_EQ(sets[0].index(), 7);
    EXPECT_EQ(sets[1].index(), 3);
    EXPECT_NE(&sets[0], &images[0]);
    EXPECT_EQ(sets[0].img().data, first.data);
    EXPECT_EQ(sets[1].width(), 50);
    EXPECT_EQ(sets[0].GetImageObjects(), boxes);
    EXPECT_DOUBLE_EQ(sets[0].GetContentRatio(), 0.25);

    images[0].GetImageObjects().clear();
    EXPECT_EQ(sets[0].GetImageObjects(), boxes);
}

TEST(ImageSetsConstruction, EmptyVectorsGiveEmptySets) {
    std::vector<cv::Mat> mats;
    ImageSets fromMats(mats);
    EXPECT_EQ(fromMats.size(), 0);
    EXPECT_TRUE(fromMats.imgs().empty());
    std::vector<Image> images;
    ImageSets fromImages(images);
    EXPECT_EQ(fromImages.size(), 0);
}

// ---- CalculatePSNR ----

const double kIdentical = 99.99;

// Straightforward PSNR: squared differences of the first three channels,
// summed in double, over channels * pixels of a.
double referencePsnr(const cv::Mat& a, const cv::Mat& b) {
    const int channels = a.channels();
    double sse = 0.0;
    for (int y = 0; y < a.rows; ++y) {
        const unsigned char* pa = a.ptr<unsigned char>(y);
        const unsigned char* pb = b.ptr<unsigned char>(y);
        for (int x = 0; x < a.cols; ++x) {
            for (int c = 0; c < std::min(channels, 3); ++c) {
                const double d = static_cast<double>(pa[x * channels + c]) - pb[x * channels + c];
                sse += d * d;
            }
        }
    }
    const double mse = sse / (static_cast<double>(channels) * a.rows * a.cols);
    return 10.0 * std::log10(65025.0 / mse);
}

cv::Mat randomMat(int rows, int cols, int type, unsigned seed) {
    cv::Mat m(rows, cols, type);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> value(0, 255);
    for (size_t k = 0; k < m.total() * m.elemSize(); ++k) {
        m.data[k] = static_cast<unsigned char>(value(rng));
    }
    return m;
}

TEST(ImageSetsPSNR, IdenticalMatricesGive9999) {
    const cv::Mat a = vyra_test::texturedFrame(40, 30, 5);
    EXPECT_EQ(ImageSets::CalculatePSNR(a, a), kIdentical);
    EXPECT_EQ(ImageSets::CalculatePSNR(a, a.clone()), kIdentical);
    const cv::Mat grey(3, 3, CV_8UC1, cv::Scalar(17));
    EXPECT_EQ(ImageSets::CalculatePSNR(grey, grey.clone()), kIdentical);
}

TEST(ImageSetsPSNR, EmptyOnEitherSideGivesMinusOne) {
    const cv::Mat a = vyra_test::solidFrame(8, 6);
    EXPECT_EQ(ImageSets::CalculatePSNR(cv::Mat(), a), -1.0);
    EXPECT_EQ(ImageSets::CalculatePSNR(a, cv::Mat()), -1.0);
    EXPECT_EQ(ImageSets::CalculatePSNR(cv::Mat(), cv::Mat()), -1.0);
}

TEST(ImageSetsPSNR, DifferentRowsOrColumnsGiveMinusOne) {
    // Equal pixel counts are not enough.
    const cv::Mat landscape(1080, 1920, CV_8UC3, cv::Scalar::all(0));
    const cv::Mat portrait(1920, 1080, CV_8UC3, cv::Scalar::all(0));
    EXPECT_EQ(ImageSets::CalculatePSNR(landscape, portrait), -1.0);
    EXPECT_EQ(ImageSets::CalculatePSNR(cv::Mat(2, 4, CV_8UC3, cv::Scalar::all(0)),
                                       cv::Mat(4, 2, CV_8UC3, cv::Scalar::all(0))),
              -1.0);
    EXPECT_EQ(ImageSets::CalculatePSNR(cv::Mat(4, 3, CV_8UC3, cv::Scalar::all(0)),
                                       cv::Mat(4, 5, CV_8UC3, cv::Scalar::all(0))),
              -1.0);
    EXPECT_EQ(ImageSets::CalculatePSNR(cv::Mat(3, 4, CV_8UC3, cv::Scalar::all(0)),
                                       cv::Mat(5, 4, CV_8UC3, cv::Scalar::all(0))),
              -1.0);
}

TEST(ImageSetsPSNR, DifferentPixelTypesGiveMinusOne) {
    const cv::Mat bgr(6, 8, CV_8UC3, cv::Scalar::all(5));
    const cv::Mat grey(6, 8, CV_8UC1, cv::Scalar::all(5));
    const cv::Mat wide(6, 8, CV_16UC3, cv::Scalar::all(5));
    double value = 0.0;
    EXPECT_NO_THROW(value = ImageSets::CalculatePSNR(bgr, grey));
    EXPECT_EQ(value, -1.0);
    EXPECT_NO_THROW(value = ImageSets::CalculatePSNR(grey, bgr));
    EXPECT_EQ(value, -1.0);
    EXPECT_NO_THROW(value = ImageSets::CalculatePSNR(bgr, wide));
    EXPECT_EQ(value, -1.0);
}

TEST(ImageSetsPSNR, FullScaleDifferenceOnOnePixelIsZeroDecibels) {
    const cv::Mat black(1, 1, CV_8UC1, cv::Scalar(0));
    const cv::Mat white(1, 1, CV_8UC1, cv::Scalar(255));
    EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(black, white), 0.0);
    EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(white, black), 0.0);
}

TEST(ImageSetsPSNR, DifferenceOfOneEverywhereIsTenLog65025) {
    const cv::Mat a(12, 16, CV_8UC3, cv::Scalar(10, 100, 200));
    const cv::Mat b(12, 16, CV_8UC3, cv::Scalar(11, 99, 201));
    const double value = ImageSets::CalculatePSNR(a, b);
    EXPECT_DOUBLE_EQ(value, 10.0 * std::log10(65025.0));
    EXPECT_NEAR(value, 48.1308, 1e-4);
}

TEST(ImageSetsPSNR, FourthChannelIsNeverAdded) {
    const cv::Mat a(5, 7, CV_8UC4, cv::Scalar(1, 2, 3, 0));
    const cv::Mat b(5, 7, CV_8UC4, cv::Scalar(1, 2, 3, 255));
    EXPECT_EQ(ImageSets::CalculatePSNR(a, b), kIdentical);
}

TEST(ImageSetsPSNR, FourChannelsCountInTheDenominator) {
    // Difference 2 in all four channels: sse = 3 * 4 per pixel, mse = 12 / 4 = 3.
    const cv::Mat a(5, 7, CV_8UC4, cv::Scalar(10, 10, 10, 10));
    const cv::Mat b(5, 7, CV_8UC4, cv::Scalar(12, 12, 12, 12));
    EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(a, b), 10.0 * std::log10(65025.0 / 3.0));
}

TEST(ImageSetsPSNR, RandomFramesMatchAPlainComputation) {
    // Every squared 8-bit difference and every sum here is an integer well
    // below 2^24, so float squares and double sums are exact.
    const int types[] = {CV_8UC1, CV_8UC2, CV_8UC3, CV_8UC4};
    for (int t = 0; t < 4; ++t) {
        const cv::Mat a = randomMat(6, 8, types[t], 100 + t);
        const cv::Mat b = randomMat(6, 8, types[t], 200 + t);
        EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(a, b), referencePsnr(a, b)) << "channels " << t + 1;
        EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(b, a), referencePsnr(a, b)) << "channels " << t + 1;
    }
}

TEST(ImageSetsPSNR, SmallDifferenceOnTexturedFrames) {
    const cv::Mat a = vyra_test::texturedFrame(64, 48, 9);
    cv::Mat b = a.clone();
    b(cv::Rect(8, 8, 16, 8)).setTo(cv::Scalar(0, 0, 0));
    const double value = ImageSets::CalculatePSNR(a, b);
    EXPECT_DOUBLE_EQ(value, referencePsnr(a, b));
    EXPECT_GT(value, 0.0);
    EXPECT_LT(value, kIdentical);
}

// ---- memoised PSNR ----

struct LazySet {
    std::vector<CountingLoader> loaders;
    std::vector<cv::Mat> frames;
};

// Six lazily loaded textured frames of one size.
LazySet lazyFrames(int width, int height) {
    LazySet set;
    for (int k = 0; k < 6; ++k) {
        set.frames.push_back(vyra_test::texturedFrame(width, height, 40 + k));
        set.loaders.emplace_back(set.frames.back());
    }
    return set;
}

std::vector<Image> lazyImages(const LazySet& set, int width, int height) {
    std::vector<Image> images;
    for (size_t k = 0; k < set.loaders.size(); ++k) {
        images.push_back(lazyImage(set.loaders[k], width, height, static_cast<int>(k)));
    }
    return images;
}

std::vector<int> callCounts(const LazySet& set) {
    std::vector<int> counts;
    for (const CountingLoader& loader : set.loaders) {
        counts.push_back(loader.calls());
    }
    return counts;
}

TEST(ImageSetsPSNRMemo, EachOrderedPairIsComputedOnce) {
    const LazySet frames = lazyFrames(48, 32);
    std::vector<Image> images = lazyImages(frames, 48, 32);
    ImageSets sets(images);
    const double expected = referencePsnr(frames.frames[2], frames.frames[5]);

    EXPECT_DOUBLE_EQ(sets.GetImagesPSNR(2, 5), expected);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 1, 0, 0, 1}));

    ASSERT_TRUE(sets[2].Reduce());
    ASSERT_TRUE(sets[5].Reduce());
    EXPECT_DOUBLE_EQ(sets.GetImagesPSNR(2, 5), expected);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 1, 0, 0, 1}));

    // The reversed pair is a key of its own: computed again.
    EXPECT_DOUBLE_EQ(sets.GetImagesPSNR(5, 2), expected);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 2, 0, 0, 2}));

    ASSERT_TRUE(sets[2].Reduce());
    ASSERT_TRUE(sets[5].Reduce());
    sets.GetImagesPSNR(5, 2);
    sets.GetImagesPSNR(2, 5);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 2, 0, 0, 2}));
}

TEST(ImageSetsPSNRMemo, ImageWithItselfIsIdentical) {
    std::vector<cv::Mat> mats = {vyra_test::texturedFrame(40, 30, 2)};
    ImageSets sets(mats);
    EXPECT_EQ(sets.GetImagesPSNR(0, 0), kIdentical);
}

TEST(ImageSetsPSNRMemo, CachedMinusOneSurvivesAResizeToTheOtherSize) {
    std::vector<cv::Mat> mats = {vyra_test::texturedFrame(48, 32, 1),
                                 vyra_test::texturedFrame(32, 48, 2)};
    ImageSets sets(mats);
    EXPECT_EQ(sets.GetImagesPSNR(0, 1), -1.0);

    cv::resize(sets[1].img(), sets[1].img(), cv::Size(48, 32));
    const double now = ImageSets::CalculatePSNR(sets[0].img(), sets[1].img());
    ASSERT_NE(now, -1.0);
    EXPECT_EQ(sets.GetImagesPSNR(0, 1), -1.0);
    // A pair not asked before sees the new pixels.
    EXPECT_DOUBLE_EQ(sets.GetImagesPSNR(1, 0), referencePsnr(sets[1].img(), sets[0].img()));
}

TEST(ImageSetsPSNRMemo, CachedValueSurvivesAPixelChange) {
    const cv::Mat frame = vyra_test::texturedFrame(40, 30, 3);
    std::vector<cv::Mat> mats = {frame, frame.clone()};
    ImageSets sets(mats);
    EXPECT_EQ(sets.GetImagesPSNR(0, 1), kIdentical);
    sets[1].img().setTo(cv::Scalar(0, 0, 0));
    EXPECT_EQ(sets.GetImagesPSNR(0, 1), kIdentical);
    EXPECT_LT(sets.GetImagesPSNR(1, 0), kIdentical);
}

// ---- object overlap ----

// A set whose image k is a uniform 64 x 64 frame carrying the given boxes
// (an empty list is detected on the uniform frame and stays empty).
void expectOverlap(const std::vector<Rect>& first, const std::vector<Rect>& second,
                   const cv::Vec3i& forward, const cv::Vec3i& backward) {
    std::vector<cv::Mat> frames = {vyra_test::solidFrame(64, 64), vyra_test::solidFrame(64, 64)};
    std::vector<Rect> a = first;
    std::vector<Rect> b = second;
    std::vector<Image> images;
    images.emplace_back(frames[0], a, -1.0, 0);
    images.emplace_back(frames[1], b, -1.0, 1);
    ImageSets sets(images);
    EXPECT_EQ(sets.GetImagesObjectsOverlapArea(0, 1), forward);
    EXPECT_EQ(sets.GetImagesObjectsOverlapArea(1, 0), backward);
}

TEST(ImageSetsOverlap, SameSizeBoxesWithCloseCentresShareTheirArea) {
    expectOverlap({Rect(10, 10, 19, 19)}, {Rect(12, 12, 21, 21)}, cv::Vec3i(100, 100, 100),
                  cv::Vec3i(100, 100, 100));
}

TEST(ImageSetsOverlap, ToleranceLimitIsThreeTenthsOfTheSize) {
    expectOverlap({Rect(0, 0, 9, 9)}, {Rect(3, 3, 12, 12)}, cv::Vec3i(100, 100, 100),
                  cv::Vec3i(100, 100, 100));
    expectOverlap({Rect(0, 0, 9, 9)}, {Rect(4, 0, 13, 9)}, cv::Vec3i(100, 100, 0),
                  cv::Vec3i(100, 100, 0));
    expectOverlap({Rect(0, 0, 9, 9)}, {Rect(0, 4, 9, 13)}, cv::Vec3i(100, 100, 0),
                  cv::Vec3i(100, 100, 0));
}

TEST(ImageSetsOverlap, SameAreaOtherShapeIsNotShared) {
    // 10 x 20 against 20 x 10 around the same centre.
    expectOverlap({Rect(10, 5, 19, 24)}, {Rect(5, 10, 24, 19)}, cv::Vec3i(200, 200, 0),
                  cv::Vec3i(200, 200, 0));
}

TEST(ImageSetsOverlap, OneBoxMayVouchForSeveralBoxes) {
    expectOverlap({Rect(10, 10, 19, 19), Rect(12, 10, 21, 19)}, {Rect(11, 10, 20, 19)},
                  cv::Vec3i(200, 100, 200), cv::Vec3i(100, 200, 100));
}

TEST(ImageSetsOverlap, ABoxCountsAtMostOnce) {
    // Equal to one box of the other list and close to another.
    expectOverlap({Rect(10, 10, 19, 19)}, {Rect(11, 10, 20, 19), Rect(10, 10, 19, 19)},
                  cv::Vec3i(100, 200, 100), cv::Vec3i(200, 100, 200));
}

TEST(ImageSetsOverlap, AreasAreSummedNotUnited) {
    // Nested boxes: 100 + 16, not the union 100.
    expectOverlap({Rect(0, 0, 9, 9), Rect(2, 2, 5, 5)}, {Rect(0, 0, 9, 9)},
                  cv::Vec3i(116, 100, 100), cv::Vec3i(100, 116, 100));
}

TEST(ImageSetsOverlap, UnmatchedBoxesAddNothing) {
    expectOverlap({Rect(0, 0, 9, 9), Rect(30, 30, 39, 39), Rect(50, 0, 51, 1)},
                  {Rect(0, 0, 9, 9), Rect(0, 30, 19, 34)},
                  cv::Vec3i(204, 200, 100), cv::Vec3i(200, 204, 100));
}

TEST(ImageSetsOverlap, EmptyListsGiveZeros) {
    expectOverlap({}, {}, cv::Vec3i(0, 0, 0), cv::Vec3i(0, 0, 0));
    expectOverlap({}, {Rect(0, 0, 9, 9), Rect(20, 20, 21, 21)}, cv::Vec3i(0, 104, 0),
                  cv::Vec3i(104, 0, 0));
}

TEST(ImageSetsOverlap, DetectedObjectsOfEqualFramesAreAllShared) {
    // A dark frame with a hole: two nested edge boxes, (39, 29)-(139, 99) and
    // (45, 35)-(133, 93), areas 7171 and 5251.
    cv::Mat frame = vyra_test::solidFrame(180, 130, cv::Scalar(230, 230, 230));
    cv::rectangle(frame, cv::Point(40, 30), cv::Point(139, 99), cv::Scalar(30, 30, 30), cv::FILLED);
    cv::rectangle(frame, cv::Point(46, 36), cv::Point(133, 93), cv::Scalar(230, 230, 230),
                  cv::FILLED);
    std::vector<cv::Mat> mats = {frame, frame.clone(), vyra_test::solidFrame(180, 130)};
    ImageSets sets(mats);
    EXPECT_EQ(sets.GetImagesObjectsOverlapArea(0, 1), cv::Vec3i(12422, 12422, 12422));
    EXPECT_EQ(sets.GetImagesObjectsOverlapArea(0, 2), cv::Vec3i(12422, 0, 0));
}

// ---- FeatureMatching ----

struct Reference {
    std::vector<cv::KeyPoint> keypointsA, keypointsB;
    cv::Mat descriptorsA, descriptorsB;
    std::vector<cv::DMatch> matches;
};

Reference referenceMatching(const cv::Mat& a, const cv::Mat& b, bool crossCheck) {
    Reference r;
    cv::Ptr<cv::ORB> orb = cv::ORB::create(500, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
    orb->detectAndCompute(a, cv::noArray(), r.keypointsA, r.descriptorsA);
    orb->detectAndCompute(b, cv::noArray(), r.keypointsB, r.descriptorsB);
    if (!r.descriptorsA.empty() && !r.descriptorsB.empty()) {
        cv::BFMatcher(cv::NORM_HAMMING, crossCheck).match(r.descriptorsA, r.descriptorsB, r.matches);
    }
    return r;
}

// Two 160 x 120 views of one textured scene, the second shifted by (6, 4).
cv::Mat sceneView(int dx, int dy) {
    const cv::Mat scene = vyra_test::texturedFrame(180, 130, 21);
    return scene(cv::Rect(dx, dy, 160, 120)).clone();
}

void expectSameKeypoints(const std::vector<cv::KeyPoint>& actual,
                         const std::vector<cv::KeyPoint>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t k = 0; k < actual.size(); ++k) {
        EXPECT_EQ(actual[k].pt, expected[k].pt) << k;
        EXPECT_EQ(actual[k].size, expected[k].size) << k;
        EXPECT_EQ(actual[k].angle, expected[k].angle) << k;
        EXPECT_EQ(actual[k].octave, expected[k].octave) << k;
        EXPECT_EQ(actual[k].response, expected[k].response) << k;
    }
}

int hamming(const Reference& r, int query, int train) {
    return static_cast<int>(
        cv::norm(r.descriptorsA.row(query), r.descriptorsB.row(train), cv::NORM_HAMMING));
}

// Every match leads from a keypoint of a to a keypoint of b, carries their
// Hamming distance, and is the best for its query (and, cross-checked, for
// its train descriptor too).
void expectBestMatches(const std::vector<cv::DMatch>& matches, const Reference& r,
                       bool crossCheck) {
    std::set<int> queries, trains;
    for (const cv::DMatch& m : matches) {
        ASSERT_GE(m.queryIdx, 0);
        ASSERT_LT(m.queryIdx, r.descriptorsA.rows);
        ASSERT_GE(m.trainIdx, 0);
        ASSERT_LT(m.trainIdx, r.descriptorsB.rows);
        EXPECT_EQ(m.imgIdx, 0);
        const int d = hamming(r, m.queryIdx, m.trainIdx);
        EXPECT_EQ(m.distance, static_cast<float>(d));
        for (int t = 0; t < r.descriptorsB.rows; ++t) {
            ASSERT_LE(d, hamming(r, m.queryIdx, t)) << "query " << m.queryIdx;
        }
        if (crossCheck) {
            for (int q = 0; q < r.descriptorsA.rows; ++q) {
                ASSERT_LE(d, hamming(r, q, m.trainIdx)) << "train " << m.trainIdx;
            }
            EXPECT_TRUE(trains.insert(m.trainIdx).second);
        }
        EXPECT_TRUE(queries.insert(m.queryIdx).second);
    }
}

void expectSameMatches(const std::vector<cv::DMatch>& actual,
                       const std::vector<cv::DMatch>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t k = 0; k < actual.size(); ++k) {
        EXPECT_EQ(actual[k].queryIdx, expected[k].queryIdx) << k;
        EXPECT_EQ(actual[k].trainIdx, expected[k].trainIdx) << k;
        EXPECT_EQ(actual[k].distance, expected[k].distance) << k;
    }
}

TEST(ImageSetsFeatureMatching, PlainMatchingGivesOneMatchPerDescriptorOfA) {
    const cv::Mat a = sceneView(0, 0);
    const cv::Mat b = sceneView(6, 4);
    const FeaturesMatchingInfo info = ImageSets::FeatureMatching(a, b, false);
    const Reference r = referenceMatching(a, b, false);
    ASSERT_GT(r.keypointsA.size(), 20u);
    ASSERT_GT(r.keypointsB.size(), 20u);

    expectSameKeypoints(std::get<0>(info), r.keypointsA);
    expectSameKeypoints(std::get<1>(info), r.keypointsB);
    EXPECT_EQ(std::get<2>(info).size(), static_cast<size_t>(r.descriptorsA.rows));
    EXPECT_EQ(std::get<2>(info).size(), std::get<0>(info).size());
    expectBestMatches(std::get<2>(info), r, false);
    expectSameMatches(std::get<2>(info), r.matches);
}

TEST(ImageSetsFeatureMatching, CrossCheckedMatchesAreMutualBest) {
    const cv::Mat a = sceneView(0, 0);
    const cv::Mat b = sceneView(6, 4);
    const FeaturesMatchingInfo info = ImageSets::FeatureMatching(a, b, true);
    const Reference r = referenceMatching(a, b, true);

    expectSameKeypoints(std::get<0>(info), r.keypointsA);
    expectSameKeypoints(std::get<1>(info), r.keypointsB);
    const std::vector<cv::DMatch>& matches = std::get<2>(info);
    EXPECT_GT(matches.size(), 10u);  // a shifted view of one scene matches well
    EXPECT_LE(matches.size(), std::min(std::get<0>(info).size(), std::get<1>(info).size()));
    expectBestMatches(matches, r, true);
    expectSameMatches(matches, r.matches);
}

TEST(ImageSetsFeatureMatching, UnrelatedTexturesStillMatchEveryDescriptorWithoutCrossCheck) {
    const cv::Mat a = vyra_test::texturedFrame(160, 120, 1);
    const cv::Mat b = vyra_test::texturedFrame(160, 120, 2);
    const FeaturesMatchingInfo plain = ImageSets::FeatureMatching(a, b, false);
    const FeaturesMatchingInfo checked = ImageSets::FeatureMatching(a, b, true);
    ASSERT_FALSE(std::get<0>(plain).empty());
    ASSERT_FALSE(std::get<1>(plain).empty());
    EXPECT_EQ(std::get<2>(plain).size(), std::get<0>(plain).size());
    EXPECT_LE(std::get<2>(checked).size(),
              std::min(std::get<0>(checked).size(), std::get<1>(checked).size()));
    const Reference r = referenceMatching(a, b, true);
    expectBestMatches(std::get<2>(checked), r, true);
}

TEST(ImageSetsFeatureMatching, UniformFrameHasNoKeypointsAndNoMatches) {
    const cv::Mat uniform = vyra_test::solidFrame(160, 120, cv::Scalar(90, 90, 90));
    const cv::Mat textured = vyra_test::texturedFrame(160, 120, 4);
    for (bool crossCheck : {false, true}) {
        const FeaturesMatchingInfo forward = ImageSets::FeatureMatching(uniform, textured, crossCheck);
        EXPECT_TRUE(std::get<0>(forward).empty());
        EXPECT_FALSE(std::get<1>(forward).empty());
        EXPECT_TRUE(std::get<2>(forward).empty());
        const FeaturesMatchingInfo backward = ImageSets::FeatureMatching(textured, uniform, crossCheck);
        EXPECT_FALSE(std::get<0>(backward).empty());
        EXPECT_TRUE(std::get<1>(backward).empty());
        EXPECT_TRUE(std::get<2>(backward).empty());
    }
}

void expectAllEmpty(const FeaturesMatchingInfo& info) {
    EXPECT_TRUE(std::get<0>(info).empty());
    EXPECT_TRUE(std::get<1>(info).empty());
    EXPECT_TRUE(std::get<2>(info).empty());
}

TEST(ImageSetsFeatureMatching, EmptyOrDifferentSizedFramesGiveNothing) {
    const cv::Mat textured = vyra_test::texturedFrame(160, 120, 5);
    const cv::Mat portrait = vyra_test::texturedFrame(120, 160, 5);
    const cv::Mat shorter = vyra_test::texturedFrame(160, 100, 5);
    for (bool crossCheck : {false, true}) {
        expectAllEmpty(ImageSets::FeatureMatching(cv::Mat(), textured, crossCheck));
        expectAllEmpty(ImageSets::FeatureMatching(textured, cv::Mat(), crossCheck));
        expectAllEmpty(ImageSets::FeatureMatching(cv::Mat(), cv::Mat(), crossCheck));
        expectAllEmpty(ImageSets::FeatureMatching(textured, portrait, crossCheck));
        expectAllEmpty(ImageSets::FeatureMatching(textured, shorter, crossCheck));
    }
}

// ORB keeps no keypoint within 31 pixels of a border, and OpenCV fails to
// build the pyramid of a frame one pixel wide or high (found by fuzzing: two
// 1x28 frames threw from cv::resize). Frames whose smaller side is at most 62
// have no features, without an exception.
TEST(ImageSetsFeatureMatching, FramesTooSmallForOrbHaveNoFeatures) {
    const cv::Size sizes[] = {{1, 28}, {28, 1}, {1, 1}, {1, 400}, {400, 1}, {2, 300}, {62, 300}, {300, 62}};
    for (const cv::Size& size : sizes) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        const cv::Mat a = vyra_test::texturedFrame(size.width, size.height, 7);
        const cv::Mat b = vyra_test::texturedFrame(size.width, size.height, 8);
        for (bool crossCheck : {false, true}) {
            FeaturesMatchingInfo info;
            ASSERT_NO_THROW(info = ImageSets::FeatureMatching(a, b, crossCheck));
            expectAllEmpty(info);
        }
        if (size.width > 1 && size.height > 1) {  // where ORB runs, it finds nothing either
            std::vector<cv::KeyPoint> keypoints;
            cv::Mat descriptors;
            cv::ORB::create(500, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20)
                ->detectAndCompute(a, cv::noArray(), keypoints, descriptors);
            EXPECT_TRUE(keypoints.empty());
        }
    }
}

// ---- memoised feature matching ----

TEST(ImageSetsFeatureMemo, RepeatedRequestReturnsTheSameEntryWithoutLoading) {
    const LazySet frames = lazyFrames(128, 96);
    std::vector<Image> images = lazyImages(frames, 128, 96);
    ImageSets sets(images);

    FeaturesMatchingInfo& first = sets.GetImagesFeaturesMatchingInfo(3, 4, true);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 0, 1, 1, 0}));
    const Reference r = referenceMatching(frames.frames[3], frames.frames[4], true);
    expectSameKeypoints(std::get<0>(first), r.keypointsA);
    expectSameKeypoints(std::get<1>(first), r.keypointsB);
    expectSameMatches(std::get<2>(first), r.matches);

    ASSERT_TRUE(sets[3].Reduce());
    ASSERT_TRUE(sets[4].Reduce());
    FeaturesMatchingInfo& again = sets.GetImagesFeaturesMatchingInfo(3, 4, true);
    EXPECT_EQ(&again, &first);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 0, 1, 1, 0}));
}

TEST(ImageSetsFeatureMemo, MatcherModeAndOrderAreSeparateEntries) {
    const LazySet frames = lazyFrames(128, 96);
    std::vector<Image> images = lazyImages(frames, 128, 96);
    ImageSets sets(images);

    FeaturesMatchingInfo& checked = sets.GetImagesFeaturesMatchingInfo(3, 4, true);
    ASSERT_TRUE(sets[3].Reduce());
    ASSERT_TRUE(sets[4].Reduce());

    FeaturesMatchingInfo& plain = sets.GetImagesFeaturesMatchingInfo(3, 4, false);
    EXPECT_NE(&plain, &checked);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 0, 2, 2, 0}));
    EXPECT_EQ(std::get<2>(plain).size(), std::get<0>(plain).size());
    ASSERT_TRUE(sets[3].Reduce());
    ASSERT_TRUE(sets[4].Reduce());

    FeaturesMatchingInfo& reversed = sets.GetImagesFeaturesMatchingInfo(4, 3, true);
    EXPECT_NE(&reversed, &checked);
    EXPECT_NE(&reversed, &plain);
    EXPECT_EQ(callCounts(frames), (std::vector<int>{0, 0, 0, 3, 3, 0}));
    // Element 0 is always the first index's keypoints.
    expectSameKeypoints(std::get<0>(reversed), std::get<1>(checked));
    expectSameKeypoints(std::get<1>(reversed), std::get<0>(checked));
    const Reference r = referenceMatching(frames.frames[4], frames.frames[3], true);
    expectSameMatches(std::get<2>(reversed), r.matches);
}

TEST(ImageSetsFeatureMemo, EntriesStayAsComputedAfterPixelChanges) {
    std::vector<cv::Mat> mats = {vyra_test::texturedFrame(128, 96, 61),
                                 vyra_test::texturedFrame(128, 96, 62),
                                 vyra_test::texturedFrame(96, 128, 63)};
    ImageSets sets(mats);
    FeaturesMatchingInfo& entry = sets.GetImagesFeaturesMatchingInfo(0, 1, true);
    const size_t keypoints = std::get<0>(entry).size();
    const size_t matches = std::get<2>(entry).size();
    ASSERT_GT(keypoints, 0u);

    sets[0].img().setTo(cv::Scalar(0, 0, 0));
    FeaturesMatchingInfo& again = sets.GetImagesFeaturesMatchingInfo(0, 1, true);
    EXPECT_EQ(&again, &entry);
    EXPECT_EQ(std::get<0>(again).size(), keypoints);
    EXPECT_EQ(std::get<2>(again).size(), matches);

    // An all-empty result is kept like any other.
    expectAllEmpty(sets.GetImagesFeaturesMatchingInfo(1, 2, false));
    cv::resize(sets[2].img(), sets[2].img(), cv::Size(128, 96));
    expectAllEmpty(sets.GetImagesFeaturesMatchingInfo(1, 2, false));
    EXPECT_FALSE(std::get<0>(sets.GetImagesFeaturesMatchingInfo(2, 1, false)).empty());
}

TEST(ImageSetsFeatureMemo, ReferencesStayValidAsTheCacheGrows) {
    std::vector<cv::Mat> mats = {vyra_test::texturedFrame(128, 96, 71),
                                 vyra_test::texturedFrame(128, 96, 72)};
    for (int k = 0; k < 10; ++k) {
        mats.push_back(vyra_test::solidFrame(16, 16, cv::Scalar(k, k, k)));
    }
    ImageSets sets(mats);
    FeaturesMatchingInfo& held = sets.GetImagesFeaturesMatchingInfo(0, 1, true);
    const FeaturesMatchingInfo snapshot = held;
    ASSERT_FALSE(std::get<2>(snapshot).empty());

    for (int i = sets.size() - 1; i >= 0; --i) {
        for (int j = 0; j < sets.size(); ++j) {
            sets.GetImagesFeaturesMatchingInfo(i, j, false);
            sets.GetImagesFeaturesMatchingInfo(i, j, true);
        }
    }
    EXPECT_EQ(&sets.GetImagesFeaturesMatchingInfo(0, 1, true), &held);
    expectSameKeypoints(std::get<0>(held), std::get<0>(snapshot));
    expectSameKeypoints(std::get<1>(held), std::get<1>(snapshot));
    expectSameMatches(std::get<2>(held), std::get<2>(snapshot));
}

}  // namespace
