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
 * any order of sizes and types; so does DetectBands() for the frame its bands
 * make. One thread at a time.
 */
class DetectionWorkspace {
public:
    DetectionWorkspace();  // allocates nothing yet
    ~DetectionWorkspace();
    DetectionWorkspace(const DetectionWorkspace&) = delete;
    DetectionWorkspace& operator=(const DetectionWorkspace&) = delete;

    std::vector<Rect> Detect(const cv::Mat& frame);

    /**
     * Detect() of the frame that @p bands make stacked top to bottom: each a
     * two-dimensional matrix of the same width and type (an empty list is an
     * empty frame; bands of mixed widths or types throw cv::Exception).
     *
     * The workspace remembers the bands of its last DetectBands() call. A
     * band with the data pointer, row count and step of the band at the same
     * place in that call is taken to hold the same bytes still, so its grey
     * and gradient rows are kept instead of computed again; only the rows of
     * the other bands and their neighbours are. The caller vouches for that:
     * pass bands whose memory is never rewritten while the workspace lives
     * (as a FrameStore's are). Any Detect() call, a failure or a change of
     * frame size or type forgets the remembered bands.
     */
    std::vector<Rect> DetectBands(const std::vector<cv::Mat>& bands);

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
    // Puts the grey rows of every band that changed since the remembered
    // ones in grey_ and returns their row ranges, in order; false when the
    // bands are not read (an unsupported type).
    bool readGreyBands(const std::vector<cv::Mat>& bands, std::vector<cv::Range>& changed);
    // Gradients of grey_ in dx_ and dy_: of every row, or with @p changed,
    // of the rows whose 3x3 neighbourhood holds a changed grey row.
    void findGradients(const std::vector<cv::Range>* changed = nullptr);
    // Canny edges of the gradients inside edges_, whose outermost rows and
    // columns are zero.
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
    // A band whose grey and gradient rows grey_, dx_ and dy_ hold.
    struct BandKey {
        const uchar* data;
        int rows;
        size_t step;
        bool operator==(const BandKey& other) const {
            return data == other.data && rows == other.rows && step == other.step;
        }
    };
    std::vector<BandKey> kept_;  // of the last DetectBands(), top to bottom; empty when none
    int keptType_ = -1;          // their type
    cv::Mat partDx_;             // gradients of a row range of grey_
    cv::Mat partDy_;
    std::unique_ptr<CvMemStorage, StorageDeleter> storage_;
    std::vector<cv::Point> points_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_OBJECT_DETECTION_H
