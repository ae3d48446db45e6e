"""AI continuous with logger: stream every channel for two seconds and log each frame to a CSV file.

The logger writes from its own thread, so reading the stream never waits for the disk.

Usage: python AI_continuous_with_logger.py [ADDRESS[:PORT] | SERIAL] [FILE.csv]
"""
import asyncio
import sys

import ai_acquire
import target
from pytorvik import DataLogger

RATE, SECONDS = 1000, 2
FILE = sys.argv[2] if len(sys.argv) > 2 else "AI_continuous_with_logger.csv"


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
    # Rows still queued at the close are not written: let the logger catch up first.
    while logger.save_data_queue.qsize():
        await asyncio.sleep(0.05)
    await asyncio.sleep(0.1)
    print("%d frames logged" % total)


dev = target.open_handle("TorvikLanAnalog", "TorvikUsbAnalog", "192.168.1.110")
logger = DataLogger()
logger.Logger_openFile(FILE)
try:
    asyncio.run(main(dev, logger))
finally:
    logger.Logger_closeFile()
    dev.close()
