"""RTD read channel data: both RTD channels of a port in 3-wire mode, read five times, a fifth of a second
apart.

Usage: python RTD_read_channel_data.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1385)
"""
from __future__ import annotations

import asyncio

import pytorvik
import target

PORT, READS, PERIOD = 1, 5, 0.2


async def main() -> None:
    async with target.handle("21JA1385", pytorvik.TorvikUsbRtd) as dev:
        target.connect(dev)
        print("open:", await dev.Thermal_open_async(PORT))
        for channel in (0, 1):
            await dev.Thermal_setType_async(PORT, channel, pytorvik.RTDType.THREE_WIRE)
            await dev.Thermal_setNoiseFilter_async(PORT, channel, pytorvik.ThermalNoiseFilter.HZ_50)
        for i in range(READS):
            values = [await dev.Thermal_readSensor_async(PORT, channel) for channel in (0, 1)]
            print("read %d: CH0 %.3f C, CH1 %.3f C" % (i, values[0], values[1]))
            await asyncio.sleep(PERIOD)
        print("close:", await dev.Thermal_close_async(PORT))


target.run(main())
