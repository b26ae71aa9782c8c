// vyra::Image: construction, lazy loading and Reduce(), copy and move, object
// detection and the content ratio.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraImage.h"
#include "VyraRect.h"
#include "fixtures.h"

namespace {

using vyra::Image;
using vyra::Rect;
using vyra_test::CountingLoader;
using vyra_test::lazyImage;

const cv::Scalar kBackground(230, 230, 230);

// Filled rectangles on a uniform background. For a step edge Canny keeps, of
// the two pixels with equal gradient on either side of the step, the one with
// the smaller coordinate; the edge ring of a filled rectangle (l, t)-(r, b)
// therefore runs through column l - 1 and row t - 1 on the outside and column
// r and row b on the inside. The ring is one pixel wide and closed, so its
// outer and hole contours share one bounding box: (l - 1, t - 1)-(r, b).
struct FilledBox {
    cv::Point topLeft;
    cv::Point bottomRight;
    cv::Scalar colour;
};

// Shapes spaced well apart and away from the border; drawn in an order
// unrelated to their sizes.
std::vector<FilledBox> sceneBoxes() {
    return {
        {{10, 10}, {69, 49}, cv::Scalar(20, 20, 20)},     // edge box area 61 * 41 = 2501
        {{120, 20}, {129, 29}, cv::Scalar(200, 40, 40)},  // 11 * 11 = 121
        {{90, 70}, {179, 99}, cv::Scalar(40, 40, 200)},   // 91 * 31 = 2821
        {{20, 80}, {39, 99}, cv::Scalar(0, 120, 0)},      // 21 * 21 = 441
        {{80, 50}, {89, 59}, cv::Scalar(0, 0, 0)},        // 11 * 11 = 121, left of the other
    };
}

cv::Mat sceneFrame() {
    cv::Mat frame = vyra_test::solidFrame(200, 120, kBackground);
    for (const FilledBox& box : sceneBoxes()) {
        cv::rectangle(frame, box.topLeft, box.bottomRight, box.colour, cv::FILLED);
    }
    return frame;
}

// Expected result for sceneFrame(), in the list order: ascending area, then left.
std::vector<Rect> sceneExpected() {
    return {Rect(79, 49, 89, 59), Rect(119, 19, 129, 29), Rect(19, 79, 39, 99),
            Rect(9, 9, 69, 49), Rect(89, 69, 179, 99)};
}

const double kSceneRatio = (121.0 + 121.0 + 441.0 + 2501.0 + 2821.0) / (200.0 * 120.0);

// A dark frame (40, 30)-(139, 99) with a background-coloured hole
// (46, 36)-(133, 93): two edge rings, one nested in the other.
cv::Mat frameFrame() {
    cv::Mat frame = vyra_test::solidFrame(180, 130, kBackground);
    cv::rectangle(frame, cv::Point(40, 30), cv::Point(139, 99), cv::Scalar(30, 30, 30), cv::FILLED);
    cv::rectangle(frame, cv::Point(46, 36), cv::Point(133, 93), kBackground, cv::FILLED);
    return frame;
}

std::vector<Rect> twoBoxes() { return {Rect(0, 0, 9, 9), Rect(5, 5, 14, 14)}; }

void expectSortedUniqueInside(const std::vector<Rect>& boxes, int width, int height) {
    EXPECT_TRUE(std::is_sorted(boxes.begin(), boxes.end()));
    const std::set<Rect> distinct(boxes.begin(), boxes.end());
    EXPECT_EQ(distinct.size(), boxes.size());
    for (const Rect& r : boxes) {
        EXPECT_GE(r.left, 0);
        EXPECT_GE(r.top, 0);
        EXPECT_LT(r.right, width);
        EXPECT_LT(r.bottom, height);
        EXPECT_EQ(r.width, r.right - r.left + 1);
        EXPECT_EQ(r.height, r.bottom - r.top + 1);
        EXPECT_EQ(r.area, r.width * r.height);
    }
}

// ---- construction ----

TEST(ImageConstruction, DefaultImageIsEmptyWithIndexMinusOne) {
    Image image;
    EXPECT_EQ(image.index(), -1);
    EXPECT_EQ(image.width(), 0);
    EXPECT_EQ(image.height(), 0);
    EXPECT_TRUE(image.Empty());
    EXPECT_FALSE(image.Reduce());
    EXPECT_TRUE(image.img().empty());
}

TEST(ImageConstruction, FromMatrixSharesPixelsAndKnowsItsSize) {
    cv::Mat m = vyra_test::solidFrame(200, 100);
    Image image(m, 7);
    const Image& constView = image;
    EXPECT_EQ(constView.index(), 7);
    EXPECT_EQ(image.width(), 200);
    EXPECT_EQ(image.height(), 100);
    EXPECT_FALSE(image.Empty());
    EXPECT_EQ(image.img().data, m.data);

    // Without a loader the pixels cannot be released.
    EXPECT_FALSE(image.Reduce());
    EXPECT_EQ(image.img().data, m.data);
    EXPECT_EQ(image.width(), 200);

    // One buffer: a change through the matrix is seen by the image.
    m.at<cv::Vec3b>(3, 4) = cv::Vec3b(1, 2, 3);
    EXPECT_EQ(image.img().at<cv::Vec3b>(3, 4), cv::Vec3b(1, 2, 3));
}

TEST(ImageConstruction, FromEmptyMatrixIsEmpty) {
    cv::Mat m;
    Image image(m, 3);
    EXPECT_EQ(image.index(), 3);
    EXPECT_EQ(image.width(), 0);
    EXPECT_EQ(image.height(), 0);
    EXPECT_TRUE(image.Empty());
    EXPECT_FALSE(image.Reduce());
}

TEST(ImageConstruction, GivenObjectsAndRatioAreReturnedWithoutDetecting) {
    // A uniform frame: detection would find nothing.
    cv::Mat m = vyra_test::solidFrame(60, 40);
    std::vector<Rect> given = twoBoxes();
    Image image(m, given, 0.4, 2);
    given.push_back(Rect(1, 1, 2, 2));  // the image keeps its own copy

    EXPECT_EQ(image.index(), 2);
    EXPECT_EQ(image.GetImageObjects(), twoBoxes());
    EXPECT_EQ(image.GetImageObjectsSize(), 2);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.4);
    EXPECT_EQ(image.img().data, m.data);
    EXPECT_EQ(image.width(), 60);
    EXPECT_EQ(image.height(), 40);
}

TEST(ImageConstruction, EmptyGivenListLeavesDetectionToBeDone) {
    cv::Mat m = sceneFrame();
    std::vector<Rect> none;
    Image image(m, none, -1.0, 0);
    EXPECT_EQ(image.GetImageObjects(), sceneExpected());
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), kSceneRatio);
}

TEST(ImageConstruction, GivenZeroRatioCountsAsComputed) {
    cv::Mat m = sceneFrame();
    std::vector<Rect> none;
    Image image(m, none, 0.0, 0);
    EXPECT_EQ(image.GetContentRatio(), 0.0);
    EXPECT_EQ(image.GetImageObjectsSize(), 5);  // detection still runs for the list
}

TEST(ImageConstruction, RatioFromGivenBoxesOverThePixelCount) {
    // Union of the two boxes is 175 pixels; 175 / (100 * 100).
    cv::Mat m = vyra_test::solidFrame(100, 100);
    std::vector<Rect> given = twoBoxes();
    Image image(m, given, -1.0, 0);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.0175);
    EXPECT_EQ(image.GetImageObjectsSize(), 2);
}

TEST(ImageConstruction, LoaderImageStartsUnloadedWithSeededSize) {
    CountingLoader source(vyra_test::solidFrame(200, 100));
    Image image = lazyImage(source, 200, 100, 9);
    EXPECT_EQ(image.index(), 9);
    EXPECT_EQ(image.width(), 200);
    EXPECT_EQ(image.height(), 100);
    EXPECT_FALSE(image.Empty());
    EXPECT_FALSE(image.Reduce());  // nothing loaded yet
    EXPECT_EQ(source.calls(), 0);
}

// ---- lazy loading ----

TEST(ImageLazyLoading, LoadsOnFirstImgAndAgainAfterReduce) {
    CountingLoader source(vyra_test::solidFrame(200, 100));
    Image image = lazyImage(source, 200, 100, 0);

    const cv::Mat& first = image.img();
    EXPECT_EQ(source.calls(), 1);
    EXPECT_EQ(first.cols, 200);
    EXPECT_EQ(first.rows, 100);
    image.img();
    EXPECT_EQ(source.calls(), 1);

    EXPECT_TRUE(image.Reduce());
    EXPECT_FALSE(image.Reduce());
    EXPECT_EQ(source.calls(), 1);
    EXPECT_EQ(image.width(), 200);  // from the cache
    EXPECT_EQ(image.height(), 100);
    EXPECT_FALSE(image.Empty());
    EXPECT_EQ(source.calls(), 1);

    EXPECT_EQ(image.img().cols, 200);
    EXPECT_EQ(source.calls(), 2);
    EXPECT_TRUE(image.Reduce());
}

TEST(ImageLazyLoading, UnknownSizeLoadsOnceAndIsCached) {
    CountingLoader source(vyra_test::solidFrame(64, 48));
    Image image = lazyImage(source, -1, -1, 0);
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_EQ(image.height(), 48);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 48);
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageLazyLoading, EachSideHasItsOwnCache) {
    CountingLoader source(vyra_test::solidFrame(64, 48));
    Image image = lazyImage(source, -1, 48, 0);
    EXPECT_EQ(image.height(), 48);
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageLazyLoading, LoadedImageReportsTheMatrixNotTheSeed) {
    // Seeded 200 x 100, but the loader delivers 64 x 48.
    CountingLoader source(vyra_test::solidFrame(64, 48));
    Image image = lazyImage(source, 200, 100, 0);
    EXPECT_EQ(image.width(), 200);
    image.img();
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 48);
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(image.width(), 64);  // refreshed while loaded
    EXPECT_EQ(image.height(), 48);
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageLazyLoading, ZeroSeedIsKnownAndEmptyWithoutLoading) {
    CountingLoader source(vyra_test::solidFrame(64, 48));
    Image noWidth = lazyImage(source, 0, 48, 0);
    EXPECT_TRUE(noWidth.Empty());
    Image noHeight = lazyImage(source, 64, 0, 1);
    EXPECT_TRUE(noHeight.Empty());
    EXPECT_EQ(noHeight.height(), 0);
    EXPECT_EQ(source.calls(), 0);
}

TEST(ImageLazyLoading, LoaderGivingAnEmptyMatrixMakesAnEmptyLoadedImage) {
    CountingLoader source{cv::Mat()};
    Image image = lazyImage(source, -1, -1, 0);
    EXPECT_TRUE(image.Empty());
    EXPECT_EQ(image.width(), 0);
    EXPECT_EQ(image.height(), 0);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.img().empty());
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.Reduce());  // loaded, with a loader
}

TEST(ImageLazyLoading, ChangesMadeInPlaceAreLostAfterReduce) {
    CountingLoader source(vyra_test::solidFrame(32, 16, cv::Scalar(10, 20, 30)));
    Image image = lazyImage(source, 32, 16, 0);
    image.img().setTo(cv::Scalar(0, 0, 0));
    EXPECT_EQ(image.img().at<cv::Vec3b>(5, 5), cv::Vec3b(0, 0, 0));
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(image.img().at<cv::Vec3b>(5, 5), cv::Vec3b(10, 20, 30));
    EXPECT_EQ(source.calls(), 2);
}

TEST(ImageLazyLoading, LoaderExceptionPassesThroughAndImageStaysUnloaded) {
    CountingLoader source(vyra_test::solidFrame(32, 16), 1);
    Image image = lazyImage(source, 32, 16, 0);
    EXPECT_THROW(image.img(), std::runtime_error);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_FALSE(image.Reduce());  // not loaded
    EXPECT_EQ(image.width(), 32);  // cache still answers
    EXPECT_EQ(source.calls(), 1);

    EXPECT_EQ(image.img().cols, 32);
    EXPECT_EQ(source.calls(), 2);
    EXPECT_TRUE(image.Reduce());
}

TEST(ImageLazyLoading, LoaderExceptionPassesThroughSizeQueries) {
    CountingLoader source(vyra_test::solidFrame(32, 16), 1);
    Image image = lazyImage(source, -1, -1, 0);
    EXPECT_THROW(image.width(), std::runtime_error);
    EXPECT_EQ(image.width(), 32);
    EXPECT_EQ(source.calls(), 2);
}

// ---- size after in-place changes ----

TEST(ImageResize, ResizeThroughImgChangesTheReportedSize) {
    cv::Mat m = vyra_test::solidFrame(200, 100);
    Image image(m, 0);
    cv::resize(image.img(), image.img(), cv::Size(100, 50));
    EXPECT_EQ(image.width(), 100);
    EXPECT_EQ(image.height(), 50);
    EXPECT_FALSE(image.Empty());
    // The resize put new pixels into the image's own matrix; the caller's
    // matrix is unchanged.
    EXPECT_EQ(m.cols, 200);
    EXPECT_EQ(m.rows, 100);
}

TEST(ImageResize, ReducedImageAnswersTheLastSizeItReported) {
    CountingLoader source(vyra_test::solidFrame(200, 100));
    Image image = lazyImage(source, 200, 100, 0);
    cv::resize(image.img(), image.img(), cv::Size(100, 50));
    EXPECT_EQ(image.width(), 100);
    EXPECT_EQ(image.height(), 50);
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(image.width(), 100);
    EXPECT_EQ(image.height(), 50);
    EXPECT_EQ(source.calls(), 1);
    image.img();  // back as the loader makes it
    EXPECT_EQ(image.width(), 200);
    EXPECT_EQ(image.height(), 100);
}

TEST(ImageResize, SizeNotAskedWhileResizedKeepsTheOlderCache) {
    CountingLoader source(vyra_test::solidFrame(200, 100));
    Image image = lazyImage(source, 200, 100, 0);
    cv::resize(image.img(), image.img(), cv::Size(100, 50));
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(image.width(), 200);
    EXPECT_EQ(image.height(), 100);
    EXPECT_EQ(source.calls(), 1);
}

// ---- copy and move ----

TEST(ImageCopy, CopyHasItsOwnEqualObjectListAndSharesPixels) {
    cv::Mat m = sceneFrame();
    Image original(m, 4);
    ASSERT_EQ(original.GetImageObjects(), sceneExpected());
    const double ratio = original.GetContentRatio();

    Image copy(original);
    EXPECT_EQ(copy.index(), 4);
    EXPECT_EQ(copy.img().data, original.img().data);
    EXPECT_EQ(copy.GetImageObjects(), sceneExpected());
    EXPECT_NE(&copy.GetImageObjects(), &original.GetImageObjects());
    EXPECT_EQ(copy.GetContentRatio(), ratio);

    copy.GetImageObjects().push_back(Rect(0, 0, 0, 0));
    EXPECT_EQ(original.GetImageObjects(), sceneExpected());
    original.GetImageObjects().clear();
    EXPECT_EQ(copy.GetImageObjectsSize(), 6);
}

TEST(ImageCopy, CopyCarriesTheCachesWithoutDetectingAgain) {
    cv::Mat m = sceneFrame();
    Image original(m, 4);
    original.GetImageObjects();
    original.GetContentRatio();
    // Blank the shared pixels: a copy that detected again would find nothing.
    m.setTo(kBackground);
    Image copy(original);
    EXPECT_EQ(copy.GetImageObjects(), sceneExpected());
    EXPECT_DOUBLE_EQ(copy.GetContentRatio(), kSceneRatio);
}

TEST(ImageCopy, CopyOfUndetectedImageDetectsOnItsOwn) {
    CountingLoader source(sceneFrame());
    Image original = lazyImage(source, 200, 120, 1);
    Image copy(original);
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(copy.width(), 200);  // caches copied, still unloaded
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(copy.GetImageObjects(), sceneExpected());
    EXPECT_EQ(source.calls(), 1);  // the copy has the loader too
    EXPECT_EQ(original.GetImageObjects(), sceneExpected());
    EXPECT_EQ(source.calls(), 2);  // the original had no list to share
}

TEST(ImageCopy, CopyOfLoadedLazyImageIsLoadedAndCanReduce) {
    CountingLoader source(vyra_test::solidFrame(32, 16));
    Image original = lazyImage(source, 32, 16, 1);
    original.img();
    Image copy(original);
    EXPECT_EQ(copy.img().data, original.img().data);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(copy.Reduce());
    EXPECT_FALSE(original.img().empty());  // the original keeps its pixels
    copy.img();
    EXPECT_EQ(source.calls(), 2);
}

TEST(ImageCopy, CopyAssignmentReplacesEverything) {
    cv::Mat sourcePixels = vyra_test::solidFrame(100, 100);
    std::vector<Rect> given = twoBoxes();
    Image source(sourcePixels, given, -1.0, 5);

    cv::Mat targetPixels = sceneFrame();
    Image target(targetPixels, 1);
    ASSERT_EQ(target.GetImageObjectsSize(), 5);

    target = source;
    EXPECT_EQ(target.index(), 5);
    EXPECT_EQ(target.img().data, sourcePixels.data);
    EXPECT_EQ(target.width(), 100);
    EXPECT_EQ(target.GetImageObjects(), twoBoxes());
    EXPECT_NE(&target.GetImageObjects(), &source.GetImageObjects());
    EXPECT_DOUBLE_EQ(target.GetContentRatio(), 0.0175);

    target.GetImageObjects().clear();
    EXPECT_EQ(source.GetImageObjects(), twoBoxes());
}

TEST(ImageCopy, CopyAssignmentFromUndetectedImageDropsTheTargetsList) {
    CountingLoader source(vyra_test::solidFrame(40, 30));
    Image lazy = lazyImage(source, 40, 30, 2);
    cv::Mat targetPixels = sceneFrame();
    Image target(targetPixels, 1);
    ASSERT_EQ(target.GetImageObjectsSize(), 5);

    target = lazy;
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(target.width(), 40);
    EXPECT_EQ(target.GetImageObjectsSize(), 0);  // detected on the uniform frame
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageMove, MoveHandsOverPixelsListAndLoader) {
    CountingLoader source(sceneFrame());
    Image original = lazyImage(source, 200, 120, 3);
    ASSERT_EQ(original.GetImageObjects(), sceneExpected());
    ASSERT_EQ(source.calls(), 1);
    const cv::Mat pixels = original.img();  // keeps the buffer alive for the comparison

    Image moved(std::move(original));
    EXPECT_EQ(moved.index(), 3);
    EXPECT_EQ(moved.img().data, pixels.data);
    EXPECT_EQ(moved.GetImageObjects(), sceneExpected());
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(moved.Reduce());
    moved.img();
    EXPECT_EQ(source.calls(), 2);
}

TEST(ImageMove, MovedFromImageHasNoPixelsAndNoList) {
    cv::Mat m = sceneFrame();
    Image original(m, 3);
    ASSERT_EQ(original.GetImageObjectsSize(), 5);
    Image moved(std::move(original));
    EXPECT_EQ(moved.img().data, m.data);
    // The source's matrix is empty and its list gone: asking again finds
    // nothing on the empty matrix.
    EXPECT_TRUE(original.img().empty());
    EXPECT_EQ(original.GetImageObjectsSize(), 0);
}

TEST(ImageMove, MoveAssignmentReplacesTheTargetsList) {
    cv::Mat sourcePixels = vyra_test::solidFrame(100, 100);
    std::vector<Rect> given = twoBoxes();
    Image source(sourcePixels, given, -1.0, 6);
    cv::Mat targetPixels = sceneFrame();
    Image target(targetPixels, 1);
    ASSERT_EQ(target.GetImageObjectsSize(), 5);

    target = std::move(source);
    EXPECT_EQ(target.index(), 6);
    EXPECT_EQ(target.img().data, sourcePixels.data);
    EXPECT_EQ(target.GetImageObjects(), twoBoxes());
    EXPECT_DOUBLE_EQ(target.GetContentRatio(), 0.0175);
}

TEST(ImageMove, ImagesKeepTheirCachesThroughVectorGrowth) {
    CountingLoader source(sceneFrame());
    std::vector<Image> images;
    for (int k = 0; k < 20; ++k) {
        images.push_back(lazyImage(source, 200, 120, k));
        if (k == 0) {
            ASSERT_EQ(images[0].GetImageObjectsSize(), 5);
            images[0].Reduce();
        }
    }
    EXPECT_EQ(images[0].GetImageObjects(), sceneExpected());
    EXPECT_EQ(images[19].index(), 19);
    EXPECT_EQ(source.calls(), 1);
}

// ---- DetectObjects ----

TEST(ImageDetectObjects, UniformFrameHasNoObjects) {
    EXPECT_TRUE(Image::DetectObjects(vyra_test::solidFrame(120, 90, cv::Scalar(12, 200, 77))).empty());
}

TEST(ImageDetectObjects, EmptyMatrixHasNoObjects) {
    EXPECT_TRUE(Image::DetectObjects(cv::Mat()).empty());
}

TEST(ImageDetectObjects, SingleFilledRectangleGivesItsEdgeRingBox) {
    cv::Mat frame = vyra_test::solidFrame(200, 120, cv::Scalar(255, 255, 255));
    cv::rectangle(frame, cv::Point(50, 40), cv::Point(129, 89), cv::Scalar(0, 0, 0), cv::FILLED);
    const std::vector<Rect> boxes = Image::DetectObjects(frame);
    // Outer and hole contour of the ring share one box: merged into one.
    ASSERT_EQ(boxes.size(), 1u);
    const Rect& box = boxes.back();
    EXPECT_EQ(box, Rect(49, 39, 129, 89));
    EXPECT_EQ(box.width, 81);
    EXPECT_EQ(box.height, 51);
    EXPECT_EQ(box.area, 81 * 51);
}

TEST(ImageDetectObjects, LargestBoxCoversAFilledRectangleWithinTwoPixels) {
    // Property form, independent of which side of the step Canny picks.
    cv::Mat frame = vyra_test::solidFrame(240, 160, cv::Scalar(30, 60, 90));
    const cv::Rect drawn(70, 45, 101, 63);
    cv::rectangle(frame, drawn, cv::Scalar(220, 180, 140), cv::FILLED);
    const std::vector<Rect> boxes = Image::DetectObjects(frame);
    ASSERT_FALSE(boxes.empty());
    const Rect& largest = boxes.back();
    const int right = drawn.x + drawn.width - 1;
    const int bottom = drawn.y + drawn.height - 1;
    EXPECT_LE(largest.left, drawn.x);
    EXPECT_GE(largest.left, drawn.x - 2);
    EXPECT_LE(largest.top, drawn.y);
    EXPECT_GE(largest.top, drawn.y - 2);
    EXPECT_GE(largest.right, right);
    EXPECT_LE(largest.right, right + 2);
    EXPECT_GE(largest.bottom, bottom);
    EXPECT_LE(largest.bottom, bottom + 2);
}

// A grey step of d levels has an L1 Sobel magnitude of 4d along the sides of a
// rectangle and at most 6d at its corners. Canny seeds edges only above the
// upper threshold 30 and follows them down to the lower threshold 10: d = 5
// (at most 30) leaves no edge, d = 6 seeds the corners (36) and the sides
// (24) follow. With the L2 norm the corners would reach only 3 * sqrt(2) * 6.
cv::Mat lowContrastRectangle(int d) {
    cv::Mat frame = vyra_test::solidFrame(120, 90, cv::Scalar(100, 100, 100));
    cv::rectangle(frame, cv::Point(30, 20), cv::Point(79, 59), cv::Scalar::all(100 + d), cv::FILLED);
    return frame;
}

TEST(ImageDetectObjects, EdgeThresholdsDecideWhichStepsAreObjects) {
    EXPECT_TRUE(Image::DetectObjects(lowContrastRectangle(5)).empty());
    EXPECT_EQ(Image::DetectObjects(lowContrastRectangle(6)),
              (std::vector<Rect>{Rect(29, 19, 79, 59)}));
}

TEST(ImageDetectObjects, SeveralShapesComeSortedByAreaThenLeft) {
    const std::vector<Rect> boxes = Image::DetectObjects(sceneFrame());
    EXPECT_EQ(boxes, sceneExpected());
    expectSortedUniqueInside(boxes, 200, 120);
}

TEST(ImageDetectObjects, InnerBoundariesAreObjectsToo) {
    // A dark frame with a hole has an outer and an inner edge ring.
    const std::vector<Rect> boxes = Image::DetectObjects(frameFrame());
    EXPECT_EQ(boxes, (std::vector<Rect>{Rect(45, 35, 133, 93), Rect(39, 29, 139, 99)}));
}

TEST(ImageDetectObjects, TexturedFrameListIsSortedUniqueAndInsideTheFrame) {
    const cv::Mat frame = vyra_test::texturedFrame(160, 120, 7);
    const std::vector<Rect> boxes = Image::DetectObjects(frame);
    EXPECT_GT(boxes.size(), 10u);
    expectSortedUniqueInside(boxes, 160, 120);
}

TEST(ImageDetectObjects, InputFrameIsNotTouched) {
    const cv::Mat frame = sceneFrame();
    const cv::Mat before = frame.clone();
    Image::DetectObjects(frame);
    EXPECT_EQ(cv::norm(frame, before, cv::NORM_INF), 0.0);
}

TEST(ImageDetectObjects, GreyAndBgraFramesGiveTheSameBoxesAsBgr) {
    const cv::Mat bgr = sceneFrame();
    cv::Mat grey;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::Mat bgra;
    cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
    EXPECT_EQ(Image::DetectObjects(grey), sceneExpected());
    EXPECT_EQ(Image::DetectObjects(bgra), sceneExpected());

    const cv::Mat textured = vyra_test::texturedFrame(160, 120, 3);
    cv::Mat texturedGrey;
    cv::cvtColor(textured, texturedGrey, cv::COLOR_BGR2GRAY);
    EXPECT_EQ(Image::DetectObjects(texturedGrey), Image::DetectObjects(textured));
}

TEST(ImageDetectObjects, OtherPixelTypesGiveNoObjectsAndDoNotThrow) {
    // Each frame has a high-contrast block that a readable frame would show.
    std::vector<cv::Mat> frames;
    for (int type : {CV_16UC3, CV_8UC2, CV_32FC3, CV_16UC1, CV_32FC1}) {
        cv::Mat frame(90, 120, type, cv::Scalar::all(0));
        frame(cv::Rect(30, 20, 40, 30)).setTo(cv::Scalar::all(200));
        frames.push_back(frame);
    }
    for (const cv::Mat& frame : frames) {
        std::vector<Rect> boxes;
        EXPECT_NO_THROW(boxes = Image::DetectObjects(frame)) << frame.type();
        EXPECT_TRUE(boxes.empty()) << frame.type();
    }
}

// ---- object list and content ratio of an Image ----

TEST(ImageObjects, UniformFrameHasSizeZeroAndRatioZero) {
    cv::Mat m = vyra_test::solidFrame(80, 60, cv::Scalar(9, 9, 9));
    Image image(m, 0);
    EXPECT_TRUE(image.GetImageObjects().empty());
    EXPECT_EQ(image.GetImageObjectsSize(), 0);
    EXPECT_EQ(image.GetContentRatio(), 0.0);
}

TEST(ImageObjects, EmptyImagesHaveSizeZeroAndRatioZero) {
    Image defaulted;
    EXPECT_EQ(defaulted.GetImageObjectsSize(), 0);
    EXPECT_EQ(defaulted.GetContentRatio(), 0.0);
    cv::Mat none;
    Image fromEmpty(none, 1);
    EXPECT_EQ(fromEmpty.GetImageObjectsSize(), 0);
    EXPECT_EQ(fromEmpty.GetContentRatio(), 0.0);
}

TEST(ImageObjects, UnreadablePixelTypeHasSizeZeroAndRatioZero) {
    cv::Mat m(60, 80, CV_16UC3, cv::Scalar::all(0));
    m(cv::Rect(10, 10, 30, 30)).setTo(cv::Scalar::all(60000));
    Image image(m, 0);
    EXPECT_EQ(image.GetImageObjectsSize(), 0);
    EXPECT_EQ(image.GetContentRatio(), 0.0);
}

TEST(ImageObjects, SceneRatioIsTheUnionAreaOverThePixelCount) {
    cv::Mat m = sceneFrame();
    Image image(m, 0);
    EXPECT_EQ(image.GetImageObjectsSize(), 5);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), kSceneRatio);
}

TEST(ImageObjects, TexturedRatioMatchesItsOwnBoxes) {
    cv::Mat m = vyra_test::texturedFrame(160, 120, 11);
    Image image(m, 0);
    const double expected =
        static_cast<double>(Rect::CalculateTotalArea(image.GetImageObjects())) / (160.0 * 120.0);
    const double ratio = image.GetContentRatio();
    EXPECT_DOUBLE_EQ(ratio, expected);
    EXPECT_GT(ratio, 0.0);
    EXPECT_LE(ratio, 1.0);
}

TEST(ImageObjects, ListIsDetectedOnceAndKeptThroughReduce) {
    CountingLoader source(sceneFrame());
    Image image = lazyImage(source, 200, 120, 0);
    std::vector<Rect>& first = image.GetImageObjects();
    EXPECT_EQ(first, sceneExpected());
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.Reduce());
    EXPECT_EQ(&image.GetImageObjects(), &first);
    EXPECT_EQ(image.GetImageObjectsSize(), 5);
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageObjects, ListIsNotRecomputedAfterPixelsChangeInPlace) {
    cv::Mat blank = vyra_test::solidFrame(200, 120, kBackground);
    Image blankImage(blank, 0);
    EXPECT_EQ(blankImage.GetImageObjectsSize(), 0);
    sceneFrame().copyTo(blankImage.img());  // same size: written into the shared buffer
    EXPECT_EQ(blankImage.GetImageObjectsSize(), 0);

    cv::Mat busy = sceneFrame();
    Image busyImage(busy, 1);
    EXPECT_EQ(busyImage.GetImageObjects(), sceneExpected());
    busyImage.img().setTo(kBackground);
    EXPECT_EQ(busyImage.GetImageObjects(), sceneExpected());
}

TEST(ImageObjects, RatioIsComputedFromTheKeptListAfterPixelsChange) {
    cv::Mat blank = vyra_test::solidFrame(200, 120, kBackground);
    Image image(blank, 0);
    EXPECT_EQ(image.GetImageObjectsSize(), 0);
    sceneFrame().copyTo(image.img());
    EXPECT_EQ(image.GetContentRatio(), 0.0);  // no boxes kept, whatever the pixels show
}

TEST(ImageObjects, RatioIsKeptAfterResize) {
    cv::Mat m = vyra_test::solidFrame(100, 100);
    std::vector<Rect> given = twoBoxes();
    Image image(m, given, -1.0, 0);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.0175);
    cv::resize(image.img(), image.img(), cv::Size(50, 50));
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.0175);
}

TEST(ImageObjects, GivenBoxesAndRatioNeedNoLoad) {
    CountingLoader source(vyra_test::solidFrame(100, 100));
    Image image = lazyImage(source, 100, 100, 0, twoBoxes(), 0.4);
    EXPECT_EQ(image.GetImageObjects(), twoBoxes());
    EXPECT_EQ(image.GetImageObjectsSize(), 2);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.4);
    EXPECT_EQ(source.calls(), 0);
}

TEST(ImageObjects, GivenZeroRatioNeedsNoLoadButTheListStillDoes) {
    CountingLoader source(sceneFrame());
    Image image = lazyImage(source, 200, 120, 0, {}, 0.0);
    EXPECT_EQ(image.GetContentRatio(), 0.0);
    EXPECT_EQ(source.calls(), 0);
    EXPECT_EQ(image.GetImageObjects(), sceneExpected());
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageObjects, RatioFromGivenBoxesLoadsOnlyForThePixelCount) {
    CountingLoader source(vyra_test::solidFrame(100, 100));
    Image image = lazyImage(source, 100, 100, 0, twoBoxes(), -1.0);
    EXPECT_EQ(image.GetImageObjectsSize(), 2);
    EXPECT_EQ(source.calls(), 0);
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.0175);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.Reduce());
    EXPECT_DOUBLE_EQ(image.GetContentRatio(), 0.0175);
    EXPECT_EQ(source.calls(), 1);
}

TEST(ImageObjects, FailedLoadLeavesAnEmptyListThatIsNotDetectedAgain) {
    CountingLoader source(sceneFrame(), 1);
    Image image = lazyImage(source, 200, 120, 0);
    EXPECT_THROW(image.GetImageObjects(), std::runtime_error);
    EXPECT_EQ(source.calls(), 1);
    EXPECT_TRUE(image.GetImageObjects().empty());
    EXPECT_EQ(image.GetImageObjectsSize(), 0);
    EXPECT_EQ(source.calls(), 1);
    // The pixels themselves load on the next request.
    EXPECT_EQ(image.img().cols, 200);
    EXPECT_EQ(source.calls(), 2);
    EXPECT_EQ(image.GetImageObjectsSize(), 0);
}

}  // namespace
