"""The example programs, each run against the emulator as a user would run it."""
import os
import subprocess
import sys

import pytest

import simctl

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")


def run_example(name, unit_class, *expect):
    unit_arg = simctl.unit_spec(unit_class, cmd_port=17007)
    addr = unit_arg.split("@")[1].split(":")[0]
    r = simctl.run_with_command([unit_arg], [sys.executable, os.path.join(EXAMPLES, name + ".py"), "%s:17007" % addr], timeout=60)
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


# The bus examples run on a TorvikUsbLogic whose far ends the driver sets up through the control
# socket before the example starts, and looks at after it ended.
BUS_DRIVER = """
import os, runpy, sys
sys.path[:0] = [{examples!r}, {tests!r}]
import simctl
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
