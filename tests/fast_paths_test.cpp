// The cheaper code paths give exactly what the straightforward ones give:
// PSNR through a direct sum of squares, detection in kept buffers, object
// lists shared between pixel-identical frames, detection ahead of the
// in-order searches.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include <opencv2/imgproc.hpp>

#include "VyraAnalyzer.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"
#include "analyzer_support.h"
#include "fixtures.h"

namespace {

// PSNR computed the long way: absolute difference, float, squares, per-channel
// sums of which the first three are added.
double literalPsnr(const cv::Mat& a, const cv::Mat& b) {
    if (a.empty() || b.empty() || a.rows != b.rows || a.cols != b.cols) return -1.0;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    diff.convertTo(diff, CV_32F, 1.0, 0.0);
    diff = diff.mul(diff);
    const cv::Scalar s = cv::sum(diff);
    const double sse = s[0] + s[1] + s[2];
    if (sse <= 1e-10) return 99.99;
    const std::uint64_t samples =
        static_cast<std::uint64_t>(a.channels()) * static_cast<std::uint64_t>(a.total());
    return 10.0 * std::log10(65025.0 / (sse / static_cast<double>(samples)));
}

cv::Mat randomMat(int rows, int cols, int type, unsigned seed, int low, int high) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, cv::Scalar::all(low), cv::Scalar::all(high));
    return m;
}

TEST(FastPsnr, BitIdenticalToTheLiteralFormulaOnRandomFrames) {
    const int types[] = {CV_8UC1, CV_8UC2, CV_8UC3, CV_8UC4, CV_16UC3, CV_32FC3};
    unsigned seed = 1;
    for (int type : types) {
        for (int trial = 0; trial < 4; ++trial, ++seed) {
            const int rows = 37 + 61 * trial, cols = 53 + 29 * trial;
            // Wide differences, then frames that differ in a few values only.
            const cv::Mat a = randomMat(rows, cols, type, seed, 0, 256);
            cv::Mat b = trial % 2 == 0 ? randomMat(rows, cols, type, seed + 100, 0, 256) : a.clone();
            if (trial % 2 == 1) b.row(rows / 2).setTo(cv::Scalar::all(trial * 40));
            const double expected = literalPsnr(a, b);
            EXPECT_EQ(vyra::ImageSets::CalculatePSNR(a, b), expected) << "type " << type << " trial " << trial;
            EXPECT_EQ(vyra::ImageSets::CalculatePSNR(b, a), literalPsnr(b, a));
        }
    }
}

TEST(FastPsnr, BitIdenticalOnRegionsOfLargerFramesAndExtremes) {
    const cv::Mat big = randomMat(400, 300, CV_8UC3, 7, 0, 256);
    const cv::Mat other = randomMat(400, 300, CV_8UC3, 8, 0, 256);
    const cv::Mat a = big(cv::Rect(13, 21, 177, 199));  // not continuous
    const cv::Mat b = other(cv::Rect(101, 3, 177, 199));
    EXPECT_EQ(vyra::ImageSets::CalculatePSNR(a, b), literalPsnr(a, b));

    // Every element 0 against 255: the largest possible sum of squares.
    const cv::Mat black(1920, 1080, CV_8UC3, cv::Scalar::all(0));
    const cv::Mat white(1920, 1080, CV_8UC3, cv::Scalar::all(255));
    EXPECT_EQ(vyra::ImageSets::CalculatePSNR(black, white), 0.0);
    EXPECT_EQ(vyra::ImageSets::CalculatePSNR(black, black), 99.99);
    // Differing by one everywhere: mse 1.
    const cv::Mat one(1920, 1080, CV_8UC3, cv::Scalar::all(1));
    EXPECT_EQ(vyra::ImageSets::CalculatePSNR(black, one), 10.0 * std::log10(65025.0));
}

// Frames in runs of byte-identical copies, with near-copies that differ in
// one pixel (which adds a 1x1 object) and copies in another matrix type.
std::vector<cv::Mat> framesWithRepeats() {
    const cv::Mat page = vyra_test::texturedFrame(180, 320, 3);
    cv::Mat dotted = page.clone();
    cv::rectangle(dotted, cv::Rect(90, 300, 40, 12), cv::Scalar(255, 255, 255), cv::FILLED);
    cv::Mat dottedAgain = dotted.clone();
    dottedAgain.at<cv::Vec3b>(305, 100) = cv::Vec3b(0, 0, 0);
    cv::Mat withAlpha;
    cv::cvtColor(page, withAlpha, cv::COLOR_BGR2BGRA);
    const cv::Mat plain = vyra_test::solidFrame(180, 320, cv::Scalar(30, 60, 90));
    std::vector<cv::Mat> frames;
    for (const cv::Mat* m : std::vector<const cv::Mat*>{&page, &page, &dotted, &dottedAgain, &dottedAgain, &page, &withAlpha,
                             &withAlpha, &page, &plain, &plain}) {
        frames.push_back(m->clone());  // own buffers: identical bytes, not shared
    }
    return frames;
}

TEST(KeptBufferDetection, DetectObjectsGivesThePlainPipelinesBoxes) {
    const std::vector<cv::Mat> frames =
        vyra_test::detectionCatalogue({cv::Size(1, 1), cv::Size(3, 2), cv::Size(120, 200), cv::Size(201, 77)});
    for (size_t k = 0; k < frames.size(); ++k) {
        EXPECT_EQ(vyra::Image::DetectObjects(frames[k]), vyra_test::plainPipelineObjects(frames[k]))
            << "frame " << k << " " << frames[k].cols << "x" << frames[k].rows << " channels "
            << frames[k].channels();
    }
}

TEST(SharedDetection, EveryImageGetsTheObjectsOfItsOwnPixels) {
    for (int round = 0; round < 5; ++round) {  // the worker's timing varies
        std::vector<cv::Mat> frames = framesWithRepeats();
        vyra::ImageSets sets(frames);
        const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
        // The last frame is blank, so the logo search walks every image.
        const vyra::AnalysisResult result = analyzer.Analyze(sets, STATIC_PAGE, false);
        ASSERT_EQ(result.staticResult.baselineIndex, 10);
        for (int k = 0; k < sets.size(); ++k) {
            const std::vector<vyra::Rect> expected = vyra_test::plainPipelineObjects(frames[static_cast<size_t>(k)]);
            EXPECT_EQ(sets[k].GetImageObjects(), expected) << "image " << k;
            const double ratio = static_cast<double>(vyra::Rect::CalculateTotalArea(expected)) / (180.0 * 320.0);
            EXPECT_EQ(sets[k].GetContentRatio(), ratio) << "image " << k;
        }
        // The one-pixel differences are seen: 2, 3 and 0 have different lists.
        EXPECT_NE(sets[2].GetImageObjects(), sets[0].GetImageObjects());
        EXPECT_NE(sets[3].GetImageObjects(), sets[2].GetImageObjects());
    }
}

TEST(SharedDetection, ObjectsHandedOverAtConstructionAreKept) {
    std::vector<cv::Mat> frames = framesWithRepeats();
    std::vector<vyra::Image> images;
    std::vector<vyra::Rect> given = {vyra::Rect(1, 1, 3, 3)};
    for (size_t k = 0; k < frames.size(); ++k) {
        if (k == 0) {
            images.emplace_back(frames[k], given, 0.5, 0);
        } else {
            images.emplace_back(frames[k], static_cast<int>(k));
        }
    }
    vyra::ImageSets sets(images);
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    analyzer.Analyze(sets, STATIC_PAGE, false);
    EXPECT_EQ(sets[0].GetImageObjects(), given);
    EXPECT_EQ(sets[0].GetContentRatio(), 0.5);
    // Image 1 has the same pixels as image 0 but detects its own objects.
    EXPECT_EQ(sets[1].GetImageObjects(), vyra::Image::DetectObjects(frames[1]));
}

TEST(SharedDetection, LazilyLoadedImagesAreNotLoadedAhead) {
    std::vector<cv::Mat> frames = framesWithRepeats();
    std::vector<int> calls(frames.size(), 0);
    std::vector<vyra::Image> images;
    std::vector<vyra::Rect> none;
    for (size_t k = 0; k < frames.size(); ++k) {
        images.emplace_back([&frames, &calls, k] { ++calls[k]; return frames[k].clone(); }, none, 180, 320,
                            -1.0, static_cast<int>(k));
    }
    vyra::ImageSets sets(images);
    const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
    analyzer.Analyze(sets, STATIC_PAGE, false);
    // The blank baseline (10) is loaded for its objects; the logo search then
    // loads each image 0..9 once, for its own detection; nothing is reduced.
    for (size_t k = 0; k < frames.size(); ++k) EXPECT_EQ(calls[k], 1) << "image " << k;
    for (int k = 0; k < sets.size(); ++k) {
        EXPECT_EQ(sets[k].GetImageObjects(), vyra::Image::DetectObjects(frames[static_cast<size_t>(k)]));
    }
}

// The same frames analysed as matrices (detected ahead, in kept buffers,
// shared between identical frames) and as lazily loaded images (which the
// prefetcher leaves to their own accessors) give the same findings.
TEST(SharedDetection, AnalysisEqualsTheOneWithoutPrefetching) {
    for (const std::vector<cv::Mat>& source : {framesWithRepeats(), vyra_test::launchSequence()}) {
        std::vector<cv::Mat> frames = source;
        vyra::ImageSets prefetched(frames);
        std::vector<vyra::Image> images;
        std::vector<vyra::Rect> none;
        for (size_t k = 0; k < source.size(); ++k) {
            const cv::Mat frame = source[k];
            images.emplace_back([frame] { return frame.clone(); }, none, frame.cols, frame.rows, -1.0,
                                static_cast<int>(k));
        }
        vyra::ImageSets lazy(images);
        const vyra::Analyzer analyzer(20.0, 0.5, 0.85, 0.15, 200);
        for (bool stable : {false, true}) {
            SCOPED_TRACE(stable ? "stable baseline" : "last frame as baseline");
            vyra_test::expectSameResult(analyzer.Analyze(prefetched, STATIC_PAGE, stable),
                             analyzer.Analyze(lazy, STATIC_PAGE, stable));
        }
        for (int k = 0; k < prefetched.size(); ++k) {
            EXPECT_EQ(prefetched[k].GetImageObjects(), vyra_test::plainPipelineObjects(source[static_cast<size_t>(k)]));
            EXPECT_EQ(lazy[k].GetImageObjects(), prefetched[k].GetImageObjects());
        }
    }
}

}  // namespace
