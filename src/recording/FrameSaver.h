// Internal: frames saved as numbered PNG files while a recording is read.
#ifndef VYRA_FRAME_SAVER_H
#define VYRA_FRAME_SAVER_H

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <opencv2/core.hpp>

#include "recording/Policy.h"

namespace vyra {
namespace detail {

/**
 * Saves frame number N as DIR/%08d.png, in the order Save() is called.
 *
 * Policy::Quiet: with FFmpeg's PNG encoder, whole or not at all (WritePng:
 * a temporary file renamed into place); the folder is created when missing;
 * a folder that cannot be created and a frame that is not written throw
 * RecordingError (VYRA_ERROR_WRITE, with the system's reason).
 * Policy::Historic: with cv::imwrite (no encoder parameters, OpenCV's own
 * codecs from recording/OpenCvIo.h); the folder is not created and a frame
 * that is not written is skipped; only an exception of OpenCV passes on.
 *
 * With @p background the files are written by a worker thread while the
 * caller goes on: Save() queues a matrix header sharing the caller's frame
 * (whose pixels must not change until Finish()), at most a few at a time,
 * waiting while the queue is full. A failure is passed on by the next Save()
 * or by Finish() after the worker has been joined; the destructor joins the
 * worker too (dropping a failure during unwinding). When no thread can be
 * started the files are written on the caller's thread.
 */
class FrameSaver {
public:
    FrameSaver(std::string dir, Policy policy, bool background);
    ~FrameSaver();
    FrameSaver(const FrameSaver&) = delete;
    FrameSaver& operator=(const FrameSaver&) = delete;

    void Save(const cv::Mat& frame, long number);

    /** Waits until every queued frame is written; throws the first failure. */
    void Finish();

private:
    static constexpr size_t kQueued = 16;

    void write(const std::string& file, const cv::Mat& frame) const;
    void stop();
    void run();

    std::string dir_;
    Policy policy_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable space_;
    std::deque<std::pair<std::string, cv::Mat>> queue_;
    bool closing_ = false;
    std::exception_ptr failure_;
    std::thread worker_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_SAVER_H
