// Built where the emulated USB bus cannot exist (off Linux): the emulator has no USB units and
// exits with 77 when asked for them.
#include <stdexcept>

#include "link/usb.hpp"

namespace sim {

std::string usbUnavailableReason() { return "USB units need umockdev, which exists on Linux only"; }

void runUnderUsbPreload(char**) {}

std::unique_ptr<DeviceBus> makeUsbBus(EventLoop&) {
    throw std::runtime_error(usbUnavailableReason());
}

}  // namespace sim
