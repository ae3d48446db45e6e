"""AI continuous with logger: stream every channel for two seconds and log each frame to a CSV file.

The logger writes from its own thread, so reading the stream never waits for the disk; leaving its
`with` block waits until every queued row is in the file, then closes it.

Usage: python AI_continuous_with_logger.py [HANDLE] [ADDRESS[:PORT] | SERIAL] [FILE.csv]
"""
from __future__ import annotations

import ai_acquire
import pytorvik
import target

RATE, SECONDS = 1000, 2


async def main() -> None:
    with pytorvik.DataLogger() as logger:  # leaving the block writes every queued row, then closes
        logger.Logger_openFile(target.file_name("AI_continuous_with_logger.csv"))
        async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
            target.connect(dev)
            port = min(dev.AI_getPort())
            await dev.AI_open_async(port)
            await ai_acquire.configure(dev, port, pytorvik.AIMode.CONTINUOUS, RATE)
            await dev.AI_start_async(port)
            frames = await dev.AI_readStreaming_async(port, 1, 1.0)
            logger.Logger_writeHeader(["frame"] + ["AI%d (V)" % ch for ch in range(len(frames[0]) if frames else 0)])
            total = 0
            for _ in range(SECONDS * 4):
                for frame in frames:
                    logger.Logger_writeList([total] + frame)
                    total += 1
                frames = await dev.AI_readStreaming_async(port, -1, 0.25)
            await dev.AI_stop_async(port)
            await dev.AI_close_async(port)
            print("%d frames logged" % total)


target.run(main())
