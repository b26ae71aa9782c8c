/*
 * libvyra - visual progress of a page launch: the progress curve, first and
 * last visual change, visually complete 85/95/99 and speed index.
 *
 * The frames are fed one at a time to a vyra::VisualProgressTracker, which
 * keeps per frame only its three colour histograms, its time and how much of
 * it changed, never the frame itself; Finish() turns what was collected into a vyra::VisualProgress.
 *
 * Definitions
 * -----------
 * Frames are numbered k = 0 .. n-1 in the order AddFrame() accepted them, and
 * t_k is the time the caller gave with frame k. F is frame 0, L is frame n-1.
 *
 * Histograms. For each channel c in (B, G, R), H_k,c[v] is the number of
 * pixels of frame k whose channel c has the value v (0..255), counted exactly
 * in integers; P_k is the pixel count of frame k.
 *
 * Tolerant histogram distance. Two histograms a (P_a pixels) and b (P_b
 * pixels) are first brought to the same total mass, exactly, in integers:
 * a[v] * (P_b / g) and b[v] * (P_a / g), with g = gcd(P_a, P_b), both summing
 * to S = lcm(P_a, P_b). Imagine each unit of mass as one pixel value; a unit
 * of a at value x and a unit of b at value y may be paired when
 * |x - y| <= s, where s = VisualProgressOptions::histogramSlop. With M the
 * largest number of units that can be paired that way,
 *
 *     dist_s(a, b) = 2 * (S - M)            (in units of 1 / S)
 *
 * that is the mass left unpaired on both sides. For s = 0 it is the plain
 * L1 distance sum_v |a[v] - b[v]|; a slop s > 0 forgives every shift of a
 * colour by up to s levels, so that compression noise, which smears one
 * colour over neighbouring values, does not read as a change of content.
 * dist_s is symmetric and 0 for equal histograms; dist_s / S lies in [0, 2].
 *
 * Progress. For frame k, with T_c = dist_s(H_F,c, H_L,c) / S_FL and
 * D_k,c = dist_s(H_k,c, H_L,c) / S_kL (both normalised to fractions of
 * a frame, so frames of different sizes compare by their colour shares):
 *
 *     progress[k] = sum_c max(0, T_c - D_k,c) / sum_c T_c
 *
 * the share of the way from the first frame's colours to the last frame's
 * colours that frame k has covered, summed over the three channels (so a
 * channel weighs as much as its colours change; channels that do not change
 * add nothing). progress[k] lies in [0, 1]; progress[n-1] = 1, and
 * progress[0] = 0 unless sum_c T_c = 0. When sum_c T_c = 0 (the first and the
 * last frame have the same colours within the slop: the page never changed)
 * every frame's progress is 1. When all frames have the same size, numerator
 * and denominator are exact integers and progress is their correctly rounded
 * quotient, so a page gaining solid blocks of p of its final q changed pixels
 * reads exactly p / q. Frames of other sizes than F and L are compared by
 * their shares as well; the arithmetic is then rounded to long double.
 *
 * Pixel change. Two frames of equal size are compared block by block: each
 * frame is cut into blocks of B x B pixels, B = VisualProgressOptions::
 * blockSize, starting at the top-left corner (blocks at the right and bottom
 * edges are cut short by the frame border). A block has changed when the mean
 * of one of its channels differs between the two frames by more than
 * VisualProgressOptions::levelTolerance levels (exactly: when the integer
 * channel sums of the block differ by more than levelTolerance times its
 * pixel count). Averaging over a block first makes the comparison deaf to the
 * ringing and grain that lossy encoding adds around edges, which moves single
 * pixels by tens of levels but block means by little, while any visible
 * element of a few blocks' size still moves the means of the blocks it
 * covers. The changed fraction of the pair is the pixel count of the changed
 * blocks over the frame's pixel count. Two frames DIFFER when the changed
 * fraction is greater than VisualProgressOptions::areaTolerance. Frames of
 * different sizes always differ (changed fraction 1).
 *
 * First visual change: the first k >= 1 whose frame differs from frame 0;
 * -1 when none does.
 * Last visual change: the last k >= 1 whose frame differs from frame k-1;
 * -1 when none does.
 *
 * Estimated level tolerance. With kVisualProgressLevelToleranceAuto the
 * tolerance is read from the frames when the tracker finishes, from how much
 * of each frame changed at every level. Lossy video re-encodes still parts of
 * the picture, at key frames over all of it, and moves their block means by a
 * few levels: a frame pair that changed over at least 1 % of the frame, and
 * nowhere (beyond the area tolerance) by more than 32 levels, is taken for
 * coding noise, and the tolerance is the smallest level at which every such
 * pair counts as unchanged (0 when there is none). Real content arriving
 * moves block means by far more than 32 levels somewhere (text, pictures,
 * icons), so its pairs are not taken for noise. vyra::Measure skips the
 * estimate for recordings stored losslessly (folders of PNG files, lossless
 * video codecs) and uses 0: every change of their pixels is real.
 *
 * Visually complete (100 %): the first k such that no frame m >= k differs
 * from the last frame (by the pixel change test above): from k on, the
 * screen shows the final picture, within the level tolerance (twice an
 * estimated tolerance: the estimate is read from consecutive frames, while
 * a frame and the last one may lie groups of pictures apart, where a
 * coder's drift adds up; without it, H.264 at CRF 23 put visually complete
 * 9 frames late on a generated launch in the tests). It is worked
 * out when the tracker finishes, from the block sums of the latest frames
 * that differ from the frame before them, kept in a window of
 * kVisualCompleteWindowBytes; when every frame of that window looks like the
 * last one, the first frame of the window is reported (a recording needs
 * more than about 80 distinct frames of 1080x1920 at its end, all alike the
 * last within the tolerance, for that to come before the true answer).
 *
 * Visually complete at threshold x: the first k such that
 * progress[m] >= x for every m >= k; the moment the curve reaches x for
 * the last time and stays, not its first crossing. It always exists for a
 * non-empty recording (progress[n-1] = 1).
 *
 * Speed index, in ms, is the area above the progress curve from t_0 up to
 * the time of the last visual change e, reading the curve as a step
 * function (frame k's progress holds from t_k until t_k+1):
 *
 *     SI = sum_{k=0}^{e-1} (1 - progress[k]) * (t_k+1 - t_k)
 *
 * SI is 0 when there is no visual change (e = -1) and NaN for an empty
 * recording.
 *
 * Supported frames
 * ----------------
 * 8-bit matrices with 1, 3 or 4 channels, continuous or not (ROI views of a
 * bigger frame are fine): 3 channels are read as B, G, R; 4 channels as B, G,
 * R, A with A ignored; 1 channel as grey, counting as B = G = R. Anything
 * else (empty matrices, other depths or channel counts, more than 2^32 - 1
 * pixels) is refused. Cropping and masking are the caller's business: every
 * pixel of the matrix takes part.
 *
 * Errors, threads, lifetimes
 * --------------------------
 * Refusals are reported by value (AddFrame returns false) and leave the
 * tracker as it was. Exceptions from memory allocation or OpenCV pass through;
 * the tracker raises none of its own. A tracker is a plain value with no
 * shared state: while one thread adds frames no other may use the tracker;
 * const calls (Finish, FrameCount, Options) may run from several threads at
 * once; different trackers are independent. Frames passed in are only read during the call and may be
 * reused or released right after it.
 */
#ifndef VYRA_VISUAL_PROGRESS_H
#define VYRA_VISUAL_PROGRESS_H

#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraExport.h"

namespace vyra {

/*
 * Default tolerances, and how they were chosen. Two kinds of synthetic
 * launches were encoded and decoded again: (a) a white page gaining an app
 * bar and six rows of gradient thumbnails with anti-aliased text one by one,
 * then a 16x16 icon and a short word, then held still; (b) the sample
 * recordings of tools/sample (launcher, splash, skeleton, content steps, a
 * loaded page with a mosaic picture of a few hundred tiles), status bar
 * clock cropped off, seeds 1 and 2. Sizes 360x640 and 720x1280 at 30 fps;
 * codecs MPEG-4 part 2 (OpenCV "mp4v", a key frame every 12 frames) and
 * H.264 (libx264, yuv420p, a key frame every 30 or 60 frames, CRF 23, 30,
 * 36). Largest changed fraction between decoded frames whose sources were
 * identical, in 8x8 blocks:
 *
 *   level  8: 0 (mp4v, CRF 23), up to 0.011 (CRF 30), up to 0.07 (CRF 36)
 *   level 12: 0 (mp4v), up to 0.00007 (CRF 23), 0.00087 (CRF 30), 0.017 (CRF 36)
 *   level 16: 0 (mp4v, CRF 23), up to 0.00022 (CRF 30, (b)), 0.0026 (CRF 36)
 *   level 20: 0 (mp4v, CRF 23, CRF 30), up to 0.00056 (CRF 36)
 *   level 24: 0, but for 0.00007 once at CRF 36
 *
 * Single pixels instead of blocks are hopeless: at level 16, 0.011 of the
 * pixels of a still page change at CRF 23 and 0.076 at CRF 30 (360x640).
 * The noise comes almost only from key frames, which re-encode the whole
 * still page. The smallest real change, the icon of (a) at 720x1280, changed
 * 0.00021 to 0.00028 of the frame (one 8x8 block of a 360x640 frame is
 * 0.00028). Hence 8x8 blocks, 20 levels and an area tolerance of 0.0002:
 * that icon still counts, the noise up to CRF 30 does not. A recording as
 * lossy as CRF 36 may show a late false change at a key frame; raise
 * levelTolerance to 24 for such recordings.
 *
 * For the progress, decoded frames of the finished page read, against the
 * last decoded frame, as low as 0.986 with a slop of 4 levels ((a), CRF 36:
 * visually complete 99 slips to the last key frame) and at least 0.9994 with
 * a slop of 8 in every case; hence 8. The recording tests of the suite keep
 * these defaults honest.
 */

/** Default of VisualProgressOptions::blockSize. */
constexpr int kVisualProgressBlockSize = 8;

/**
 * VisualProgressOptions::levelTolerance that asks the tracker to estimate the
 * tolerance from the frames themselves (see "Estimated level tolerance"); the
 * default.
 */
constexpr int kVisualProgressLevelToleranceAuto = -1;

/** A fixed level tolerance that suits video up to H.264 CRF 30 (see above). */
constexpr int kVisualProgressLevelTolerance = 20;

/** Default of VisualProgressOptions::areaTolerance. */
constexpr double kVisualProgressAreaTolerance = 0.0002;

/** Default of VisualProgressOptions::histogramSlop. */
constexpr int kVisualProgressHistogramSlop = 8;

/** Bytes of block sums a tracker keeps to find visually complete (see above). */
constexpr size_t kVisualCompleteWindowBytes = size_t(32) << 20;

/** Noise tolerances of the visual progress measures (see the file comment). */
struct VYRA_API VisualProgressOptions {
    /**
     * Side in pixels of the square blocks whose channel means are compared to
     * detect a change. Clamped to 1..256; 1 compares single pixels.
     */
    int blockSize = kVisualProgressBlockSize;

    /**
     * Levels (0..255) by which a block's channel mean may differ between two
     * frames and still count as unchanged; values above 255 count as 255.
     * kVisualProgressLevelToleranceAuto (any negative value): estimated from
     * the frames when the tracker finishes.
     */
    int levelTolerance = kVisualProgressLevelToleranceAuto;

    /**
     * Fraction of a frame's pixels, in changed blocks, up to which the frame
     * still counts as not different. Clamped to [0, 1]; NaN means the default.
     */
    double areaTolerance = kVisualProgressAreaTolerance;

    /**
     * Levels (0..255) by which a colour value may move in the histograms and
     * still count as the same colour for the progress. Clamped to 0..255.
     */
    int histogramSlop = kVisualProgressHistogramSlop;
};

/**
 * What a VisualProgressTracker measured. Indices are frame numbers; every
 * ...Ms time is the timeMs the caller gave with that frame (on the caller's
 * clock, not counted from frame 0), except speedIndexMs, which is a duration.
 */
struct VYRA_API VisualProgress {
    /** The time of every accepted frame, in ms, as given to AddFrame. */
    std::vector<double> timesMs;

    /** progress[k] in [0, 1], one entry per frame. */
    std::vector<double> progress;

    /**
     * changedFraction[k]: fraction of the pixels of frame k that changed
     * against frame k-1 (see "Pixel change"); 0 for frame 0.
     */
    std::vector<double> changedFraction;

    /** First frame that differs from frame 0, or -1; its time, or NaN. */
    int firstVisualChange = -1;
    double firstVisualChangeMs = std::numeric_limits<double>::quiet_NaN();

    /** Last frame that differs from its predecessor, or -1; its time, or NaN. */
    int lastVisualChange = -1;
    double lastVisualChangeMs = std::numeric_limits<double>::quiet_NaN();

    /** Visually complete at 0.85, 0.95, 0.99: frame (or -1 when empty) and time (or NaN). */
    int visuallyComplete85 = -1;
    double visuallyComplete85Ms = std::numeric_limits<double>::quiet_NaN();
    int visuallyComplete95 = -1;
    double visuallyComplete95Ms = std::numeric_limits<double>::quiet_NaN();
    int visuallyComplete99 = -1;
    double visuallyComplete99Ms = std::numeric_limits<double>::quiet_NaN();

    /** Visually complete (100 %): frame (or -1 when empty) and time (or NaN). */
    int visuallyComplete = -1;
    double visuallyCompleteMs = std::numeric_limits<double>::quiet_NaN();

    /** Speed index in ms; 0 without visual change, NaN for no frames. */
    double speedIndexMs = std::numeric_limits<double>::quiet_NaN();

    /** The level tolerance the changes above were found with. */
    int levelTolerance = 0;
    /** True when levelTolerance was estimated from the frames (asked for with kVisualProgressLevelToleranceAuto). */
    bool levelToleranceEstimated = false;
};

/**
 * Collects, frame by frame, what the visual progress measures need.
 *
 * Memory: per accepted frame 5 KiB of histograms and change levels and a
 * few numbers; besides, the block sums of the frame being added, of the
 * previous frame and of frame 0 (12 bytes per block each, 0.4 MB for a
 * 1920x1080 frame in 8x8 blocks), and those of the latest distinct frames up
 * to kVisualCompleteWindowBytes. No pixels are kept.
 * Each AddFrame makes one pass over the frame's pixels and allocates only
 * when the frame size changes or the frame list grows. Finish compares every
 * frame's histograms with the last frame's: about 3 x 256 x (2 x slop + 1)
 * steps per frame, no pixels.
 *
 * Copying a tracker copies everything it collected; a moved-from tracker may
 * only be assigned to or destroyed.
 */
class VYRA_API VisualProgressTracker {
public:
    explicit VisualProgressTracker(const VisualProgressOptions& options = {});
    VisualProgressTracker(const VisualProgressTracker& other);
    VisualProgressTracker& operator=(const VisualProgressTracker& other);
    VisualProgressTracker(VisualProgressTracker&& other) noexcept;
    VisualProgressTracker& operator=(VisualProgressTracker&& other) noexcept;
    ~VisualProgressTracker();

    /**
     * Adds the next frame, shown from @p timeMs on.
     *
     * @return true when the frame was taken; false, leaving the tracker
     *         unchanged, when the frame is not a supported matrix (see
     *         "Supported frames"), or @p timeMs is not finite, or is earlier
     *         than the previous frame's time (equal times are accepted).
     *         When an exception passes through, the tracker is unchanged too.
     */
    bool AddFrame(const cv::Mat& frame, double timeMs);

    /**
     * Adds the next frame when its pixels are byte-identical to those of the
     * frame added last, shown from @p timeMs on. Records exactly what
     * AddFrame() would record for that frame, without reading any pixel: a
     * caller that already knows two frames are equal saves the scan.
     *
     * @return false, leaving the tracker unchanged, when no frame was added
     *         yet, or @p timeMs is not finite or earlier than the previous
     *         frame's time; else true.
     */
    bool AddRepeatedFrame(double timeMs);

    /**
     * Adds the next frame when the caller knows where it can differ from the
     * frame added last: @p previous holds that frame's pixels and
     * @p changedRows the row ranges outside which the two frames are
     * byte-identical. Records exactly what AddFrame(frame, timeMs) would
     * record, reading only the block rows the ranges touch (and of
     * @p previous only the rows inside the ranges). When @p previous does not
     * have the size and type of @p frame and of the frame added last, the
     * whole frame is read as by AddFrame().
     *
     * @return as AddFrame().
     */
    bool AddChangedFrame(const cv::Mat& frame, double timeMs, const cv::Mat& previous,
                         const std::vector<cv::Range>& changedRows);

    /** Number of frames taken so far. */
    int FrameCount() const;

    /** The options in use, after clamping. */
    const VisualProgressOptions& Options() const;

    /**
     * The measures over the frames taken so far. Finish does not change the
     * tracker: more frames may follow and Finish may be called again. With no
     * frames, every vector is empty, every index -1 and every time NaN.
     */
    VisualProgress Finish() const;

private:
    bool add(const cv::Mat& frame, double timeMs, const cv::Mat* previous,
             const std::vector<cv::Range>* changedRows);
    // Keeps the block sums of frame @p index, just scanned, in the window.
    void remember(int index);
    // Visually complete at @p tolerance (see the file comment).
    int lastLikeEnd(int tolerance) const;

    struct State;
    std::unique_ptr<State> state_;
};

/**
 * The first k such that progress[m] >= threshold for every m >= k, or -1 when
 * @p progress is empty or its last value is below @p threshold.
 */
VYRA_API int VisuallyCompleteIndex(const std::vector<double>& progress, double threshold);

/**
 * sum_{k=0}^{endIndex-1} (1 - progress[k]) * (timesMs[k+1] - timesMs[k]):
 * the step-function area above the curve from timesMs[0] to timesMs[endIndex].
 * 0 when endIndex <= 0; NaN when the two vectors differ in length, are empty,
 * or endIndex is past their end.
 */
VYRA_API double SpeedIndexMs(const std::vector<double>& timesMs,
                             const std::vector<double>& progress, int endIndex);

}  // namespace vyra

#endif  // VYRA_VISUAL_PROGRESS_H
