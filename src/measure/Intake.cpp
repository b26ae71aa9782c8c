#include "measure/Intake.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "measure/FramePreparer.h"
#include "measure/ReportCollector.h"
#include "recording/FrameSaver.h"
#include "recording/FrameSource.h"
#include "store/LargeFrameAllocator.h"

namespace vyra {
namespace detail {

FrameTiming TimingOf(const MeasureOptions& options) {
    FrameTiming timing;
    timing.frameRate = options.timing == Timing::FrameRate;
    timing.fps = options.fps;
    return timing;
}

SourceOptions SourceOptionsOf(const MeasureOptions& options, bool timestamps) {
    SourceOptions source;
    source.range = FrameRange{options.start, options.end};
    source.timestamps = timestamps;
    source.limits.maxPixels = options.maxFramePixels;
    return source;
}

void ReportProgress(const MeasureOptions& options, MeasureStage stage, size_t done, size_t total) {
    if (options.progress) {
        options.progress(stage, done, total);
    }
}

namespace {

// Decoded frames waiting for the processing thread; the decoder stays at
// most this far ahead.
const size_t kQueuedFrames = 6;

// The second thread of the intake. Frames arrive in order through a short
// queue; each is prepared, saved, timed, tracked and stored, and its decode
// buffer goes back to the decoder. The first failure stops the thread and is
// rethrown to the decoder.
class FrameProcessor {
public:
    FrameProcessor(const MeasureOptions& options, bool lossless, Intake& intake)
        : timing_(TimingOf(options)),
          intake_(intake),
          preparer_(options),
          saver_(options.saveFramesDir.empty()
                     ? nullptr
                     : std::make_unique<FrameSaver>(options.saveFramesDir, Policy::Quiet, false)),
          tracker_(trackerOptions(options.visualProgress, lossless)),
          estimated_(options.visualProgress.levelTolerance < 0),
          filmstrip_(options.report.collect ? std::make_unique<FilmstripCollector>(options.report) : nullptr),
          spare_(reserved(kQueuedFrames + 2)),
          thread_(&FrameProcessor::run, this) {}

    ~FrameProcessor() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

    FrameProcessor(const FrameProcessor&) = delete;
    FrameProcessor& operator=(const FrameProcessor&) = delete;

    // Queues @p frame and leaves a spare buffer (or nothing) in it to decode
    // the next frame into. Throws the thread's failure instead once there is one.
    void Push(SourceFrame& frame) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return failure_ || queue_.size() < kQueuedFrames; });
        if (failure_) std::rethrow_exception(failure_);
        queue_.push_back(std::move(frame));
        frame = SourceFrame();
        if (!spare_.empty()) {
            frame.pixels = std::move(spare_.back());
            spare_.pop_back();
        }
        UseLargeFrameMemory(frame.pixels);
        changed_.notify_all();
    }

    // Processes what is queued, ends the thread and throws its failure, if any.
    void Finish() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ending_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
        if (failure_) std::rethrow_exception(failure_);
    }

private:
    // An empty list with room for every decode buffer there can be (the
    // queue's, the one in process, the decoder's), so that handing a buffer
    // back never allocates.
    static std::vector<cv::Mat> reserved(size_t count) {
        std::vector<cv::Mat> list;
        list.reserve(count);
        return list;
    }

    // A lossless recording has no coding noise: an estimated tolerance is 0.
    static VisualProgressOptions trackerOptions(VisualProgressOptions options, bool lossless) {
        if (lossless && options.levelTolerance < 0) options.levelTolerance = 0;
        return options;
    }

    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_ && !failure_) {
            if (!queue_.empty()) {
                SourceFrame frame = std::move(queue_.front());
                queue_.pop_front();
                changed_.notify_all();
                lock.unlock();
                std::exception_ptr failed;
                try {
                    process(frame);
                } catch (...) {
                    failed = std::current_exception();
                }
                lock.lock();
                failure_ = failed;
                spare_.push_back(std::move(frame.pixels));
                changed_.notify_all();
            } else if (ending_) {
                break;
            } else {
                changed_.wait(lock);
            }
        }
        if (!failure_ && ending_ && queue_.empty()) {
            try {
                intake_.store.KeepLast();
                if (filmstrip_) intake_.filmstrip = filmstrip_->Finish();
                intake_.ignoreColours = preparer_.Colours();
                intake_.visual = tracker_.Finish();
                intake_.visual.levelToleranceEstimated = estimated_;
            } catch (...) {
                failure_ = std::current_exception();
            }
        }
    }

    void process(SourceFrame& decoded) {
        const size_t index = intake_.store.Size();
        const cv::Mat frame = preparer_.Prepare(decoded.pixels, decoded.label);
        if (saver_) saver_->Save(frame, static_cast<long>(index));
        intake_.rawTimesMs.push_back(decoded.timeMs);
        const double timeMs = FrameTimeMs(timing_, index, intake_.rawTimesMs);
        const bool repeated = intake_.store.Append(frame, &changedRows_);
        if (filmstrip_) filmstrip_->Add(frame, index, timeMs, repeated);
        if (!track(frame, timeMs, repeated)) {
            throw MeasureError(VYRA_ERROR_INTERNAL, "the visual progress cannot take " + decoded.label +
                                                        " (unsupported pixels or a time before the "
                                                        "previous frame's)");
        }
        intake_.estimatedTimeCount += decoded.timeEstimated ? 1 : 0;
    }

    // Feeds the visual progress, telling it where the frame changed (as
    // the store found) so that it reads only those rows. lastFrame_ follows
    // the frames: only changed rows are copied into it.
    bool track(const cv::Mat& frame, double timeMs, bool repeated) {
        if (repeated) {
            return tracker_.AddRepeatedFrame(timeMs);
        }
        if (lastFrame_.size() == frame.size() && lastFrame_.type() == frame.type()) {
            const bool tracked = tracker_.AddChangedFrame(frame, timeMs, lastFrame_, changedRows_);
            for (const cv::Range& rows : changedRows_) {
                frame.rowRange(rows).copyTo(lastFrame_.rowRange(rows));
            }
            return tracked;
        }
        UseLargeFrameMemory(lastFrame_);
        frame.copyTo(lastFrame_);
        return tracker_.AddFrame(frame, timeMs);
    }

    const FrameTiming timing_;
    Intake& intake_;
    FramePreparer preparer_;
    const std::unique_ptr<FrameSaver> saver_;  // null: frames are not saved
    VisualProgressTracker tracker_;
    const bool estimated_ = false;  // the tolerance is chosen here, not given
    const std::unique_ptr<FilmstripCollector> filmstrip_;  // null: no report asked for
    std::vector<cv::Range> changedRows_;  // of the frame being processed
    cv::Mat lastFrame_;                   // pixels of the frame processed last

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<SourceFrame> queue_;
    std::vector<cv::Mat> spare_;
    bool ending_ = false;
    bool stopping_ = false;
    std::exception_ptr failure_;
    std::thread thread_;  // last: starts once everything above is set up
};

}  // namespace

Intake ReadRecording(const std::string& path, const MeasureOptions& options) {
    const std::unique_ptr<FrameSource> source =
        OpenFrameSource(path, SourceOptionsOf(options, options.timing == Timing::Timestamps));
    Intake intake;
    intake.store = FrameStore(options.frameMemoryLimit);
    {
        FrameProcessor processor(options, source->Lossless(), intake);
        SourceFrame frame;
        UseLargeFrameMemory(frame.pixels);
        size_t count = 0;
        try {
            while (source->Next(frame)) {
                processor.Push(frame);
                ++count;
                ReportProgress(options, MeasureStage::Decoding, count, std::max(source->ExpectedCount(), count));
            }
        } catch (...) {
            // A failure on an earlier frame in the processing thread comes first.
            processor.Finish();
            throw;
        }
        processor.Finish();
    }
    intake.followingTimeMs = source->FollowingTimeMs();
    return intake;
}

}  // namespace detail
}  // namespace vyra
