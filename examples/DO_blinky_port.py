"""DO blinky port: blink every pin of a digital output port a few times.

Usage: python DO_blinky_port.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import target

BLINKS, PERIOD = 4, 0.2


async def main(dev):
    port = min(dev.DO_getPinMap())
    await dev.DO_openPort_async(port)
    for i in range(BLINKS * 2):
        level = 0xFFFF if i % 2 == 0 else 0
        print("port %d %s: %s" % (port, "on " if level else "off", await dev.DO_writePort_async(port, level)))
        await asyncio.sleep(PERIOD / 2)
    await dev.DO_closePort_async(port)


dev = target.open_handle("TorvikLanLogic", "TorvikUsbSink", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
