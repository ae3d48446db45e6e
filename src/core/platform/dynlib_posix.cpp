#include <dlfcn.h>
#include <link.h>

#include "platform/dynlib.hpp"

namespace torvik::platform {

DynLib DynLib::open(const std::string& name, std::string& error) {
    // Local: the library's names must not satisfy (or clash with) anyone else's lookups.
    void* h = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char* e = ::dlerror();
        error = e ? e : "cannot be opened";
    }
    return DynLib(h);
}

DynLib::~DynLib() {
    if (handle_) ::dlclose(handle_);
}

DynLib& DynLib::operator=(DynLib&& other) noexcept {
    if (this != &other) {
        if (handle_) ::dlclose(handle_);
        handle_ = other.handle_;
        other.handle_ = nullptr;
    }
    return *this;
}

void* DynLib::symbol(const char* name) const { return handle_ ? ::dlsym(handle_, name) : nullptr; }

std::string DynLib::path() const {
    link_map* map = nullptr;
    if (!handle_ || ::dlinfo(handle_, RTLD_DI_LINKMAP, &map) != 0 || !map || !map->l_name) return {};
    return map->l_name;
}

std::string sharedLibraryName(std::string_view stem, int version) {
    std::string name(stem);
    name += ".so";
    if (version >= 0) name += "." + std::to_string(version);
    return name;
}

}  // namespace torvik::platform
