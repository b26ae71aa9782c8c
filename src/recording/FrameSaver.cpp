#include "recording/FrameSaver.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "recording/FfmpegImage.h"
#include "recording/OpenCvIo.h"
#include "recording/RecordingError.h"

namespace vyra {
namespace detail {

namespace fs = std::filesystem;

FrameSaver::FrameSaver(std::string dir, Policy policy, bool background) : dir_(std::move(dir)), policy_(policy) {
    if (policy_ == Policy::Quiet) {
        std::error_code error;
        fs::create_directories(dir_, error);
        if (error || !fs::is_directory(dir_)) {
            throw RecordingError(VYRA_ERROR_WRITE,
                                 "cannot create folder '" + dir_ + "'" + (error ? ": " + error.message() : ""));
        }
    }
    if (background) {
        try {
            worker_ = std::thread(&FrameSaver::run, this);
        } catch (const std::system_error&) {
            // No thread: Save() writes directly.
        }
    }
}

FrameSaver::~FrameSaver() { stop(); }

void FrameSaver::Save(const cv::Mat& frame, long number) {
    char name[32];
    std::snprintf(name, sizeof name, "%08ld.png", number);
    std::string file = (fs::path(dir_) / name).string();
    if (!worker_.joinable()) {
        write(file, frame);
        return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    space_.wait(lock, [this] { return queue_.size() < kQueued || failure_; });
    if (failure_) return;  // later frames are not saved, as after a throw
    queue_.emplace_back(std::move(file), frame);
    ready_.notify_one();
}

void FrameSaver::Finish() {
    stop();
    if (failure_) std::rethrow_exception(failure_);
}

void FrameSaver::write(const std::string& file, const cv::Mat& frame) const {
    if (policy_ == Policy::Historic) {
        WriteWithOpenCv(file, frame);
    } else {
        WritePng(file, frame);
    }
}

void FrameSaver::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    ready_.notify_one();
    if (worker_.joinable()) worker_.join();
}

void FrameSaver::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ready_.wait(lock, [this] { return !queue_.empty() || closing_; });
        if (queue_.empty()) return;
        std::pair<std::string, cv::Mat> job = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        try {
            write(job.first, job.second);
        } catch (...) {
            lock.lock();
            failure_ = std::current_exception();
            queue_.clear();
            space_.notify_one();
            return;
        }
        job.second.release();
        lock.lock();
        space_.notify_one();
    }
}

}  // namespace detail
}  // namespace vyra
