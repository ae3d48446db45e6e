#include "transport/libusb_loader.hpp"

#include <filesystem>

#include "platform/dynlib.hpp"

namespace torvik::transport {

const char* const kInstallLibusbHint =
    "install it with your system's package manager (Debian/Ubuntu: sudo apt-get install libusb-1.0-0)";

namespace {

std::string notFoundText(const std::vector<std::string>& tried, const std::string& how_to_install) {
    std::string text = "libusb-1.0 not found (looked in: ";
    for (std::size_t i = 0; i < tried.size(); ++i) text += (i ? ", " : "") + tried[i];
    if (tried.empty()) text += "nowhere";
    return text + "); " + how_to_install;
}

bool isPath(const std::string& name) { return name.find_first_of("/\\") != std::string::npos; }

}  // namespace

LibusbNotFound::LibusbNotFound(const std::vector<std::string>& tried, const std::string& how_to_install)
    : UsbError(lu::ERROR_NOT_SUPPORTED, notFoundText(tried, how_to_install)) {}

struct LibusbLoader::Loaded {
    platform::DynLib lib;
    Libusb api;
};

LibusbLoader::LibusbLoader() = default;
LibusbLoader::~LibusbLoader() = default;

const Libusb* LibusbLoader::load(const std::vector<std::string>& candidates, std::vector<std::string>* tried) {
    if (const Libusb* api = loaded()) return api;
    std::lock_guard lock(m_);
    if (const Libusb* api = loaded()) return api;
    for (const std::string& name : candidates) {
        std::string error;
        auto next = std::make_unique<Loaded>();
        next->lib = platform::DynLib::open(name, error);
        if (!next->lib) {
            if (tried) {
                // A file that is not there needs no reason; one that is there but does not load does.
                std::error_code ec;
                if (!isPath(name))
                    tried->push_back(name + " (the system's search)");
                else if (!std::filesystem::exists(name, ec))
                    tried->push_back(name);
                else
                    tried->push_back(name + " (" + error + ")");
            }
            continue;
        }
        const char* missing = nullptr;
#define TORVIK_LIBUSB_LOAD(result, fn, params)                                                        \
    next->api.fn = reinterpret_cast<decltype(next->api.fn)>(next->lib.symbol("libusb_" #fn));      \
    if (!next->api.fn && !missing) missing = "libusb_" #fn;
        TORVIK_LIBUSB_FUNCTIONS(TORVIK_LIBUSB_LOAD)
#undef TORVIK_LIBUSB_LOAD
        if (missing) {
            if (tried) tried->push_back(name + " (lacks " + missing + ")");
            continue;  // closed as `next` goes
        }
        next->api.path = next->lib.path();
        if (next->api.path.empty()) next->api.path = name;
        owned_ = std::move(next);
        loaded_.store(&owned_->api, std::memory_order_release);
        return &owned_->api;
    }
    return nullptr;
}

LibusbLoader& processLibusb() {
    static auto* loader = new LibusbLoader;
    return *loader;
}

const Libusb& libusb() {
    if (const Libusb* api = processLibusb().loaded()) return *api;
    std::vector<std::string> tried;
    if (const Libusb* api = processLibusb().load({libusbSystemName()}, &tried)) return *api;
    throw LibusbNotFound(tried, kInstallLibusbHint);
}

std::string libusbSystemName() { return platform::sharedLibraryName("libusb-1.0", 0); }

// Joined as text, not as filesystem paths: names stay UTF-8 on every system ('/' serves Windows too).
std::string libusbFileIn(const std::string& dir) { return dir + "/" + platform::sharedLibraryName("libusb-1.0"); }

std::vector<std::string> libusbCandidates(const std::string& module_dir) {
    std::vector<std::string> out;
    if (!module_dir.empty()) {
        out.push_back(module_dir + "/libusb-1.0.dll");
        out.push_back(module_dir + "/../ext_lib/libusb-1.0.dll");
    }
    out.push_back(libusbSystemName());
    return out;
}

}  // namespace torvik::transport

namespace torvik::transport::lu {

const char* errorText(int code) {
    switch (code) {
        case SUCCESS: return "Success";
        case ERROR_IO: return "Input/Output Error";
        case ERROR_INVALID_PARAM: return "Invalid parameter";
        case ERROR_ACCESS: return "Access denied (insufficient permissions)";
        case ERROR_NO_DEVICE: return "No such device (it may have been disconnected)";
        case ERROR_NOT_FOUND: return "Entity not found";
        case ERROR_BUSY: return "Resource busy";
        case ERROR_TIMEOUT: return "Operation timed out";
        case ERROR_OVERFLOW: return "Overflow";
        case ERROR_PIPE: return "Pipe error";
        case ERROR_INTERRUPTED: return "System call interrupted (perhaps due to signal)";
        case ERROR_NO_MEM: return "Insufficient memory";
        case ERROR_NOT_SUPPORTED: return "Operation not supported or unimplemented on this platform";
        default: return "Other error";
    }
}

}  // namespace torvik::transport::lu
