"""DO blinky port: blink every pin of a digital output port a few times.

Usage: python DO_blinky_port.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import asyncio

import pytorvik
import target

BLINKS, PERIOD = 4, 0.2


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        port = min(dev.DO_getPinMap())
        await dev.DO_openPort_async(port)
        for i in range(BLINKS * 2):
            level = 0xFFFF if i % 2 == 0 else 0  # a mask of every pin, or none
            print("port %d %s: %s" % (port, "on " if level else "off", await dev.DO_writePort_async(port, level)))
            await asyncio.sleep(PERIOD / 2)
        await dev.DO_closePort_async(port)


target.run(main())
