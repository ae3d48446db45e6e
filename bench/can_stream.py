"""CAN reception against torvik-sim, in one run.

(a) Library capacity over TCP loopback: a composition with the same engine path as TorvikUsbCan
    (an ETHDevice with SystemModule and CANModule, given TorvikUsbCan's can_dict) on a network unit
    that runs TorvikUsbCan's firmware. The emulator's bus tester streams 1,000,000 frames (the
    queue's bound) as fast as the link takes them (far faster than any reader: they all arrive
    within a few tenths of a second) while the reader calls CAN_read_async(port, -1) in a loop: frames per
    second delivered to Python as CANFrame objects (and again with the reader taking each frame's
    data list, which a frame makes when first asked), frames lost, CPU seconds per million frames of
    the library's threads (receive thread and stream worker) and of the whole process.
(b) Memory: 1,000,000 frames queued in can_frame_queue with nobody reading: resident growth per frame.
(c) A straightforward pure-Python worker on the same payloads (a numeric array reshaped to rows of
    12, fromU8List per row of a frame class written in Python as the algorithm goes, a queue put,
    and the reader's get), and the ratio.
(d) TorvikUsbCan over the emulated USB link, for the emulator's ceiling on that path.

Targets: >= 1,000,000 frames/s delivered, 0 lost, <= 24 bytes per queued frame, >= 20 x the
pure-Python worker. Run with the package installed (or PYTHONPATH and TORVIK_SIM_BIN set):
python bench/can_stream.py
"""
import asyncio
import os
import queue
import struct
import subprocess
import sys
import time

import numpy

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "python"))

import pytorvik as t  # noqa: E402
from pytorvik import simctl  # noqa: E402
from devices import thread_cpu_seconds  # noqa: E402

FRAMES = 1_000_000
USB_FRAMES = 40_000
USB_SERIAL = "CANBENCH1"


class LanCan(t.ETHDevice, t.SystemModule, t.CANModule):
    """TorvikUsbCan's CAN path over a network connection."""


def can_dict():
    dev = t.TorvikUsbCan()
    try:
        return dev.can_dict
    finally:
        dev.close()


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


async def delivered(dev, unit, frames, touch=False):
    await dev.CAN_open_async(1)
    await dev.CAN_start_async(1)
    threads = (dev.recv_cmd_thread, dev.can_stream_thread)
    cpu0 = [thread_cpu_seconds(th) for th in threads]
    proc0, t0, got, first, last = time.process_time(), time.perf_counter(), 0, None, None
    unit.can_stream(count=frames)
    idle_since = None
    while got < frames and time.perf_counter() - t0 < 60:
        batch = await dev.CAN_read_async(1, -1, 0.001)
        if batch:
            if touch:  # a reader that uses every frame's bytes
                for frame in batch:
                    frame.data
            if first is None:
                first = batch[0]
            got += len(batch)
            last, idle_since = batch[-1], None
        elif idle_since is None:
            idle_since = time.perf_counter()
        elif time.perf_counter() - idle_since > 1 and unit.can_state()["sent"] >= frames:
            break  # frames were lost: nothing more comes
        del batch
    elapsed = time.perf_counter() - t0 - (time.perf_counter() - idle_since if idle_since else 0)
    lib_cpu = sum(thread_cpu_seconds(th) - c for th, c in zip(threads, cpu0))
    await dev.CAN_close_async(1)
    seq = [int.from_bytes(bytes(f.data), "big") for f in (first, last) if f is not None]
    if seq and seq[1] - seq[0] != got - 1:  # the tester numbers its frames on from run to run
        print("warning: %d frames read, numbered %d to %d" % (got, seq[0], seq[1]))
    return got / elapsed, frames - got, lib_cpu / got * 1e6, (time.process_time() - proc0) / got * 1e6


async def memory(dev, unit, n=1_000_000):
    await dev.CAN_open_async(1)
    before = rss_bytes()
    unit.can_burst(n)
    t0 = time.monotonic()
    while dev.can_frame_queue.qsize() < n and time.monotonic() - t0 < 60:
        await asyncio.sleep(0.01)
    grown = rss_bytes() - before
    queued = dev.can_frame_queue.qsize()
    await dev.CAN_close_async(1)
    return grown / queued


class PyCANFrame:
    """The frame type as its algorithm is written, in Python: the pure-Python driver's own."""

    def __init__(self, id_, id_format=0, remote=0, data=[0, 0, 0, 0, 0, 0, 0, 0]):
        self.id = id_
        self.id_format = id_format
        self.remote = remote
        self.data = self.regularizeData(data)
        self.id_in_list = None
        self.frame_in_list = None
        self.setID()

    def regularizeData(self, data):
        return (list(data) + [0] * 8)[:8]

    def setID(self):
        if self.id_format == 0:
            new_id = self.id << 21
        else:
            new_id = ((self.id & 0x1FFC0000) << 3) | (self.id & 0x3FFFF)
            new_id = new_id | 0x80000
        if self.remote > 0:
            new_id = new_id | 0x100000
        self.id_in_list = list(struct.pack(">I", numpy.uint32(new_id)))
        self.frame_in_list = self.id_in_list + self.data

    @classmethod
    def fromU8List(cls, u8_list):
        u8 = list(u8_list)
        id_in_list = u8[:4]
        id_format = (id_in_list[1] >> 3) & 1
        remote = (id_in_list[1] >> 4) & 1
        if id_format == 0:
            id_ = struct.unpack(">H", bytes(id_in_list[:2]))[0] >> 5
        else:
            id_u32 = struct.unpack(">I", bytes(id_in_list))[0]
            id_ = ((id_u32 & 0xFFE00000) >> 3) | (id_u32 & 0x3FFFF)
        if len(u8) > 4:
            return cls(id_, id_format, remote, u8[4:12])
        return cls(id_, id_format, remote)


def pure_python(payloads):
    """The worker as the algorithm is written, with the reader taking each frame from a queue."""
    q = queue.Queue(maxsize=1_000_000)
    n = 0
    t0 = time.perf_counter()
    for data in payloads:
        rows = numpy.array(list(data)).reshape(-1, 12)
        for row in rows:
            q.put_nowait(PyCANFrame.fromU8List(row))
        while not q.empty():
            q.get_nowait()
            n += 1
    return n / (time.perf_counter() - t0)


def usb_ceiling():
    """Runs this script under the emulator's USB host with one TorvikUsbCan; returns frames/s."""
    cmd = [simctl.sim_binary(), "--usb", "TorvikUsbCan:" + USB_SERIAL, "--", sys.executable, os.path.abspath(__file__), "--usb"]
    out = subprocess.run(cmd, env=simctl.clean_env(), capture_output=True, text=True, timeout=120)
    for line in out.stdout.splitlines():
        if line.startswith("usb "):
            return float(line.split()[1])
    raise RuntimeError("USB run failed: " + out.stdout + out.stderr)


def usb_part():
    sim = simctl.Sim.attach(os.environ["TORVIK_SIM_CONTROL"])
    dev = t.TorvikUsbCan()
    dev.connect(USB_SERIAL, verbose=False)
    try:
        rate, lost, _, _ = asyncio.run(delivered(dev, sim.unit, USB_FRAMES))
    finally:
        dev.close()
    print("usb %.0f %d" % (rate, lost))


def main():
    table = can_dict()
    first = simctl.unit_spec("TorvikLanLogic", cmd_port=0)
    with simctl.Sim(first, simctl.unit_spec("TorvikLanLogic", cmd_port=0)) as sim:
        readers = []
        for unit in sim.units:
            unit.use_firmware("model", "TorvikUsbCan")
            unit.can_frames(2000)
            dev = LanCan(verbose=False)
            t.CANModule.__init__(dev, table)
            dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
            readers.append(dev)
        try:
            rate, lost, lib_cpu, proc_cpu = asyncio.run(delivered(readers[0], sim.units[0], FRAMES))
            touched, touched_lost, _, _ = asyncio.run(delivered(readers[0], sim.units[0], FRAMES, touch=True))
            per_frame = asyncio.run(memory(readers[1], sim.units[1]))
        finally:
            for dev in readers:
                dev.disconnect(verbose=False)
                dev.close(verbose=False)
                dev._CAN_free()
    payload = b"".join(bytes(t.CANFrame(i % 2048, 0, 0, list(i.to_bytes(8, "big"))).frame_in_list) for i in range(600))
    py_rate = pure_python([payload] * 100)
    usb_rate = usb_ceiling()
    print("(a) delivered over TCP: %.0f frames/s, lost %d, CPU s per million frames: library threads %.3f, whole process %.3f"
          " (%.0f frames per CPU second of the process)" % (rate, lost, lib_cpu, proc_cpu, 1e6 / proc_cpu))
    print("    the same with the reader taking each frame's data: %.0f frames/s, lost %d" % (touched, touched_lost))
    print("(b) memory: %.1f bytes per queued frame" % per_frame)
    print("(c) pure-Python worker: %.0f frames/s; ratio %.1f x (%.1f x with each frame's data taken)"
          % (py_rate, rate / py_rate, touched / py_rate))
    print("(d) TorvikUsbCan over emulated USB: %.0f frames/s (the emulator's ceiling on that path); TCP / USB %.1f x"
          % (usb_rate, rate / usb_rate))
    print("targets: >= 1000000 frames/s, 0 lost, <= 24 bytes/frame, >= 20 x")


if __name__ == "__main__":
    usb_part() if "--usb" in sys.argv[1:] else main()
