/*
 * libvyra - C interface for hosts written in other languages.
 *
 * One call, vyra_measure(), opens a recording (a video that the library's
 * OpenCV build can decode, whatever its extension, or a folder of PNG frames),
 * analyses it and fills a fixed-size VyraResult. It prints nothing and writes
 * no file unless VyraSettings.save_frames_dir asks for the analysed frames.
 *
 * Extension rules. Both structures start with struct_size, which the caller
 * sets to sizeof the structure it was compiled against (vyra_default_settings
 * does so for VyraSettings). Fields are only ever appended:
 *   - settings: the library reads the fields that lie within struct_size and
 *     takes its defaults for the others;
 *   - result: the library writes only the bytes within struct_size.
 * VYRA_ABI_VERSION changes only when an existing field changes meaning or
 * place; compare it with vyra_abi_version() at run time. The fields after
 * the "appended" marks came later: a caller compiled without them passes a
 * smaller struct_size and gets the defaults (settings) or is not written
 * to (result) there.
 *
 * The per-frame visual progress series is not part of VyraResult (it has a
 * fixed size); a caller that wants it passes buffers in
 * VyraSettings.progress_out / frame_times_out with series_capacity and reads
 * min(series_capacity, result.frame_count) entries after VYRA_OK. On an
 * error the buffers' contents are unspecified.
 *
 * Threads: no call keeps state between calls; separate calls may run on
 * separate threads at the same time (each one decodes and analyses on the
 * calling thread). Two calls that save frames into the same folder overwrite
 * each other's files.
 */
#ifndef VYRA_H
#define VYRA_H

#include <stddef.h>
#include <stdint.h>

#include "VyraExport.h"
#include "VyraStatus.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * VyraSettings.noise_tolerance that asks for the tolerance to be read from the
 * recording: 0 for frame folders and lossless video, the coding noise of the
 * frames for lossy video (see VyraVisualProgress.h). The default.
 */
#define VYRA_NOISE_TOLERANCE_AUTO (-1)

/** Bumped when a field of VyraSettings or VyraResult changes meaning or place. */
#define VYRA_ABI_VERSION 1u

/** How frame positions become times. */
typedef enum VyraTiming {
    /** Video: each frame's presentation timestamp. Folder: the number that
     *  each file name starts with (text before the last dot, read like
     *  strtol), in milliseconds. */
    VYRA_TIMING_TIMESTAMPS = 0,
    /** Frames evenly spaced at VyraSettings.fps: frame k is at k / fps s. */
    VYRA_TIMING_FRAME_RATE = 1
} VyraTiming;

/** Which frame the launch time is read at. */
typedef enum VyraLaunchTimeMode {
    /** Time of the load-finished frame itself (the default). */
    VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME = 0,
    /** Time of the frame after it, load_finished + 1, as the historic entry
     *  analyse() counts: with frame-rate timing (index + 1) / fps, also past
     *  the last frame; with timestamps the next frame's time, or when the
     *  recording has no next frame an absolute time of 0, which gives
     *  -(time of the range's first frame). */
    VYRA_LAUNCH_TIME_NEXT_FRAME = 1
} VyraLaunchTimeMode;

/** The analysis to run; same values as VyraPageType. */
typedef enum VyraPage {
    VYRA_PAGE_STATIC = 0,  /**< a page that settles into one final picture */
    VYRA_PAGE_DYNAMIC = 1  /**< a page whose content keeps moving */
} VyraPage;

/** Stage reported to the progress callback. */
typedef enum VyraStage {
    VYRA_STAGE_DECODING = 0,  /**< done = frames decoded so far, total = expected count or 0 when unknown */
    VYRA_STAGE_ANALYSING = 1  /**< reported with done 0 before and done 1 after the analysis, total 1 */
} VyraStage;

/** A rectangle of frame pixels: top-left corner (x, y), width and height. */
typedef struct VyraRegion {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
} VyraRegion;

/**
 * Progress callback, called on the measuring thread. @p user is
 * VyraSettings.progress_user, handed back untouched. The callback must return
 * normally (no longjmp, no C++ exception).
 */
typedef void (*VyraProgressCallback)(void* user, VyraStage stage, uint64_t done, uint64_t total);

/** Measurement settings. Fill with vyra_default_settings() first. */
typedef struct VyraSettings {
    size_t struct_size;           /**< sizeof(VyraSettings) as the caller knows it */
    VyraTiming timing;            /**< default VYRA_TIMING_TIMESTAMPS */
    double fps;                   /**< frames per second for VYRA_TIMING_FRAME_RATE, 0.001 .. 1e6; default 0 */
    int32_t start;                /**< first frame of the range (position in file-name order for a
                                       folder, decode order for a video); negative counts as 0.
                                       Default 0 */
    int32_t end;                  /**< last frame of the range, inclusive, when above 1; 1 or less
                                       selects up to the last frame. Default 0 */
    VyraPage page_type;           /**< default VYRA_PAGE_STATIC */
    int32_t stable_baseline;      /**< non-zero: static analysis searches for the end of the first
                                       stable run as baseline instead of taking the last frame.
                                       Default 0 */
    int32_t has_crop;             /**< non-zero: analyse only the crop rectangle. Default 0 */
    VyraRegion crop;              /**< in pixels of the decoded frames */
    const VyraRegion* ignore;     /**< borrowed for the call; regions painted flat before analysis
                                       (see vyra::MeasureOptions::ignore). Default NULL */
    size_t ignore_count;          /**< number of regions at ignore. Default 0 */
    VyraLaunchTimeMode launch_time_mode; /**< default VYRA_LAUNCH_TIME_LOAD_FINISHED_FRAME */
    const char* save_frames_dir;  /**< borrowed; NULL or "": save nothing. Otherwise the folder
                                       (created when missing) receives every analysed frame as
                                       "%08d.png", numbered from 0 within the range */
    VyraProgressCallback progress; /**< NULL: no progress reports. Default NULL */
    void* progress_user;          /**< handed to progress. Default NULL */
    /* ---- appended: visual progress ---- */
    int32_t noise_tolerance;      /**< levels (0..255, above 255 counts as 255) by which an 8x8 block's
                                       mean colour may move between frames without counting as a visual
                                       change (vyra::VisualProgressOptions::levelTolerance); negative:
                                       VYRA_NOISE_TOLERANCE_AUTO. Default VYRA_NOISE_TOLERANCE_AUTO */
    double* progress_out;         /**< NULL, or a caller buffer of series_capacity doubles that
                                       receives the visual progress of frames 0 .. min(capacity,
                                       frame_count) - 1, each in [0, 1]. Default NULL */
    double* frame_times_out;      /**< NULL, or a caller buffer of series_capacity doubles that
                                       receives the same frames' times, seconds from the range's
                                       first frame. Default NULL */
    size_t series_capacity;       /**< entries each non-NULL buffer above can hold. Default 0 */
    /* ---- appended: reports (VyraLaunchReport.h) ---- */
    const char* report_path;      /**< borrowed; NULL or "": no report. Otherwise the launch report,
                                       one self-contained HTML file, is written there once the
                                       measurement succeeded. When it cannot be written the call
                                       returns that error (VYRA_ERROR_WRITE, ...) with the result
                                       filled. Default NULL */
    const char* filmstrip_path;   /**< borrowed; NULL or "": none. Otherwise the filmstrip as one PNG
                                       contact sheet, written like report_path. Default NULL */
    double report_interval_ms;    /**< ms between the filmstrip's pictures, above 0 (used only with
                                       report_path or filmstrip_path). Default 100 */
} VyraSettings;

/** One key frame: its index in the range (-1: not found) and its time in
 *  seconds from the range's first frame (NaN when not found). */
typedef struct VyraKeyFrame {
    int32_t index;
    double time;
} VyraKeyFrame;

/**
 * Result of vyra_measure(). Fixed size, no pointers. On an error every field
 * past status holds its "nothing" value: counts 0, indices -1, times and
 * launch_time NaN, PSNRs -1.0.
 */
typedef struct VyraResult {
    size_t struct_size;           /**< set by the caller: sizeof(VyraResult) as it knows it */
    VyraStatus status;            /**< also the return value of vyra_measure() */
    VyraPage page_type;           /**< the analysis that ran */
    VyraTiming timing;            /**< the timing used */
    VyraLaunchTimeMode launch_time_mode; /**< the launch time definition used */
    double fps;                   /**< the frame rate of VYRA_TIMING_FRAME_RATE, else 0 */
    uint64_t frame_count;         /**< frames analysed (the range) */
    int32_t frame_width;          /**< size of the analysed frames (after cropping) */
    int32_t frame_height;
    double launch_time;           /**< seconds, NaN when no load-finished frame was found */
    uint64_t estimated_time_count; /**< frames whose video timestamp the decoder did not report
                                        and that were timed by estimate (see VyraMeasure.h) */
    VyraKeyFrame load_finished;   /**< AnalysisResult::loadFinishedIndex */
    VyraKeyFrame baseline;        /**< staticResult.baselineIndex */
    VyraKeyFrame logo_appear;     /**< staticResult.logoAppearIndex */
    VyraKeyFrame logo_disappear;  /**< staticResult.logoDisappearIndex */
    VyraKeyFrame first_frame;     /**< staticResult.firstFrameIndex */
    VyraKeyFrame motion_start;    /**< dynamicResult.motionStartIndex */
    double loaded_psnr;           /**< staticResult.loadedPsnr (dB, -1.0: not computed) */
    double pre_loaded_psnr;       /**< staticResult.preLoadedPsnr */
    uint64_t object_count_length; /**< entries of staticResult.objectCounts */
    uint64_t first_non_blank_object_count; /**< dynamicResult.firstNonBlankObjectCount */
    uint64_t feature_matching_count; /**< records in dynamicResult.featureMatchingResults */
    /* ---- appended: visual progress (see VyraVisualProgress.h) ---- */
    VyraKeyFrame first_visual_change;  /**< first frame that differs from frame 0 */
    VyraKeyFrame last_visual_change;   /**< last frame that differs from the frame before it */
    VyraKeyFrame visually_complete_85; /**< first frame from which progress stays >= 0.85 */
    VyraKeyFrame visually_complete_95; /**< ... >= 0.95 */
    VyraKeyFrame visually_complete_99; /**< ... >= 0.99 */
    double speed_index_ms;        /**< area above the progress curve up to the last visual change,
                                       in ms; 0 without visual change, NaN on error */
    /* ---- appended: visually complete, the noise tolerance used ---- */
    VyraKeyFrame visually_complete; /**< first frame from which every frame looks like the last one
                                         (100 %; see VyraVisualProgress.h) */
    int32_t noise_tolerance;      /**< the noise tolerance the visual progress used; -1 on error */
    int32_t noise_tolerance_estimated; /**< 1 when it was read from the recording (auto), 0 when given */
} VyraResult;

/** The two tables of a summary that key frames belong to. */
typedef enum VyraKeyFrameGroup {
    VYRA_KEY_FRAME_ANALYSIS = 0,        /**< found by the analysis (load finished, baseline, ...) */
    VYRA_KEY_FRAME_VISUAL_PROGRESS = 1  /**< found from the visual progress (first change, ...) */
} VyraKeyFrameGroup;

/** One VyraKeyFrame field of VyraResult, described for hosts that list them. */
typedef struct VyraKeyFrameField {
    const char* label;        /**< static text: the summary's name of the row, "load finished" */
    const char* key;          /**< static text: the field's name, also its JSON key, "load_finished" */
    VyraKeyFrameGroup group;
    size_t offset;            /**< offsetof(VyraResult, <key>): where the VyraKeyFrame lies */
} VyraKeyFrameField;

/**
 * Every VyraKeyFrame field of VyraResult, in the order the vyra tool lists
 * them; fields appended in later versions come last. Stores their number in
 * @p count (when not NULL) and returns the first; static storage, never NULL.
 * A caller compiled against an older vyra.h reads only the fields whose
 * offset lies within its sizeof(VyraResult).
 */
VYRA_API const VyraKeyFrameField* vyra_key_frame_fields(size_t* count);

/**
 * Fills @p settings with the defaults listed at each field, struct_size
 * included. Does nothing for NULL.
 */
VYRA_API void vyra_default_settings(VyraSettings* settings);

/** Static English text for a status ("ok", "invalid argument", ...); "unknown status" otherwise. Never NULL. */
VYRA_API const char* vyra_status_string(VyraStatus status);

/**
 * Measures one recording. Never throws, never prints.
 *
 * @param path       borrowed, NUL-terminated: a folder of PNG frames, or a video file.
 * @param settings   borrowed; NULL means the defaults of vyra_default_settings().
 * @param result     owned by the caller; struct_size must be set and cover at
 *                   least struct_size and status. Filled on success and error alike:
 *                   after an error every field holds its "nothing found" value (-1,
 *                   NaN, 0), except when only writing settings->report_path or
 *                   filmstrip_path failed, where it holds the measurement.
 * @param error      caller's buffer for a one-line English message, NUL-terminated
 *                   and cut to @p error_size; "" on success. May be NULL.
 * @param error_size size of @p error in bytes (0: nothing is written).
 * @return the status, also stored in result->status when it fits.
 *         VYRA_ERROR_INVALID_ARGUMENT without touching @p result when @p result is NULL
 *         or its struct_size is too small to hold status.
 */
VYRA_API VyraStatus vyra_measure(const char* path, const VyraSettings* settings, VyraResult* result,
                                 char* error, size_t error_size);

/** Library version, "MAJOR.MINOR.PATCH"; static storage. */
VYRA_API const char* vyra_version(void);

/** VYRA_ABI_VERSION of the library that is loaded. */
VYRA_API unsigned vyra_abi_version(void);

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* VYRA_H */
