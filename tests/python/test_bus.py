"""I2C, SPI and UART operations against the emulator: payloads, status indices, checks, and the
UART receive path (workers, the shared gate, the reader's queues)."""
import asyncio
import threading

import pytest

import pytorvik as t

UART = {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]}
I2C = {1: [(2, 6), (2, 7)], 2: [(3, 0), (3, 1)]}
SPI = {1: [(2, 1), (2, 2), (2, 3)], 2: [(3, 3), (3, 4), (3, 5)]}


class BusProbe(t.ETHDevice, t.SystemModule, t.UARTModule, t.I2CModule, t.SPIModule):
    """The bus modules of the USB logic unit over a network connection."""


def make_probe(unit=None):
    dev = BusProbe(verbose=False)
    t.UARTModule.__init__(dev, UART)
    t.I2CModule.__init__(dev, I2C)
    t.SPIModule.__init__(dev, SPI)
    if unit is not None:
        dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        unit.wait_connected()
    return dev


def free(dev):
    if dev.connect_status_cmd:
        dev.disconnect(verbose=False)
    dev.close(verbose=False)
    dev._UART_free()
    for th in (dev.uart_p1_stream_thread, dev.uart_p2_stream_thread):
        th.join(2)
        assert not th.is_alive()


@pytest.fixture(scope="module")
def bus():
    import simctl
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


def run(coro):
    return asyncio.run(coro)


IDLE_PORT = {t.GET_PIN_MODE_OF_SLOT: [0, 8, 0x11, 0x11, 0x11, 0x11]}

CASES = [
    ("I2C_open_async", (1,), IDLE_PORT | {t.OPEN_I2C: [1, 0]}, [(t.GET_PIN_MODE_OF_SLOT, [2]), (t.OPEN_I2C, [1])], 0),
    ("I2C_open_async", (2,), {t.GET_PIN_MODE_OF_SLOT: [3, 8, 0x51, 0x11, 0x11, 0x11]}, [(t.GET_PIN_MODE_OF_SLOT, [3])],
     t.I2CPortNotAvaliableError),
    ("I2C_close_async", (1,), {t.CLOSE_I2C: [1, 5]}, [(t.CLOSE_I2C, [1])], -7005),
    ("I2C_read_async", (1, 0x50, 2), {t.READ_I2C: [1, 0, 2, 0xAB, 0xCD]}, [(t.READ_I2C, [1, 0x50, 2])], [0xAB, 0xCD]),
    ("I2C_read_async", (1, 0x50, 0), {t.READ_I2C: [1, 0, 0]}, [(t.READ_I2C, [1, 0x50, 0])], []),
    ("I2C_write_async", (1, 0x50, [0xAA]), {t.WRITE_I2C: [1, 9, 9, 0]}, [(t.WRITE_I2C, [1, 0x50, 1, 0xAA])], 0),
    ("I2C_write_async", (1, 0x50, []), {t.WRITE_I2C: [1, 0, 0, 5]}, [(t.WRITE_I2C, [1, 0x50, 0])], -7005),
    ("I2C_setClockRate_async", (1, 3), {t.SET_I2C_FREQUENCY: [1, 0]}, [(t.SET_I2C_FREQUENCY, [1, 0x00, 0x33, 0xE1, 0x40])], 0),
    ("I2C_setClockRate_async", (1, True), {t.SET_I2C_FREQUENCY: [1, 0]}, [(t.SET_I2C_FREQUENCY, [1, 0, 6, 0x1A, 0x80])], 0),
    ("I2C_setAddressSize_async", (2, 1), {t.SET_I2C_ADDR_SIZE: [2, 0]}, [(t.SET_I2C_ADDR_SIZE, [2, 1])], 0),
    ("SPI_open_async", (1,), IDLE_PORT | {t.OPEN_SPI: [1, 0]}, [(t.GET_PIN_MODE_OF_SLOT, [2]), (t.OPEN_SPI, [1])], 0),
    ("SPI_read_async", (2, 3), {t.READ_SPI: [2, 0, 7, 8, 9]}, [(t.READ_SPI, [2, 3])], [7, 8, 9]),
    ("SPI_write_async", (2, [1, 2, 3]), {t.WRITE_SPI: [2, 9, 0]}, [(t.WRITE_SPI, [2, 3, 1, 2, 3])], 0),
    ("SPI_readAndWrite_async", (2, [1, 2, 3]), {t.READ_AND_WRITE_SPI: [2, 0, 4, 5, 6, 7]},
     [(t.READ_AND_WRITE_SPI, [2, 3, 1, 2, 3])], [4, 5, 6, 7]),
    ("SPI_setPrescaler_async", (1, 256), {t.SET_SPI_PRESCALER: [1, 0]}, [(t.SET_SPI_PRESCALER, [1, 1, 0])], 0),
    ("SPI_setPrescaler_async", (1, 2), {t.SET_SPI_PRESCALER: [1, 0]}, [(t.SET_SPI_PRESCALER, [1, 0, 2])], 0),
    ("SPI_setMode_async", (1, 2), {t.SET_SPI_CPOL: [1, 0], t.SET_SPI_CPHA: [1, 0]}, [(t.SET_SPI_CPOL, [1, 1]), (t.SET_SPI_CPHA, [1, 0])], 0),
    ("SPI_setMode_async", (1, 3), {t.SET_SPI_CPOL: [1, 6], t.SET_SPI_CPHA: [1, 5]}, [(t.SET_SPI_CPOL, [1, 1]), (t.SET_SPI_CPHA, [1, 1])],
     -7006 | -7005),
    ("_SPI_setCPOL_async", (7, 7), {t.SET_SPI_CPOL: [7, 0]}, [(t.SET_SPI_CPOL, [7, 7])], 0),
    ("SPI_setDataSize_async", (1, 1), {t.SET_SPI_DATA_SIZE: [1, 0]}, [(t.SET_SPI_DATA_SIZE, [1, 1])], 0),
    ("SPI_setFirstBit_async", (1, 0), {t.SET_SPI_FIRST_BIT: [1, 0]}, [(t.SET_SPI_FIRST_BIT, [1, 0])], 0),
    ("UART_write_async", (1, "hi"), {t.WRITE_UART: [1, 9, 0]}, [(t.WRITE_UART, [1, 2, 104, 105])], 0),
    ("UART_write_async", (2, ["a", "\xff"]), {t.WRITE_UART: [2, 0, 7]}, [(t.WRITE_UART, [2, 2, 97, 255])], -7007),
    ("UART_write_async", (1, ""), {t.WRITE_UART: [1, 0, 0]}, [(t.WRITE_UART, [1, 0])], 0),
    ("UART_write_async", (1, "x" * 50), {t.WRITE_UART: [1, 0, 0]}, [(t.WRITE_UART, [1, 50] + [120] * 50)], 0),
    ("UART_setBaudRate_async", (1, 400000), {t.SET_UART_BAUD_RATE: [1, 0]}, [(t.SET_UART_BAUD_RATE, [1, 0, 6, 0x1A, 0x80])], 0),
    ("UART_setBaudRate_async", (1, 1), {t.SET_UART_BAUD_RATE: [1, 0]}, [(t.SET_UART_BAUD_RATE, [1, 0, 0, 0, 1])], 0),
    ("UART_setParity_async", (1, 1), {t.SET_UART_PARITY: [1, 0]}, [(t.SET_UART_PARITY, [1, 1])], 0),
    ("UART_setDataBit_async", (2,), {t.SET_UART_DATA_SIZE: [2, 0]}, [(t.SET_UART_DATA_SIZE, [2, 0])], 0),
    ("UART_setNumStopBit_async", (2, 3), {t.SET_UART_NUM_STOP_BITS: [2, 0]}, [(t.SET_UART_NUM_STOP_BITS, [2, 3])], 0),
    ("UART_reset_async", (2,), {t.RESET_UART: [2, 0]}, [(t.RESET_UART, [2])], 0),
]


@pytest.mark.parametrize("op,args,replies,sent,result", CASES, ids=[c[0] + str(i) for i, c in enumerate(CASES)])
def test_operation(on, op, args, replies, sent, result):
    dev, unit = on
    for code, reply in replies.items():
        unit.set_reply(code, bytes(reply))
    if isinstance(result, type):
        with pytest.raises(result):
            run(getattr(dev, op)(*args))
    else:
        assert run(getattr(dev, op)(*args)) == result
    assert [(f.code, list(f.payload)) for f in unit.wait_frames(len(sent))] == sent


BAD = [
    ("I2C_open_async", (3,), t.I2CPortNotAvaliableError),
    ("I2C_setClockRate_async", (1, 4), t.I2CClockNotSupportError),
    ("I2C_setAddressSize_async", (1, 2), t.I2CAddressSizeNotVaildError),
    ("I2C_read_async", (1, "x", 1), t.InputTypeNotCorrectError),
    ("I2C_write_async", (1, 0x50, (1,)), t.InputTypeNotCorrectError),
    ("SPI_setPrescaler_async", (1, 3), t.SPIPrescalerNotVaildError),
    ("SPI_setPrescaler_async", (1, 1), t.SPIPrescalerNotVaildError),
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
    dev, unit = on
    with pytest.raises(error) as info:
        run(getattr(dev, op)(*args))
    assert str(info.value) == str(error())
    assert unit.log() == []


def test_uart_gate_workers_and_reads(on):
    dev, unit = on
    assert dev.uart_p1_lock.locked() and dev.uart_p2_lock.locked()
    assert dev.uart_p1_data_queue is dev.data_pool_strm[(t.START_UART_READING, 1)]
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
    dev.uart_p1_data_queue.get_nowait()  # leave the queues empty for the next test
    while dev.uart_p1_data_queue.qsize():
        dev.uart_p1_data_queue.get_nowait()


def test_uart_free_ends_both_workers_in_either_state():
    for opened in (False, True):
        dev = make_probe()
        if opened:
            dev.uart_p1_lock.release()
            dev.uart_p2_lock.release()
        dev._UART_free()
        for th in (dev.uart_p1_stream_thread, dev.uart_p2_stream_thread):
            th.join(2)
            assert not th.is_alive() and isinstance(th, threading.Thread)
        dev.close(verbose=False)
