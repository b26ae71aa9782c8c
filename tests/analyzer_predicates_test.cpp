// Image predicates of vyra::Analyzer: PSNR, overlap and combined similarity,
// blank/non-blank, content level, and the object-position tests.
#include <cmath>
#include <limits>
#include <memory>
#include <ostream>
#include <vector>

#include <gtest/gtest.h>

#include "VyraAnalyzer.h"
#include "analyzer_support.h"
#include "launch_frames.h"

namespace {

using vyra::Analyzer;
using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;
using vyra_test::boxesOnRow;
using vyra_test::craftedImage;
using vyra_test::greyMat;

constexpr double kInf = std::numeric_limits<double>::infinity();

// The driver's thresholds with the PSNR threshold replaced.
Analyzer analyzerWithPsnr(double psnrThreshold) {
    return Analyzer(psnrThreshold, 0.5, 0.85, 0.15, 200);
}

// ---------------------------------------------------------------- PSNR test

TEST(AnalyzerPsnrSimilarity, PsnrEqualToTheThresholdIsSimilarJustBelowIsNot) {
    // Every element differs by exactly 1: mse = 1, PSNR = 10 log10(65025).
    std::vector<cv::Mat> frames{greyMat(32, 24, 100), greyMat(32, 24, 101)};
    const double psnr = 10.0 * std::log10(65025.0 / 1.0);
    ASSERT_NEAR(psnr, 48.1308036, 1e-6);

    ImageSets sets(frames);
    EXPECT_TRUE(analyzerWithPsnr(psnr).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_TRUE(analyzerWithPsnr(psnr).IsImagesSimilarByPSNR(sets, 1, 0));
    EXPECT_FALSE(analyzerWithPsnr(std::nextafter(psnr, kInf)).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_TRUE(analyzerWithPsnr(std::nextafter(psnr, -kInf)).IsImagesSimilarByPSNR(sets, 0, 1));
}

TEST(AnalyzerPsnrSimilarity, IdenticalFramesScore9999) {
    std::vector<cv::Mat> frames{greyMat(32, 24, 7), greyMat(32, 24, 7)};
    ImageSets sets(frames);
    EXPECT_TRUE(analyzerWithPsnr(99.99).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_FALSE(analyzerWithPsnr(std::nextafter(99.99, kInf)).IsImagesSimilarByPSNR(sets, 0, 1));
}

TEST(AnalyzerPsnrSimilarity, FramesOfDifferentSizeAreNeverSimilar) {
    std::vector<cv::Mat> frames{greyMat(32, 24, 7), greyMat(24, 32, 7)};
    ImageSets sets(frames);
    EXPECT_FALSE(analyzerWithPsnr(20.0).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_FALSE(analyzerWithPsnr(0.0).IsImagesSimilarByPSNR(sets, 0, 1));
}

// ------------------------------------------------------------ overlap test

// Image 0: boxes of area 90 and 10 (sum 100); image 1: the same 90 box and an
// unrelated 11x10 box (sum 200). The 10 box has no partner of equal area, the
// 110 box neither, so the shared area is 90 in both directions.
std::vector<Image> overlapPair100And200() {
    cv::Mat a = greyMat(200, 200, 0);
    cv::Mat b = greyMat(200, 200, 255);
    return {craftedImage(a, {Rect(0, 0, 9, 8), Rect(50, 0, 50, 9)}, 0.5, 0),
            craftedImage(b, {Rect(0, 0, 9, 8), Rect(20, 20, 30, 29)}, 0.5, 1)};
}

TEST(AnalyzerOverlapSimilarity, Areas100And200With90SharedDependOnTheRatio) {
    std::vector<Image> images = overlapPair100And200();
    ImageSets sets(images);
    ASSERT_EQ(sets.GetImagesObjectsOverlapArea(0, 1), cv::Vec3i(100, 200, 90));
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    // 90 >= 0.5 * 100 and 100 >= 0.5 * 200 (inclusive).
    EXPECT_TRUE(analyzer.IsImagesSimilarByOverlapArea(sets, 0, 1, 0.5));
    EXPECT_TRUE(analyzer.IsImagesSimilarByOverlapArea(sets, 1, 0, 0.5));
    // 90 >= 85 holds, but 100 < 0.85 * 200 = 170.
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(sets, 0, 1, 0.85));
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(sets, 1, 0, 0.85));
    // The ratio is an argument, not a field: a lower one passes on the same analyzer.
    EXPECT_TRUE(analyzer.IsImagesSimilarByOverlapArea(sets, 0, 1, 0.45));
}

TEST(AnalyzerOverlapSimilarity, SharedAreaBelowRatioTimesSmallerAreaIsNotSimilar) {
    // Areas 100 and 100; only the 10x4 box recurs (40 shared); the 10x6 boxes
    // are far apart.
    cv::Mat a = greyMat(200, 200, 0);
    cv::Mat b = greyMat(200, 200, 255);
    std::vector<Image> images{
        craftedImage(a, {Rect(0, 0, 9, 3), Rect(0, 10, 9, 15)}, 0.5, 0),
        craftedImage(b, {Rect(0, 0, 9, 3), Rect(100, 100, 109, 105)}, 0.5, 1)};
    ImageSets sets(images);
    ASSERT_EQ(sets.GetImagesObjectsOverlapArea(0, 1), cv::Vec3i(100, 100, 40));
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(sets, 0, 1, 0.5));  // 40 < 50
    EXPECT_TRUE(analyzer.IsImagesSimilarByOverlapArea(sets, 0, 1, 0.4));   // 40 >= 40
}

TEST(AnalyzerOverlapSimilarity, ZeroObjectAreaIsNeverSimilar) {
    // Uniform frames have no objects: both areas 0, and 0 >= 0 * 0 must not count.
    std::vector<cv::Mat> frames{greyMat(40, 30, 10), greyMat(40, 30, 10), greyMat(40, 30, 10)};
    ImageSets blanks(frames);
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(blanks, 0, 1, 0.0));
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(blanks, 0, 1, 0.5));

    // One side without objects: the smaller area is 0.
    cv::Mat plain = greyMat(40, 30, 10);
    cv::Mat boxed = greyMat(40, 30, 10);
    std::vector<Image> images{craftedImage(plain, {}, -1.0, 0),
                              craftedImage(boxed, {Rect(0, 0, 9, 9)}, 0.5, 1)};
    ImageSets oneSided(images);
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(oneSided, 0, 1, 0.0));
    EXPECT_FALSE(analyzer.IsImagesSimilarByOverlapArea(oneSided, 1, 0, 0.0));
}

// ---------------------------------------------------------- combined test

TEST(AnalyzerCombinedSimilarity, PsnrAloneSuffices) {
    std::vector<cv::Mat> frames{greyMat(32, 24, 100), greyMat(32, 24, 101)};
    ImageSets sets(frames);
    const double psnr = 10.0 * std::log10(65025.0);
    EXPECT_TRUE(analyzerWithPsnr(psnr).IsImagesSimilar(sets, 0, 1));
    // Uniform frames: no objects and no keypoints, so nothing else can help.
    EXPECT_FALSE(analyzerWithPsnr(std::nextafter(psnr, kInf)).IsImagesSimilar(sets, 0, 1));
}

TEST(AnalyzerCombinedSimilarity, LaterTestsAreNotComputedOnceOneHolds) {
    // Identical uniform frames: PSNR decides. Objects and feature matches are
    // left alone, as shown by drawing on the frames afterwards: detection and
    // matching then see the drawing.
    std::vector<cv::Mat> frames{greyMat(120, 90, 200), greyMat(120, 90, 200)};
    ImageSets sets(frames);
    EXPECT_TRUE(analyzerWithPsnr(20.0).IsImagesSimilar(sets, 0, 1));
    const cv::Mat texture = vyra_test::makeClutteredFrame(120, 90, 21);
    texture.copyTo(sets[0].img());
    texture.copyTo(sets[1].img());
    EXPECT_GT(sets[0].GetImageObjectsSize(), 0);
    EXPECT_FALSE(std::get<0>(sets.GetImagesFeaturesMatchingInfo(0, 1, true)).empty());
}

TEST(AnalyzerCombinedSimilarity, OverlapUsesTheSimilarOverlapRatio) {
    // PSNR of black against white is 0 dB; uniform frames have no keypoints.
    std::vector<Image> images = overlapPair100And200();
    ImageSets sets(images);
    const Analyzer similarHalf(20.0, 0.85, 0.5, 0.15, 200);
    const Analyzer similarStrict(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_TRUE(similarHalf.IsImagesSimilar(sets, 0, 1));
    EXPECT_FALSE(similarStrict.IsImagesSimilar(sets, 0, 1));
}

TEST(AnalyzerCombinedSimilarity, FeatureMatchesDecideWhenPsnrAndOverlapFail) {
    // Different pixels, object boxes on different rows (nothing shared).
    cv::Mat a = greyMat(64, 48, 0);
    cv::Mat b = greyMat(64, 48, 255);
    std::vector<Image> images{craftedImage(a, boxesOnRow(20, 0), 0.5, 0),
                              craftedImage(b, boxesOnRow(20, 5), 0.5, 1)};
    ImageSets sets(images);
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    // 500 and 400 keypoints, 300 cross-checked matches, 210 good: similar.
    vyra_test::injectMatches(sets, 0, 1, true, vyra_test::shiftInfo(500, 400, 210, 300));
    EXPECT_TRUE(analyzer.IsImagesSimilar(sets, 0, 1));
    // The reverse pair is its own cache entry, computed from the uniform frames.
    EXPECT_FALSE(analyzer.IsImagesSimilar(sets, 1, 0));
}

// --------------------------------------------------------- non-blank test

// An image carrying @p count one-pixel boxes and the given content ratio.
Image imageWith(int count, double ratio) {
    return craftedImage(greyMat(400, 10, 128), boxesOnRow(count, 0), ratio, 0);
}

bool nonBlank(const Analyzer& analyzer, Image image) {
    std::vector<Image> images{image};
    ImageSets sets(images);
    return analyzer.IsNonBlankImage(sets, 0);
}

TEST(AnalyzerNonBlank, BothThresholdsAreInclusive) {
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_TRUE(nonBlank(analyzer, imageWith(200, 0.15)));
    EXPECT_TRUE(nonBlank(analyzer, imageWith(350, 0.9)));
}

TEST(AnalyzerNonBlank, OneObjectTooFewIsBlankWhateverTheRatio) {
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_FALSE(nonBlank(analyzer, imageWith(199, 0.15)));
    EXPECT_FALSE(nonBlank(analyzer, imageWith(199, 1.0)));
}

TEST(AnalyzerNonBlank, RatioJustBelowTheThresholdIsBlank) {
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_FALSE(nonBlank(analyzer, imageWith(200, std::nextafter(0.15, 0.0))));
    EXPECT_FALSE(nonBlank(analyzer, imageWith(5000, 0.0)));
}

TEST(AnalyzerNonBlank, DetectedFramesBlankScreenAndLoadedPage) {
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    std::vector<cv::Mat> frames{vyra_test::makeBlankFrame(), vyra_test::makeLoadedFrame()};
    ImageSets sets(frames);
    EXPECT_FALSE(analyzer.IsNonBlankImage(sets, 0));
    EXPECT_TRUE(analyzer.IsNonBlankImage(sets, 1));
}

TEST(AnalyzerNonBlank, RatioIsEvaluatedEvenWhenTheCountFails) {
    // Five handed-over boxes, ratio unknown: the count needs no pixels, the
    // ratio does (it divides by the pixel count), so the loader runs once.
    auto loads = std::make_shared<int>(0);
    std::vector<Rect> boxes = boxesOnRow(5, 0);
    std::vector<Image> images;
    images.emplace_back(
        [loads]() {
            ++*loads;
            return greyMat(40, 30, 50);
        },
        boxes, 40, 30, -1.0, 0);
    ImageSets sets(images);
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    EXPECT_FALSE(analyzer.IsNonBlankImage(sets, 0));
    EXPECT_EQ(*loads, 1);
    EXPECT_DOUBLE_EQ(sets[0].GetContentRatio(), 5.0 / 1200.0);
}

// ----------------------------------------------------------- content level

struct LevelCase {
    int objects;
    double ratio;
    int countThreshold;
    double ratioThreshold;
    int level;
};

// Readable (and stable) test names: n, r, N, Q -> level.
void PrintTo(const LevelCase& c, std::ostream* out) {
    *out << "n" << c.objects << "_r" << c.ratio << "_N" << c.countThreshold << "_Q"
         << c.ratioThreshold << "_level" << c.level;
}

class AnalyzerContentLevel : public ::testing::TestWithParam<LevelCase> {};

TEST_P(AnalyzerContentLevel, SmallerOfCountLevelAndRatioLevel) {
    const LevelCase& c = GetParam();
    const Analyzer analyzer(20.0, 0.5, 0.85, c.ratioThreshold, c.countThreshold);
    Image image = c.objects == 0 ? craftedImage(greyMat(64, 48, 9), {}, c.ratio, 0)
                                 : imageWith(c.objects, c.ratio);
    EXPECT_EQ(analyzer.DetectImageContentLevel(image), c.level);
    // Level 4 exactly when the image is non-blank.
    EXPECT_EQ(nonBlank(analyzer, image), c.level == 4);
}

// Q = 0.15: the ratio levels change at 0.015, 0.075 and 0.15 (products exact).
INSTANTIATE_TEST_SUITE_P(
    CountLevels, AnalyzerContentLevel,
    ::testing::Values(LevelCase{0, 1.0, 200, 0.15, 1},      // no objects at all
                      LevelCase{19, 1.0, 200, 0.15, 1},     // 19 < 20.0
                      LevelCase{20, 1.0, 200, 0.15, 2},     // 20 is not below 20.0
                      LevelCase{99, 1.0, 200, 0.15, 2},     // 99 < 100.0
                      LevelCase{100, 1.0, 200, 0.15, 3},
                      LevelCase{199, 1.0, 200, 0.15, 3},
                      LevelCase{200, 1.0, 200, 0.15, 4},
                      // N = 25: limits 2.5 and 12.5, formed in double.
                      LevelCase{2, 1.0, 25, 0.15, 1}, LevelCase{3, 1.0, 25, 0.15, 2},
                      LevelCase{12, 1.0, 25, 0.15, 2}, LevelCase{13, 1.0, 25, 0.15, 3},
                      LevelCase{24, 1.0, 25, 0.15, 3}, LevelCase{25, 1.0, 25, 0.15, 4}));

INSTANTIATE_TEST_SUITE_P(
    RatioLevels, AnalyzerContentLevel,
    ::testing::Values(LevelCase{250, 0.05, 200, 0.15, 2},   // 0.05 < 0.075
                      LevelCase{250, 0.0, 200, 0.15, 1},
                      LevelCase{250, std::nextafter(0.015, 0.0), 200, 0.15, 1},
                      LevelCase{250, 0.015, 200, 0.15, 2},
                      LevelCase{250, std::nextafter(0.075, 0.0), 200, 0.15, 2},
                      LevelCase{250, 0.075, 200, 0.15, 3},
                      LevelCase{250, std::nextafter(0.15, 0.0), 200, 0.15, 3},
                      LevelCase{250, 0.15, 200, 0.15, 4},
                      // The smaller level wins in both directions.
                      LevelCase{150, 0.01, 200, 0.15, 1},
                      LevelCase{50, 0.1, 200, 0.15, 2}));

// ------------------------------------------------- positions of the objects

const cv::Vec<double, 4> kArea(10.0, 20.0, 110.0, 220.0);

TEST(AnalyzerObjectsInArea, EdgesOfTheAreaAreInside) {
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(10, 20, 110, 220)}, kArea), 1);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(10, 20, 10, 20)}, kArea), 1);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(110, 220, 110, 220)}, kArea), 1);
}

TEST(AnalyzerObjectsInArea, OnePixelBeyondAnyEdgeIsOutside) {
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(9, 20, 50, 50)}, kArea), 0);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(10, 19, 50, 50)}, kArea), 0);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(50, 50, 111, 220)}, kArea), 0);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(50, 50, 110, 221)}, kArea), 0);
}

TEST(AnalyzerObjectsInArea, FractionalEdgesCompareInDouble) {
    const cv::Vec<double, 4> area(10.5, 20.5, 109.5, 219.5);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(10, 30, 50, 50)}, area), 0);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(11, 21, 109, 219)}, area), 1);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(11, 21, 110, 219)}, area), 0);
}

TEST(AnalyzerObjectsInArea, CountsEveryInsideBoxOfAMixedList) {
    const std::vector<Rect> boxes{Rect(10, 20, 110, 220), Rect(0, 0, 5, 5), Rect(50, 60, 70, 80),
                                  Rect(100, 200, 120, 230), Rect(12, 22, 12, 22)};
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea(boxes, kArea), 3);
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({}, kArea), 0);
}

// Ten small boxes, @p inside of them within (0, 0, 100, 100).
std::vector<Rect> tenBoxes(int inside) {
    std::vector<Rect> boxes;
    for (int k = 0; k < 10; ++k) {
        const int x = k < inside ? 5 * k : 200 + 5 * k;
        boxes.emplace_back(x, 10, x + 2, 12);
    }
    return boxes;
}

const cv::Vec<double, 4> kCentre(0.0, 0.0, 100.0, 100.0);

TEST(AnalyzerLogoAndFirstFrame, EightOfTenInsideIsALogoNotAFirstFrame) {
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea(tenBoxes(8), kCentre), 8);
    EXPECT_TRUE(Analyzer::IsLogoImage(tenBoxes(8), kCentre));              // 8 >= 8.0
    EXPECT_FALSE(Analyzer::IsValidFirstFrameImage(tenBoxes(8), kCentre));  // 2 > 3.0 fails
}

TEST(AnalyzerLogoAndFirstFrame, SevenOfTenInsideIsNeither) {
    EXPECT_FALSE(Analyzer::IsLogoImage(tenBoxes(7), kCentre));             // 7 < 8.0
    EXPECT_FALSE(Analyzer::IsValidFirstFrameImage(tenBoxes(7), kCentre));  // 3 > 3.0 fails
}

TEST(AnalyzerLogoAndFirstFrame, SixOfTenInsideIsAFirstFrameNotALogo) {
    EXPECT_FALSE(Analyzer::IsLogoImage(tenBoxes(6), kCentre));
    EXPECT_TRUE(Analyzer::IsValidFirstFrameImage(tenBoxes(6), kCentre));  // 4 > 3.0
}

// @p total small boxes, @p outside of them beyond (0, 0, 100, 100).
std::vector<Rect> boxesWithOutside(int total, int outside) {
    std::vector<Rect> boxes;
    for (int k = 0; k < total; ++k) {
        const int x = k < outside ? 200 + k : k % 90;
        boxes.emplace_back(x, k % 90, x, k % 90);
    }
    return boxes;
}

TEST(AnalyzerLogoAndFirstFrame, FirstFrameNeedsStrictlyMoreThanThirtyPercentOutside) {
    EXPECT_TRUE(Analyzer::IsValidFirstFrameImage(boxesWithOutside(100, 31), kCentre));
    EXPECT_FALSE(Analyzer::IsValidFirstFrameImage(boxesWithOutside(100, 30), kCentre));
}

TEST(AnalyzerLogoAndFirstFrame, LogoNeedsEightyPercentInside) {
    EXPECT_TRUE(Analyzer::IsLogoImage(boxesWithOutside(100, 20), kCentre));
    EXPECT_FALSE(Analyzer::IsLogoImage(boxesWithOutside(100, 21), kCentre));
}

TEST(AnalyzerLogoAndFirstFrame, NoBoxesIsNeither) {
    EXPECT_FALSE(Analyzer::IsLogoImage({}, kCentre));
    EXPECT_FALSE(Analyzer::IsValidFirstFrameImage({}, kCentre));
}

TEST(AnalyzerLogoAndFirstFrame, SingleBoxInsideOrOutside) {
    EXPECT_TRUE(Analyzer::IsLogoImage({Rect(40, 40, 60, 60)}, kCentre));
    EXPECT_FALSE(Analyzer::IsValidFirstFrameImage({Rect(40, 40, 60, 60)}, kCentre));
    EXPECT_FALSE(Analyzer::IsLogoImage({Rect(40, 40, 160, 60)}, kCentre));
    EXPECT_TRUE(Analyzer::IsValidFirstFrameImage({Rect(40, 40, 160, 60)}, kCentre));
}

}  // namespace
