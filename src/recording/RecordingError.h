// Internal: the error of the recording layer (reading and writing frames).
#ifndef VYRA_RECORDING_ERROR_H
#define VYRA_RECORDING_ERROR_H

#include <stdexcept>
#include <string>

#include "VyraStatus.h"

namespace vyra {
namespace detail {

/** A recording, a frame file or a saved frame that could not be used; what() is one line. */
class RecordingError : public std::runtime_error {
public:
    RecordingError(VyraStatus status, const std::string& message)
        : std::runtime_error(message), status_(status) {}

    VyraStatus status() const noexcept { return status_; }

private:
    VyraStatus status_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_RECORDING_ERROR_H
