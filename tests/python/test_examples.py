"""The example programs, run as a user runs them: under torvik-sim with emulated units."""
import os
import sys

import pytest

import simctl

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")


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
    assert out.count("driver info reply: [0]") == 2
