import warnings

import pytest

import pytorvik as t

ERROR_ROWS = [
    ("USBConnectionError", -8001, "Failed to connect to Torvik DAQ. Please check USB plugin status and serial number."),
    ("NetworkConnectionLostError", -8007, "Network DAQ connection lost."),
    ("DIPortNotAvaliableError", -8101, "DI port not avaliable or already occupied by other process."),
    ("DOPortNotAvaliableError", -8102, "DO port not available or already occupied by other process."),
    ("AIRateNotVaildError", -8210, "The specified AI sampling rate is invalid."),
    ("CANSpeedNotVaildError", -8702, "The specified CAN speed mode from Torvik DAQ is invalid."),
    ("CANTXNotVaildError", -8793, "The specified CAN TX is invalid."),
    ("SPIDataLengthExceedMAXError", -8502, "The length of data exceeds maximum transfer length of SPI."),
    ("PinsValueNotDefineError", -8010, "Inconsistency between the number of pins & the number of values."),
    ("FirmwareHolder1Error", -7008, "Firmware error placeholder."),
]


@pytest.mark.parametrize("name,code,msg", ERROR_ROWS)
def test_error_classes_carry_code_and_text(name, code, msg):
    cls = getattr(t, name)
    assert cls.__bases__ == (t.Error,) and cls.__module__ == "pytorvik"
    e = cls()
    assert (e.code, e.msg) == (code, msg)
    assert str(e) == "Error {:d}: {}".format(code, msg)
    with pytest.raises(t.Error) as info:
        raise cls
    assert info.value.code == code


@pytest.mark.parametrize("args,kwargs,msg", [
    (("port",), {}, "port"),
    ((), {"msg": "port"}, "port"),
    ((None,), {}, "Input value not in range."),
    (("",), {}, ""),
    (("m", 1, 2), {"extra": 3}, "m"),
])
def test_concrete_constructor_msg_rules(args, kwargs, msg):
    e = t.InputDataNotInRangeError(*args, **kwargs)
    assert (e.code, e.msg) == (-8014, msg)


def test_base_classes():
    e = t.Error(5, "five", "ignored", key="ignored")
    assert (e.code, e.msg, str(e)) == (5, "five", "Error 5: five")
    assert issubclass(t.Error, Exception) and not issubclass(t.TorvikWarning, t.Error)
    assert issubclass(t.TorvikWarning, UserWarning)

    class Mine(t.USBConnectionError):
        pass

    assert Mine().code == -8001 and isinstance(Mine(), t.Error)


def test_warning_prints_stack_and_warns_plain_userwarning(capsys):
    def site():
        return t.UARTQueueOverflowWarning()

    with warnings.catch_warnings(record=True) as rec:
        warnings.simplefilter("always")
        w = site()
    assert (w.code, w.msg) == (560001, "Occurrence UART queue overflow.")
    assert [(r.category, str(r.message)) for r in rec] == [(UserWarning, "Warning 560001: Occurrence UART queue overflow.")]
    out = capsys.readouterr().out
    # The caller's frame is the last entry; entries stand a blank line apart.
    assert out.rstrip("\n").endswith("in site\n    return t.UARTQueueOverflowWarning()")
    assert "\n\n  File " in out


@pytest.mark.parametrize("silent,reports", [(True, False), (1, False), (False, True), (None, True)])
def test_warning_silent_key(capsys, silent, reports):
    with warnings.catch_warnings(record=True) as rec:
        warnings.simplefilter("always")
        w = t.CANQueueOverflowWarning(silent=silent)
    assert (w.code, w.msg) == (570002, "Occurrence CAN queue overflow.")
    assert bool(rec) == reports and bool(capsys.readouterr().out) == reports


def test_print_generic_error(capsys):
    t.printGenericError(t.NetworkConnectionLostError())
    t.printGenericError(ValueError("plain"))
    assert capsys.readouterr().out == ("NetworkConnectionLostError: Error -8007: Network DAQ connection lost.\n"
                                       "ValueError: plain\n")


@pytest.mark.parametrize("status", [0, 24, 255, -1, 1000, "x", None])
def test_check_firmware_error_passes_unknown_statuses(status):
    assert t.checkFirmwareError(status) is status


@pytest.mark.parametrize("status,name", [
    (1, "FirmwareEnableError"), (2, "FirmwarePinError"), (12, "FirmwareHolder2Error"), (23, "FirmwareCommandsError"),
    (True, "FirmwareEnableError"), (5.0, "FirmwareI2CError"),
])
def test_check_firmware_error_raises_by_value(status, name):
    with pytest.raises(getattr(t, name)) as info:
        t.checkFirmwareError(status)
    assert info.value.code == -7000 - int(status)
    assert info.value.msg == getattr(t, name)().msg
