"""Drives torvik-sim, the unit emulator, from tests and scripts.

    from pytorvik.simctl import Sim

    with Sim("TorvikCore@127.1.2.3:0") as sim:
        u = sim.unit                      # the first unit; sim.units has them all
        u.set_reply(GET_DRIVER_INFO, b"\\x00\\x00\\x01")
        dev.connect(u.addr, port=u.cmd_port)
        u.wait_connected()
        u.drop(1); u.status(3, count=1); u.delay(0.2, count=1)
        assert [f.code for f in u.log()] == [...]

Unit specs are those of the command line: ``CLASS@ADDR[:CMDPORT[:DATAPORT]][,serial=SERIAL]``; port 0
lets the system choose, and ``Unit.cmd_port`` / ``Unit.data_port`` tell what it chose. USB units
(``Sim(usb=["TorvikUsbSink:SERIAL"])``, or added to a running bus with ``Sim.add_usb``) have
``addr`` "usb:N" and no ports; ``Sim.attach()`` drives the emulator this process runs under.

Processes started here never inherit the USB emulation of this process (LD_PRELOAD, UMOCKDEV_DIR):
an emulator started under another one's preload would see the other's testbed.

The binary is ``$TORVIK_SIM_BIN`` if set, else ``torvik-sim`` beside the running interpreter (the
installed package puts it there), else ``torvik-sim`` on PATH.

Every method of ``Unit`` is one request on the emulator's control socket (its protocol is
documented at the top of sim/control/channel.hpp); a refused request raises ``SimError``.
"""

import itertools
import json
import os
import selectors
import shutil
import signal
import socket
import subprocess
import sys
import sysconfig
import tempfile
import threading
import time
from typing import List, NamedTuple, Optional

__all__ = ["Sim", "Unit", "Frame", "SimError", "sim_binary", "loopback_addr", "unit_spec", "run_with_command",
           "clean_env"]

# Products with a second (data) connection; the emulator knows them from the product table.
WIFI_CLASSES = {"TorvikAirAnalog"}


class SimError(RuntimeError):
    """The emulator refused a request, did not start, or ended badly."""


class Frame(NamedTuple):
    """One frame the unit received, as its traffic log records it."""

    code: int
    payload: bytes
    conn: str    # "cmd" or "data"
    link: int    # 1 for the first connection ever made on that channel, 2 for the next, ...
    t: float     # seconds since the emulator started


def sim_binary():
    """Path of the torvik-sim to run."""
    explicit = os.environ.get("TORVIK_SIM_BIN")
    if explicit:
        return explicit
    beside = os.path.join(sysconfig.get_path("scripts"), "torvik-sim")
    if os.access(beside, os.X_OK):
        return beside
    found = shutil.which("torvik-sim")
    if found:
        return found
    raise SimError("torvik-sim not found: install the package or set TORVIK_SIM_BIN")


# Addresses are handed out from a block of 127.0.0.0/8 chosen by the process id, so that test runs
# going on at the same time on one machine (and xdist workers) rarely meet; a probe skips any
# address whose default unit ports are taken anyway.
_addr_lock = threading.Lock()
_addr_counter = itertools.count(0)


def _port_free(addr, port):
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        s.bind((addr, port))
        return True
    except OSError:
        return False
    finally:
        s.close()


def loopback_addr():
    """A loopback address (127.x.y.z, never 127.0.0.1) that no other call of this process gave."""
    block = 1 + os.getpid() % 250
    with _addr_lock:
        while True:
            n = next(_addr_counter)
            if n >= 254 * 254:
                raise SimError("loopback addresses used up")
            addr = "127.%d.%d.%d" % (block, 1 + n // 254, 1 + n % 254)
            if os.geteuid() != 0 or (_port_free(addr, 7) and _port_free(addr, 1336)):
                return addr


def unit_spec(cls, addr=None, cmd_port=None, data_port=None, serial=None):
    """A --unit argument. Ports left out are 7/1336 when root, else 0 (the system picks free ones)."""
    addr = addr or loopback_addr()
    default = None if os.geteuid() == 0 else 0
    cmd_port = default if cmd_port is None else cmd_port
    data_port = default if data_port is None else data_port
    unit_arg = "%s@%s" % (cls, addr)
    if cmd_port is not None or data_port is not None:
        unit_arg += ":%d" % (7 if cmd_port is None else cmd_port)
        if data_port is not None and cls.split(",")[0] in WIFI_CLASSES:
            unit_arg += ":%d" % data_port
    if serial:
        unit_arg += ",serial=" + serial
    return unit_arg


def clean_env():
    """This process's environment without the USB emulation it may run under."""
    env = dict(os.environ)
    preload = [p for p in env.pop("LD_PRELOAD", "").replace(" ", ":").split(":")
               if p and "libumockdev-preload" not in p]
    if preload:
        env["LD_PRELOAD"] = ":".join(preload)
    for name in ("UMOCKDEV_DIR", "TORVIK_SIM_CONTROL", "TORVIK_SIM_UNITS", "TORVIK_SIM_USB"):
        env.pop(name, None)
    return env


def _code(code):
    return str(int(code))


def _hex(data):
    data = bytes(data)
    return data.hex() if data else "-"


class Unit:
    """One emulated unit of a running Sim, and the control requests that act on it."""

    def __init__(self, sim: "Sim", line: str) -> None:
        # "<class> <addr> cmd=<port> data=<port or -> serial=<serial>", and for USB units
        # "<class> usb:<n> cmd=- data=- serial=<serial> product=<product string>"
        line, _, product = line.partition(" product=")
        cls, addr, *fields = line.split()
        kv = dict(f.split("=", 1) for f in fields)
        self.sim = sim
        self.cls: str = cls
        self.addr: str = addr
        self.cmd_port: Optional[int] = None if kv["cmd"] == "-" else int(kv["cmd"])
        self.data_port: Optional[int] = None if kv["data"] == "-" else int(kv["data"])
        self.serial: str = kv["serial"]
        self.product = product or None

    def __repr__(self):
        return "<Unit %s %s serial=%s>" % (self.cls, self._sel, self.serial)

    @property
    def _sel(self):
        return self.addr if self.cmd_port is None else "%s:%d" % (self.addr, self.cmd_port)

    def _do(self, verb, *args, timeout=None):
        return self.sim.request(" ".join([verb, self._sel] + [str(a) for a in args]), timeout=timeout)

    # Replies ------------------------------------------------------------------------------------
    def set_reply(self, code, payload):
        """Answer `code` with `payload` (bytes or list of ints), or not at all if payload is None."""
        self._do("reply", _code(code), "none" if payload is None else _hex(payload))

    def no_reply(self, code):
        """Do not answer `code`."""
        self.set_reply(code, None)

    def default_reply(self, code):
        """Let the firmware answer `code` again."""
        self._do("reply", _code(code), "default")

    def status(self, value, *, count=None, code=None):
        """Put firmware status `value` at reply index 1: of the next `count` replies, or of every
        reply to `code`."""
        if (count is None) == (code is None):
            raise ValueError("give count or code")
        self._do("status", int(value), "next=%d" % count if count is not None else "code=" + _code(code))

    def clear_status(self):
        self._do("status", "clear")

    # Faults -------------------------------------------------------------------------------------
    def delay(self, seconds, count=None):
        """Hold the next `count` replies back by `seconds`; without count, every reply (0: off).
        Replies keep their order: a held reply holds back the ones behind it."""
        args = ["%.6f" % seconds] + (["next=%d" % count] if count is not None else [])
        self._do("delay", *args)

    def drop(self, count=1):
        """Drop the next `count` replies."""
        self._do("drop", int(count))

    def duplicate(self, count=1):
        """Send each of the next `count` replies twice."""
        self._do("dup", int(count))

    def silent(self):
        """Hear requests (they are logged) but neither act on them nor answer; connections stay."""
        self._do("silent")

    def resume(self):
        self._do("resume")

    def clear_faults(self):
        """Every fault and scripted reply off (a stalled stream resumes, a pending burst is
        dropped); the log stays."""
        self._do("clear")

    # Unsolicited bytes --------------------------------------------------------------------------
    def send_raw(self, data, conn="cmd"):
        """Write `data` now on the newest connection of `conn` ("cmd" or "data")."""
        self._do("send", conn, _hex(data))

    def send_frame(self, code, payload=b"", conn="cmd"):
        """Write one well-formed unit frame now (the unit's length rule: code bytes + payload)."""
        self._do("frame", conn, _code(code), _hex(payload))

    # Connections --------------------------------------------------------------------------------
    def shutdown(self, conn="cmd"):
        """FIN on every connection of `conn` ("cmd", "data" or "both"); the host then reads EOF,
        and the unit keeps reading until the host closes."""
        self._do("shutdown", conn)

    def reset(self, conn="cmd"):
        """RST on every connection of `conn` ("cmd", "data" or "both")."""
        self._do("reset", conn)

    def stats(self):
        """Counters as a dict: cmd.accepted, cmd.open, data.accepted, data.open, frames, replies,
        dropped, lost, junk, and of the analog input stream stream.frames, stream.payloads,
        stream.nudges, stream.unclean (all ints)."""
        fields = self._do("stats").split()
        return {k: int(v) for k, v in (f.split("=", 1) for f in fields)}

    def connections(self, conn="cmd"):
        """(accepted in all, open now) for `conn`."""
        s = self.stats()
        return s[conn + ".accepted"], s[conn + ".open"]

    def _wait(self, timeout, *args):
        try:
            self._do("wait", *args, "timeout=%.3f" % timeout, timeout=timeout + 5)
        except SimError as e:
            if str(e) == "timeout":
                raise TimeoutError("%s: wait %s: not within %.3g s" % (self, " ".join(map(str, args)), timeout))
            raise

    def wait_connected(self, conn="cmd", timeout=5.0):
        """Until a connection of `conn` is open; TimeoutError otherwise."""
        self._wait(timeout, "open", conn)

    def wait_disconnected(self, conn="cmd", timeout=5.0):
        """Until no connection of `conn` is open (the host closed, or the unit reset it)."""
        self._wait(timeout, "closed", conn)

    def wait_accepted(self, count, conn="cmd", timeout=5.0):
        """Until `count` connections of `conn` have been accepted in all."""
        self._wait(timeout, "accepted", int(count), conn)

    def wait_frames(self, count, code=None, timeout=5.0):
        """Until the log holds `count` frames (of `code`); returns those frames."""
        args = ["frames", int(count)] + (["code=" + _code(code)] if code is not None else [])
        self._wait(timeout, *args)
        return self.log(code)

    # USB units ----------------------------------------------------------------------------------
    def unplug(self):
        """Takes the unit off the bus: the host's pending and later transfers fail."""
        self._do("unplug")

    def replug(self):
        """Puts the unit back on the bus, at a new address."""
        self._do("replug")

    def remove(self):
        """Unplugs the unit and forgets it."""
        self._do("remove")

    def transfers(self):
        """The host's OUT transfers as the unit received them, oldest first (bytes each)."""
        return [bytes.fromhex(h) for h in self._do("transfers").split()]

    # Traffic log --------------------------------------------------------------------------------
    def log(self, code=None):
        """Frames received, oldest first (only those of `code` if given)."""
        records = json.loads(self._do("log"))
        frames = [Frame(r["code"], bytes.fromhex(r["data"]), r["conn"], r["link"], r["t"]) for r in records]
        return [f for f in frames if code is None or f.code == code]

    def clear_log(self):
        self._do("clearlog")

    # Firmware model -----------------------------------------------------------------------------
    def use_firmware(self, kind, product=None):
        """"model": the product's firmware, started afresh (the default), or with `product` another
        product's (a USB product's on a network unit, say); "echo": every code is answered
        [port, 0], for tests of framing and faults."""
        self._do("firmware", kind, *([product] if product else []))

    def pin_modes(self, port):
        """Mode names of the pins of hardware port `port`, as the unit reports them."""
        return self._do("pinmode", int(port)).split()

    def set_pin_mode(self, port, pin, mode):
        """Give a pin a mode (name or number): "DI"/"DO" open it for digital I/O, "Idle" frees it,
        any other mode lets that function hold it."""
        self._do("pinmode", "%d.%d" % (port, pin), mode)

    def wiring(self):
        """The loopback wires, as [((port, pin), (port, pin)), ...], lower pin first."""
        def pin(text):
            port, n = text.split(".")
            return int(port), int(n)
        return [tuple(pin(end) for end in w.split("-")) for w in self._do("wiring").split()]

    def wire(self, *wires):
        """Join pins: wire(((0, 0), (1, 0)), ((0, 1), (1, 1))). A pin has one wire; its old one goes."""
        self._do("wiring", "add", *["%d.%d-%d.%d" % (a + b) for a, b in wires])

    def clear_wiring(self):
        self._do("wiring", "clear")

    def default_wiring(self):
        self._do("wiring", "default")

    def set_levels(self, port, value, mask=0xFFFF):
        """Levels on the input pins of digital port `port` (bit n pin n) where no wire drives them."""
        self._do("levels", int(port), int(value), "mask=%d" % mask)

    def dio_registers(self, port):
        """The digital registers of `port` as a dict of ints: enabled, direction, state, driven,
        levels, start.enabled, start.direction, start.state."""
        fields = self._do("dio", int(port)).split()
        return {k: int(v, 16) for k, v in (f.split("=", 1) for f in fields)}

    def clock(self):
        """(clock text "YYYY-MM-DDTHH:MM:SS", running)."""
        text, mode = self._do("clock").split()
        return text, mode == "run"

    def set_clock(self, when, run=True):
        """Set the clock to `when` (a datetime or "YYYY-MM-DDTHH:MM:SS"); run=False holds it there."""
        if not isinstance(when, str):
            when = when.strftime("%Y-%m-%dT%H:%M:%S")
        self._do("clock", when, "run" if run else "hold")

    def set_sensors(self, rssi=None, battery=None, thermo=None, accel=None):
        """Set on-board sensor readings of a Wi-Fi unit (thermo in 1/128 degrees C, accel three
        ints); returns all readings as a dict."""
        args = ["%s=%d" % (k, v) for k, v in (("rssi", rssi), ("battery", battery), ("thermo", thermo)) if v is not None]
        if accel is not None:
            args.append("accel=%d,%d,%d" % tuple(accel))
        fields = dict(f.split("=", 1) for f in self._do("sensors", *args).split())
        return {k: tuple(map(int, v.split(","))) if k == "accel" else int(v) for k, v in fields.items()}

    # Analog input and output --------------------------------------------------------------------
    def waveforms(self):
        """Each input channel's waveform in its text form, e.g. ["counter from=0", "sine 5 0 40", ...]."""
        return [item.split(":", 1)[1] for item in self._do("wave").split(";")]

    def set_waveform(self, channel, kind, *args):
        """What input channel `channel` measures: set_waveform(0, "counter"), ("sine", A, O, P),
        ("ramp", LOW, HIGH, P), ("const", V), ("raw", COUNTS), ("ao", K). P in samples, or seconds
        as a string "0.5s"; volts in V. See sim/firmware/waveform.hpp."""
        self._do("wave", int(channel), kind, *args)

    def default_waveforms(self):
        """Channel 0 a counter, channel k a sine of period 20 * 2**k samples (or, on a unit with
        analog outputs, channel k reads output channel k)."""
        self._do("wave", "default")

    def wire_output(self, ai_channel, ao_channel):
        """Input channel `ai_channel` reads what output channel `ao_channel` of the same unit puts out."""
        self.set_waveform(ai_channel, "ao", int(ao_channel))

    def set_pace(self, pace, frames=None):
        """"realtime" (at the configured rate) or "fast" (as fast as the link takes it); `frames`
        per payload (default 600)."""
        self._do("pace", pace, *(["frames=%d" % frames] if frames else []))

    def burst(self, frames):
        """Send `frames` more stream frames as fast as the link takes them, whatever the rate."""
        self._do("burst", int(frames))

    def bad_length(self, extra=1):
        """Send one stream payload of one frame and `extra` bytes more: no whole number of frames."""
        self._do("badlength", int(extra))

    def stall(self, on=True):
        """Stop (or, on=False, resume) sending the stream; the acquisition runs on into the unit's
        buffer, which overflows after 8192 frames (see ai_state and CHECK_BUFFER_STATUS)."""
        self._do("stall", "on" if on else "off")

    def guard(self, on=True):
        """Nudge samples that would make the host see a false frame (the default), or not."""
        self._do("guard", "on" if on else "off")

    def ai_state(self):
        """The analog input as a dict: open, mode, rate (float), samples, running, port, code, conn
        (str), index (frames taken), buffered, lost, empty, full, max, pace (str), frames, stall,
        guard, burst."""
        out = {}
        for k, v in (f.split("=", 1) for f in self._do("ai").split()):
            out[k] = v if k in ("conn", "pace") else float(v) if k == "rate" else int(v)
        return out

    def ao_state(self):
        """The analog output as a dict: open, running, mode, samples, enabled (ints), rate (float),
        values, amplitudes, offsets, periods (8 floats each; values as put out now), forms (8 ints)."""
        out = {}
        for k, v in (f.split("=", 1) for f in self._do("ao").split()):
            if k in ("values", "amplitudes", "offsets", "periods"):
                out[k] = [float(x) for x in v.split(",")]
            elif k == "forms":
                out[k] = [int(x) for x in v.split(",")]
            else:
                out[k] = float(v) if k == "rate" else int(v, 0)
        return out

    # CAN (a unit with a CAN port; its bus has a tester node that sends and listens) --------------
    def can_state(self):
        """The CAN controller, its sender and its bus's tester as a dict: ints, except bus and
        stream (str), counters (the six counters), filters and masks (identifier words)."""
        out = {}
        for k, v in (f.split("=", 1) for f in self._do("can").split()):
            if k in ("bus", "stream"):
                out[k] = v
            elif k == "counters":
                out[k] = [int(x) for x in v.split(",")]
            elif k in ("filters", "masks"):
                out[k] = [int(x, 16) for x in v.split(",")]
            else:
                out[k] = int(v)
        return out

    def can_bus(self, name=None):
        """Put the unit on the CAN bus `name`, shared with every unit that names it (None: a bus of
        its own)."""
        self._do("can", "bus", name or "own")

    def can_send(self, id_, data=b"", ext=False, remote=False):
        """The tester sends one frame on the unit's bus."""
        self._do("can", "send", hex(id_), _hex(data), *(["ext"] if ext else []), *(["remote"] if remote else []))

    def can_stream(self, rate: Optional[float] = None, id_: int = 0x100, ext: bool = False, remote: bool = False,
                   count: Optional[int] = None) -> None:
        """The tester streams frames carrying their sequence numbers: `rate` a second, or as fast
        as the receiving links take them (rate None); `count` frames, or without end."""
        args = ["fast" if rate is None else "rate=%g" % rate, "id=%s" % hex(id_)]
        args += (["ext"] if ext else []) + (["remote"] if remote else []) + (["count=%d" % count] if count else [])
        self._do("can", "stream", *args)

    def can_stream_off(self):
        self._do("can", "stream", "off")

    def can_heard(self, clear=False):
        """Frames the tester heard, oldest first, as (id, ext, remote, data bytes); clear=True
        forgets them instead."""
        if clear:
            self._do("can", "heard", "clear")
            return None
        out = []
        for f in self._do("can", "heard").split():
            id_, fmt, kind, data = f.split(":")
            out.append((int(id_, 16), fmt == "ext", kind == "remote", bytes.fromhex(data)))
        return out

    def can_frames(self, frames):
        """At most `frames` CAN frames a stream payload (default 600)."""
        self._do("can", "frames", int(frames))

    def can_burst(self, frames):
        """`frames` more stream frames to this unit's host as fast as the link takes them."""
        self._do("can", "burst", int(frames))

    def can_bad_length(self, extra=1):
        """One stream payload of one frame and `extra` bytes more."""
        self._do("can", "badlength", int(extra))
    # Discovery ----------------------------------------------------------------------------------
    def discovery(self, copies=None):
        """{"copies": N, "heard": N}: how many times the unit answers each discovery broadcast
        (`copies` sets it; 0: not at all) and how many it heard."""
        fields = self._do("discovery", *(["copies=%d" % copies] if copies is not None else [])).split()
        return {k: int(v) for k, v in (f.split("=", 1) for f in fields)}

    def refresh(self):
        """Reads the unit's address and ports again (a unit told by discovery to take another
        address has moved); the unit is found by its serial number."""
        for line in self.sim.request("units").split(";"):
            other = Unit(self.sim, line)
            if other.serial == self.serial:
                self.addr, self.cmd_port, self.data_port = other.addr, other.cmd_port, other.data_port
                return self
        raise SimError("unit %s is gone" % self.serial)

    # Temperature and relays ---------------------------------------------------------------------
    def thermal(self, port, channel, temp=None, drift=None, junction=None, open=None, faults=None):
        """What channel `channel` of thermal port `port` senses, as a dict (temp, drift, now,
        junction, written_junction, offset, saved_offset as floats; junction_on, filter,
        oversampling, type, open, faults, port_open as ints); the given values are set first
        (temp and junction in degrees C, drift the amplitude of the slow swing, open an open
        circuit, faults further fault register bits)."""
        args = ["%s=%s" % (k, v if isinstance(v, float) else int(v))
                for k, v in (("temp", temp), ("drift", drift), ("junction", junction), ("open", open), ("faults", faults))
                if v is not None]
        fields = dict(f.split("=", 1) for f in self._do("thermal", int(port), int(channel), *args).split())
        floats = ("temp", "drift", "now", "junction", "written_junction", "offset", "saved_offset")
        return {k: float(v) if k in floats else int(v, 0) for k, v in fields.items()}

    def relay_counters(self, counts=None):
        """Each relay's switching count; `counts` (one a relay) sets them first."""
        return [int(c) for c in self._do("relays", *(counts or [])).split()]

    # Serial buses --------------------------------------------------------------------------------
    def uart_state(self, port):
        """Serial port `port` as a dict of ints (stream, loopback as str): open, reading, baud,
        data, parity, stop, loopback, silent, stream ("off", "max" or the rate), line (bytes on the
        wire), buffered, burst, written, received, sent, payloads, lost, ignored, shortened."""
        fields = dict(f.split("=", 1) for f in self._do("uart", int(port)).split())
        return {k: v if k in ("loopback", "stream") else int(v) for k, v in fields.items()}

    def uart_loopback(self, port: int, mode: str = "paced") -> None:
        """What the port writes comes back: "paced" (at the baud rate), "fast" (at once) or "off"."""
        self._do("uart", int(port), "loopback", mode)

    def uart_send(self, port: int, data: bytes) -> None:
        """The far end of the port sends `data`, at the baud rate."""
        self._do("uart", int(port), "send", _hex(data))

    def uart_stream(self, port, rate="max", count=None):
        """The far end sends the count 0, 1, .. 255, 0, ..: `rate` bytes a second, or "max" as fast
        as the link takes them, `count` bytes (None: no end); rate "off" stops it."""
        self._do("uart", int(port), "stream", str(rate), *(["bytes=%d" % count] if count is not None else []))

    def uart_burst(self, port, count):
        """`count` bytes of the count at once, as fast as the link takes them, whatever the baud rate."""
        self._do("uart", int(port), "burst", int(count))

    def uart_silent(self, port, on=True):
        """The far end stops sending (loopback included), or speaks again."""
        self._do("uart", int(port), "silent", "on" if on else "off")

    def i2c_state(self, port):
        """I2C port `port` as a dict of ints: open, frequency, addrsize, eeprom (its address),
        size, page, pointer, silent, nacks."""
        return {k: int(v, 0) for k, v in (f.split("=", 1) for f in self._do("i2c", int(port)).split())}

    def i2c_eeprom(self, port, address, size=None, page=None):
        """A fresh EEPROM (all 0xFF) at 7-bit `address` on the port (default 0x50, 256 bytes, pages
        of 16)."""
        opts = ["%s=%d" % (k, v) for k, v in (("size", size), ("page", page)) if v is not None]
        self._do("i2c", int(port), "eeprom", int(address), *opts)

    def i2c_silent(self, port, on=True):
        """The EEPROM stops acknowledging (NACK, status 5), or answers again."""
        self._do("i2c", int(port), "silent", "on" if on else "off")

    def i2c_memory(self, port, start, count):
        """`count` bytes of the EEPROM from `start`."""
        text = self._do("i2c", int(port), "memory", int(start), int(count))
        return b"" if text == "-" else bytes.fromhex(text)

    def spi_state(self, port):
        """SPI port `port` as a dict: device ("loopback" or "pattern:HEX") and mosi (bytes of the
        last transfer) as they are, the rest ints: open, silent, transfers, datasize, firstbit,
        prescaler, cpol, cpha."""
        out = {}
        for k, v in (f.split("=", 1) for f in self._do("spi", int(port)).split()):
            out[k] = v if k == "device" else (b"" if v == "-" else bytes.fromhex(v)) if k == "mosi" else int(v)
        return out

    def spi_device(self, port, pattern=None):
        """The device on the port: a loopback (MISO echoes MOSI), or one answering `pattern`."""
        self._do("spi", int(port), *(["pattern", _hex(pattern)] if pattern else ["loopback"]))

    def spi_silent(self, port, on=True):
        """The device stops answering: MISO reads 0xFF."""
        self._do("spi", int(port), "silent", "on" if on else "off")


class Sim:
    """A running torvik-sim. Start with start() or `with`; stop() ends it and reaps it.

    Sim(*units, usb=(), control=None, binary=None): `units` are --unit specs (see unit_spec()), `usb`
    --usb specs (CLASS:SERIAL[,product=TEXT][,transfer=bulk|interrupt][,canbus=NAME]).
    """

    units: List[Unit]

    def __init__(self, *units, usb=(), control=None, binary=None, start_timeout=10.0):
        if not units and not usb:
            raise ValueError("no units")
        self.specs = list(units)
        self.usb_specs = list(usb)
        self.binary = binary or sim_binary()
        self.start_timeout = start_timeout
        self.control_path = control
        self.proc = None
        self.units = []
        self.returncode = None
        self._stderr = None
        self._ctl = None
        self._ctl_file = None
        self._lock = threading.Lock()

    @classmethod
    def attach(cls, control_path: str) -> "Sim":
        """A Sim for an emulator that runs already (this process's own, for instance); stop()
        leaves it running."""
        sim = cls.__new__(cls)
        sim.specs, sim.usb_specs, sim.binary, sim.proc, sim.units = [], [], None, None, []
        sim.control_path, sim.returncode, sim._stderr = control_path, None, None
        sim._ctl = sim._ctl_file = None
        sim._lock = threading.Lock()
        sim.units = [Unit(sim, u) for u in sim.request("units").split(";") if u]
        return sim

    def add_usb(self, usb_spec):
        """Plugs a new USB unit into the running bus; returns its Unit."""
        unit = Unit(self, self.request("add usb " + usb_spec))
        self.units.append(unit)
        return unit

    @property
    def unit(self):
        return self.units[0]

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        argv = [self.binary]
        for unit_arg in self.specs:
            argv += ["--unit", unit_arg]
        for usb_spec in self.usb_specs:
            argv += ["--usb", usb_spec]
        if self.control_path:
            argv += ["--control", self.control_path]
        self._stderr = tempfile.TemporaryFile()
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self._stderr,
                                     env=clean_env())
        try:
            lines = self._read_ready()
        except BaseException:
            self.stop(check=False)
            raise
        self.control_path = lines[1].split(" ", 1)[1]
        self.units = [Unit(self, line.split(" ", 1)[1]) for line in lines[2:]]
        return self

    def _read_ready(self):
        want = 2 + len(self.specs) + len(self.usb_specs)  # ready, control, one line a unit
        buf = b""
        deadline = time.monotonic() + self.start_timeout
        fd = self.proc.stdout.fileno()
        with selectors.DefaultSelector() as sel:
            sel.register(fd, selectors.EVENT_READ)
            while buf.count(b"\n") < want:
                left = deadline - time.monotonic()
                if left <= 0 or not sel.select(left):
                    raise SimError("torvik-sim not ready within %.3g s%s" % (self.start_timeout, self._why()))
                chunk = os.read(fd, 4096)
                if not chunk:
                    self.proc.wait()
                    raise SimError("torvik-sim exited with %d before ready%s" % (self.proc.returncode, self._why()))
                buf += chunk
        lines = buf.decode().splitlines()[:want]
        if lines[0] != "ready":
            raise SimError("unexpected first line %r" % lines[0])
        return lines

    def stderr_text(self):
        """What the emulator wrote on stderr so far."""
        if self._stderr is None:
            return ""
        self._stderr.seek(0)
        return self._stderr.read().decode(errors="replace")

    def _why(self):
        text = self.stderr_text().strip()
        return ": " + text if text else ""

    def request(self, line, timeout=None):
        """Sends one control line; returns the text after "ok", raises SimError with the text after
        "err". Requests that wait (timeout given) use a connection of their own, so that another
        thread can steer the emulator meanwhile."""
        if timeout is not None:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
                s.settimeout(timeout)
                s.connect(self.control_path)
                with s.makefile("rwb") as f:
                    return self._exchange(f, line)
        with self._lock:
            if self._ctl is None:
                self._ctl = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                self._ctl.settimeout(10)
                self._ctl.connect(self.control_path)
                self._ctl_file = self._ctl.makefile("rwb")
            return self._exchange(self._ctl_file, line)

    @staticmethod
    def _exchange(f, line):
        f.write(line.encode() + b"\n")
        f.flush()
        answer = f.readline().decode().rstrip("\n")
        if not answer:
            raise SimError("control connection closed")
        status, _, rest = answer.partition(" ")
        if status == "ok":
            return rest
        raise SimError(rest)

    def stop(self, check=True):
        """Terminates the emulator and reaps it. With `check`, raises SimError if it did not exit
        cleanly (status 0 on SIGTERM)."""
        with self._lock:
            if self._ctl_file is not None:
                self._ctl_file.close()
                self._ctl.close()
                self._ctl = self._ctl_file = None
        if self.proc is None:
            return self.returncode
        proc, self.proc = self.proc, None
        if proc.poll() is None:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        proc.stdout.close()
        self.returncode = proc.returncode
        why = self._why()
        self._stderr.close()
        self._stderr = None
        if check and self.returncode != 0:
            raise SimError("torvik-sim ended with %d%s" % (self.returncode, why))
        return self.returncode


def run_with_command(units, command, timeout=30.0, usb=(), env=None):
    """Runs `torvik-sim --unit ... --usb ... -- command`; returns the CompletedProcess (output
    captured). `env` is added to the (USB emulation free) environment."""
    argv = [sim_binary()]
    for unit_arg in units:
        argv += ["--unit", unit_arg]
    for usb_spec in usb:
        argv += ["--usb", usb_spec]
    return subprocess.run(argv + ["--"] + list(command), capture_output=True, timeout=timeout,
                          env=dict(clean_env(), **(env or {})))
