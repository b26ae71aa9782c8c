// The launch reports: the HTML page, the comparison page and the PNG
// filmstrip, read back and checked against the frames they were made of.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "VyraLaunchReport.h"
#include "fixtures.h"

using namespace vyra_test;

namespace {

// Frames named by their capture time in ms; each a distinct solid colour.
const std::vector<int> kTimesMs = {0, 250, 400, 1000};
const std::vector<cv::Scalar> kColours = {{40, 40, 200}, {40, 200, 40}, {200, 40, 40}, {200, 200, 40}};

std::string writeFolder(const fs::path& dir, const std::vector<cv::Mat>& frames) {
    std::vector<std::string> names;
    for (size_t k = 0; k < frames.size(); ++k) {
        char name[32];
        std::snprintf(name, sizeof name, "%013d.png", 1700000 + kTimesMs[k]);
        names.push_back(name);
    }
    writePngFolder(dir, names, frames);
    return dir.string();
}

vyra::MeasureResult measureWithReport(const std::string& recording) {
    vyra::MeasureOptions options;
    options.report.collect = true;
    options.report.pictureHeight = 96;
    return vyra::Measure(recording, options);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// The distinct key frames of @p r: index -> labels.
std::map<int, std::vector<std::string>> keyFrames(const vyra::MeasureResult& r) {
    std::map<int, std::vector<std::string>> keys;
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        if ((r.*field.member).index >= 0) keys[(r.*field.member).index].push_back(field.label);
    }
    return keys;
}

// What a filmstrip of kTimesMs at 100 ms shows: a picture per step (the
// frame shown then), then every key frame that no step shows at its own time.
struct Entry {
    int frame;
    double at;
    bool key;
};

std::vector<Entry> expectedStrip(const vyra::MeasureResult& r) {
    std::vector<Entry> strip;
    for (int step = 0; step <= 10; ++step) {
        int shown = 0;
        while (shown + 1 < int(kTimesMs.size()) && kTimesMs[shown + 1] <= step * 100) ++shown;
        strip.push_back({shown, step / 10.0, false});
    }
    for (const auto& [index, labels] : keyFrames(r)) {
        if (kTimesMs[index] % 100 == 0) {
            strip[kTimesMs[index] / 100].key = true;
        } else {
            auto after = std::find_if(strip.begin(), strip.end(),
                                      [&](const Entry& e) { return e.at * 1000 > kTimesMs[index]; });
            strip.insert(after, {index, kTimesMs[index] / 1000.0, true});
        }
    }
    return strip;
}

class Reports : public ::testing::Test {
protected:
    void SetUp() override {
        for (size_t k = 0; k < kTimesMs.size(); ++k) frames.push_back(solidFrame(64, 48, kColours[k]));
        frames[0] = texturedFrame(64, 48, 3);  // something to recognise on screen
        result = measureWithReport(writeFolder(dir / "rec", frames));
    }
    TempDir dir;
    std::vector<cv::Mat> frames;
    vyra::MeasureResult result;
};

}  // namespace

TEST_F(Reports, HtmlPageHoldsEveryKeyFrameTheFilmstripAndTheCharts) {
    const fs::path page = dir / "report.html";
    vyra::WriteReport(page.string(), result, "launch <1> & \"more\"");
    const std::string html = readText(page);

    EXPECT_EQ(html.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(html.find("<title>Launch report: launch &lt;1&gt; &amp; &quot;more&quot;</title>"), std::string::npos);
    // Self-contained: nothing fetched from anywhere.
    EXPECT_FALSE(std::regex_search(html, std::regex(R"((src|href)=["'](?!data:))")));
    for (const char* external : {"http:", "https:", "<link", "url(", "@import"}) {
        EXPECT_EQ(html.find(external), std::string::npos) << external;
    }
    for (const vyra::KeyFrameField& field : vyra::KeyFrameFields()) {
        const vyra::KeyFrame& key = result.*field.member;
        char row[160];
        if (key.index < 0) {
            std::snprintf(row, sizeof row, "<tr><td>%s</td><td>-</td><td>-</td></tr>", field.label);
        } else {
            std::snprintf(row, sizeof row, "<tr><td>%s</td><td>%d</td><td>%.3f</td></tr>", field.label, key.index,
                          kTimesMs[key.index] / 1000.0);
        }
        EXPECT_NE(html.find(row), std::string::npos) << row;
    }
    const std::vector<Entry> strip = expectedStrip(result);
    EXPECT_EQ(count(html, "<figure"), strip.size());
    EXPECT_EQ(count(html, "<figure class=\"key\">"), keyFrames(result).size());
    for (const Entry& e : strip) {
        char caption[64];
        std::snprintf(caption, sizeof caption, "<figcaption>%.3f s &middot; #%d", e.at, e.frame);
        EXPECT_NE(html.find(caption), std::string::npos) << caption;
    }
    // Four distinct frames, each picture stored once however often shown.
    EXPECT_EQ(count(html, "'data:image/jpeg;base64,/9j/"), frames.size());
    EXPECT_EQ(count(html, "<g class=\"mark\">"), keyFrames(result).size());  // one mark per moment
    EXPECT_NE(html.find("threshold 200"), std::string::npos);
}

TEST_F(Reports, ComparisonAlignsBothFilmstripsOnOneTimeLine) {
    // b: the same launch held 500 ms longer at its end.
    std::vector<cv::Mat> longer = frames;
    TempDir other;
    std::vector<std::string> names;
    for (size_t k = 0; k < frames.size(); ++k) names.push_back(std::to_string(1700000 + kTimesMs[k]) + ".png");
    longer.push_back(frames.back());
    names.push_back(std::to_string(1700000 + 1500) + ".png");
    writePngFolder(other / "rec", names, longer);
    const vyra::MeasureResult b = measureWithReport((other / "rec").string());

    const fs::path page = dir / "compare.html";
    vyra::WriteComparisonReport(page.string(), result, "a", b, "b");
    const std::string html = readText(page);
    char row[160];
    std::snprintf(row, sizeof row, "<tr><td>last change</td><td>%.3f</td><td>%.3f</td><td>%+.3f</td></tr>",
                  result.lastVisualChange.time, b.lastVisualChange.time,
                  b.lastVisualChange.time - result.lastVisualChange.time);
    EXPECT_NE(html.find(row), std::string::npos) << row;
    // b runs 5 steps (1.1 .. 1.5 s) past a's end: a's column shows nothing there.
    EXPECT_EQ(count(html, "<figcaption>ended</figcaption>"), 5u);
    EXPECT_EQ(count(html, "<polyline class=\"series\""), 2u);
}

TEST_F(Reports, FilmstripSheetShowsEveryPictureInOrder) {
    const fs::path png = dir / "strip.png";
    vyra::WriteFilmstrip(png.string(), result);
    const cv::Mat sheet = cv::imread(png.string(), cv::IMREAD_COLOR);
    ASSERT_FALSE(sheet.empty());
    const std::vector<Entry> strip = expectedStrip(result);
    const int columns = std::min<int>(10, int(strip.size()));
    const int rows = int((strip.size() + columns - 1) / columns);
    ASSERT_EQ(sheet.cols % columns, 0);
    ASSERT_EQ(sheet.rows % rows, 0);
    const int cellWidth = sheet.cols / columns;
    const int cellHeight = sheet.rows / rows;
    // Pictures of 96 rows, 8 px inside their cell; look at the middle of each.
    for (size_t k = 1; k < strip.size(); ++k) {
        if (strip[k].frame == 0) continue;
        const int x = int(k % columns) * cellWidth + cellWidth / 2;
        const int y = int(k / columns) * cellHeight + 8 + 48;
        const cv::Vec3b seen = sheet.at<cv::Vec3b>(y, x);
        for (int c = 0; c < 3; ++c) {
            EXPECT_NEAR(seen[c], kColours[strip[k].frame][c], 12) << "entry " << k << " channel " << c;
        }
    }
}

TEST_F(Reports, WritersRefuseMissingMaterialAndUnwritablePaths) {
    using Writer = std::function<void(const std::string&, const vyra::MeasureResult&)>;
    const std::vector<Writer> writers = {
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteReport(p, r, "t"); },
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteComparisonReport(p, r, "a", r, "b"); },
        [](const std::string& p, const vyra::MeasureResult& r) { vyra::WriteFilmstrip(p, r); },
    };
    const vyra::MeasureResult bare;
    struct Case {
        std::string path;
        const vyra::MeasureResult* result;
        VyraStatus status;
    } cases[] = {
        {(dir / "out").string(), &bare, VYRA_ERROR_INVALID_ARGUMENT},
        {"", &result, VYRA_ERROR_INVALID_ARGUMENT},
        {(dir / "missing" / "out").string(), &result, VYRA_ERROR_WRITE},
    };
    for (size_t w = 0; w < writers.size(); ++w) {
        for (const Case& c : cases) {
            try {
                writers[w](c.path, *c.result);
                ADD_FAILURE() << "writer " << w << " wrote " << c.path;
            } catch (const vyra::MeasureError& e) {
                EXPECT_EQ(e.status(), c.status) << "writer " << w << " " << c.path << ": " << e.what();
            }
        }
    }
    EXPECT_FALSE(fs::exists(dir / "out"));
    EXPECT_FALSE(fs::exists(dir / "missing"));
}
