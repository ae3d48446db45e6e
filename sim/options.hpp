// The command line:
//   torvik-sim [--unit UNIT]... [--control PATH] [-- COMMAND ARGS...]
//   UNIT = CLASS@ADDR[:CMDPORT[:DATAPORT]][,serial=SERIAL]
// CLASS is a product class; ADDR a loopback IPv4 address (127.0.0.0/8); ports default to 7 and, for
// Wi-Fi units, 1336 for the data connection; port 0 lets the system choose.
#pragma once

#include <string>
#include <vector>

#include "unit.hpp"

namespace sim {

struct Options {
    std::vector<UnitConfig> units;
    std::string control;  // empty: a fresh path under $TMPDIR
    std::vector<std::string> command;
};

// A bad command line: the message for stderr; the program exits with status 2.
struct UsageError {
    std::string message;
};

Options parseOptions(int argc, char** argv);  // throws UsageError
extern const char* const kUsage;

}  // namespace sim
