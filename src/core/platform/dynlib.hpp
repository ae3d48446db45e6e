// Shared libraries opened at run time: the one place where the engine differs between dlopen
// (POSIX) and LoadLibrary (Windows).
//
// Thread contract: open and symbol may be called from any thread; a DynLib is not shared while
// it is being moved or destroyed. Closing a library invalidates every symbol taken from it.
#pragma once

#include <string>
#include <string_view>

namespace torvik::platform {

class DynLib {
public:
    DynLib() = default;
    // Opens `name`: a path (anything with a directory separator) is opened as that file, a bare
    // file name through the system's own search. On failure the result is empty and `error`
    // holds the system's reason. Paths are UTF-8.
    static DynLib open(const std::string& name, std::string& error);
    ~DynLib();
    DynLib(DynLib&& other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }
    DynLib& operator=(DynLib&& other) noexcept;
    DynLib(const DynLib&) = delete;
    DynLib& operator=(const DynLib&) = delete;

    explicit operator bool() const { return handle_ != nullptr; }
    // The address of an exported function or object; null when the library has none of that name.
    void* symbol(const char* name) const;
    // The file the system loaded (for a bare name, where its search found it).
    std::string path() const;

private:
    explicit DynLib(void* handle) : handle_(handle) {}
    void* handle_ = nullptr;
};

// The file name this system gives the shared library `stem` with ABI version `version`, or
// without a version when it is negative: libusb-1.0.so.0 / libusb-1.0.so, libusb-1.0.dll.
std::string sharedLibraryName(std::string_view stem, int version = -1);

}  // namespace torvik::platform
