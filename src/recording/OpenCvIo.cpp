#include "recording/OpenCvIo.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

namespace vyra {
namespace detail {

namespace {

const char* const kModuleName = "libvyra-opencv-io.so";

// The folder of the file that holds this code: libvyra, or a program that
// links the library's objects.
std::string ownFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&OpenCvIo), &info) == 0 || info.dli_fname == nullptr) {
        return ".";
    }
    const std::string file = info.dli_fname;
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash);
}

std::vector<std::string> moduleCandidates() {
    std::vector<std::string> folders;
    if (const char* dir = std::getenv("VYRA_PLUGIN_DIR"); dir != nullptr && *dir != '\0') {
        folders.emplace_back(dir);
    }
    folders.push_back(ownFolder() + "/vyra");
    std::vector<std::string> paths;
    for (const std::string& folder : folders) paths.push_back(folder + "/" + kModuleName);
    return paths;
}

// The table of the first candidate that loads and has the version this
// library was built with. The module stays loaded (RTLD_NODELETE), so each
// call finds it already there and the table stays valid.
const OpenCvIoTable& loadModule() {
    std::string tried;
    for (const std::string& path : moduleCandidates()) {
        void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (module == nullptr) {
            const char* why = dlerror();
            tried += (tried.empty() ? "" : "; ") + std::string(why != nullptr ? why : path);
            continue;
        }
        using Entry = const OpenCvIoTable* (*)();
        const auto entry = reinterpret_cast<Entry>(dlsym(module, kOpenCvIoEntry));
        const OpenCvIoTable* table = entry != nullptr ? entry() : nullptr;
        dlclose(module);
        if (table != nullptr && table->version == kOpenCvIoVersion) {
            return *table;
        }
        tried += (tried.empty() ? "" : "; ") + path + ": not a module of this version of libvyra";
    }
    throw std::runtime_error("cannot load OpenCV's codecs from " + std::string(kModuleName) + " (" + tried + ")");
}

}  // namespace

const OpenCvIoTable& OpenCvIo() { return loadModule(); }

cv::Mat DecodeWithOpenCv(const std::vector<uchar>& bytes) { return OpenCvIo().decode(bytes); }

bool WriteWithOpenCv(const std::string& path, const cv::Mat& frame) { return OpenCvIo().write(path, frame); }

OpenCvCapture::OpenCvCapture(const std::string& path) : io_(OpenCvIo()), capture_(io_.openCapture(path)) {}

OpenCvCapture::~OpenCvCapture() { io_.closeCapture(capture_); }

bool OpenCvCapture::IsOpened() const { return io_.isOpened(capture_); }

bool OpenCvCapture::Read(cv::Mat& frame) { return io_.read(capture_, frame); }

}  // namespace detail
}  // namespace vyra
