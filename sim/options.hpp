// The command line:
//   torvik-sim [--unit UNIT]... [--usb USBUNIT]... [--usb-host] [--control PATH] [--echo] [-- COMMAND ARGS...]
//   UNIT = CLASS@ADDR[:CMDPORT[:DATAPORT]][,serial=SERIAL][,tcp]
//   USBUNIT = CLASS:SERIAL[,product=TEXT][,transfer=bulk|interrupt][,canbus=NAME]
// CLASS is a product class; ADDR a loopback IPv4 address (127.0.0.0/8); ports default to 7 and, for
// Wi-Fi units, 1336 for the data connection; port 0 lets the system choose. USB units appear on
// an emulated USB bus that the command's libusb sees (see link/usb.hpp); their product string defaults
// to the class's label, and several may share a serial number, as on a real bus. Units with a
// CAN port that give the same canbus NAME share one emulated CAN bus (firmware/can_bus.hpp). --usb-host
// makes the bus without units, for units added at run time through the control socket. --echo
// starts every unit with the echo firmware ([port, 0] to every request) instead of its product's.
// ",tcp" puts a USB product's firmware behind a TCP port: the host's engine takes the same path
// there, much faster than through the emulated USB bus (benchmarks, long streams in tests).
#pragma once

#include <string>
#include <vector>

#include "unit.hpp"

namespace sim {

struct Options {
    std::vector<UnitConfig> units;
    bool usb_host = false;  // an emulated USB bus even without USB units
    bool echo = false;      // every unit answers [port, 0] instead of modelling its product
    std::string control;  // empty: a fresh path under $TMPDIR
    std::vector<std::string> command;
};

// A bad command line: the message for stderr; the program exits with status 2.
struct UsageError {
    std::string message;
};

Options parseOptions(int argc, char** argv);  // throws UsageError
// One USBUNIT; its address text is "usb:<id>". Throws UsageError.
UnitConfig parseUsbUnit(const std::string& arg, unsigned id);
extern const char* const kUsage;

}  // namespace sim
