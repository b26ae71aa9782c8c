// Internal: keeps the lazily loaded frames of an analysis from piling up in
// memory.
#ifndef VYRA_LOAD_WINDOW_H
#define VYRA_LOAD_WINDOW_H

#include <algorithm>
#include <vector>

#include "VyraImage.h"

namespace vyra {
namespace detail {

/**
 * Called by the loaders of a set's images: before image k loads, every image
 * loaded earlier through the window whose index is below min(k, j) - 2, j
 * being the image loaded last, gives its pixels back (Image::Reduce(); it
 * reloads when asked again).
 *
 * A comparison of the analysis reads two frames: a frame and one or two of
 * its neighbours before it, or a frame and the baseline, which lies after it.
 * When the second of the two loads, the first either loaded just before it
 * (j is that frame) or was already there and lies above min(k, j) - 2; so no
 * image whose pixels are in use is released. Images the window never saw
 * loading (made from a matrix) are left alone.
 *
 * The window holds a pointer to the image vector given to Attach(), which
 * must outlive every load; one thread at a time.
 */
class LoadWindow {
public:
    void Attach(std::vector<Image>& images) { images_ = &images; }

    void BeforeLoad(int index) {
        const int below = std::min(index, lastLoaded_) - 2;
        if (images_ != nullptr) {
            const auto release = [&](int k) {
                if (k >= below) return false;
                (*images_)[static_cast<size_t>(k)].Reduce();
                return true;
            };
            resident_.erase(std::remove_if(resident_.begin(), resident_.end(), release), resident_.end());
        }
        resident_.push_back(index);
        lastLoaded_ = index;
    }

private:
    std::vector<Image>* images_ = nullptr;
    std::vector<int> resident_;  // indices loaded and not released yet
    int lastLoaded_ = -1;
};

}  // namespace detail
}  // namespace vyra

#endif  // VYRA_LOAD_WINDOW_H
