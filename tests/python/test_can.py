"""The CAN module against the emulator's CAN controllers over emulated USB: the port's life cycle,
the emulated bus between units and its tester node, acceptance filters, the stream with its faults."""
import asyncio
import copy
import pickle
import threading
import time
import warnings

import pytest

import pytorvik as t
from devices import check_refused, run

PINS = [(1, 4), (1, 5), (2, 0), (2, 1), (2, 2), (2, 3)]


@pytest.fixture
def can_units(usb_unit):
    """can_units(n) -> [(unit, handle)] of n TorvikUsbCan on one CAN bus, connected; closed after."""
    made = []

    def make(n=1, bus=None):
        out = []
        for _ in range(n):
            unit = usb_unit("TorvikUsbCan", firmware="model")
            unit.can_bus(bus or "bus-%x" % id(made))
            dev = t.TorvikUsbCan()
            dev.connect(unit.serial, verbose=False)
            made.append(dev)
            out.append((unit, dev))
        return out

    yield make
    for dev in made:
        if not dev.killed:
            dev.close()


async def read_until(dev, n, rounds=400):
    got = []
    for _ in range(rounds):
        got += await dev.CAN_read_async(1, -1, 0.005)
        if len(got) >= n:
            break
    return got


def test_life_cycle_pins_and_counters(can_units):
    [(unit, dev)] = can_units(1)

    async def go():
        unit.set_pin_mode(2, 1, "SPI")  # while another function holds a pin, the open is refused
        with pytest.raises(t.CANPortNotAvaliableError):
            await dev.CAN_open_async(1)
        assert t.OPEN_CAN not in [f.code for f in unit.log()] and dev.can_lock.locked()
        unit.set_pin_mode(2, 1, "Idle")
        assert await dev.CAN_open_async(1) == 0
        assert unit.pin_modes(1)[4:6] == ["CAN", "CAN"] and unit.pin_modes(2)[:4] == ["CAN"] * 4
        unit.can_send(0x10, b"\x01")  # held by the controller until reception starts
        assert unit.can_state()["held"] == 1
        assert await dev.CAN_start_async(1) == 0
        unit.can_send(0x11, b"\x02")
        got = await read_until(dev, 2)
        assert [(f.id, f.data[0]) for f in got] == [(0x10, 1), (0x11, 2)]
        assert await dev.CAN_stop_async(1) == 0
        unit.can_send(0x12)
        assert await dev.CAN_read_async(1, -1, 0.05) == []
        assert await dev.CAN_write_async(1, 0x7FF, [1, 2, 3], True) == 0
        counters = await dev._CAN_getCounters_async(1)
        interrupts = await dev._CAN_getInterrupts_async(1)
        assert await dev.CAN_close_async(1) == 0
        return counters, interrupts

    counters, interrupts = run(go())
    tx_itr, rx_itr, spi, sent, bus_errors, overflow = counters
    assert (tx_itr, rx_itr, sent, bus_errors, overflow) == (1, 3, 1, 0, 0) and spi > 0
    assert interrupts == [1, 0x05, 0]  # a frame held, one sent; no errors
    assert unit.can_heard() == [(0x7FF, False, True, bytes(8))]  # a remote frame goes without data
    assert unit.pin_modes(1)[4:6] == ["Idle", "Idle"]
    assert dev.can_lock.locked()


@pytest.mark.parametrize("rollover,held,overflow", [(False, 1, 2), (True, 2, 1)])
def test_rollover_holds_one_or_two_frames_while_stopped(can_units, rollover, held, overflow):
    [(unit, dev)] = can_units(1)

    async def go():
        assert await dev.CAN_open_async(1) == 0
        assert await dev._CAN_setRXRollover_async(1, rollover) == 0
        for i in range(3):
            unit.can_send(0x100 + i)
        assert await dev.CAN_start_async(1) == 0
        got = await read_until(dev, held)
        return got, await dev._CAN_getCounters_async(1)

    got, counters = run(go())
    assert [f.id for f in got] == [0x100 + i for i in range(held)] and counters[5] == overflow


# (filters as (index, id, ext), masks likewise, frames the tester sends as (id, ext, remote), ids that pass)
FILTERS = [
    ("off", None, [(0x100, False, False), (0x1FFFFFFF, True, False)], [0x100, 0x1FFFFFFF]),
    ("masks zero pass all", [(6, 0, False), (7, 0, False)], [(0x100, False, False), (0x5, True, True)], [0x100, 0x5]),
    ("on alone passes identifier 0", [], [(0x100, False, False), (0, True, False), (0, False, True)], [0]),
    ("exact standard", [(0, 0x123, False), (6, 0x7FF, False)],
     [(0x123, False, False), (0x124, False, False), (0x123, False, True), (0x123 << 18, True, False)],
     [0x123, 0x123, 0x123 << 18]),  # a mask without the format flag compares the top bits of either format
    ("low bits free", [(0, 0x120, False), (6, 0x7F0, False)], [(0x12F, False, False), (0x130, False, False)], [0x12F]),
    ("format compared", [(2, 0x123 << 18, True), (7, 0x1FFFFFFF, True)],
     [(0x123 << 18, True, False), (0x123, False, False), ((0x123 << 18) | 1, True, False)], [0x123 << 18]),
    ("second filter of a mask", [(0, 1, False), (1, 2, False), (6, 0x7FF, False)],
     [(1, False, False), (2, False, False), (3, False, False)], [1, 2]),
]


@pytest.mark.parametrize("settings,frames,passing", [f[1:] for f in FILTERS], ids=[f[0] for f in FILTERS])
def test_filters_really_filter(can_units, settings, frames, passing):
    [(unit, dev)] = can_units(1)

    async def go():
        assert await dev.CAN_open_async(1) == 0
        if settings is not None:
            assert await dev.CAN_setRXFilteringOn_async(1, True) == 0
            for index, id_, ext in settings:
                assert await dev.CAN_setRXFilterOrMask_async(1, index, id_, [], False, ext) == 0
        assert await dev.CAN_start_async(1) == 0
        for id_, ext, remote in frames:
            unit.can_send(id_, b"", ext=ext, remote=remote)
        # A last frame that passes tells when to stop reading.
        last = settings[0][1:] if settings else (0x7FF if settings is None else 0, False)
        unit.can_send(last[0], ext=last[1])
        got = await read_until(dev, len(passing) + 1)
        return [f.id for f in got][:-1]

    assert run(go()) == passing


def test_stream_in_order_and_every_frame(can_units):
    [(unit, dev)] = can_units(1)
    n = 3000

    async def go():
        assert await dev.CAN_open_async(1) == 0
        assert await dev.CAN_start_async(1) == 0
        unit.can_stream(id_=0x1ABCDE, ext=True, count=n)
        return await read_until(dev, n)

    got = run(go())
    assert len(got) == n and {(f.id, f.id_format, f.remote) for f in got} == {(0x1ABCDE, 1, 0)}
    assert [int.from_bytes(bytes(f.data), "big") for f in got] == list(range(n))
    assert unit.can_state()["sent"] == n


def test_bad_length_payload_ends_the_worker(can_units, monkeypatch):
    [(unit, dev)] = can_units(1)
    seen = []
    monkeypatch.setattr(threading, "excepthook", lambda args: seen.append((args.exc_type, str(args.exc_value))))

    async def go():
        assert await dev.CAN_open_async(1) == 0
        assert await dev.CAN_start_async(1) == 0
        unit.can_bad_length(5)
        for _ in range(400):
            if not dev.can_stream_thread.is_alive():
                break
            await asyncio.sleep(0.005)
        unit.can_send(1)
        return await dev.CAN_read_async(1, -1, 0.05)

    got = run(go())
    assert not dev.can_stream_thread.is_alive() and got == []
    assert seen == [(ValueError, "cannot reshape array of size 17 into shape (12)")]


# ---- over TCP: a network unit running TorvikUsbCan's firmware, and the module on an ETHDevice ----

class LanCan(t.ETHDevice, t.SystemModule, t.CANModule):
    """TorvikUsbCan's CAN path over a network connection."""


CAN_DICT = {1: PINS}


@pytest.fixture(scope="module")
def lan_unit():
    from pytorvik import simctl
    with simctl.Sim(simctl.unit_spec("TorvikLanLogic", cmd_port=0)) as s:
        s.unit.use_firmware("model", "TorvikUsbCan")
        yield s.unit


@pytest.fixture
def lan(lan_unit):
    lan_unit.use_firmware("model", "TorvikUsbCan")
    lan_unit.clear_faults()
    dev = LanCan(verbose=False)
    t.CANModule.__init__(dev, CAN_DICT)
    dev.connect(lan_unit.addr, port=lan_unit.cmd_port, verbose=False)
    lan_unit.wait_connected()
    lan_unit.clear_log()
    yield dev, lan_unit
    dev.disconnect(verbose=False)
    dev.close(verbose=False)
    dev._CAN_free()
    dev.can_stream_thread.join(2)


def test_a_burst_past_the_queue_bound_drops_one_warning_a_frame(lan):
    dev, unit = lan
    assert run(dev.CAN_open_async(1)) == 0
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        unit.can_burst(1000050)
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline and (unit.can_state()["sent"] < 1000050 or len(caught) < 50):
            time.sleep(0.05)
        time.sleep(0.1)
        overflows = [w for w in caught if "Occurrence CAN queue overflow." in str(w.message)]
    q = dev.can_frame_queue
    assert q.qsize() == 1000000 and len(overflows) == 50
    first = q.get_nowait()
    assert isinstance(first, t.CANFrame) and first.data == [0] * 8  # the burst counts from 0
    assert int.from_bytes(bytes(run(dev.CAN_read_async(1, -1, 0))[-1].data), "big") == 999999


# Identifier words worked out by hand, with bits the frame's fields do not keep: what a read gives
# must be what fromU8List gives, field by field and in the constructor's order.
RAW = [
    ([0x24, 0x60, 0x00, 0x00], (0x123, 0, 0), [0x24, 0x60, 0, 0]),
    ([0x24, 0x67, 0xAB, 0xCD], (0x123, 0, 0), [0x24, 0x60, 0, 0]),          # a standard frame's low bits are dropped
    ([0xFF, 0xF0, 0x00, 0x00], (0x7FF, 0, 1), [0xFF, 0xF0, 0, 0]),          # largest standard, remote
    ([0xFF, 0xEF, 0xFF, 0xFF], (0x1FFFFFFF, 1, 0), [0xFF, 0xEB, 0xFF, 0xFF]),  # bit 18 does not come back
    ([0x00, 0x18, 0x00, 0x01], (1, 1, 1), [0x00, 0x18, 0x00, 0x01]),
]


def fields_of(frame):
    return [(name, type(getattr(frame, name)), getattr(frame, name)) for name in
            ("id", "id_format", "remote", "data", "id_in_list", "frame_in_list")]


def test_read_frames_equal_what_from_u8_list_builds(lan, monkeypatch):
    dev, unit = lan
    # A script's replacement of an operation of the class is honoured by the reader too.
    original, calls = t.CANFrame.setID, []
    monkeypatch.setattr(t.CANFrame, "setID", lambda self: (calls.append(self.id), original(self))[1])
    rows = [word + [i, 0xFF, 0, 0, 0, 0, 0, i] for i, (word, _, _) in enumerate(RAW)]

    async def go():
        assert await dev.CAN_open_async(1) == 0
        unit.send_frame(t.START_CAN, b"\x01\x00" + b"".join(bytes(r) for r in rows))
        return await read_until(dev, len(rows))

    got = run(go())
    assert calls == [fields[0] for _, fields, _ in RAW]
    # A received frame makes its lists when first asked, from its own bytes: copies and pickles
    # of untouched frames carry them, and a list changed or taken away stays so.
    clones = [pickle.loads(pickle.dumps(got[0])), copy.deepcopy(got[1])]
    assert [fields_of(c) for c in clones] == [fields_of(f) for f in got[:2]]
    got[2].data.append(7)
    assert got[2].frame_in_list == RAW[2][2] + rows[2][4:] and got[2].data[8:] == [7]
    del got[3].id_in_list
    with pytest.raises(AttributeError, match="'CANFrame' object has no attribute 'id_in_list'"):
        got[3].id_in_list
    got[3].id_in_list = RAW[3][2]
    got[2].data.pop()
    for frame, row, (word, fields, again) in zip(got, rows, RAW):
        want = t.CANFrame.fromU8List(row)
        assert type(frame) is t.CANFrame and fields_of(frame) == fields_of(want)
        assert (frame.id, frame.id_format, frame.remote) == fields and frame.id_in_list == again
        assert frame.frame_in_list == again + row[4:] and str(frame) == str(want)
    assert len(got) == len(rows)


OPS = {  # operation: valid arguments after the port
    "CAN_open_async": (), "CAN_close_async": (), "CAN_start_async": (), "CAN_stop_async": (),
    "CAN_write_async": (0x10, [1]), "CAN_read_async": (1,), "CAN_setSpeed_async": (1,),
    "CAN_setRXFilteringOn_async": (True,), "CAN_setRXFilterOrMask_async": (0, 0x10, []),
    "_CAN_setEnableInterrupt_async": (True,), "_CAN_setRXRollover_async": (True,), "_CAN_getInterrupts_async": (),
    "_CAN_getErrors_async": (), "_CAN_getCounters_async": (), "_CAN_setTXPriority_async": (0, 0),
}
# Each argument given a value of the wrong type, in turn: a float for an int, 1 for a bool, a tuple for a list.
WRONG = {int: 1.0, bool: 1, list: (1,)}
BAD = [(op, (2,) + args, t.CANPortNotAvaliableError) for op, args in OPS.items()]
BAD += [(op, ("1",) + args, t.InputTypeNotCorrectError) for op, args in OPS.items()]
BAD += [(op, (1,) + args[:i] + (WRONG[type(a)],) + args[i + 1:], t.InputTypeNotCorrectError)
        for op, args in OPS.items() for i, a in enumerate(args) if op != "_CAN_setTXPriority_async"]
BAD += [
    ("CAN_write_async", (1, 1, [0] * 9), t.CANDataLengthNotVaildError),
    ("CAN_write_async", (1, 1, [-1]), t.InputDataNotInRangeError),
    ("CAN_write_async", (1, 1, [1, 256]), t.InputDataNotInRangeError),
    ("CAN_setSpeed_async", (1, 4), t.CANSpeedNotVaildError),
    ("CAN_setSpeed_async", (1, -1), t.CANSpeedNotVaildError),
    ("_CAN_setTXPriority_async", (1, 0, 0), TypeError),
]


@pytest.mark.parametrize("op,args,error", BAD, ids=["%s%d" % (b[0], i) for i, b in enumerate(BAD)])
def test_bad_input_fails_before_anything_is_sent(lan, op, args, error):
    in_range = error is t.InputDataNotInRangeError
    check_refused(*lan, op, args, error, "The specified CAN data elements not in range" if in_range else None)
