// The conversions and checks of the module, for the operations that build and read payloads.
// Each behaves exactly as the module-level function of the same meaning.
#pragma once

#include <pybind11/pybind11.h>

namespace torvik::py_binding {

namespace py = pybind11;

py::list u16To2U8(py::handle value);           // convertU16To2U8
py::object u8x2ToU16(py::handle int_list);     // convert2U8ToU16
py::object u8x2ToI16(py::handle int_list);     // convert2U8ToI16
py::str u8ListToStr(py::handle int_list);      // convertU8ListToStr
py::list strToU8List(py::handle str_);         // convertStrToU8List
py::list ipAddrTo4U8(py::handle value);        // convertIPAddrTo4U8
py::list macAddrTo6U8(py::handle str_);        // convertMACAddrTo6U8
py::list convertIntToBinaryList(py::handle value_int, py::handle width);
py::list convertIntToIndexList(py::handle value_int);
py::object indexAndBinaryListsToInt(py::handle index_list, py::handle binary_list);
py::object indexListToInt(py::handle index_list);
void checkInputType(py::handle data, py::handle correct_type);  // raises InputTypeNotCorrectError
void checkInputTypeConsistent(py::handle data, py::handle data2);

}  // namespace torvik::py_binding
