"""RTD read channel data with logger: both RTD channels of a port, read ten times, a fifth of a
second apart, each reading logged as a row of a CSV file.

Usage: python RTD_read_channel_data_with_logger.py [SERIAL] [FILE.csv]    (default: the sample serial 21JA1385)
"""
import asyncio
import sys
import time

import pytorvik
import target
from pytorvik import DataLogger

PORT, READS, PERIOD = 1, 10, 0.2
THREE_WIRE, FILTER_50HZ = 1, 1
FILE = sys.argv[2] if len(sys.argv) > 2 else "RTD_read_channel_data_with_logger.csv"


async def main(dev, logger):
    await dev.Thermal_open_async(PORT)
    for channel in (0, 1):
        await dev.Thermal_setType_async(PORT, channel, THREE_WIRE)
        await dev.Thermal_setNoiseFilter_async(PORT, channel, FILTER_50HZ)
    logger.Logger_writeHeader(["time (s)", "CH0 (C)", "CH1 (C)"])
    start = time.monotonic()
    for _ in range(READS):
        values = [await dev.Thermal_readSensor_async(PORT, channel) for channel in (0, 1)]
        logger.Logger_writeList([round(time.monotonic() - start, 3)] + values)
        await asyncio.sleep(PERIOD)
    await dev.Thermal_close_async(PORT)
    # Rows still queued at the close are not written: let the logger catch up first.
    while logger.save_data_queue.qsize():
        await asyncio.sleep(0.05)
    await asyncio.sleep(0.1)
    print("%d readings logged" % READS)


dev = pytorvik.TorvikUsbRtd()
dev.connect(target.parse("21JA1385")[0])
logger = DataLogger()
logger.Logger_openFile(FILE)
try:
    asyncio.run(main(dev, logger))
finally:
    logger.Logger_closeFile()
    dev.close()
