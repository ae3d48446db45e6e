"""CAN read: receive frames on the CAN port for two seconds and print each one.

Usage: python CAN_read.py [SERIAL]    (default: the sample serial number 21JA1312)
"""
import asyncio

import pytorvik
import target

SECONDS = 2


async def main(dev):
    port = min(dev.CAN_getPinMap())
    print("open CAN port %d:" % port, await dev.CAN_open_async(port))
    print("speed 500 kbit/s:", await dev.CAN_setSpeed_async(port, 2))
    await dev.CAN_start_async(port)  # frames arrive from here on
    total = 0
    for _ in range(SECONDS * 10):
        for frame in await dev.CAN_read_async(port, -1, 0.1):
            total += 1
            print(frame)
    print("stop:", await dev.CAN_stop_async(port))
    print("close:", await dev.CAN_close_async(port))
    print("%d frames in %d s" % (total, SECONDS))


dev = pytorvik.TorvikUsbCan()
dev.connect(target.parse("21JA1312")[0])
try:
    asyncio.run(main(dev))
finally:
    dev.close()
