// Internal: the object detection behind Image::DetectObjects, with the
// buffers it works in kept from one frame to the next.
#ifndef VYRA_OBJECT_DETECTION_H
#define VYRA_OBJECT_DETECTION_H

#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraRect.h"

struct CvMemStorage;

namespace vyra {
namespace detail {

/**
 * Detects the object boxes of frames, reusing its image-sized buffers (grey
 * picture, gradients, edge map) and contour storage from one call to the
 * next: they lie in one block of memory, allocated again only when a larger
 * frame comes, and mapped with huge-page advice when it is large enough (see
 * LargeFrameAllocator.h).
 *
 * Detect(frame) gives exactly Image::DetectObjects(frame) for any frame, in
 * any order of sizes and types. One thread at a time.
 */
class DetectionWorkspace {
public:
    DetectionWorkspace();  // allocates nothing yet
    ~DetectionWorkspace();
    DetectionWorkspace(const DetectionWorkspace&) = delete;
    DetectionWorkspace& operator=(const DetectionWorkspace&) = delete;

    std::vector<Rect> Detect(const cv::Mat& frame);

private:
    struct StorageDeleter {
        void operator()(CvMemStorage* storage) const;
    };

    // Points the image buffers into block_ for frames of @p size, growing
    // the block when they do not fit; nothing changes while the size stays
    // the same.
    void layOut(cv::Size size);
    // Puts the grey picture of @p frame in grey_; false for frames the
    // detector does not read (empty, another depth, two channels).
    bool readGrey(const cv::Mat& frame);
    // Canny edges of grey_ inside edges_, whose outermost rows and columns
    // are zero.
    void findEdges();
    // The upright bounding box of every contour of the edge map, deduplicated
    // and sorted.
    std::vector<Rect> contourBoxes();

    cv::Mat grey_;
    cv::Mat dx_;
    cv::Mat dy_;
    cv::Mat edges_;  // two rows and columns larger than grey_
    cv::Mat block_;     // the memory of the four buffers above, rows of 64 bytes
    cv::Size laidOut_;  // frame size the buffers were last laid out for
    std::unique_ptr<CvMemStorage, StorageDeleter> storage_;
    std::vector<cv::Point> points_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_OBJECT_DETECTION_H
