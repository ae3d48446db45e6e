// USB units: an emulated USB bus made with umockdev, so that the unmodified libusb of a program
// run as the emulator's child finds the units and talks to them.
//
// How: the emulator runs under umockdev's preload itself (its uevents reach libudev only so) and
// owns a testbed, a private /sys and /dev/bus/usb that the child sees through the same preload.
// Each unit is a device there with a usbdevfs ioctl handler; its node is a pty whose output flow
// stands stopped while no URB is ready to reap, so the host's poll() sleeps instead of spinning,
// and whose hang-up at unplug is the POLLERR a real kernel gives. The handlers run on umockdev's
// worker thread; what the units do runs on the event loop, and the two talk through queues.
//
// umockdev is loaded at run time (link/umockdev_api.hpp); on systems without it (and where the
// emulator is built without USB, off Linux) usbUnavailableReason() says why and makeUsbBus throws.
#pragma once

#include <memory>
#include <string>

#include "link/event_loop.hpp"
#include "link/transport.hpp"

namespace sim {

// Empty when USB units can be played here.
std::string usbUnavailableReason();

// Makes sure this process runs under umockdev's preload: re-executes itself with it if not
// (returns only when already under it). Call before any other thread starts.
void runUnderUsbPreload(char** argv);

// The bus; sets UMOCKDEV_DIR in this process's environment, which children inherit together
// with the preload. Throws std::runtime_error.
std::unique_ptr<DeviceBus> makeUsbBus(EventLoop& loop);

}  // namespace sim
