// Built where umockdev is missing: the emulator has no USB units (and exits with 77 when asked for them).
#include <stdexcept>

#include "link/usb.hpp"

namespace sim {

bool usbSupported() { return false; }

void runUnderUsbPreload(char**) {}

std::unique_ptr<DeviceBus> makeUsbBus(EventLoop&) {
    throw std::runtime_error("torvik-sim was built without USB support (umockdev was not found at build time)");
}

}  // namespace sim
