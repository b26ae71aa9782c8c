// The public headers as a client sees them after installation: each one is
// included ahead of anything that could supply what it forgot to include
// itself, and every declared type and entry point is reachable.
#include "VyraExport.h"
#include "VyraRect.h"
#include "VyraAnalysisResults.h"
#include "VyraTime.h"
#include "VyraImage.h"
#include "VyraImageSets.h"
#include "VyraAnalyzer.h"
#include "LoadAnalyzer.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

TEST(PublicHeaders, DeclareTheWholeInterface) {
    static_assert(std::is_class<vyra::Rect>::value, "Rect");
    static_assert(!std::is_default_constructible<vyra::Rect>::value, "Rect needs its corners");
    static_assert(std::is_copy_constructible<vyra::Image>::value, "Image copies");
    static_assert(std::is_nothrow_move_constructible<vyra::Image>::value, "Image moves");
    static_assert(!std::is_copy_constructible<vyra::ImageSets>::value, "ImageSets is not copied");
    static_assert(std::is_class<vyra::Analyzer>::value, "Analyzer");
    static_assert(std::is_same<vyra::FeaturesMatchingInfo,
                               std::tuple<std::vector<cv::KeyPoint>, std::vector<cv::KeyPoint>,
                                          std::vector<cv::DMatch>>>::value,
                  "FeaturesMatchingInfo");
    static_assert(std::is_same<decltype(&analyse), double (*)(const char*, int, int, int, int)>::value,
                  "analyse");
    static_assert(std::is_same<decltype(vyra::GetTimeInterval(vyra::GetCurrentTime())), double>::value,
                  "GetTimeInterval");
    static_assert(std::is_same<decltype(vyra::AnalysisResult().staticResult.objectCounts),
                               std::vector<size_t>>::value,
                  "objectCounts");
    SUCCEED();
}

}  // namespace
