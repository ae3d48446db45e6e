// I2CModule and SPIModule: the unit as bus master. Each operation is one command and one reply.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

Co<> statusOp(py::object self, long long cmd, py::list data_out, long long index) {
    py::object data_in = co_await exchange(self, cmd, data_out);
    co_return statusTail(data_in, index);
}

// A write: port, the element count in one byte, then the elements as they are.
py::list writePayload(py::handle port, py::handle head, py::handle data) {
    Payload p;
    p.byte(port);
    if (head) p.byte(head);
    return p.byte(py::len(data)).extend(data).list();
}

void requireList(py::handle v) { checkInputType(v, py::handle(reinterpret_cast<PyObject*>(&PyList_Type))); }

// ---- I2C ----

void i2cPort(py::handle self, py::handle port) { checkTablePort(self, "I2C_dict", port, "I2CPortNotAvaliableError"); }

Co<> i2cCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "I2C_dict", "_I2C_getPinMapPort", port, allow_state, "I2CPortNotAvaliableError");
}

Co<> i2cOpen(py::object self, py::object port) {
    checkInputType(port, intType());
    i2cPort(self, port);
    co_await aio::awaitObject(self.attr("_checkI2CPinState_async")(port, oneOf("Idle", "DI", "DO")));
    co_return co_await statusOp(self, w::OPEN_I2C, Payload().byte(port).list(), 1);
}

template <long long Cmd>
Co<> i2cPortCommand(py::object self, py::object port) {
    checkInputType(port, intType());
    i2cPort(self, port);
    co_return co_await statusOp(self, Cmd, Payload().byte(port).list(), 1);
}

Co<> i2cRead(py::object self, py::object port, py::object read_address, py::object bytes_to_read) {
    for (const py::object& v : {port, read_address, bytes_to_read}) checkInputType(v, intType());
    i2cPort(self, port);
    py::object data_in = co_await exchange(self, w::READ_I2C, Payload().byte(port).byte(read_address).byte(bytes_to_read).list());
    co_return slice(data_in, 3);
}

Co<> i2cWrite(py::object self, py::object port, py::object write_address, py::object write_data) {
    checkInputType(port, intType());
    checkInputType(write_address, intType());
    requireList(write_data);
    i2cPort(self, port);
    co_return co_await statusOp(self, w::WRITE_I2C, writePayload(port, write_address, write_data), 3);
}

Co<> i2cSetClockRate(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    i2cPort(self, port);
    checkInList(mode, {0, 1, 2, 3}, "I2CClockNotSupportError");
    static const long long kHertz[] = {100000, 400000, 1000000, 3400000};
    // The mode that `mode` equals, as a table lookup finds it (never an index taken from int(mode),
    // which an object that compares equal need not agree with).
    long long m = 0;
    while (m < 3 && !py::reinterpret_borrow<py::object>(mode).equal(py::int_(m))) ++m;
    py::object hertz = py::int_(kHertz[m]);
    py::list data_out = Payload().byte(port).extend(moduleObject().attr("convertU32To4U8")(hertz)).list();
    co_return co_await statusOp(self, w::SET_I2C_FREQUENCY, data_out, 1);
}

Co<> i2cSetAddressSize(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    i2cPort(self, port);
    checkInList(mode, {0, 1}, "I2CAddressSizeNotVaildError");
    co_return co_await statusOp(self, w::SET_I2C_ADDR_SIZE, Payload().byte(port).byte(mode).list(), 1);
}

// ---- SPI ----

void spiPort(py::handle self, py::handle port) { checkTablePort(self, "SPI_dict", port, "SPIPortNotAvaliableError"); }

Co<> spiCheckPinState(py::object self, py::object port, py::object allow_state) {
    return checkPinState(self, "SPI_dict", "_SPI_getPinMapPort", port, allow_state, "SPIPortNotAvaliableError");
}

Co<> spiOpen(py::object self, py::object port) {
    checkInputType(port, intType());
    spiPort(self, port);
    co_await aio::awaitObject(self.attr("_checkSPIPinState_async")(port, oneOf("Idle", "DI", "DO")));
    co_return co_await statusOp(self, w::OPEN_SPI, Payload().byte(port).list(), 1);
}

template <long long Cmd>
Co<> spiPortCommand(py::object self, py::object port) {
    checkInputType(port, intType());
    spiPort(self, port);
    co_return co_await statusOp(self, Cmd, Payload().byte(port).list(), 1);
}

Co<> spiRead(py::object self, py::object port, py::object bytes_to_read) {
    checkInputType(port, intType());
    checkInputType(bytes_to_read, intType());
    spiPort(self, port);
    py::object data_in = co_await exchange(self, w::READ_SPI, Payload().byte(port).byte(bytes_to_read).list());
    co_return slice(data_in, 2);
}

Co<> spiWrite(py::object self, py::object port, py::object write_data) {
    checkInputType(port, intType());
    requireList(write_data);
    spiPort(self, port);
    co_return co_await statusOp(self, w::WRITE_SPI, writePayload(port, py::handle(), write_data), 2);
}

Co<> spiReadAndWrite(py::object self, py::object port, py::object write_data) {
    checkInputType(port, intType());
    requireList(write_data);
    spiPort(self, port);
    py::object data_in = co_await exchange(self, w::READ_AND_WRITE_SPI, writePayload(port, py::handle(), write_data));
    co_return slice(data_in, 2);
}

template <long long Cmd, std::size_t N>
Co<> spiSetting(py::object self, py::object port, py::object mode, const long long (&allowed)[N], const char* error) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    spiPort(self, port);
    py::list l;
    for (long long v : allowed) l.append(v);
    const int known = PySequence_Contains(l.ptr(), mode.ptr());
    if (known < 0) throw py::error_already_set();
    if (known == 0) raiseError(error);
    co_return co_await statusOp(self, Cmd, Payload().byte(port).byte(mode).list(), 1);
}

constexpr long long kZeroOne[] = {0, 1};

Co<> spiSetDataSize(py::object self, py::object port, py::object mode) {
    return spiSetting<w::SET_SPI_DATA_SIZE>(self, port, mode, kZeroOne, "SPIDataSizeNotVaildError");
}
Co<> spiSetFirstBit(py::object self, py::object port, py::object mode) {
    return spiSetting<w::SET_SPI_FIRST_BIT>(self, port, mode, kZeroOne, "SPIFirstBitNotVaildError");
}

Co<> spiSetPrescaler(py::object self, py::object port, py::object prescaler) {
    checkInputType(port, intType());
    checkInputType(prescaler, intType());
    spiPort(self, port);
    checkInList(prescaler, {2, 4, 8, 16, 32, 64, 128, 256}, "SPIPrescalerNotVaildError");
    py::list data_out = Payload().byte(port).extend(moduleObject().attr("convertI16To2U8")(prescaler)).list();
    co_return co_await statusOp(self, w::SET_SPI_PRESCALER, data_out, 1);
}

// No port check and no value check here: only the public setter is guarded.
template <long long Cmd>
Co<> spiClockBit(py::object self, py::object port, py::object value) {
    checkInputType(port, intType());
    checkInputType(value, intType());
    co_return co_await statusOp(self, Cmd, Payload().byte(port).byte(value).list(), 1);
}

Co<> spiSetMode(py::object self, py::object port, py::object mode) {
    checkInputType(port, intType());
    checkInputType(mode, intType());
    spiPort(self, port);
    checkInList(mode, {0, 1, 2, 3}, "SPIModeNotVaildError");
    long long m = py::cast<long long>(py::int_(mode));
    py::object status = co_await aio::awaitObject(self.attr("_SPI_setCPOL_async")(port, py::int_(m >> 1)));
    py::object status2 = co_await aio::awaitObject(self.attr("_SPI_setCPHA_async")(port, py::int_(m & 1)));
    co_return status | status2;
}

}  // namespace

void bindBusModules(py::module_& m) {
    const auto port = py::arg("port");
    const auto mode = py::arg("mode");

    PyClass i2c(m, "I2CModule", py::make_tuple(m.attr("Packet")), "The unit as I2C master on its I2C ports.");
    i2c.def("__init__", [](py::handle self, py::handle d) { self.attr("I2C_dict") = d; }, py::arg("I2C_dict"));
    defOp(i2c, "I2C_open_async", &i2cOpen, port);
    defOp(i2c, "I2C_close_async", &i2cPortCommand<w::CLOSE_I2C>, port);
    defOp(i2c, "I2C_read_async", &i2cRead, port, py::arg("read_address"), py::arg("bytes_to_read"));
    defOp(i2c, "I2C_write_async", &i2cWrite, port, py::arg("write_address"), py::arg("write_data"));
    defOp(i2c, "I2C_reset_async", &i2cPortCommand<w::RESET_I2C>, port);
    defOp(i2c, "I2C_setClockRate_async", &i2cSetClockRate, port, mode);
    defOp(i2c, "I2C_setAddressSize_async", &i2cSetAddressSize, port, mode);
    defOp(i2c, "_checkI2CPinState_async", &i2cCheckPinState, port, py::arg("allow_state"));
    i2c.def("I2C_getPinMap", [](py::handle self) { return self.attr("I2C_dict"); })
        .def("_I2C_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "I2C_dict", p); }, py::arg("I2C_port"))
        .def("_checkI2CPort", [](py::handle self, py::handle p) { i2cPort(self, p); return true; }, port)
        .def("_checkI2CClockRate", [](py::handle, py::handle v) { checkInList(v, {0, 1, 2, 3}, "I2CClockNotSupportError"); return true; }, mode)
        .def("_checkI2CAddressSize", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "I2CAddressSizeNotVaildError"); return true; }, mode);

    PyClass spi(m, "SPIModule", py::make_tuple(m.attr("Packet")), "The unit as SPI master on its SPI ports.");
    spi.def("__init__", [](py::handle self, py::handle d) { self.attr("SPI_dict") = d; }, py::arg("SPI_dict"));
    defOp(spi, "SPI_open_async", &spiOpen, port);
    defOp(spi, "SPI_close_async", &spiPortCommand<w::CLOSE_SPI>, port);
    defOp(spi, "SPI_read_async", &spiRead, port, py::arg("bytes_to_read"));
    defOp(spi, "SPI_write_async", &spiWrite, port, py::arg("write_data"));
    defOp(spi, "SPI_readAndWrite_async", &spiReadAndWrite, port, py::arg("write_data"));
    defOp(spi, "SPI_reset_async", &spiPortCommand<w::RESET_SPI>, port);
    defOp(spi, "SPI_setDataSize_async", &spiSetDataSize, port, mode);
    defOp(spi, "SPI_setFirstBit_async", &spiSetFirstBit, port, mode);
    defOp(spi, "SPI_setPrescaler_async", &spiSetPrescaler, port, py::arg("prescaler"));
    defOp(spi, "SPI_setMode_async", &spiSetMode, port, mode);
    defOp(spi, "_SPI_setCPOL_async", &spiClockBit<w::SET_SPI_CPOL>, port, py::arg("polarity"));
    defOp(spi, "_SPI_setCPHA_async", &spiClockBit<w::SET_SPI_CPHA>, port, py::arg("phase"));
    defOp(spi, "_checkSPIPinState_async", &spiCheckPinState, port, py::arg("allow_state"));
    spi.def("SPI_getPinMap", [](py::handle self) { return self.attr("SPI_dict"); })
        .def("_SPI_getPinMapPort", [](py::handle self, py::handle p) { return pinMapPorts(self, "SPI_dict", p); }, py::arg("SPI_port"))
        .def("_checkSPIPort", [](py::handle self, py::handle p) { spiPort(self, p); return true; }, port)
        .def("_checkSPIDataSize", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "SPIDataSizeNotVaildError"); return true; }, mode)
        .def("_checkSPIFirstBit", [](py::handle, py::handle v) { checkInList(v, {0, 1}, "SPIFirstBitNotVaildError"); return true; }, mode)
        .def("_checkSPIPrescaler",
             [](py::handle, py::handle v) {
                 checkInList(v, {2, 4, 8, 16, 32, 64, 128, 256}, "SPIPrescalerNotVaildError");
                 return true;
             },
             mode)
        .def("_checkSPIMode", [](py::handle, py::handle v) { checkInList(v, {0, 1, 2, 3}, "SPIModeNotVaildError"); return true; }, mode);
}

}  // namespace torvik::py_binding
