#include "recording/FileWriting.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>

#include "recording/FfmpegSupport.h"

namespace vyra {
namespace detail {

namespace {

[[noreturn]] void ThrowWriteError(const std::string& what, const std::string& path, const char* step, int error) {
    throw RecordingError(VYRA_ERROR_WRITE, "cannot write " + what + " '" + path + "': " + step + ": " + std::strerror(error));
}

// A new file next to `path` (same folder, hence same filesystem for the
// rename), created exclusively with the usual permissions (0666 less the
// umask). Removed on destruction unless Commit() renamed it into place.
class TemporaryFile {
public:
    TemporaryFile(const std::string& path, const std::string& what) : target_(path), what_(what) {
        std::random_device random;
        for (int attempt = 0; attempt < 16; ++attempt) {
            char suffix[40];
            std::snprintf(suffix, sizeof suffix, ".tmp-%08x%08x", unsigned(random()), unsigned(random()));
            std::string candidate = path + suffix;
            int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                fd_ = UniqueFd(fd);
                name_ = candidate;
                return;
            }
            if (errno != EEXIST) ThrowWriteError(what_, target_, "cannot create a file", errno);
        }
        ThrowWriteError(what_, target_, "cannot create a file", EEXIST);
    }
    ~TemporaryFile() {
        if (!name_.empty()) ::unlink(name_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void Write(const uint8_t* data, size_t size) {
        while (size > 0) {
            ssize_t count = ::write(fd_.Get(), data, size);
            if (count < 0) {
                if (errno == EINTR) continue;
                ThrowWriteError(what_, target_, "write failed", errno);
            }
            data += count;
            size -= size_t(count);
        }
    }

    void Commit() {
        if (::close(fd_.Release()) != 0) ThrowWriteError(what_, target_, "close failed", errno);
        if (::rename(name_.c_str(), target_.c_str()) != 0) ThrowWriteError(what_, target_, "rename failed", errno);
        name_.clear();
    }

private:
    std::string target_;
    std::string what_;
    std::string name_;
    UniqueFd fd_;
};

}  // namespace

void WriteWholeFile(const std::string& path, const void* data, size_t size, const std::string& what) {
    TemporaryFile file(path, what);
    file.Write(static_cast<const uint8_t*>(data), size);
    file.Commit();
}

}  // namespace detail
}  // namespace vyra
