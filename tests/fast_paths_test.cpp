// The cheaper code paths give exactly what the straightforward ones give:
// PSNR through a direct sum of squares, object lists shared between
// pixel-identical frames, detection ahead of the in-order searches.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraImageSets.h"

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

}  // namespace
