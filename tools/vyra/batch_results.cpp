#include "batch_results.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

namespace vyra::tool {

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

double numberAt(const Json& object, const char* key) {
    const auto it = object.find(key);
    return it != object.end() && it->is_number() ? it->get<double>() : kNan;
}

std::vector<double> found(const std::vector<const Outcome*>& outcomes, double Outcome::*field) {
    std::vector<double> values;
    for (const Outcome* o : outcomes) {
        if (!std::isnan(o->*field)) values.push_back(o->*field);
    }
    return values;
}

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

Outcome OutcomeOf(const Json& line) {
    Outcome o;
    o.path = line.at("path").get<std::string>();
    const auto error = line.find("error");
    o.failed = error != line.end() && !error->is_null();
    o.launchTime = o.failed ? kNan : numberAt(line, "launch_time");
    o.visuallyComplete = kNan;
    const auto visual = line.find("visual_progress");
    if (!o.failed && visual != line.end() && visual->is_object()) {
        const auto complete = visual->find("visually_complete");
        if (complete != visual->end() && complete->is_object()) o.visuallyComplete = numberAt(*complete, "time");
    }
    return o;
}

Spread SpreadOf(std::vector<double> values) {
    Spread s;
    s.count = values.size();
    if (values.empty()) {
        s.median = s.p90 = s.min = s.max = kNan;
        return s;
    }
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    s.median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
    s.p90 = values[(9 * n + 9) / 10 - 1];  // rank ceil(0.9 n), counted from 1
    s.min = values.front();
    s.max = values.back();
    return s;
}

std::string GroupOf(const std::string& path, const std::regex* pattern) {
    if (pattern == nullptr) return "all";
    std::smatch match;
    if (!std::regex_search(path, match, *pattern)) return kNoGroup;
    const std::string group = pattern->mark_count() > 0 ? match.str(1) : match.str(0);
    return group.empty() ? kNoGroup : group;
}

std::vector<GroupRow> GroupRows(const std::vector<Outcome>& outcomes, const std::regex* pattern) {
    std::map<std::string, std::vector<const Outcome*>> groups;
    for (const Outcome& o : outcomes) groups[GroupOf(o.path, pattern)].push_back(&o);
    std::vector<GroupRow> rows;
    for (const auto& [name, members] : groups) {
        GroupRow row;
        row.group = name;
        row.count = members.size();
        row.failed = static_cast<size_t>(
            std::count_if(members.begin(), members.end(), [](const Outcome* o) { return o->failed; }));
        row.launchTime = SpreadOf(found(members, &Outcome::launchTime));
        row.visuallyComplete = SpreadOf(found(members, &Outcome::visuallyComplete));
        rows.push_back(row);
    }
    return rows;
}

void WriteGroupTable(std::ostream& out, const std::vector<GroupRow>& rows) {
    int width = 5;
    for (const GroupRow& row : rows) width = std::max(width, static_cast<int>(row.group.size()));
    out << Format("%-*s %6s %6s | %-31s | %s\n", width, "", "", "", "launch time (s)", "visually complete (s)");
    out << Format("%-*s %6s %6s | %7s %7s %7s %7s | %7s %7s %7s %7s\n", width, "group", "count", "failed", "median",
                  "p90", "min", "max", "median", "p90", "min", "max");
    for (const GroupRow& row : rows) {
        const Spread& l = row.launchTime;
        const Spread& v = row.visuallyComplete;
        out << Format("%-*s %6zu %6zu | %7s %7s %7s %7s | %7s %7s %7s %7s\n", width, row.group.c_str(), row.count,
                      row.failed, SecondsText(l.median).c_str(), SecondsText(l.p90).c_str(),
                      SecondsText(l.min).c_str(), SecondsText(l.max).c_str(), SecondsText(v.median).c_str(),
                      SecondsText(v.p90).c_str(), SecondsText(v.min).c_str(), SecondsText(v.max).c_str());
    }
}

ResultsFile::~ResultsFile() {
    if (fd_ >= 0) ::close(fd_);
}

bool ResultsFile::Open(const std::string& path, std::string& error) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        error = systemError("cannot open '" + path + "'");
        return false;
    }
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "'" + path + "' is not a regular file";
        return false;
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? "'" + path + "' is being written by another vyra batch"
                                     : systemError("cannot lock '" + path + "'");
        return false;
    }
    std::string text;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::pread(fd_, buffer, sizeof buffer, static_cast<off_t>(text.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = systemError("cannot read '" + path + "'");
            return false;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    const size_t whole = text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1;
    if (whole < text.size()) {
        if (::ftruncate(fd_, static_cast<off_t>(whole)) != 0) {
            error = systemError("cannot cut the partial last line off '" + path + "'");
            return false;
        }
        droppedBytes_ = text.size() - whole;
    }
    size_t start = 0;
    for (size_t number = 1; start < whole; ++number) {
        const size_t end = text.find('\n', start);
        try {
            const Json line = Json::parse(text.begin() + static_cast<std::ptrdiff_t>(start),
                                          text.begin() + static_cast<std::ptrdiff_t>(end));
            if (!line.is_object() || !line.contains("path") || !line["path"].is_string()) {
                throw std::invalid_argument("no path");
            }
            Outcome outcome = OutcomeOf(line);
            done_.emplace(outcome.path, outcome);
        } catch (const std::exception&) {
            ignoredLines_.push_back(number);
        }
        start = end + 1;
    }
    return true;
}

bool ResultsFile::Append(const std::string& line, std::string& error) {
    struct stat info {};
    if (::fstat(fd_, &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd_, line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? std::strerror(errno) : "nothing was written";
            if (written > 0 && ::ftruncate(fd_, info.st_size) != 0) {
                error += " (and the part written could not be removed)";
            }
            return false;
        }
        written += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace vyra::tool
