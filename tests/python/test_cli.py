"""python -m pytorvik: find and info against the emulator, with their exit statuses."""
import socket
import sys

import pytest

from pytorvik import simctl

USB_SKIP = "torvik-sim was built without USB support (umockdev missing at build time)"


def cli(*args, units=(), usb=()):
    if usb and not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    r = simctl.run_with_command(list(units), [sys.executable, "-m", "pytorvik", *args], usb=list(usb), timeout=60)
    if r.returncode == 77 and b"without USB support" in r.stderr:
        pytest.skip(USB_SKIP)
    return r.returncode, r.stdout.decode(), r.stderr.decode()


def addr_of(unit_arg):
    return unit_arg.split("@")[1].split(":")[0]


def test_info_over_the_network_uses_the_units_own_handle():
    unit = simctl.unit_spec("TorvikLanRelay", cmd_port=17007)
    rc, out, err = cli("info", "%s:17007" % addr_of(unit), units=[unit])
    assert rc == 0, out + err
    lines = out.splitlines()
    assert "handle:        TorvikLanRelay" in lines and "driver info:   ['Torvik-LAN-Relay', '2.4.1', '2024-05-17']" in lines
    assert [line.split(":")[0] for line in lines if line.startswith("port ")] == ["port 0", "port 1"]
    assert lines[0] == "Opened handle (Torvik-LAN-Relay)"  # the probe's own lines are not shown


def test_info_over_usb():
    rc, out, err = cli("info", "21JA1312", usb=["TorvikUsbCan:21JA1312"])
    assert rc == 0, out + err
    assert "handle:        TorvikUsbCan" in out and "serial number: 21JA1312" in out and "port 3:        P3.0" in out


@pytest.mark.parametrize("target,usb,message", [
    ("127.0.0.1:1", [], "cannot reach 127.0.0.1:1: Error -8002"),
    ("99JA0000", ["TorvikUsbSink:21JA1298"], "cannot reach 99JA0000: no unit with serial number 99JA0000 on USB"),
])
def test_info_without_an_answer_fails_clearly(target, usb, message):
    rc, out, err = cli("info", target, usb=usb)
    assert rc == 1 and err.startswith(message), out + err


def test_find_usb_only_and_usage():
    rc, out, err = cli("find", "--usb-only", usb=["TorvikUsbThermo:21JA1239", "TorvikUsbSink:21JA1298"])
    assert rc == 0, out + err
    assert sorted(out.splitlines()[1:]) == ["USB   TorvikUsbSink    21JA1298            -    Torvik-USB-Sink",
                                            "USB   TorvikUsbThermo  21JA1239            -    Torvik-USB-Thermo"]
    assert cli("find", "--usb-only")[0:3:2] == (1, "No unit found on USB.\n")
    assert cli()[0] == 2


@pytest.mark.slow
def test_find_lists_network_and_usb_units():
    if [n for _, n in socket.if_nameindex()] != ["lo"]:
        pytest.skip("broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")
    units = [simctl.unit_spec("TorvikLanAnalog"), simctl.unit_spec("TorvikLanLogic")]
    rc, out, err = cli("find", units=units, usb=["TorvikUsbMixed"])
    assert rc == 0, out + err
    rows = [line.split() for line in out.splitlines()[1:]]
    assert rows[0] == ["USB", "TorvikUsbMixed", "21JA1439", "-", "Torvik-USB-Mixed"]
    assert sorted((r[1], r[2]) for r in rows[1:]) == sorted(
        [("TorvikLanAnalog", addr_of(units[0])), ("TorvikLanLogic", addr_of(units[1]))])
    assert all(len(r[3]) == 17 for r in rows[1:])
