// Internal: files written whole or not at all.
#ifndef VYRA_FILE_WRITING_H
#define VYRA_FILE_WRITING_H

#include <cstddef>
#include <string>

namespace vyra {
namespace detail {

/**
 * Stores @p size bytes at @p path so that the file is either complete or left
 * as it was: the bytes go to a new temporary file in the same folder
 * (created exclusively, 0666 less the umask), every write and the close are
 * checked, then it is renamed over @p path. On any failure (a missing
 * folder, a full disk) the temporary file is removed and RecordingError
 * (VYRA_ERROR_WRITE, "cannot write <what> '<path>': <step>: <reason>") is
 * thrown.
 */
void WriteWholeFile(const std::string& path, const void* data, size_t size, const std::string& what);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FILE_WRITING_H
