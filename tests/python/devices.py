"""Compositions of a connection base with the request/reply layer, as handles are built.

A class whose name is a key of LABEL_DICT prints its label in the connect messages; Probe has no
label and is constructed with verbose=False. Beside them, the helpers the operation tables share.
"""
import asyncio
import threading

import pytest
from pytorvik import simctl

import pytorvik


class Probe(pytorvik.ETHDevice, pytorvik.Packet):
    pass


class TorvikLanLogic(pytorvik.ETHDevice, pytorvik.Packet):
    pass


class TorvikAirAnalog(pytorvik.WifiDevice, pytorvik.SystemModule, pytorvik.SystemAnalogModule, pytorvik.NetworkModule,
                      pytorvik.WifiModule):
    """The Wi-Fi unit's services, without its analog input."""


class DeviceFinder(pytorvik.BroadcastDevice, pytorvik.Packet):
    pass


class TorvikUsbSink(pytorvik.USBDevice, pytorvik.Packet):
    pass


class TorvikUsbLogic(pytorvik.USBDevice, pytorvik.Packet):
    pass


def receive_threads(dev):
    return [getattr(dev, n) for n in ("recv_cmd_thread", "recv_data_thread", "recv_udp_thread") if hasattr(dev, n)]


GATES = (("connect_status_cmd", "recv_cmd_lock"), ("connect_status_data", "recv_data_lock"),
         ("connect_status_udp", "recv_udp_lock"))


def force_end(dev, timeout=5.0):
    """Closes a device, or, if a test left it where close would block, ends its threads by force."""
    stuck = any(getattr(dev, status, False) and getattr(dev, gate).locked() for status, gate in GATES)
    if not dev.killed and not stuck:
        try:
            if getattr(dev, "connect_status_cmd", False) or getattr(dev, "connect_status_udp", False):
                dev.disconnect(verbose=False)  # close would disconnect verbosely
            dev.close(verbose=False)
        except (pytorvik.NetworkConnectionLostError, pytorvik.USBError):
            pass
    dev.killed = True
    for name in ("client_cmd", "client_data", "client_udp"):
        client = getattr(dev, name, None)
        if client is not None and getattr(client, "socket", 0) != 0:
            try:
                client.disconnect()  # wakes a reader that waits on it
            except pytorvik.Error:
                pass
    for name in ("recv_cmd_lock", "recv_data_lock", "recv_udp_lock"):
        gate = getattr(dev, name, None)
        if gate is not None and gate.locked():
            gate.release()
    for t in receive_threads(dev):
        t.join(timeout)
    alive = [t.name for t in receive_threads(dev) if t.is_alive()]
    assert not alive, "threads still running: %s" % alive


def thread_cpu_seconds(thread):
    """CPU time a thread has used so far (Linux)."""
    with open("/proc/self/task/%d/stat" % thread.native_id) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = int(fields[11]) + int(fields[12])
    import os
    return ticks / os.sysconf("SC_CLK_TCK")


assert threading  # re-exported for tests that wait on threads


def run(coro):
    return asyncio.run(coro)


def fresh(handles):
    """on(name) for a module's {name: (handle, unit)}: that pair, with the unit's faults and log cleared."""
    def pick(which):
        dev, unit = handles[which]
        unit.clear_faults()
        unit.clear_log()
        return dev, unit
    return pick


def check_operation(dev, unit, op, args, replies, result):
    """Scripts the unit's replies and runs the operation: its result, of the same type, or the error
    class it raises."""
    for code, reply in replies.items():
        unit.set_reply(code, bytes(reply))
    if isinstance(result, type):
        with pytest.raises(result):
            run(getattr(dev, op)(*args))
    else:
        got = run(getattr(dev, op)(*args))
        assert got == result and type(got) is type(result)


def check_refused(dev, unit, op, args, error, text=None):
    """The operation fails with `error`, a module error with its usual text (or `text`), and sends nothing."""
    with pytest.raises(error) as info:
        run(getattr(dev, op)(*args))
    if issubclass(error, pytorvik.Error):
        assert str(info.value) == str(error(text))
    assert unit.log() == []


class ProductUnits:
    """One emulated unit of a catalogue product, with its sample serial number on USB, kept while
    the tests of that handle run (tests are grouped by handle)."""

    def __init__(self):
        self.handle, self.sim, self.usb = None, None, None

    def target(self, handle):
        if handle != self.handle:
            self.close()
            self.handle = handle
            if handle == "DeviceFinder":
                return None
            if handle in pytorvik.HANDLE_DICT["USB"]:
                import collections
                from conftest import usb_host, wait_listed
                self.usb = usb_host().add_usb("%s:%s" % (handle, pytorvik.HANDLE_PROPERTIES[handle]["connect"]))
                wait_listed(collections.Counter([self.usb.serial]))
            else:
                self.sim = simctl.Sim(simctl.unit_spec(handle))
                self.sim.start()
        if self.usb:
            return self.usb.serial
        if self.sim:
            u = self.sim.unit
            if handle == "TorvikAirAnalog" and (u.cmd_port, u.data_port) != (pytorvik.TCP_CMD_PORT, pytorvik.TCP_DATA_PORT):
                pytest.skip("the Wi-Fi handle connects on the units' own ports, which only root can give the emulator")
            return "%s:%d" % (u.addr, u.cmd_port) if handle != "TorvikAirAnalog" else u.addr
        return None

    def close(self):
        if self.usb:
            self.usb.remove()
        if self.sim:
            self.sim.stop()
        self.handle, self.sim, self.usb = None, None, None

    @property
    def unit(self):
        return self.usb or (self.sim.unit if self.sim else None)

    def connected(self, handle):
        """A connected handle of the product (close it after use)."""
        target = self.target(handle)
        dev = getattr(pytorvik, handle)()
        if self.usb or handle == "TorvikAirAnalog":
            dev.connect(target)
        else:
            addr, port = target.split(":")
            dev.connect(addr, port=int(port))
        return dev
