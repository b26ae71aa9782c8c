/*
 * libvyra - the status codes of a measurement, shared by the C interface
 * (vyra.h) and the C++ API (VyraMeasure.h). Plain C.
 */
#ifndef VYRA_STATUS_H
#define VYRA_STATUS_H

/**
 * Outcome of vyra_measure(), and the status of a vyra::MeasureError. A
 * recording that was read and analysed is VYRA_OK even when no load-finished
 * frame was found: that is a result (launch_time NaN, key frame indices -1),
 * not an error.
 */
typedef enum VyraStatus {
    VYRA_OK = 0,
    /** A NULL path or result, a struct_size too small, an unknown enum value,
     *  fps outside 0.001 .. 1e6 (or not a number) with VYRA_TIMING_FRAME_RATE, a region
     *  with a width or height below 1, a crop or ignore region that does not
     *  lie wholly inside a frame, ignore_count > 0 with a NULL ignore. */
    VYRA_ERROR_INVALID_ARGUMENT = 1,
    /** The recording path does not exist. */
    VYRA_ERROR_NOT_FOUND = 2,
    /** The path exists but is neither a folder nor a video that can be
     *  decoded; a video of which no frame decodes; a PNG file of the selected
     *  range that cannot be read or decoded; a folder that cannot be listed. */
    VYRA_ERROR_UNREADABLE = 3,
    /** A folder without PNG files, or a frame range that selects no frame. */
    VYRA_ERROR_EMPTY = 4,
    /** Memory ran out. */
    VYRA_ERROR_NO_MEMORY = 5,
    /** Anything else that went wrong inside the library (an OpenCV failure
     *  during the analysis, for instance). */
    VYRA_ERROR_INTERNAL = 6,
    /** VYRA_TIMING_TIMESTAMPS on a folder whose frame file names carry no
     *  number, or whose numbers do not increase in file-name order. */
    VYRA_ERROR_NO_TIMESTAMPS = 7,
    /** save_frames_dir could not be created or a frame could not be written. */
    VYRA_ERROR_WRITE = 8
} VyraStatus;

#endif /* VYRA_STATUS_H */
