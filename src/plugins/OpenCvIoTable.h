// Internal: what the module libvyra-opencv-io.so gives libvyra: OpenCV's
// own image and video codecs behind a table of functions (see
// recording/OpenCvIo.h for why they are a module of their own). Both sides
// are built together from this header.
#ifndef VYRA_OPENCV_IO_TABLE_H
#define VYRA_OPENCV_IO_TABLE_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vyra {
namespace detail {

/** The table of functions the module exports (vyra_opencv_io()). */
struct OpenCvIoTable {
    int version;  // kOpenCvIoVersion of the module
    cv::Mat (*decode)(const std::vector<uchar>& bytes);            // cv::imdecode(bytes, IMREAD_COLOR)
    bool (*write)(const std::string& path, const cv::Mat& frame);  // cv::imwrite(path, frame)
    void* (*openCapture)(const std::string& path);                 // new cv::VideoCapture(path, CAP_ANY)
    bool (*isOpened)(void* capture);
    bool (*read)(void* capture, cv::Mat& frame);                   // VideoCapture::read
    void (*closeCapture)(void* capture);                           // releases and deletes
};

/** Version of OpenCvIoTable; a module of another version is refused. */
constexpr int kOpenCvIoVersion = 1;

/** The name of the function the module exports: const OpenCvIoTable* vyra_opencv_io(void). */
constexpr const char* kOpenCvIoEntry = "vyra_opencv_io";

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_OPENCV_IO_TABLE_H
