/*
 * libvyra - the quiet measurement API.
 *
 * vyra::Measure() opens a recording, runs one analysis over the frames of a
 * chosen range and returns every finding together with the launch time and
 * the time of each key frame. Unlike the historic entry analyse() it prints
 * nothing, writes no file unless MeasureOptions::saveFramesDir asks for it,
 * and reports bad input by throwing vyra::MeasureError.
 *
 * Recording:
 *   - a folder: its PNG files (entries whose name does not begin with a dot
 *     and whose text after the last dot is exactly "png"), sorted byte-wise
 *     ascending by name (10.png before 9.png: zero-pad numbers). Each must be
 *     a regular file holding a PNG image; its pixels are those
 *     cv::imdecode(IMREAD_COLOR) would give (16-bit samples keep their high
 *     byte, alpha is dropped, palettes expanded, grey replicated);
 *   - any other existing path is opened as a video with FFmpeg's libraries,
 *     whatever its extension: a regular file in a container that holds its
 *     streams itself (MP4/MOV, Matroska/WebM, AVI, MPEG-TS, FLV, Ogg, ...,
 *     raw H.264/HEVC/MJPEG streams); playlists and other files that name
 *     further files or URLs are refused. Frames are converted to BGR as
 *     OpenCV's FFmpeg back end converts them (the same pixels), each at its
 *     own size (a stream whose frame size changes is aligned like frames of
 *     mixed sizes, below).
 * No frame may have more than MeasureOptions::maxFramePixels pixels; a file
 * declaring more is refused before its pixels are allocated.
 *
 * Quiet: the library never writes to standard output or error: the decoder,
 * demuxer and encoder contexts it makes are silenced one by one (FFmpeg's
 * process-wide log settings are left alone); what FFmpeg could still print,
 * in rare cases, is listed in src/recording/FfmpegVideo.h.
 *
 * Range (the same rules for folders and videos): first = max(start, 0);
 * last = end when end > 1, else the recording's last frame (so end 0 and 1
 * both mean "to the end"); a last beyond the recording is cut to it. Frame
 * index k of the result is the range's k-th frame.
 *
 * Timing (Timing::Timestamps, the default):
 *   - video: each frame's presentation timestamp (from the stream's start
 *     time), frames drained from the decoder at the end of B-frame streams
 *     included; phone screen recorders write variable-frame-rate video,
 *     which index / fps would mistime. A frame that has no timestamp, or
 *     whose timestamp does not come after the previous frame's (damaged or
 *     oddly muxed files), is timed at the previous frame's time plus the
 *     mean frame interval of the frames timed so far (1000 / the stream's
 *     nominal fps while fewer than two are known) and counted in
 *     MeasureResult::estimatedTimeCount.
   - folder: the number each file name starts with (the text before the
 *     last dot read like strtol: leading white space, a sign, digits), in
 *     milliseconds; a name without a number, or a number not above the
 *     previous one, throws VYRA_ERROR_NO_TIMESTAMPS.
 * Timing::FrameRate: frame k is at k / fps seconds; fps must lie in
 * [kMinFps, kMaxFps].
 *
 * Every time in the result is in seconds from the range's first frame.
 *
 * Frame preparation, in this order, on every frame as it is decoded:
 *   1. ignore regions are painted in one flat colour each. The colour of a
 *      region is the per-channel median of the ring of pixels just outside it
 *      (clipped to the frame; the region's own outermost pixels when it
 *      covers the whole frame), taken from the range's FIRST frame and then
 *      used on every frame. So a changing status-bar clock neither adds
 *      objects nor lowers the PSNR between frames, and over a uniform bar the
 *      painted block draws no edge against its surroundings.
 *   2. the crop rectangle is cut out; only it is analysed.
 * Both are given in pixels of the decoded frames and must lie wholly inside
 * every frame. After the last frame, frames whose size differs from the last
 * frame's are brought to it as the analysis would (transposed and flipped
 * when the orientation differs, then resized linearly), silently.
 *
 * Launch time (seconds from the range's first frame; NaN when the analysis
 * found no load-finished frame, which is a result and not an error):
 *   - LaunchTimeMode::LoadFinishedFrame (default): the time of the
 *     load-finished frame itself;
 *   - LaunchTimeMode::NextFrame: the historic definition of analyse(): the
 *     time of frame loadFinishedIndex + 1. With frame-rate timing that is
 *     (loadFinishedIndex + 1) / fps, also when no such frame exists. With
 *     timestamps it is that frame's time; when it lies past the range the
 *     recording's next frame is used (the next PNG name, or the next decoded
 *     video frame); when the recording has no next frame its time reads as
 *     0 (absolute), as in analyse(), giving -(absolute time of the range's
 *     first frame) / 1000, which is 0 for recordings that start at 0.
 *
 * Visual progress: every prepared frame (ignore regions painted, crop cut
 * out) goes, as it is decoded, to one vyra::VisualProgressTracker with
 * MeasureOptions::visualProgress, timed in ms from the range's first frame.
 * Frames whose size differs from the first frame's count as changed there
 * (the tracker compares sizes before any alignment). Key frame times, the
 * launch time included, are always the frame's own capture time: its file
 * name's number, its presentation timestamp, or index / fps.
 *
 * Frame intake lives in one place inside the library (a frame source per
 * kind of recording producing timed frames).
 *
 * Memory and threads: frames are decoded on the calling thread and handed
 * to one library thread that prepares, saves, tracks and keeps them; at most
 * eight decoded frames are in flight. The frames are kept for the analysis
 * in bands of 16 rows, a band equal to the same band of the previous frame
 * being shared, not copied: a recording costs about the bytes of the rows
 * that changed from frame to frame (a still page, one frame). Up to
 * MeasureOptions::frameMemoryLimit bytes of bands are kept; the frames after
 * the one that would go beyond it (a recording in which much of the picture
 * changes on every frame: animations, scrolling, video content) are not kept,
 * except the last, and the analysis reads those it needs again from the
 * recording, in order, as it gets to them (a video decodes again from its
 * start up to the frame, at most once per search of the analysis). So memory
 * stays bounded whatever the recording shows; what a recording beyond the
 * limit costs is a second decoding of the frames the analysis looks at. The
 * analysis loads the frames it compares one at a time and gives them back as
 * it moves on. Objects are detected only for the frames the
 * analysis asks about, once per run of equal frames, on the calling thread
 * and one more thread working a few frames ahead of the analysis. All
 * threads are joined before Measure returns or throws, and
 * the progress callback is only ever called on the calling thread.
 */
#ifndef VYRA_MEASURE_H
#define VYRA_MEASURE_H

#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "VyraAnalysisResults.h"
#include "VyraExport.h"
#include "VyraReport.h"
#include "VyraStatus.h"
#include "VyraVisualProgress.h"

namespace vyra {

/** How frame positions become times (see the file comment). */
enum class Timing { Timestamps, FrameRate };

/** Which frame the launch time is read at (see the file comment). */
enum class LaunchTimeMode { LoadFinishedFrame, NextFrame };

/** The frame rates Timing::FrameRate accepts: one frame per 1000 s up to a million per second. */
constexpr double kMinFps = 1e-3;
constexpr double kMaxFps = 1e6;

/** Default of MeasureOptions::maxFramePixels: 8192 x 8192. */
constexpr long long kDefaultMaxFramePixels = 8192LL * 8192;

/** Default of MeasureOptions::frameMemoryLimit: 128 MiB. */
constexpr size_t kDefaultFrameMemoryLimit = size_t(128) << 20;

/** Stage reported to MeasureOptions::progress. */
enum class MeasureStage { Decoding, Analysing };

/** A rectangle of frame pixels: top-left corner (x, y), width and height. */
struct VYRA_API Region {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

/**
 * Progress report: stage, work done, total work (0 when unknown).
 * Decoding reports once per decoded frame of the range with the expected
 * frame count as total (a video's count is the container's estimate);
 * Analysing reports (0, 1) before and (1, 1) after the analysis.
 */
using ProgressCallback = std::function<void(MeasureStage stage, size_t done, size_t total)>;

/** Options of one measurement; the defaults measure a static page by timestamps. */
struct VYRA_API MeasureOptions {
    Timing timing = Timing::Timestamps;
    double fps = 0.0;                 ///< used by Timing::FrameRate only: kMinFps .. kMaxFps
    int start = 0;                    ///< first frame of the range; negative counts as 0
    int end = 0;                      ///< last frame, inclusive, when > 1; else to the end
    VyraPageType pageType = STATIC_PAGE;
    bool stableBaseline = false;      ///< static analysis: search the stable baseline
    std::optional<Region> crop;       ///< analyse only this rectangle
    std::vector<Region> ignore;       ///< painted flat before analysis
    LaunchTimeMode launchTimeMode = LaunchTimeMode::LoadFinishedFrame;
    std::string saveFramesDir;        ///< "" = save nothing; else frames as analysed, "%08d.png"
    ProgressCallback progress;        ///< empty = no reports
    /** Tolerances of the visual progress measures; levelTolerance is the
     *  "noise tolerance" of the vyra tool (see VyraVisualProgress.h). */
    VisualProgressOptions visualProgress;
    /** The largest frame accepted, in pixels (width x height): a frame file or
     *  video declaring more is refused (VYRA_ERROR_UNREADABLE) before any
     *  pixel buffer is allocated. */
    long long maxFramePixels = kDefaultMaxFramePixels;
    /** Bytes of decoded frames kept for the analysis; frames beyond it are
     *  read again from the recording when the analysis needs them (see the
     *  file comment). */
    size_t frameMemoryLimit = kDefaultFrameMemoryLimit;
    /** What to collect for a report (VyraReport.h); nothing by default. */
    ReportOptions report;
};

/** A key frame: index in the range (-1 = not found), seconds from the range start (NaN if not found). */
struct VYRA_API KeyFrame {
    int index = -1;
    double time = std::numeric_limits<double>::quiet_NaN();
};

/** Everything one measurement found. */
struct VYRA_API MeasureResult {
    AnalysisResult analysis;          ///< the analysis' own record, indices relative to the range
    size_t frameCount = 0;            ///< frames analysed
    int frameWidth = 0;               ///< size of the analysed frames (after cropping)
    int frameHeight = 0;
    Timing timing = Timing::Timestamps;
    double fps = 0.0;                 ///< frame rate of Timing::FrameRate, else 0
    LaunchTimeMode launchTimeMode = LaunchTimeMode::LoadFinishedFrame;
    double launchTime = std::numeric_limits<double>::quiet_NaN(); ///< seconds, NaN when not found
    size_t estimatedTimeCount = 0;    ///< video frames without a usable timestamp, timed by estimate
    std::vector<double> frameTimes;   ///< time of every analysed frame, seconds from the range start
    KeyFrame loadFinished;            ///< analysis.loadFinishedIndex
    KeyFrame baseline;                ///< analysis.staticResult.baselineIndex
    KeyFrame logoAppear;              ///< analysis.staticResult.logoAppearIndex
    KeyFrame logoDisappear;           ///< analysis.staticResult.logoDisappearIndex
    KeyFrame firstFrame;              ///< analysis.staticResult.firstFrameIndex
    KeyFrame motionStart;             ///< analysis.dynamicResult.motionStartIndex

    /**
     * Visual progress of the analysed frames (after ignore painting and
     * cropping, before size alignment), as VyraVisualProgress.h defines it.
     * Its ...Ms times are milliseconds from the range's first frame (the
     * frame times above, in ms); speedIndexMs is a duration in ms.
     */
    VisualProgress visual;
    KeyFrame firstVisualChange;       ///< visual.firstVisualChange, time in seconds like every key frame
    KeyFrame lastVisualChange;        ///< visual.lastVisualChange
    KeyFrame visuallyComplete85;      ///< visual.visuallyComplete85
    KeyFrame visuallyComplete95;      ///< visual.visuallyComplete95
    KeyFrame visuallyComplete99;      ///< visual.visuallyComplete99
    KeyFrame visuallyComplete;        ///< visual.visuallyComplete: from here on the screen shows the final picture
    double speedIndexMs = std::numeric_limits<double>::quiet_NaN(); ///< visual.speedIndexMs

    /** The material of a report, when MeasureOptions::report.collect asked for it; else null. */
    std::shared_ptr<const ReportMaterial> report;
};

/** The two tables a summary shows key frames in. */
enum class KeyFrameGroup {
    Analysis,        ///< found by the analysis: load finished, baseline, logo, first frame, motion start
    VisualProgress   ///< found from the visual progress: first and last change, visually complete
};

/** One key frame of MeasureResult and how every face of the library names it. */
struct VYRA_API KeyFrameField {
    KeyFrameGroup group;
    const char* label;               ///< static text: the vyra tool's summary row ("load finished")
    const char* key;                 ///< static text: the JSON key, also the VyraResult field ("load_finished")
    KeyFrame MeasureResult::*member; ///< the member of MeasureResult
};

/**
 * Every key frame of MeasureResult, in the order the vyra tool lists them
 * (the C interface has the same list: vyra_key_frame_fields()). The vector
 * is a constant that lives as long as the library is loaded.
 */
VYRA_API const std::vector<KeyFrameField>& KeyFrameFields();

/** The error of Measure(): a message and one of the VyraStatus codes. */
class VYRA_API MeasureError : public std::runtime_error {
public:
    MeasureError(VyraStatus status, const std::string& message);
    VyraStatus status() const noexcept;

private:
    VyraStatus status_;
};

/**
 * Measures the recording at @p path.
 *
 * Throws MeasureError with:
 *   - VYRA_ERROR_INVALID_ARGUMENT: Timing::FrameRate with an fps outside
 *     [kMinFps, kMaxFps] (or not a number); a page type other than STATIC_PAGE
 *     and DYNAMIC_PAGE; a crop or ignore region whose width or height is
 *     below 1 or that does not lie wholly inside a frame (checked on each
 *     frame); a maxFramePixels below 1;
 *   - VYRA_ERROR_NOT_FOUND: @p path does not exist;
 *   - VYRA_ERROR_UNREADABLE: the path is neither a folder nor a regular file
 *     holding a video in an accepted container (a FIFO, a device, a
 *     directory named like a frame file, a file without permission to read);
 *     a video of which no frame decodes; a folder that cannot be listed; a
 *     frame file of the range that is not a regular PNG file that decodes;
 *     a frame above maxFramePixels;
 *   - VYRA_ERROR_EMPTY: a folder without PNG files, or a range that selects
 *     no frame;
 *   - VYRA_ERROR_NO_TIMESTAMPS: Timing::Timestamps on a folder whose file
 *     names carry no number or whose numbers do not increase, or on a video
 *     with a frame whose timestamp is missing before two frames with
 *     timestamps are known when the stream has no nominal frame rate either;
 *   - VYRA_ERROR_WRITE: saveFramesDir cannot be created or a frame not written
 *     whole (a full disk: the file is not left behind half written);
 *   - VYRA_ERROR_NO_MEMORY: FFmpeg ran out of memory decoding a frame;
 *   - VYRA_ERROR_INTERNAL: OpenCV failed during the analysis.
 * std::bad_alloc passes through unchanged, and so does any exception thrown
 * by the progress callback.
 */
VYRA_API MeasureResult Measure(const std::string& path, const MeasureOptions& options = {});

/** The text of a status, as vyra_status_string(). */
VYRA_API const char* StatusString(VyraStatus status);

}  // namespace vyra

#endif /* VYRA_MEASURE_H */
