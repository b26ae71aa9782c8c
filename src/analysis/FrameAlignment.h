// Internal: bringing a frame to a baseline's orientation and size.
#ifndef VYRA_FRAME_ALIGNMENT_H
#define VYRA_FRAME_ALIGNMENT_H

#include <opencv2/core.hpp>

namespace vyra {
namespace detail {

/**
 * Rotates @p frame in place by 90 degrees when its orientation differs from a
 * baseline of @p baselineWidth x @p baselineHeight (counter-clockwise, by
 * transpose + vertical flip, when the frame is portrait or square and the
 * baseline landscape; clockwise, by transpose + horizontal flip, when the
 * frame is landscape and the baseline portrait or square), then resizes it
 * with linear interpolation when its size still differs.
 * @p portraitFrame is the frame's orientation as its owner knows it
 * (width <= height), which may come from a size cache.
 */
void AlignFrameToBaseline(cv::Mat& frame, bool portraitFrame, int baselineWidth, int baselineHeight);

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_FRAME_ALIGNMENT_H
