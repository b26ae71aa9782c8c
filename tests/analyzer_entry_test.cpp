// vyra::Analyzer::Analyze: dispatch by page type, the frame-list overload, and
// independence of successive calls.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VyraAnalyzer.h"
#include "analyzer_support.h"
#include "launch_frames.h"

namespace {

using vyra::AnalysisResult;
using vyra::Analyzer;
using vyra::Image;
using vyra::ImageSets;

const Analyzer kDriverAnalyzer(20.0, 0.5, 0.85, 0.15, 200);
const VyraPageType kUnknownPage = static_cast<VyraPageType>(2);

TEST(AnalyzerEntry, UnknownPageTypeGivesTheDefaultResultWithoutTouchingImages) {
    vyra_test::CountingImages counting =
        vyra_test::countingImages({vyra_test::makeLoadedFrame(), vyra_test::makeLogoFrame()});
    ImageSets sets(counting.images);
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(sets, kUnknownPage, false), 0, 0);
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(sets, kUnknownPage, true), 0, 0);
    EXPECT_EQ(*counting.loads, (std::vector<int>{0, 0}));

    std::vector<cv::Mat> frames = vyra_test::makeTenFrameLaunch();
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(frames, kUnknownPage, false), 0, 0);
}

TEST(AnalyzerEntry, EmptyFrameListStatic) {
    std::vector<cv::Mat> frames;
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(frames, STATIC_PAGE, false), 0, 0);
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(frames, STATIC_PAGE, true), 0, 0);
}

TEST(AnalyzerEntry, EmptyFrameListDynamic) {
    std::vector<cv::Mat> frames;
    vyra_test::expectDefaultsBeyond(kDriverAnalyzer.Analyze(frames, DYNAMIC_PAGE, false), 1, 0);
}

TEST(AnalyzerEntry, StaticPageDispatchHandsOnTheStableFlag) {
    // Uniform frames with handed-over objects: 0 blank, 1-3 alike, 4 different,
    // 5-9 alike. The stable search ends the run 1-3 at 3; otherwise 9.
    std::vector<cv::Mat> mats;
    std::vector<std::vector<vyra::Rect>> boxes;
    const int greys[] = {100, 100, 100, 100, 180, 20, 20, 20, 20, 20};
    const int rows[] = {0, 2, 2, 2, 4, 6, 6, 6, 6, 6};
    for (int k = 0; k < 10; ++k) {
        mats.push_back(vyra_test::greyMat(48, 32, greys[k]));
        boxes.push_back(vyra_test::boxesOnRow(k == 0 ? 199 : 200, rows[k]));
    }
    std::vector<Image> images = vyra_test::craftedImages(mats, boxes, std::vector<double>(10, 0.2));
    ImageSets stableSets(images);
    ImageSets lastSets(images);
    EXPECT_EQ(kDriverAnalyzer.Analyze(stableSets, STATIC_PAGE, true).staticResult.baselineIndex, 3);
    EXPECT_EQ(kDriverAnalyzer.Analyze(lastSets, STATIC_PAGE, false).staticResult.baselineIndex, 9);
}

TEST(AnalyzerEntry, FrameListAndImageSetGiveTheSameStaticResult) {
    std::vector<cv::Mat> frames = vyra_test::makeTenFrameLaunch();
    const AnalysisResult fromFrames = kDriverAnalyzer.Analyze(frames, STATIC_PAGE, false);
    EXPECT_EQ(fromFrames.imageCount, 10u);
    EXPECT_EQ(fromFrames.loadFinishedIndex, 4);
    std::vector<cv::Mat> again = vyra_test::makeTenFrameLaunch();
    ImageSets sets(again);
    vyra_test::expectSameResult(kDriverAnalyzer.Analyze(sets, STATIC_PAGE, false), fromFrames);
}

TEST(AnalyzerEntry, TwoStaticCallsOnTheSameFramesAreEqual) {
    // A portrait frame among them: it is turned within the first call's set only.
    std::vector<cv::Mat> frames = vyra_test::makeTenFrameLaunch();
    cv::Mat portrait;
    cv::rotate(vyra_test::makeHalfLoadedFrame(), portrait, cv::ROTATE_90_CLOCKWISE);
    frames[3] = portrait;
    ::testing::internal::CaptureStdout();
    const AnalysisResult first = kDriverAnalyzer.Analyze(frames, STATIC_PAGE, false);
    const AnalysisResult second = kDriverAnalyzer.Analyze(frames, STATIC_PAGE, false);
    const std::string warning =
        "Vyra[Warning]: image<3> size(180, 320) not equal to baseline[9] size(320, 180)\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), warning + warning);
    EXPECT_EQ(first.staticResult.baselineIndex, 9);
    EXPECT_EQ(first.loadFinishedIndex, 4);
    // Objects are detected on the turned-back frame, which is the skeleton again.
    EXPECT_EQ(first.staticResult.objectCounts[3],
              Image::DetectObjects(vyra_test::makeHalfLoadedFrame()).size());
    EXPECT_EQ(first.staticResult.logoDisappearIndex, 3);
    EXPECT_EQ(first.staticResult.firstFrameIndex, 3);
    vyra_test::expectSameResult(first, second);
    EXPECT_EQ(frames[3].cols, 180);
}

TEST(AnalyzerEntry, TwoDynamicCallsOnTheSameFramesAreEqual) {
    std::vector<cv::Mat> frames = vyra_test::makeScrollingFrames(5, 480, 72, 3, 7);
    frames.push_back(vyra_test::makeBlankFrame(480, 72));
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 100);
    const AnalysisResult first = analyzer.Analyze(frames, DYNAMIC_PAGE, false);
    EXPECT_EQ(first.pageType, 1);
    EXPECT_EQ(first.imageCount, 6u);
    EXPECT_EQ(first.loadFinishedIndex, 5);
    EXPECT_EQ(first.dynamicResult.featureMatchingResults.size(), 5u);
    // The flag does not matter to the dynamic analysis.
    vyra_test::expectSameResult(analyzer.Analyze(frames, DYNAMIC_PAGE, true), first);
    vyra_test::expectSameResult(analyzer.Analyze(frames, DYNAMIC_PAGE, false), first);
}

}  // namespace
