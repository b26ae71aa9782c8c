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
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_MEDIA_LIMITS_H
