// Deterministic frame generators for the analyzer suites: the stages of a page
// launch (blank screen, centred logo, half-loaded skeleton, loaded page) and a
// sideways-scrolling strip for dynamic pages. Every frame is 8-bit BGR and is
// drawn without anti-aliasing, so its edges are crisp and reproducible.
#ifndef VYRA_TESTS_LAUNCH_FRAMES_H
#define VYRA_TESTS_LAUNCH_FRAMES_H

#include <vector>

#include <opencv2/core.hpp>

namespace vyra_test {

// Default launch frame size: landscape, small enough for fast detection.
constexpr int kLaunchWidth = 320;
constexpr int kLaunchHeight = 180;

// A plain white screen: no edges, so no objects and no ORB keypoints.
cv::Mat makeBlankFrame(int width = kLaunchWidth, int height = kLaunchHeight);

// A splash screen: a filled disc and a name bar, both well inside the central
// area (0.2w .. 0.8w, 0.25h .. 0.75h), on white. A handful of objects, all
// inside that area.
cv::Mat makeLogoFrame(int width = kLaunchWidth, int height = kLaunchHeight);

// A skeleton page: a dark header bar and three large grey placeholder cards
// spread over the screen. Few objects (far below 200), most of them outside the
// central area, and few ORB keypoints; large areas differ strongly from the
// loaded page.
cv::Mat makeHalfLoadedFrame(int width = kLaunchWidth, int height = kLaunchHeight);

// A loaded page: a grid of small dark "glyph" blocks over the whole screen on
// white. The grid pitch is 12 px and every block is 5..8 px wide and high, so
// neighbouring blocks are at least 4 px apart: their edge rings never touch,
// and each block gives at least one contour whose box lies within its own
// cell. Cells are disjoint, so the boxes of different blocks are distinct.
// At 320x180 that is 26 x 14 = 364 blocks (>= 200 distinct boxes), and the
// boxes (each at least 5x5 = 25 px in a 144 px cell) cover a content ratio
// above 0.15.
cv::Mat makeLoadedFrame(int width = kLaunchWidth, int height = kLaunchHeight);

// A busy page of pseudo-random filled rectangles and discs (seeded) over the
// whole screen: hundreds of objects, but a layout unrelated to
// makeLoadedFrame's regular grid.
cv::Mat makeClutteredFrame(int width, int height, unsigned seed);

// The ten-frame launch: 0 blank, 1-2 logo, 3 half-loaded, 4-9 the loaded page
// (pixel-identical), all kLaunchWidth x kLaunchHeight.
std::vector<cv::Mat> makeTenFrameLaunch();

// Most windows makeScrollingFrames cuts from one strip.
constexpr int kMaxScrollWindows = 9;

// @p count (<= kMaxScrollWindows) frames of @p width x @p height that look
// through a window moving @p shift px to the right per frame along one strip of
// pseudo-random shapes (seeded; the strip is width + 8 * shift wide, whatever
// the count). Frame k is the window at column k * shift.
//
// With a height of about 72 px, ORB (edge threshold 31) finds keypoints on the
// full-resolution level only (every coarser level is less than 62 px high), so
// every keypoint that stays in view moves by exactly @p shift pixels
// horizontally and 0 vertically.
std::vector<cv::Mat> makeScrollingFrames(int count, int width, int height, int shift,
                                         unsigned seed);

}  // namespace vyra_test

#endif  // VYRA_TESTS_LAUNCH_FRAMES_H
