#include "VyraVisualProgress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <numeric>

namespace vyra {

namespace {

constexpr int kBins = 256;
constexpr int kChannels = 3;

// Coding noise, as the level estimate looks for it: a frame pair whose
// blocks moved over at least kNoiseSpread of the frame, none of them
// (beyond the area tolerance) by more than kNoiseCeiling levels.
constexpr double kNoiseSpread = 0.01;
constexpr int kNoiseCeiling = 32;

using Histogram = std::array<std::uint32_t, kChannels * kBins>;  // B, G, R

// How two frames differ, for every level tolerance at once:
// pixelsAbove[l] is the pixel count of the blocks whose largest channel-mean
// difference exceeds l levels but not l + 1 (exactly: whose largest integer
// channel-sum difference d has floor((d - 1) / pixels of the block) = l), so
// the blocks that change at tolerance t hold sum_{l >= t} pixelsAbove[l]
// pixels. Frames of different sizes change wholly at every tolerance.
struct ChangeLevels {
    std::array<std::uint32_t, kBins> pixelsAbove{};
    bool sizeDiffers = false;
};

struct FrameRecord {
    Histogram histogram;
    std::uint64_t pixels;
    double timeMs;
    ChangeLevels sincePrevious;  // against frame k - 1 (nothing for frame 0)
    ChangeLevels sinceFirst;     // against frame 0
};

// Channel sums of the blocks of one frame, row by row of blocks, B G R per
// block, with the frame size they belong to.
struct BlockSums {
    cv::Size size;
    std::vector<std::uint32_t> sums;
};

VisualProgressOptions ClampOptions(VisualProgressOptions options) {
    options.blockSize = std::clamp(options.blockSize, 1, 256);
    options.levelTolerance = options.levelTolerance < 0 ? kVisualProgressLevelToleranceAuto
                                                        : std::min(options.levelTolerance, 255);
    if (std::isnan(options.areaTolerance)) {
        options.areaTolerance = kVisualProgressAreaTolerance;
    }
    options.areaTolerance = std::clamp(options.areaTolerance, 0.0, 1.0);
    options.histogramSlop = std::clamp(options.histogramSlop, 0, 255);
    return options;
}

bool IsSupportedFrame(const cv::Mat& frame) {
    if (frame.empty() || frame.dims != 2 || frame.depth() != CV_8U) {
        return false;
    }
    const int channels = frame.channels();
    if (channels != 1 && channels != 3 && channels != 4) {
        return false;
    }
    return frame.total() <= std::numeric_limits<std::uint32_t>::max();
}

int BlockCount(int length, int block) {
    return (length + block - 1) / block;
}

// Adds one row of pixels to the histogram and to the sums of the blocks it
// crosses. One channel reads as grey (B = G = R); a fourth one is skipped.
template <int Cn>
void AccumulateRow(const uchar* row, int width, int block, std::uint32_t* histogram,
                   std::uint32_t* blockSums) {
    for (int x0 = 0; x0 < width; x0 += block, blockSums += kChannels) {
        const int x1 = std::min(width, x0 + block);
        for (int x = x0; x < x1; ++x) {
            const uchar* pixel = row + x * Cn;
            for (int c = 0; c < kChannels; ++c) {
                const uchar v = pixel[Cn == 1 ? 0 : c];
                ++histogram[c * kBins + v];
                blockSums[c] += v;
            }
        }
    }
}

// Takes one row of pixels out of the histogram again.
template <int Cn>
void RemoveRow(const uchar* row, int width, std::uint32_t* histogram) {
    for (int x = 0; x < width; ++x) {
        const uchar* pixel = row + x * Cn;
        for (int c = 0; c < kChannels; ++c) {
            --histogram[c * kBins + pixel[Cn == 1 ? 0 : c]];
        }
    }
}

// Recomputes the block sums of the block rows from `firstBlockRow` up to
// (not including) `endBlockRow`, adding their pixels to the histogram. With
// `previous`, rows for which `rowChanged` holds first take the previous
// frame's row out of the histogram, and the other rows are taken to be in
// the histogram already: the histogram moves from the previous frame's to
// this frame's.
template <int Cn>
void ScanBlockRows(const cv::Mat& frame, int block, int firstBlockRow, int endBlockRow,
                   const cv::Mat* previous, const std::vector<char>& rowChanged,
                   std::uint32_t* histogram, BlockSums& out) {
    const size_t rowValues = static_cast<size_t>(BlockCount(frame.cols, block)) * kChannels;
    std::vector<std::uint32_t> unused(kChannels * kBins);
    for (int r = firstBlockRow; r < endBlockRow; ++r) {
        std::uint32_t* sums = out.sums.data() + static_cast<size_t>(r) * rowValues;
        std::fill(sums, sums + rowValues, 0u);
        for (int y = r * block; y < std::min(frame.rows, (r + 1) * block); ++y) {
            const bool counted = previous == nullptr || rowChanged[static_cast<size_t>(y)];
            if (previous != nullptr && counted) {
                RemoveRow<Cn>(previous->ptr<uchar>(y), frame.cols, histogram);
            }
            AccumulateRow<Cn>(frame.ptr<uchar>(y), frame.cols, block, counted ? histogram : unused.data(), sums);
        }
    }
}

void ScanBlockRows(const cv::Mat& frame, int block, int firstBlockRow, int endBlockRow,
                   const cv::Mat* previous, const std::vector<char>& rowChanged,
                   std::uint32_t* histogram, BlockSums& out) {
    switch (frame.channels()) {
        case 1: ScanBlockRows<1>(frame, block, firstBlockRow, endBlockRow, previous, rowChanged, histogram, out); break;
        case 3: ScanBlockRows<3>(frame, block, firstBlockRow, endBlockRow, previous, rowChanged, histogram, out); break;
        default: ScanBlockRows<4>(frame, block, firstBlockRow, endBlockRow, previous, rowChanged, histogram, out); break;
    }
}

// The one pass over a frame's pixels: its histogram and its block sums.
void ScanFrame(const cv::Mat& frame, int block, std::uint32_t* histogram, BlockSums& out) {
    out.size = frame.size();
    ScanBlockRows(frame, block, 0, BlockCount(frame.rows, block), nullptr, {}, histogram, out);
}

// Moves the histogram and block sums of the previous frame (given in
// `histogram` and `out`) to those of `frame`, reading only the block rows
// that `changedRows` touch.
void RescanChangedRows(const cv::Mat& frame, const cv::Mat& previous, int block,
                       const std::vector<cv::Range>& changedRows, std::uint32_t* histogram,
                       BlockSums& out) {
    std::vector<char> rowChanged(static_cast<size_t>(frame.rows), 0);
    std::vector<char> blockRowTouched(static_cast<size_t>(BlockCount(frame.rows, block)), 0);
    for (const cv::Range& range : changedRows) {
        for (int y = std::max(range.start, 0); y < std::min(range.end, frame.rows); ++y) {
            rowChanged[static_cast<size_t>(y)] = 1;
            blockRowTouched[static_cast<size_t>(y / block)] = 1;
        }
    }
    for (size_t r = 0; r < blockRowTouched.size(); ++r) {
        if (blockRowTouched[r]) {
            const int row = static_cast<int>(r);
            ScanBlockRows(frame, block, row, row + 1, &previous, rowChanged, histogram, out);
        }
    }
}

// The change levels of the blocks of two frames' block sums.
ChangeLevels LevelsOf(const BlockSums& a, const BlockSums& b, int block) {
    ChangeLevels levels;
    if (a.size != b.size) {
        levels.sizeDiffers = true;
        return levels;
    }
    size_t i = 0;
    for (int y0 = 0; y0 < a.size.height; y0 += block) {
        const int height = std::min(block, a.size.height - y0);
        for (int x0 = 0; x0 < a.size.width; x0 += block, i += kChannels) {
            const std::int64_t area = static_cast<std::int64_t>(height) * std::min(block, a.size.width - x0);
            std::int64_t largest = 0;
            for (int c = 0; c < kChannels; ++c) {
                const std::int64_t d = static_cast<std::int64_t>(a.sums[i + c]) - b.sums[i + c];
                largest = std::max(largest, d < 0 ? -d : d);
            }
            if (largest > 0) {
                const std::int64_t level = std::min<std::int64_t>((largest - 1) / area, kBins - 1);
                levels.pixelsAbove[static_cast<size_t>(level)] += static_cast<std::uint32_t>(area);
            }
        }
    }
    return levels;
}

// Pixels in the blocks whose channel mean differs by more than @p tolerance
// levels; all @p pixels when the frames' sizes differ.
std::uint64_t ChangedPixels(const ChangeLevels& levels, int tolerance, std::uint64_t pixels) {
    if (levels.sizeDiffers) {
        return pixels;
    }
    std::uint64_t changed = 0;
    for (int l = tolerance; l < kBins; ++l) {
        changed += levels.pixelsAbove[static_cast<size_t>(l)];
    }
    return changed;
}

// Mass left unpaired on one side when the units of a (scaled by scaleA) are
// paired with those of b (scaled by scaleB) across at most `slop` levels.
// Both scaled histograms have the same total. Pairing every unit of b, in
// increasing value, with the lowest still unpaired unit of a within reach is
// a maximum matching: the reach of each b value is an interval, and the
// intervals come in increasing order of both ends.
std::uint64_t UnpairedMass(const std::uint32_t* a, std::uint64_t scaleA, const std::uint32_t* b,
                           std::uint64_t scaleB, int slop) {
    std::array<std::uint64_t, kBins> left{};
    for (int v = 0; v < kBins; ++v) {
        left[v] = a[v] * scaleA;
    }
    std::uint64_t unpaired = 0;
    int lowest = 0;  // below this, `left` is all zero or out of reach
    for (int y = 0; y < kBins; ++y) {
        std::uint64_t need = b[y] * scaleB;
        lowest = std::max(lowest, y - slop);
        const int highest = std::min(kBins - 1, y + slop);
        for (int x = lowest; x <= highest && need > 0; ++x) {
            const std::uint64_t take = std::min(left[x], need);
            left[x] -= take;
            need -= take;
        }
        unpaired += need;
    }
    return unpaired;
}

// Unpaired mass per channel between two frames, with the common total S.
struct ChannelDistances {
    std::array<std::uint64_t, kChannels> unpaired;
    std::uint64_t total;
};

ChannelDistances Distances(const FrameRecord& a, const FrameRecord& b, int slop) {
    const std::uint64_t g = std::gcd(a.pixels, b.pixels);
    const std::uint64_t scaleA = b.pixels / g;
    const std::uint64_t scaleB = a.pixels / g;
    ChannelDistances d{};
    d.total = a.pixels * scaleA;
    for (int c = 0; c < kChannels; ++c) {
        d.unpaired[c] = UnpairedMass(a.histogram.data() + c * kBins, scaleA,
                                     b.histogram.data() + c * kBins, scaleB, slop);
    }
    return d;
}

// progress = sum_c max(0, T_c - D_c) / sum_c T_c with T_c = whole.unpaired[c] /
// whole.total and D_c = frame.unpaired[c] / frame.total. Common factors of the
// two totals are divided out first, so that for frames of one size the sums
// are exact integers and the quotient is rounded once.
double ProgressOf(const ChannelDistances& whole, const ChannelDistances& frame) {
    const std::uint64_t g = std::gcd(whole.total, frame.total);
    const long double wholeScale = static_cast<long double>(frame.total / g);
    const long double frameScale = static_cast<long double>(whole.total / g);
    long double numerator = 0;
    long double denominator = 0;
    for (int c = 0; c < kChannels; ++c) {
        const long double t = whole.unpaired[c] * wholeScale;
        const long double d = frame.unpaired[c] * frameScale;
        numerator += std::max(0.0L, t - d);
        denominator += t;
    }
    const double progress = static_cast<double>(numerator) / static_cast<double>(denominator);
    return std::clamp(progress, 0.0, 1.0);
}

double Fraction(std::uint64_t part, std::uint64_t whole) {
    return static_cast<double>(part) / static_cast<double>(whole);
}

// The smallest level tolerance at which @p levels are no change: at most
// areaTolerance of the frame's @p pixels lies in blocks that move by more.
int SettlingLevel(const ChangeLevels& levels, std::uint64_t pixels, double areaTolerance) {
    if (levels.sizeDiffers) return kBins - 1;
    std::uint64_t above = 0;  // pixels of the blocks at levels >= l
    for (int l = kBins - 1; l >= 0; --l) {
        above += levels.pixelsAbove[static_cast<size_t>(l)];
        if (Fraction(above, pixels) > areaTolerance) return l + 1;
    }
    return 0;
}

// The coding noise a recording's frames show (see "Estimated level
// tolerance" in the header): the largest settling level of the frame pairs
// that changed a little over much of the frame and nowhere a lot.
int EstimateLevelTolerance(const std::vector<FrameRecord>& frames, double areaTolerance) {
    int tolerance = 0;
    for (size_t k = 1; k < frames.size(); ++k) {
        const ChangeLevels& levels = frames[k].sincePrevious;
        const std::uint64_t pixels = frames[k].pixels;
        if (levels.sizeDiffers || Fraction(ChangedPixels(levels, 0, pixels), pixels) < kNoiseSpread ||
            Fraction(ChangedPixels(levels, kNoiseCeiling, pixels), pixels) > areaTolerance) {
            continue;
        }
        tolerance = std::max(tolerance, SettlingLevel(levels, pixels, areaTolerance));
    }
    return tolerance;
}

double TimeOf(const std::vector<double>& timesMs, int index) {
    return index >= 0 ? timesMs[index] : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

// The block sums of a frame that differs from the one before it, kept to
// compare it with the last frame when the tracker finishes.
struct Snapshot {
    int firstIndex;  // the frame; the frames up to the next snapshot have its pixels
    BlockSums sums;
};

struct VisualProgressTracker::State {
    VisualProgressOptions options;
    std::vector<FrameRecord> frames;
    BlockSums current;   // scratch for the frame being added
    BlockSums previous;  // of the last frame taken
    BlockSums first;     // of frame 0
    std::deque<Snapshot> recent;  // the latest distinct frames, newest last
    size_t recentBytes = 0;
};

VisualProgressTracker::VisualProgressTracker(const VisualProgressOptions& options)
    : state_(std::make_unique<State>()) {
    state_->options = ClampOptions(options);
}

VisualProgressTracker::VisualProgressTracker(const VisualProgressTracker& other)
    : state_(std::make_unique<State>(*other.state_)) {}

VisualProgressTracker& VisualProgressTracker::operator=(const VisualProgressTracker& other) {
    if (this != &other) {
        state_ = std::make_unique<State>(*other.state_);
    }
    return *this;
}

VisualProgressTracker::VisualProgressTracker(VisualProgressTracker&&) noexcept = default;
VisualProgressTracker& VisualProgressTracker::operator=(VisualProgressTracker&&) noexcept = default;
VisualProgressTracker::~VisualProgressTracker() = default;

bool VisualProgressTracker::AddFrame(const cv::Mat& frame, double timeMs) {
    return add(frame, timeMs, nullptr, nullptr);
}

bool VisualProgressTracker::AddChangedFrame(const cv::Mat& frame, double timeMs, const cv::Mat& previous,
                                            const std::vector<cv::Range>& changedRows) {
    return add(frame, timeMs, &previous, &changedRows);
}

bool VisualProgressTracker::add(const cv::Mat& frame, double timeMs, const cv::Mat* previous,
                                const std::vector<cv::Range>* changedRows) {
    State& s = *state_;
    if (!IsSupportedFrame(frame) || !std::isfinite(timeMs) ||
        (!s.frames.empty() && timeMs < s.frames.back().timeMs)) {
        return false;
    }
    const bool incremental = previous != nullptr && !s.frames.empty() && s.previous.size == frame.size() &&
                             previous->size() == frame.size() && previous->type() == frame.type();
    const int block = s.options.blockSize;
    const int index = static_cast<int>(s.frames.size());
    // Everything that may allocate comes first, so that an exception leaves
    // the collected state untouched.
    const size_t gridValues = static_cast<size_t>(BlockCount(frame.cols, block)) *
                              BlockCount(frame.rows, block) * kChannels;
    s.current.sums.resize(gridValues);
    if (index == 0) {
        s.first.sums.reserve(gridValues);
    }
    s.frames.reserve(s.frames.size() + 1);
    Histogram histogram;
    if (incremental) {
        histogram = s.frames.back().histogram;
        s.current.size = frame.size();
        std::copy(s.previous.sums.begin(), s.previous.sums.end(), s.current.sums.begin());
        RescanChangedRows(frame, *previous, block, *changedRows, histogram.data(), s.current);
    } else {
        histogram.fill(0);
        ScanFrame(frame, block, histogram.data(), s.current);
    }
    remember(index);
    FrameRecord& record = s.frames.emplace_back();
    record.histogram = histogram;
    record.pixels = frame.total();
    record.timeMs = timeMs;
    if (index == 0) {
        s.first.size = s.current.size;
        s.first.sums.assign(s.current.sums.begin(), s.current.sums.end());
    } else {
        record.sincePrevious = LevelsOf(s.current, s.previous, block);
        record.sinceFirst = LevelsOf(s.current, s.first, block);
    }
    std::swap(s.current, s.previous);
    return true;
}

void VisualProgressTracker::remember(int index) {
    State& s = *state_;
    Snapshot snapshot{index, s.current};
    const size_t bytes = snapshot.sums.sums.size() * sizeof(std::uint32_t);
    s.recent.push_back(std::move(snapshot));
    s.recentBytes += bytes;
    while (s.recent.size() > 1 && s.recentBytes > kVisualCompleteWindowBytes) {
        s.recentBytes -= s.recent.front().sums.sums.size() * sizeof(std::uint32_t);
        s.recent.pop_front();
    }
}

bool VisualProgressTracker::AddRepeatedFrame(double timeMs) {
    State& s = *state_;
    if (s.frames.empty() || !std::isfinite(timeMs) || timeMs < s.frames.back().timeMs) {
        return false;
    }
    // Equal pixels: the same histogram and pixel count, no changed block
    // against the previous frame, and against frame 0 what the previous
    // frame had. The block sums stay those of the previous frame, whose
    // snapshot stands for this frame too.
    FrameRecord record = s.frames.back();
    record.timeMs = timeMs;
    record.sincePrevious = ChangeLevels();
    s.frames.push_back(record);
    return true;
}

int VisualProgressTracker::FrameCount() const {
    return static_cast<int>(state_->frames.size());
}

const VisualProgressOptions& VisualProgressTracker::Options() const {
    return state_->options;
}

VisualProgress VisualProgressTracker::Finish() const {
    const State& s = *state_;
    const std::vector<FrameRecord>& frames = s.frames;
    const int slop = s.options.histogramSlop;
    VisualProgress result;
    result.levelToleranceEstimated = s.options.levelTolerance == kVisualProgressLevelToleranceAuto;
    result.levelTolerance = result.levelToleranceEstimated ? EstimateLevelTolerance(frames, s.options.areaTolerance)
                                                           : s.options.levelTolerance;
    if (frames.empty()) {
        return result;
    }
    const int tolerance = result.levelTolerance;
    const auto differs = [&](const ChangeLevels& levels, std::uint64_t pixels) {
        return Fraction(ChangedPixels(levels, tolerance, pixels), pixels) > s.options.areaTolerance;
    };
    const size_t n = frames.size();
    result.timesMs.reserve(n);
    result.progress.reserve(n);
    result.changedFraction.reserve(n);

    const FrameRecord& last = frames.back();
    const ChannelDistances whole = Distances(frames.front(), last, slop);
    const bool unchanged = whole.unpaired == decltype(whole.unpaired){};
    for (size_t k = 0; k < n; ++k) {
        const FrameRecord& frame = frames[k];
        const int index = static_cast<int>(k);
        result.timesMs.push_back(frame.timeMs);
        result.changedFraction.push_back(Fraction(ChangedPixels(frame.sincePrevious, tolerance, frame.pixels),
                                                  frame.pixels));
        result.progress.push_back(unchanged ? 1.0 : ProgressOf(whole, Distances(frame, last, slop)));
        if (k > 0 && result.changedFraction.back() > s.options.areaTolerance) {
            result.lastVisualChange = index;
        }
        if (k > 0 && result.firstVisualChange < 0 && differs(frame.sinceFirst, frame.pixels)) {
            result.firstVisualChange = index;
        }
    }
    result.firstVisualChangeMs = TimeOf(result.timesMs, result.firstVisualChange);
    result.lastVisualChangeMs = TimeOf(result.timesMs, result.lastVisualChange);
    const auto complete = [&result](double threshold, int& index, double& timeMs) {
        index = VisuallyCompleteIndex(result.progress, threshold);
        timeMs = TimeOf(result.timesMs, index);
    };
    complete(0.85, result.visuallyComplete85, result.visuallyComplete85Ms);
    complete(0.95, result.visuallyComplete95, result.visuallyComplete95Ms);
    complete(0.99, result.visuallyComplete99, result.visuallyComplete99Ms);
    // An estimate is read from consecutive frames; a frame and the last one
    // may lie groups of pictures apart, where the coder's drift adds up:
    // they are compared at twice the estimate.
    result.visuallyComplete = lastLikeEnd(result.levelToleranceEstimated ? std::min(255, 2 * tolerance) : tolerance);
    result.visuallyCompleteMs = TimeOf(result.timesMs, result.visuallyComplete);
    result.speedIndexMs = SpeedIndexMs(result.timesMs, result.progress, result.lastVisualChange);
    return result;
}

int VisualProgressTracker::lastLikeEnd(int tolerance) const {
    const State& s = *state_;
    const int n = static_cast<int>(s.frames.size());
    int end = n - 1;  // last frame the snapshot being looked at stands for
    for (auto it = s.recent.rbegin(); it != s.recent.rend(); ++it) {
        const std::uint64_t pixels = s.frames[static_cast<size_t>(end)].pixels;
        const ChangeLevels levels = LevelsOf(it->sums, s.previous, s.options.blockSize);
        if (Fraction(ChangedPixels(levels, tolerance, pixels), pixels) > s.options.areaTolerance) {
            return end + 1;
        }
        end = it->firstIndex - 1;
    }
    return s.recent.front().firstIndex;
}

int VisuallyCompleteIndex(const std::vector<double>& progress, double threshold) {
    int index = -1;
    for (int k = static_cast<int>(progress.size()) - 1; k >= 0 && progress[k] >= threshold; --k) {
        index = k;
    }
    return index;
}

double SpeedIndexMs(const std::vector<double>& timesMs, const std::vector<double>& progress,
                    int endIndex) {
    if (timesMs.empty() || timesMs.size() != progress.size() ||
        endIndex >= static_cast<int>(timesMs.size())) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    double area = 0.0;
    for (int k = 0; k < endIndex; ++k) {
        area += (1.0 - progress[k]) * (timesMs[k + 1] - timesMs[k]);
    }
    return area;
}

}  // namespace vyra
