// libusb-1.0 for the module: loaded on first USB use, from beside the module first.
#pragma once

namespace torvik::transport {
struct Libusb;
}

namespace torvik::py_binding {

// The loaded libusb-1.0, loading it unless it is (the search of getLibUSB1). Throws
// transport::LibusbNotFound (pytorvik.USBError) naming what to install. Needs the GIL; lets go of
// it while a library loads.
const transport::Libusb& requireLibusb();

}  // namespace torvik::py_binding
