// The analysis through the public classes on small random frames: 0..6
// frames of 0..64 x 0..64 pixels, 1, 3 or 4 channels of 8U, 16U or 32F,
// random bytes or flat frames with random boxes, one type and size for all
// or each its own. Runs vyra::Analyzer::Analyze (static and dynamic) and the
// queries of vyra::Image and vyra::ImageSets, and checks what they promise.
//
// Exceptions of OpenCV may pass through the analysis for frames the library
// never makes itself (other depths, grey, BGRA, mixed types); for 8-bit BGR
// frames, which every recording decodes to, any exception is a finding.
// With VYRA_FUZZ_SHOW set, the frames of each input are listed on stderr.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "FuzzSupport.h"
#include "VyraAnalyzer.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraRect.h"
#include "analysis/Thresholds.h"

using vyra_fuzz::Check;

namespace {

const int kDepths[] = {CV_8U, CV_16U, CV_32F};
const int kChannels[] = {1, 3, 4};

struct FrameShape {
    int rows = 0;
    int cols = 0;
    int type = CV_8UC3;
};

FrameShape consumeShape(FuzzedDataProvider& in) {
    FrameShape shape;
    shape.rows = in.ConsumeIntegralInRange(0, 64);
    shape.cols = in.ConsumeIntegralInRange(0, 64);
    shape.type = CV_MAKETYPE(in.PickValueInArray(kDepths), in.PickValueInArray(kChannels));
    return shape;
}

cv::Mat consumeFrame(FuzzedDataProvider& in, const FrameShape& shape) {
    cv::Mat frame(shape.rows, shape.cols, shape.type);
    if (frame.empty()) return frame;
    const size_t bytes = frame.total() * frame.elemSize();
    if (in.ConsumeBool()) {
        // Random samples, repeated when the input runs short.
        const std::vector<uint8_t> given = in.ConsumeBytes<uint8_t>(bytes);
        for (size_t k = 0; k < bytes; ++k) frame.data[k] = given.empty() ? 0 : given[k % given.size()];
    } else {
        // A flat page with a few boxes, like a screen.
        const double top = in.ConsumeIntegralInRange(0, 255) * (shape.type % 8 == CV_32F ? 1.0 / 255 : 1.0);
        frame.setTo(cv::Scalar::all(top));
        for (int boxes = in.ConsumeIntegralInRange(0, 12); boxes > 0; --boxes) {
            const int x = in.ConsumeIntegralInRange(0, shape.cols - 1);
            const int y = in.ConsumeIntegralInRange(0, shape.rows - 1);
            const cv::Rect box(x, y, in.ConsumeIntegralInRange(1, shape.cols - x), in.ConsumeIntegralInRange(1, shape.rows - y));
            frame(box).setTo(cv::Scalar::all(in.ConsumeIntegralInRange(0, 65535)));
        }
    }
    return frame;
}

bool finiteSamples(const cv::Mat& m) {
    return m.depth() != CV_32F || cv::checkRange(m);
}

// A detected object list: sorted boxes inside the frame, each well formed.
void checkObjects(const std::vector<vyra::Rect>& boxes, const cv::Mat& frame) {
    const bool readable = frame.depth() == CV_8U && frame.channels() != 2;
    Check(readable || boxes.empty(), "objects detected in a frame the detector does not read");
    for (const vyra::Rect& r : boxes) {
        Check(r.left >= 0 && r.top >= 0 && r.right < frame.cols && r.bottom < frame.rows, "object outside the frame");
        Check(r.width == r.right - r.left + 1 && r.height == r.bottom - r.top + 1 && r.area == r.width * r.height &&
                  r.width >= 1 && r.height >= 1,
              "malformed object box");
    }
    Check(std::is_sorted(boxes.begin(), boxes.end()), "object list not sorted");
}

void checkIndex(int index, size_t count, const char* what) {
    Check(index >= -1 && index < static_cast<int>(count), std::string(what) + " out of range");
}

void run(FuzzedDataProvider& in, std::vector<cv::Mat>& frames) {
    vyra::Analyzer analyzer(vyra::detail::kPsnrThreshold, vyra::detail::kBaselineOverlapRatio,
                            vyra::detail::kSimilarOverlapRatio, vyra::detail::kContentRatioThreshold,
                            vyra::detail::kObjectCountThreshold);
    if (in.ConsumeBool()) {
        analyzer = vyra::Analyzer(in.ConsumeFloatingPointInRange(0.0, 100.0), in.ConsumeProbability<double>(),
                                  in.ConsumeProbability<double>(), in.ConsumeProbability<double>(),
                                  in.ConsumeIntegralInRange(0, 400));
    }
    const size_t n = frames.size();

    // The queries of Image and ImageSets on copies sharing the pixels.
    {
        vyra::ImageSets sets(frames);
        for (int k = 0; k < sets.size(); ++k) {
            const cv::Mat& frame = frames[static_cast<size_t>(k)];
            checkObjects(vyra::Image::DetectObjects(frame), frame);
            checkObjects(sets[k].GetImageObjects(), frame);
            const double ratio = sets[k].GetContentRatio();
            Check(ratio >= 0.0 && ratio <= 1.0, "content ratio outside [0, 1]");
            if (!frame.empty() && finiteSamples(frame)) {
                Check(vyra::ImageSets::CalculatePSNR(frame, frame) == 99.99, "PSNR of a frame with itself");
            }
        }
        if (n >= 2) {
            const int i = in.ConsumeIntegralInRange<int>(0, static_cast<int>(n) - 1);
            const int j = in.ConsumeIntegralInRange<int>(0, static_cast<int>(n) - 1);
            const double psnr = sets.GetImagesPSNR(i, j);
            const cv::Mat& a = frames[static_cast<size_t>(i)];
            const cv::Mat& b = frames[static_cast<size_t>(j)];
            if (a.empty() || b.empty() || a.size() != b.size()) Check(psnr == -1.0, "PSNR of unlike frames");
            const cv::Vec3i overlap = sets.GetImagesObjectsOverlapArea(i, j);
            Check(overlap[0] >= 0 && overlap[1] >= 0 && overlap[2] >= 0, "negative object area");
            const bool crossCheck = in.ConsumeBool();
            const FeaturesMatchingInfo& info = sets.GetImagesFeaturesMatchingInfo(i, j, crossCheck);
            for (const cv::DMatch& m : std::get<2>(info)) {
                Check(m.queryIdx >= 0 && static_cast<size_t>(m.queryIdx) < std::get<0>(info).size() &&
                          m.trainIdx >= 0 && static_cast<size_t>(m.trainIdx) < std::get<1>(info).size(),
                      "match outside the keypoint lists");
            }
            std::vector<cv::Point2f> shifts;
            vyra::Analyzer::ExtractGoodMatch(info, shifts);
            vyra::Analyzer::AnalyzeMotion(info);
            analyzer.IsImagesSimilar(sets, i, j);
        }
    }

    const VyraPageType type = in.ConsumeBool() ? DYNAMIC_PAGE : STATIC_PAGE;
    const vyra::AnalysisResult r = analyzer.Analyze(frames, type, in.ConsumeBool());
    Check(r.pageType == type, "page type of the result");
    Check(r.imageCount == n, "image count of the result");
    checkIndex(r.loadFinishedIndex, n, "load finished");
    checkIndex(r.staticResult.baselineIndex, n, "baseline");
    checkIndex(r.staticResult.logoAppearIndex, n, "logo appear");
    checkIndex(r.staticResult.logoDisappearIndex, n + 1, "logo disappear");
    checkIndex(r.staticResult.firstFrameIndex, n, "first frame");
    Check(r.staticResult.objectCounts.empty() || r.staticResult.objectCounts.size() == n, "object counts");
    checkIndex(r.dynamicResult.motionStartIndex, n, "motion start");
    for (const vyra::FeatureMatchingResult& f : r.dynamicResult.featureMatchingResults) {
        Check(f.firstImageIndex >= 0 && static_cast<size_t>(f.firstImageIndex) + 1 < n, "feature matching pair");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vyra_fuzz::Setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const size_t count = in.ConsumeIntegralInRange<size_t>(0, 6);
    const bool alike = in.ConsumeBool();
    const FrameShape common = consumeShape(in);
    std::vector<cv::Mat> frames;
    bool bgr8 = true;
    for (size_t k = 0; k < count; ++k) {
        const FrameShape shape = alike ? common : consumeShape(in);
        bgr8 = bgr8 && shape.type == CV_8UC3;
        frames.push_back(consumeFrame(in, shape));
        if (std::getenv("VYRA_FUZZ_SHOW")) std::fprintf(stderr, "frame %zu: %dx%d type %d\n", k, frames.back().cols, frames.back().rows, frames.back().type());
    }
    try {
        run(in, frames);
    } catch (const cv::Exception& e) {
        if (bgr8) vyra_fuzz::Fail(std::string("OpenCV failed on 8-bit BGR frames: ") + e.what());
    }
    return 0;
}
