"""RTD read channel status: the fault register of each RTD channel of a port (its bits are
explained in the unit's manual; 0 means no fault).

Usage: python RTD_read_channel_status.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1385)
"""
from __future__ import annotations

import pytorvik
import target

PORT = 1


async def main() -> None:
    async with target.handle("21JA1385", pytorvik.TorvikUsbRtd) as dev:
        target.connect(dev)
        print("open:", await dev.Thermal_open_async(PORT))
        for channel in (0, 1):
            fault = await dev.Thermal_getStatus_async(PORT, channel)
            print("CH%d: fault register 0x%02X%s" % (channel, fault, "" if fault else " (no fault)"))
        print("close:", await dev.Thermal_close_async(PORT))


target.run(main())
