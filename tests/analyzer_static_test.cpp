// Static page analysis of vyra::Analyzer on generated launch sequences whose
// answers are known by construction, plus the baseline search, the alignment
// of frames to the baseline and the release of pixels.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraAnalyzer.h"
#include "analyzer_support.h"
#include "launch_frames.h"

namespace {

using vyra::AnalysisResult;
using vyra::Analyzer;
using vyra::Image;
using vyra::ImageSets;
using vyra_test::boxesOnRow;
using vyra_test::greyMat;
using vyra_test::makeBlankFrame;
using vyra_test::makeClutteredFrame;
using vyra_test::makeHalfLoadedFrame;
using vyra_test::makeLoadedFrame;
using vyra_test::makeLogoFrame;
using vyra_test::referencePsnr;

const Analyzer kDriverAnalyzer(20.0, 0.5, 0.85, 0.15, 200);

size_t objectCount(const cv::Mat& frame) {
    return Image::DetectObjects(frame).size();
}

// Runs the static analysis on @p sets and returns its result; @p output
// receives everything it printed.
AnalysisResult analyzeStatic(ImageSets& sets, bool stable, std::string& output,
                             const Analyzer& analyzer = kDriverAnalyzer) {
    ::testing::internal::CaptureStdout();
    AnalysisResult result = analyzer.AnalyzeStaticPage(sets, stable);
    output = ::testing::internal::GetCapturedStdout();
    return result;
}

AnalysisResult analyzeStatic(std::vector<cv::Mat> frames, bool stable = false) {
    ImageSets sets(frames);
    std::string output;
    AnalysisResult result = analyzeStatic(sets, stable, output);
    EXPECT_EQ(output, "");
    return result;
}

void expectIndices(const AnalysisResult& r, int baseline, int loadFinished, int logoAppear,
                   int logoDisappear, int firstFrame) {
    EXPECT_EQ(r.pageType, 0);
    EXPECT_EQ(r.staticResult.baselineIndex, baseline);
    EXPECT_EQ(r.loadFinishedIndex, loadFinished);
    EXPECT_EQ(r.staticResult.logoAppearIndex, logoAppear);
    EXPECT_EQ(r.staticResult.logoDisappearIndex, logoDisappear);
    EXPECT_EQ(r.staticResult.firstFrameIndex, firstFrame);
    // The dynamic part keeps its defaults.
    EXPECT_EQ(r.dynamicResult.motionStartIndex, -1);
    EXPECT_EQ(r.dynamicResult.firstNonBlankObjectCount, 0u);
    EXPECT_TRUE(r.dynamicResult.featureMatchingResults.empty());
}

// ------------------------------------------------------- whole sequences

TEST(AnalyzerStaticPage, TenFrameLaunchSequence) {
    std::vector<cv::Mat> frames = vyra_test::makeTenFrameLaunch();
    // The skeleton is blank by count and far from the loaded page by PSNR, so
    // the load-finished search cannot stop before frame 4.
    ASSERT_LT(objectCount(frames[3]), 200u);
    ASSERT_LT(referencePsnr(frames[3], frames[9]), 20.0);

    const AnalysisResult r = analyzeStatic(frames);
    EXPECT_EQ(r.imageCount, 10u);
    // Logo run 1-2 inside 0..4; the skeleton (frame 3) spreads its objects.
    expectIndices(r, 9, 4, 1, 3, 3);
    const std::vector<size_t> counts{0,
                                     objectCount(frames[1]),
                                     objectCount(frames[2]),
                                     objectCount(frames[3]),
                                     objectCount(frames[4]),
                                     0,
                                     0,
                                     0,
                                     0,
                                     objectCount(frames[9])};
    EXPECT_EQ(r.staticResult.objectCounts, counts);
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);  // frames 4 and 9 are pixel-identical
    EXPECT_DOUBLE_EQ(r.staticResult.preLoadedPsnr, referencePsnr(frames[3], frames[9]));
}

TEST(AnalyzerStaticPage, TrailingEmptyFramesLeaveTheLastNonEmptyAsBaseline) {
    std::vector<cv::Mat> frames{makeBlankFrame(), makeLogoFrame(), makeHalfLoadedFrame(),
                                makeLoadedFrame(), makeLoadedFrame(), cv::Mat(), cv::Mat()};
    const AnalysisResult r = analyzeStatic(frames);  // the empty frames draw no warning
    EXPECT_EQ(r.imageCount, 7u);
    expectIndices(r, 4, 3, 1, 2, 2);
    const std::vector<size_t> counts{0, objectCount(frames[1]), objectCount(frames[2]),
                                     objectCount(frames[3]), objectCount(frames[4]), 0, 0};
    EXPECT_EQ(r.staticResult.objectCounts, counts);
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_DOUBLE_EQ(r.staticResult.preLoadedPsnr, referencePsnr(frames[2], frames[4]));
}

TEST(AnalyzerStaticPage, NonBlankButDissimilarFrameIsPassedOver) {
    std::vector<cv::Mat> frames{makeClutteredFrame(320, 180, 3), makeLoadedFrame(),
                                makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    // The clutter is non-blank with objects all over the screen: a first frame.
    expectIndices(r, 2, 1, -1, -1, 0);
    const std::vector<size_t> counts{objectCount(frames[0]), objectCount(frames[1]),
                                     objectCount(frames[2])};
    EXPECT_EQ(r.staticResult.objectCounts, counts);
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_DOUBLE_EQ(r.staticResult.preLoadedPsnr, referencePsnr(frames[0], frames[2]));
}

TEST(AnalyzerStaticPage, NothingSimilarBeforeTheBaselineMakesItTheLoadFinishedImage) {
    std::vector<cv::Mat> frames{makeBlankFrame(), makeHalfLoadedFrame(),
                                makeClutteredFrame(320, 180, 3), makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    expectIndices(r, 3, 3, -1, -1, 1);
    const std::vector<size_t> counts{0, objectCount(frames[1]), objectCount(frames[2]),
                                     objectCount(frames[3])};
    EXPECT_EQ(r.staticResult.objectCounts, counts);
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);  // the baseline with itself
    EXPECT_DOUBLE_EQ(r.staticResult.preLoadedPsnr, referencePsnr(frames[2], frames[3]));
}

TEST(AnalyzerStaticPage, LoadFinishedAtImageZeroHasNoPreLoadedPsnr) {
    std::vector<cv::Mat> frames{makeLoadedFrame(), makeLoadedFrame(), makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    expectIndices(r, 2, 0, -1, -1, 0);
    const size_t loaded = objectCount(frames[0]);
    EXPECT_EQ(r.staticResult.objectCounts, (std::vector<size_t>{loaded, 0, loaded}));
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, SingleLoadedImageIsBaselineAndLoadFinished) {
    std::vector<cv::Mat> frames{makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    EXPECT_EQ(r.imageCount, 1u);
    expectIndices(r, 0, 0, -1, -1, 0);
    EXPECT_EQ(r.staticResult.objectCounts, std::vector<size_t>{objectCount(frames[0])});
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, BaselineZeroFollowedByEmptyFrames) {
    std::vector<cv::Mat> frames{makeLoadedFrame(), cv::Mat(), cv::Mat()};
    const AnalysisResult r = analyzeStatic(frames);
    EXPECT_EQ(r.imageCount, 3u);
    expectIndices(r, 0, 0, -1, -1, 0);
    EXPECT_EQ(r.staticResult.objectCounts,
              (std::vector<size_t>{objectCount(frames[0]), 0, 0}));
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, SingleBlankImageHasNoLoadFinishedImage) {
    const AnalysisResult r = analyzeStatic({makeBlankFrame()});
    expectIndices(r, 0, -1, -1, -1, -1);
    EXPECT_EQ(r.staticResult.objectCounts, std::vector<size_t>{0});
    EXPECT_EQ(r.staticResult.loadedPsnr, -1.0);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, BlankBaselineSkipsTheLoadFinishedSearch) {
    // 0 blank, 1 logo, 2 skeleton, 3 logo (baseline, blank by count).
    std::vector<cv::Mat> frames{makeBlankFrame(), makeLogoFrame(), makeHalfLoadedFrame(),
                                makeLogoFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    // The logo search runs up to the baseline; the first-frame search starts at 2.
    expectIndices(r, 3, -1, 1, 2, 2);
    // Only the baseline's entry is filled: no image was examined.
    EXPECT_EQ(r.staticResult.objectCounts,
              (std::vector<size_t>{0, 0, 0, objectCount(frames[3])}));
    EXPECT_EQ(r.staticResult.loadedPsnr, -1.0);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, LogoRunReachingTheLimitLeavesDisappearUnsetAndSearchesFromZero) {
    // 0 skeleton (a valid first frame), 1-2 logo; the blank baseline 2 is the limit.
    std::vector<cv::Mat> frames{makeHalfLoadedFrame(), makeLogoFrame(), makeLogoFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    expectIndices(r, 2, -1, 1, -1, 0);
}

TEST(AnalyzerStaticPage, LogoSearchEndsAtLoadFinishedImageZero) {
    // lf = 0 limits the logo search to image 0 (not a logo); the logo at 1 lies
    // beyond the limit, and the first-frame search starts at 0.
    std::vector<cv::Mat> frames{makeLoadedFrame(), makeLogoFrame(), makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    expectIndices(r, 2, 0, -1, -1, 0);
}

TEST(AnalyzerStaticPage, LogoSearchIncludesTheLoadFinishedImage) {
    // 0 blank, 1 logo, 2-3 loaded: lf = 2 is the limit and is examined.
    std::vector<cv::Mat> frames{makeBlankFrame(), makeLogoFrame(), makeLoadedFrame(),
                                makeLoadedFrame()};
    const AnalysisResult r = analyzeStatic(frames);
    expectIndices(r, 3, 2, 1, 2, 2);
}

// (logoAppearIndex, firstFrameIndex) of the analysis of a 200x100 image
// carrying only @p box, followed by a blank baseline of the same size. A box
// inside the central area (40, 25, 160, 75) makes image 0 a logo image, so the
// first-frame search starts at the blank baseline and finds nothing: (0, -1).
// A box outside it makes image 0 a valid first frame: (-1, 0).
std::pair<int, int> centralAreaVerdict(const vyra::Rect& box) {
    std::vector<Image> images{vyra_test::craftedImage(greyMat(200, 100, 90), {box}, 0.5, 0),
                              vyra_test::craftedImage(greyMat(200, 100, 90), {}, -1.0, 1)};
    ImageSets sets(images);
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, false, output);
    EXPECT_EQ(r.staticResult.baselineIndex, 1);
    return {r.staticResult.logoAppearIndex, r.staticResult.firstFrameIndex};
}

TEST(AnalyzerStaticPage, CentralAreaIsTwentyToEightyPercentWideAndQuarterToThreeQuartersHigh) {
    const std::pair<int, int> inside(0, -1);
    const std::pair<int, int> outside(-1, 0);
    EXPECT_EQ(centralAreaVerdict(vyra::Rect(40, 25, 160, 75)), inside);
    EXPECT_EQ(centralAreaVerdict(vyra::Rect(39, 25, 160, 75)), outside);
    EXPECT_EQ(centralAreaVerdict(vyra::Rect(40, 24, 160, 75)), outside);
    EXPECT_EQ(centralAreaVerdict(vyra::Rect(40, 25, 161, 75)), outside);
    EXPECT_EQ(centralAreaVerdict(vyra::Rect(40, 25, 160, 76)), outside);
}

TEST(AnalyzerStaticPage, EmptyAndAllEmptySets) {
    std::vector<cv::Mat> none;
    AnalysisResult r = analyzeStatic(none);
    vyra_test::expectDefaultsBeyond(r, 0, 0);

    r = analyzeStatic({cv::Mat(), cv::Mat(), cv::Mat()});
    vyra_test::expectDefaultsBeyond(r, 0, 3);  // objectCounts stays empty
}

// --------------------------------------------------- alignment to baseline

cv::Mat rotated(const cv::Mat& frame, int code) {
    cv::Mat out;
    cv::rotate(frame, out, code);
    return out;
}

cv::Mat resized(const cv::Mat& frame, cv::Size size) {
    cv::Mat out;
    cv::resize(frame, out, size, 0, 0, cv::INTER_LINEAR);
    return out;
}

void expectPixels(Image& image, const cv::Mat& expected) {
    ASSERT_EQ(image.width(), expected.cols);
    ASSERT_EQ(image.height(), expected.rows);
    ASSERT_EQ(image.img().type(), expected.type());
    EXPECT_EQ(cv::norm(image.img(), expected, cv::NORM_INF), 0.0);
}

std::string warning(int index, int w, int h, int baseline, int bw, int bh) {
    return "Vyra[Warning]: image<" + std::to_string(index) + "> size(" + std::to_string(w) +
           ", " + std::to_string(h) + ") not equal to baseline[" + std::to_string(baseline) +
           "] size(" + std::to_string(bw) + ", " + std::to_string(bh) + ")\n";
}

std::string alignAndCapture(ImageSets& sets, int baseline) {
    ::testing::internal::CaptureStdout();
    Analyzer::CheckAndResizeImages(sets, baseline);
    return ::testing::internal::GetCapturedStdout();
}

TEST(AnalyzerAlignment, PortraitFrameAmongLandscapeFramesIsTurnedBackDuringAnalysis) {
    const cv::Mat page = makeClutteredFrame(320, 180, 5);
    std::vector<cv::Mat> frames{makeLoadedFrame(), rotated(page, cv::ROTATE_90_CLOCKWISE),
                                makeLoadedFrame()};
    ImageSets sets(frames);
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, false, output);
    EXPECT_EQ(output, "Vyra[Warning]: image<1> size(180, 320) not equal to baseline[2] "
                      "size(320, 180)\n");
    EXPECT_EQ(r.staticResult.baselineIndex, 2);
    // Counter-clockwise undoes the clockwise turn exactly: no resize needed.
    expectPixels(sets[1], page);
    // The caller's matrix is not replaced.
    EXPECT_EQ(frames[1].cols, 180);
    EXPECT_EQ(frames[1].rows, 320);
}

TEST(AnalyzerAlignment, LandscapeFrameAmongPortraitFramesIsTurnedClockwise) {
    const cv::Mat page = makeClutteredFrame(180, 320, 6);
    std::vector<cv::Mat> frames{rotated(page, cv::ROTATE_90_COUNTERCLOCKWISE),
                                makeLoadedFrame(180, 320)};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 1), warning(0, 320, 180, 1, 180, 320));
    expectPixels(sets[0], page);
}

TEST(AnalyzerAlignment, FramesStillDifferingAfterTurningAreResizedLinearly) {
    const cv::Mat smallPortrait = makeClutteredFrame(90, 160, 7);
    const cv::Mat smallLandscape = makeClutteredFrame(160, 90, 8);
    const cv::Mat square = makeClutteredFrame(100, 100, 9);
    const cv::Size target(320, 180);
    // Expected pixels, from the untouched inputs (the set gets copies).
    const cv::Mat expected0 = resized(rotated(smallPortrait, cv::ROTATE_90_COUNTERCLOCKWISE), target);
    const cv::Mat expected1 = resized(smallLandscape, target);
    const cv::Mat expected2 = resized(rotated(square, cv::ROTATE_90_COUNTERCLOCKWISE), target);

    std::vector<cv::Mat> frames{smallPortrait.clone(), smallLandscape.clone(), square.clone(),
                                makeLoadedFrame()};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 3), warning(0, 90, 160, 3, 320, 180) +
                                            warning(1, 160, 90, 3, 320, 180) +
                                            warning(2, 100, 100, 3, 320, 180));
    expectPixels(sets[0], expected0);
    expectPixels(sets[1], expected1);
    expectPixels(sets[2], expected2);  // a square frame counts as portrait
}

TEST(AnalyzerAlignment, FramesDifferingInOneDimensionAreResized) {
    const cv::Mat lower = makeClutteredFrame(320, 90, 18);
    const cv::Mat narrower = makeClutteredFrame(200, 180, 19);
    const cv::Size target(320, 180);
    const cv::Mat expected0 = resized(lower, target);
    const cv::Mat expected1 = resized(narrower, target);
    std::vector<cv::Mat> frames{lower.clone(), narrower.clone(), makeLoadedFrame()};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 2),
              warning(0, 320, 90, 2, 320, 180) + warning(1, 200, 180, 2, 320, 180));
    expectPixels(sets[0], expected0);
    expectPixels(sets[1], expected1);
}

TEST(AnalyzerAlignment, BaselineZeroAlignsTheImagesAfterIt) {
    const cv::Mat page = makeClutteredFrame(320, 180, 20);
    std::vector<cv::Mat> frames{makeLoadedFrame(), rotated(page, cv::ROTATE_90_CLOCKWISE),
                                makeClutteredFrame(180, 320, 21)};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 0), warning(1, 180, 320, 0, 320, 180));
    expectPixels(sets[1], page);
    EXPECT_EQ(sets[2].width(), 180);  // the last image is not examined
}

TEST(AnalyzerAlignment, SquareBaselineCountsAsPortrait) {
    const cv::Mat landscape = makeClutteredFrame(200, 100, 10);
    const cv::Mat portrait = makeClutteredFrame(100, 200, 11);
    const cv::Mat smallSquare = makeClutteredFrame(60, 60, 12);
    const cv::Size target(120, 120);
    const cv::Mat expected0 = resized(rotated(landscape, cv::ROTATE_90_CLOCKWISE), target);
    const cv::Mat expected1 = resized(portrait, target);
    const cv::Mat expected2 = resized(smallSquare, target);

    std::vector<cv::Mat> frames{landscape.clone(), portrait.clone(), smallSquare.clone(),
                                makeClutteredFrame(120, 120, 13)};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 3), warning(0, 200, 100, 3, 120, 120) +
                                            warning(1, 100, 200, 3, 120, 120) +
                                            warning(2, 60, 60, 3, 120, 120));
    expectPixels(sets[0], expected0);
    expectPixels(sets[1], expected1);
    expectPixels(sets[2], expected2);
}

TEST(AnalyzerAlignment, LastImageAndEmptyImagesAreNotExamined) {
    const cv::Mat portrait = makeClutteredFrame(180, 320, 14);
    const cv::Mat lastPortrait = makeClutteredFrame(180, 320, 15);
    std::vector<cv::Mat> frames{portrait.clone(), cv::Mat(), makeLoadedFrame(), lastPortrait};
    ImageSets sets(frames);
    EXPECT_EQ(alignAndCapture(sets, 2), warning(0, 180, 320, 2, 320, 180));
    EXPECT_EQ(sets[0].width(), 320);
    EXPECT_TRUE(sets[1].Empty());
    expectPixels(sets[3], lastPortrait);
    EXPECT_EQ(sets[3].img().data, lastPortrait.data);  // the very same buffer
}

TEST(AnalyzerAlignment, LastFrameOfAnotherSizeIsTheBaselineThatOthersFollow) {
    std::vector<cv::Mat> frames{makeLoadedFrame(), makeLoadedFrame(), makeLoadedFrame(),
                                makeLoadedFrame(160, 90)};
    ImageSets sets(frames);
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, false, output);
    EXPECT_EQ(r.staticResult.baselineIndex, 3);
    EXPECT_EQ(output, warning(0, 320, 180, 3, 160, 90) + warning(1, 320, 180, 3, 160, 90) +
                          warning(2, 320, 180, 3, 160, 90));
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(sets[k].width(), 160) << k;
        EXPECT_EQ(sets[k].height(), 90) << k;
    }
}

TEST(AnalyzerAlignment, NothingHappensForTinySetsOrABaselineOutOfRange) {
    const cv::Mat portrait = makeClutteredFrame(90, 160, 16);
    std::vector<cv::Mat> one{portrait};
    ImageSets single(one);
    EXPECT_EQ(alignAndCapture(single, 0), "");
    EXPECT_EQ(single[0].width(), 90);

    std::vector<cv::Mat> two{portrait, makeClutteredFrame(160, 90, 17)};
    ImageSets pair(two);
    EXPECT_EQ(alignAndCapture(pair, 2), "");
    EXPECT_EQ(alignAndCapture(pair, -1), "");
    EXPECT_EQ(pair[0].width(), 90);
    EXPECT_EQ(pair[0].height(), 160);
    EXPECT_EQ(pair[1].width(), 160);
}

// ------------------------------------------------------- baseline search

TEST(AnalyzerBaseline, LastNonEmptyImageWithoutTheStableSearch) {
    std::vector<cv::Mat> frames{makeLoadedFrame(), makeLoadedFrame(), makeBlankFrame(),
                                cv::Mat()};
    ImageSets sets(frames);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(sets, false), 2);
}

TEST(AnalyzerBaseline, LastNonEmptySearchReadsSizesOnly) {
    // Loader images with known sizes: the search needs no pixels.
    vyra_test::CountingImages counting =
        vyra_test::countingImages({makeLoadedFrame(), makeLogoFrame(), cv::Mat()});
    ImageSets sets(counting.images);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(sets, false), 1);
    EXPECT_EQ(*counting.loads, (std::vector<int>{0, 0, 0}));
}

TEST(AnalyzerBaseline, NoNonEmptyImageGivesMinusOne) {
    std::vector<cv::Mat> empties{cv::Mat(), cv::Mat()};
    ImageSets sets(empties);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(sets, false), -1);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(sets, true), -1);
    std::vector<cv::Mat> none;
    ImageSets empty(none);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(empty, false), -1);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(empty, true), -1);
}

TEST(AnalyzerBaseline, StableSearchOnASingleImageOrWithoutNonBlankImages) {
    std::vector<cv::Mat> one{makeLoadedFrame(), cv::Mat()};
    ImageSets single(one);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(single, true), 0);

    std::vector<cv::Mat> frames{makeBlankFrame(), makeLogoFrame(), makeLoadedFrame()};
    ImageSets noneBefore(frames);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(noneBefore, true), 2);
}

// Uniform frames (no keypoints, so feature matching never helps) with handed
// over objects: images of one group share their grey value (PSNR 99.99) and
// their boxes; each group has its boxes on its own row, so groups share nothing.
// @p objects[k] boxes, ratio 0.2, grey greys[k], boxes on row 2 * group[k].
std::vector<Image> walkImages(const std::vector<int>& greys, const std::vector<int>& group,
                              const std::vector<int>& objects) {
    std::vector<cv::Mat> mats;
    std::vector<std::vector<vyra::Rect>> boxes;
    for (size_t k = 0; k < greys.size(); ++k) {
        mats.push_back(greyMat(48, 32, greys[k]));
        boxes.push_back(boxesOnRow(objects[k], 2 * group[k]));
    }
    return vyra_test::craftedImages(mats, boxes, std::vector<double>(greys.size(), 0.2));
}

int stableBaseline(std::vector<Image> images, const Analyzer& analyzer = kDriverAnalyzer) {
    ImageSets sets(images);
    return analyzer.FindBaselineImage(sets, true);
}

TEST(AnalyzerBaseline, StableRunEndsAtANonBlankImage) {
    // 0 blank, 1-3 alike, 4 different, 5-9 alike.
    const std::vector<int> greys{100, 100, 100, 100, 180, 20, 20, 20, 20, 20};
    const std::vector<int> group{0, 1, 1, 1, 2, 3, 3, 3, 3, 3};
    std::vector<int> objects{199, 200, 200, 200, 200, 200, 200, 200, 200, 200};
    EXPECT_EQ(stableBaseline(walkImages(greys, group, objects)), 3);
    // Without the stable search the last image is taken.
    std::vector<Image> images = walkImages(greys, group, objects);
    ImageSets sets(images);
    EXPECT_EQ(kDriverAnalyzer.FindBaselineImage(sets, false), 9);
}

TEST(AnalyzerBaseline, StableRunEndingInABlankImageIsPassedOver) {
    const std::vector<int> greys{100, 100, 100, 100, 180, 20, 20, 20, 20, 20};
    const std::vector<int> group{0, 1, 1, 1, 2, 3, 3, 3, 3, 3};
    const std::vector<int> objects{199, 200, 200, 199, 200, 200, 200, 200, 200, 200};
    EXPECT_EQ(stableBaseline(walkImages(greys, group, objects)), 9);
}

TEST(AnalyzerBaseline, BlankCandidateIsKeptWhenNoLaterPairIsSimilar) {
    // (0, 1) alike, 1 blank; (1, 2) and (2, 3) differ.
    const std::vector<int> greys{100, 100, 180, 20};
    const std::vector<int> group{0, 0, 1, 2};
    const std::vector<int> objects{200, 199, 200, 200};
    EXPECT_EQ(stableBaseline(walkImages(greys, group, objects)), 1);
}

TEST(AnalyzerBaseline, StableWalkStartsAtTheFirstNonBlankImage) {
    // Image 0 (blank) looks like image 1; a walk from 0 would stop at 1.
    const std::vector<int> greys{100, 100, 180, 20, 20, 20};
    const std::vector<int> group{0, 0, 1, 2, 2, 2};
    const std::vector<int> objects{199, 200, 200, 200, 200, 200};
    EXPECT_EQ(stableBaseline(walkImages(greys, group, objects)), 5);
}

TEST(AnalyzerBaseline, NoSimilarPairLeavesTheLastImage) {
    const std::vector<int> greys{0, 80, 160, 240};
    const std::vector<int> group{0, 1, 2, 3};
    const std::vector<int> objects{200, 200, 200, 200};
    EXPECT_EQ(stableBaseline(walkImages(greys, group, objects)), 3);
}

TEST(AnalyzerBaseline, StableWalkUsesTheBaselineOverlapRatio) {
    // (0, 1) share 90 of areas 100 and 200: similar at ratio 0.5, not at 0.85.
    // Image 2 shares nothing. Two boxes make an image non-blank here.
    cv::Mat black = greyMat(200, 200, 0);
    cv::Mat white = greyMat(200, 200, 255);
    cv::Mat grey = greyMat(200, 200, 128);
    std::vector<Image> images{
        vyra_test::craftedImage(black, {vyra::Rect(0, 0, 9, 8), vyra::Rect(50, 0, 50, 9)}, 0.5, 0),
        vyra_test::craftedImage(white, {vyra::Rect(0, 0, 9, 8), vyra::Rect(20, 20, 30, 29)}, 0.5,
                                1),
        vyra_test::craftedImage(grey, boxesOnRow(2, 50), 0.5, 2)};
    EXPECT_EQ(stableBaseline(images, Analyzer(20.0, 0.5, 0.85, 0.0, 2)), 1);
    EXPECT_EQ(stableBaseline(images, Analyzer(20.0, 0.85, 0.5, 0.0, 2)), 2);
}

// Four uniform frames of different grey, one private box each (non-blank with
// a one-object threshold); the pairs (0, 1) and (1, 2) get hand-made matches.
int continuousWalkBaseline(FeaturesMatchingInfo first, FeaturesMatchingInfo second) {
    std::vector<Image> images = walkImages({0, 80, 160, 240}, {0, 1, 2, 3}, {1, 1, 1, 1});
    ImageSets sets(images);
    vyra_test::injectMatches(sets, 0, 1, true, std::move(first));
    vyra_test::injectMatches(sets, 1, 2, true, std::move(second));
    return Analyzer(20.0, 0.5, 0.85, 0.0, 1).FindBaselineImage(sets, true);
}

TEST(AnalyzerBaseline, StableWalkComparesEachPairWithThePreviousOne) {
    // (0, 1) alone: similar. (1, 2) after (0, 1): 79 < 0.8 * 100, not similar,
    // so the run ends at 1.
    EXPECT_EQ(continuousWalkBaseline(vyra_test::shiftInfo(300, 300, 100, 200),
                                     vyra_test::shiftInfo(300, 300, 79, 250)),
              1);
    // 80 of 160 keeps up with (0, 1); (2, 3) has no keypoints: the run ends at 2.
    EXPECT_EQ(continuousWalkBaseline(vyra_test::shiftInfo(300, 300, 100, 200),
                                     vyra_test::shiftInfo(300, 300, 80, 160)),
              2);
}

TEST(AnalyzerStaticPage, StableBaselineFeedsTheWholeAnalysis) {
    // Walk: (0, 1) identical, (1, 2) differ -> baseline 1.
    std::vector<Image> images = walkImages({100, 100, 180, 20}, {0, 0, 1, 2}, {200, 200, 200, 200});
    ImageSets sets(images);
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, true, output);
    EXPECT_EQ(output, "");
    EXPECT_EQ(r.imageCount, 4u);
    // 200 one-pixel boxes on row 0 of a 48-wide frame: most lie outside the
    // central area, so image 0 is a valid first frame.
    expectIndices(r, 1, 0, -1, -1, 0);
    EXPECT_EQ(r.staticResult.objectCounts, (std::vector<size_t>{200, 200, 0, 0}));
    EXPECT_EQ(r.staticResult.loadedPsnr, 99.99);
    EXPECT_EQ(r.staticResult.preLoadedPsnr, -1.0);
}

TEST(AnalyzerStaticPage, FirstFrameSearchRunsPastTheBaseline) {
    // 100x100 uniform frames, one box each (central area 20..80 x 25..75);
    // one box makes an image non-blank here. 0 and 1 are identical with a
    // centred box (logo images); 2 has another centred box, 3 a box in the
    // corner. Stable search: (0, 1) alike, (1, 2) not -> baseline 1, lf 0.
    std::vector<Image> images{
        vyra_test::craftedImage(greyMat(100, 100, 100), {vyra::Rect(40, 40, 50, 50)}, 0.5, 0),
        vyra_test::craftedImage(greyMat(100, 100, 100), {vyra::Rect(40, 40, 50, 50)}, 0.5, 1),
        vyra_test::craftedImage(greyMat(100, 100, 180), {vyra::Rect(30, 30, 35, 35)}, 0.5, 2),
        vyra_test::craftedImage(greyMat(100, 100, 20), {vyra::Rect(0, 0, 5, 5)}, 0.5, 3)};
    ImageSets sets(images);
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, true, output, Analyzer(20.0, 0.5, 0.85, 0.0, 1));
    // The logo run reaches the limit 0; the first valid first frame is 3.
    expectIndices(r, 1, 0, 0, -1, 3);
    EXPECT_EQ(r.staticResult.objectCounts, (std::vector<size_t>{1, 1, 0, 0}));
}

// ------------------------------------------------------ release of pixels

std::vector<cv::Mat> smallFrames(int count) {
    std::vector<cv::Mat> frames;
    for (int k = 0; k < count; ++k) {
        frames.push_back(greyMat(16, 12, 10 * k));
    }
    return frames;
}

// Loads every image of @p sets once more and returns the loader counts.
std::vector<int> reloadAll(ImageSets& sets, const vyra_test::CountingImages& counting) {
    for (int k = 0; k < sets.size(); ++k) {
        sets[k].img();
    }
    return *counting.loads;
}

// Loader counts after: load everything, ReduceUselessImages(from, to), load
// everything again.
std::vector<int> loadsAfterReduce(int from, int to) {
    vyra_test::CountingImages counting = vyra_test::countingImages(smallFrames(5));
    ImageSets sets(counting.images);
    reloadAll(sets, counting);
    Analyzer::ReduceUselessImages(sets, from, to);
    return reloadAll(sets, counting);
}

TEST(AnalyzerReduce, ReleasesExactlyTheInclusiveRange) {
    EXPECT_EQ(loadsAfterReduce(1, 3), (std::vector<int>{1, 2, 2, 2, 1}));
    EXPECT_EQ(loadsAfterReduce(2, 2), (std::vector<int>{1, 1, 2, 1, 1}));
    EXPECT_EQ(loadsAfterReduce(0, 4), (std::vector<int>{2, 2, 2, 2, 2}));
}

TEST(AnalyzerReduce, EmptyRangeDoesNothing) {
    EXPECT_EQ(loadsAfterReduce(3, 1), (std::vector<int>{1, 1, 1, 1, 1}));
}

TEST(AnalyzerReduce, IndicesBeyondTheSetAreSkipped) {
    EXPECT_EQ(loadsAfterReduce(3, 40), (std::vector<int>{1, 1, 1, 2, 2}));
    EXPECT_EQ(loadsAfterReduce(5, 9), (std::vector<int>{1, 1, 1, 1, 1}));
}

TEST(AnalyzerReduce, FramesOfTheRunKeepTheirPixels) {
    // Images made from matrices have no loader: nothing is released.
    std::vector<cv::Mat> frames = smallFrames(3);
    ImageSets sets(frames);
    Analyzer::ReduceUselessImages(sets, 0, 2);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(sets[k].img().data, frames[k].data);
    }
}

TEST(AnalyzerStaticPage, ImagesAfterTheBaselineGiveUpTheirPixels) {
    // Stable search: (0, 1) identical loaded pages; (1, 2) the page against the
    // skeleton differs by PSNR, shares no box and has 9 keypoints against
    // hundreds -> baseline 1; images 2 and 3 are released.
    vyra_test::CountingImages counting = vyra_test::countingImages(
        {makeLoadedFrame(), makeLoadedFrame(), makeHalfLoadedFrame(), makeLogoFrame()});
    ImageSets sets(counting.images);
    ASSERT_EQ(reloadAll(sets, counting), (std::vector<int>{1, 1, 1, 1}));
    std::string output;
    const AnalysisResult r = analyzeStatic(sets, true, output);
    ASSERT_EQ(r.staticResult.baselineIndex, 1);
    EXPECT_EQ(r.loadFinishedIndex, 0);
    EXPECT_EQ(*counting.loads, (std::vector<int>{1, 1, 1, 1}));
    // Images 2 and 3 were released: the next request loads them again.
    EXPECT_EQ(reloadAll(sets, counting), (std::vector<int>{1, 1, 2, 2}));
}

}  // namespace
