// vyra: the progress bar a measurement draws on standard error.
#ifndef VYRA_TOOL_PROGRESS_BAR_H
#define VYRA_TOOL_PROGRESS_BAR_H

#include <cstddef>
#include <string>

#include "VyraMeasure.h"

namespace vyra::tool {

/**
 * One line on standard error, redrawn in place: a label, a bar of 30 cells
 * and a count. For one measurement (Update) the label is the stage and the
 * count the frames decoded (of the expected count) or the analysis' state;
 * for many recordings (UpdateCount) the count is recordings done of all,
 * followed by a note (failures, time left).
 * Draws nothing when disabled; Clear() (and the destructor) erase the line.
 */
class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled) {}
    ~ProgressBar() { Clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Update(MeasureStage stage, size_t done, size_t total);
    void UpdateCount(size_t done, size_t total, const std::string& note);
    void Clear();

private:
    void draw(const char* label, size_t done, size_t total, const std::string& text);

    bool enabled_;
    bool shown_ = false;
};

}  // namespace vyra::tool

#endif  // VYRA_TOOL_PROGRESS_BAR_H
