#include "command.h"

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

}  // namespace vyra::tool
