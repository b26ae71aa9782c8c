// Internal: what vyra::Measure does to every decoded frame before it is
// analysed: ignore regions painted in one flat colour each, the crop cut out.
#ifndef VYRA_FRAME_PREPARER_H
#define VYRA_FRAME_PREPARER_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "VyraMeasure.h"

namespace vyra {
namespace detail {

/** "x,y,w,h" of a region, as messages quote it. */
std::string DescribeRegion(const Region& region);

/**
 * Prepares the frames of one reading of a recording. The colour of each
 * ignore region is taken from the first frame prepared (the median of the
 * ring of pixels just outside it; see VyraMeasure.h) unless given.
 */
class FramePreparer {
public:
    explicit FramePreparer(const MeasureOptions& options, std::vector<cv::Scalar> colours = {});

    /**
     * The frame to analyse: paints @p decoded in place and returns it, or the
     * crop of it (sharing its pixels). A region that does not lie wholly
     * inside the frame throws MeasureError (VYRA_ERROR_INVALID_ARGUMENT)
     * naming the frame by @p label.
     */
    cv::Mat Prepare(cv::Mat& decoded, const std::string& label);

    /** The ignore regions' colours, once a frame was prepared. */
    const std::vector<cv::Scalar>& Colours() const { return colours_; }

private:
    const MeasureOptions& options_;
    std::vector<cv::Scalar> colours_;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_PREPARER_H
