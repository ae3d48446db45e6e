"""TC read channel data with logger: both thermocouple channels of a port, read ten times, each read
logged as a row (time, CH0, CH1) to a CSV file.

Usage: python TC_read_channel_data_with_logger.py [HANDLE] [SERIAL] [FILE.csv]    (default: the sample serial 21JA1239)
"""
import asyncio
import time

import csv_log
import target

PORT, READS, PERIOD = 1, 10, 0.1


async def main(dev, logger):
    await dev.Thermal_open_async(PORT)
    for channel in (0, 1):
        await dev.Thermal_setType_async(PORT, channel, 3)  # type K
    logger.Logger_writeHeader(["time (s)", "CH0 (C)", "CH1 (C)"])
    start = time.monotonic()
    for _ in range(READS):
        values = [await dev.Thermal_readSensor_async(PORT, channel) for channel in (0, 1)]
        logger.Logger_writeList([round(time.monotonic() - start, 3)] + values)
        await asyncio.sleep(PERIOD)
    await dev.Thermal_close_async(PORT)
    print("%d reads logged" % READS)


dev = target.open_handle(None, "TorvikUsbThermo", "21JA1239")
logger = csv_log.open_log("TC_read_channel_data_with_logger.csv")
try:
    asyncio.run(main(dev, logger))
finally:
    csv_log.close_log(logger)
    dev.close()
