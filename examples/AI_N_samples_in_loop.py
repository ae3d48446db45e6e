"""AI N samples in loop: three acquisitions of a fixed number of frames, one after another.

Usage: python AI_N_samples_in_loop.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import ai_acquire
import pytorvik
import target

SAMPLES, RATE, ROUNDS = 500, 10000, 3


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
        target.connect(dev)
        port = min(dev.AI_getPort())
        await dev.AI_open_async(port)
        await ai_acquire.configure(dev, port, pytorvik.AIMode.N_SAMPLES, RATE, SAMPLES)
        for i in range(ROUNDS):
            await dev.AI_start_async(port)
            frames = await ai_acquire.read_frames(dev, port, SAMPLES, 5)
            await dev.AI_stop_async(port)
            print("round %d: %d frames, channel 0 from %s to %s" % (i, len(frames), frames[0][0], frames[-1][0]))
        await dev.AI_close_async(port)


target.run(main())
