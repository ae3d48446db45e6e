#include <windows.h>

#include <iterator>

#include "platform/dynlib.hpp"

namespace torvik::platform {

namespace {

std::wstring wide(const std::string& utf8) {
    if (utf8.empty()) return {};
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring out(static_cast<std::size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0) ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out.data(), n);
    return out;
}

std::string utf8(const wchar_t* w, int len) {
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, w, len, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) ::WideCharToMultiByte(CP_UTF8, 0, w, len, out.data(), n, nullptr, nullptr);
    return out;
}

std::string lastError() {
    wchar_t* text = nullptr;
    const DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                     nullptr, ::GetLastError(), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::string out = n ? utf8(text, static_cast<int>(n)) : "cannot be opened";
    if (text) ::LocalFree(text);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ')) out.pop_back();
    return out;
}

}  // namespace

DynLib DynLib::open(const std::string& name, std::string& error) {
    const std::wstring w = wide(name);
    // A file given by path finds the libraries it depends on beside itself.
    const bool is_path = name.find_first_of("/\\") != std::string::npos;
    HMODULE h = is_path ? ::LoadLibraryExW(w.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH) : ::LoadLibraryW(w.c_str());
    if (!h) error = lastError();
    return DynLib(reinterpret_cast<void*>(h));
}

DynLib::~DynLib() {
    if (handle_) ::FreeLibrary(static_cast<HMODULE>(handle_));
}

DynLib& DynLib::operator=(DynLib&& other) noexcept {
    if (this != &other) {
        if (handle_) ::FreeLibrary(static_cast<HMODULE>(handle_));
        handle_ = other.handle_;
        other.handle_ = nullptr;
    }
    return *this;
}

void* DynLib::symbol(const char* name) const {
    return handle_ ? reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle_), name)) : nullptr;
}

std::string DynLib::path() const {
    if (!handle_) return {};
    wchar_t buf[32768];
    const DWORD n = ::GetModuleFileNameW(static_cast<HMODULE>(handle_), buf, static_cast<DWORD>(std::size(buf)));
    return n ? utf8(buf, static_cast<int>(n)) : std::string();
}

std::string sharedLibraryName(std::string_view stem, int) { return std::string(stem) + ".dll"; }

}  // namespace torvik::platform
