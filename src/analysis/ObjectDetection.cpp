#include "analysis/ObjectDetection.h"

#include <algorithm>
#include <set>

#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include "store/LargeFrameAllocator.h"

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

namespace {

// True for the frames the detector reads: 8-bit grey, BGR or BGRA.
bool readable(int type) {
    const int channels = CV_MAT_CN(type);
    return CV_MAT_DEPTH(type) == CV_8U && (channels == 1 || channels == 3 || channels == 4);
}

// The grey picture of readable @p source, written into @p grey (of its size).
void toGrey(const cv::Mat& source, cv::Mat grey) {
    const uchar* const data = grey.data;
    if (source.channels() == 1) {
        source.copyTo(grey);
    } else {
        cv::cvtColor(source, grey, cv::COLOR_BGR2GRAY);
    }
    CV_Assert(grey.data == data);  // written in place, not reallocated
}

}  // namespace

bool DetectionWorkspace::readGrey(const cv::Mat& frame) {
    if (frame.empty() || !readable(frame.type())) {
        return false;
    }
    layOut(frame.size());
    toGrey(frame, grey_);
    return true;
}

bool DetectionWorkspace::readGreyBands(const std::vector<cv::Mat>& bands, std::vector<cv::Range>& changed) {
    std::vector<BandKey> previous;
    previous.swap(kept_);
    changed.clear();
    if (bands.empty()) return false;
    const int type = bands.front().type();
    const int cols = bands.front().cols;
    int rows = 0;
    for (const cv::Mat& band : bands) {
        CV_Assert(band.dims == 2 && band.type() == type && band.cols == cols);
        rows += band.rows;
    }
    if (rows == 0 || cols == 0 || !readable(type)) return false;
    if (cv::Size(cols, rows) != laidOut_ || type != keptType_ || previous.size() != bands.size()) {
        previous.clear();
    }
    layOut(cv::Size(cols, rows));
    int y = 0;
    for (size_t i = 0; i < bands.size(); ++i) {
        const cv::Mat& band = bands[i];
        const BandKey key{band.data, band.rows, band.step[0]};
        if (band.rows > 0 && (previous.empty() || !(previous[i] == key))) {
            toGrey(band, grey_.rowRange(y, y + band.rows));
            if (!changed.empty() && changed.back().end == y) {
                changed.back().end = y + band.rows;
            } else {
                changed.emplace_back(y, y + band.rows);
            }
        }
        y += band.rows;
    }
    return true;
}

void DetectionWorkspace::findGradients(const std::vector<cv::Range>* changed) {
    // cv::Canny(grey, ...) takes 3x3 Sobel derivatives with replicated
    // borders; computing them here into kept buffers and handing them to the
    // derivative form of Canny gives the same edges.
    const int rows = grey_.rows;
    if (changed == nullptr || (changed->size() == 1 && changed->front() == cv::Range(0, rows))) {
        cv::spatialGradient(grey_, dx_, dy_, 3, cv::BORDER_REPLICATE);
        return;
    }
    // Gradient row r reads grey rows r - 1 to r + 1, so a changed grey row
    // changes the gradient rows next to it too.
    std::vector<cv::Range> affected;
    for (const cv::Range& range : *changed) {
        const cv::Range grown(std::max(range.start - 1, 0), std::min(range.end + 1, rows));
        if (!affected.empty() && affected.back().end >= grown.start) {
            affected.back().end = grown.end;
        } else {
            affected.push_back(grown);
        }
    }
    // Each range is derived from a slice one row larger on each side (where
    // the frame goes on), so that its own rows see their true neighbours.
    for (const cv::Range& out : affected) {
        const cv::Range in(std::max(out.start - 1, 0), std::min(out.end + 1, rows));
        cv::spatialGradient(grey_.rowRange(in), partDx_, partDy_, 3, cv::BORDER_REPLICATE);
        const cv::Range inner(out.start - in.start, out.end - in.start);
        partDx_.rowRange(inner).copyTo(dx_.rowRange(out));
        partDy_.rowRange(inner).copyTo(dy_.rowRange(out));
    }
}

void DetectionWorkspace::findEdges() {
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
    kept_.clear();
    if (!readGrey(frame)) return {};
    findGradients();
    findEdges();
    return contourBoxes();
}

std::vector<Rect> DetectionWorkspace::DetectBands(const std::vector<cv::Mat>& bands) {
    std::vector<cv::Range> changed;
    if (!readGreyBands(bands, changed)) return {};
    findGradients(&changed);
    kept_.reserve(bands.size());
    for (const cv::Mat& band : bands) kept_.push_back(BandKey{band.data, band.rows, band.step[0]});
    keptType_ = bands.front().type();
    findEdges();
    return contourBoxes();
}

}  // namespace detail
}  // namespace vyra
