"""TC read channel status: whether each thermocouple channel of a port is wired or open.

Usage: python TC_read_channel_status.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1239)
"""
from __future__ import annotations

import pytorvik
import target

PORT = 1


async def main() -> None:
    async with target.handle("21JA1239", pytorvik.TorvikUsbThermo) as dev:
        target.connect(dev)
        print("open:", await dev.Thermal_open_async(PORT))
        for channel in (0, 1):
            fault = await dev.Thermal_getStatus_async(PORT, channel)  # bit 0: open circuit
            print("CH%d: %s" % (channel, "open circuit" if fault else "connected"))
        print("close:", await dev.Thermal_close_async(PORT))


target.run(main())
