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


def test_quickstart_runs_without_a_unit():
    r = subprocess.run([sys.executable, os.path.join(EXAMPLES, "quickstart.py")], capture_output=True, timeout=30)
    assert r.returncode == 0 and b"packet cmd=0xF0 data=[0]" in r.stdout
