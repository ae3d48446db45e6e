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

import simctl  # noqa: E402


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
