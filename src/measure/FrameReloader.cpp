#include "measure/FrameReloader.h"

#include "measure/Intake.h"
#include "recording/RecordingError.h"
#include "store/LargeFrameAllocator.h"

namespace vyra {
namespace detail {

FrameReloader::FrameReloader(std::string path, const MeasureOptions& options, std::vector<cv::Scalar> ignoreColours)
    : path_(std::move(path)), options_(options), preparer_(options, std::move(ignoreColours)) {}

cv::Mat FrameReloader::Load(size_t index) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [kept, pixels] : recent_) {
        if (kept == index) return pixels.clone();
    }
    if (!source_) {
        source_ = OpenFrameSource(path_, SourceOptionsOf(options_, false));
    }
    if (index != next_ && !source_->SeekTo(index)) {
        throw RecordingError(VYRA_ERROR_UNREADABLE, "frame " + std::to_string(index) + " of '" + path_ +
                                                        "' could not be read again");
    }
    SourceFrame frame;
    UseLargeFrameMemory(frame.pixels);
    if (!source_->Next(frame)) {
        throw RecordingError(VYRA_ERROR_UNREADABLE, "frame " + std::to_string(index) + " of '" + path_ +
                                                        "' could not be read again");
    }
    next_ = index + 1;
    cv::Mat prepared = preparer_.Prepare(frame.pixels, frame.label).clone();
    recent_.emplace_back(index, prepared);
    if (recent_.size() > kRecentFrames) recent_.pop_front();
    return prepared.clone();
}

}  // namespace detail
}  // namespace vyra
