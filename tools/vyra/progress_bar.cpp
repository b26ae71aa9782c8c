#include "progress_bar.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace vyra::tool {

void ProgressBar::Update(MeasureStage stage, size_t done, size_t total) {
    if (stage == MeasureStage::Decoding) {
        draw("decoding  ", done, total, std::to_string(done) + (total > 0 ? "/" + std::to_string(total) : ""));
    } else {
        draw("analysing ", done, total, done >= total ? "done" : "...");
    }
}

void ProgressBar::UpdateCount(size_t done, size_t total, const std::string& note) {
    draw("recordings ", done, total, std::to_string(done) + "/" + std::to_string(total) + (note.empty() ? "" : " " + note));
}

void ProgressBar::draw(const char* label, size_t done, size_t total, const std::string& text) {
    if (!enabled_) {
        return;
    }
    const int width = 30;
    const int filled = total > 0 ? static_cast<int>(width * std::min(done, total) / total) : 0;
    std::cerr << "\r" << label << "[" << std::string(static_cast<size_t>(filled), '#')
              << std::string(static_cast<size_t>(width - filled), '.') << "] " << text << "\033[K" << std::flush;
    shown_ = true;
}

void ProgressBar::Clear() {
    if (shown_) {
        std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }
}

}  // namespace vyra::tool
