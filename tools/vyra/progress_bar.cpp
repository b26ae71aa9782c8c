#include "progress_bar.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace vyra::tool {

void ProgressBar::Update(MeasureStage stage, size_t done, size_t total) {
    if (!enabled_) {
        return;
    }
    std::string line = stage == MeasureStage::Decoding ? "decoding  " : "analysing ";
    const int width = 30;
    const int filled = total > 0 ? static_cast<int>(width * std::min(done, total) / total) : 0;
    line += "[" + std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(width - filled), '.') +
            "] ";
    line += stage == MeasureStage::Decoding ? std::to_string(done) + (total > 0 ? "/" + std::to_string(total) : "")
                                            : (done >= total ? "done" : "...");
    std::cerr << "\r" << line << "\033[K" << std::flush;
    shown_ = true;
}

void ProgressBar::Clear() {
    if (shown_) {
        std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }
}

}  // namespace vyra::tool
