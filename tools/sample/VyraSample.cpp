#include "VyraSample.h"

#include "SampleWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

namespace vyra::sample {

namespace {

// ---------------------------------------------------------------- randomness

// splitmix64: a small generator whose output is fixed by its seed on every
// platform (the standard distributions are not), so the pixels are too.
class Random {
public:
    Random(unsigned seed, std::uint64_t salt)
        : state_(static_cast<std::uint64_t>(seed) * 0x9E3779B97F4A7C15ULL ^ (salt + 0x632BE59BD9B4E019ULL)) {}

    std::uint64_t Next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }

    // Uniform in [0, 1).
    double Uniform() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

    // Uniform in [lo, hi].
    int Range(int lo, int hi) {
        return lo + static_cast<int>(Next() % static_cast<std::uint64_t>(hi - lo + 1));
    }

private:
    std::uint64_t state_;
};

// Salts keep the streams of the different page elements apart.
enum Salt : std::uint64_t {
    kSaltPalette = 1,
    kSaltClock = 2,
    kSaltJitter = 3,
    kSaltDock = 4,
    kSaltMosaic = 5,
    kSaltTitle = 6,
    kSaltLine = 100,  // + line number
};

// ---------------------------------------------------------------- options

constexpr int kMinSide = 180;
constexpr int kMaxSide = 4096;
constexpr int kMaxFps = 240;
constexpr double kMaxSeconds = 600.0;
constexpr int kMaxContentSteps = 16;
constexpr double kMaxJitter = 0.5;

void Require(bool condition, const std::string& message) {
    if (!condition) {
        throw std::invalid_argument("sample: " + message);
    }
}

bool IsShare(double share) { return std::isfinite(share) && share >= 0.0 && share < 1.0; }

void CheckOptions(const SampleOptions& o) {
    Require(std::isfinite(o.seconds) && o.seconds > 0.0 && o.seconds <= kMaxSeconds,
            "seconds must lie in (0, 600]");
    Require(o.fps >= 1 && o.fps <= kMaxFps, "fps must lie in 1..240");
    Require(o.width >= kMinSide && o.width <= kMaxSide && o.height >= kMinSide &&
                o.height <= kMaxSide,
            "width and height must lie in 180..4096");
    Require(IsShare(o.launcherShare) && IsShare(o.splashShare) && IsShare(o.skeletonShare) &&
                IsShare(o.contentShare),
            "stage shares must lie in [0, 1)");
    Require(o.launcherShare + o.splashShare + o.skeletonShare + o.contentShare < 1.0,
            "stage shares must leave room for the loaded page");
    Require(o.contentSteps >= 1 && o.contentSteps <= kMaxContentSteps,
            "contentSteps must lie in 1..16");
    Require(std::isfinite(o.timeJitter) && o.timeJitter >= 0.0 && o.timeJitter <= kMaxJitter,
            "timeJitter must lie in [0, 0.5]");
}

int FrameAt(double share, int frameCount) {
    return static_cast<int>(std::llround(share * frameCount));
}

std::vector<double> CaptureTimes(const SampleOptions& o, int frameCount) {
    const double interval = 1000.0 / o.fps;
    std::vector<double> times(static_cast<size_t>(frameCount));
    if (o.timeJitter == 0.0) {
        for (int k = 0; k < frameCount; ++k) {
            times[static_cast<size_t>(k)] = k * interval;
        }
        return times;
    }
    Random random(o.seed, kSaltJitter);
    double t = 0.0;
    for (int k = 0; k < frameCount; ++k) {
        times[static_cast<size_t>(k)] = t;
        t += interval * (1.0 + o.timeJitter * (2.0 * random.Uniform() - 1.0));
    }
    return times;
}

// ---------------------------------------------------------------- layout

constexpr int kTextLines = 12;
constexpr int kLinesPerParagraph = 3;
constexpr int kEarlyLines = kLinesPerParagraph;  // the first paragraph arrives before the picture
constexpr int kMosaicColumns = 16;
constexpr int kMosaicRows = 12;
constexpr int kToolbarIcons = 5;
constexpr int kDockIcons = 4;

// Pixel geometry of one frame size. Lengths that stand for physical sizes
// (bars, margins) scale with the shorter side; regions follow the frame's
// orientation: the picture sits above the text in portrait and beside it in
// landscape.
struct Layout {
    int width = 0;
    int height = 0;
    double unit = 1.0;  // pixels per unit; 1 for a 360-pixel short side
    cv::Rect status;
    cv::Rect appBar;
    cv::Rect toolbar;
    cv::Rect picture;
    cv::Rect text;
    int linePitch = 0;
    int glyphHeight = 0;
};

int Px(double units, double unit) { return std::max(1, static_cast<int>(std::lround(units * unit))); }

Layout MakeLayout(int width, int height) {
    Layout l;
    l.width = width;
    l.height = height;
    l.unit = std::min(width, height) / 360.0;
    const int margin = std::max(4, Px(12, l.unit));
    l.status = cv::Rect(0, 0, width, Px(24, l.unit));
    l.appBar = cv::Rect(0, l.status.br().y, width, Px(44, l.unit));
    const int toolbarHeight = Px(48, l.unit);
    l.toolbar = cv::Rect(0, height - toolbarHeight, width, toolbarHeight);
    const int top = l.appBar.br().y + margin;
    const int bottom = l.toolbar.y - margin;
    if (width <= height) {
        const int pictureHeight = static_cast<int>(std::lround(0.45 * (bottom - top)));
        l.picture = cv::Rect(margin, top, width - 2 * margin, pictureHeight);
        const int textTop = l.picture.br().y + margin;
        l.text = cv::Rect(margin, textTop, width - 2 * margin, bottom - textTop);
    } else {
        const int split = width / 2;
        l.picture = cv::Rect(margin, top, split - margin - margin / 2, bottom - top);
        const int textLeft = split + margin / 2;
        l.text = cv::Rect(textLeft, top, width - margin - textLeft, bottom - top);
    }
    l.linePitch = l.text.height / kTextLines;
    l.glyphHeight = std::max(3, static_cast<int>(std::lround(0.5 * l.linePitch)));
    return l;
}

// The band of line i in which its glyphs (or its placeholder bar) lie.
cv::Rect LineBand(const Layout& l, int line) {
    const bool lastOfParagraph = line % kLinesPerParagraph == kLinesPerParagraph - 1;
    const int width = lastOfParagraph ? static_cast<int>(std::lround(0.6 * l.text.width)) : l.text.width;
    const int y = l.text.y + line * l.linePitch + (l.linePitch - l.glyphHeight) / 2;
    return cv::Rect(l.text.x, y, width, l.glyphHeight);
}

// ---------------------------------------------------------------- colours

struct Palette {
    cv::Scalar brand;      // app bar, status bar, logo disc
    cv::Scalar wallpaper;  // home screen
    cv::Scalar splash;     // launch screen background
};

cv::Scalar HsvToBgr(double hue, double saturation, double value) {
    cv::Mat hsv(1, 1, CV_8UC3,
                cv::Scalar(hue, saturation, value));
    cv::Mat bgr;
    cv::cvtColor(hsv, bgr, cv::COLOR_HSV2BGR);
    const cv::Vec3b c = bgr.at<cv::Vec3b>(0, 0);
    return cv::Scalar(c[0], c[1], c[2]);
}

Palette MakePalette(unsigned seed) {
    Random random(seed, kSaltPalette);
    const double hue = random.Range(0, 179);
    Palette p;
    p.brand = HsvToBgr(hue, 200, 170);
    p.wallpaper = HsvToBgr(std::fmod(hue + 60.0, 180.0), 120, 120);
    p.splash = HsvToBgr(hue, 20, 250);
    return p;
}

const cv::Scalar kWhite(255, 255, 255);
const cv::Scalar kInk(60, 60, 60);
const cv::Scalar kPlaceholder(222, 222, 222);
const cv::Scalar kPicturePlaceholder(234, 234, 234);
const cv::Scalar kMosaicGround(40, 32, 36);
const cv::Scalar kToolbarGround(246, 246, 246);
const cv::Scalar kIconGrey(150, 150, 150);

// ---------------------------------------------------------------- stages

enum class Stage { Launcher, Splash, Skeleton, Content, Loaded };

struct FrameStage {
    Stage stage = Stage::Launcher;
    int step = 0;  // 1-based content step, 0 outside the content stage
};

FrameStage StageOf(const SampleTruth& t, int index) {
    if (index < t.splashStart) return {Stage::Launcher, 0};
    if (index < t.splashEnd) return {Stage::Splash, 0};
    if (index < t.contentStart) return {Stage::Skeleton, 0};
    if (index >= t.loadedIndex) return {Stage::Loaded, 0};
    const auto after = std::upper_bound(t.contentStepStarts.begin(), t.contentStepStarts.end(), index);
    return {Stage::Content, static_cast<int>(after - t.contentStepStarts.begin())};
}

// What the page shows at a stage: the skeleton shows placeholders only;
// content steps bring the bars, then the first paragraph line by line; the
// loaded page shows everything.
struct PageState {
    bool bars = false;
    int lines = 0;  // text lines shown, from the top; the others are placeholders
    bool picture = false;
};

PageState PageStateOf(const FrameStage& s, int steps) {
    PageState state;
    if (s.stage == Stage::Loaded) {
        return {true, kTextLines, true};
    }
    if (s.stage == Stage::Content) {
        state.bars = true;
        state.lines = steps == 1 ? kEarlyLines
                                 : static_cast<int>(std::lround(
                                       static_cast<double>(kEarlyLines) * (s.step - 1) / (steps - 1)));
    }
    return state;
}

// ---------------------------------------------------------------- drawing

void FillRect(cv::Mat& img, const cv::Rect& r, const cv::Scalar& colour) {
    cv::rectangle(img, r, colour, cv::FILLED, cv::LINE_8);
}

// Time of day on the status bar clock, HH:MM:SS, advancing with the capture time.
std::string ClockText(unsigned seed, double timeMs) {
    Random random(seed, kSaltClock);
    const long start = 8L * 3600 + random.Range(0, 10 * 3600 - 1);
    const long now = (start + static_cast<long>(std::floor(timeMs / 1000.0))) % (24L * 3600);
    char text[16];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld", now / 3600, now / 60 % 60, now % 60);
    return text;
}

void DrawStatusBar(cv::Mat& img, const Layout& l, const std::string& clock,
                   const cv::Scalar* ground) {
    if (ground != nullptr) {
        FillRect(img, l.status, *ground);
    }
    const int h = l.status.height;
    const int thickness = std::max(1, static_cast<int>(std::lround(1.2 * l.unit)));
    const double scale = 0.5 * h / 22.0;  // Hershey simplex digits are about 22 px high at scale 1
    cv::putText(img, clock, cv::Point(Px(12, l.unit), static_cast<int>(0.75 * h)),
                cv::FONT_HERSHEY_SIMPLEX, scale, kWhite, thickness, cv::LINE_AA);
    // Signal bars and battery at the right.
    const int barWidth = Px(3, l.unit);
    const int right = l.width - Px(12, l.unit);
    const int batteryWidth = Px(20, l.unit);
    const int batteryHeight = std::max(3, h / 2);
    const cv::Rect battery(right - batteryWidth, (h - batteryHeight) / 2, batteryWidth, batteryHeight);
    FillRect(img, battery, kWhite);
    FillRect(img, cv::Rect(battery.br().x, battery.y + batteryHeight / 3, Px(2, l.unit),
                           std::max(1, batteryHeight / 3)),
             kWhite);
    int x = battery.x - Px(10, l.unit) - 4 * (barWidth + Px(2, l.unit));
    for (int k = 1; k <= 4; ++k) {
        const int barHeight = std::max(2, batteryHeight * k / 4);
        FillRect(img, cv::Rect(x, battery.br().y - barHeight, barWidth, barHeight), kWhite);
        x += barWidth + Px(2, l.unit);
    }
}

void DrawLauncher(cv::Mat& img, const Layout& l, const Palette& p, unsigned seed) {
    img.setTo(p.wallpaper);
    Random random(seed, kSaltDock);
    const int size = Px(44, l.unit);
    const int y = l.height - Px(16, l.unit) - size;
    const int slot = l.width / kDockIcons;
    for (int k = 0; k < kDockIcons; ++k) {
        const cv::Scalar colour(random.Range(150, 255), random.Range(150, 255), random.Range(150, 255));
        FillRect(img, cv::Rect(k * slot + (slot - size) / 2, y, size, size), colour);
    }
}

// Draws a row of glyph-like blocks across @p band: @p count blocks of seeded
// widths with narrow gaps between letters and wider ones between words.
void DrawGlyphRow(cv::Mat& img, const cv::Rect& band, int count, Random& random,
                  const cv::Scalar& colour) {
    std::vector<double> glyphs(static_cast<size_t>(count));
    std::vector<double> gaps(static_cast<size_t>(count), 0.0);
    double total = 0.0;
    for (int k = 0; k < count; ++k) {
        glyphs[static_cast<size_t>(k)] = 0.6 + 0.4 * random.Uniform();
        if (k + 1 < count) {
            gaps[static_cast<size_t>(k)] = random.Uniform() < 0.25 ? 1.1 : 0.45;
        }
        total += glyphs[static_cast<size_t>(k)] + gaps[static_cast<size_t>(k)];
    }
    const double scale = band.width / total;
    double x = band.x;
    for (int k = 0; k < count; ++k) {
        const int left = static_cast<int>(std::lround(x));
        const int right = static_cast<int>(std::lround(x + glyphs[static_cast<size_t>(k)] * scale));
        FillRect(img, cv::Rect(left, band.y, std::max(1, right - left), band.height), colour);
        x += (glyphs[static_cast<size_t>(k)] + gaps[static_cast<size_t>(k)]) * scale;
    }
}

void DrawSplash(cv::Mat& img, const Layout& l, const Palette& p) {
    img.setTo(p.splash);
    const double s = std::min(l.width, l.height);
    const cv::Point centre(l.width / 2, static_cast<int>(std::lround(0.45 * l.height)));
    const int radius = static_cast<int>(std::lround(0.11 * s));
    cv::circle(img, centre, radius, p.brand, cv::FILLED, cv::LINE_AA);
    // A white play-like symbol on the disc.
    const int a = radius / 2;
    std::vector<cv::Point> symbol = {{centre.x - a / 2, centre.y - a},
                                     {centre.x - a / 2, centre.y + a},
                                     {centre.x + a, centre.y}};
    cv::fillConvexPoly(img, symbol, kWhite, cv::LINE_AA);
    // Word mark under the disc.
    const int markHeight = std::max(3, static_cast<int>(std::lround(0.045 * s)));
    const int markWidth = static_cast<int>(std::lround(0.36 * s));
    const cv::Rect mark(centre.x - markWidth / 2, centre.y + radius + markHeight * 2, markWidth, markHeight);
    Random random(0, kSaltTitle);  // the logo does not change with the seed's page content
    DrawGlyphRow(img, mark, 5, random, p.brand);
}

void DrawAppBar(cv::Mat& img, const Layout& l, const Palette& p, unsigned seed, bool real) {
    if (!real) {
        FillRect(img, l.appBar, kPlaceholder);
        const cv::Rect title(Px(56, l.unit), l.appBar.y + l.appBar.height / 3,
                             l.width / 3, std::max(3, l.appBar.height / 3));
        FillRect(img, title, cv::Scalar(205, 205, 205));
        return;
    }
    FillRect(img, l.appBar, p.brand);
    const int midY = l.appBar.y + l.appBar.height / 2;
    const int a = Px(8, l.unit);
    std::vector<cv::Point> arrow = {{Px(16, l.unit), midY}, {Px(16, l.unit) + a, midY - a},
                                    {Px(16, l.unit) + a, midY + a}};
    cv::fillConvexPoly(img, arrow, kWhite, cv::LINE_8);
    const cv::Rect title(Px(56, l.unit), midY - l.appBar.height / 6, l.width / 3,
                         std::max(3, l.appBar.height / 3));
    Random random(seed, kSaltTitle);
    DrawGlyphRow(img, title, 7, random, kWhite);
    for (int k = 0; k < 3; ++k) {
        cv::circle(img, cv::Point(l.width - Px(20, l.unit), midY + (k - 1) * Px(7, l.unit)),
                   std::max(1, Px(2, l.unit)), kWhite, cv::FILLED, cv::LINE_8);
    }
}

void DrawToolbar(cv::Mat& img, const Layout& l, const Palette& p, bool real) {
    FillRect(img, l.toolbar, real ? kToolbarGround : kPlaceholder);
    const int slot = l.width / kToolbarIcons;
    const int size = Px(20, l.unit);
    const int y = l.toolbar.y + (l.toolbar.height - size) / 2;
    for (int k = 0; k < kToolbarIcons; ++k) {
        const cv::Rect icon(k * slot + (slot - size) / 2, y, size, size);
        if (!real) {
            FillRect(img, icon, cv::Scalar(205, 205, 205));
            continue;
        }
        FillRect(img, icon, k == 0 ? p.brand : kIconGrey);
    }
    if (real) {
        FillRect(img, cv::Rect(0, l.toolbar.y, l.width, std::max(1, Px(1, l.unit))),
                 cv::Scalar(200, 200, 200));
    }
}

// The picture: a mosaic of seeded bright tiles on a dark ground, filling the
// picture area. Its tiles make a few hundred objects and its dark ground makes
// it differ strongly from the light placeholder it replaces.
void DrawMosaic(cv::Mat& img, const Layout& l, unsigned seed) {
    FillRect(img, l.picture, kMosaicGround);
    Random random(seed, kSaltMosaic);
    const double pitchX = static_cast<double>(l.picture.width) / kMosaicColumns;
    const double pitchY = static_cast<double>(l.picture.height) / kMosaicRows;
    const int gap = std::max(3, static_cast<int>(std::lround(0.2 * std::min(pitchX, pitchY))));
    for (int row = 0; row < kMosaicRows; ++row) {
        for (int col = 0; col < kMosaicColumns; ++col) {
            const int x0 = l.picture.x + static_cast<int>(std::lround(col * pitchX)) + gap;
            const int y0 = l.picture.y + static_cast<int>(std::lround(row * pitchY)) + gap;
            const int x1 = l.picture.x + static_cast<int>(std::lround((col + 1) * pitchX));
            const int y1 = l.picture.y + static_cast<int>(std::lround((row + 1) * pitchY));
            const cv::Scalar colour(random.Range(110, 255), random.Range(110, 255), random.Range(110, 255));
            FillRect(img, cv::Rect(x0, y0, std::max(1, x1 - x0), std::max(1, y1 - y0)), colour);
        }
    }
}

void DrawPicturePlaceholder(cv::Mat& img, const Layout& l) {
    // Inset, so that none of its outlines coincides with the picture's own.
    const int inset = std::max(3, Px(6, l.unit));
    FillRect(img, cv::Rect(l.picture.x + inset, l.picture.y + inset, l.picture.width - 2 * inset,
                           l.picture.height - 2 * inset),
             kPicturePlaceholder);
}

void DrawTextLine(cv::Mat& img, const Layout& l, unsigned seed, int line, bool real) {
    const cv::Rect band = LineBand(l, line);
    if (!real) {
        FillRect(img, band, kPlaceholder);
        return;
    }
    const bool lastOfParagraph = line % kLinesPerParagraph == kLinesPerParagraph - 1;
    Random random(seed, kSaltLine + static_cast<std::uint64_t>(line));
    DrawGlyphRow(img, band, lastOfParagraph ? 8 : 15, random, kInk);
}

void DrawPage(cv::Mat& img, const Layout& l, const Palette& p, unsigned seed, const PageState& s,
              const std::string& clock) {
    img.setTo(kWhite);
    DrawStatusBar(img, l, clock, &p.brand);
    DrawAppBar(img, l, p, seed, s.bars);
    DrawToolbar(img, l, p, s.bars);
    if (s.picture) {
        DrawMosaic(img, l, seed);
    } else {
        DrawPicturePlaceholder(img, l);
    }
    for (int line = 0; line < kTextLines; ++line) {
        DrawTextLine(img, l, seed, line, line < s.lines);
    }
}

// "name: frames a-b, from t ms", or "name: none" for an empty stage.
std::string DescribeStage(const SampleTruth& t, const char* name, int first, int end) {
    if (end <= first) {
        return std::string(name) + ": none";
    }
    char text[96];
    std::snprintf(text, sizeof text, "%s: frames %d-%d, from %.1f ms", name, first, end - 1,
                  t.timesMs[static_cast<size_t>(first)]);
    return text;
}

}  // namespace

SampleTruth PlanSample(const SampleOptions& o) {
    CheckOptions(o);
    SampleTruth t;
    t.frameCount = static_cast<int>(std::llround(o.seconds * o.fps));
    const int n = t.frameCount;
    double share = o.launcherShare;
    t.splashStart = FrameAt(share, n);
    share += o.splashShare;
    t.splashEnd = FrameAt(share, n);
    t.skeletonStart = t.splashEnd;
    share += o.skeletonShare;
    t.contentStart = FrameAt(share, n);
    share += o.contentShare;
    t.loadedIndex = FrameAt(share, n);
    Require(t.splashEnd > t.splashStart, "the splash gets no frame; raise splashShare or seconds");
    const int contentFrames = t.loadedIndex - t.contentStart;
    Require(contentFrames >= o.contentSteps,
            "some content step gets no frame; raise contentShare or seconds, or lower contentSteps");
    Require(t.loadedIndex < n, "the loaded page gets no frame; lower the stage shares or raise seconds");
    for (int j = 0; j < o.contentSteps; ++j) {
        t.contentStepStarts.push_back(t.contentStart + (j * contentFrames) / o.contentSteps);
    }
    t.timesMs = CaptureTimes(o, n);
    return t;
}

cv::Mat RenderFrame(const SampleOptions& o, const SampleTruth& t, int index) {
    if (index < 0 || index >= t.frameCount || static_cast<size_t>(index) >= t.timesMs.size()) {
        throw std::out_of_range("sample: frame index " + std::to_string(index) + " outside the recording");
    }
    const Layout layout = MakeLayout(o.width, o.height);
    const Palette palette = MakePalette(o.seed);
    const std::string clock = ClockText(o.seed, t.timesMs[static_cast<size_t>(index)]);
    cv::Mat img(o.height, o.width, CV_8UC3);
    const FrameStage stage = StageOf(t, index);
    switch (stage.stage) {
    case Stage::Launcher:
        DrawLauncher(img, layout, palette, o.seed);
        DrawStatusBar(img, layout, clock, nullptr);
        break;
    case Stage::Splash:
        DrawSplash(img, layout, palette);
        break;
    default:
        DrawPage(img, layout, palette, o.seed, PageStateOf(stage, o.contentSteps), clock);
        break;
    }
    return img;
}

std::vector<cv::Mat> RenderAllFrames(const SampleOptions& o, const SampleTruth& t) {
    std::vector<cv::Mat> frames;
    frames.reserve(static_cast<size_t>(t.frameCount));
    for (int k = 0; k < t.frameCount; ++k) {
        frames.push_back(RenderFrame(o, t, k));
    }
    return frames;
}

SampleTruth WriteSampleVideo(const std::string& path, const SampleOptions& o) {
    Require(o.timeJitter == 0.0, "a video has one frame rate; timeJitter must be 0");
    const SampleTruth t = PlanSample(o);
    VideoWriter writer(path, o.width, o.height, o.fps);
    for (int k = 0; k < t.frameCount; ++k) {
        writer.Write(RenderFrame(o, t, k));
    }
    writer.Close();
    return t;
}

std::vector<std::string> SampleFrameNames(const SampleTruth& t, std::int64_t startMs) {
    Require(startMs >= 0, "startMs must not be negative");
    std::vector<std::int64_t> stamps;
    stamps.reserve(t.timesMs.size());
    for (double ms : t.timesMs) {
        stamps.push_back(startMs + std::llround(ms));
    }
    const std::int64_t largest = stamps.empty() ? startMs : *std::max_element(stamps.begin(), stamps.end());
    const int width = static_cast<int>(std::to_string(largest).size());
    std::vector<std::string> names;
    names.reserve(stamps.size());
    for (std::int64_t stamp : stamps) {
        std::string digits = std::to_string(stamp);
        names.push_back(std::string(static_cast<size_t>(width) - digits.size(), '0') + digits + ".png");
    }
    return names;
}

SampleTruth WriteSampleFrames(const std::string& dir, const SampleOptions& o, std::int64_t startMs) {
    const SampleTruth t = PlanSample(o);
    const std::vector<std::string> names = SampleFrameNames(t, startMs);
    std::filesystem::create_directories(dir);
    for (int k = 0; k < t.frameCount; ++k) {
        const std::string file = (std::filesystem::path(dir) / names[static_cast<size_t>(k)]).string();
        WritePng(file, RenderFrame(o, t, k));
    }
    return t;
}

std::string DescribeTruth(const SampleTruth& t) {
    std::ostringstream out;
    out << "frames: " << t.frameCount << '\n';
    out << DescribeStage(t, "launcher", 0, t.splashStart) << '\n';
    out << DescribeStage(t, "splash", t.splashStart, t.splashEnd) << '\n';
    out << DescribeStage(t, "skeleton", t.skeletonStart, t.contentStart) << '\n';
    out << DescribeStage(t, "content", t.contentStart, t.loadedIndex) << ", steps at";
    for (int start : t.contentStepStarts) {
        out << ' ' << start;
    }
    out << '\n';
    out << DescribeStage(t, "loaded", t.loadedIndex, t.frameCount) << '\n';
    out << "expected: loadFinishedIndex " << t.loadedIndex << ", logoAppearIndex " << t.splashStart
        << ", logoDisappearIndex " << t.splashEnd << ", firstFrameIndex " << t.splashEnd << '\n';
    return out.str();
}

}  // namespace vyra::sample
