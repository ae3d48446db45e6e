"""DO write port: drive a whole digital output port with one pattern.

Usage: python DO_write_port.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import target


async def main(dev):
    port = min(dev.DO_getPinMap())
    print("open DO port %d:" % port, await dev.DO_openPort_async(port))
    for pattern in ([1, 0, 1, 0, 1, 0], 0b010101):
        print("write %-18s -> levels %s" % (pattern, await dev.DO_writePort_async(port, pattern)))
    print("close:", await dev.DO_closePort_async(port))


dev = target.open_handle("TorvikLanLogic", "TorvikUsbSink", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
