// The module's error and warning classes. They are ordinary Python classes (built with `type`)
// whose methods are C++ functions, so scripts can catch, subclass and inspect them as usual.
#include <Python.h>
#include <frameobject.h>

#include <string>
#include <unordered_map>

#include <cstring>
#include <new>

#include "bindings.hpp"
#include "device/router.hpp"
#include "device/receiver.hpp"
#include "platform/socket.hpp"
#include "transport/errors.hpp"
#include "wire/error_codes.hpp"

namespace torvik::py_binding {

namespace w = torvik::wire;

namespace {

// Class objects by name. The references are kept for the life of the process on purpose: the
// classes must outlive every thread that may still raise or warn during interpreter shutdown.
std::unordered_map<std::string_view, PyObject*>& registry() {
    static auto* map = new std::unordered_map<std::string_view, PyObject*>();
    return *map;
}

py::object makeClass(py::module_& m, std::string_view name, py::handle base, std::string_view doc) {
    py::dict ns;
    ns["__module__"] = m.attr("__name__");
    ns["__doc__"] = py::str(doc.data(), doc.size());
    py::object cls = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyType_Type))(
        py::str(name.data(), name.size()), py::make_tuple(base), ns);
    m.attr(py::str(name.data(), name.size())) = cls;
    registry()[name] = cls.inc_ref().ptr();
    return cls;
}

void setMethod(py::object& cls, const char* name, py::cpp_function fn) { py::setattr(cls, name, fn); }

void errorInit(py::handle self, py::handle code, py::handle msg) {
    py::setattr(self, "code", code);
    py::setattr(self, "msg", msg);
}

// Builds a warning: stores the fields, then (unless `silent` is true) prints the caller's stack
// and issues "Warning <code>: <msg>" as a plain UserWarning. The constructor is C++, so the stack
// holds no frame of its own to leave out. A thread without Python frames prints an empty stack.
void warningInit(py::handle self, py::handle code, py::handle msg, const py::kwargs& kwargs) {
    errorInit(self, code, msg);
    if (kwargs.contains("silent") && py::bool_(kwargs["silent"])) return;
    py::module_ traceback = py::module_::import("traceback");
    py::list entries;
    if (PyFrameObject* frame = PyEval_GetFrame())
        entries = traceback.attr("format_list")(traceback.attr("extract_stack")(py::handle(reinterpret_cast<PyObject*>(frame))));
    py::print(py::str("\n").attr("join")(entries));
    py::module_::import("warnings").attr("warn")(py::str("Warning {:d}: {}").format(code, msg));
}

}  // namespace

py::handle errorClass(std::string_view name) {
    auto it = registry().find(name);
    if (it == registry().end()) throw std::logic_error("no error class " + std::string(name));
    return it->second;
}

void raiseError(std::string_view name) {
    py::handle cls = errorClass(name);
    py::object inst = cls();
    PyErr_SetObject(cls.ptr(), inst.ptr());
    throw py::error_already_set();
}

void raiseError(std::string_view name, py::handle msg) {
    py::handle cls = errorClass(name);
    py::object inst = cls(py::arg("msg") = msg);
    PyErr_SetObject(cls.ptr(), inst.ptr());
    throw py::error_already_set();
}

namespace {

void setLibraryError(std::string_view name) {
    py::handle cls = errorClass(name);
    py::object inst = cls();
    PyErr_SetObject(cls.ptr(), inst.ptr());
}

void setSocketModuleError(const char* cls, py::object args) {
    py::object exc = py::module_::import("socket").attr(cls);
    PyErr_SetObject(exc.ptr(), args.ptr());
}

// Sets the Python error that an engine failure stands for; false for a failure of another kind.
bool setEngineError(std::exception_ptr p) {
    try {
        if (p) std::rethrow_exception(p);
    } catch (const transport::ConnectFailed&) {
        setLibraryError("NetworkConnectionError");
    } catch (const transport::ConnectionLost&) {
        setLibraryError("NetworkConnectionLostError");
    } catch (const transport::UsbUnitNotFound&) {
        setLibraryError("USBConnectionError");
    } catch (const transport::UsbError& e) {
        py::handle cls = errorClass(dynamic_cast<const transport::UsbTimeout*>(&e) ? "USBTimeoutError" : "USBError");
        py::object inst = cls(e.code, e.what());
        PyErr_SetObject(cls.ptr(), inst.ptr());
    } catch (const transport::NoSocket& e) {
        // What a missing socket (the integer 0) answers when asked to act.
        PyErr_Format(PyExc_AttributeError, "'int' object has no attribute '%s'", e.op);
    } catch (const device::AbsentClient&) {
        PyErr_SetString(PyExc_AttributeError, "'NoneType' object has no attribute 'recvAndSplitPacket'");
    } catch (const transport::ReceiveTimeout&) {
        setSocketModuleError("timeout", py::make_tuple("timed out"));
    } catch (const transport::ResolveError& e) {
        setSocketModuleError("gaierror", py::make_tuple(e.code, e.what()));
    } catch (const transport::SocketError& e) {
        py::object args = py::make_tuple(e.err, platform::socketErrorText(e.err));
        PyErr_SetObject(PyExc_OSError, args.ptr());
    } catch (const transport::BadPort& e) {
        PyErr_SetString(PyExc_OverflowError, e.what());
    } catch (const device::RoutingError& e) {
        PyErr_SetString(PyExc_IndexError, e.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();  // the interpreter's own MemoryError, without the C++ library's text
    } catch (...) {
        return false;
    }
    return true;
}

}  // namespace

void registerTranslators() {
    py::register_exception_translator([](std::exception_ptr p) {
        if (!setEngineError(p)) std::rethrow_exception(p);
    });
}

py::object exceptionObject(std::exception_ptr failure) {
    if (!setEngineError(failure)) {
        try {
            std::rethrow_exception(failure);
        } catch (py::error_already_set& e) {
            e.restore();
        } catch (const std::exception& e) {
            PyErr_SetString(PyExc_RuntimeError, e.what());
        } catch (...) {
            PyErr_SetString(PyExc_RuntimeError, "unknown failure");
        }
    }
    PyObject *type = nullptr, *value = nullptr, *trace = nullptr;
    PyErr_Fetch(&type, &value, &trace);
    PyErr_NormalizeException(&type, &value, &trace);
    if (trace != nullptr) PyException_SetTraceback(value, trace);
    Py_XDECREF(type);
    Py_XDECREF(trace);
    return py::reinterpret_steal<py::object>(value);
}

void bindErrors(py::module_& m) {
    py::object error = makeClass(m, "Error", PyExc_Exception, "Base of every error of the library: a code and a message.");
    setMethod(error, "__init__",
              py::cpp_function([](py::handle self, py::handle code, py::handle msg, const py::args&,
                                  const py::kwargs&) { errorInit(self, code, msg); },
                               py::is_method(error), py::arg("code"), py::arg("msg")));
    setMethod(error, "__str__",
              py::cpp_function([](py::handle self) { return py::str("Error {:d}: {}").format(self.attr("code"), self.attr("msg")); },
                               py::is_method(error)));

    py::object warning = makeClass(m, "TorvikWarning", PyExc_UserWarning, "Base of the library's warnings: a code and a message.");
    setMethod(warning, "__init__",
              py::cpp_function([](py::handle self, py::handle code, py::handle msg, const py::args&,
                                  const py::kwargs& kwargs) { warningInit(self, code, msg, kwargs); },
                               py::is_method(warning), py::arg("code"), py::arg("msg")));

    for (const auto& row : w::kErrorClasses) {
        const bool is_warning = row.base == w::ErrorBase::Warning;
        py::object cls = makeClass(m, row.name, is_warning ? warning : error, row.msg);
        py::int_ code(row.code);
        py::str default_msg(row.msg.data(), row.msg.size());
        auto init = [code, default_msg, is_warning](py::handle self, py::object msg, const py::args&, const py::kwargs& kwargs) {
            if (msg.is_none()) msg = default_msg;
            if (is_warning)
                warningInit(self, code, msg, kwargs);
            else
                errorInit(self, code, msg);
        };
        setMethod(cls, "__init__", py::cpp_function(init, py::is_method(cls), py::arg("msg") = py::none()));
    }

    // Failures of the USB library: libusb's error code and text, read and write time-outs apart.
    py::object usb_error = makeClass(m, "USBError", PyExc_OSError, "A libusb failure: its error code and text.");
    setMethod(usb_error, "__init__",
              py::cpp_function(
                  [](py::handle self, py::handle code, py::handle msg) {
                      py::handle(PyExc_OSError).attr("__init__")(self, code, msg);
                      errorInit(self, code, msg);
                  },
                  py::is_method(usb_error), py::arg("code"), py::arg("msg")));
    makeClass(m, "USBTimeoutError", usb_error, "A USB transfer that ran into its time limit.");

    m.def(
        "printGenericError",
        [](py::handle err) { py::print(py::str("{}:").format(py::type::handle_of(err).attr("__name__")), err); },
        py::arg("err"), "Prints the error's class name and its text on one line.");

    m.def(
        "checkFirmwareError",
        [](py::object error_code) -> py::object {
            // Compared by value, so any number (or object comparing with integers) is accepted.
            if (PyLong_CheckExact(error_code.ptr())) {
                int overflow = 0;
                long long v = PyLong_AsLongLongAndOverflow(error_code.ptr(), &overflow);
                if (overflow == 0)
                    if (const w::ErrorClass* c = w::firmwareErrorClass(v)) raiseError(c->name);
                return error_code;
            }
            for (int status = 0; status <= w::kFirmwareStatusMax; ++status) {
                if (error_code.equal(py::int_(status))) {
                    if (status == 0) return error_code;
                    raiseError(w::firmwareErrorClass(status)->name);
                }
            }
            return error_code;
        },
        py::arg("error_code"), "Returns a firmware status of 0 or unknown value, raises the error of a known one.");
}

}  // namespace torvik::py_binding
