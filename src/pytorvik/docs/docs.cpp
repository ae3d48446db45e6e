#include "docs/docs.hpp"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace torvik::py_binding {

namespace {

// The compiled function behind a class member (methods are wrapped in instancemethod or static-
// or classmethod objects), or null when the member is none.
PyObject* compiledFunction(py::handle member) {
    PyObject* f = member.ptr();
    if (PyInstanceMethod_Check(f)) f = PyInstanceMethod_GET_FUNCTION(f);
    if (py::isinstance(member, py::module_::import("builtins").attr("staticmethod")) ||
        py::isinstance(member, py::module_::import("builtins").attr("classmethod")))
        f = member.attr("__func__").ptr();
    // pybind11's functions keep their record as the function's self.
    if (!PyCFunction_Check(f) || PyCFunction_GET_SELF(f) == nullptr) return nullptr;
    if (std::string_view(Py_TYPE(PyCFunction_GET_SELF(f))->tp_name).find("function_record") == std::string_view::npos) return nullptr;
    return f;
}

const char* docOf(PyObject* f) { return reinterpret_cast<PyCFunctionObject*>(f)->m_ml->ml_doc; }

// pybind11 allocates a function's doc with malloc and frees it with free; so does this.
void setDocOf(PyObject* f, const std::string& doc) {
    auto* ml = reinterpret_cast<PyCFunctionObject*>(f)->m_ml;
    char* copy = static_cast<char*>(std::malloc(doc.size() + 1));
    if (copy == nullptr) throw std::bad_alloc();
    std::memcpy(copy, doc.c_str(), doc.size() + 1);
    std::free(const_cast<char*>(ml->ml_doc));
    ml->ml_doc = copy;
}

std::string indented(std::string_view lines) {
    std::string out;
    while (!lines.empty()) {
        std::size_t end = lines.find('\n');
        out += "    " + std::string(lines.substr(0, end)) + "\n";
        lines = end == std::string_view::npos ? std::string_view() : lines.substr(end + 1);
    }
    return out;
}

// A class's `args` are its fields.
std::string compose(const Doc& d, bool is_class = false) {
    std::string out = d.text;
    for (auto [title, body] : {std::pair{is_class ? "Attributes:" : "Args:", d.args}, {"Returns:", d.returns}, {"Raises:", d.raises}}) {
        if (*body == '\0') continue;
        out += "\n\n" + std::string(title) + "\n" + indented(body);
        out.pop_back();
    }
    return out;
}

// The first line of a doc as pybind11 writes it: "name(a: T, b: U = 0) -> R".
bool splitHead(std::string_view doc, std::string_view& name, std::string_view& params, std::string_view& rest) {
    std::size_t eol = doc.find('\n');
    std::string_view head = doc.substr(0, eol);
    std::size_t open = head.find('(');
    std::size_t close = head.rfind(") -> ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
    name = head.substr(0, open);
    params = head.substr(open + 1, close - open - 1);
    rest = eol == std::string_view::npos ? std::string_view() : doc.substr(eol + 1);
    return true;
}

// Splits at the commas outside brackets and quotes.
std::vector<std::string_view> splitTop(std::string_view s) {
    std::vector<std::string_view> out;
    int depth = 0;
    char quote = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (quote) {
            if (c == '\\') ++i;
            else if (c == quote) quote = 0;
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '(' || c == '[' || c == '{') {
            ++depth;
        } else if (c == ')' || c == ']' || c == '}') {
            --depth;
        } else if (c == ',' && depth == 0) {
            out.push_back(s.substr(start, i - start));
            start = i + 1;
        }
    }
    if (start < s.size()) out.push_back(s.substr(start));
    for (auto& p : out) {
        while (!p.empty() && p.front() == ' ') p.remove_prefix(1);
        while (!p.empty() && p.back() == ' ') p.remove_suffix(1);
    }
    return out;
}

// "a: T, b: U = 0" -> "a, b=0"; parameters that pybind11 left unnamed (arg0, ...) take no keyword,
// so "/" follows the last of them.
std::string textSignature(std::string_view params) {
    std::vector<std::string> items;
    std::size_t slash = 0;
    for (std::string_view p : splitTop(params)) {
        std::string_view name = p.substr(0, p.find(':'));
        std::string item(name);
        if (std::size_t eq = p.find(" = "); eq != std::string_view::npos && name.size() < p.size()) {
            // A default without a literal form (a tuple of types) shows as "...": its text says it.
            std::string_view value = p.substr(eq + 3);
            item += "=" + (value.find('<') == std::string_view::npos ? std::string(value) : std::string("..."));
        }
        items.push_back(item);
        if (name.size() > 3 && name.substr(0, 3) == "arg" && name.find_first_not_of("0123456789", 3) == std::string_view::npos)
            slash = items.size();
    }
    if (slash > 0) items.insert(items.begin() + static_cast<std::ptrdiff_t>(slash), "/");
    std::string out;
    for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

void finishFunction(PyObject* f) {
    const char* doc = docOf(f);
    std::string_view name, params, rest;
    if (doc == nullptr || !splitHead(doc, name, params, rest)) return;  // overloads keep pybind11's text
    while (!rest.empty() && rest.front() == '\n') rest.remove_prefix(1);
    while (!rest.empty() && rest.back() == '\n') rest.remove_suffix(1);
    setDocOf(f, std::string(name) + "(" + textSignature(params) + ")\n--\n\n" + std::string(rest));
}

bool ownClass(py::handle v, const py::module_& m) {
    return PyType_Check(v.ptr()) && py::hasattr(v, "__module__") && py::getattr(v, "__module__").equal(m.attr("__name__"));
}

}  // namespace

void applyDocs(py::module_& m, std::initializer_list<Doc> docs) {
    for (const Doc& d : docs) {
        std::string_view key(d.name);
        std::size_t dot = key.find('.');
        std::string owner(key.substr(0, dot));
        if (!py::hasattr(m, owner.c_str())) continue;
        py::object target = m.attr(owner.c_str());
        if (dot == std::string_view::npos && PyType_Check(target.ptr())) {
            target.attr("__doc__") = py::str(compose(d, true));
            continue;
        }
        if (dot != std::string_view::npos) {
            // The class's own member, or one of a base that the module does not name (the logger's).
            py::str member(std::string(key.substr(dot + 1)));
            py::object found;
            for (py::handle b : target.attr("__mro__")) {
                py::str base_name(b.attr("__name__"));
                if (!b.is(target) && py::hasattr(m, base_name) && py::object(m.attr(base_name)).is(b)) break;
                py::object members = b.attr("__dict__");
                if (members.contains(member)) {
                    found = members[member];
                    break;
                }
            }
            if (!found) continue;
            target = found;
        }
        PyObject* f = compiledFunction(target);
        if (f == nullptr || docOf(f) == nullptr) continue;
        std::string_view old(docOf(f));
        // Keeps pybind11's signature line, which finishSignatures turns into the text signature.
        setDocOf(f, std::string(old.substr(0, old.find('\n'))) + "\n\n" + compose(d) + "\n");
    }
}

void finishSignatures(py::module_& m) {
    for (auto [name, value] : py::reinterpret_borrow<py::dict>(m.attr("__dict__"))) {
        if (PyObject* f = compiledFunction(value)) finishFunction(f);
        if (!ownClass(value, m)) continue;
        for (py::handle cls : value.attr("__mro__")) {  // bases the module does not name included
            if (!ownClass(cls, m)) continue;
            for (py::handle v : cls.attr("__dict__").attr("values")())
                if (PyObject* f = compiledFunction(v)) finishFunction(f);
        }
    }
}

}  // namespace torvik::py_binding
