// vyra: the progress bar a measurement draws on standard error.
#ifndef VYRA_TOOL_PROGRESS_BAR_H
#define VYRA_TOOL_PROGRESS_BAR_H

#include <cstddef>

#include "VyraMeasure.h"

namespace vyra::tool {

/**
 * One line on standard error, redrawn in place: the stage, a bar of 30
 * cells, frames decoded (of the expected count) or the analysis' state.
 * Draws nothing when disabled; Clear() (and the destructor) erase the line.
 */
class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled) {}
    ~ProgressBar() { Clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Update(MeasureStage stage, size_t done, size_t total);
    void Clear();

private:
    bool enabled_;
    bool shown_ = false;
};

}  // namespace vyra::tool

#endif  // VYRA_TOOL_PROGRESS_BAR_H
