// Internal: the two sets of rules a recording is read by.
#ifndef VYRA_RECORDING_POLICY_H
#define VYRA_RECORDING_POLICY_H

namespace vyra {
namespace detail {

/**
 * Quiet is vyra::Measure's: anything that keeps a frame from being read is an
 * error (RecordingError), and nothing reaches the console.
 *
 * Historic is the entry analyse()'s: what gives no frame is tolerated the way
 * that entry defines it (a frame file that does not decode is an empty frame,
 * a folder or video that cannot be opened has no frames, a range that selects
 * nothing is empty, a frame that cannot be saved is skipped), videos are
 * opened with OpenCV's choice of back end, and exceptions of OpenCV pass
 * through unchanged.
 */
enum class Policy { Quiet, Historic };

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_RECORDING_POLICY_H
