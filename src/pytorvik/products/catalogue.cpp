// The catalogue tables as module-level names, built in their documented order from the engine's
// catalogue, which the emulator shares.
#include <string>
#include <string_view>

#include "bindings.hpp"
#include "products/catalogue.hpp"

namespace torvik::py_binding {

namespace {

namespace pr = torvik::products;

template <typename F>
void forEachWord(std::string_view text, char sep, F&& f) {
    while (!text.empty()) {
        auto cut = text.find(sep);
        std::string_view item = text.substr(0, cut);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        if (!item.empty()) f(item);
        text = cut == std::string_view::npos ? std::string_view() : text.substr(cut + 1);
    }
}

py::str str(std::string_view s) { return py::str(s.data(), s.size()); }

py::list words(std::string_view text) {
    py::list out;
    forEachWord(text, ' ', [&](std::string_view w) { out.append(str(w)); });
    return out;
}

py::dict catPort(std::string_view text) {
    py::dict out;
    forEachWord(text, ';', [&](std::string_view item) {
        auto colon = item.find(':');
        std::string_view port = item.substr(colon + 1);
        while (!port.empty() && port.front() == ' ') port.remove_prefix(1);
        out[str(item.substr(0, colon))] = port == "-" ? py::object(py::none()) : py::object(py::int_(std::stoi(std::string(port))));
    });
    return out;
}

}  // namespace

void bindCatalogue(py::module_& m, const std::string& examples_folder) {
    m.attr("PKG_NAME") = str(pr::kPackageName);
    m.attr("PKG_FULL_NAME") = str(pr::kPackageFullName);
    py::dict handle_dict;
    py::list products, handles;
    for (const auto& f : pr::kFamilies) {
        py::list names = words(f.handles);
        handle_dict[str(f.key)] = names;
        for (auto n : names) {
            if (f.key != pr::kToolFamily) products.append(n);
            handles.append(n);
        }
    }
    m.attr("HANDLE_DICT") = handle_dict;
    m.attr("PRODUCT_LIST") = products;
    m.attr("HANDLE_LIST") = handles;
    py::dict properties;
    for (const auto& s : pr::kSamples) {
        py::dict record;
        record["connect"] = str(s.connect);
        record["cat_port"] = catPort(s.cat_port);
        properties[str(s.handle)] = record;
    }
    m.attr("HANDLE_PROPERTIES") = properties;
    py::dict categories;
    for (auto [name, record] : properties) categories[name] = py::list(record["cat_port"]);
    m.attr("CATEGORY_DICT") = categories;
    py::dict examples;
    for (const auto& g : pr::kExampleGroups) examples[str(g.category)] = words(g.examples);
    m.attr("EXAMPLE_DICT") = examples;
    m.attr("CATEGORY_LIST") = py::list(examples);
    m.attr("SEE_MORE") = py::str("\n").attr("join")(py::make_tuple(
        "For other examples please check:", "    " + examples_folder, "See README.md file to get detailed usage of this example."));
    py::list all;  // a new list: py::list(handles) would be HANDLE_LIST itself
    for (auto n : handles) all.append(n);
    for (const char* name : {"PKG_NAME", "PKG_FULL_NAME", "__version__", "HANDLE_LIST", "PRODUCT_LIST", "CATEGORY_LIST", "Error",
                             "TorvikWarning", "printGenericError"})
        all.append(name);
    m.attr("__all__") = all;
}

}  // namespace torvik::py_binding
