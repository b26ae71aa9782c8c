// Internal: the one table of the key frames every face of the library
// reports (the C++ result, the C result, the vyra tool's summary and JSON,
// the Python module). A new key frame is a row here, a member of
// vyra::MeasureResult and a field appended to VyraResult.
#ifndef VYRA_KEY_FRAMES_H
#define VYRA_KEY_FRAMES_H

#include <cstddef>

#include "VyraAnalysisResults.h"
#include "VyraMeasure.h"
#include "VyraVisualProgress.h"

/*
 * X(group, label, key, member, index), one row per key frame, in the order
 * the faces list them:
 *   group   KeyFrameGroup enumerator the row belongs to
 *   label   the summary's name of the row
 *   key     the JSON key, which is also the VyraResult field's name
 *   member  the vyra::MeasureResult member
 *   index   the frame's index, an expression of `a` (the AnalysisResult) and
 *           `v` (the VisualProgress)
 */
#define VYRA_KEY_FRAME_TABLE(X)                                                                      \
    X(Analysis, "load finished", load_finished, loadFinished, a.loadFinishedIndex)                   \
    X(Analysis, "baseline", baseline, baseline, a.staticResult.baselineIndex)                        \
    X(Analysis, "logo appear", logo_appear, logoAppear, a.staticResult.logoAppearIndex)              \
    X(Analysis, "logo disappear", logo_disappear, logoDisappear, a.staticResult.logoDisappearIndex)  \
    X(Analysis, "first frame", first_frame, firstFrame, a.staticResult.firstFrameIndex)              \
    X(Analysis, "motion start", motion_start, motionStart, a.dynamicResult.motionStartIndex)         \
    X(VisualProgress, "first change", first_visual_change, firstVisualChange, v.firstVisualChange)   \
    X(VisualProgress, "last change", last_visual_change, lastVisualChange, v.lastVisualChange)       \
    X(VisualProgress, "complete 85", visually_complete_85, visuallyComplete85, v.visuallyComplete85) \
    X(VisualProgress, "complete 95", visually_complete_95, visuallyComplete95, v.visuallyComplete95) \
    X(VisualProgress, "complete 99", visually_complete_99, visuallyComplete99, v.visuallyComplete99) \
    X(VisualProgress, "complete 100", visually_complete, visuallyComplete, v.visuallyComplete)

namespace vyra {
namespace detail {

/** Index of the key frame of row @p row of the table in @p a and @p v. */
int KeyFrameIndex(size_t row, const AnalysisResult& a, const VisualProgress& v);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_KEY_FRAMES_H
