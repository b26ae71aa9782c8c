/*
 * libvyra - the library entry `analyse` and its run driver.
 *
 * One call of analyse() measures one launch: it reads a recording (a video
 * file, recognised by its extension, or a folder of PNG frames), runs the
 * static page analysis over its frames, prints its findings to standard
 * output, appends one line to "record.log" in the current working directory
 * and returns the launch time in seconds. For a video, every decoded frame is
 * also saved as "frames/%08d.png" (numbered from 18938) when the folder
 * "frames" exists in the current working directory.
 *
 * Runs use process-wide resources (standard output, the current working
 * directory, the shell): call analyse() one run at a time.
 */
#ifndef VYRA_LOAD_ANALYZER_H
#define VYRA_LOAD_ANALYZER_H

#include "VyraExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Measures one launch and returns its duration in seconds.
 *
 * @param path       recording: a video whose name ends in .mkv, .mp4, .mov, .rm
 *                   or .ram, otherwise a folder of PNG frames. Borrowed; must be
 *                   a NUL-terminated string. NULL is rejected: NaN is returned
 *                   after the "chcp 65001" shell command and before anything is
 *                   printed to standard output.
 * @param frameMode  1: timestamp mode (frame files named by capture time in
 *                   milliseconds); any other value: frame-rate mode.
 * @param fps        frames per second, used by the frame-rate mode only; not
 *                   validated (0 gives infinity, or NaN when nothing was found).
 * @param startIndex folder input: position of the first file to load (negative
 *                   counts as 0). Ignored for a video.
 * @param endIndex   folder input: last position to load, inclusive, when > 1;
 *                   1 or less loads to the last file. Ignored for a video.
 *
 * @return the launch time in seconds; NaN when @p path is NULL or when the run
 *         failed with an exception (from OpenCV, memory allocation or anything
 *         else). No exception ever leaves this function: a failure prints one
 *         line "Vyra[Error]: <reason>" to standard error.
 */
VYRA_API double analyse(const char* path, int frameMode, int fps, int startIndex, int endIndex);

#ifdef __cplusplus
}  // extern "C"

#include <string>
#include <vector>

#include <opencv2/core.hpp>

/**
 * The run driver behind analyse(): same parameters, same result, but a plain
 * C++ function: exceptions from OpenCV or allocation pass through.
 *
 * Folder input with startIndex s > 0: analysis index k stands for the file
 * names[s + k]. The timestamp mode then prints, for every frame line, the time
 * of the file that frame came from (an index of -1 prints 0), and computes the
 * launch time with count_launch_time_mseconds(names, s,
 * s + loadFinishedIndex + 1, ...) when a load-finished image was found; when
 * none was found the end position stays loadFinishedIndex + 1 = 0 (time 0), so
 * the result is -(time of names[s]) / 1000.0. With startIndex <= 0 the
 * positions are the analysis indices themselves.
 */
VYRA_API double analyseFrame(std::string path, int frameMode, int fps, int startIndex,
                             int endIndex);

/** True when the text after the last dot of @p fileName (the whole name if it has none) equals @p type, byte for byte. */
VYRA_API bool compareFileType(std::string fileName, std::string type);

/** True when @p path ends in one of the video extensions mkv, mp4, mov, rm, ram (case-sensitive). */
VYRA_API bool checkVideoFile(std::string path);

/**
 * Appends to @p files the names (without folder) of the PNG entries of @p dir
 * in listing order, skipping names that begin with a dot, then prints
 * "files size:: " and the number of entries in @p files. A folder that cannot
 * be opened appends nothing.
 */
VYRA_API void getFiles(std::string dir, std::vector<std::string>& files);

/**
 * Lists @p dir into @p names (sorted byte-wise ascending, all PNG names) and
 * decodes the files at positions [max(startIndex, 0), stop) into @p mats,
 * where stop is endIndex + 1 when endIndex > 1, else the number of names, and
 * never more than the number of names. Each file is read whole and decoded
 * with cv::imdecode(IMREAD_COLOR). A file that cannot be opened or read (also
 * a directory or a file without read permission named *.png), is empty or does
 * not decode becomes an empty matrix in its place, so entry k of @p mats always
 * stands for names[start + k].
 */
VYRA_API void transformImages2Mats(std::string dir, std::vector<cv::Mat>& mats,
                                   std::vector<std::string>& names, int startIndex,
                                   int endIndex);

/**
 * Decodes every frame of the video @p path (cv::CAP_ANY) into @p mats, each
 * owning its own buffer, and saves frame k as "frames/%08d.png" numbered from
 * 18938 (cv::imwrite, no parameters; failures ignored, folder not created).
 * A video that cannot be opened leaves @p mats untouched.
 * The frames' buffers are mapped by libvyra itself (2 MB aligned, offered
 * to the kernel for huge pages, which saves most of the page faults of
 * touching them for the first time); they are released through libvyra, so
 * a host that loads the library at run time releases them before unloading it.
 */
VYRA_API void transformVideo2Mats(std::string path, std::vector<cv::Mat>& mats);

/** True when @p a sorts after @p b byte by byte (a.compare(b) > 0). */
VYRA_API bool cmp(const std::string& a, const std::string& b);

/**
 * The time number in names[index]: the text before its last dot parsed like
 * strtol (base 10), cut to 32 bits. 0 for index <= 0, an index past the end,
 * or a name without a leading number.
 */
VYRA_API int readFileName(std::vector<std::string>& names, int index);

/**
 * Launch time in seconds, printing one line.
 * Timestamp mode (frameMode 1): a = readFileName(names, startPos),
 * b = readFileName(names, endPos); prints "cv startTime:<a/1000.0>, endTime:<b/1000.0>"
 * and returns (b - a, wrapping 32-bit) / 1000.0.
 * Frame-rate mode: t = endPos / fps in double; prints
 * "ffmpeg startTime:0, endTime:<t>" and returns t. @p fps is not validated.
 * @p names is only read.
 */
VYRA_API double count_launch_time_mseconds(std::vector<std::string>& names, int startPos,
                                           int endPos, int frameMode, int fps);

/**
 * Appends @p content and a newline to @p fileName (created when missing),
 * flushed and closed before returning; prints "open file failure" to standard
 * output when the file cannot be opened.
 */
VYRA_API void writeFile(std::string fileName, std::string content);

/**
 * " YYYY-MM-DD hh:mm:ss" (leading space, 20 characters) in local time.
 * Should the local calendar not represent the current time, the same shape
 * with every field zero, " 0000-00-00 00:00:00", is returned.
 */
VYRA_API std::string getSystemTime();

/**
 * "YYYY-MM-DD hh:mm:ss" in local time for @p timestamp seconds since 1970.
 * A time the local calendar cannot represent gives "0000-00-00 00:00:00".
 */
VYRA_API std::string convertTimeStamp2TimeStr(long timestamp);

#endif /* __cplusplus */

#endif /* VYRA_LOAD_ANALYZER_H */
