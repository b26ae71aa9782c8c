// vyra::Image (lazy pixels, detected objects, content ratio) and
// vyra::ImageSets (PSNR, object overlap and their memos), on frames whose
// boxes and differences are known from how they are drawn.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraImage.h"
#include "VyraImageSets.h"
#include "fixtures.h"

namespace {

using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;
using vyra_test::CountingLoader;
using vyra_test::lazyImage;
using vyra_test::solidFrame;

const cv::Scalar kBackground(230, 230, 230);

// Filled rectangles on a flat background. Canny keeps, of the two pixels of
// equal gradient on either side of a step, the one with the smaller
// coordinate, so the edge ring of a rectangle (l, t)-(r, b) has the box
// (l - 1, t - 1)-(r, b); its outer and hole contours share that box.
cv::Mat sceneFrame() {
    cv::Mat frame = solidFrame(200, 120, kBackground);
    cv::rectangle(frame, {10, 10}, {69, 49}, cv::Scalar(20, 20, 20), cv::FILLED);    // 61 x 41
    cv::rectangle(frame, {120, 20}, {129, 29}, cv::Scalar(200, 40, 40), cv::FILLED); // 11 x 11
    cv::rectangle(frame, {90, 70}, {179, 99}, cv::Scalar(40, 40, 200), cv::FILLED);  // 91 x 31
    cv::rectangle(frame, {20, 80}, {39, 99}, cv::Scalar(0, 120, 0), cv::FILLED);     // 21 x 21
    cv::rectangle(frame, {80, 50}, {89, 59}, cv::Scalar(0, 0, 0), cv::FILLED);       // 11 x 11
    return frame;
}

// In list order: ascending area, then left.
const std::vector<Rect> kSceneBoxes = {Rect(79, 49, 89, 59), Rect(119, 19, 129, 29), Rect(19, 79, 39, 99),
                                       Rect(9, 9, 69, 49), Rect(89, 69, 179, 99)};
const double kSceneRatio = (121.0 + 121.0 + 441.0 + 2501.0 + 2821.0) / (200.0 * 120.0);
const std::vector<Rect> kTwoBoxes = {Rect(0, 0, 9, 9), Rect(5, 5, 14, 14)};  // union 175

TEST(Image, DetectsTheEdgeRingOfEveryShapeSortedByArea) {
    const cv::Mat bgr = sceneFrame();
    cv::Mat grey, bgra;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
    for (const cv::Mat& frame : {bgr, grey, bgra}) EXPECT_EQ(Image::DetectObjects(frame), kSceneBoxes);
    // A dark frame with a hole: an outer and an inner ring.
    cv::Mat framed = solidFrame(180, 130, kBackground);
    cv::rectangle(framed, {40, 30}, {139, 99}, cv::Scalar(30, 30, 30), cv::FILLED);
    cv::rectangle(framed, {46, 36}, {133, 93}, kBackground, cv::FILLED);
    EXPECT_EQ(Image::DetectObjects(framed), (std::vector<Rect>{Rect(45, 35, 133, 93), Rect(39, 29, 139, 99)}));
    // A grey step of d levels has an L1 Sobel magnitude of 4d on the sides and
    // 6d at the corners; Canny seeds above 30 and follows down to 10: d = 5
    // leaves no edge, d = 6 seeds the corners (36) and the sides (24) follow.
    for (const int d : {5, 6}) {
        cv::Mat step = solidFrame(120, 90, cv::Scalar::all(100));
        cv::rectangle(step, {30, 20}, {79, 59}, cv::Scalar::all(100 + d), cv::FILLED);
        EXPECT_EQ(Image::DetectObjects(step), d == 5 ? std::vector<Rect>{} : std::vector<Rect>{Rect(29, 19, 79, 59)});
    }
    for (const int type : {CV_16UC3, CV_8UC2, CV_32FC3}) {
        cv::Mat other(90, 120, type, cv::Scalar::all(0));
        other(cv::Rect(30, 20, 40, 30)).setTo(cv::Scalar::all(200));
        EXPECT_TRUE(Image::DetectObjects(other).empty()) << type;
    }
    EXPECT_TRUE(Image::DetectObjects(cv::Mat()).empty());
}

TEST(Image, ObjectsAndRatioAreComputedOnceOrTakenAsGiven) {
    cv::Mat scene = sceneFrame();
    Image detected(scene, 0);
    EXPECT_EQ(detected.GetImageObjectsSize(), 5);
    EXPECT_DOUBLE_EQ(detected.GetContentRatio(), kSceneRatio);
    scene.setTo(kBackground);  // the shared pixels change; the kept list does not
    EXPECT_EQ(detected.GetImageObjects(), kSceneBoxes);
    Image copy(detected);
    copy.GetImageObjects().clear();
    EXPECT_EQ(detected.GetImageObjectsSize(), 5);

    cv::Mat flat = solidFrame(100, 100);
    std::vector<Rect> given = kTwoBoxes;
    Image handed(flat, given, 0.4, 2);
    EXPECT_EQ(handed.GetImageObjects(), kTwoBoxes);
    EXPECT_DOUBLE_EQ(handed.GetContentRatio(), 0.4);
    Image ratioFromBoxes(flat, given, -1.0, 3);
    EXPECT_DOUBLE_EQ(ratioFromBoxes.GetContentRatio(), 175.0 / 10000.0);
    std::vector<Rect> none;
    cv::Mat busy = sceneFrame();
    Image emptyList(busy, none, -1.0, 4);  // an empty list is no answer: detect
    EXPECT_EQ(emptyList.GetImageObjects(), kSceneBoxes);
    Image nothing;
    EXPECT_EQ(nothing.GetImageObjectsSize(), 0);
    EXPECT_EQ(nothing.GetContentRatio(), 0.0);
}

TEST(Image, LoaderRunsOnFirstUseAndAgainAfterReduceSizesComeFromTheCache) {
    CountingLoader source(sceneFrame());
    Image image = lazyImage(source, 200, 120, 9);
    EXPECT_EQ(image.width(), 200);
    EXPECT_FALSE(image.Empty());
    EXPECT_FALSE(image.Reduce());  // nothing loaded yet
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(image.GetImageObjects(), kSceneBoxes);
    EXPECT_EQ(source.calls(), 1);
    image.img().setTo(cv::Scalar(0, 0, 0));
    EXPECT_TRUE(image.Reduce());
    EXPECT_FALSE(image.Reduce());
    EXPECT_EQ(image.height(), 120);
    EXPECT_EQ(image.GetImageObjectsSize(), 5);  // kept through Reduce
    EXPECT_EQ(source.calls(), 1);
    EXPECT_EQ(image.img().at<cv::Vec3b>(15, 15), cv::Vec3b(20, 20, 20));  // fresh pixels
    EXPECT_EQ(source.calls(), 2);

    CountingLoader unknown(solidFrame(64, 48));
    Image sized = lazyImage(unknown, -1, 48, 0);
    EXPECT_EQ(sized.height(), 48);
    EXPECT_EQ(unknown.calls(), 0);
    EXPECT_EQ(sized.width(), 64);  // unknown: loaded once and kept
    EXPECT_TRUE(sized.Reduce());
    EXPECT_EQ(sized.width(), 64);
    EXPECT_EQ(unknown.calls(), 1);

    CountingLoader failing(solidFrame(32, 16), 1);
    Image once = lazyImage(failing, 32, 16, 0);
    EXPECT_THROW(once.img(), std::runtime_error);
    EXPECT_FALSE(once.Reduce());
    EXPECT_EQ(once.img().cols, 32);
    EXPECT_EQ(failing.calls(), 2);
}

TEST(ImageSets, PsnrIsTenLog10Of65025OverTheMeanSquaredDifference) {
    const cv::Mat textured = vyra_test::texturedFrame(40, 30, 5);
    cv::Mat dented = textured.clone();
    dented(cv::Rect(8, 8, 16, 8)).setTo(cv::Scalar(0, 0, 0));
    const struct {
        const char* what;
        cv::Mat a, b;
        double psnr;
    } cases[] = {
        {"identical", textured, textured.clone(), 99.99},
        {"one level everywhere", cv::Mat(12, 16, CV_8UC3, cv::Scalar(10, 100, 200)),
         cv::Mat(12, 16, CV_8UC3, cv::Scalar(11, 99, 201)), 10.0 * std::log10(65025.0)},
        {"full scale", cv::Mat(1, 1, CV_8UC1, cv::Scalar(0)), cv::Mat(1, 1, CV_8UC1, cv::Scalar(255)), 0.0},
        {"fourth channel not summed", cv::Mat(5, 7, CV_8UC4, cv::Scalar(1, 2, 3, 0)),
         cv::Mat(5, 7, CV_8UC4, cv::Scalar(1, 2, 3, 255)), 99.99},
        {"but counted: 12 / 4", cv::Mat(5, 7, CV_8UC4, cv::Scalar::all(10)),
         cv::Mat(5, 7, CV_8UC4, cv::Scalar::all(12)), 10.0 * std::log10(65025.0 / 3.0)},
        {"dented", textured, dented, vyra_test::referencePsnr(textured, dented)},
        {"empty", cv::Mat(), textured, -1.0},
        {"rows differ", cv::Mat(3, 4, CV_8UC3), cv::Mat(5, 4, CV_8UC3), -1.0},
        {"columns differ", cv::Mat(4, 4, CV_8UC3), cv::Mat(4, 5, CV_8UC3), -1.0},
        {"turned", cv::Mat(2, 4, CV_8UC3), cv::Mat(4, 2, CV_8UC3), -1.0},
        {"types differ", cv::Mat(6, 8, CV_8UC3, cv::Scalar::all(5)), cv::Mat(6, 8, CV_8UC1, cv::Scalar(5)), -1.0},
    };
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(c.a, c.b), c.psnr) << c.what;
        EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(c.b, c.a), c.psnr) << c.what;
    }
    // Random frames of every 8-bit depth against the plain sum in integers.
    for (int channels = 1; channels <= 3; ++channels) {
        cv::Mat a(37, 53, CV_MAKETYPE(CV_8U, channels)), b(a.size(), a.type());
        cv::randu(a, 0, 256);
        cv::randu(b, 0, 256);
        EXPECT_DOUBLE_EQ(ImageSets::CalculatePSNR(a, b), vyra_test::referencePsnr(a, b)) << channels;
    }
}

TEST(ImageSets, PsnrAndMatchesAreKeptPerOrderedPairAndMode) {
    std::vector<CountingLoader> loaders;
    std::vector<cv::Mat> frames;
    for (unsigned k = 0; k < 3; ++k) {
        frames.push_back(vyra_test::texturedFrame(128, 96, 40 + k));
        loaders.emplace_back(frames.back());
    }
    std::vector<Image> images;
    for (int k = 0; k < 3; ++k) images.push_back(lazyImage(loaders[k], 128, 96, k));
    ImageSets sets(images);
    const auto loads = [&] { return std::vector<int>{loaders[0].calls(), loaders[1].calls(), loaders[2].calls()}; };
    const auto reduceAll = [&] { for (int k = 0; k < 3; ++k) sets[k].Reduce(); };

    EXPECT_DOUBLE_EQ(sets.GetImagesPSNR(0, 2), vyra_test::referencePsnr(frames[0], frames[2]));
    reduceAll();
    sets.GetImagesPSNR(0, 2);
    EXPECT_EQ(loads(), (std::vector<int>{1, 0, 1}));
    sets.GetImagesPSNR(2, 0);  // the other order is a pair of its own
    EXPECT_EQ(loads(), (std::vector<int>{2, 0, 2}));

    reduceAll();
    FeaturesMatchingInfo& checked = sets.GetImagesFeaturesMatchingInfo(1, 2, true);
    reduceAll();
    EXPECT_EQ(&sets.GetImagesFeaturesMatchingInfo(1, 2, true), &checked);
    EXPECT_EQ(loads(), (std::vector<int>{2, 1, 3}));
    EXPECT_NE(&sets.GetImagesFeaturesMatchingInfo(1, 2, false), &checked);
    reduceAll();
    const FeaturesMatchingInfo& reversed = sets.GetImagesFeaturesMatchingInfo(2, 1, true);
    EXPECT_EQ(loads(), (std::vector<int>{2, 3, 5}));
    EXPECT_EQ(std::get<0>(reversed).size(), std::get<1>(checked).size());  // element 0: the first index's
    // ORB's own parameters are held to the pinned results (regression/); frames of
    // another size, an empty one or one without keypoints give no match.
    for (const cv::Mat& other : {cv::Mat(), frames[0].rowRange(0, 50).clone(), solidFrame(128, 96)}) {
        const FeaturesMatchingInfo info = ImageSets::FeatureMatching(frames[0], other, true);
        EXPECT_TRUE(std::get<2>(info).empty());
        EXPECT_EQ(std::get<0>(info).empty(), other.size() != frames[0].size());
    }
}

TEST(ImageSets, OverlapSumsTheAreasOfBoxesWithASameSizedCounterpartNearby) {
    const struct {
        std::vector<Rect> first, second;
        cv::Vec3i forward;
    } cases[] = {
        {{Rect(10, 10, 19, 19)}, {Rect(12, 12, 21, 21)}, {100, 100, 100}},
        {{Rect(0, 0, 9, 9)}, {Rect(3, 3, 12, 12)}, {100, 100, 100}},       // 3 = 0.3 * 10 both ways
        {{Rect(0, 0, 9, 9)}, {Rect(4, 0, 13, 9)}, {100, 100, 0}},
        {{Rect(0, 0, 9, 9)}, {Rect(0, 4, 9, 13)}, {100, 100, 0}},
        {{Rect(10, 5, 19, 24)}, {Rect(5, 10, 24, 19)}, {200, 200, 0}},     // same area, turned
        {{Rect(10, 10, 19, 19), Rect(12, 10, 21, 19)}, {Rect(11, 10, 20, 19)}, {200, 100, 200}},
        {{Rect(10, 10, 19, 19)}, {Rect(11, 10, 20, 19), Rect(10, 10, 19, 19)}, {100, 200, 100}},
        {{Rect(0, 0, 9, 9), Rect(2, 2, 5, 5)}, {Rect(0, 0, 9, 9)}, {116, 100, 100}},  // summed, not united
        {{}, {Rect(0, 0, 9, 9), Rect(20, 20, 21, 21)}, {0, 104, 0}},
    };
    for (const auto& c : cases) {
        cv::Mat a = solidFrame(64, 64), b = solidFrame(64, 64);
        std::vector<Rect> first = c.first, second = c.second;
        std::vector<Image> images{Image(a, first, -1.0, 0), Image(b, second, -1.0, 1)};
        ImageSets sets(images);
        EXPECT_EQ(sets.GetImagesObjectsOverlapArea(0, 1), c.forward) << c.first.size() << " and " << c.second.size();
    }
}

}  // namespace
