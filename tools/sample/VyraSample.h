/*
 * vyra_sample - synthetic recordings of an app launch with known answers.
 *
 * A sample recording shows, in this order:
 *
 *   launcher  the home screen: a plain wallpaper, the status bar and a dock of
 *             a few icons along the bottom edge (no object in the middle);
 *   splash    a full-screen launch screen (status bar hidden): a plain
 *             background with a logo (disc, symbol, word mark) well inside
 *             the central area (20 %..80 % of the width, 25 %..75 % of the
 *             height), so every object of the frame lies in that area;
 *   skeleton  the page's placeholders: grey bars where the app bar, the
 *             picture, the text lines and the toolbar will be;
 *   content   `contentSteps` steps: step 1 brings the real app bar and
 *             toolbar, the following steps reveal the lines of the first
 *             paragraph; the picture area is still a light placeholder;
 *   loaded    the complete page: a large mosaic picture (a few hundred tiles,
 *             about a third of the screen) and every text line, held still.
 *
 * From the skeleton on (and on the launcher) a status bar at the top shows a
 * clock with seconds, driven by the capture time of the frame, so frames a
 * second apart always differ in a few pixels.
 *
 * The stages are built so that the static page analysis with the thresholds
 * 20.0, 0.5, 0.85, 0.15, 200 finds, on lossless frames:
 *   loadFinishedIndex  == loadedIndex    (every earlier frame has fewer
 *                         than 150 objects and a PSNR below 15 dB against
 *                         the loaded page; the loaded page has at least 300
 *                         objects, one per tile and glyph, and a content
 *                         ratio of at least 0.3)
 *   logoAppearIndex    == splashStart
 *   logoDisappearIndex == splashEnd
 *   firstFrameIndex    == splashEnd      (skeleton or, without skeleton, the
 *                                         first content frame)
 * Lossy video may move loadFinishedIndex by a frame.
 *
 * All geometry scales with the frame size; portrait and landscape frames from
 * 180 x 320 up to 1080 x 1920 (and 320 x 180 up to 1920 x 1080) are covered.
 * Everything is a pure function of the options: the same options give the
 * same pixels on every run.
 */
#ifndef VYRA_SAMPLE_H
#define VYRA_SAMPLE_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vyra::sample {

/**
 * What to generate. Stage lengths are shares of the recording's frame count
 * (frameCount = round(seconds * fps)); the loaded page holds the share left
 * over. Stage boundaries are frame indices: a stage starting at share S of the
 * recording starts at frame round(S * frameCount).
 */
struct SampleOptions {
    double seconds = 4.0;        ///< recording length, (0, 600]
    int fps = 30;                ///< nominal frame rate, 1..240
    int width = 360;             ///< frame width in pixels, 180..4096
    int height = 640;            ///< frame height in pixels, 180..4096
    unsigned seed = 1;           ///< colours, clock, glyph shapes, mosaic, time jitter

    double launcherShare = 0.10;  ///< home screen; may be 0 (the splash starts at frame 0)
    double splashShare = 0.20;    ///< launch screen; at least one frame
    double skeletonShare = 0.15;  ///< placeholders; may be 0
    double contentShare = 0.25;   ///< partial content, split evenly into contentSteps
    int contentSteps = 3;         ///< 1..16, each at least one frame

    /**
     * 0 for evenly spaced capture times (k * 1000 / fps ms). Above 0 (at most
     * 0.5) every frame interval is 1000 / fps * (1 + jitter * u) ms with u a
     * seeded value in [-1, 1): the times of a variable-frame-rate capture.
     * Only frame folders carry such times; a video is always constant-rate.
     */
    double timeJitter = 0.0;
};

/** Where each stage starts, by construction. All indices are frame indices from 0. */
struct SampleTruth {
    int frameCount = 0;
    int splashStart = 0;     ///< first splash frame (= number of launcher frames)
    int splashEnd = 0;       ///< first frame after the splash
    int skeletonStart = 0;   ///< equals splashEnd
    int contentStart = 0;    ///< first frame of content step 1 (= skeletonStart when there is no skeleton)
    int loadedIndex = 0;     ///< first frame of the fully loaded page
    std::vector<int> contentStepStarts;  ///< first frame of each content step; [0] == contentStart
    std::vector<double> timesMs;         ///< capture time of each frame, ms after frame 0
};

/**
 * The stage boundaries and capture times for @p options, without rendering.
 * @throws std::invalid_argument when an option is out of range or a stage
 *         that needs a frame (splash, each content step, loaded) gets none.
 */
SampleTruth PlanSample(const SampleOptions& options);

/**
 * Frame @p index (0 <= index < truth.frameCount) of the recording, as an
 * 8-bit BGR image of options.width x options.height. @p truth must be
 * PlanSample(options). The same arguments always give the same pixels.
 * @throws std::out_of_range for an index outside the recording.
 */
cv::Mat RenderFrame(const SampleOptions& options, const SampleTruth& truth, int index);

/** Every frame of the recording, in order (convenient for in-memory analysis). */
std::vector<cv::Mat> RenderAllFrames(const SampleOptions& options, const SampleTruth& truth);

/**
 * Writes the recording as a video at options.fps (SampleWriter.h: ".mp4",
 * ".mov" MPEG-4 part 2; ".mkv", ".avi" MJPEG; high quality, a key frame every
 * 12 frames).
 * @throws std::invalid_argument for options.timeJitter != 0 (a video has one
 *         frame rate) or another extension; std::runtime_error when the
 *         video cannot be written.
 */
SampleTruth WriteSampleVideo(const std::string& path, const SampleOptions& options);

/**
 * Writes one PNG per frame into @p dir (created when missing). Frame k is
 * named by its capture time, startMs + round(timesMs[k]), as a decimal number
 * zero-padded to the width of the largest name, plus ".png"; so the byte-wise
 * order of the names is the time order and each name parses back to its time.
 * @throws std::invalid_argument for a negative @p startMs;
 *         std::runtime_error when a file cannot be written.
 */
SampleTruth WriteSampleFrames(const std::string& dir, const SampleOptions& options,
                              std::int64_t startMs = 1700000000000);

/** The file names WriteSampleFrames gives the frames, in frame order. */
std::vector<std::string> SampleFrameNames(const SampleTruth& truth, std::int64_t startMs);

/**
 * Human-readable summary, one item per line, each line ending in '\n':
 *   frames: N
 *   launcher: frames 0-11, from 0.0 ms          ("launcher: none" when empty)
 *   splash: frames 12-35, from 400.0 ms
 *   skeleton: frames 36-53, from 1200.0 ms      ("skeleton: none" when empty)
 *   content: frames 54-83, from 1800.0 ms, steps at 54 64 74
 *   loaded: frames 84-119, from 2800.0 ms
 *   expected: loadFinishedIndex 84, logoAppearIndex 12, logoDisappearIndex 36, firstFrameIndex 36
 */
std::string DescribeTruth(const SampleTruth& truth);

}  // namespace vyra::sample

#endif  // VYRA_SAMPLE_H
