"""I2C, SPI, UART and CAN operations against the emulator: payloads, status indices, checks, the
receive paths (workers, gates, the reader's queues), and the CAN frame type."""
import asyncio
import copy

import pytest

import pytorvik as t
from devices import check_operation, check_refused, run

UART = {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]}
I2C = {1: [(2, 6), (2, 7)], 2: [(3, 0), (3, 1)]}
SPI = {1: [(2, 1), (2, 2), (2, 3)], 2: [(3, 3), (3, 4), (3, 5)]}
CAN = {1: [(1, 4), (1, 5), (2, 0), (2, 1), (2, 2), (2, 3)]}


class BusProbe(t.ETHDevice, t.SystemModule, t.UARTModule, t.I2CModule, t.SPIModule, t.CANModule):
    """The bus modules of the USB units over a network connection."""


def make_probe(unit=None):
    dev = BusProbe(verbose=False)
    t.UARTModule.__init__(dev, UART)
    t.I2CModule.__init__(dev, I2C)
    t.SPIModule.__init__(dev, SPI)
    t.CANModule.__init__(dev, CAN)
    if unit is not None:
        dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        unit.wait_connected()
    return dev


def free(dev):
    if dev.connect_status_cmd:
        dev.disconnect(verbose=False)
    dev.close(verbose=False)
    dev._UART_free()
    dev._CAN_free()
    for th in (dev.uart_p1_stream_thread, dev.uart_p2_stream_thread, dev.can_stream_thread):
        th.join(2)
        assert not th.is_alive()


@pytest.fixture(scope="module")
def bus():
    from pytorvik import simctl
    with simctl.Sim(simctl.unit_spec("TorvikLanLogic")) as s:
        unit = s.unit
        unit.use_firmware("echo")
        dev = make_probe(unit)
        yield dev, unit
        free(dev)


@pytest.fixture
def on(bus):
    dev, unit = bus
    unit.clear_faults()
    unit.clear_log()
    return dev, unit


IDLE_PORT = {t.GET_PIN_MODE_OF_SLOT: [0, 8, 0x11, 0x11, 0x11, 0x11]}

CASES = [
    ("I2C_open_async", (1,), {**IDLE_PORT, t.OPEN_I2C: [1, 0]}, [(t.GET_PIN_MODE_OF_SLOT, [2]), (t.OPEN_I2C, [1])], 0),
    ("I2C_open_async", (2,), {t.GET_PIN_MODE_OF_SLOT: [3, 8, 0x51, 0x11, 0x11, 0x11]}, [(t.GET_PIN_MODE_OF_SLOT, [3])],
     t.I2CPortNotAvaliableError),
    ("I2C_close_async", (1,), {t.CLOSE_I2C: [1, 5]}, [(t.CLOSE_I2C, [1])], -7005),
    ("I2C_read_async", (1, 0x50, 2), {t.READ_I2C: [1, 0, 2, 0xAB, 0xCD]}, [(t.READ_I2C, [1, 0x50, 2])], [0xAB, 0xCD]),
    ("I2C_write_async", (1, 0x50, [0xAA]), {t.WRITE_I2C: [1, 9, 9, 0]}, [(t.WRITE_I2C, [1, 0x50, 1, 0xAA])], 0),
    ("I2C_setClockRate_async", (1, True), {t.SET_I2C_FREQUENCY: [1, 0]}, [(t.SET_I2C_FREQUENCY, [1, 0, 6, 0x1A, 0x80])], 0),
    ("I2C_setAddressSize_async", (2, 1), {t.SET_I2C_ADDR_SIZE: [2, 0]}, [(t.SET_I2C_ADDR_SIZE, [2, 1])], 0),
    ("SPI_open_async", (1,), {**IDLE_PORT, t.OPEN_SPI: [1, 0]}, [(t.GET_PIN_MODE_OF_SLOT, [2]), (t.OPEN_SPI, [1])], 0),
    ("SPI_read_async", (2, 3), {t.READ_SPI: [2, 0, 7, 8, 9]}, [(t.READ_SPI, [2, 3])], [7, 8, 9]),
    ("SPI_write_async", (2, [1, 2, 3]), {t.WRITE_SPI: [2, 9, 0]}, [(t.WRITE_SPI, [2, 3, 1, 2, 3])], 0),
    ("SPI_readAndWrite_async", (2, [1, 2, 3]), {t.READ_AND_WRITE_SPI: [2, 0, 4, 5, 6, 7]},
     [(t.READ_AND_WRITE_SPI, [2, 3, 1, 2, 3])], [4, 5, 6, 7]),
    ("SPI_setPrescaler_async", (1, 256), {t.SET_SPI_PRESCALER: [1, 0]}, [(t.SET_SPI_PRESCALER, [1, 1, 0])], 0),
    ("SPI_setMode_async", (1, 3), {t.SET_SPI_CPOL: [1, 6], t.SET_SPI_CPHA: [1, 5]}, [(t.SET_SPI_CPOL, [1, 1]), (t.SET_SPI_CPHA, [1, 1])],
     -7006 | -7005),
    ("_SPI_setCPOL_async", (7, 7), {t.SET_SPI_CPOL: [7, 0]}, [(t.SET_SPI_CPOL, [7, 7])], 0),
    ("SPI_setDataSize_async", (1, 1), {t.SET_SPI_DATA_SIZE: [1, 0]}, [(t.SET_SPI_DATA_SIZE, [1, 1])], 0),
    ("SPI_setFirstBit_async", (1, 0), {t.SET_SPI_FIRST_BIT: [1, 0]}, [(t.SET_SPI_FIRST_BIT, [1, 0])], 0),
    ("UART_write_async", (1, "hi"), {t.WRITE_UART: [1, 9, 0]}, [(t.WRITE_UART, [1, 2, 104, 105])], 0),
    ("UART_write_async", (2, ["a", "\xff"]), {t.WRITE_UART: [2, 0, 7]}, [(t.WRITE_UART, [2, 2, 97, 255])], -7007),
    ("UART_write_async", (1, "x" * 50), {t.WRITE_UART: [1, 0, 0]}, [(t.WRITE_UART, [1, 50] + [120] * 50)], 0),
    ("UART_setBaudRate_async", (1, 400000), {t.SET_UART_BAUD_RATE: [1, 0]}, [(t.SET_UART_BAUD_RATE, [1, 0, 6, 0x1A, 0x80])], 0),
    ("UART_setParity_async", (1, 1), {t.SET_UART_PARITY: [1, 0]}, [(t.SET_UART_PARITY, [1, 1])], 0),
    ("UART_setDataBit_async", (2,), {t.SET_UART_DATA_SIZE: [2, 0]}, [(t.SET_UART_DATA_SIZE, [2, 0])], 0),
    ("UART_setNumStopBit_async", (2, 3), {t.SET_UART_NUM_STOP_BITS: [2, 0]}, [(t.SET_UART_NUM_STOP_BITS, [2, 3])], 0),
    ("UART_reset_async", (2,), {t.RESET_UART: [2, 0]}, [(t.RESET_UART, [2])], 0),
    ("CAN_write_async", (1, 0x123, [1, 2]), {t.WRITE_CAN: [1, 0]},
     [(t.WRITE_CAN, [1, 0, 0x24, 0x60, 0, 0, 1, 2, 0, 0, 0, 0, 0, 0])], 0),
    ("CAN_write_async", (1, 0x1FFFFFFF, [9] * 8, True, True), {t.WRITE_CAN: [1, 18]},
     [(t.WRITE_CAN, [1, 0, 0xFF, 0xFB, 0xFF, 0xFF] + [9] * 8)], -7018),
    ("CAN_setRXFilterOrMask_async", (1, 7, 0x7FF, list(range(9))), {t.SET_CAN_RX_FILTER_OR_MASK: [1, 0]},
     [(t.SET_CAN_RX_FILTER_OR_MASK, [1, 7, 0xFF, 0xE0, 0, 0] + list(range(8)))], 0),
    ("CAN_setSpeed_async", (1, 3), {t.SET_CAN_SPEED: [1, 0]}, [(t.SET_CAN_SPEED, [1, 3])], 0),
    ("_CAN_getErrors_async", (1,), {t.GET_CAN_ERRORS: [1, 7, 8]}, [(t.GET_CAN_ERRORS, [1])], [7, 8]),
    ("_CAN_getCounters_async", (1,), {t.GET_CAN_COUNTERS: [1] + [0, 0, 0, 1] * 5 + [0, 0, 1, 0]}, [(t.GET_CAN_COUNTERS, [1])],
     [1, 1, 1, 1, 1, 256]),
]


@pytest.mark.parametrize("op,args,replies,sent,result", CASES, ids=[c[0] + str(i) for i, c in enumerate(CASES)])
def test_operation(on, op, args, replies, sent, result):
    dev, unit = on
    check_operation(dev, unit, op, args, replies, result)
    assert [(f.code, list(f.payload)) for f in unit.wait_frames(len(sent))] == sent


BAD = [
    ("I2C_open_async", (3,), t.I2CPortNotAvaliableError),
    ("I2C_setClockRate_async", (1, 4), t.I2CClockNotSupportError),
    ("I2C_setAddressSize_async", (1, 2), t.I2CAddressSizeNotVaildError),
    ("I2C_read_async", (1, "x", 1), t.InputTypeNotCorrectError),
    ("I2C_write_async", (1, 0x50, (1,)), t.InputTypeNotCorrectError),
    ("SPI_setPrescaler_async", (1, 3), t.SPIPrescalerNotVaildError),
    ("SPI_setMode_async", (1, 4), t.SPIModeNotVaildError),
    ("SPI_setDataSize_async", (1, 2), t.SPIDataSizeNotVaildError),
    ("SPI_setFirstBit_async", (3, 0), t.SPIPortNotAvaliableError),
    ("SPI_write_async", (1, "abc"), t.InputTypeNotCorrectError),
    ("UART_write_async", (1, "x" * 51), t.UARTExceedMaxLengthError),
    ("UART_write_async", (1, b"ab"), t.InputTypeNotCorrectError),
    ("UART_setBaudRate_async", (1, 400001), t.UARTBaudRateNotSupportError),
    ("UART_setParity_async", (1, 4), t.UARTParityNotSupportError),
    ("UART_setNumStopBit_async", (1, 4), t.UARTStopBitNotSupportError),
    ("UART_setDataBit_async", (1, 2), t.UARTDataBitNotSupportError),
    ("UART_read_async", (3, 1), t.UARTPortNotAvaliableError),
    ("UART_read_async", (1, 1.0), t.InputTypeNotCorrectError),
]


@pytest.mark.parametrize("op,args,error", BAD, ids=[b[0] + str(i) for i, b in enumerate(BAD)])
def test_bad_input_sends_nothing(on, op, args, error):
    check_refused(*on, op, args, error)


def test_uart_gate_workers_and_reads(on):
    dev, unit = on
    assert dev.uart_p1_lock.locked() and dev.uart_p2_lock.locked()
    unit.set_reply(t.GET_PIN_MODE_OF_SLOT, bytes([0, 8, 0x11, 0x11, 0x11, 0x11]))

    async def main():
        assert await dev.UART_open_async(1) == 0
        assert not dev.uart_p1_lock.locked() and not dev.uart_p2_lock.locked()
        unit.send_frame(t.START_UART_READING, b"\x01\x00hel")
        unit.send_frame(t.START_UART_READING, b"\x02\x00\xff")
        unit.send_frame(t.START_UART_READING, b"\x01\x00lo")
        got = []
        for _ in range(100):
            got += await dev.UART_read_async(1, -1, 0.005)
            if len(got) == 5:
                break
        assert got == list("hello")
        assert await dev.UART_read_async(2, 5) == ["\xff"]
        assert await dev.UART_read_async(1, 0) == []
        with pytest.raises(RuntimeError):  # one gate pair for both ports: a second open fails at the release
            await dev.UART_open_async(2)
        assert [f.code for f in unit.log()].count(t.START_UART_READING) == 2
        dev.uart_p1_lock.acquire()  # as the failed open left it: port 2 gate still free
        dev.uart_p1_lock.release()
        assert await dev.UART_close_async(1) == 0
        assert dev.uart_p1_lock.locked() and dev.uart_p2_lock.locked()
        unit.send_frame(t.START_UART_READING, b"\x01\x00late")
        await asyncio.sleep(0.05)
        assert dev.uart_p1_signal_queue.qsize() == 0 and dev.uart_p1_data_queue.qsize() >= 1

    run(main())
    codes = [f.code for f in unit.log()]
    assert codes[-2:] == [t.STOP_UART_READING, t.CLOSE_UART]
    while dev.uart_p1_data_queue.qsize():  # leave the queues empty for the next test
        dev.uart_p1_data_queue.get_nowait()


def test_uart_free_ends_both_workers_in_either_state():
    for opened in (False, True):
        dev = make_probe()
        if opened:
            dev.uart_p1_lock.release()
            dev.uart_p2_lock.release()
        dev._UART_free()
        dev._CAN_free()
        for th in (dev.uart_p1_stream_thread, dev.uart_p2_stream_thread, dev.can_stream_thread):
            th.join(2)
            assert not th.is_alive()
        dev.close(verbose=False)


# (What a read gives is test_can.py's, against the unit's model.)
def test_can_gate(on):
    dev, unit = on
    unit.set_reply(t.GET_PIN_MODE_OF_SLOT, bytes([1, 8, 0x11, 0x11, 0x11, 0x11]))

    async def main():
        assert await dev.CAN_open_async(1) == 0 and not dev.can_lock.locked()
        with pytest.raises(RuntimeError):  # the unit calls the pins free: the gate is released twice
            await dev.CAN_open_async(1)
        assert await dev.CAN_close_async(1) == 0 and dev.can_lock.locked()

    run(main())
    assert [f.code for f in unit.log()][-2:] == [t.STOP_CAN, t.CLOSE_CAN]


@pytest.mark.parametrize("frame,wire", [
    (t.CANFrame(0x123), [0x24, 0x60, 0, 0]),
    (t.CANFrame(0x1FFFFFFF, 1), [0xFF, 0xEB, 0xFF, 0xFF]),
    (t.CANFrame(0, remote=True), [0x00, 0x10, 0x00, 0x00]),
    (t.CANFrame(0x800), [0, 0, 0, 0]),  # not masked: the shifted value wraps in the 32-bit packing
])
def test_can_frame_wire_form(frame, wire):
    assert frame.id_in_list == wire and len(frame.frame_in_list) == 12
    back = t.CANFrame.fromU8List(frame.frame_in_list)
    assert (back.id_format, back.remote, back.data) == (int(bool(frame.id_format)), int(bool(frame.remote)), frame.data)
    if frame.id < 0x800 or frame.id_format:
        assert back.id == frame.id


def test_can_frame_value_type():
    data = [1, 2]
    f = t.CANFrame(5, data=data)
    assert data == [1, 2] and f.data == [1, 2, 0, 0, 0, 0, 0, 0]
    assert f.regularizeData(list(range(9))) == list(range(8))
    assert str(t.CANFrame.fromU8List([0x24, 0x60, 0, 0])) == "CANFrame(id=291, id_format=0, remote=0, data=[0, 0, 0, 0, 0, 0, 0, 0])"

    class Tagged(t.CANFrame):
        pass

    assert type(Tagged.fromU8List(f.frame_in_list)) is Tagged
    f.stamp = 1.5  # a script's own attribute, beside the fields
    g = copy.copy(f)
    assert (g.id, g.data, g.frame_in_list, g.stamp) == (5, f.data, f.frame_in_list, 1.5) and g.data is f.data
    assert t.CANModule._checkCANTXIndex(2) is True
    with pytest.raises(TypeError, match=r"_checkCANTXIndex\(\) takes exactly one argument \(2 given\)"):
        t.CANModule._checkCANTXIndex(0, 1)
