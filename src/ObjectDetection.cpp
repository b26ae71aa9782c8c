#include "ObjectDetection.h"

#include <set>

#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include "LargeFrameAllocator.h"

namespace vyra {
namespace detail {

void DetectionWorkspace::StorageDeleter::operator()(CvMemStorage* storage) const {
    cvReleaseMemStorage(&storage);
}

DetectionWorkspace::DetectionWorkspace() = default;

DetectionWorkspace::~DetectionWorkspace() = default;

namespace {

const size_t kLine = 64;

size_t wholeLines(size_t bytes) { return (bytes + kLine - 1) / kLine * kLine; }

}  // namespace

void DetectionWorkspace::layOut(cv::Size size) {
    if (size == laidOut_) return;
    laidOut_ = cv::Size();  // until the headers below point into the current block
    const size_t pixels = static_cast<size_t>(size.area());
    const size_t greyBytes = wholeLines(pixels);
    const size_t gradientBytes = wholeLines(pixels * sizeof(short));
    const size_t edgeBytes = wholeLines(static_cast<size_t>(size.width + 2) * static_cast<size_t>(size.height + 2));
    const size_t total = greyBytes + 2 * gradientBytes + edgeBytes;
    if (block_.total() < total) {
        block_.release();
        UseLargeFrameMemory(block_);
        block_.create(static_cast<int>(total / kLine), static_cast<int>(kLine), CV_8UC1);
    }
    uchar* const base = block_.data;
    grey_ = cv::Mat(size, CV_8UC1, base);
    dx_ = cv::Mat(size, CV_16SC1, base + greyBytes);
    dy_ = cv::Mat(size, CV_16SC1, base + greyBytes + gradientBytes);
    edges_ = cv::Mat(size.height + 2, size.width + 2, CV_8UC1, base + greyBytes + 2 * gradientBytes);
    laidOut_ = size;
}

bool DetectionWorkspace::readGrey(const cv::Mat& frame) {
    const int channels = frame.channels();
    if (frame.empty() || frame.depth() != CV_8U || (channels != 1 && channels != 3 && channels != 4)) {
        return false;
    }
    layOut(frame.size());
    if (channels == 1) {
        frame.copyTo(grey_);
    } else {
        cv::cvtColor(frame, grey_, cv::COLOR_BGR2GRAY);
    }
    return true;
}

void DetectionWorkspace::findEdges() {
    // cv::Canny(grey, ...) takes 3x3 Sobel derivatives with replicated
    // borders; computing them here into kept buffers and handing them to the
    // derivative form of Canny gives the same edges.
    cv::spatialGradient(grey_, dx_, dy_, 3, cv::BORDER_REPLICATE);
    // The frame around the edge map is background for the contour routine.
    edges_.create(grey_.rows + 2, grey_.cols + 2, CV_8UC1);
    edges_.row(0).setTo(0);
    edges_.row(edges_.rows - 1).setTo(0);
    edges_.col(0).setTo(0);
    edges_.col(edges_.cols - 1).setTo(0);
    cv::Mat inner = edges_(cv::Rect(1, 1, grey_.cols, grey_.rows));
    const uchar* const innerData = inner.data;
    cv::Canny(dx_, dy_, inner, 10.0, 30.0, false);
    CV_Assert(inner.data == innerData);  // written in place, not reallocated
}

std::vector<Rect> DetectionWorkspace::contourBoxes() {
    // cv::findContours copies its input into a new matrix with a one-pixel
    // zero frame and traces that with the C routine. edges_ already is such a
    // matrix, so the routine runs on it directly; the offset gives points in
    // the coordinates of the inner edge map, as cv::findContours does.
    if (storage_) {
        cvClearMemStorage(storage_.get());
    } else {
        storage_.reset(cvCreateMemStorage(0));
    }
    CvMat edges = cvMat(edges_);
    CvSeq* first = nullptr;
    cvFindContours(&edges, storage_.get(), &first, sizeof(CvContour), CV_RETR_LIST, CV_CHAIN_APPROX_SIMPLE,
                   cvPoint(-1, -1));
    std::set<Rect> boxes;
    // RETR_LIST links every contour on one level, through h_next.
    for (CvSeq* contour = first; contour != nullptr; contour = contour->h_next) {
        points_.resize(static_cast<size_t>(contour->total));
        if (!points_.empty()) cvCvtSeqToArray(contour, points_.data());
        const cv::Rect box = cv::boundingRect(points_);
        boxes.insert(Rect(box.x, box.y, box.x + box.width - 1, box.y + box.height - 1));
    }
    return std::vector<Rect>(boxes.begin(), boxes.end());
}

std::vector<Rect> DetectionWorkspace::Detect(const cv::Mat& frame) {
    if (!readGrey(frame)) return {};
    findEdges();
    return contourBoxes();
}

}  // namespace detail
}  // namespace vyra
