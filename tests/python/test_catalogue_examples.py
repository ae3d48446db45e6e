"""Every example of the catalogue on every handle that the catalogue gives it, against the emulator:
USB products over the emulated USB bus, the others over the network."""
import os
import re
import socket
import subprocess
import sys

import pytest

import pytorvik as t
from devices import ProductUnits

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
USB = set(t.HANDLE_DICT["USB"])

# The catalogue points the thermocouple unit's SPI examples at port 1, which it does not have: the
# example shows the library's error.
EXPECTED_ERRORS = {("TorvikUsbThermo", "SPI_read_and_write"): "SPIPortNotAvaliableError",
                   ("TorvikUsbThermo", "SPI_write"): "SPIPortNotAvaliableError"}


def pairs():
    for handle, categories in t.CATEGORY_DICT.items():
        for category in categories:
            for example in t.EXAMPLE_DICT[category]:
                marks = [pytest.mark.slow] if handle == "DeviceFinder" else []
                yield pytest.param(handle, example, marks=marks, id="%s-%s" % (handle, example))


@pytest.fixture(scope="module")
def units():
    u = ProductUnits()
    yield u
    u.close()


def check_output(handle, example, out):
    """What each kind of example must show beyond a clean exit."""
    if example.startswith("DIO_loopback"):
        rows = re.findall(r"(?:wrote|<-) (\[[01, ]*\]) \| .* reads? (\[[01, ]*\])", out)
        assert rows and all(w == r for w, r in rows), out
    elif example.startswith("AIO_"):
        assert "match" in out and "MISMATCH" not in out, out
    elif example == "get_USB_info":
        assert t.HANDLE_PROPERTIES[handle]["connect"] in out, out


@pytest.mark.parametrize("handle,example", list(pairs()))
def test_example_on_handle(units, tmp_path, handle, example):
    if handle == "DeviceFinder" and [n for _, n in socket.if_nameindex()] != ["lo"]:
        pytest.skip("broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")
    if handle in USB and not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    path = os.path.join(EXAMPLES, example + ".py")
    assert os.path.isfile(path), "the catalogue names %s, which has no program" % example
    target = units.target(handle)
    argv = [sys.executable, path, handle] + ([target] if target else [])
    # In a directory of its own: the logger examples write their file where they run.
    env = dict(os.environ)
    if env.get("PYTHONPATH"):  # the example runs elsewhere: a relative path would point nowhere
        env["PYTHONPATH"] = os.pathsep.join(os.path.abspath(p) for p in env["PYTHONPATH"].split(os.pathsep))
    r = subprocess.run(argv, capture_output=True, text=True, timeout=60, cwd=tmp_path, env=env)
    error = EXPECTED_ERRORS.get((handle, example))
    if error:
        assert r.returncode == 1 and r.stderr.startswith(error + ": "), r.stdout + r.stderr
        return
    assert r.returncode == 0, r.stdout + r.stderr
    check_output(handle, example, r.stdout)
