"""What helps a script get the life cycle right: `with` / `async with` on handles, the logger and the
finder, and the reprs that say what a handle is connected to."""
import asyncio
import contextlib
import csv
import socket
import subprocess
import sys

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
    with pytest.raises(expected) if expected else contextlib.nullcontext():
        if form == "with":
            with getattr(pytorvik, cls)() as dev:
                use(dev)
        else:
            asyncio.run(use_async())
    assert_ended(made[0])
    assert repr(made[0]).endswith(" closed>")
    assert "Closed handle (" in capsys.readouterr().out


@pytest.mark.parametrize("script", [
    # an unknown unit: connect raises inside the block (the network handles' case is above)
    "with pytorvik.TorvikUsbMixed() as dev:\n    dev.connect('NOSUCHUNIT')",
    "with pytorvik.DataLogger() as log:\n    log.Logger_writeValue(1)\n    raise KeyError",  # rows with no file
    "with pytorvik.DeviceFinder() as finder:\n    finder.connect()\n    raise KeyError",
])
def test_a_script_whose_block_fails_still_ends(script):
    code = "import pytorvik\n" + script
    r = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert r.returncode == 1 and "Traceback" in r.stderr and "Exception in thread" not in r.stderr, r.stderr


def test_the_logger_writes_everything_queued_before_it_closes(tmp_path, capsys):
    path = str(tmp_path / "rows.csv")
    with pytest.raises(Boom):
        with pytorvik.DataLogger() as log:
            assert repr(log) == "<DataLogger no file>"
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


@pytest.mark.parametrize("port_taken", [False, True])
def test_the_finder_exits_through_the_sequence_that_works(port_taken, capsys):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        try:
            holder.bind(("", pytorvik.UDP_RECV_PORT))
        except OSError:
            if not port_taken:  # the finder's bind would fail; taken, it fails all the same
                pytest.skip("UDP port %d is in use on this machine" % pytorvik.UDP_RECV_PORT)
        if not port_taken:
            holder.close()
        with pytest.raises(pytorvik.NetworkConnectionError) if port_taken else contextlib.nullcontext():
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
    with pytest.raises(AttributeError, match="has no attribute 'AIModes'"):
        pytorvik.AIModes


def test_handle_reprs_show_product_and_connection(sim, usb_unit):
    unit, usb = sim("TorvikLanLogic").unit, usb_unit("TorvikUsbMixed")
    with pytorvik.TorvikLanLogic() as lan, pytorvik.TorvikUsbMixed() as mixed:
        assert (repr(lan), repr(mixed)) == ("<TorvikLanLogic not connected>", "<TorvikUsbMixed not connected>")
        lan.connect(unit.addr, port=unit.cmd_port)
        mixed.connect(usb.serial)
        assert repr(lan) == "<TorvikLanLogic %s:%d connected>" % (unit.addr, unit.cmd_port)
        assert repr(mixed) == "<TorvikUsbMixed serial=%r connected>" % usb.serial
        lan.disconnect()
        assert repr(lan) == "<TorvikLanLogic %s:%d not connected>" % (unit.addr, unit.cmd_port)


@pytest.mark.parametrize("args,shown", [
    ((0x123, 0, 0, [1, 2]), "CANFrame(id=0x123, id_format=0, remote=0, data=[1, 2, 0, 0, 0, 0, 0, 0])"),
    ((0x1FFFFFFF, True, True), "CANFrame(id=0x1fffffff, id_format=True, remote=True, data=[0, 0, 0, 0, 0, 0, 0, 0])"),
])
def test_can_frame_repr_shows_its_fields(args, shown):
    frame = pytorvik.CANFrame(*args)
    assert repr(frame) == shown
    assert repr(pytorvik.CANFrame.fromU8List(frame.frame_in_list)) == shown.replace("True", "1")


def test_uart_read_gives_characters_for_a_scripts_own_entries(usb_unit):
    unit = usb_unit("TorvikUsbLogic")
    with pytorvik.TorvikUsbLogic() as dev:
        dev.connect(unit.serial)
        for entry in (65, True, pytorvik.UARTParity.ODD, 255):
            dev.uart_p1_signal_queue.put(entry)
        assert asyncio.run(dev.UART_read_async(1, -1)) == ["A", "\x01", "\x03", "\xff"]
        dev.uart_p1_signal_queue.put(1.5)  # what chr() refuses, the read refuses
        with pytest.raises(TypeError):
            asyncio.run(dev.UART_read_async(1, -1))
