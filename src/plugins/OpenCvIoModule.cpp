// The module libvyra-opencv-io.so: OpenCV's image and video codecs for
// libvyra, which loads this module when analyse() first needs them.
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "plugins/OpenCvIoTable.h"

namespace {

using vyra::detail::OpenCvIoTable;

cv::Mat decode(const std::vector<uchar>& bytes) { return cv::imdecode(bytes, cv::IMREAD_COLOR); }

bool write(const std::string& path, const cv::Mat& frame) { return cv::imwrite(path, frame); }

cv::VideoCapture& asCapture(void* capture) { return *static_cast<cv::VideoCapture*>(capture); }

void* openCapture(const std::string& path) { return new cv::VideoCapture(path, cv::CAP_ANY); }

bool isOpened(void* capture) { return asCapture(capture).isOpened(); }

bool read(void* capture, cv::Mat& frame) { return asCapture(capture).read(frame); }

void closeCapture(void* capture) { delete static_cast<cv::VideoCapture*>(capture); }

const OpenCvIoTable kTable = {vyra::detail::kOpenCvIoVersion, decode, write, openCapture, isOpened, read,
                              closeCapture};

}  // namespace

extern "C" __attribute__((visibility("default"))) const OpenCvIoTable* vyra_opencv_io() { return &kTable; }
