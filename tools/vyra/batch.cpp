// vyra batch INPUTS... --out FILE [--jobs N] [--group-by REGEX] [options]:
// measures many recordings on N threads of one process, one JSON line per
// recording in FILE as each finishes, then a table of launch times per group.
//
// INPUTS, in order, duplicates measured once:
//   @LIST   a text file naming one input per line (blank lines and lines
//           starting with '#' skipped; relative paths are taken from the
//           current directory); its inputs are expanded as below;
//   FOLDER  a folder holding PNG files (as `vyra analyse` reads them) is one
//           frame recording; any other folder is searched, in name order,
//           for recordings: frame folders (not searched further) and files
//           with a video extension (kVideoExtensions); entries whose name
//           starts with a dot, and folders reached through symbolic links,
//           are passed over;
//   else    a recording, whatever its name (a missing one gives an error line).
//
// Threads, not processes: one process keeps the libraries loaded once and
// measured faster (README, "vyra batch").
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "batch_results.h"
#include "command.h"
#include "measure_args.h"
#include "output.h"
#include "progress_bar.h"
#include "vyra.h"

namespace vyra::tool {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Exit status of a batch cut short by SIGINT or SIGTERM: 128 + SIGINT, as a shell reports it.
constexpr int kExitInterrupted = 130;

// Extensions (lower case) by which a file inside a searched folder is taken for a video.
const char* const kVideoExtensions[] = {".mp4", ".m4v", ".mov", ".mkv", ".webm", ".avi", ".ts",  ".mts",
                                        ".m2ts", ".flv", ".ogv", ".3gp", ".mpg",  ".mpeg", ".wmv", ".h264",
                                        ".264", ".hevc", ".h265", ".265", ".mjpeg", ".mjpg"};

struct BatchArgs {
    std::vector<std::string> inputs;
    std::string out;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    std::string groupBy;
    MeasureArgs measure;
    bool progress = false;
    bool quiet = false;
};

// ---- inputs ----

// A PNG file of a frame folder, named as the library reads them.
bool isFrameName(const std::string& name) {
    const size_t dot = name.rfind('.');
    return !name.empty() && name[0] != '.' && dot != std::string::npos && name.compare(dot, std::string::npos, ".png") == 0;
}

bool isVideoName(const fs::path& file) {
    std::string extension = file.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(std::begin(kVideoExtensions), std::end(kVideoExtensions), extension) != std::end(kVideoExtensions);
}

// The entries of @p dir in byte order of their names; throws fs::filesystem_error.
std::vector<fs::directory_entry> sortedEntries(const fs::path& dir) {
    std::vector<fs::directory_entry> entries{fs::directory_iterator(dir), fs::directory_iterator()};
    std::sort(entries.begin(), entries.end(),
              [](const fs::directory_entry& a, const fs::directory_entry& b) {
                  return a.path().filename().native() < b.path().filename().native();
              });
    return entries;
}

bool isFrameFolder(const std::vector<fs::directory_entry>& entries) {
    return std::any_of(entries.begin(), entries.end(),
                       [](const fs::directory_entry& e) { return isFrameName(e.path().filename().string()); });
}

// The recordings below the folder @p dir, which is no frame folder itself.
void searchFolder(const fs::path& dir, std::vector<std::string>& recordings) {
    for (const fs::directory_entry& entry : sortedEntries(dir)) {
        const fs::path& path = entry.path();
        if (path.filename().string()[0] == '.') continue;
        std::error_code ec;
        if (entry.is_directory(ec) && !entry.is_symlink(ec)) {
            const std::vector<fs::directory_entry> inside = sortedEntries(path);
            if (isFrameFolder(inside)) {
                recordings.push_back(path.string());
            } else {
                searchFolder(path, recordings);
            }
        } else if (entry.is_regular_file(ec) && isVideoName(path)) {
            recordings.push_back(path.string());
        }
    }
}

// "rec/", "./rec" and "rec" name one recording: the path as written, made
// lexically normal, without a trailing separator.
std::string normalPath(const std::string& text) {
    std::string path = fs::path(text).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

void expandInput(const std::string& input, std::vector<std::string>& recordings) {
    const std::string path = normalPath(input);
    std::error_code ec;
    if (!fs::is_directory(path, ec)) {
        recordings.push_back(path);
        return;
    }
    if (isFrameFolder(sortedEntries(path))) {
        recordings.push_back(path);
    } else {
        searchFolder(path, recordings);
    }
}

// Every recording INPUTS name, in order, each once. Throws MeasureError for
// a list or folder that cannot be read.
std::vector<std::string> expandInputs(const std::vector<std::string>& inputs) {
    std::vector<std::string> all;
    try {
        for (const std::string& input : inputs) {
            if (input.size() > 1 && input[0] == '@') {
                std::ifstream list(input.substr(1));
                if (!list) {
                    throw MeasureError(VYRA_ERROR_NOT_FOUND, "cannot read the list '" + input.substr(1) + "'");
                }
                std::string line;
                while (std::getline(list, line)) {
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    if (!line.empty() && line[0] != '#') expandInput(line, all);
                }
            } else {
                expandInput(input, all);
            }
        }
    } catch (const fs::filesystem_error& e) {
        throw MeasureError(VYRA_ERROR_UNREADABLE, "cannot search '" + e.path1().string() + "': " + e.code().message());
    }
    std::vector<std::string> recordings;
    std::set<std::string> seen;
    for (std::string& path : all) {
        if (seen.insert(path).second) recordings.push_back(std::move(path));
    }
    return recordings;
}

// ---- interruption ----

std::atomic<bool> gInterrupted{false};

extern "C" void onInterrupt(int signal) {
    gInterrupted.store(true);
    std::signal(signal, SIG_DFL);  // a second Ctrl-C ends the process at once; no line is ever half written
}

struct Interrupted {};

// ---- measuring ----

// The result line of one recording: path, error, status, wall seconds, then
// the JSON document of `vyra analyse --json` (for a failure its first three
// fields only).
Json resultLine(const std::string& path, const MeasureResult* result, VyraStatus status, const std::string& error,
                double wallSeconds, bool progressSeries) {
    Json line = {{"path", path},
                 {"error", result != nullptr ? Json(nullptr) : Json(error)},
                 {"status", status},
                 {"status_name", StatusString(status)},
                 {"wall_s", std::round(wallSeconds * 1000.0) / 1000.0}};
    OutputOptions output;
    output.recording = path;
    output.progressSeries = progressSeries;
    const Json document = result != nullptr ? ResultJson(*result, output)
                                            : Json{{"schema_version", kJsonSchemaVersion},
                                                   {"vyra_version", vyra_version()},
                                                   {"recording", path}};
    for (auto it = document.begin(); it != document.end(); ++it) line[it.key()] = it.value();
    return line;
}

// Measures @p path; the result line, or nullopt when interrupted.
std::optional<Json> measureOne(const std::string& path, MeasureOptions options, bool progressSeries) {
    options.progress = [](MeasureStage, size_t, size_t) {
        if (gInterrupted.load()) throw Interrupted{};
    };
    const Clock::time_point start = Clock::now();
    const auto seconds = [&start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    try {
        const MeasureResult result = Measure(path, options);
        return resultLine(path, &result, VYRA_OK, "", seconds(), progressSeries);
    } catch (const Interrupted&) {
        return std::nullopt;
    } catch (const MeasureError& e) {
        return resultLine(path, nullptr, e.status(), e.what(), seconds(), progressSeries);
    } catch (const std::bad_alloc&) {
        return resultLine(path, nullptr, VYRA_ERROR_NO_MEMORY, "out of memory", seconds(), progressSeries);
    } catch (const std::exception& e) {
        return resultLine(path, nullptr, VYRA_ERROR_INTERNAL, e.what(), seconds(), progressSeries);
    }
}

// "ETA 1h02m", "ETA 3m05s", "ETA 42s".
std::string etaText(double seconds) {
    const long s = std::lround(seconds);
    if (s >= 3600) return Format("ETA %ldh%02ldm", s / 3600, s / 60 % 60);
    if (s >= 60) return Format("ETA %ldm%02lds", s / 60, s % 60);
    return Format("ETA %lds", s);
}

// What the worker threads share; guarded by mutex.
struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    ResultsFile* file = nullptr;
    std::vector<Outcome> outcomes;
    size_t finished = 0;   // recordings whose worker is done with them (line written or not)
    size_t failed = 0;
    std::string writeError;  // set when the results file cannot be written: the batch stops
    std::vector<std::string> messages;  // failures to print on standard error
};

void work(const std::vector<std::string>& pending, std::atomic<size_t>& next, const MeasureOptions& options,
          bool progressSeries, Shared& shared) {
    for (;;) {
        const size_t k = next.fetch_add(1);
        if (k >= pending.size() || gInterrupted.load()) return;
        {
            std::lock_guard<std::mutex> lock(shared.mutex);
            if (!shared.writeError.empty()) return;
        }
        const std::optional<Json> line = measureOne(pending[k], options, progressSeries);
        if (!line) return;
        const std::string text = line->dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
        std::lock_guard<std::mutex> lock(shared.mutex);
        std::string error;
        if (!shared.writeError.empty()) return;
        if (!shared.file->Append(text, error)) {
            shared.writeError = error;
        } else {
            const Outcome outcome = OutcomeOf(*line);
            if (outcome.failed) {
                ++shared.failed;
                shared.messages.push_back(pending[k] + ": " + (*line)["error"].get<std::string>());
            }
            shared.outcomes.push_back(outcome);
            ++shared.finished;
        }
        shared.changed.notify_all();
    }
}

int runBatch(const BatchArgs& args) {
    MeasureOptions options = ToMeasureOptions(args.measure);
    std::unique_ptr<std::regex> groupBy;
    if (!args.groupBy.empty()) {
        try {
            groupBy = std::make_unique<std::regex>(args.groupBy);
        } catch (const std::regex_error& e) {
            throw CLI::ValidationError("--group-by", "'" + args.groupBy + "' is no regular expression: " + e.what());
        }
    }
    const std::vector<std::string> recordings = expandInputs(args.inputs);
    if (recordings.empty()) {
        PrintError("the inputs hold no recording");
        return kExitInput;
    }
    for (const std::string& path : recordings) {
        if (!IsJsonText(path)) {
            PrintError("the path '" + path + "' is not valid UTF-8, which a JSON line cannot carry; rename it");
            return kExitUsage;
        }
    }

    ResultsFile file;
    std::string error;
    if (!file.Open(args.out, error)) {
        PrintError(error);
        return kExitFailure;
    }
    if (file.droppedBytes() > 0) {
        std::cerr << "vyra: warning: removed a partial last line (" << file.droppedBytes() << " bytes) from '"
                  << args.out << "'" << std::endl;
    }
    for (size_t number : file.ignoredLines()) {
        std::cerr << "vyra: warning: line " << number << " of '" << args.out
                  << "' is not a result line; left as it is" << std::endl;
    }
    std::vector<std::string> pending;
    for (const std::string& path : recordings) {
        if (file.done().count(path) == 0) pending.push_back(path);
    }

    gInterrupted.store(false);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    Shared shared;
    shared.file = &file;
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    const size_t jobs = std::min<size_t>(args.jobs, pending.size());
    const Clock::time_point start = Clock::now();
    for (size_t k = 0; k < jobs; ++k) {
        workers.emplace_back(work, std::cref(pending), std::ref(next), std::cref(options), args.progress,
                             std::ref(shared));
    }
    ProgressBar bar(!args.quiet && isatty(fileno(stderr)) != 0);
    {
        std::unique_lock<std::mutex> lock(shared.mutex);
        for (;;) {
            for (const std::string& message : shared.messages) {
                bar.Clear();
                PrintError(message);
            }
            shared.messages.clear();
            std::string note = shared.failed > 0 ? std::to_string(shared.failed) + " failed" : "";
            if (shared.finished > 0 && shared.finished < pending.size()) {
                const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
                const double eta = elapsed / static_cast<double>(shared.finished) *
                                   static_cast<double>(pending.size() - shared.finished);
                note += (note.empty() ? "" : ", ") + etaText(eta);
            }
            bar.UpdateCount(shared.finished, pending.size(), note);
            const bool over = shared.finished == pending.size() || !shared.writeError.empty();
            if (over || gInterrupted.load()) break;
            shared.changed.wait_for(lock, std::chrono::milliseconds(250));
        }
    }
    for (std::thread& worker : workers) worker.join();
    bar.Clear();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    for (const std::string& message : shared.messages) PrintError(message);

    std::vector<Outcome> outcomes = shared.outcomes;
    for (const std::string& path : recordings) {
        const auto it = file.done().find(path);
        if (it != file.done().end()) outcomes.push_back(it->second);
    }
    std::ostringstream table;
    WriteGroupTable(table, GroupRows(outcomes, groupBy.get()));
    if (!WriteStandardOutput(table.str(), error)) {
        PrintError("cannot write standard output: " + error);
        return kExitFailure;
    }
    if (!shared.writeError.empty()) {
        PrintError("cannot write '" + args.out + "': " + shared.writeError + "; the batch stopped");
        return kExitFailure;
    }
    if (outcomes.size() < recordings.size()) {
        PrintError("interrupted: " + std::to_string(recordings.size() - outcomes.size()) + " of " +
                   std::to_string(recordings.size()) +
                   " recordings not measured; run the same command again to go on");
        return kExitInterrupted;
    }
    const bool anyFailed = std::any_of(outcomes.begin(), outcomes.end(), [](const Outcome& o) { return o.failed; });
    return anyFailed ? kExitSomeFailed : kExitOk;
}

}  // namespace

Subcommand AddBatchCommand(CLI::App& app) {
    auto args = std::make_shared<BatchArgs>();
    CLI::App* cmd = app.add_subcommand("batch", "Measure many recordings, one JSON line each, and tabulate them");
    cmd->add_option("INPUTS", args->inputs,
                    "Recordings, folders holding recordings, or @LIST (a file naming one input per line)")
        ->required();
    cmd->add_option("--out", args->out, "Results file, one JSON line per recording; recordings in it are skipped")
        ->required();
    cmd->add_option("--jobs", args->jobs, "Recordings measured at once (default: the number of cores)")
        ->check(CLI::Range(1u, 1024u))
        ->capture_default_str();
    cmd->add_option("--group-by", args->groupBy,
                    "Regular expression on the path: its first capture group (or whole match) names the group "
                    "of the final table (default: one group, all)");
    AddMeasureOptions(*cmd, args->measure);
    cmd->add_flag("--progress", args->progress, "Also list every frame's visual progress in each line");
    cmd->add_flag("--quiet", args->quiet, "No progress bar on standard error");
    return {cmd, [args] { return runBatch(*args); }};
}

}  // namespace vyra::tool
