#include "bindings.hpp"

#ifndef TORVIK_VERSION
#error "TORVIK_VERSION must come from the build"
#endif

namespace tb = torvik::py_binding;

PYBIND11_MODULE(pytorvik, m) {
    m.doc() = "Host-side driver library for Torvik data-acquisition units.";
    m.attr("__version__") = TORVIK_VERSION;
    tb::bindConstants(m);
    tb::bindErrors(m);
    tb::bindConvert(m);
    tb::bindClient(m);
}
