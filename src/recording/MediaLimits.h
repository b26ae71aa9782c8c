// Internal: bounds applied while decoding untrusted recordings and images.
#ifndef VYRA_MEDIA_LIMITS_H
#define VYRA_MEDIA_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace vyra {
namespace detail {

struct MediaLimits {
    // Largest frame or image accepted, in pixels (width * height). A file
    // declaring more is refused with VYRA_ERROR_UNREADABLE before any pixel
    // buffer is allocated. The default (8192 x 8192, 64 Mpixel, 192 MiB as
    // BGR) is far above any screen while keeping one frame's memory bounded.
    int64_t maxPixels = 8192LL * 8192;

    // Largest frame file read: what the largest frame could take stored
    // without any compression (16-bit RGBA), and a megabyte for its chunks.
    size_t MaxFileBytes() const { return static_cast<size_t>(maxPixels) * 8 + (size_t(1) << 20); }

    // The max_pixels given to FFmpeg's decoders. They compare it with their
    // own buffers, which are larger than the frame (rows padded to 64 pixels;
    // MPEG-4 part 2 also asks for a 280-row band a row plus 64 pixels wide),
    // so maxPixels itself would refuse frames within the limit (a 100x160
    // PNG under a limit of 16000). The readers check every frame's own size
    // against maxPixels; this bounds what a decoder allocates before that:
    // twice the limit and 4 Mpixel, within FFmpeg's range for the option.
    int64_t DecoderMaxPixels() const {
        constexpr int64_t kOptionMax = INT32_MAX;
        constexpr int64_t kPadding = int64_t(4) << 20;
        return maxPixels >= (kOptionMax - kPadding) / 2 ? kOptionMax : maxPixels * 2 + kPadding;
    }
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_MEDIA_LIMITS_H
