#include "bindings.hpp"
#include "wire/commands.hpp"
#include "wire/labels.hpp"

namespace torvik::py_binding {

namespace w = torvik::wire;

void bindConstants(py::module_& m) {
    for (const auto& row : w::kCommandTable) m.attr(py::str(std::string(row.name))) = row.value;
    for (const auto& row : w::kIntConstantTable) m.attr(py::str(std::string(row.name))) = row.value;
    for (const auto& row : w::kFloatConstantTable) m.attr(py::str(std::string(row.name))) = row.value;

    py::list streaming, broadcast;
    for (auto c : w::kStreamingCmdList) streaming.append(static_cast<long long>(c));
    for (auto c : w::kBroadcastCmdList) broadcast.append(static_cast<long long>(c));
    m.attr("STREAMING_CMD_LIST") = streaming;
    m.attr("BROADCAST_CMD_LIST") = broadcast;

    py::dict labels;
    for (const auto& [key, label] : w::kLabels) labels[py::str(key.data(), key.size())] = py::str(label.data(), label.size());
    m.attr("LABEL_DICT") = labels;
}

}  // namespace torvik::py_binding
