// The launch report in a real browser: headless Chromium opens the file
// with the network cut off, runs its script without an error, gives every
// picture its data, and draws the first filmstrip picture where it belongs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "VyraLaunchReport.h"
#include "fixtures.h"

using namespace vyra_test;

namespace {

std::string chromium() {
    const char* given = std::getenv("VYRA_CHROMIUM");
    if (given != nullptr && *given != '\0') return given;
    return fs::exists("/usr/bin/chromium") ? "/usr/bin/chromium" : "";
}

ProcessResult runChromium(const fs::path& profile, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {chromium(),
                                     "--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--host-resolver-rules=MAP * ~NOTFOUND",
                                     "--hide-scrollbars",
                                     "--force-device-scale-factor=1",
                                     "--enable-logging=stderr",
                                     "--v=0",
                                     "--user-data-dir=" + profile.string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProcess(argv);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

TEST(ReportInBrowser, ScriptRunsCleanAndPicturesShow) {
    if (chromium().empty()) GTEST_SKIP() << "Chromium is not installed (scripts/common.sh installs it)";
    TempDir dir;
    std::vector<std::string> names;
    std::vector<cv::Mat> frames;
    for (int k = 0; k < 6; ++k) {
        names.push_back(std::to_string(1000 + 150 * k) + ".png");
        frames.push_back(texturedFrame(120, 160, 11 + k));
    }
    writePngFolder(dir / "rec", names, frames);
    vyra::MeasureOptions options;
    options.report.collect = true;
    options.report.pictureHeight = 160;  // shown at its own size: the page draws pictures 160 px high
    const vyra::MeasureResult result = vyra::Measure((dir / "rec").string(), options);
    const fs::path page = dir / "report.html";
    vyra::WriteReport(page.string(), result, "browser");
    const std::string url = "file://" + page.string();

    const ProcessResult dom = runChromium(dir / "profile", {"--dump-dom", url});
    ASSERT_EQ(dom.exitCode, 0) << dom.err;
    EXPECT_EQ(dom.err.find("CONSOLE"), std::string::npos) << dom.err;  // the page logged nothing, threw nothing
    EXPECT_GT(count(dom.out, "<img data-p="), 0u);
    EXPECT_EQ(count(dom.out, "<img data-p="), count(dom.out, "src=\"data:image/jpeg;base64,"));

    const fs::path shot = dir / "shot.png";
    const ProcessResult screenshot =
        runChromium(dir / "profile", {"--window-size=1280,1400", "--screenshot=" + shot.string(), url});
    ASSERT_EQ(screenshot.exitCode, 0) << screenshot.err;
    const cv::Mat screen = cv::imread(shot.string(), cv::IMREAD_COLOR);
    ASSERT_FALSE(screen.empty());
    const cv::Mat first = cv::imdecode(*result.report->filmstrip.front().jpeg, cv::IMREAD_COLOR);
    cv::Mat score;
    cv::matchTemplate(screen, first, score, cv::TM_CCOEFF_NORMED);
    double best = 0.0;
    cv::minMaxLoc(score, nullptr, &best);
    EXPECT_GT(best, 0.9);
}
