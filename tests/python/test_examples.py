"""The example programs, each run against the emulator as a user would run it."""
import csv
import os
import subprocess
import sys

import pytest

from pytorvik import simctl

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")


def run_example(name, unit_class, *expect, args=()):
    unit_arg = simctl.unit_spec(unit_class, cmd_port=17007)
    addr = unit_arg.split("@")[1].split(":")[0]
    r = simctl.run_with_command([unit_arg], [sys.executable, os.path.join(EXAMPLES, name + ".py"), "%s:17007" % addr, *args],
                                timeout=60)
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    for text in expect:
        assert text in out, out
    return out


@pytest.mark.parametrize("name,expect", [
    ("DIO_loopback_port", ["DO port 0 wrote [1, 0, 1, 0, 1, 0] | DI port 1 reads [1, 0, 1, 0, 1, 0]"]),
    ("DIO_loopback_pins", ["<- [1, 0, 1] | DI P1 pins [0, 2, 3] read [1, 0, 1]"]),
    ("DO_write_port", ["write [1, 0, 1, 0, 1, 0] -> levels [1, 0, 1, 0, 1, 0, 0, 0]", "close: 0"]),
    ("DO_write_pins", ["pins [0, 1, 2] <- [1, 0, 1]: levels [1, 0, 1, 0, 0, 0, 0, 0]"]),
    ("DO_blinky_port", ["port 0 on : [1, 1, 1, 1, 1, 1, 0, 0]"]),
    ("DO_blinky_pins", ["pins [0, 1] <- [0, 1]: [0, 1, 0, 0, 0, 0, 0, 0]"]),
    ("get_network_info", ["driver info:   ['Torvik-LAN-Logic'", "subnet mask:   255.255.255.0"]),
    ("get_pin_mode", ["port 1: P1.0 Idle"]),
])
def test_digital_examples_on_the_lan_unit(name, expect):
    out = run_example(name, "TorvikLanLogic", *expect)
    assert out.startswith("Opened handle (Torvik-LAN-Logic)\n") and out.endswith("Closed handle (Torvik-LAN-Logic)\n")


@pytest.mark.parametrize("name,unit_class,expect", [
    ("AI_on_demand_once", "TorvikLanAnalog", ["open: 0", "volts: [", "close: 0"]),
    ("AI_on_demand_in_loop", "TorvikLanAnalog", ["read 9: ["]),
    ("AI_N_samples_once", "TorvikLanAnalog", ["1000 frames at 10000 Hz"]),
    ("AI_N_samples_in_loop", "TorvikLanAnalog", ["round 2: 500 frames"]),
    ("AI_continuous", "TorvikLanAnalog", [" frames in 2 s at 2000 Hz"]),
    ("AO_write_one_channel", "TorvikLanOutput", ["outputs: [10.0, 0.0"]),
    ("AO_write_all_channels", "TorvikLanOutput", ["outputs: [1.25, -1.25, 0.0"]),
    ("AO_waveform_gen", "TorvikLanOutput", ["generator (mode, rate):", "stop: 0"]),
])
def test_analog_examples_on_the_lan_units(name, unit_class, expect):
    run_example(name, unit_class, *expect)


def test_ai_continuous_with_logger_writes_every_frame(tmp_path):
    fn = tmp_path / "ai.csv"
    out = run_example("AI_continuous_with_logger", "TorvikLanAnalog", "frames logged", "Close file name: (%s)" % fn,
                      args=[str(fn)])
    logged = int(out.split(" frames logged")[0].split()[-1])
    with open(fn, newline="") as f:
        rows = list(csv.reader(f))
    assert rows[0][:2] == ["frame", "AI0 (V)"] and len(rows) == logged + 1 and logged > 100
    assert [int(r[0]) for r in rows[1:]] == list(range(logged))


def test_quickstart_runs_without_a_unit():
    r = subprocess.run([sys.executable, os.path.join(EXAMPLES, "quickstart.py")], capture_output=True, timeout=30)
    assert r.returncode == 0 and b"packet cmd=0xF0 data=[0]" in r.stdout


def test_get_usb_info_lists_the_units_and_connects_to_each():
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    r = simctl.run_with_command([], [sys.executable, os.path.join(EXAMPLES, "get_USB_info.py")],
                                usb=["TorvikUsbSink:21JA1298", "TorvikUsbLogic:21JA1299,product=Bench-Logic"])
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip("torvik-sim was built without USB support (umockdev missing at build time)")
    assert r.returncode == 0, r.stderr.decode()
    out = r.stdout.decode().splitlines()
    assert "2 unit(s) on USB" in out
    assert {"serial number: 21JA1298, product: Torvik-USB-Sink",
            "serial number: 21JA1299, product: Bench-Logic"} <= set(out)
    for line in ("Connected to 21JA1298 (Torvik-USB-Sink)", "Connected to 21JA1299 (Torvik-USB-Logic)",
                 "Closed handle (Torvik-USB-Sink)"):
        assert line in out


@pytest.mark.parametrize("name,expect", [
    ("DIO_loopback_port", "DO port 2 wrote [0, 0, 0, 0, 0, 0, 0, 0] | DI port 0 reads [0, 0, 0, 0, 0, 0, 0, 0]"),
    ("get_pin_mode", "port 3: P3.0 Idle, P3.1 Idle, P3.2 Idle, P3.3 Idle"),
])
def test_digital_examples_on_the_usb_unit(name, expect):
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    r = simctl.run_with_command([], [sys.executable, os.path.join(EXAMPLES, name + ".py"), "21JA1298"],
                                usb=["TorvikUsbSink:21JA1298"])
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip("torvik-sim was built without USB support (umockdev missing at build time)")
    out = r.stdout.decode()
    assert r.returncode == 0 and expect in out, out + r.stderr.decode()


def run_on_usb(name, usb, *args):
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    r = simctl.run_with_command([], [sys.executable, os.path.join(EXAMPLES, name + ".py")] + list(args), usb=usb)
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip("torvik-sim was built without USB support (umockdev missing at build time)")
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    return out


@pytest.mark.parametrize("name,unit,expect", [
    ("TC_read_channel_data", "TorvikUsbThermo:21JA1239", ["open: 0", "read 4: CH0 2", " C, CH1 2", "close: 0"]),
    ("TC_read_channel_status", "TorvikUsbThermo:21JA1239", ["CH0: connected", "CH1: connected"]),
    ("RTD_read_channel_data", "TorvikUsbRtd:21JA1385", ["open: 0", "read 4: CH0 2", "close: 0"]),
    ("RTD_read_channel_status", "TorvikUsbRtd:21JA1385", ["CH1: fault register 0x00 (no fault)"]),
])
def test_temperature_examples_on_their_sample_serial(name, unit, expect):
    out = run_on_usb(name, [unit])
    for text in expect:
        assert text in out, out


@pytest.mark.parametrize("kind,unit", [("TC", "TorvikUsbThermo:21JA1239"), ("RTD", "TorvikUsbRtd:21JA1385")])
def test_temperature_logger_examples_write_their_csv(tmp_path, kind, unit):
    fn = tmp_path / "t.csv"
    out = run_on_usb(kind + "_read_channel_data_with_logger", [unit], unit.split(":")[1], str(fn))
    assert "10 reads logged" in out and "Close file name: (%s)" % fn in out
    with open(fn, newline="") as f:
        rows = list(csv.reader(f))
    assert rows[0] == ["time (s)", "CH0 (C)", "CH1 (C)"] and len(rows) == 11
    assert all(15 < float(v) < 40 for r in rows[1:] for v in r[1:]), rows  # the emulator's room temperature


@pytest.mark.slow
def test_find_all_devices_lists_usb_and_network_units():
    import socket
    if [n for _, n in socket.if_nameindex()] != ["lo"]:
        pytest.skip("broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    lan = simctl.unit_spec("TorvikLanRelay")
    addr = lan.split("@")[1].split(":")[0]
    r = simctl.run_with_command([lan], [sys.executable, os.path.join(EXAMPLES, "find_all_devices.py")],
                                usb=["TorvikUsbThermo:21JA1239"])
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip("torvik-sim was built without USB support (umockdev missing at build time)")
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    assert "serial number: 21JA1239, product: Torvik-USB-Thermo" in out
    assert "1 unit(s) on the network" in out and "IP address: %s, subnet mask: 255.255.255.0" % addr in out
    assert "model: Torvik-LAN-Relay" in out


# The bus examples run on a TorvikUsbLogic whose far ends the driver sets up through the control
# socket before the example starts, and looks at after it ended.
BUS_DRIVER = """
import os, runpy, sys
sys.path[:0] = [{examples!r}, {tests!r}]
from pytorvik import simctl
unit = simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"]).unit
{setup}
sys.argv = [{path!r}] + {args!r}
runpy.run_path({path!r}, run_name="__main__")
{after}
"""
LINES = "".join("Hello from pytorvik, line %d\r\n" % n for n in range(3))


@pytest.mark.parametrize("name,args,setup,after,expect", [
    ("UART_read", ["0.5"], "unit.uart_stream(2, 2000, count=300)", "",
     ["open: 0", "read ", ": 00 01 02 03", "received 300 bytes in 0.5 s", "close: 0"]),
    ("UART_write", [], "unit.uart_loopback(2, 'paced')", "print('unit took', unit.uart_state(2)['written'])",
     ["write 'Hello from pytorvik, line 2\\r\\n': 0", "came back: %r" % LINES, "unit took %d" % len(LINES)]),
    ("I2C_write_read", [], "", "print('eeprom', unit.i2c_memory(1, 0, 5).hex())",
     ["write [222, 173, 190, 239] at 0x00: 0", "read: [222, 173, 190, 239]", "eeprom deadbeefff"]),
    ("SPI_read_and_write", [], "", "",
     ["write [159, 0, 0, 0] read [159, 0, 0, 0]", "write [1, 2, 3] read [1, 2, 3]", "read 4: [0, 0, 0, 0]"]),
    ("SPI_write", [], "", "print('mosi', unit.spi_state(2)['mosi'].hex())",
     ["write ['0x06']: 0", "mosi 020010aa55", "close: 0"]),
])
def test_bus_examples_on_the_usb_unit(name, args, setup, after, expect):
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    path = os.path.abspath(os.path.join(EXAMPLES, name + ".py"))
    driver = BUS_DRIVER.format(examples=os.path.abspath(EXAMPLES), tests=os.path.dirname(os.path.abspath(__file__)),
                               setup=setup, path=path, args=["21JA1200"] + args, after=after)
    r = simctl.run_with_command([], [sys.executable, "-c", driver], usb=["TorvikUsbLogic:21JA1200"])
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip("torvik-sim was built without USB support (umockdev missing at build time)")
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    for text in expect:
        assert text in out, out
    assert out.startswith("Opened handle (Torvik-USB-Logic)\n")


# The CAN examples run on a unit plugged into this test process's emulated USB bus, whose tester
# node sends frames before the example starts and is asked afterwards what it heard.
def run_example_here(name, *args):
    r = subprocess.run([sys.executable, os.path.join(EXAMPLES, name + ".py")] + list(args), capture_output=True, timeout=60)
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    return out


def test_can_read_prints_what_the_bus_sends(usb_unit):
    unit = usb_unit("TorvikUsbCan", firmware="model")
    unit.can_stream(rate=100, id_=0x2AA)
    try:
        out = run_example_here("CAN_read", unit.serial, "1")
    finally:
        unit.can_stream_off()
    frames = [line for line in out.splitlines() if line.startswith("CANFrame(")]
    assert frames and frames[0].startswith("CANFrame(id=682, id_format=0, remote=0, data=[0, 0, 0, 0, 0, 0, 0,")
    assert "open CAN port 1: 0" in out and "close: 0" in out and "%d frames in 1 s" % len(frames) in out


def test_can_write_reaches_another_node(usb_unit):
    unit = usb_unit("TorvikUsbCan", firmware="model")
    out = run_example_here("CAN_write", "TorvikUsbCan", unit.serial)
    assert "write CANFrame(id=291, id_format=0, remote=0, data=[17, 34, 51, 0, 0, 0, 0, 0]): 0" in out
    assert unit.can_heard() == [(0x123, False, False, bytes([0x11, 0x22, 0x33, 0, 0, 0, 0, 0])),
                                (0xD5E6F78, True, False, bytes(range(1, 9))),
                                (0x7FF, False, True, bytes(8))]
    assert "counters: [3, 0, " in out
