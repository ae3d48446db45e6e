"""RTD read channel status: the fault register of each RTD channel of a port (its bits are
explained in the unit's manual; 0 means no fault).

Usage: python RTD_read_channel_status.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1385)
"""
import asyncio

import target

PORT = 1


async def main(dev):
    print("open:", await dev.Thermal_open_async(PORT))
    for channel in (0, 1):
        fault = await dev.Thermal_getStatus_async(PORT, channel)
        print("CH%d: fault register 0x%02X%s" % (channel, fault, "" if fault else " (no fault)"))
    print("close:", await dev.Thermal_close_async(PORT))


dev = target.open_handle(None, "TorvikUsbRtd", "21JA1385")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
