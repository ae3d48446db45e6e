"""Analog input streaming against torvik-sim on loopback, in one run.

(a) The emulator sends 900,000 frames of 8 channels as fast as the link takes them to a connected
    TorvikLanAnalog whose reader calls AI_readStreaming_async(port, -1, delay) in a loop: frames per
    second delivered to Python as lists, frames lost, CPU seconds per million frames of the
    library's threads (receive thread and stream worker) and of the whole process.
(b) Memory: 1,000,000 frames queued in ai_signal_queue with nobody reading: resident growth per frame.
(c) A straightforward pure-Python decoding of the same payloads (per frame: convert2U8ToI16 of each
    channel, times the ratio, round to 4 places, a list, a queue put and get), and the ratios.

Targets: >= 2,000,000 frames/s delivered, 0 lost, <= 80 bytes per queued frame, >= 20 x the
pure-Python decoding. Run with the package installed: python bench/ai_stream.py
"""
import asyncio
import os
import queue
import struct
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python"))

import pytorvik as t  # noqa: E402
from pytorvik import simctl  # noqa: E402
from devices import thread_cpu_seconds  # noqa: E402

FRAMES = 900_000
RATIO = 0.00030517578125


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


async def delivered(dev, unit):
    await dev.AI_open_async(0)
    threads = (dev.recv_cmd_thread, dev.ai_stream_thread)
    cpu0 = [thread_cpu_seconds(th) for th in threads]
    proc0, t0, got = time.process_time(), time.perf_counter(), 0
    unit.burst(FRAMES)
    while got < FRAMES and time.perf_counter() - t0 < 60:
        got += len(await dev.AI_readStreaming_async(0, -1, 0.001))
    elapsed = time.perf_counter() - t0
    lib_cpu = sum(thread_cpu_seconds(th) - c for th, c in zip(threads, cpu0))
    await dev.AI_close_async(0)
    return got / elapsed, FRAMES - got, lib_cpu / got * 1e6, (time.process_time() - proc0) / got * 1e6


async def memory(dev, unit, n=1_000_000):
    await dev.AI_open_async(0)
    before = rss_bytes()
    unit.burst(n)
    t0 = time.monotonic()
    while dev.ai_signal_queue.qsize() < n and time.monotonic() - t0 < 60:
        await asyncio.sleep(0.01)
    grown = rss_bytes() - before
    await dev.AI_close_async(0)
    return grown / n


def pure_python(payloads):
    """Decoding as a pure-Python worker would, with the reader taking each frame from a queue."""
    def to_i16(pair):
        v = (pair[0] << 8) | pair[1]
        return v - 0x10000 if v & 0x8000 else v

    q = queue.Queue(maxsize=1_000_000)
    n = 0
    t0 = time.perf_counter()
    for data in payloads:
        for f in range(0, len(data), 16):
            frame = data[f:f + 16]
            q.put_nowait([round(to_i16(frame[c * 2:c * 2 + 2]) * RATIO, 4) for c in range(8)])
        while not q.empty():
            q.get_nowait()
            n += 1
    return n / (time.perf_counter() - t0)


def main():
    with simctl.Sim(simctl.unit_spec("TorvikLanAnalog", cmd_port=0), simctl.unit_spec("TorvikLanAnalog", cmd_port=0)) as sim:
        a, b = sim.units
        readers = []
        for unit in (a, b):
            dev = t.TorvikLanAnalog()
            dev.connect(unit.addr, port=unit.cmd_port)
            readers.append(dev)
        try:
            rate, lost, lib_cpu, proc_cpu = asyncio.run(delivered(readers[0], a))
            per_frame = asyncio.run(memory(readers[1], b))
        finally:
            for dev in readers:
                dev.close()
    payload = b"".join(struct.pack(">8h", *[(i * 37 + c * 1000) % 65536 - 32768 for c in range(8)]) for i in range(600))
    py_rate = pure_python([payload] * 200)
    print("(a) delivered: %.0f frames/s, lost %d, CPU s per million frames: library threads %.3f, whole process %.3f"
          % (rate, lost, lib_cpu, proc_cpu))
    print("(b) memory: %.1f bytes per queued frame" % per_frame)
    print("(c) pure-Python decoding: %.0f frames/s; ratio %.1f x" % (py_rate, rate / py_rate))
    print("targets: >= 2000000 frames/s, 0 lost, <= 80 bytes/frame, >= 20 x")


if __name__ == "__main__":
    main()
