"""The serial buses of torvik-sim's firmware, driven through the library's handles: UART ports
with their loopback and scripted talker, the I2C EEPROM, the SPI device, and the pins the buses
take. The USB unit is TorvikUsbLogic on the emulated bus; long streams use the same firmware
behind a TCP port, where the library's engine takes the same path much faster."""
import asyncio
import collections
import time
import warnings

import pytest

import pytorvik as t
from pytorvik import simctl
from conftest import usb_host, wait_listed

UART = {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]}


class LanUart(t.ETHDevice, t.SystemModule, t.UARTModule):
    """TorvikUsbLogic's serial ports over a network connection."""


def run(coro):
    return asyncio.run(coro)


@pytest.fixture(scope="module")
def logic():
    """A TorvikUsbLogic on the emulated USB bus, with its handle connected."""
    host = usb_host()
    unit = host.add_usb("TorvikUsbLogic:BUS-%d" % (id(host) % 100000))
    wait_listed(collections.Counter([unit.serial]))
    dev = t.TorvikUsbLogic()
    dev.connect(unit.serial)
    yield dev, unit
    dev.close()
    unit.remove()
    wait_listed(collections.Counter({unit.serial: 0}))


@pytest.fixture
def usb(logic):
    """The USB unit with its firmware restarted (buses closed, pins free, EEPROM erased)."""
    dev, unit = logic
    unit.use_firmware("model")
    unit.clear_faults()
    unit.clear_log()
    return dev, unit


@pytest.fixture
def lan(sim):
    """TorvikUsbLogic's firmware behind a TCP port, and a handle with its serial ports."""
    s = sim(simctl.unit_spec("TorvikUsbLogic") + ",tcp")
    unit = s.unit
    dev = LanUart(verbose=False)
    t.UARTModule.__init__(dev, UART)
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    unit.wait_connected()
    yield dev, unit
    dev.disconnect(verbose=False)
    dev.close(verbose=False)
    dev._UART_free()
    for th in (dev.uart_p1_stream_thread, dev.uart_p2_stream_thread):
        th.join(2)


async def read_until(dev, port, count, timeout=5.0):
    got = []
    deadline = time.monotonic() + timeout
    while len(got) < count and time.monotonic() < deadline:
        got += await dev.UART_read_async(port, -1, 0.002)
    return "".join(got)


def close_gated(dev, port):
    """UART_close_async for a port whose gate an earlier close already took (one gate serves both
    ports): the gate is let go first, as an open would have done."""
    dev.uart_p1_lock.release()
    dev.uart_p2_lock.release()
    return dev.UART_close_async(port)


# ---- UART -----------------------------------------------------------------------------------------

def test_uart_life_cycle(usb):
    dev, unit = usb

    async def main():
        assert await dev.UART_open_async(2) == 0
        assert unit.pin_modes(1)[2:4] == ["UART", "UART"]
        assert await dev.UART_setBaudRate_async(2, 400000) == 0
        unit.uart_loopback(2, "paced")
        assert await dev.UART_write_async(2, "hello, unit") == 0
        unit.uart_send(2, b"\x00\x02\x0d\x0a\xff")  # framing bytes travel as data
        assert await read_until(dev, 2, 16) == "hello, unit\x00\x02\x0d\x0a\xff"

        assert await dev.UART_stopReading_async(2) == 0
        unit.uart_send(2, b"lost")
        assert await dev.UART_write_async(2, "also lost") == 0
        time.sleep(0.01)
        assert await dev.UART_read_async(2, -1) == []
        state = unit.uart_state(2)
        assert (state["written"], state["sent"], state["ignored"], state["baud"]) == (20, 16, 13, 400000)

        assert await dev.UART_close_async(2) == 0
        assert unit.pin_modes(1)[2:4] == ["Idle", "Idle"]
        assert await dev.UART_write_async(2, "x") == -7007  # a closed port refuses

        assert await dev.UART_open_async(2) == 0  # the second open reads again
        unit.uart_stream(2, 20000, count=600)
        got = await read_until(dev, 2, 600)
        assert got == "".join(chr(i % 256) for i in range(600)), (len(got), [ord(c) for c in got[:4]], unit.uart_state(2))
        assert await dev.UART_close_async(2) == 0

    run(main())
    codes = [f.code for f in unit.log()]
    assert codes.count(t.START_UART_READING) == 2 and codes.count(t.STOP_UART_READING) == 3


def test_uart_both_ports_at_once(usb):
    dev, unit = usb

    async def main():
        assert await dev.UART_open_async(1) == 0
        with pytest.raises(RuntimeError):  # one gate for both ports: the open is done, its release fails
            await dev.UART_open_async(2)
        unit.uart_loopback(1, "fast")
        unit.uart_stream(2, "max", count=3000)
        assert await dev.UART_write_async(1, "one") == 0
        got1, got2 = await read_until(dev, 1, 3), await read_until(dev, 2, 3000)
        assert (got1, got2) == ("one", "".join(chr(i % 256) for i in range(3000)))
        assert await dev.UART_close_async(1) == 0
        assert await close_gated(dev, 2) == 0
        assert unit.pin_modes(0)[3:5] == ["Idle", "Idle"] and unit.pin_modes(1)[2:4] == ["Idle", "Idle"]

    run(main())


def test_uart_overflow_at_the_queue_bound(lan):
    dev, unit = lan
    extra = 7
    assert run(dev.UART_open_async(1)) == 0
    queue = dev.uart_p1_signal_queue
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        unit.uart_burst(1, t.QUEUE_SIZE_MAX + extra)
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline and len(caught) < extra:
            time.sleep(0.02)
        time.sleep(0.05)
        text = str(t.UARTQueueOverflowWarning(silent=True).msg)
        overflows = [w for w in caught if text in str(w.message)]
    assert len(overflows) == extra and queue.qsize() == t.QUEUE_SIZE_MAX
    assert unit.uart_state(1)["sent"] == t.QUEUE_SIZE_MAX + extra
    got = run(dev.UART_read_async(1, -1))
    assert len(got) == t.QUEUE_SIZE_MAX and got[:3] == ["\x00", "\x01", "\x02"] and got[-1] == chr((t.QUEUE_SIZE_MAX - 1) % 256)


def test_uart_stream_with_false_frames_arrives_whole(lan):
    """Data full of start bytes and terminators: the unit cuts payloads short where the host would
    see a frame of its own, so that every byte arrives."""
    dev, unit = lan
    # each copy is a whole frame to the host (its length points at its terminator), wherever a
    # payload starts
    tricky = bytes([0x02, 0x00, 0x06, 0x81, 0x01, 0x00, 0x41, 0x42, 0x43, 0x0D, 0x0A]) * 50
    assert run(dev.UART_open_async(1)) == 0
    unit.uart_loopback(1, "fast")
    unit.uart_send(1, tricky)
    assert run(read_until(dev, 1, len(tricky))) == tricky.decode("latin-1")
    assert unit.uart_state(1)["shortened"] > 0


def test_uart_read_takes_an_overridden_pool_read():
    """Reads decode straight from the library's own queue, unless the class reads the pool its own way."""
    class Scripted(LanUart):
        async def _getStreamingFromPool_async(self, queue_, num_samples, delay):
            return [104, 105, 0x2603, True]

    dev = Scripted(verbose=False)
    t.UARTModule.__init__(dev, UART)
    try:
        assert run(dev.UART_read_async(2, -1, 0)) == ["h", "i", "\u2603", "\x01"]
    finally:
        dev.close(verbose=False)
        dev._UART_free()


# ---- I2C and SPI ----------------------------------------------------------------------------------

def test_i2c_eeprom_write_then_read_back(usb):
    dev, unit = usb
    unit.i2c_eeprom(1, 0x51, size=64, page=8)

    async def main():
        assert await dev.I2C_open_async(1) == 0
        assert unit.pin_modes(2)[6:8] == ["I2C", "I2C"]
        assert await dev.I2C_write_async(1, 0x51, [0x10, 1, 2, 3]) == 0
        assert await dev.I2C_write_async(1, 0x51, [0x10]) == 0  # sets the address only
        assert await dev.I2C_read_async(1, 0x51, 4) == [1, 2, 3, 0xFF]
        assert await dev.I2C_write_async(1, 0x51, [0x3F]) == 0
        assert await dev.I2C_read_async(1, 0x51, 2) == [0xFF, 0xFF]  # the read wraps at the end
        assert await dev.I2C_close_async(1) == 0

    run(main())
    assert unit.i2c_memory(1, 0x10, 4) == bytes([1, 2, 3, 0xFF])
    assert unit.pin_modes(2)[6:8] == ["Idle", "Idle"]


@pytest.mark.parametrize("how", ["wrong address", "silent device"])
def test_i2c_nack(usb, how):
    dev, unit = usb
    address = 0x50
    if how == "wrong address":
        address = 0x23
    else:
        unit.i2c_silent(2)

    async def main():
        assert await dev.I2C_open_async(2) == 0
        assert await dev.I2C_write_async(2, address, [0, 1]) == -7005
        assert await dev.I2C_read_async(2, address, 3) == []
        assert await dev.I2C_close_async(2) == 0

    run(main())
    assert unit.i2c_state(2)["nacks"] == 2 and unit.i2c_memory(2, 0, 2) == b"\xff\xff"


@pytest.mark.parametrize("device,written,expect", [
    (None, [0x0D, 0x0A, 2, 1], [0x0D, 0x0A, 2, 1]),
    (b"\xa5\x5a", [0, 0, 0], [0xA5, 0x5A, 0xA5]),
    ("silent", [1, 2], [0xFF, 0xFF]),
])
def test_spi_device(usb, device, written, expect):
    dev, unit = usb
    if device == "silent":
        unit.spi_silent(2)
    elif device:
        unit.spi_device(2, device)

    async def main():
        assert await dev.SPI_open_async(2) == 0
        assert unit.pin_modes(3)[3:6] == ["SPI"] * 3
        assert await dev.SPI_setMode_async(2, 3) == 0 and await dev.SPI_setPrescaler_async(2, 256) == 0
        assert await dev.SPI_readAndWrite_async(2, written) == expect
        assert await dev.SPI_write_async(2, [9, 8]) == 0
        assert await dev.SPI_read_async(2, 2) == (expect[:2] if device != None else [0, 0])  # noqa: E711
        assert await dev.SPI_close_async(2) == 0

    run(main())
    state = unit.spi_state(2)
    assert (state["cpol"], state["cpha"], state["prescaler"], state["transfers"], state["mosi"]) == (1, 1, 256, 3, b"\0\0")


# ---- pins -----------------------------------------------------------------------------------------

@pytest.mark.parametrize("holder,bus,port,pin,error", [
    ("SPI", "I2C", 1, (2, 6), t.I2CPortNotAvaliableError),
    ("CAN", "SPI", 1, (2, 2), t.SPIPortNotAvaliableError),
    ("I2C", "UART", 2, (1, 3), t.UARTPortNotAvaliableError),
])
def test_a_pin_held_by_another_bus_refuses_the_open(usb, holder, bus, port, pin, error):
    """The host looks at the pins first; past that check, the unit refuses with the bus's status."""
    dev, unit = usb
    unit.set_pin_mode(*pin, holder)
    opener = getattr(dev, bus + "_open_async")
    with pytest.raises(error):
        run(opener(port))
    assert [f.code for f in unit.log()] == [t.GET_PIN_MODE_OF_SLOT]

    unit.set_reply(t.GET_PIN_MODE_OF_SLOT, bytes([pin[0], 8, 0x11, 0x11, 0x11, 0x11]))  # the host sees them free
    status = {"I2C": -7005, "SPI": -7006, "UART": -7007}[bus]
    assert run(opener(port)) == status
    assert unit.pin_modes(pin[0])[pin[1]] == holder


def test_bus_pins_are_taken_from_digital_io_and_given_back(usb):
    dev, unit = usb

    async def main():
        assert await dev.DO_openPins_async(2, [6, 7]) == 0
        assert unit.pin_modes(2)[6:8] == ["DO", "DO"]
        assert await dev.I2C_open_async(1) == 0  # DI and DO give way to a bus
        assert unit.pin_modes(2)[6:8] == ["I2C", "I2C"]
        with pytest.raises(t.I2CPortNotAvaliableError):  # its own pins, now in I2C mode
            await dev.I2C_open_async(1)
        with pytest.raises(t.DOPortNotAvaliableError):
            await dev.DO_openPins_async(2, [6])
        assert await dev.I2C_close_async(1) == 0
        assert await dev.I2C_close_async(1) == 0  # a close of a closed port leaves the pins alone
        assert unit.pin_modes(2)[6:8] == ["Idle", "Idle"]

    run(main())
