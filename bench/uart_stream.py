"""UART reception against torvik-sim, in one run.

(a) TorvikUsbLogic's firmware behind a TCP port on loopback streams BYTES bytes of its serial port 1
    as fast as the link takes them to a handle with TorvikUsbLogic's serial ports over the network
    (the same engine path as over USB: receive thread, data queue, port worker, signal queue),
    whose reader calls UART_read_async(1, -1, delay) in a loop: bytes per second delivered to
    Python, bytes lost, CPU seconds per million bytes of the library's threads (receive thread
    and port 1 worker) and of the whole process. Reception never waits for the reader, so a far
    end with no flow control that outruns it loses bytes at the signal queue's bound (one
    warning each); this far end is granted WINDOW bytes at a time as the reader takes them, as
    hardware flow control would, and sends each grant as fast as the link takes it.
(b) Memory: 1,000,000 bytes queued in uart_p1_signal_queue with nobody reading: resident growth
    per byte.
(c) A straightforward pure-Python worker for the same payloads (per byte a queue.Queue.put, the
    reader a get and chr), its memory per queued byte, and the ratios.
(d) The emulated USB bus as the emulator's ceiling: TorvikUsbLogic over USB, the same stream.

Targets: >= 20 MB/s delivered, 0 lost, <= 4 bytes per queued byte, >= 20 x the pure-Python
worker. Run with the package installed (or PYTHONPATH and TORVIK_SIM_BIN set):
python bench/uart_stream.py
"""
import asyncio
import gc
import os
import queue
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python"))

import pytorvik as t  # noqa: E402
from pytorvik import simctl  # noqa: E402
from devices import thread_cpu_seconds  # noqa: E402

BYTES = 40_000_000
WINDOW = 250_000
USB_SECONDS = 2.0
UART = {1: [(0, 3), (0, 4)], 2: [(1, 2), (1, 3)]}


class LanUart(t.ETHDevice, t.SystemModule, t.UARTModule):
    """TorvikUsbLogic's serial ports over a network connection."""


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def lan_handle(unit):
    dev = LanUart(verbose=False)
    t.UARTModule.__init__(dev, UART)
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    return dev


def free(dev):
    dev.disconnect(verbose=False)
    dev.close(verbose=False)
    dev._UART_free()


async def delivered(dev, unit):
    await dev.UART_open_async(1)
    threads = (dev.recv_cmd_thread, dev.uart_p1_stream_thread)
    cpu0 = [thread_cpu_seconds(th) for th in threads]
    proc0, t0, got, granted = time.process_time(), time.perf_counter(), 0, 0
    while got < BYTES and time.perf_counter() - t0 < 60:
        while granted < BYTES and granted - got < 2 * WINDOW:
            unit.uart_burst(1, WINDOW)
            granted += WINDOW
        got += len(await dev.UART_read_async(1, -1, 0.001))
    elapsed = time.perf_counter() - t0
    await asyncio.sleep(0.1)
    got += len(await dev.UART_read_async(1, -1))  # anything left over counts as delivered, not lost
    lib_cpu = sum(thread_cpu_seconds(th) - c for th, c in zip(threads, cpu0))
    await dev.UART_close_async(1)
    return got / elapsed, BYTES - got, lib_cpu / got * 1e6, (time.process_time() - proc0) / got * 1e6


async def memory(dev, unit, n=1_000_000):
    await dev.UART_open_async(1)
    gc.collect()
    before = rss_bytes()
    unit.uart_burst(1, n)
    t0 = time.monotonic()
    while dev.uart_p1_signal_queue.qsize() < n and time.monotonic() - t0 < 60:
        await asyncio.sleep(0.01)
    grown = rss_bytes() - before
    await dev.UART_close_async(1)
    return grown / n


def pure_python(payloads, total):
    """A worker thread's job done in pure Python: each byte of each payload put into a bounded
    queue, the reader taking them all and making one-character strings. Returns bytes/s."""
    q = queue.Queue(maxsize=1_000_000)
    n = 0
    t0 = time.perf_counter()
    while n < total:
        for data in payloads:
            for b in data:
                q.put_nowait(b)
            out = []
            while not q.empty():
                out.append(chr(q.get_nowait()))
            n += len(out)
    return n / (time.perf_counter() - t0)


def pure_python_memory(n=1_000_000):
    """Run in a fresh interpreter (--py-memory), whose heap has no freed memory to reuse."""
    data = bytes(range(256)) * (n // 256 + 1)
    q = queue.Queue(maxsize=n)
    gc.collect()
    before = rss_bytes()
    for b in data[:n]:
        q.put_nowait(b)
    print("py-memory %.3f" % ((rss_bytes() - before) / n))


def pure_python_memory_child():
    r = subprocess.run([sys.executable, os.path.abspath(__file__), "--py-memory"], capture_output=True, timeout=60)
    return float(r.stdout.decode().split()[1])


def usb_child():
    """Runs under torvik-sim with one USB unit: prints bytes/s over the emulated bus."""
    sim = simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"])
    unit = sim.unit
    dev = t.TorvikUsbLogic()
    dev.connect(unit.serial)

    async def main():
        await dev.UART_open_async(1)
        unit.uart_stream(1, "max")
        got, t0 = 0, time.perf_counter()
        while time.perf_counter() - t0 < USB_SECONDS:
            got += len(await dev.UART_read_async(1, -1, 0.01))
        rate = got / (time.perf_counter() - t0)
        unit.uart_stream(1, "off")
        await dev.UART_close_async(1)
        return rate

    try:
        print("usb-rate %.0f" % asyncio.run(main()))
    finally:
        dev.close()


def usb_rate():
    r = simctl.run_with_command([], [sys.executable, os.path.abspath(__file__), "--usb-child"],
                                usb=["TorvikUsbLogic:21JA1200"], timeout=60)
    for line in r.stdout.decode().splitlines():
        if line.startswith("usb-rate "):
            return float(line.split()[1])
    if r.returncode == 77:
        return None  # the emulator was built without USB support
    raise RuntimeError("USB run failed: " + r.stderr.decode()[-2000:])


def main():
    first = simctl.unit_spec("TorvikUsbLogic", cmd_port=0)
    with simctl.Sim(first + ",tcp", simctl.unit_spec("TorvikUsbLogic", cmd_port=0) + ",tcp") as sim:
        a, b = sim.units
        readers = [lan_handle(a), lan_handle(b)]
        try:
            # Memory first, while the heap has no freed memory that the queue could reuse unseen.
            per_byte = asyncio.run(memory(readers[1], b))
            rate, lost, lib_cpu, proc_cpu = asyncio.run(delivered(readers[0], a))
        finally:
            for dev in readers:
                free(dev)
    payload = bytes(i % 256 for i in range(16384))
    py_rate = pure_python([payload] * 8, 2_000_000)
    py_per_byte = pure_python_memory_child()
    usb = usb_rate()
    print("(a) delivered: %.2f MB/s, lost %d, CPU s per million bytes: library threads %.4f, whole process %.4f"
          % (rate / 1e6, lost, lib_cpu, proc_cpu))
    print("(b) memory: %.2f bytes per queued byte" % per_byte)
    print("(c) pure-Python worker: %.2f MB/s, %.2f bytes per queued byte; ratios: speed %.1f x, memory %.1f x less"
          % (py_rate / 1e6, py_per_byte, rate / py_rate, py_per_byte / per_byte if per_byte > 0 else float("inf")))
    if usb is None:
        print("(d) emulated USB: not measured (torvik-sim built without USB support)")
    else:
        print("(d) emulated USB (the emulator's ceiling): %.3f MB/s; TCP delivers %.0f x that" % (usb / 1e6, rate / usb))
    print("targets: >= 20 MB/s, 0 lost, <= 4 bytes per queued byte, >= 20 x")


if __name__ == "__main__":
    if sys.argv[1:] == ["--usb-child"]:
        usb_child()
    elif sys.argv[1:] == ["--py-memory"]:
        pure_python_memory()
    else:
        main()
