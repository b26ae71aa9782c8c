#include "command.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace vyra::tool {

int ExitCodeFor(VyraStatus status) {
    switch (status) {
        case VYRA_OK: return kExitOk;
        case VYRA_ERROR_INVALID_ARGUMENT: return kExitUsage;
        case VYRA_ERROR_NOT_FOUND:
        case VYRA_ERROR_UNREADABLE:
        case VYRA_ERROR_EMPTY:
        case VYRA_ERROR_NO_TIMESTAMPS: return kExitInput;
        case VYRA_ERROR_NO_MEMORY:
        case VYRA_ERROR_INTERNAL:
        case VYRA_ERROR_WRITE: break;
    }
    return kExitFailure;
}

void PrintError(const std::string& message) { std::cerr << "vyra: error: " << message << std::endl; }

bool WriteStandardOutput(const std::string& text, std::string& error) {
    std::cout.flush();
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? std::strerror(errno) : "nothing was written";
            return false;
        }
        written += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace vyra::tool
