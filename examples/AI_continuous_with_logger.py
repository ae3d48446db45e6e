"""AI continuous with logger: stream every channel for two seconds and log each frame to a CSV file.

The logger writes from its own thread, so reading the stream never waits for the disk.

Usage: python AI_continuous_with_logger.py [HANDLE] [ADDRESS[:PORT] | SERIAL] [FILE.csv]
"""
import asyncio

import ai_acquire
import csv_log
import target

RATE, SECONDS = 1000, 2


async def main(dev, logger):
    port = min(dev.AI_getPort())
    await dev.AI_open_async(port)
    await ai_acquire.configure(dev, port, ai_acquire.CONTINUOUS, RATE)
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


dev = target.open_handle("TorvikLanAnalog", "TorvikUsbAnalog", "192.168.1.110")
logger = csv_log.open_log("AI_continuous_with_logger.csv")
try:
    asyncio.run(main(dev, logger))
finally:
    csv_log.close_log(logger)
    dev.close()
