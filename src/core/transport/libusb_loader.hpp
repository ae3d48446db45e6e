// libusb-1.0, loaded at run time from the first of a list of candidate files, so that building
// needs no libusb and programs that never use USB never load it.
//
// Thread contract: every function may be called from any thread. A load is made once: threads
// that ask at the same time wait for the first, and a library once loaded stays loaded (and the
// same) for the loader's life; the process's loader lives as long as the process.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "transport/errors.hpp"
#include "transport/libusb_api.hpp"

namespace torvik::transport {

// The loaded library: its entry points and the file they came from.
struct Libusb : lu::Api {
    std::string path;
};

class LibusbLoader {
public:
    LibusbLoader();
    ~LibusbLoader();  // unloads what it loaded
    LibusbLoader(const LibusbLoader&) = delete;
    LibusbLoader& operator=(const LibusbLoader&) = delete;

    // The loaded library; unless one is, loads the first of `candidates` (paths, or bare names for
    // the system's search) that opens and exports every entry point. Null when none does; each
    // candidate that failed is then described in `tried` ("path", "path (reason)").
    const Libusb* load(const std::vector<std::string>& candidates, std::vector<std::string>* tried = nullptr);
    // The loaded library, or null.
    const Libusb* loaded() const noexcept { return loaded_.load(std::memory_order_acquire); }

private:
    struct Loaded;
    std::mutex m_;
    std::unique_ptr<Loaded> owned_;         // guarded by m_
    std::atomic<const Libusb*> loaded_{};   // set once, under m_
};

// The process's loader (never destroyed: libusb's own threads and late clients may outlive statics).
LibusbLoader& processLibusb();

// The loaded libusb of the process; unless one is, loads the system's own. Throws LibusbNotFound.
// Hosts that know better places (a copy beside a module) load from them first.
const Libusb& libusb();

// The system's own file name of libusb-1.0 (libusb-1.0.so.0; libusb-1.0.dll on Windows).
std::string libusbSystemName();
// The places to look for a module whose private copies may sit in `module_dir`, in order: a copy
// beside the module, one in ../ext_lib, the system's own. The private copies carry Windows' file
// name on every system, so one package layout serves all. An empty `module_dir` gives the last.
std::vector<std::string> libusbCandidates(const std::string& module_dir);
// The file in a directory that holds an unversioned copy (libusb-1.0.so; libusb-1.0.dll).
std::string libusbFileIn(const std::string& dir);

// No candidate could be loaded. `tried` describes each place looked in; `how_to_install` is
// appended as the remedy.
struct LibusbNotFound : UsbError {
    LibusbNotFound(const std::vector<std::string>& tried, const std::string& how_to_install);
};

// The remedy every host can name.
extern const char* const kInstallLibusbHint;

}  // namespace torvik::transport
