// Internal: OpenCV's own image and video codecs (imgcodecs, videoio), with
// which the historic entry analyse() decodes and saves frames as it always
// has. They are not linked into libvyra: they pull in some 240 shared
// libraries, whose loading costs every process about 0.2 s, and the quiet
// path decodes with FFmpeg's libraries instead. They live in the module
// libvyra-opencv-io.so, loaded the first time they are needed (and kept
// loaded for the life of the process), looked up in this order:
//   1. the folder named by the environment variable VYRA_PLUGIN_DIR;
//   2. the folder "vyra" beside the file that holds libvyra's code (installed:
//      lib/libvyra.so.0 and lib/vyra/libvyra-opencv-io.so; the build tree has
//      the same layout).
// A module that cannot be loaded throws std::runtime_error naming what was
// tried; exceptions of OpenCV pass through the calls unchanged.
#ifndef VYRA_OPENCV_IO_H
#define VYRA_OPENCV_IO_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "plugins/OpenCvIoTable.h"

namespace vyra {
namespace detail {

/** The module's table, loading the module on first use. */
const OpenCvIoTable& OpenCvIo();

/** cv::imdecode(bytes, cv::IMREAD_COLOR) through the module. */
cv::Mat DecodeWithOpenCv(const std::vector<uchar>& bytes);

/** cv::imwrite(path, frame) through the module. */
bool WriteWithOpenCv(const std::string& path, const cv::Mat& frame);

/** A cv::VideoCapture opened with cv::CAP_ANY, through the module. */
class OpenCvCapture {
public:
    explicit OpenCvCapture(const std::string& path);
    ~OpenCvCapture();
    OpenCvCapture(const OpenCvCapture&) = delete;
    OpenCvCapture& operator=(const OpenCvCapture&) = delete;

    bool IsOpened() const;
    bool Read(cv::Mat& frame);

private:
    const OpenCvIoTable& io_;
    void* capture_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_OPENCV_IO_H
