"""Analog input throughput against torvik-sim on loopback, in one run:

(a) a continuous acquisition at the emulator's fast pace (as fast as the link takes it, 600 frames a
    payload), read by a TorvikLanAnalog handle with AI_readStreaming_async: frames per second the
    emulator sent, and frames per second the reader took (the reader is the slower: keep the run
    short, or the handle's queue overflows and warns);
(b) a burst of a million frames into another handle's queue with nobody reading: frames per
    second until the queue holds them all.

Run from the repository with the package installed: python bench/ai_stream.py [seconds]
"""
import asyncio
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python"))

import pytorvik as t  # noqa: E402
import simctl  # noqa: E402


async def continuous(dev, unit, seconds):
    unit.set_pace("fast")
    assert await dev.AI_setMode_async(0, 2) == 0
    await dev.AI_start_async(0)
    frames, t0 = 0, time.monotonic()
    while time.monotonic() - t0 < seconds:
        frames += len(await dev.AI_readStreaming_async(0, -1, 0.001))
    elapsed = time.monotonic() - t0
    await dev.AI_stop_async(0)
    return unit.stats()["stream.frames"] / elapsed, frames / elapsed


async def burst(dev, unit, n=1000000):
    queue = dev.ai_signal_queue
    t0 = time.monotonic()
    unit.burst(n)
    while queue.qsize() < n and time.monotonic() - t0 < 60:
        await asyncio.sleep(0.005)
    return queue.qsize() / (time.monotonic() - t0)


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 0.5
    with simctl.Sim(simctl.unit_spec("TorvikLanAnalog"), simctl.unit_spec("TorvikLanAnalog")) as sim:
        devs = []
        for unit in sim.units:
            devs.append(t.TorvikLanAnalog())
            devs[-1].connect(unit.addr, port=unit.cmd_port, verbose=False)
            unit.wait_connected()

        async def run():
            for dev in devs:
                await dev.AI_open_async(0)
            a = await continuous(devs[0], sim.units[0], seconds)
            b = await burst(devs[1], sim.units[1])
            return a, b

        try:
            (sent, read), b = asyncio.run(run())
        finally:
            for dev in devs:
                dev.disconnect(verbose=False)
                dev.close()
        print("(a) fast pace: sent %.0f frames/s, read by AI_readStreaming_async %.0f frames/s" % (sent, read))
        print("(b) burst into ai_signal_queue, no reader: %.0f frames/s" % b)
        print("    (8 channels, 16 bytes a frame)")


if __name__ == "__main__":
    main()
