"""AI N samples once: acquire a fixed number of frames at a set rate, then stop.

Usage: python AI_N_samples_once.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import ai_acquire
import pytorvik
import target

SAMPLES, RATE = 1000, 10000


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
        target.connect(dev)
        port = min(dev.AI_getPort())
        await dev.AI_open_async(port)
        await ai_acquire.configure(dev, port, pytorvik.AIMode.N_SAMPLES, RATE, SAMPLES)
        await dev.AI_start_async(port)
        frames = await ai_acquire.read_frames(dev, port, SAMPLES, 5)
        await dev.AI_stop_async(port)
        await dev.AI_close_async(port)
        print("%d frames at %d Hz; first: %s; last: %s" % (len(frames), RATE, frames[0], frames[-1]))


target.run(main())
