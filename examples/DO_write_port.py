"""DO write port: drive a whole digital output port with one pattern.

Usage: python DO_write_port.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        port = min(dev.DO_getPinMap())
        print("open DO port %d:" % port, await dev.DO_openPort_async(port))
        for pattern in ([1, 0, 1, 0, 1, 0], 0b010101):  # levels pin by pin, or a mask
            print("write %-18s -> levels %s" % (pattern, await dev.DO_writePort_async(port, pattern)))
        print("close:", await dev.DO_closePort_async(port))


target.run(main())
