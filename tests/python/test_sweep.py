"""No argument takes the interpreter down: every public callable of the module, every constructor and
every operation of every handle (unconnected, and connected to the emulator) is called with odd
values (None, text, bytes, floats, nan, bools, negative and huge ints, nested and empty lists,
tuples, dicts, objects whose protocols fail) in each argument position, the others holding values
that pass. Each call runs in a child process (sweep_calls.py) under faulthandler; a crash or a hang
is reported with the call that caused it and the sweep goes on behind it.

Every call must end in a value or a Python exception: never SystemError, never a text of the
binding library (a cast message naming C++ types), and when a library Error is raised, the unit's
traffic log must show that nothing was sent.

The default run samples values per position (a few seconds); `-m sweep_full` runs every value in
every position: unconnected on every class, connected on the first unit that has the function.
"""
import json
import os
import socket
import subprocess
import sys

import pytest

import pytorvik as t
from conftest import usb_host

WORKER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "sweep_calls.py")
NETWORK_UNITS = ["TorvikLanLogic", "TorvikLanRelay", "TorvikLanAnalog", "TorvikLanOutput", "TorvikAirAnalog",
                 "TorvikCore"]
USB_UNITS = ["TorvikUsbLogic", "TorvikUsbSink", "TorvikUsbAnalog", "TorvikUsbMixed", "TorvikUsbThermo", "TorvikUsbRtd",
             "TorvikUsbCan"]


def loopback_only():
    return [name for _, name in socket.if_nameindex()] == ["lo"]


def sweep(tmp_path, plan, limit):
    """Runs the calls of `plan` in child processes; returns (count, problems)."""
    results = tmp_path / "sweep.txt"
    results.write_text("")
    env = dict(os.environ, MALLOC_ARENA_MAX="2")  # the child's address space is bounded
    start, problems = 0, []
    while True:
        proc = subprocess.run([sys.executable, WORKER, json.dumps(plan), str(results), str(start)], cwd=str(tmp_path),
                              env=env, capture_output=True, text=True, timeout=limit)
        lines = results.read_text().splitlines()
        if lines and lines[-1] == "D":
            break
        started = [line for line in lines if line.startswith("S ")]
        finished = {line.split(" ", 2)[1] for line in lines if line.startswith("R ")}
        if not started or started[-1].split(" ", 2)[1] in finished:
            pytest.fail("sweep worker failed outside a call (exit %d): %s" % (proc.returncode, proc.stderr[-3000:]))
        _, index, desc = started[-1].split(" ", 2)
        how = "hung" if "Timeout" in proc.stderr else "crashed (exit %d)" % proc.returncode
        trace = tmp_path / ("call-%s.txt" % index)
        trace.write_text(proc.stderr)
        problems.append("%s %s (its trace is in %s):\n%s" % (desc, how, trace, proc.stderr[-1500:]))
        start = int(index) + 1
    count = int(lines[0].split()[1])
    for line in lines:
        if line.startswith("R "):
            r = json.loads(line.split(" ", 2)[2])
            if "problem" in r:
                problems.append("%s: %s" % (r["desc"], r["problem"]))
    return count, problems


@pytest.fixture
def full_only(request):
    if "sweep_full" not in (request.config.option.markexpr or ""):
        pytest.skip("the full argument sweep runs with -m sweep_full")


def connected_units(sim, usb_unit, classes_net, classes_usb):
    units = []
    if classes_net:
        s = sim(*classes_net)
        for u in s.units:
            units.append({"cls": u.cls, "addr": u.addr, "cmd_port": u.cmd_port, "data_port": u.data_port,
                          "serial": u.serial, "control": s.control_path})
    for cls in classes_usb:
        u = usb_unit(cls, firmware="model")
        units.append({"cls": cls, "addr": u.addr, "cmd_port": None, "data_port": None, "serial": u.serial,
                      "control": os.environ["TORVIK_SIM_CONTROL"]})
    return units


def usb_classes():
    try:
        usb_host()
    except pytest.skip.Exception:
        return []
    return USB_UNITS


def check(count, problems):
    assert count > 0
    assert not problems, "%d of %d calls went wrong:\n%s" % (len(problems), count, "\n".join(problems[:40]))


def test_unconnected_sweep(tmp_path):
    check(*sweep(tmp_path, {"mode": "unconnected", "full": False, "broadcast": loopback_only()}, 300))


def test_connected_sweep(tmp_path, sim, usb_unit):
    units = connected_units(sim, usb_unit, ["TorvikLanLogic", "TorvikAirAnalog", "TorvikLanOutput"],
                            usb_classes()[:1] + (["TorvikUsbCan", "TorvikUsbThermo"] if usb_classes() else []))
    check(*sweep(tmp_path, {"mode": "connected", "full": False, "broadcast": False, "units": units}, 300))


@pytest.mark.sweep_full
def test_full_unconnected_sweep(tmp_path, full_only):
    check(*sweep(tmp_path, {"mode": "unconnected", "full": True, "broadcast": loopback_only()}, 3600))


@pytest.mark.sweep_full
def test_full_connected_sweep(tmp_path, full_only, sim, usb_unit):
    units = connected_units(sim, usb_unit, NETWORK_UNITS, usb_classes())
    check(*sweep(tmp_path, {"mode": "connected", "full": True, "broadcast": False, "units": units}, 7200))
