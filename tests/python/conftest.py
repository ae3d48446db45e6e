import pytest


# ---- torvik-sim: the unit emulator ------------------------------------------------------------
# sim:           a factory; sim("TorvikCore", "TorvikAirAnalog,serial=AA1") starts one emulator
#                with those units, each on a fresh loopback address (a full unit argument with "@" is taken
#                as it is), and returns a simctl.Sim; every emulator started is stopped at
#                teardown, and one that did not end cleanly fails the test. Keyword options go
#                to simctl.Sim (control=PATH, binary=PATH, start_timeout=S).
# loopback_addr: a loopback address of this test's own.
# Ports are the units' defaults (7, 1336) when root, else chosen free by the system: connect
# with dev.connect(u.addr, port=u.cmd_port).

from pytorvik import simctl  # noqa: E402


@pytest.fixture
def loopback_addr():
    return simctl.loopback_addr()


@pytest.fixture
def sim():
    started = []

    def start(*units, **options):
        for attempt in range(3):
            specs = [u if "@" in u else _placed(u) for u in units]
            s = simctl.Sim(*specs, **options)
            try:
                s.start()
            except simctl.SimError as e:
                # Someone else's listener on a default port of an address we chose: choose again.
                if "in use" in str(e) and attempt < 2 and any("@" not in u for u in units):
                    continue
                raise
            started.append(s)
            return s

    yield start
    errors = []
    for s in started:
        try:
            s.stop()
        except simctl.SimError as e:
            errors.append(str(e))
    if errors:
        pytest.fail("; ".join(errors))


def _placed(unit):
    cls, _, serial = unit.partition(",serial=")
    return simctl.unit_spec(cls, serial=serial or None)


# usb_unit:      a factory; usb_unit("TorvikUsbSink", serial=None, product=None, transfer=None,
#                firmware="echo"|"model")
#                plugs a USB unit into the emulated bus this pytest runs on (a fresh serial
#                number unless given) and returns its simctl.Unit once this process's libusb
#                lists it; the units are removed again at teardown. The tests that use it skip
#                unless pytest runs under `torvik-sim --usb-host` (tools/run-tests.sh does that).

import itertools  # noqa: E402
import os  # noqa: E402
import sys  # noqa: E402
import time  # noqa: E402

_usb_serials = itertools.count(1)
_usb_host = []


def usb_host():
    """The emulator whose USB bus this process sees, or a skip saying why there is none."""
    if not sys.platform.startswith("linux"):
        pytest.skip("USB units are emulated with umockdev, which runs on Linux only")
    if os.environ.get("TORVIK_SIM_USB") != "1" or not os.environ.get("TORVIK_SIM_CONTROL"):
        pytest.skip("USB tests need pytest to run on the emulated USB bus: "
                    "torvik-sim --usb-host -- python -m pytest ... (tools/run-tests.sh does this; "
                    "and umockdev installed: apt-get install umockdev)")
    if not _usb_host:
        _usb_host.append(simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"]))
    return _usb_host[0]


def pytest_sessionfinish(session, exitstatus):
    # Lets go of the control connection; the emulator itself runs on (it is pytest's parent).
    for sim in _usb_host:
        sim.stop()


def listed_serials():
    """Serial numbers this process's libusb lists now, in enumeration order."""
    import pytorvik
    for _ in range(100):
        try:
            return [serial for serial, _product in pytorvik.Packet()._getAllUSBDevices()]
        except pytorvik.USBError:  # a unit went away between listing and opening it
            time.sleep(0.01)
    raise AssertionError("USB listing keeps failing")


def wait_listed(expected, timeout=3.0):
    """Until listed_serials() holds each serial of `expected` (a Counter) that many times."""
    import collections
    deadline = time.monotonic() + timeout
    while True:
        have = collections.Counter(listed_serials())
        if all(have[s] == n for s, n in expected.items()):
            return
        if time.monotonic() > deadline:
            raise AssertionError("USB units not listed as %s within %.3g s: %s" % (dict(expected), timeout, dict(have)))
        time.sleep(0.005)


@pytest.fixture
def usb_unit():
    import collections
    host = usb_host()
    added = []

    def add(cls="TorvikUsbSink", serial=None, product=None, transfer=None, firmware="echo"):
        serial = serial or "T%d-%d" % (os.getpid() % 10000, next(_usb_serials))
        arg = "%s:%s" % (cls, serial) + (",product=" + product if product else "") + (
            ",transfer=" + transfer if transfer else "")
        unit = host.add_usb(arg)
        added.append(unit)
        unit.use_firmware(firmware)  # the transport tests want plain [port, 0] answers
        wait_listed(collections.Counter(u.serial for u in added))
        return unit

    yield add
    for unit in added:
        unit.remove()
    wait_listed(collections.Counter({u.serial: 0 for u in added}))
# ---- end of torvik-sim ------------------------------------------------------------------------


# ---- handles ----------------------------------------------------------------------------------
# make_dev: a factory; make_dev(devices.Probe) builds a handle (verbose=False unless given) and
# closes it at teardown, or, when a test left it stuck, ends its threads by force.

import devices  # noqa: E402


@pytest.fixture
def make_dev():
    made = []

    def make(cls, **kwargs):
        kwargs.setdefault("verbose", False)
        dev = cls(**kwargs)
        made.append(dev)
        return dev

    yield make
    for dev in made:
        devices.force_end(dev)
