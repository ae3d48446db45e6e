"""AI continuous: stream every channel at a set rate for two seconds, reading as the frames come.

Usage: python AI_continuous.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import ai_acquire
import pytorvik
import target

RATE, SECONDS = 2000, 2


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
        target.connect(dev)
        port = min(dev.AI_getPort())
        await dev.AI_open_async(port)
        await ai_acquire.configure(dev, port, pytorvik.AIMode.CONTINUOUS, RATE)
        await dev.AI_start_async(port)
        total = 0
        for i in range(SECONDS * 4):
            frames = await dev.AI_readStreaming_async(port, -1, 0.25)  # all queued, waiting up to 0.25 s
            total += len(frames)
            if frames:
                print("%4d frames, latest: %s" % (len(frames), frames[-1]))
        await dev.AI_stop_async(port)
        await dev.AI_close_async(port)
        print("%d frames in %d s at %d Hz" % (total, SECONDS, RATE))


target.run(main())
