"""Temperature channels and relay counters against the emulator: request payloads, float
decoding, the device-name branches of the two thermal handles, the firmware's model, relay replies."""
import collections
import math
import os
import struct

import pytest

import pytorvik as t
from pytorvik import simctl
from conftest import usb_host, wait_listed
from devices import check_refused, run


def f32(value):
    return list(struct.pack(">f", value))


# ---- the thermal handles on the emulated USB bus ---------------------------------------------

@pytest.fixture(scope="module")
def thermal():
    """{"tc": (TorvikUsbThermo handle, unit), "rtd": (TorvikUsbRtd handle, unit)}."""
    host = usb_host()
    units = {kind: host.add_usb("%s:%s-%d" % (cls, kind.upper(), os.getpid()))
             for kind, cls in (("tc", "TorvikUsbThermo"), ("rtd", "TorvikUsbRtd"))}
    wait_listed(collections.Counter(u.serial for u in units.values()))
    handles = {}
    try:
        for kind, cls in (("tc", t.TorvikUsbThermo), ("rtd", t.TorvikUsbRtd)):
            dev = handles.setdefault(kind, (cls(), units[kind]))[0]
            dev.connect(units[kind].serial, verbose=False)
        yield handles
    finally:
        for dev, _ in handles.values():
            dev.disconnect(verbose=False)
            dev.close()
        for u in units.values():
            u.remove()


@pytest.fixture
def on(thermal):
    """on("tc") or on("rtd"): the handle and its unit, the unit's model fresh and port 1 open,
    with the log cleared."""
    def pick(kind, open_port=1):
        dev, unit = thermal[kind]
        unit.clear_faults()
        unit.use_firmware("model")
        for ch in (0, 1):
            unit.thermal(1, ch, temp=25.0, drift=0.0)
        if open_port:
            assert run(dev.Thermal_open_async(open_port)) == 0
        unit.clear_log()
        return dev, unit
    return pick


def sent(unit):
    return [(f.code, list(f.payload)) for f in unit.log()]


def test_open_takes_the_pins_and_the_shared_cells_keep_the_other_port_out(on):
    dev, unit = on("tc", open_port=0)
    assert run(dev.Thermal_open_async(1)) == 0
    assert unit.pin_modes(2)[:4] == ["SPI"] * 4 and unit.pin_modes(1)[5] == "SPI"
    # Port 2 shares (1,5) and (2,0), now in SPI mode: the host refuses before sending.
    unit.clear_log()
    with pytest.raises(t.ThermalPortNotAvaliableError):
        run(dev.Thermal_open_async(2))
    assert t.OPEN_THERMAL not in [code for code, _ in sent(unit)]
    assert run(dev.Thermal_close_async(1)) == 0
    assert unit.pin_modes(2)[:4] == ["Idle"] * 4
    assert run(dev.Thermal_open_async(2)) == 0
    assert run(dev.Thermal_close_async(2)) == 0


@pytest.mark.parametrize("op,args,code,payload", [
    ("Thermal_setNoiseFilter_async", (1, 0, 1), t.SET_THERMAL_NOISE_FILTER, [1, 0, 1]),
    ("Thermal_setJunctionOn_async", (1, 1, False), t.SET_THERMAL_JUNCTION_ON, [1, 1, 0]),
    ("_Thermal_writeOffset_async", (1, 0, -1.25), t.WRITE_THERMAL_OFFSET, [1, 0, 0xBF, 0xA0, 0, 0]),
    ("_Thermal_writeOffset_async", (1, 0, 2), t.WRITE_THERMAL_OFFSET, [1, 0, 0x40, 0, 0, 0]),
    ("_Thermal_saveOffset_async", (1, 1, 0.5), t.SAVE_THERMAL_OFFSET, [1, 1] + f32(0.5)),
    ("_Thermal_writeJunction_async", (1, 0, 20.5), t.WRITE_THERMAL_JUNCTION, [1, 0] + f32(20.5)),
])
def test_settings_send_their_payload_and_return_the_status_byte(on, op, args, code, payload):
    dev, unit = on("tc")
    assert run(getattr(dev, op)(*args)) == 0
    assert sent(unit) == [(code, payload)]
    # A refusal comes back as the raw byte, not as a firmware error code.
    unit.status(17, count=1)
    assert run(getattr(dev, op)(*args)) == 17


# Reply bytes 2..5 of a float read, and what each read makes of them.
FLOATS = [
    ([0x41, 0xCC, 0, 0], 25.5, 25.5),
    (f32(25.1234567), 25.123, struct.unpack(">f", bytes(f32(25.1234567)))[0]),
    (f32(-0.0004), -0.0, struct.unpack(">f", bytes(f32(-0.0004)))[0]),
]


@pytest.mark.parametrize("data,rounded,exact", FLOATS)
@pytest.mark.parametrize("op,code", [
    ("Thermal_readSensor_async", t.READ_THERMAL_COUPLE),
    ("_Thermal_readOffset_async", t.READ_THERMAL_OFFSET),
    ("_Thermal_loadOffset_async", t.LOAD_THERMAL_OFFSET),
    ("_Thermal_readJunction_async", t.READ_THERMAL_JUNCTION),
])
def test_float_reads_decode_big_endian_singles_and_only_the_sensor_read_rounds(on, op, code, data, rounded, exact):
    dev, unit = on("tc")
    unit.set_reply(code, [1, 0] + data + [0x55])
    assert run(getattr(dev, op)(1, 0)) == (rounded if op == "Thermal_readSensor_async" else exact)
    assert sent(unit) == [(code, [1, 0])]


def test_a_float_reply_shorter_than_six_bytes_fails_the_conversion(on):
    dev, unit = on("tc")
    unit.set_reply(t.READ_THERMAL_COUPLE, [1, 0, 0x41, 0xCC, 0])
    with pytest.raises(Exception) as e:
        run(dev.Thermal_readSensor_async(1, 0))
    assert not isinstance(e.value, t.Error)


@pytest.mark.parametrize("kind,mode,raw,result", [("tc", 2, 0xFF, 1), ("tc", 2, 0xFE, 0), ("rtd", 1, 0xFF, 255)])
def test_status_mode_and_mask_follow_the_device_name(on, kind, mode, raw, result):
    dev, unit = on(kind)
    unit.set_reply(t.GET_THERMAL_STATUS, [1, 0, raw])
    assert run(dev.Thermal_getStatus_async(1, 0)) == result
    assert sent(unit) == [(t.GET_THERMAL_STATUS, [1, 0, mode])]


@pytest.mark.parametrize("kind,type_,accepted", [("tc", 7, True), ("tc", 8, False), ("rtd", 1, True), ("rtd", 2, False),
                                                 ("rtd", 7, False)])
def test_sensor_type_range_follows_the_device_name(on, kind, type_, accepted):
    dev, unit = on(kind)
    if accepted:
        assert run(dev.Thermal_setType_async(1, 0, type_)) == 0
        assert unit.thermal(1, 0)["type"] == type_
    else:
        with pytest.raises(t.ThermalTypeNotVaildError):
            run(dev.Thermal_setType_async(1, 0, type_))
        assert sent(unit) == []


@pytest.mark.parametrize("kind,open_status", [("tc", 1), ("rtd", 0x80)])
def test_an_open_circuit_shows_in_the_status_and_reads_nan(on, kind, open_status):
    dev, unit = on(kind)
    assert run(dev.Thermal_getStatus_async(1, 1)) == 0
    unit.thermal(1, 1, open=1)
    assert run(dev.Thermal_getStatus_async(1, 1)) == open_status
    assert math.isnan(run(dev.Thermal_readSensor_async(1, 1)))
    assert run(dev.Thermal_readSensor_async(1, 0)) == 25.0
    unit.thermal(1, 1, open=0)


def test_offsets_are_written_saved_and_loaded(on):
    dev, unit = on("rtd")
    unit.thermal(1, 0, temp=31.25)
    assert run(dev._Thermal_writeOffset_async(1, 0, 0.5)) == 0
    assert run(dev.Thermal_readSensor_async(1, 0)) == 31.75
    assert run(dev._Thermal_saveOffset_async(1, 0, 1.5)) == 0
    assert run(dev._Thermal_readOffset_async(1, 0)) == 0.5  # saving does not put it in force
    assert run(dev._Thermal_loadOffset_async(1, 0)) == 1.5
    assert run(dev.Thermal_readSensor_async(1, 0)) == 32.75
    assert unit.thermal(1, 0)["saved_offset"] == 1.5


def test_with_the_junction_sensor_off_the_written_junction_is_used(on):
    dev, unit = on("tc")
    unit.thermal(1, 0, temp=80.0, junction=24.0)
    assert run(dev._Thermal_readJunction_async(1, 0)) == 24.0
    assert run(dev._Thermal_writeJunction_async(1, 0, 20.0)) == 0
    assert run(dev.Thermal_readSensor_async(1, 0)) == 80.0
    assert run(dev.Thermal_setJunctionOn_async(1, 0, False)) == 0
    assert run(dev._Thermal_readJunction_async(1, 0)) == 20.0
    assert run(dev.Thermal_readSensor_async(1, 0)) == 76.0  # 4 degrees short of the truth
    state = unit.thermal(1, 0)
    assert (state["junction_on"], state["written_junction"]) == (0, 20.0)


def test_settings_are_stored_and_a_closed_port_refuses(on):
    dev, unit = on("tc")
    assert run(dev.Thermal_setNoiseFilter_async(1, 1, 1)) == 0
    assert run(dev.Thermal_setOverSampling_async(1, 1, 3)) == 0
    state = unit.thermal(1, 1)
    assert (state["filter"], state["oversampling"], state["type"]) == (1, 3, 3)  # type K from the start
    assert run(dev.Thermal_close_async(1)) == 0
    assert run(dev.Thermal_setNoiseFilter_async(1, 1, 0)) == 1


def test_a_drifting_sensor_swings_around_its_temperature(on):
    dev, unit = on("tc")
    unit.thermal(1, 0, temp=40.0, drift=2.0)
    value = run(dev.Thermal_readSensor_async(1, 0))
    assert 38.0 <= value <= 42.0 and value == pytest.approx(unit.thermal(1, 0)["now"], abs=0.05)


# Bad arguments: each fails before anything is sent.
BAD = [
    ("Thermal_open_async", ("1",), t.InputTypeNotCorrectError),
    ("Thermal_open_async", (3,), t.ThermalPortNotAvaliableError),
    ("Thermal_close_async", (0,), t.ThermalPortNotAvaliableError),
    ("Thermal_setNoiseFilter_async", (1, 0, 2), t.ThermalModeNotVaildError),
    ("Thermal_setNoiseFilter_async", (1, 0, 1.0), t.InputTypeNotCorrectError),
    ("Thermal_setOverSampling_async", (1, 0, 5), t.ThermalModeNotVaildError),
    ("Thermal_setType_async", (1, 0, -1), t.ThermalTypeNotVaildError),
    ("Thermal_readSensor_async", (0, 0), t.ThermalPortNotAvaliableError),
    ("_Thermal_readOffset_async", (1, -1), t.ThermalChipSelectNotAvaliableError),
    ("_Thermal_writeOffset_async", (1, 0, "1.0"), t.InputTypeNotCorrectError),
    ("Thermal_setJunctionOn_async", (1, 0, 1), t.InputTypeNotCorrectError),
]
# Channel 2 is refused by every channel operation.
BAD += [(op, (1, 2) + extra, t.ThermalChipSelectNotAvaliableError) for op, extra in [
    ("Thermal_setType_async", (3,)), ("Thermal_getStatus_async", ()), ("Thermal_readSensor_async", ()),
    ("_Thermal_writeOffset_async", (1.0,)), ("Thermal_setJunctionOn_async", (True,))]]


@pytest.mark.parametrize("op,args,error", BAD)
def test_bad_arguments_fail_before_anything_is_sent(on, op, args, error):
    check_refused(*on("tc", open_port=0), op, args, error)


# ---- relay counters --------------------------------------------------------------------------

@pytest.fixture(scope="module")
def relay():
    with simctl.Sim(simctl.unit_spec("TorvikLanRelay")) as s:
        unit = s.unit
        dev = t.TorvikLanRelay()
        try:
            dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
            unit.wait_connected()
            yield dev, unit
        finally:
            dev.disconnect(verbose=False)
            dev.close()


@pytest.fixture
def relay_unit(relay):
    dev, unit = relay
    unit.clear_faults()
    unit.use_firmware("model")
    unit.clear_log()
    return dev, unit


@pytest.mark.parametrize("reply,counters", [
    ([3], []),
    ([3, 0, 0, 1, 2, 9, 9], [258]),
    ([255] + list(range(24)), [0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F, 0x10111213, 0x14151617]),
])
def test_relay_replies_drop_byte_0_and_cut_whole_counters(relay_unit, reply, counters):
    dev, unit = relay_unit
    unit.set_reply(t.RELAY_READ, reply)
    assert run(dev.Relay_read_async(3)) == counters
    assert sent(unit) == [(t.RELAY_READ, [3])]


def test_relays_count_the_switching_of_the_digital_outputs(relay_unit):
    dev, unit = relay_unit
    start = unit.relay_counters([0, 0, 0, 0, 0, 0xFFFFFFFE])
    assert start == [0, 0, 0, 0, 0, 0xFFFFFFFE]
    assert run(dev.DO_openPort_async(0)) == 0
    for value in ([1, 0, 1, 0, 0, 1], [0, 0, 1, 0, 0, 0], [0, 0, 1, 0, 0, 0]):
        assert run(dev.DO_writePort_async(0, value))[:6] == value
    # Relay 5 went on and off again: its counter wraps around as a 32-bit counter does.
    assert run(dev.Relay_read_async(255)) == unit.relay_counters() == [2, 0, 1, 0, 0, 0]
    assert run(dev.Relay_read_async(2)) == [1]
    assert run(dev.Relay_read_async(6)) == []  # no such relay: the index alone comes back


@pytest.mark.parametrize("index", [-1, 256])
def test_a_relay_index_outside_a_byte_fails_at_the_send(relay_unit, index):
    dev, unit = relay_unit
    with pytest.raises((ValueError, OverflowError)):
        run(dev.Relay_read_async(index))
    assert sent(unit) == []
