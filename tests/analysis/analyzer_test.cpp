// vyra::Analyzer: the image predicates at their thresholds, the static and
// dynamic page analyses and the baseline search. Inputs are frames whose
// findings follow from how they are drawn, or uniform frames carrying
// hand-made object lists and keypoint matches whose statistics are known.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "VyraAnalyzer.h"
#include "fixtures.h"

namespace {

using vyra::AnalysisResult;
using vyra::Analyzer;
using vyra::Image;
using vyra::ImageSets;
using vyra::Rect;

const Analyzer kDriver(20.0, 0.5, 0.85, 0.15, 200);

cv::Mat grey(int width, int height, int value) { return cv::Mat(height, width, CV_8UC3, cv::Scalar::all(value)); }

// @p count one-pixel boxes on row @p row; boxes of different rows never match.
std::vector<Rect> boxesOnRow(int count, int row) {
    std::vector<Rect> boxes;
    for (int k = 0; k < count; ++k) boxes.emplace_back(k, row, k, row);
    return boxes;
}

Image crafted(cv::Mat mat, std::vector<Rect> boxes, double ratio, int index) { return Image(mat, boxes, ratio, index); }

// Matches m pairing keypoint m of each frame; first minus second is (0, 0)
// for the first @p good, then alternately (+50, 0) and (-50, 0), and (0, 50)
// for an odd last one. The x outliers cancel (mean 0, deviation below 50),
// a single y outlier of @p total >= 3 lies beyond one deviation: exactly
// @p good displacements are good.
FeaturesMatchingInfo shiftInfo(int firstCount, int secondCount, int good, int total) {
    FeaturesMatchingInfo info;
    const int xOutliers = (total - good) - (total - good) % 2;
    for (int k = 0; k < std::max(firstCount, secondCount); ++k) {
        cv::Point2f shift(0, 0);
        if (k >= good && k < good + xOutliers) shift.x = (k - good) % 2 == 0 ? 50.0f : -50.0f;
        else if (k >= good + xOutliers && k < total) shift.y = 50.0f;
        const cv::Point2f base(100.0f + k % 200, 100.0f + k / 200);
        if (k < firstCount) std::get<0>(info).emplace_back(base + shift, 31.0f);
        if (k < secondCount) std::get<1>(info).emplace_back(base, 31.0f);
        if (k < total) std::get<2>(info).emplace_back(k, k, 0.0f);
    }
    return info;
}

// Matches m pairing keypoint m of each frame: the first @p level in place
// (level and consistent), the others 10 px apart vertically (not level).
FeaturesMatchingInfo levelInfo(int firstCount, int secondCount, int level, int total) {
    FeaturesMatchingInfo info;
    for (int k = 0; k < std::max(firstCount, secondCount); ++k) {
        const cv::Point2f at(40.0f + k % 100, 40.0f + (k / 100) * 20.0f);
        if (k < firstCount) std::get<0>(info).emplace_back(at, 31.0f);
        if (k < secondCount) std::get<1>(info).emplace_back(at + cv::Point2f(0, k < level ? 0.0f : 10.0f), 31.0f);
        if (k < total) std::get<2>(info).emplace_back(k, k, 0.0f);
    }
    return info;
}

// The indices of a result, for comparing whole findings at once.
std::vector<long> findings(const AnalysisResult& r) {
    return {r.pageType, static_cast<long>(r.imageCount), r.loadFinishedIndex, r.staticResult.baselineIndex,
            r.staticResult.logoAppearIndex, r.staticResult.logoDisappearIndex, r.staticResult.firstFrameIndex,
            r.dynamicResult.motionStartIndex, static_cast<long>(r.dynamicResult.firstNonBlankObjectCount)};
}

TEST(AnalyzerPredicates, PsnrAndOverlapSimilarityAreInclusiveAtTheirThresholds) {
    std::vector<cv::Mat> oneApart{grey(32, 24, 100), grey(32, 24, 101)};  // PSNR 10 log10(65025)
    ImageSets sets(oneApart);
    const double psnr = 10.0 * std::log10(65025.0);
    EXPECT_TRUE(Analyzer(psnr, 0.5, 0.85, 0.15, 200).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_FALSE(Analyzer(std::nextafter(psnr, 100.0), 0.5, 0.85, 0.15, 200).IsImagesSimilarByPSNR(sets, 0, 1));
    EXPECT_FALSE(Analyzer(std::nextafter(psnr, 100.0), 0.5, 0.85, 0.15, 200).IsImagesSimilar(sets, 0, 1));

    // Areas (small, large, shared): similar when shared >= ratio * small and small >= ratio * large.
    const struct {
        std::vector<Rect> a, b;
        double ratio;
        bool similar;
    } cases[] = {
        {{Rect(0, 0, 9, 8), Rect(50, 0, 50, 9)}, {Rect(0, 0, 9, 8), Rect(20, 20, 30, 29)}, 0.5, true},  // 100, 200, 90
        {{Rect(0, 0, 9, 8), Rect(50, 0, 50, 9)}, {Rect(0, 0, 9, 8), Rect(20, 20, 30, 29)}, 0.85, false},
        {{Rect(0, 0, 9, 3), Rect(0, 10, 9, 15)}, {Rect(0, 0, 9, 3), Rect(100, 100, 109, 105)}, 0.4, true},  // 40 of 100
        {{Rect(0, 0, 9, 3), Rect(0, 10, 9, 15)}, {Rect(0, 0, 9, 3), Rect(100, 100, 109, 105)}, 0.5, false},
        {{}, {Rect(0, 0, 9, 9)}, 0.0, false},  // no objects on one side
        {{}, {}, 0.0, false},                  // nor on both: 0 >= 0 does not count
    };
    for (const auto& c : cases) {
        std::vector<Image> images{crafted(grey(200, 200, 0), c.a, 0.5, 0), crafted(grey(200, 200, 255), c.b, 0.5, 1)};
        ImageSets pair(images);
        EXPECT_EQ(kDriver.IsImagesSimilarByOverlapArea(pair, 0, 1, c.ratio), c.similar) << c.a.size() << " " << c.ratio;
        EXPECT_EQ(kDriver.IsImagesSimilarByOverlapArea(pair, 1, 0, c.ratio), c.similar);
    }
    // IsImagesSimilar takes the similar-overlap ratio (black against white: 0 dB, no keypoints).
    std::vector<Image> images{crafted(grey(200, 200, 0), cases[0].a, 0.5, 0), crafted(grey(200, 200, 255), cases[0].b, 0.5, 1)};
    ImageSets pair(images);
    EXPECT_TRUE(Analyzer(20.0, 0.85, 0.5, 0.15, 200).IsImagesSimilar(pair, 0, 1));
    EXPECT_FALSE(Analyzer(20.0, 0.5, 0.85, 0.15, 200).IsImagesSimilar(pair, 0, 1));
}

TEST(AnalyzerPredicates, ContentLevelIsTheSmallerOfTheCountAndRatioLevelsNonBlankIsLevelFour) {
    // Levels change at 0.1, 0.5 and 1.0 times the threshold, each limit inclusive upward.
    const struct {
        int objects;
        double ratio;
        int countThreshold;
        int level;
    } cases[] = {
        {0, 1.0, 200, 1},   {19, 1.0, 200, 1},  {20, 1.0, 200, 2},  {99, 1.0, 200, 2},
        {100, 1.0, 200, 3}, {199, 1.0, 200, 3}, {200, 1.0, 200, 4}, {2, 1.0, 25, 1},   // 2.5 in double
        {3, 1.0, 25, 2},    {12, 1.0, 25, 2},   {13, 1.0, 25, 3},   {25, 1.0, 25, 4},
        {250, 0.0, 200, 1}, {250, std::nextafter(0.015, 0.0), 200, 1}, {250, 0.015, 200, 2},
        {250, 0.075, 200, 3}, {250, std::nextafter(0.15, 0.0), 200, 3}, {250, 0.15, 200, 4},
        {150, 0.01, 200, 1}, {50, 0.1, 200, 2},
    };
    for (const auto& c : cases) {
        const Analyzer analyzer(20.0, 0.5, 0.85, 0.15, c.countThreshold);
        Image image = crafted(grey(400, 10, 128), boxesOnRow(c.objects, 0), c.ratio, 0);
        EXPECT_EQ(analyzer.DetectImageContentLevel(image), c.level) << c.objects << " objects, ratio " << c.ratio;
        std::vector<Image> one{image};
        ImageSets sets(one);
        EXPECT_EQ(analyzer.IsNonBlankImage(sets, 0), c.level == 4) << c.objects << " objects, ratio " << c.ratio;
    }
}

TEST(AnalyzerPredicates, LogoNeedsEightyPercentInsideAFirstFrameMoreThanThirtyOutside) {
    const cv::Vec<double, 4> area(10.0, 20.0, 110.0, 220.0);
    const struct {
        Rect box;
        int inside;
    } edges[] = {
        {Rect(10, 20, 110, 220), 1}, {Rect(9, 20, 50, 50), 0},    {Rect(10, 19, 50, 50), 0},
        {Rect(50, 50, 111, 220), 0}, {Rect(50, 50, 110, 221), 0},
    };
    for (const auto& e : edges) EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({e.box}, area), e.inside) << e.box.left;
    EXPECT_EQ(Analyzer::CountNumberOfObjectInArea({Rect(11, 21, 110, 219)}, {10.5, 20.5, 109.5, 219.5}), 0);

    const cv::Vec<double, 4> centre(0.0, 0.0, 100.0, 100.0);
    const struct {
        int total, outside;
        bool logo, firstFrame;
    } shares[] = {
        {10, 2, true, false},  {10, 3, false, false}, {10, 4, false, true},    // 8 >= 8.0; 3 > 3.0 fails
        {100, 20, true, false}, {100, 21, false, false}, {100, 30, false, false}, {100, 31, false, true},
        {1, 0, true, false},   {1, 1, false, true},   {0, 0, false, false},
    };
    for (const auto& s : shares) {
        std::vector<Rect> boxes;
        for (int k = 0; k < s.total; ++k) {
            const int x = k < s.outside ? 200 + k : k % 90;
            boxes.emplace_back(x, k % 90, x, k % 90);
        }
        EXPECT_EQ(Analyzer::IsLogoImage(boxes, centre), s.logo) << s.outside << " of " << s.total << " outside";
        EXPECT_EQ(Analyzer::IsValidFirstFrameImage(boxes, centre), s.firstFrame) << s.outside << " of " << s.total;
    }
}

TEST(AnalyzerFeatures, GoodMatchesLieWithinOneDeviationOfTheMeanShiftOnBothAxes) {
    const struct {
        std::vector<cv::Point2f> shifts;
        cv::Vec4d stats;  // mean x, mean y, deviation x, deviation y
        size_t good;
    } cases[] = {
        {{}, {0, 0, -1, -1}, 0},
        {std::vector<cv::Point2f>(12, {5, -3}), {5, -3, 0, 0}, 12},
        {{{4, 2}, {6, 2}}, {5, 2, 1, 0}, 2},                              // both on the edges
        {{{0, 0}, {0, 0}, {10, 0}}, {10.0 / 3, 0, std::sqrt(200.0 / 9), 0}, 2},
        {{{0, 0}, {0, 0}, {0, 10}, {0, 0}}, {0, 2.5, 0, std::sqrt(18.75)}, 3},
    };
    for (const auto& c : cases) {
        FeaturesMatchingInfo info;
        for (size_t k = 0; k < c.shifts.size(); ++k) {
            std::get<0>(info).emplace_back(cv::Point2f(30.0f + 7 * k, 60) + c.shifts[k], 31.0f);
            std::get<1>(info).emplace_back(cv::Point2f(30.0f + 7 * k, 60), 31.0f);
            std::get<2>(info).emplace_back(static_cast<int>(k), static_cast<int>(k), 0.0f);
        }
        std::vector<cv::Point2f> good{{9, 9}};
        const cv::Vec4d stats = Analyzer::ExtractGoodMatch(info, good);
        for (int i = 0; i < 4; ++i) EXPECT_NEAR(stats[i], c.stats[i], 1e-12) << c.shifts.size() << " shifts, " << i;
        EXPECT_EQ(good.size(), c.good) << c.shifts.size() << " shifts";
    }
}

TEST(AnalyzerFeatures, SimilarityRatiosAreInclusiveAndTheContinuousTestComparesWithThePreviousPair) {
    std::vector<cv::Mat> frames{grey(48, 40, 30), grey(48, 40, 120), grey(48, 40, 220)};  // no keypoints of their own
    // (keypoints of each, good, matches) -> similar: max >= 200, min / max, good / matches and
    // matches / min all >= 0.7.
    const struct {
        int first, second, good, total;
        bool similar;
    } pairs[] = {
        {199, 199, 199, 199, false}, {200, 200, 200, 200, true}, {300, 200, 200, 200, false},
        {500, 400, 210, 300, true},  {400, 500, 210, 300, true}, {500, 400, 209, 300, false},
        {500, 350, 300, 300, true},  {500, 349, 300, 300, false}, {500, 400, 280, 280, true},
        {500, 400, 279, 279, false}, {500, 500, 1, 1, false},
    };
    for (const auto& p : pairs) {
        ImageSets sets(frames);
        sets.GetImagesFeaturesMatchingInfo(0, 1, true) = shiftInfo(p.first, p.second, p.good, p.total);
        EXPECT_EQ(kDriver.IsImagesSimilarByFeatureMatching(sets, 0, 1), p.similar)
            << p.first << " " << p.second << " " << p.good << " " << p.total;
        EXPECT_FALSE(kDriver.IsImagesSimilarByFeatureMatching(sets, 1, 0));  // its own entry: nothing
    }
    // Continuous: good >= 0.3 matches, matches >= 0.3 min, min >= 0.3 max, and at
    // least 0.8 of the previous pair's good matches and matches.
    const struct {
        bool withPrevious;
        int good, total, first, second;
        bool similar;
    } chain[] = {
        {false, 30, 100, 100, 100, true}, {false, 29, 100, 100, 100, false}, {false, 30, 30, 100, 100, true},
        {false, 29, 29, 100, 100, false}, {false, 30, 30, 30, 100, true},    {false, 29, 29, 29, 100, false},
        {false, 10, 10, 10, 10, true},    {true, 79, 250, 300, 300, false},  {true, 80, 160, 300, 300, true},
        {true, 80, 159, 300, 300, false},
    };
    for (const auto& c : chain) {
        ImageSets sets(frames);
        sets.GetImagesFeaturesMatchingInfo(0, 1, true) = shiftInfo(300, 300, 100, 200);
        sets.GetImagesFeaturesMatchingInfo(1, 2, true) = shiftInfo(c.first, c.second, c.good, c.total);
        EXPECT_EQ(kDriver.IsImagesContinuousSimilarByFeatureMatching(sets, c.withPrevious ? 0 : -1, 1, 2), c.similar)
            << c.good << " of " << c.total << (c.withPrevious ? " after 100 of 200" : "");
    }
}

TEST(AnalyzerStaticPage, FindsTheStagesOfLaunchesBuiltFromKnownFrames) {
    using namespace vyra_test;
    const int w = kLaunchWidth, h = kLaunchHeight;
    const cv::Mat white = solidFrame(w, h), logo = logoFrame(w, h), marks = cornerMarksFrame(w, h),
                  page = loadedPageFrame(w, h), other = texturedFrame(w, h, 5, 4);  // non-blank, unlike the page
    const struct {
        const char* what;
        std::vector<cv::Mat> frames;
        int baseline, loadFinished, logoAppear, logoDisappear, firstFrame;
        int preLoaded;  // frame whose PSNR against the baseline is preLoadedPsnr, -1 for none
    } cases[] = {
        {"launch", launchSequence(), 9, 4, 1, 3, 3, 3},
        {"trailing empty frames", {white, logo, marks, page, page, cv::Mat(), cv::Mat()}, 4, 3, 1, 2, 2, 2},
        {"dissimilar content first", {other, page, page}, 2, 1, -1, -1, 0, 0},
        {"nothing similar", {white, marks, other, page}, 3, 3, -1, -1, 1, 2},
        {"loaded at once", {page, page, page}, 2, 0, -1, -1, 0, -1},
        {"one loaded frame", {page}, 0, 0, -1, -1, 0, -1},
        {"blank baseline", {white, logo, marks, logo}, 3, -1, 1, 2, 2, -1},
        {"logo up to the baseline", {marks, logo, logo}, 2, -1, 1, -1, 0, -1},
        {"logo after the load-finished frame", {page, logo, page}, 2, 0, -1, -1, 0, -1},
        {"logo search includes it", {white, logo, page, page}, 3, 2, 1, 2, 2, 1},
    };
    for (const auto& c : cases) {
        std::vector<cv::Mat> frames = c.frames;
        ImageSets sets(frames);
        const AnalysisResult r = kDriver.AnalyzeStaticPage(sets, false);
        const std::vector<long> expected = {0, static_cast<long>(frames.size()), c.loadFinished, c.baseline,
                                            c.logoAppear, c.logoDisappear, c.firstFrame, -1, 0};
        EXPECT_EQ(findings(r), expected) << c.what;
        EXPECT_EQ(r.staticResult.loadedPsnr, c.loadFinished < 0 ? -1.0 : 99.99) << c.what;
        EXPECT_DOUBLE_EQ(r.staticResult.preLoadedPsnr,
                         c.preLoaded < 0 ? -1.0 : referencePsnr(frames[c.preLoaded], frames[c.baseline]))
            << c.what;
        // Counts of the frames the load-finished search examined and of the baseline; 0 elsewhere.
        for (size_t k = 0; k < frames.size(); ++k) {
            const bool examined = static_cast<int>(k) == c.baseline || static_cast<int>(k) <= c.loadFinished;
            const size_t count = examined && !frames[k].empty() ? Image::DetectObjects(frames[k]).size() : 0;
            EXPECT_EQ(r.staticResult.objectCounts.at(k), count) << c.what << ", frame " << k;
        }
    }
    std::vector<cv::Mat> none, empties{cv::Mat(), cv::Mat(), cv::Mat()};
    EXPECT_EQ(findings(kDriver.Analyze(none, STATIC_PAGE, false)), (std::vector<long>{0, 0, -1, -1, -1, -1, -1, -1, 0}));
    EXPECT_EQ(findings(kDriver.Analyze(empties, STATIC_PAGE, true)), (std::vector<long>{0, 3, -1, -1, -1, -1, -1, -1, 0}));
    EXPECT_EQ(findings(kDriver.Analyze(empties, static_cast<VyraPageType>(2), false)),
              (std::vector<long>{0, 0, -1, -1, -1, -1, -1, -1, 0}));
}

TEST(AnalyzerStaticPage, CentralAreaIsTwentyToEightyPercentWideAndAQuarterToThreeQuartersHigh) {
    // A 200x100 image carrying only @p box before a blank baseline: inside the
    // area (40, 25)-(160, 75) it is a logo and the first-frame search finds
    // nothing after it; outside it is the first frame.
    for (const auto& [box, inside] : std::vector<std::pair<Rect, bool>>{{Rect(40, 25, 160, 75), true},
                                                                        {Rect(39, 25, 160, 75), false},
                                                                        {Rect(40, 24, 160, 75), false},
                                                                        {Rect(40, 25, 161, 75), false},
                                                                        {Rect(40, 25, 160, 76), false}}) {
        std::vector<Image> images{crafted(grey(200, 100, 90), {box}, 0.5, 0), crafted(grey(200, 100, 90), {}, -1.0, 1)};
        ImageSets sets(images);
        const AnalysisResult r = kDriver.AnalyzeStaticPage(sets, false);
        EXPECT_EQ(r.staticResult.logoAppearIndex, inside ? 0 : -1) << box.left << "," << box.top;
        EXPECT_EQ(r.staticResult.firstFrameIndex, inside ? -1 : 0) << box.left << "," << box.top;
    }
}

TEST(AnalyzerStaticPage, StableBaselineIsTheEndOfTheFirstSimilarRunThatIsNonBlank) {
    // Uniform frames (no keypoints) of one grey per group, carrying @p objects
    // one-pixel boxes on their group's own row: a group is alike by PSNR and
    // shares nothing with another group; 199 boxes are blank, 200 are not.
    const struct {
        std::vector<int> group, objects;
        int stable;
    } cases[] = {
        {{0, 1, 1, 1, 2, 3, 3, 3, 3, 3}, {199, 200, 200, 200, 200, 200, 200, 200, 200, 200}, 3},
        {{0, 1, 1, 1, 2, 3, 3, 3, 3, 3}, {199, 200, 200, 199, 200, 200, 200, 200, 200, 200}, 9},  // blank run end
        {{0, 0, 1, 2}, {200, 199, 200, 200}, 1},          // blank candidate kept when nothing follows
        {{0, 0, 1, 2, 2, 2}, {199, 200, 200, 200, 200, 200}, 5},  // the walk starts at the first non-blank
        {{0, 1, 2, 3}, {200, 200, 200, 200}, 3},
    };
    for (const auto& c : cases) {
        std::vector<Image> images;
        for (size_t k = 0; k < c.group.size(); ++k) {
            images.push_back(crafted(grey(48, 32, 20 + 50 * c.group[k]), boxesOnRow(c.objects[k], 2 * c.group[k]), 0.2,
                                     static_cast<int>(k)));
        }
        ImageSets stable(images), last(images);
        EXPECT_EQ(kDriver.FindBaselineImage(stable, true), c.stable) << c.group.size() << " frames";
        EXPECT_EQ(kDriver.Analyze(last, STATIC_PAGE, false).staticResult.baselineIndex,
                  static_cast<int>(c.group.size()) - 1);
    }
    // The walk compares neighbours by the baseline-overlap ratio (areas 100 and
    // 200, 90 shared) and by continuous feature matching.
    std::vector<Image> images{crafted(grey(200, 200, 0), {Rect(0, 0, 9, 8), Rect(50, 0, 50, 9)}, 0.5, 0),
                              crafted(grey(200, 200, 255), {Rect(0, 0, 9, 8), Rect(20, 20, 30, 29)}, 0.5, 1),
                              crafted(grey(200, 200, 128), boxesOnRow(2, 50), 0.5, 2)};
    ImageSets half(images), strict(images);
    EXPECT_EQ(Analyzer(20.0, 0.5, 0.85, 0.0, 2).FindBaselineImage(half, true), 1);
    EXPECT_EQ(Analyzer(20.0, 0.85, 0.5, 0.0, 2).FindBaselineImage(strict, true), 2);
    for (const auto& [second, stable] : std::vector<std::pair<FeaturesMatchingInfo, int>>{
             {shiftInfo(300, 300, 79, 250), 1}, {shiftInfo(300, 300, 80, 160), 2}}) {
        std::vector<Image> four;
        for (int k = 0; k < 4; ++k) four.push_back(crafted(grey(48, 32, 80 * k), boxesOnRow(1, 2 * k), 0.2, k));
        ImageSets sets(four);
        sets.GetImagesFeaturesMatchingInfo(0, 1, true) = shiftInfo(300, 300, 100, 200);
        sets.GetImagesFeaturesMatchingInfo(1, 2, true) = second;
        EXPECT_EQ(Analyzer(20.0, 0.5, 0.85, 0.0, 1).FindBaselineImage(sets, true), stable);
    }
}

TEST(AnalyzerStaticPage, FramesOfAnotherSizeAreTurnedAndResizedToTheBaselineWithAWarning) {
    // Turning and resizing themselves are held to the pinned mixed-size results (regression/).
    const cv::Mat page = vyra_test::texturedFrame(320, 180, 5), square = vyra_test::texturedFrame(100, 100, 9);
    cv::Mat turned, expected;
    cv::rotate(page, turned, cv::ROTATE_90_CLOCKWISE);
    cv::rotate(square, expected, cv::ROTATE_90_COUNTERCLOCKWISE);  // a square frame counts as portrait
    cv::resize(expected, expected, cv::Size(320, 180), 0, 0, cv::INTER_LINEAR);
    std::vector<cv::Mat> frames{turned, cv::Mat(), square.clone(), page, vyra_test::texturedFrame(180, 320, 4)};
    ImageSets sets(frames);
    EXPECT_EQ(vyra_test::stdoutOf([&] { Analyzer::CheckAndResizeImages(sets, 3); }),
              "Vyra[Warning]: image<0> size(180, 320) not equal to baseline[3] size(320, 180)\n"
              "Vyra[Warning]: image<2> size(100, 100) not equal to baseline[3] size(320, 180)\n");
    EXPECT_EQ(cv::norm(sets[0].img(), page, cv::NORM_INF), 0.0);  // turned back exactly
    EXPECT_EQ(cv::norm(sets[2].img(), expected, cv::NORM_INF), 0.0);
    EXPECT_TRUE(sets[1].Empty());
    EXPECT_EQ(sets[4].width(), 180);  // the last image is not examined
    EXPECT_EQ(frames[0].cols, 180);   // the caller's matrix is not replaced
    std::vector<cv::Mat> upright{page.clone(), turned.clone()};  // against a portrait baseline: clockwise
    ImageSets back(upright);
    EXPECT_EQ(vyra_test::stdoutOf([&] { Analyzer::CheckAndResizeImages(back, 2), Analyzer::CheckAndResizeImages(back, -1); }), "");
    vyra_test::stdoutOf([&] { Analyzer::CheckAndResizeImages(back, 1); });
    EXPECT_EQ(cv::norm(back[0].img(), turned, cv::NORM_INF), 0.0);
}

TEST(AnalyzerStaticPage, ReduceUselessImagesReleasesAnInclusiveRangeOfTheSet) {
    // (Prefetched and lazily loaded images give the pinned results: regression/.)
    for (const auto& [from, to, loads] : std::vector<std::tuple<int, int, std::vector<int>>>{
             {1, 3, {1, 2, 2, 2, 1}}, {0, 4, {2, 2, 2, 2, 2}}, {3, 1, {1, 1, 1, 1, 1}}, {3, 40, {1, 1, 1, 2, 2}}}) {
        std::vector<cv::Mat> small(5, grey(16, 12, 10));
        std::vector<vyra_test::CountingLoader> loaders(small.begin(), small.end());
        std::vector<Image> images;
        for (int k = 0; k < 5; ++k) images.push_back(vyra_test::lazyImage(loaders[k], 16, 12, k));
        ImageSets sets(images);
        for (int k = 0; k < 5; ++k) sets[k].img();
        Analyzer::ReduceUselessImages(sets, from, to);
        std::vector<int> counted;
        for (int k = 0; k < 5; ++k) {
            sets[k].img();
            counted.push_back(loaders[k].calls());
        }
        EXPECT_EQ(counted, loads) << from << ".." << to;
    }
}

TEST(AnalyzerDynamicPage, MotionIsLevelMatchesMovingTogetherAmongEnoughKeypoints) {
    // (keypoints, level matches, matches) -> (k1, k2, consistent, moving): moving when the
    // larger count > 20, smaller / larger > 0.3 and consistent / matches > 0.3.
    const struct {
        int first, second, level, total;
        cv::Vec4i motion;
    } cases[] = {
        {100, 100, 100, 100, {100, 100, 100, 1}}, {20, 20, 20, 20, {20, 20, 20, 0}}, {21, 21, 21, 21, {21, 21, 21, 1}},
        {30, 100, 30, 30, {30, 100, 30, 0}},      {100, 31, 31, 31, {100, 31, 31, 1}}, {30, 30, 3, 10, {30, 30, 3, 0}},
        {30, 30, 4, 10, {30, 30, 4, 1}},          {50, 50, 0, 0, {50, 50, 0, 0}},      {0, 0, 0, 0, {0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Analyzer::AnalyzeMotion(levelInfo(c.first, c.second, c.level, c.total)), c.motion)
            << c.first << " " << c.second << " " << c.level << " " << c.total;
    }
    FeaturesMatchingInfo info;
    const float dx[] = {0, 0, 0, 0, 10, 0, 0, 4, -4}, dy[] = {0, 0, 0, 0, 0, 3, -5, 2.99f, -2.5f};
    for (int k = 0; k < 9; ++k) {
        std::get<0>(info).emplace_back(cv::Point2f(40.0f + 9 * k, 40), 31.0f);
        std::get<1>(info).emplace_back(cv::Point2f(40.0f + 9 * k + dx[k], 40 + dy[k]), 31.0f);
        std::get<2>(info).emplace_back(k, k, 0.0f);
    }
    // Level (|dy| < 3): frames 0-4, 7, 8 with |dx| 0,0,0,0,10,4,4: mean 18/7, deviation 3.50, so
    // all but the 10 are consistent; nine keypoints are too few to move.
    EXPECT_EQ(Analyzer::AnalyzeMotion(info), cv::Vec4i(9, 9, 6, 0));
}

TEST(AnalyzerDynamicPage, TheWalkEndsAtTheFirstChangedPairFromJustBeforeTheFirstNonBlankFrame) {
    // Uniform frames (pairs without injected matches read (0, 0, 0)); with a
    // one-object threshold a frame is non-blank exactly when it carries boxes
    // (3 + k of them). Changed: counts more than 5 apart, or (smaller > 20)
    // more than 5 % of the smaller count not consistent; the walk ends at the
    // pair's first frame when it is moving, else at its second.
    const struct {
        const char* what;
        std::vector<bool> nonBlank;
        std::vector<std::pair<int, cv::Vec4i>> pairs;  // first frame, (k1, k2, level, matches)
        int motionStart, loadFinished;
        std::vector<cv::Vec4i> recorded;  // (k1, k2, consistent, moving) per pair walked
    } cases[] = {
        {"changed while moving", {false, false, true, true, true, true},
         {{1, {100, 100, 100, 100}}, {2, {100, 100, 100, 100}}, {3, {100, 110, 100, 100}}}, 1, 3,
         {{100, 100, 100, 1}, {100, 100, 100, 1}, {100, 110, 100, 1}}},
        {"changed when still", {false, false, true, true, true, true},
         {{1, {100, 100, 100, 100}}, {2, {100, 100, 100, 100}}, {3, {100, 110, 20, 100}}}, 1, 4,
         {{100, 100, 100, 1}, {100, 100, 100, 1}, {100, 110, 20, 0}}},
        {"five percent", {true, true, true, true}, {{0, {18, 20, 0, 0}}, {1, {100, 104, 95, 100}}, {2, {100, 104, 94, 100}}},
         0, 2, {{18, 20, 0, 0}, {100, 104, 95, 1}, {100, 104, 94, 1}}},
        {"only above twenty", {true, true, true, true}, {{0, {20, 24, 0, 0}}, {1, {1000, 1000, 950, 1000}}, {2, {1000, 1000, 949, 1000}}},
         0, 2, {{20, 24, 0, 0}, {1000, 1000, 950, 1}, {1000, 1000, 949, 1}}},
        {"five apart", {true, true, true, true}, {{0, {100, 105, 100, 100}}, {1, {106, 100, 100, 100}}}, 0, 1,
         {{100, 105, 100, 1}, {106, 100, 100, 1}}},
        {"never changed", {true, true, true, true}, {{0, {50, 50, 50, 50}}, {1, {50, 50, 50, 50}}, {2, {50, 50, 50, 50}}},
         0, -1, {{50, 50, 50, 1}, {50, 50, 50, 1}, {50, 50, 50, 1}}},
        {"content after blanks", {true, false, false, true, true}, {{2, {3, 150, 3, 3}}}, 2, 3, {{3, 150, 3, 0}}},
        {"two frames", {false, true}, {{0, {3, 150, 0, 0}}}, -1, 1, {{3, 150, 0, 0}}},
        {"first and last not searched", {true, false, false, true}, {}, -1, -1, {{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}}},
        {"one frame", {true}, {}, -1, -1, {}},
    };
    const Analyzer analyzer(20.0, 0.5, 0.85, 0.0, 1);
    for (const auto& c : cases) {
        std::vector<Image> images;
        for (size_t k = 0; k < c.nonBlank.size(); ++k) {
            images.push_back(crafted(grey(40, 32, 20 * static_cast<int>(k)),
                                     boxesOnRow(c.nonBlank[k] ? 3 + static_cast<int>(k) : 0, 0), 0.5, static_cast<int>(k)));
        }
        ImageSets sets(images);
        for (const auto& [j, m] : c.pairs) sets.GetImagesFeaturesMatchingInfo(j, j + 1, false) = levelInfo(m[0], m[1], m[2], m[3]);
        const AnalysisResult r = analyzer.AnalyzeDynamicPage(sets);
        const size_t firstNonBlank = c.motionStart < 0 ? 0 : 3 + c.motionStart + 1;
        EXPECT_EQ(findings(r), (std::vector<long>{1, static_cast<long>(c.nonBlank.size()), c.loadFinished, -1, -1, -1, -1,
                                                  c.motionStart, static_cast<long>(firstNonBlank)}))
            << c.what;
        std::vector<cv::Vec4i> recorded;
        int j = std::max(c.motionStart, 0);
        for (const vyra::FeatureMatchingResult& m : r.dynamicResult.featureMatchingResults) {
            EXPECT_EQ(m.firstImageIndex, j++) << c.what;
            recorded.emplace_back(m.firstKeypointCount, m.secondKeypointCount, m.consistentMatchCount, m.isMoving);
        }
        EXPECT_EQ(recorded, c.recorded) << c.what;
        EXPECT_TRUE(r.staticResult.objectCounts.empty());
    }
}

}  // namespace

// Found by fuzzing: ORB keeps no keypoint within 31 pixels of a border and
// OpenCV failed to build the pyramid of a frame one pixel wide or high.
// Frames whose smaller side is at most 62 have no features, and the dynamic
// walk compares every pair without an exception.
TEST(AnalyzerDynamicPage, FramesTooSmallForOrbHaveNoFeatures) {
    for (const cv::Size& size : {cv::Size(200, 1), cv::Size(1, 200), cv::Size(1, 28), cv::Size(28, 1),
                                 cv::Size(62, 300), cv::Size(300, 62)}) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        std::vector<cv::Mat> frames;
        for (unsigned seed = 1; seed <= 3; ++seed) frames.push_back(vyra_test::texturedFrame(size.width, size.height, seed));
        AnalysisResult r;
        ASSERT_NO_THROW(r = vyra::Analyzer(20.0, 0.5, 0.85, 0.0, 0).Analyze(frames, DYNAMIC_PAGE, false));
        EXPECT_EQ(r.imageCount, 3u);
        for (const vyra::FeatureMatchingResult& entry : r.dynamicResult.featureMatchingResults) {
            EXPECT_EQ(entry.firstKeypointCount, 0u);
            EXPECT_EQ(entry.secondKeypointCount, 0u);
        }
    }
}

// Found by fuzzing: two released frames of different widths in a row were
// compared with memcmp on null pointers. Empty frames (analyse() keeps an
// undecodable frame as one) have no objects, wherever they stand.
TEST(AnalyzerStaticPage, EmptyFramesInARunHaveNoObjects) {
    auto released = [](int width) {
        cv::Mat frame(8, width, CV_8UC3, cv::Scalar(1, 2, 3));
        frame.release();
        return frame;
    };
    const cv::Mat page = vyra_test::loadedPageFrame(160, 120);
    std::vector<cv::Mat> frames = {released(64), released(36), cv::Mat(), page.clone(), page.clone()};
    AnalysisResult r;
    ASSERT_NO_THROW(r = vyra::Analyzer(20.0, 0.5, 0.85, 0.15, 200).Analyze(frames, STATIC_PAGE, false));
    ASSERT_EQ(r.staticResult.objectCounts.size(), frames.size());
    for (size_t k = 0; k < 3; ++k) EXPECT_EQ(r.staticResult.objectCounts[k], 0u) << k;
}
