"""What helps a script get the life cycle right: `with` / `async with` on handles, the logger and the
finder, and the reprs that say what a handle is connected to."""
import asyncio
import csv
import socket
import subprocess
import sys
import textwrap

import pytest

import pytorvik


class Boom(Exception):
    pass


def threads_of(obj):
    return [v for k, v in vars(obj).items() if k.endswith("_thread")]


def assert_ended(obj):
    for t in threads_of(obj):
        t.join(5)
    assert obj.killed and not [t.name for t in threads_of(obj) if t.is_alive()]


# Outside the blocks that tests' emulators take their addresses from: nothing listens there.
NOWHERE = "127.254.254.254"


@pytest.mark.parametrize("cls", ["TorvikLanAnalog", "TorvikAirAnalog", "TorvikLanRelay"])
@pytest.mark.parametrize("body", ["returns", "raises", "connect fails"])
@pytest.mark.parametrize("form", ["with", "async with"])
def test_leaving_the_block_closes_the_handle(sim, cls, body, form, capsys):
    unit = sim(cls).unit  # on the units' own ports (the tests run as root)
    made = []

    def use(dev):
        made.append(dev)
        dev.connect(NOWHERE if body == "connect fails" else unit.addr)
        assert " connected>" in repr(dev)
        if body == "raises":
            raise Boom()

    async def use_async():
        async with getattr(pytorvik, cls)() as dev:
            use(dev)

    expected = {"returns": None, "raises": Boom, "connect fails": pytorvik.NetworkConnectionError}[body]
    ctx = pytest.raises(expected) if expected else _nothing()
    with ctx:
        if form == "with":
            with getattr(pytorvik, cls)() as dev:
                use(dev)
        else:
            asyncio.run(use_async())
    assert_ended(made[0])
    assert repr(made[0]).endswith(" closed>")
    assert "Closed handle (" in capsys.readouterr().out


class _nothing:
    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return False


@pytest.mark.parametrize("script", [
    # an unreachable unit: connect raises inside the block
    "with pytorvik.TorvikLanLogic() as dev:\n    dev.connect(%r)" % NOWHERE,
    "with pytorvik.TorvikUsbMixed() as dev:\n    dev.connect('NOSUCHUNIT')",
    "async def main():\n    async with pytorvik.TorvikAirAnalog() as dev:\n        dev.connect(%r)\n"
    "asyncio.run(main())" % NOWHERE,
    "with pytorvik.DataLogger() as log:\n    log.Logger_writeValue(1)\n    raise KeyError",
    "with pytorvik.DeviceFinder() as finder:\n    finder.connect()\n    raise KeyError",
])
def test_a_script_whose_block_fails_still_ends(script):
    code = "import asyncio\nimport pytorvik\n" + script
    r = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert r.returncode == 1 and "Traceback" in r.stderr, r.stderr


def test_the_logger_writes_everything_queued_before_it_closes(tmp_path, capsys):
    path = str(tmp_path / "rows.csv")
    with pytest.raises(Boom):
        with pytorvik.DataLogger() as log:
            log.Logger_openFile(path, verbose=False)
            assert repr(log) == "<DataLogger %r open>" % path
            for i in range(1000):
                log.Logger_writeList([i, i * 0.5])
            raise Boom()
    with open(path, newline="") as f:
        rows = list(csv.reader(f))
    assert rows[0] == ["0", "0.0"] and rows[-1] == ["999", "499.5"] and len(rows) == 1000
    assert_ended(log)
    assert repr(log) == "<DataLogger %r closed>" % path
    assert "Close file name: (" in capsys.readouterr().out
    with log:  # already closed: leaving again does nothing
        pass


def test_a_logger_without_a_file_ends_its_worker_on_exit(capsys):
    with pytorvik.DataLogger() as log:
        assert repr(log) == "<DataLogger no file>"
        log.Logger_writeValue(1)  # nowhere to go
    assert_ended(log)
    assert capsys.readouterr().err == ""


@pytest.mark.parametrize("port_taken", [False, True])
def test_the_finder_exits_through_the_sequence_that_works(port_taken, capsys):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        if port_taken:
            try:
                holder.bind(("", pytorvik.UDP_RECV_PORT))
            except OSError:
                pass  # someone else has it: the finder's bind fails all the same
        with pytest.raises(pytorvik.NetworkConnectionError) if port_taken else _nothing():
            with pytorvik.DeviceFinder() as finder:
                finder.connect()
                assert repr(finder) == "<DeviceFinder connected>"
    finally:
        holder.close()
    assert_ended(finder)
    assert repr(finder) == "<DeviceFinder closed>"
    assert "Closed handle (Device finder)" in capsys.readouterr().out


def test_exit_uses_the_handles_own_close():
    closed = []

    class TorvikLanLogic(pytorvik.TorvikLanLogic):  # the label is found by the class's name
        def close(self):
            closed.append(True)
            pytorvik.TorvikLanLogic.close(self)

    with TorvikLanLogic() as dev:
        pass
    assert closed == [True]
    assert_ended(dev)


ENUM_CASES = [
    ("TorvikUsbMixed", "AI_setMode_async", (0, "AIMode.CONTINUOUS"), [0, 2]),
    ("TorvikUsbMixed", "AO_setMode_async", (0, "AOMode.N_SAMPLES"), [0, 1]),
    ("TorvikUsbMixed", "AO_setForm_async", (0, 1, "AOForm.SINE"), [0, 0, 1, 3]),
    ("TorvikUsbCan", "CAN_setSpeed_async", (1, "CANSpeed.K500"), [1, 2]),
    ("TorvikUsbCan", "CAN_setRXFilterOrMask_async", (1, "CANFilterIndex.MASK1", 0x7FF, []), [1, 7, 0xFF, 0xE0] + [0] * 10),
    ("TorvikUsbCan", "I2C_setClockRate_async", (1, "I2CClockRate.HIGH_SPEED"), [1, 0x00, 0x33, 0xE1, 0x40]),
    ("TorvikUsbCan", "I2C_setAddressSize_async", (1, "I2CAddressSize.BITS_10"), [1, 1]),
    ("TorvikUsbCan", "SPI_setMode_async", (2, "SPIMode.MODE2"), [2, 0]),  # CPOL 1 first, then this CPHA 0
    ("TorvikUsbCan", "SPI_setDataSize_async", (2, "SPIDataSize.BITS_16"), [2, 1]),
    ("TorvikUsbCan", "SPI_setFirstBit_async", (2, "SPIFirstBit.LSB"), [2, 1]),
    ("TorvikUsbCan", "UART_setDataBit_async", (1, "UARTDataBits.BITS_9"), [1, 1]),
    ("TorvikUsbCan", "UART_setParity_async", (1, "UARTParity.ODD"), [1, 3]),
    ("TorvikUsbCan", "UART_setNumStopBit_async", (2, "UARTStopBits.ONE_AND_HALF"), [2, 3]),
    ("TorvikUsbThermo", "Thermal_setNoiseFilter_async", (1, 0, "ThermalNoiseFilter.HZ_50"), [1, 0, 1]),
    ("TorvikUsbThermo", "Thermal_setOverSampling_async", (1, 1, "ThermalOverSampling.X16"), [1, 1, 4]),
    ("TorvikUsbThermo", "Thermal_setType_async", (1, 0, "ThermocoupleType.T"), [1, 0, 7]),
    ("TorvikUsbRtd", "Thermal_setType_async", (1, 1, "RTDType.THREE_WIRE"), [1, 1, 1]),
]


def named(arg):
    """"AIMode.CONTINUOUS" -> pytorvik.AIMode.CONTINUOUS; anything else as it is."""
    if isinstance(arg, str) and "." in arg:
        cls, member = arg.split(".")
        return getattr(getattr(pytorvik, cls), member)
    return arg


@pytest.mark.parametrize("product,op,args,wire", ENUM_CASES, ids=[next(a for a in c[2] if isinstance(a, str)) for c in ENUM_CASES])
def test_named_values_pass_the_checks_and_go_out_as_their_ints(usb_unit, product, op, args, wire):
    unit = usb_unit(product, firmware="model")
    with getattr(pytorvik, product)() as dev:
        dev.connect(unit.serial)
        result = asyncio.run(getattr(dev, op)(*[named(a) for a in args]))
        assert type(result) is int
        assert list(unit.log()[-1].payload) == wire


def test_named_values_stand_at_module_level_beside_all():
    assert "AIMode" not in pytorvik.__all__ and "AIMode" in dir(pytorvik)
    assert pytorvik.AIMode.CONTINUOUS == 2 and pytorvik.AOForm(3) is pytorvik.AOForm.SINE
    assert [int(m) for m in pytorvik.CANFilterIndex] == list(range(8))
    assert [m.name for m in pytorvik.PinMode][:4] == ["DISABLED", "IDLE", "DI", "DO"]
    with pytest.raises(AttributeError, match="has no attribute 'AIModes'"):
        pytorvik.AIModes
