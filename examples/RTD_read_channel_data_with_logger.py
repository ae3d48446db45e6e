"""RTD read channel data with logger: both RTD channels of a port, read ten times, each read
logged as a row (time, CH0, CH1) to a CSV file.

Usage: python RTD_read_channel_data_with_logger.py [HANDLE] [SERIAL] [FILE.csv]    (default: the sample serial 21JA1385)
"""
from __future__ import annotations

import asyncio
import time

import pytorvik
import target

PORT, READS, PERIOD = 1, 10, 0.1


async def main() -> None:
    with pytorvik.DataLogger() as logger:  # leaving the block writes every queued row, then closes
        logger.Logger_openFile(target.file_name("RTD_read_channel_data_with_logger.csv"))
        async with target.handle("21JA1385", pytorvik.TorvikUsbRtd) as dev:
            target.connect(dev)
            await dev.Thermal_open_async(PORT)
            for channel in (0, 1):
                await dev.Thermal_setType_async(PORT, channel, pytorvik.RTDType.THREE_WIRE)
            logger.Logger_writeHeader(["time (s)", "CH0 (C)", "CH1 (C)"])
            start = time.monotonic()
            for _ in range(READS):
                values = [await dev.Thermal_readSensor_async(PORT, channel) for channel in (0, 1)]
                logger.Logger_writeList([round(time.monotonic() - start, 3)] + values)
                await asyncio.sleep(PERIOD)
            await dev.Thermal_close_async(PORT)
            print("%d reads logged" % READS)


target.run(main())
