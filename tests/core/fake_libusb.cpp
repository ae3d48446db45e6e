// A stand-in for libusb-1.0 that exports every entry point the engine loads, for the loader's
// tests: each does nothing, and get_version names the stand-in. Built once whole and once with
// libusb_cancel_transfer renamed away (a library that lacks an entry point).
#include "transport/libusb_api.hpp"

#if defined(_WIN32)
#define FAKE_EXPORT __declspec(dllexport)
#else
#define FAKE_EXPORT __attribute__((visibility("default")))
#endif

using namespace torvik::transport::lu;

namespace {

template <class T>
T nothing() {
    return T{};
}
template <>
void nothing<void>() {}
template <>
const version* nothing<const version*>() {
    static const version v{9, 8, 7, 6, "", "fake libusb"};
    return &v;
}

}  // namespace

#define FAKE_STUB(result, name, params) \
    extern "C" FAKE_EXPORT result TORVIK_LIBUSB_CALL libusb_##name params { return nothing<result>(); }
TORVIK_LIBUSB_FUNCTIONS(FAKE_STUB)
