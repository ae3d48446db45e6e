"""A fleet of units against one emulator, in one run.

(a) One unit of every product (USB ones on the emulated USB bus, the others over the network), all
    connected at once; every analog input streams continuously at the unit's maximum rate, and UART
    port 1 receives a steady stream at 115200 baud (11520 bytes/s), while each handle asks for the
    unit's clock every 10 ms. Before the streams start, the same round trips are measured idle
    (after a short warm-up). The emulated USB bus is measured first (one analog unit streaming as
    fast as it can); the USB streams run at what it carries, and the report says which it limits.
(b) 32 handles over the network: 24 TorvikLanAnalog streaming at 20 kHz and 8 compositions of the
    UART module with ETHDevice receiving 11520 bytes/s, with the same round trips.

All handles share the script's one event loop.

Per handle: what the rates give over the run, what the units sent and what reached Python (frames
or bytes), the round trip's p50 and p99 under load, and the CPU share of the library's threads
(receive threads and stream workers) of one core. Targets: 0 lost; p99 under load <= 5 x the idle
p99; library CPU <= 25 % of one core in (b).

    python bench/fleet.py [SECONDS]        (default 30; with the package installed, or PYTHONPATH and
                                           TORVIK_SIM_BIN set)
"""
import asyncio
import json
import os
import statistics
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python"))

import pytorvik as t  # noqa: E402
from pytorvik import simctl  # noqa: E402
from devices import thread_cpu_seconds  # noqa: E402

UART_RATE = 11520  # 115200 baud, 10 bits a byte
PING_PERIOD = 0.01
IDLE_SECONDS = 2.0
WARM_UP = 0.5
CONTINUOUS = 2
# The emulated USB bus makes one socket round trip per transfer, and a UART stream at 115200 baud is
# many small transfers: the bus carries one such stream beside the analog ones, not six.
USB_UART_UNITS = ("TorvikUsbLogic",)


class LanUart(t.ETHDevice, t.SystemModule, t.UARTModule):
    """The UART module over a network connection."""


def library_threads(dev):
    return {k: v for k, v in vars(dev).items() if isinstance(v, threading.Thread)}


def thread_seconds(dev):
    """CPU seconds of each of the handle's library threads, by attribute name."""
    return {k: thread_cpu_seconds(th) for k, th in library_threads(dev).items()}


def percentile(values, q):
    values = sorted(values)
    return values[min(len(values) - 1, int(q * len(values)))] if values else float("nan")


class Member:
    """One handle of the fleet: its streams, its reader tasks and its pings."""

    def __init__(self, name, dev, unit):
        self.name, self.dev, self.unit = name, dev, unit
        self.usb = isinstance(dev, t.USBDevice)
        self.ai_port = min(dev.ai_dict) if getattr(dev, "ai_dict", None) else None
        self.uart = 1 if getattr(dev, "uart_dict", None) and unit is not None else None
        self.ai_rate = dev.ai_max_rate if self.ai_port is not None else 0
        self.frames = self.uart_bytes = 0
        self.rtts, self.idle_rtts = [], []
        self.t_start = self.t_stop = 0.0

    async def ping(self, until, into):
        while time.perf_counter() < until:
            t0 = time.perf_counter()
            await self.dev.Sys_getRTC_async()
            into.append(time.perf_counter() - t0)
            await asyncio.sleep(max(0.0, PING_PERIOD - (time.perf_counter() - t0)))

    async def start(self):
        d = self.dev
        if self.ai_port is not None:
            await d.AI_open_async(self.ai_port)
            await d.AI_setMode_async(self.ai_port, CONTINUOUS)
            await d.AI_setSamplingRate_async(self.ai_port, self.ai_rate)
        if self.uart:
            await d.UART_open_async(self.uart)
            await d.UART_setBaudRate_async(self.uart, 115200)
        self.cpu0 = thread_seconds(d)
        self.t_start = time.perf_counter()
        if self.ai_port is not None:
            await d.AI_start_async(self.ai_port)
        if self.uart:
            self.unit.uart_stream(self.uart, UART_RATE)

    async def read(self, until):
        d = self.dev
        while time.perf_counter() < until:
            if self.ai_port is not None:
                self.frames += len(await d.AI_readStreaming_async(self.ai_port, -1, 0.02))
            if self.uart:
                self.uart_bytes += len(await d.UART_read_async(self.uart, -1, 0.02 if self.ai_port is None else 0))

    async def halt(self):
        d = self.dev
        if self.ai_port is not None:
            await d.AI_stop_async(self.ai_port)
        if self.uart:
            self.unit.uart_stream(self.uart, "off")
        self.t_stop = time.perf_counter()

    async def drain(self):
        """What was on its way at the halt still counts as delivered."""
        d = self.dev
        if self.ai_port is not None:
            self.frames += len(await d.AI_readStreaming_async(self.ai_port, -1, 0.05))
            await d.AI_close_async(self.ai_port)
        if self.uart:
            self.uart_bytes += len(await d.UART_read_async(self.uart, -1))
            await d.UART_close_async(self.uart)
        self.cpu_by_thread = {k: v - self.cpu0.get(k, 0.0) for k, v in thread_seconds(d).items()}
        self.cpu = sum(self.cpu_by_thread.values())

    def report(self):
        seconds = self.t_stop - self.t_start
        out = {"name": self.name, "seconds": seconds, "cpu": self.cpu / seconds,
               "cpu_by_thread": {k: v / seconds for k, v in self.cpu_by_thread.items()},
               "p50": percentile(self.rtts, 0.5), "p99": percentile(self.rtts, 0.99),
               "idle_p99": percentile(self.idle_rtts, 0.99), "pings": len(self.rtts)}
        if self.ai_port is not None:
            sent = self.unit.stats().get("stream.frames") if self.unit is not None else None
            out["ai"] = {"expected": round(self.ai_rate * seconds), "sent": sent, "received": self.frames,
                         "rate": self.ai_rate, "max_rate": self.dev.ai_max_rate}
        if self.uart:
            out["uart"] = {"expected": round(UART_RATE * seconds), "sent": self.unit.uart_state(self.uart)["sent"],
                           "received": self.uart_bytes}
        return out


def process_cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


async def run_fleet(members, seconds, load):
    # Warm up first (threads start, first transfers): what is measured idle is the steady state.
    until = time.perf_counter() + WARM_UP
    await asyncio.gather(*(m.ping(until, []) for m in members))
    until = time.perf_counter() + IDLE_SECONDS
    await asyncio.gather(*(m.ping(until, m.idle_rtts) for m in members))
    for m in members:
        await m.start()
    # The emulator is this process's parent: what both take of the machine under load.
    processes = (("emulator", os.getppid()), ("script", os.getpid()))
    cpu0 = {who: process_cpu_seconds(pid) for who, pid in processes}
    until = time.perf_counter() + seconds
    await asyncio.gather(*(m.read(until) for m in members if m.ai_port is not None or m.uart),
                         *(m.ping(until, m.rtts) for m in members))
    load.update({who: (process_cpu_seconds(pid) - cpu0[who]) / seconds for who, pid in processes})
    for m in members:
        await m.halt()
    # Let what is on its way arrive (the emulated USB bus may lag): until nothing came for 0.5 s.
    quiet_since = time.perf_counter()
    while time.perf_counter() - quiet_since < 0.5:
        before = sum(m.frames + m.uart_bytes for m in members)
        await asyncio.gather(*(m.read(time.perf_counter() + 0.1) for m in members if m.ai_port is not None or m.uart))
        if sum(m.frames + m.uart_bytes for m in members) != before:
            quiet_since = time.perf_counter()
    for m in members:
        await m.drain()
    return [m.report() for m in members]


def connect(cls_name, unit, net=True):
    if cls_name == "LanUart":
        dev = LanUart(verbose=False)
        t.UARTModule.__init__(dev, {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]})
        dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        return dev
    dev = getattr(t, cls_name)()
    if not net:
        dev.connect(unit.serial)
    elif cls_name == "TorvikAirAnalog":
        dev.connect(unit.addr)
    else:
        dev.connect(unit.addr, port=unit.cmd_port)
    return dev


def close(dev):
    if isinstance(dev, LanUart):
        dev.disconnect(verbose=False)
        dev.close(verbose=False)
        dev._UART_free()
    else:
        dev.close()


def child(part, seconds, usb_ai_rate):
    """Runs under the emulator: builds the fleet, prints the reports as JSON."""
    sim = simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"])
    members = []
    try:
        for unit in sim.units:
            usb = unit.addr.startswith("usb:")
            name = "LanUart" if part == "b" and unit.cls == "TorvikUsbLogic" else unit.cls
            members.append(Member(name, connect(name, unit, net=not usb), unit))
            if usb and members[-1].ai_port is not None:
                members[-1].ai_rate = min(members[-1].ai_rate, usb_ai_rate)
            if usb and unit.cls not in USB_UART_UNITS:
                members[-1].uart = None
        load = {}
        reports = asyncio.run(run_fleet(members, seconds, load))
    finally:
        for m in members:
            close(m.dev)
    print("REPORT " + json.dumps({"members": reports, "load": load}))


def ceiling_child():
    """Runs under the emulator with one USB analog unit: prints the frames a second that the
    emulated USB bus carries when the unit streams as fast as it can."""
    unit = simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"]).unit
    dev = t.TorvikUsbAnalog()
    dev.connect(unit.serial)

    async def measure():
        await dev.AI_open_async(0)
        await dev.AI_setMode_async(0, CONTINUOUS)
        await dev.AI_setSamplingRate_async(0, dev.ai_max_rate)
        unit.set_pace("fast")
        await dev.AI_start_async(0)
        until = time.perf_counter() + WARM_UP
        while time.perf_counter() < until:
            await dev.AI_readStreaming_async(0, -1, 0.02)
        got, t0 = 0, time.perf_counter()
        while time.perf_counter() - t0 < 2.0:
            got += len(await dev.AI_readStreaming_async(0, -1, 0.02))
        rate = got / (time.perf_counter() - t0)
        await dev.AI_stop_async(0)
        await dev.AI_close_async(0)
        return rate

    try:
        print("CEILING %.0f" % asyncio.run(measure()))
    finally:
        dev.close()


def usb_ceiling():
    r = simctl.run_with_command([], [sys.executable, os.path.abspath(__file__), "--ceiling"],
                                usb=["TorvikUsbAnalog:%s" % t.HANDLE_PROPERTIES["TorvikUsbAnalog"]["connect"]], timeout=60)
    for line in r.stdout.decode().splitlines():
        if line.startswith("CEILING "):
            return float(line.split()[1])
    raise RuntimeError("USB ceiling run failed:\n" + r.stderr.decode()[-3000:])


def run_child(part, seconds, units, usb=(), usb_ai_rate=0):
    r = simctl.run_with_command(units, [sys.executable, os.path.abspath(__file__), "--child", part, str(seconds),
                                        str(usb_ai_rate)],
                                usb=list(usb), timeout=seconds + 120)
    for line in r.stdout.decode().splitlines():
        if line.startswith("REPORT "):
            return json.loads(line[7:])
    raise RuntimeError("fleet (%s) failed:\n%s" % (part, r.stderr.decode()[-3000:]))


def show(title, result):
    reports, load = result["members"], result["load"]
    print(title)
    print("  %-16s %30s %30s %9s %9s %9s %6s" % ("handle", "AI frames expected/sent/recv", "UART bytes expected/sent/recv",
                                               "p50 ms", "p99 ms", "idle p99", "CPU %"))
    lost = 0
    for r in reports:
        ai = r.get("ai")
        ua = r.get("uart")
        ai_text = ("%d/%d/%d%s" % (ai["expected"], ai["sent"] or 0, ai["received"],
                                   " *" if ai["rate"] < ai["max_rate"] else "")) if ai else "-"
        ua_text = "%d/%d/%d" % (ua["expected"], ua["sent"], ua["received"]) if ua else "-"
        lost += (ai["sent"] - ai["received"] if ai and ai["sent"] is not None else 0) + (ua["sent"] - ua["received"] if ua else 0)
        print("  %-16s %30s %30s %9.2f %9.2f %9.2f %6.2f" % (r["name"], ai_text, ua_text, r["p50"] * 1e3, r["p99"] * 1e3,
                                                          r["idle_p99"] * 1e3, 100 * r["cpu"]))
    worst = max(r["p99"] / r["idle_p99"] for r in reports)
    cpu = sum(r["cpu"] for r in reports)
    by_thread = {}
    for r in reports:
        for k, v in r["cpu_by_thread"].items():
            by_thread[k] = by_thread.get(k, 0.0) + v
    print("  library CPU by thread: " + ", ".join("%s %.1f %%" % (k, 100 * v) for k, v in sorted(by_thread.items())))
    print("  lost (sent, not received): %d; worst p99 under load / idle p99: %.1f x; library CPU: %.1f %% of one "
          "core" % (lost, worst, 100 * cpu))
    print("  under load, of %d cores: the emulator took %.0f %% of one core, this script's process %.0f %% (the "
          "library's threads included)" % (os.cpu_count(), 100 * load["emulator"], 100 * load["script"]))


def main(seconds):
    # (a) one unit of every product
    net_units, usb_units = [], []
    for name in t.PRODUCT_LIST:
        if name in t.HANDLE_DICT["USB"]:
            usb_units.append("%s:%s" % (name, t.HANDLE_PROPERTIES[name]["connect"]))
        else:
            unit_arg = simctl.unit_spec(name)
            if name == "TorvikAirAnalog" and os.geteuid() != 0:
                print("(a) leaves out TorvikAirAnalog: its handle connects on the unit's own ports, which need root")
                continue
            net_units.append(unit_arg)
    ceiling = usb_ceiling()
    # The USB streams share the emulated bus: each analog one gets at most a quarter of what the bus
    # carries for one stream alone, so that the UART streams and the round trips keep their room.
    usb_ai = [n for n in t.HANDLE_DICT["USB"] if issubclass(getattr(t, n), t.AIModule)]
    usb_ai_rate = int(ceiling / (4 * len(usb_ai)))
    print("(a) the emulated USB bus carries %.0f analog frames/s of one unit streaming as fast as it can; the USB"
          " analog streams (%s) run at %d Hz instead of their maximum (marked *), and of the USB units' UART"
          " streams only %s's runs" % (ceiling, ", ".join(usb_ai), usb_ai_rate, ", ".join(USB_UART_UNITS)))
    show("(a) one unit of every product, %d s" % seconds, run_child("a", seconds, net_units, usb_units, usb_ai_rate))
    # (b) 32 network handles
    units = [simctl.unit_spec("TorvikLanAnalog", cmd_port=0) for _ in range(24)]
    units += [simctl.unit_spec("TorvikUsbLogic", cmd_port=0) + ",tcp" for _ in range(8)]
    show("(b) 32 handles over the network, %d s" % seconds, run_child("b", seconds, units))
    print("targets: 0 lost; p99 under load <= 5 x idle p99; (b) library CPU <= 25 % of one core")


if __name__ == "__main__":
    if sys.argv[1:2] == ["--child"]:
        child(sys.argv[2], float(sys.argv[3]), int(sys.argv[4]))
    elif sys.argv[1:2] == ["--ceiling"]:
        ceiling_child()
    else:
        main(float(sys.argv[1]) if len(sys.argv) > 1 else 30.0)
