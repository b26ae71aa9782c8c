// vyra: what `vyra batch` keeps of its recordings: the JSON-lines results
// file (one line per recording, appended whole, read back to resume) and the
// table of launch times per group printed at the end.
#ifndef VYRA_TOOL_BATCH_RESULTS_H
#define VYRA_TOOL_BATCH_RESULTS_H

#include <cstddef>
#include <map>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "output.h"

namespace vyra::tool {

/** What the group table needs of one recording's result line. */
struct Outcome {
    std::string path;
    bool failed = false;
    double launchTime = 0.0;        ///< seconds; NaN when not found or failed
    double visuallyComplete = 0.0;  ///< seconds; NaN when not found or failed
};

/** The outcome a result line records ("error" not null: failed). */
Outcome OutcomeOf(const Json& line);

/** Median, p90, min and max of some values; every one NaN when there are none. */
struct Spread {
    size_t count = 0;
    double median = 0.0;
    double p90 = 0.0;
    double min = 0.0;
    double max = 0.0;
};

/**
 * The spread of @p values, sorted ascending as x_1 <= ... <= x_n: the median
 * is x_((n+1)/2) for odd n and the mean of x_(n/2) and x_(n/2+1) for even n;
 * p90 is the nearest-rank percentile x_k with k = ceil(0.9 n), the smallest
 * value that at least 90 % of the values do not exceed.
 */
Spread SpreadOf(std::vector<double> values);

/** One row of the group table. */
struct GroupRow {
    std::string group;
    size_t count = 0;   ///< recordings
    size_t failed = 0;  ///< of them with an error line
    Spread launchTime;        ///< over the recordings where it was found
    Spread visuallyComplete;  ///< likewise
};

/** Group name of unmatched paths and of empty matches. */
constexpr const char* kNoGroup = "(none)";

/**
 * The group of @p path under @p pattern (null: "all"): the first capture
 * group of the pattern's first match in the path when the pattern has one,
 * else the whole match; kNoGroup when it does not match or matches nothing.
 */
std::string GroupOf(const std::string& path, const std::regex* pattern);

/** The rows of @p outcomes by group, in byte order of the group names. */
std::vector<GroupRow> GroupRows(const std::vector<Outcome>& outcomes, const std::regex* pattern);

/** The table: a header and one line per row, times in seconds with 3 decimals, "-" for none. */
void WriteGroupTable(std::ostream& out, const std::vector<GroupRow>& rows);

/**
 * The results file of a batch, opened for appending and locked against a
 * second batch (flock). Each line is one JSON object with a "path".
 */
class ResultsFile {
public:
    ResultsFile() = default;
    ~ResultsFile();
    ResultsFile(const ResultsFile&) = delete;
    ResultsFile& operator=(const ResultsFile&) = delete;

    /**
     * Opens (or creates) @p path and reads the lines already in it into
     * done(). A last line without its newline, left by a batch that was cut
     * off in the middle of a write, is cut off the file (and counted in
     * droppedBytes()). Lines that are not a JSON object with a string "path"
     * are left in place and listed in ignoredLines() (1-based). On failure
     * returns false with the reason in @p error.
     */
    bool Open(const std::string& path, std::string& error);

    /** The outcomes of the lines read by Open(), by path (the first line of a path). */
    const std::map<std::string, Outcome>& done() const { return done_; }
    size_t droppedBytes() const { return droppedBytes_; }
    const std::vector<size_t>& ignoredLines() const { return ignoredLines_; }

    /**
     * Appends @p line (one line, its newline included) with one write(): a
     * reader never sees part of it. When the write cannot be completed
     * (a full disk) what was written of it is cut off again and false is
     * returned with the reason in @p error. Not thread-safe: callers serialise.
     */
    bool Append(const std::string& line, std::string& error);

private:
    int fd_ = -1;
    std::map<std::string, Outcome> done_;
    size_t droppedBytes_ = 0;
    std::vector<size_t> ignoredLines_;
};

}  // namespace vyra::tool

#endif  // VYRA_TOOL_BATCH_RESULTS_H
