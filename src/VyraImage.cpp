#include "VyraImage.h"

#include "analysis/FrameAlignment.h"
#include "analysis/ImageCacheAccess.h"
#include "analysis/ObjectDetection.h"

#include <utility>

namespace vyra {

namespace {

// A list handed over at construction counts as detected only when it holds
// at least one box; an empty one leaves detection to be done.
std::unique_ptr<std::vector<Rect>> adoptObjects(const std::vector<Rect>& objects) {
    if (objects.empty()) return nullptr;
    return std::make_unique<std::vector<Rect>>(objects);
}

std::unique_ptr<std::vector<Rect>> copyObjects(const std::unique_ptr<std::vector<Rect>>& objects) {
    return objects ? std::make_unique<std::vector<Rect>>(*objects) : nullptr;
}

}  // namespace

Image::Image()
    : mat(), cachedWidth(-1), cachedHeight(-1), objects(), contentRatio(-1.0), imageIndex(-1),
      loaded(false), loader() {}

Image::Image(cv::Mat& mat_, int index)
    : mat(mat_), cachedWidth(mat_.cols), cachedHeight(mat_.rows), objects(), contentRatio(-1.0),
      imageIndex(index), loaded(true), loader() {}

Image::Image(cv::Mat& mat_, std::vector<Rect>& objects_, double contentRatio_, int index)
    : mat(mat_), cachedWidth(mat_.cols), cachedHeight(mat_.rows), objects(adoptObjects(objects_)),
      contentRatio(contentRatio_), imageIndex(index), loaded(true), loader() {}

Image::Image(std::function<cv::Mat()> loader_, std::vector<Rect>& objects_, int width, int height,
             double contentRatio_, int index)
    : mat(), cachedWidth(width), cachedHeight(height), objects(adoptObjects(objects_)),
      contentRatio(contentRatio_), imageIndex(index), loaded(false), loader(std::move(loader_)) {}

Image::Image(const Image& other)
    : mat(other.mat), cachedWidth(other.cachedWidth), cachedHeight(other.cachedHeight),
      objects(copyObjects(other.objects)), contentRatio(other.contentRatio),
      imageIndex(other.imageIndex), loaded(other.loaded), loader(other.loader) {}

Image& Image::operator=(const Image& other) {
    if (this == &other) return *this;
    mat = other.mat;
    cachedWidth = other.cachedWidth;
    cachedHeight = other.cachedHeight;
    objects = copyObjects(other.objects);
    contentRatio = other.contentRatio;
    imageIndex = other.imageIndex;
    loaded = other.loaded;
    loader = other.loader;
    return *this;
}

Image::Image(Image&& other) noexcept
    : mat(std::move(other.mat)), cachedWidth(other.cachedWidth), cachedHeight(other.cachedHeight),
      objects(std::move(other.objects)), contentRatio(other.contentRatio),
      imageIndex(other.imageIndex), loaded(other.loaded), loader(std::move(other.loader)) {
    other.mat = cv::Mat();
}

Image& Image::operator=(Image&& other) noexcept {
    if (this == &other) return *this;
    mat = std::move(other.mat);
    other.mat = cv::Mat();
    cachedWidth = other.cachedWidth;
    cachedHeight = other.cachedHeight;
    objects = std::move(other.objects);
    contentRatio = other.contentRatio;
    imageIndex = other.imageIndex;
    loaded = other.loaded;
    loader = std::move(other.loader);
    return *this;
}

Image::~Image() = default;

int Image::index() const { return imageIndex; }

cv::Mat& Image::img() {
    if (!loaded && loader) {
        mat = loader();
        loaded = true;
    }
    return mat;
}

int Image::width() {
    if (!loaded && cachedWidth >= 0) return cachedWidth;
    cachedWidth = img().cols;
    return cachedWidth;
}

int Image::height() {
    if (!loaded && cachedHeight >= 0) return cachedHeight;
    cachedHeight = img().rows;
    return cachedHeight;
}

bool Image::Empty() {
    const int w = width();
    const int h = height();
    return w * h <= 0;
}

bool Image::Reduce() {
    if (!loaded || !loader) return false;
    mat = cv::Mat();
    loaded = false;
    return true;
}

std::vector<Rect> Image::DetectObjects(const cv::Mat& frame) {
    detail::DetectionWorkspace workspace;
    return workspace.Detect(frame);
}

std::vector<Rect>& Image::GetImageObjects() {
    if (objects) return *objects;
    objects = std::make_unique<std::vector<Rect>>();
    *objects = DetectObjects(img());
    return *objects;
}

int Image::GetImageObjectsSize() { return static_cast<int>(GetImageObjects().size()); }

double Image::GetContentRatio() {
    if (contentRatio >= 0.0) return contentRatio;
    const int area = Rect::CalculateTotalArea(GetImageObjects());
    contentRatio = detail::ImageCacheAccess::RatioOf(area, img().total());
    return contentRatio;
}

namespace detail {

double ImageCacheAccess::RatioOf(int area, size_t pixelCount) {
    const double total = static_cast<double>(pixelCount);
    return total > 0.0 ? static_cast<double>(area) / total : 0.0;
}

bool ImageCacheAccess::IsResident(const Image& image) { return image.loaded || !image.loader; }

bool ImageCacheAccess::HasObjects(const Image& image) { return image.objects != nullptr; }

const cv::Mat& ImageCacheAccess::Pixels(const Image& image) { return image.mat; }

const std::vector<Rect>& ImageCacheAccess::Objects(const Image& image) { return *image.objects; }

cv::Size ImageCacheAccess::CachedSize(const Image& image) { return cv::Size(image.cachedWidth, image.cachedHeight); }

bool ImageCacheAccess::Reloads(const Image& image) { return static_cast<bool>(image.loader); }

void ImageCacheAccess::AlignOnLoad(Image& image, bool portraitFrame, int width, int height) {
    image.loader = [load = std::move(image.loader), portraitFrame, width, height]() {
        cv::Mat pixels = load();
        if (!pixels.empty()) AlignFrameToBaseline(pixels, portraitFrame, width, height);
        return pixels;
    };
    if (image.loaded) AlignFrameToBaseline(image.mat, portraitFrame, width, height);
    image.cachedWidth = width;
    image.cachedHeight = height;
}

void ImageCacheAccess::Install(Image& image, const std::vector<Rect>& objects, const double* ratio) {
    if (!image.objects) image.objects = std::make_unique<std::vector<Rect>>(objects);
    if (ratio != nullptr && image.contentRatio < 0.0) image.contentRatio = *ratio;
}

}  // namespace detail

}  // namespace vyra
