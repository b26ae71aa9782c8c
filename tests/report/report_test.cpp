// The launch reports: the HTML page, the comparison page and the PNG filmstrip,
// read back and checked against the frames they were made of.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <tuple>

#include <opencv2/imgcodecs.hpp>

#include "VyraLaunchReport.h"
#include "fixtures.h"

using namespace vyra_test;

namespace {

// Frames named by their capture time in ms, each a distinct solid colour but the first.
const std::vector<int> kTimesMs = {0, 250, 400, 1000};
const std::vector<cv::Scalar> kColours = {{40, 40, 200}, {40, 200, 40}, {200, 40, 40}, {200, 200, 40}};

vyra::MeasureResult measured(const fs::path& dir, const std::vector<cv::Mat>& frames, const std::vector<int>& times, int height) {
    std::vector<std::string> names;
    for (int t : times) names.push_back(std::to_string(1700000 + t) + ".png");
    writePngFolder(dir, names, frames);
    vyra::MeasureOptions options;
    options.report.collect = true;
    options.report.pictureHeight = height;
    return vyra::Measure(dir.string(), options);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A filmstrip of kTimesMs at 100 ms: the frame shown at every step, then each key frame no step shows
// at its own time (frame, time, key).
std::vector<std::tuple<int, double, bool>> expectedStrip(const vyra::MeasureResult& r) {
    std::vector<std::tuple<int, double, bool>> strip;
    for (int step = 0; step <= 10; ++step) {
        const int shown = int(std::upper_bound(kTimesMs.begin(), kTimesMs.end(), step * 100) - kTimesMs.begin()) - 1;
        strip.emplace_back(shown, step / 10.0, false);
    }
    std::set<int> keys;
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        if ((r.*field.member).index >= 0) keys.insert((r.*field.member).index);
    }
    for (int index : keys) {
        if (kTimesMs[index] % 100 == 0) {
            std::get<2>(strip[kTimesMs[index] / 100]) = true;
        } else {
            const auto after = std::find_if(strip.begin(), strip.end(), [&](const auto& e) { return std::get<1>(e) * 1000 > kTimesMs[index]; });
            strip.insert(after, {index, kTimesMs[index] / 1000.0, true});
        }
    }
    return strip;
}

class Reports : public ::testing::Test {
protected:
    void SetUp() override {
        for (size_t k = 0; k < kTimesMs.size(); ++k) frames.push_back(solidFrame(64, 48, kColours[k]));
        frames[0] = texturedFrame(64, 48, 3);
        result = measured(dir / "rec", frames, kTimesMs, 96);
    }
    TempDir dir;
    std::vector<cv::Mat> frames;
    vyra::MeasureResult result;
};

}  // namespace

TEST_F(Reports, TheHtmlPageHoldsEveryKeyFrameTheFilmstripAndTheChartsAndNothingFromElsewhere) {
    vyra::WriteReport((dir / "report.html").string(), result, "launch <1> & \"more\"");
    const std::string html = readText(dir / "report.html");
    EXPECT_EQ(html.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(html.find("<title>Launch report: launch &lt;1&gt; &amp; &quot;more&quot;</title>"), std::string::npos);
    EXPECT_FALSE(std::regex_search(html, std::regex(R"((src|href)=["'](?!data:))")));
    for (const char* external : {"http:", "https:", "<link", "url(", "@import"}) EXPECT_EQ(html.find(external), std::string::npos);
    size_t keys = 0;
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        const vyra::KeyFrame& key = result.*field.member;
        char row[160];
        if (key.index < 0) {
            std::snprintf(row, sizeof row, "<tr><td>%s</td><td>-</td><td>-</td></tr>", field.label);
        } else {
            std::snprintf(row, sizeof row, "<tr><td>%s</td><td>%d</td><td>%.3f</td></tr>", field.label, key.index, kTimesMs[key.index] / 1000.0);
        }
        EXPECT_NE(html.find(row), std::string::npos) << row;
    }
    const auto strip = expectedStrip(result);
    for (const auto& [frame, at, key] : strip) {
        char caption[64];
        std::snprintf(caption, sizeof caption, "<figcaption>%.3f s &middot; #%d", at, frame);
        EXPECT_NE(html.find(caption), std::string::npos) << caption;
        keys += key;
    }
    EXPECT_EQ(count(html, "<figure"), strip.size());
    EXPECT_EQ(count(html, "<figure class=\"key\">"), keys);
    EXPECT_EQ(count(html, "<g class=\"mark\">"), keys);  // one mark per moment
    EXPECT_EQ(count(html, "'data:image/jpeg;base64,/9j/"), frames.size());  // each picture once, however often shown
    EXPECT_NE(html.find("threshold 200"), std::string::npos);
}

TEST_F(Reports, TheComparisonAndTheFilmstripSheetShowBothLaunchesAndEveryPictureInOrder) {
    // b: the same launch held 500 ms longer: 5 steps (1.1 .. 1.5 s) past a's end.
    std::vector<cv::Mat> longer = frames;
    longer.push_back(frames.back());
    std::vector<int> times = kTimesMs;
    times.push_back(1500);
    const vyra::MeasureResult b = measured(dir / "b", longer, times, 96);
    vyra::WriteComparisonReport((dir / "compare.html").string(), result, "a", b, "b");
    const std::string html = readText(dir / "compare.html");
    char row[160];
    std::snprintf(row, sizeof row, "<tr><td>last change</td><td>%.3f</td><td>%.3f</td><td>%+.3f</td></tr>", result.lastVisualChange.time,
                  b.lastVisualChange.time, b.lastVisualChange.time - result.lastVisualChange.time);
    EXPECT_NE(html.find(row), std::string::npos) << row;
    EXPECT_EQ(count(html, "<figcaption>ended</figcaption>"), 5u);
    EXPECT_EQ(count(html, "<polyline class=\"series\""), 2u);

    vyra::WriteFilmstrip((dir / "strip.png").string(), result);
    const cv::Mat sheet = cv::imread((dir / "strip.png").string(), cv::IMREAD_COLOR);
    const auto strip = expectedStrip(result);
    const int columns = std::min<int>(10, int(strip.size())), rows = int((strip.size() + columns - 1) / columns);
    ASSERT_EQ(sheet.cols % columns + sheet.rows % rows, 0);
    for (size_t k = 1; k < strip.size(); ++k) {  // pictures 96 rows high, 8 px inside their cell: its middle
        const int frame = std::get<0>(strip[k]);
        if (frame == 0) continue;
        const cv::Vec3b seen = sheet.at<cv::Vec3b>(int(k / columns) * (sheet.rows / rows) + 56, int(k % columns) * (sheet.cols / columns) + sheet.cols / columns / 2);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(seen[c], kColours[frame][c], 12) << "entry " << k;
    }
}

TEST_F(Reports, WritersRefuseMissingMaterialAndUnwritablePaths) {
    const std::vector<std::function<void(const std::string&, const vyra::MeasureResult&)>> writers = {
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteReport(p, r, "t"); },
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteComparisonReport(p, r, "a", r, "b"); },
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteFilmstrip(p, r); }};
    const vyra::MeasureResult bare;
    for (const auto& write : writers) {
        for (const auto& [path, r, status] : {std::tuple{(dir / "out").string(), &bare, VYRA_ERROR_INVALID_ARGUMENT},
                                              std::tuple{std::string(), static_cast<const vyra::MeasureResult*>(&result), VYRA_ERROR_INVALID_ARGUMENT},
                                              std::tuple{(dir / "missing" / "out").string(), static_cast<const vyra::MeasureResult*>(&result), VYRA_ERROR_WRITE}}) {
            try {
                write(path, *r);
                ADD_FAILURE() << "wrote " << path;
            } catch (const vyra::MeasureError& e) {
                EXPECT_EQ(e.status(), status) << path << ": " << e.what();
            }
        }
    }
    EXPECT_FALSE(fs::exists(dir / "out") || fs::exists(dir / "missing"));
}
