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


def run_usb_example(name, serial):
    """Runs an example as a child of this test, on the emulated USB bus this test process sees."""
    r = subprocess.run([sys.executable, os.path.join(EXAMPLES, name + ".py"), serial], capture_output=True, timeout=60)
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    return out


def test_can_read_prints_what_the_bus_sends(usb_unit):
    unit = usb_unit("TorvikUsbCan", firmware="model")
    unit.can_stream(rate=100, id_=0x2AA)
    try:
        out = run_usb_example("CAN_read", unit.serial)
    finally:
        unit.can_stream_off()
    frames = [line for line in out.splitlines() if line.startswith("CANFrame(")]
    assert frames and frames[0].startswith("CANFrame(id=682, id_format=0, remote=0, data=[0, 0, 0, 0, 0, 0, 0,")
    assert "open CAN port 1: 0" in out and "close: 0" in out and "%d frames in 2 s" % len(frames) in out


def test_can_write_reaches_another_node(usb_unit):
    unit = usb_unit("TorvikUsbCan", firmware="model")
    out = run_usb_example("CAN_write", unit.serial)
    assert "write CANFrame(id=291, id_format=0, remote=0, data=[17, 34, 51, 0, 0, 0, 0, 0]): 0" in out
    assert unit.can_heard() == [(0x123, False, False, bytes([0x11, 0x22, 0x33, 0, 0, 0, 0, 0])),
                                (0xD5E6F78, True, False, bytes(range(1, 9))),
                                (0x7FF, False, True, bytes(8))]
    assert "counters: [3, 0, " in out
