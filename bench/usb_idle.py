"""USB units of the emulator, in one run:

(a) CPU of this process while 10 connected USB handles sit idle (their receive threads waiting for
    the units), as a share of one core over a few seconds of process CPU time,
(b) round trips of _echoPacketWithRetry_async over emulated USB (median and p99),
(c) the same with 10 handles each doing round trips under gather.

The emulator's own time per USB request block (umockdev's preload forwards every ioctl over a
socket) dominates (b); read it as a figure of the emulator, not of a real unit.

Run from the repository with the package installed: python bench/usb_idle.py [seconds] [rounds]
(it starts itself again under `torvik-sim --usb ...` when not already running under one).
"""
import asyncio
import os
import resource
import statistics
import subprocess
import sys
import time

import pytorvik as t
from pytorvik import simctl

HANDLES = 10
SERIALS = ["BENCH%02d" % i for i in range(HANDLES)]


class TorvikUsbSink(t.USBDevice, t.Packet):
    pass


def cpu_seconds():
    r = resource.getrusage(resource.RUSAGE_SELF)
    return r.ru_utime + r.ru_stime


async def round_trips(dev, n):
    out = []
    for i in range(n):
        t0 = time.perf_counter()
        await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [i & 0xFF])
        out.append(time.perf_counter() - t0)
    return out


def summary(samples):
    s = sorted(samples)
    return statistics.median(s) * 1e6, s[min(len(s) - 1, int(len(s) * 0.99))] * 1e6


def main(seconds, rounds):
    devs = []
    for serial in SERIALS:
        d = TorvikUsbSink(verbose=False)
        d.connect(serial, verbose=False)
        devs.append(d)
    try:
        time.sleep(0.5)
        c0, w0 = cpu_seconds(), time.monotonic()
        time.sleep(seconds)
        cpu, wall = cpu_seconds() - c0, time.monotonic() - w0
        print("(a) %d connected idle USB handles: %.3f %% of one core (%.4f s CPU in %.1f s)"
              % (HANDLES, 100 * cpu / wall, cpu, wall))

        med, p99 = summary(asyncio.run(round_trips(devs[0], rounds)))
        print("(b) USB round trip, one handle: median %.0f us, p99 %.0f us (%d rounds)" % (med, p99, rounds))

        async def all_handles():
            t0 = time.perf_counter()
            results = await asyncio.gather(*[round_trips(d, rounds // HANDLES) for d in devs])
            return sum(len(r) for r in results) / (time.perf_counter() - t0)

        print("(c) %d handles under gather: %.0f round trips/s" % (HANDLES, asyncio.run(all_handles())))
    finally:
        for d in devs:
            d.disconnect(verbose=False)
            d.close(verbose=False)


if __name__ == "__main__":
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 5.0
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    if os.environ.get("TORVIK_SIM_USB") == "1" and all(s in os.environ.get("TORVIK_SIM_UNITS", "") for s in SERIALS):
        main(seconds, rounds)
    else:
        argv = [simctl.sim_binary()]
        for serial in SERIALS:
            argv += ["--usb", "TorvikUsbSink:" + serial]
        argv += ["--", sys.executable, os.path.abspath(__file__), str(seconds), str(rounds)]
        proc = subprocess.run(argv, env=simctl.clean_env(), stdout=subprocess.PIPE, text=True)
        print("".join(line + "\n" for line in proc.stdout.splitlines()
                      if not line.startswith(("ready", "control ", "unit "))), end="")
        sys.exit(proc.returncode)
