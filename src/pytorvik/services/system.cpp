// SystemModule: identity, clock, pin modes, reboot, and the service operations. Status replies
// carry the status at reply index 0.
#include "services/module_support.hpp"
#include "services/modules.hpp"

namespace torvik::py_binding {

namespace {

namespace w = torvik::wire;

const char* const kPinModeNames[] = {"Disabled", "Idle", "DI", "DO", "UART", "I2C", "SPI", "CAN", "PWM", "ADC"};

py::dict pinModeDict() {
    py::dict d;
    for (int i = 0; i < 10; ++i) d[py::int_(i)] = kPinModeNames[i];
    return d;
}

Co<> getDriverInfo(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_DRIVER_INFO, Payload().byte(0).list());
    co_return u8ListToStr(data_in).attr("split")("_");
}

Co<> getRTC(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_DATE_TIME, Payload().byte(0).byte(0).byte(0).byte(0).byte(0).byte(0).list());
    py::list args;
    args.append(replyByte(data_in, 0) + py::int_(1900));
    for (py::handle b : slice(data_in, 1)) args.append(b);
    py::str text = format("{:04d}-{:02d}-{:02d}, {:02d}:{:02d}:{:02d}", args);
    self.attr("rtc_time") = text;
    co_return text;
}

Co<> setRTC(py::object self, py::object year, py::object month, py::object day, py::object hour, py::object minute,
            py::object second) {
    if (year < py::int_(100)) year = year + py::int_(1900);
    for (const py::object& v : {year, month, day, hour, minute, second}) checkInputType(v, intType());
    py::list data_out = Payload().byte(year - py::int_(1900)).byte(month).byte(day).byte(hour).byte(minute).byte(second).list();
    // The Wi-Fi family counts months from zero on this path (and on this path only).
    if (py::str(self.attr("_getDeviceName")()).attr("__contains__")("Air").cast<bool>())
        data_out[1] = py::object(data_out[1]) - py::int_(1);
    py::object data_in = co_await exchange(self, w::SET_DATE_TIME, data_out);
    co_return statusTail(data_in, 0);
}

Co<> getSerialNumber(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_SERIAL_NUMBER, py::list());
    py::str serial = u8ListToStr(slice(data_in, 0, 8));
    self.attr("serial_number") = serial;
    co_return serial;
}

Co<> getPinModeInPort(py::object self, py::object port) {
    checkInputType(port, intType());
    py::object data_in = co_await exchange(self, w::GET_PIN_MODE_OF_SLOT, Payload().byte(port).list());
    py::object num_of_pins = replyByte(data_in, 1);
    long long pairs = (num_of_pins.cast<long long>() + 1) / 2;
    py::list modes;
    for (long long i = 0; i < pairs; ++i) {
        long long b = replyByte(data_in, 2 + i).cast<long long>();
        modes.append(b & 0x0F);
        modes.append(b >> 4);
    }
    self.attr("num_of_pins") = num_of_pins;
    self.attr("pin_mode_list") = modes;
    py::dict names = pinModeDict();
    py::list out;
    for (py::handle m : modes) out.append(names[m]);  // a mode above 9 has no name: the lookup fails
    co_return out;
}

template <long long Cmd>
Co<> statusCommand(py::object self) {
    py::object data_in = co_await exchange(self, Cmd, py::list());
    co_return statusTail(data_in, 0);
}

Co<> getEEPROMPage(py::object self, py::object page_number) {
    py::object data_in = co_await exchange(self, w::GET_EEPROM_PAGE, Payload().byte(page_number).list());
    co_return py::list(data_in);
}

Co<> setEEPROMPage(py::object self, py::object page_number, py::object int_list) {
    py::object data_in = co_await exchange(self, w::SET_EEPROM_PAGE, Payload().byte(page_number).extend(int_list).list());
    co_return statusTail(data_in, 0);
}

Co<> getEEPROMDevice(py::object self, py::object device_number) {
    py::object data_in = co_await exchange(self, w::GET_EEPROM_DEVICE, Payload().byte(device_number).list());
    co_return py::list(data_in);
}

Co<> setEEPROMByte(py::object self, py::object page_number, py::object byte_index, py::object value) {
    py::object data_in = co_await exchange(self, w::SET_EEPROM_BYTE, Payload().byte(page_number).byte(byte_index).byte(value).list());
    co_return statusTail(data_in, 0);
}

Co<> getDriverInfoDev(py::object self, py::object mode) {
    py::object data_in = co_await exchange(self, w::GET_DRIVER_INFO, Payload().byte(mode).list());
    py::str info = u8ListToStr(data_in);
    self.attr("driver_info") = info;
    co_return info;
}

Co<> setSerialNumber(py::object self, py::object serial_num) {
    py::object data_in = co_await exchange(self, w::SET_SERIAL_NUMBER, strToU8List(serial_num));
    co_return statusTail(data_in, 0);
}

Co<> getThreads(py::object self) {
    py::object data_in = co_await exchange(self, w::GET_THREADS, py::list());
    py::str info = u8ListToStr(data_in);
    self.attr("thread_info") = info;
    co_return info;
}

}  // namespace

Co<> sysGetPinModeInPort(py::object self, py::object port) { return getPinModeInPort(std::move(self), std::move(port)); }

void bindSystemModule(py::module_& m) {
    PyClass sys(m, "SystemModule", py::make_tuple(m.attr("Packet")),
                "Identity, clock, pin modes and reboot of a unit, with its service operations.");
    defOp(sys, "Sys_getDriverInfo_async", &getDriverInfo);
    defOp(sys, "Sys_getRTC_async", &getRTC);
    defOp(sys, "Sys_setRTC_async", &setRTC, py::arg("year"), py::arg("month"), py::arg("day"), py::arg("hour"), py::arg("minute"),
          py::arg("second"));
    defOp(sys, "Sys_getSerialNumber_async", &getSerialNumber);
    defOp(sys, "Sys_getPinModeInPort_async", &getPinModeInPort, py::arg("port"));
    defOp(sys, "Sys_reboot_async", &statusCommand<w::REBOOT>);
    defOp(sys, "Sys_rebootOnBootloader_async", &statusCommand<w::REBOOT_ON_BOOTLOADER>);
    defOp(sys, "_getEEPROMPage_async", &getEEPROMPage, py::arg("page_number"));
    defOp(sys, "_setEEPROMPage_async", &setEEPROMPage, py::arg("page_number"), py::arg("int_list"));
    defOp(sys, "_getEEPROMDevice_async", &getEEPROMDevice, py::arg("device_number"));
    defOp(sys, "_setEEPROMByte_async", &setEEPROMByte, py::arg("page_number"), py::arg("byte_index"), py::arg("value"));
    defOp(sys, "_getDriverInfo_dev_async", &getDriverInfoDev, py::arg("mode"));
    defOp(sys, "_setSerialNumber_async", &setSerialNumber, py::arg("serial_num"));
    defOp(sys, "_resetFactory_async", &statusCommand<w::RESET_FACTORY>);
    defOp(sys, "_getThreads_async", &getThreads);
}

}  // namespace torvik::py_binding
