"""System, network, Wi-Fi and digital operations: request payloads, reply decoding, fields, and
argument checks, against the emulator with scripted replies."""

import pytest

import pytorvik as t
from devices import TorvikAirAnalog, check_operation, check_refused, fresh, run

FF = 0xFF


@pytest.fixture(scope="module")
def units():
    from pytorvik import simctl
    with simctl.Sim(simctl.unit_spec("TorvikLanLogic"), simctl.unit_spec("TorvikAirAnalog")) as s:
        yield s.units


@pytest.fixture(scope="module")
def handles(units):
    lan, air = units
    logic = t.TorvikLanLogic.__new__(t.TorvikLanLogic)
    t.ETHDevice.__init__(logic, verbose=False)  # the real handle without its opening line
    t.DIOModule.__init__(logic, {1: list(range(8))}, {0: list(range(6))}, 8)
    logic.connect(lan.addr, port=lan.cmd_port, verbose=False)
    wifi = TorvikAirAnalog(verbose=False)
    wifi.connect(air.addr, port1=air.cmd_port, port2=air.data_port, verbose=False)
    yield {"lan": (logic, lan), "air": (wifi, air)}
    for dev in (logic, wifi):
        dev.disconnect(verbose=False)
        dev.close(verbose=False)


@pytest.fixture
def on(handles):
    return fresh(handles)


# (handle, operation, args, {code: scripted reply}, [(code, request payload) sent], result, {field: value})
CASES = [
    ("lan", "Sys_getDriverInfo_async", (), {t.GET_DRIVER_INFO: b"Logic_1.2_x"}, [(t.GET_DRIVER_INFO, [0])],
     ["Logic", "1.2", "x"], {}),
    ("lan", "Sys_getRTC_async", (), {t.GET_DATE_TIME: [123, 7, 4, 9, 5, 0]}, [(t.GET_DATE_TIME, [0] * 6)],
     "2023-07-04, 09:05:00", {"rtc_time": "2023-07-04, 09:05:00"}),
    ("lan", "Sys_setRTC_async", (2023, 7, 4, 9, 5, 0), {t.SET_DATE_TIME: [0]}, [(t.SET_DATE_TIME, [123, 7, 4, 9, 5, 0])], 0, {}),
    ("lan", "Sys_setRTC_async", (23, 7, 4, 9, 5, 0), {t.SET_DATE_TIME: [0]}, [(t.SET_DATE_TIME, [23, 7, 4, 9, 5, 0])], 0, {}),
    ("air", "Sys_setRTC_async", (2023, 7, 4, 9, 5, 0), {t.SET_DATE_TIME: [0]}, [(t.SET_DATE_TIME, [123, 6, 4, 9, 5, 0])], 0, {}),
    ("lan", "Sys_getSerialNumber_async", (), {t.GET_SERIAL_NUMBER: b"21JA1298tail"}, [(t.GET_SERIAL_NUMBER, [])],
     "21JA1298", {"serial_number": "21JA1298"}),
    ("lan", "Sys_getPinModeInPort_async", (1,), {t.GET_PIN_MODE_OF_SLOT: [1, 3, 33, 3]}, [(t.GET_PIN_MODE_OF_SLOT, [1])],
     ["Idle", "DI", "DO", "Disabled"], {"num_of_pins": 3, "pin_mode_list": [1, 2, 3, 0]}),
    ("lan", "Sys_reboot_async", (), {t.REBOOT: [0]}, [(t.REBOOT, [])], 0, {}),
    ("lan", "Sys_rebootOnBootloader_async", (), {t.REBOOT_ON_BOOTLOADER: [24]}, [(t.REBOOT_ON_BOOTLOADER, [])], 24, {}),
    ("lan", "_resetFactory_async", (), {t.RESET_FACTORY: [9]}, [(t.RESET_FACTORY, [])], -7009, {}),
    ("lan", "_getEEPROMPage_async", (2,), {t.GET_EEPROM_PAGE: [1, 2, 3]}, [(t.GET_EEPROM_PAGE, [2])], [1, 2, 3], {}),
    ("lan", "_setEEPROMPage_async", (2, [9, 8]), {t.SET_EEPROM_PAGE: [0]}, [(t.SET_EEPROM_PAGE, [2, 9, 8])], 0, {}),
    ("lan", "_getEEPROMDevice_async", (1,), {t.GET_EEPROM_DEVICE: [7]}, [(t.GET_EEPROM_DEVICE, [1])], [7], {}),
    ("lan", "_setEEPROMByte_async", (1, 2, 3), {t.SET_EEPROM_BYTE: [0]}, [(t.SET_EEPROM_BYTE, [1, 2, 3])], 0, {}),
    ("lan", "_getDriverInfo_dev_async", (2,), {t.GET_DRIVER_INFO: b"a_b"}, [(t.GET_DRIVER_INFO, [2])], "a_b", {"driver_info": "a_b"}),
    ("lan", "_setSerialNumber_async", ("21JA",), {t.SET_SERIAL_NUMBER: [0]}, [(t.SET_SERIAL_NUMBER, list(b"21JA"))], 0, {}),
    ("lan", "_getThreads_async", (), {t.GET_THREADS: b"main rx"}, [(t.GET_THREADS, [])], "main rx", {"thread_info": "main rx"}),
    # network
    ("lan", "Net_getIPAddrAndSubmask_async", (), {t.GET_IP: [192, 168, 1, 110, 255, 255, 255, 0]}, [(t.GET_IP, [])],
     ["192.168.1.110", "255.255.255.0"], {"ip_addr": "192.168.1.110", "subnet_mask": "255.255.255.0"}),
    ("lan", "Sys_getIPAddrAndSubmask_async", (), {t.GET_IP: [10, 0, 0, 2, 255, 0, 0, 0]}, [(t.GET_IP, [])],
     ["10.0.0.2", "255.0.0.0"], {}),
    ("lan", "Net_setIPAddrAndSubmask_async", ("192.168.1.110",), {t.SET_IP: [0]},
     [(t.SET_IP, [192, 168, 1, 110, 255, 255, 255, 0])], 0, {}),
    ("lan", "Sys_setIPAddrAndSubmask_async", ("10.1.2.3", "255.255.0.0"), {t.SET_IP: [1]},
     [(t.SET_IP, [10, 1, 2, 3, 255, 255, 0, 0])], -7001, {}),
    ("lan", "Net_getMACAddr_async", (), {t.GET_MAC: [0, 26, 43, 60, 77, 94]}, [(t.GET_MAC, [])],
     "0:1a:2b:3c:4d:5e", {"mac_addr": "0:1a:2b:3c:4d:5e"}),
    ("lan", "Net_getGateway_async", (), {t.GET_GATEWAY: [192, 168, 1, 1]}, [(t.GET_GATEWAY, [])],
     "192.168.1.1", {"gateway": "192.168.1.1"}),
    ("lan", "_setGateway_async", ("10.0.0.1",), {t.SET_GATEWAY: [0]}, [(t.SET_GATEWAY, [10, 0, 0, 1])], 0, {}),
    ("lan", "_setMACAddr_async", ("00:1a:ff:1",), {t.SET_MAC: [0]}, [(t.SET_MAC, [0, 26, 255, 1])], 0, {}),
    # Wi-Fi and sensors: port byte 1 first, status at index 1
    ("air", "Wifi_readBattery_async", (), {t.GET_BATTERY: [1, 0, 100]}, [(t.GET_BATTERY, [1])], 300, {"battery": 100}),
    ("air", "Wifi_readThermo_async", (), {t.GET_THERMOMETER: [1, 12, 128]}, [(t.GET_THERMOMETER, [1])], 25.0, {"thermo": 25.0}),
    ("air", "Wifi_readThermo_async", (), {t.GET_THERMOMETER: [1, 255, 0]}, [(t.GET_THERMOMETER, [1])], -2.0, {}),
    ("air", "Wifi_readRSSI_async", (), {t.GET_RSSI: [1, 200]}, [(t.GET_RSSI, [1])], -56, {"rssi": -56}),
    ("air", "Wifi_readAccleration_async", (), {t.READ_ACCELERATION: [1, 0, 1, 0, 2, 255, 255]}, [(t.READ_ACCELERATION, [1])],
     [1, 2, 65535], {}),
    ("air", "Wifi_setAP_async", (), {t.SET_AP: [1, 5]}, [(t.SET_AP, [1])], -7005, {}),
    ("air", "Wifi_getWifiConfiguration_async", (), {t.GET_WIFI_CONFIGURATION: [1, 0, 3, 1, 44]}, [(t.GET_WIFI_CONFIGURATION, [1])],
     [3, 300], {}),
    ("air", "Wifi_getWifiBandwidth_async", (), {t.GET_WIFI_BANDWIDTH: [1, 20]}, [(t.GET_WIFI_BANDWIDTH, [1])], 20, {"bandwidth": 20}),
    ("air", "_setWifiBandwidth_async", (7,), {t.SET_WIFI_BANDWIDTH: [1, 0]}, [(t.SET_WIFI_BANDWIDTH, [1, 7])], 0, {}),
    ("air", "_setWifiConfiguration_async", (3, 300), {t.SET_WIFI_CONFIGURATION: [1, 0]},
     [(t.SET_WIFI_CONFIGURATION, [1, 0, 3, 1, 44])], 0, {}),
    # digital I/O on ports DI 1 (pins 0-7), DO 0 (pins 0-5)
    ("lan", "DO_writePort_async", (0, [1]), {t.SET_AND_WRITE_DO: [0, 0, 1]}, [(t.SET_AND_WRITE_DO, [0, FF, FF, 0, 1])],
     [1, 0, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "DO_writePort_async", (0, 0x21), {t.SET_AND_WRITE_DO: [0, 1, 0]}, [(t.SET_AND_WRITE_DO, [0, FF, FF, 0, 0x21])],
     [0, 0, 0, 0, 0, 0, 0, 0, 1], {}),
    ("lan", "DO_writePins_async", (0, [1, 3], [1, 0]), {t.SET_AND_WRITE_DO: [0, 0, 2]}, [(t.SET_AND_WRITE_DO, [0, 0, 10, 0, 2])],
     [0, 1, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "DO_writePins_async", (0, 10, 2), {t.SET_AND_WRITE_DO: [0, 0, 2]}, [(t.SET_AND_WRITE_DO, [0, 0, 10, 0, 2])],
     [0, 1, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "DO_writePins_async", (0, [0, 1], [5, -3, 1]), {t.SET_AND_WRITE_DO: [0, 0, 1]}, [(t.SET_AND_WRITE_DO, [0, 0, 3, 0, 1])],
     [1, 0, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "DI_readPins_async", (1, [2, 0]), {t.READ_AND_GET_DI: [1, 0, 4]}, [(t.READ_AND_GET_DI, [1, 0, 5])], [1, 0], {}),
    ("lan", "DI_readPins_async", (1, 5), {t.READ_AND_GET_DI: [1, 0, 4]}, [(t.READ_AND_GET_DI, [1, 0, 5])], [0, 1], {}),
    ("lan", "DI_readPort_async", (1,), {t.READ_AND_GET_DI: [1, 0, 3]}, [(t.READ_AND_GET_DI, [1, FF, FF])], [1, 1, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "DI_openPort_async", (1,), {t.GET_PIN_MODE_OF_SLOT: [1, 8, 0x21, 0x11, 0x11, 0x11], t.SET_DIO_CURRENT: [1, 0]},
     [(t.GET_PIN_MODE_OF_SLOT, [1]), (t.SET_DIO_CURRENT, [1, FF, FF, FF, FF, 0, 0, 0, 0])], 0, {}),
    ("lan", "DO_openPort_async", (0,), {t.GET_PIN_MODE_OF_SLOT: [0, 6, 0x13, 0x11, 0x11], t.SET_DIO_CURRENT: [0, 0]},
     [(t.GET_PIN_MODE_OF_SLOT, [0]), (t.SET_DIO_CURRENT, [0, FF, FF, FF, FF, FF, FF, 0, 0])], 0, {}),
    ("lan", "DO_openPins_async", (0, [1]), {t.GET_PIN_MODE_OF_SLOT: [0, 6, 0x41, 0x11, 0x11], t.SET_DIO_CURRENT: [0, 0]},
     [(t.GET_PIN_MODE_OF_SLOT, [0])], t.DOPortNotAvaliableError, {}),
    ("lan", "DO_openPins_async", (0, 4), {t.GET_PIN_MODE_OF_SLOT: [0, 6, 0x41, 0x11, 0x11], t.SET_DIO_CURRENT: [0, 13]},
     [(t.GET_PIN_MODE_OF_SLOT, [0]), (t.SET_DIO_CURRENT, [0, 0, 4, FF, FF, FF, FF, 0, 0])], -7013, {}),
    ("lan", "DI_closePort_async", (1,), {t.SET_DIO_CURRENT: [1, 0]}, [(t.SET_DIO_CURRENT, [1, FF, FF, 0, 0, 0, 0, 0, 0])], 0, {}),
    ("lan", "DO_closePins_async", (0, [0, 1]), {t.SET_DIO_CURRENT: [0, 0]}, [(t.SET_DIO_CURRENT, [0, 0, 3, 0, 0, 0, 0, 0, 0])], 0, {}),
    ("lan", "Sys_setPortIdle_async", (9,), {t.SET_SLOT_IDLE: [9, 0]}, [(t.SET_SLOT_IDLE, [9, 0])], 0, {}),
    ("lan", "Sys_setPortDO_async", (0,), {t.SET_SLOT_DO: [0, 23]}, [(t.SET_SLOT_DO, [0, 0])], -7023, {}),
    ("lan", "_getDIOCurrent_async", (0, 0xFFFF), {t.GET_DIO_CURRENT: [0, 0, 1, 0, 2, 0, 3]},
     [(t.GET_DIO_CURRENT, [0, FF, FF, 1, 1, 1, 1, 1, 1])],
     ([1, 0, 0, 0, 0, 0, 0, 0], [0, 1, 0, 0, 0, 0, 0, 0], [1, 1, 0, 0, 0, 0, 0, 0]), {}),
    ("lan", "_loadDIOStartup_async", (0,), {t.LOAD_DIO_STARTUP: [0, 0, 0, 0, 0, 0, 0]}, [(t.LOAD_DIO_STARTUP, [0, 1, 1, 1, 1, 1, 1])],
     ([0] * 8, [0] * 8, [0] * 8), {}),
    ("lan", "_togglePort_async", (0,), {t.TOGGLE_AND_WRITE_DO: [0, 0, 1]}, [(t.TOGGLE_AND_WRITE_DO, [0, 0, 255])],
     [1, 0, 0, 0, 0, 0, 0, 0], {}),
    ("lan", "_saveDIOStartup_async", (0, 1, 2, 3), {t.SAVE_DIO_STARTUP: [0, 0]}, [(t.SAVE_DIO_STARTUP, [0, 0, 1, 0, 2, 0, 3])], 0, {}),
]


@pytest.mark.parametrize("which,op,args,replies,sent,result,fields", CASES, ids=[c[1] + str(i) for i, c in enumerate(CASES)])
def test_operation(on, which, op, args, replies, sent, result, fields):
    dev, unit = on(which)
    check_operation(dev, unit, op, args, replies, result)
    assert [(f.code, list(f.payload)) for f in unit.log()] == sent
    for name, value in fields.items():
        assert getattr(dev, name) == value


@pytest.mark.parametrize("status", range(1, 24))
def test_firmware_statuses_come_back_as_codes(on, status):
    dev, unit = on("lan")
    unit.set_reply(t.SET_SLOT_DO, bytes([0, status]))
    unit.set_reply(t.REBOOT, bytes([status]))
    assert run(dev.Sys_setPortDO_async(0)) == run(dev.Sys_reboot_async()) == -7000 - status


BAD = [
    ("lan", "Sys_setRTC_async", (2023, "7", 4, 9, 5, 0), t.InputTypeNotCorrectError),
    ("lan", "Sys_setRTC_async", ("23", 7, 4, 9, 5, 0), TypeError),  # the year is compared before any check
    ("lan", "Sys_getPinModeInPort_async", ("1",), t.InputTypeNotCorrectError),
    ("lan", "Net_setIPAddrAndSubmask_async", (1,), t.InputTypeNotCorrectError),
    ("lan", "Net_setIPAddrAndSubmask_async", ("192.168.1.1", 8), t.InputTypeNotCorrectError),
    ("lan", "Net_setIPAddrAndSubmask_async", ("300.1.1.1.1",), OSError),
    ("lan", "_setGateway_async", (5,), t.InputTypeNotCorrectError),
    ("lan", "_setMACAddr_async", ("00:zz",), ValueError),
    ("air", "_setWifiBandwidth_async", ("7",), t.InputTypeNotCorrectError),
    ("air", "_setWifiConfiguration_async", (3, 3.0), t.InputTypeNotCorrectError),
    ("lan", "DI_openPort_async", (0,), t.DIPortNotAvaliableError),
    ("lan", "DO_openPort_async", (1,), t.DOPortNotAvaliableError),
    ("lan", "DI_openPins_async", (1, [8]), t.PinsNotExistError),
    ("lan", "DO_openPins_async", (0, 1.0), t.InputTypeNotCorrectError),
    ("lan", "DI_closePort_async", ("1",), t.InputTypeNotCorrectError),
    ("lan", "DO_closePins_async", (0, [6]), t.PinsNotExistError),
    ("lan", "DI_readPort_async", (0,), t.DIPortNotAvaliableError),
    ("lan", "DI_readPins_async", (1, "x"), t.InputTypeNotCorrectError),
    ("lan", "DO_writePort_async", (0, 1.5), t.InputTypeNotCorrectError),
    ("lan", "DO_writePort_async", (1, 1), t.DOPortNotAvaliableError),
    ("lan", "DO_writePins_async", (0, 3, [1, 1]), t.InputTypeNotConsistentError),
    ("lan", "DO_writePins_async", (0, [0, 1], [1]), t.PinsValueNotDefineError),
    ("lan", "DO_writePins_async", (0, True, 1), t.InputTypeNotConsistentError),
    ("lan", "Sys_setPortDI_async", (9,), t.DIPortNotAvaliableError),
    ("lan", "Sys_setPortDO_async", (1,), t.DOPortNotAvaliableError),
    ("lan", "Sys_setPortIdle_async", (None,), t.InputTypeNotCorrectError),
]


@pytest.mark.parametrize("which,op,args,error", BAD, ids=[b[1] + str(i) for i, b in enumerate(BAD)])
def test_bad_input_sends_nothing(on, which, op, args, error):
    check_refused(*on(which), op, args, error)


def test_pin_mode_above_nine_fails_in_the_lookup_and_maps_are_live(on):
    dev, unit = on("lan")
    unit.set_reply(t.GET_PIN_MODE_OF_SLOT, bytes([1, 2, 0xA1]))
    with pytest.raises(KeyError):
        run(dev.Sys_getPinModeInPort_async(1))
    assert dev.DI_getPinMap() is dev.di_dict
    dev.DO_getPinMap()[5] = [0]
    try:
        assert dev._checkDOPort(5) is True
    finally:
        del dev.do_dict[5]
