"""DO blinky pins: blink two pins of a digital output port in turn.

Usage: python DO_blinky_pins.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
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
        pins = dev.DO_getPinMap()[port][:2]
        await dev.DO_openPins_async(port, pins)
        for i in range(BLINKS * 2):
            values = [1, 0] if i % 2 == 0 else [0, 1]
            print("pins %s <- %s: %s" % (pins, values, await dev.DO_writePins_async(port, pins, values)))
            await asyncio.sleep(PERIOD / 2)
        await dev.DO_closePins_async(port, pins)


target.run(main())
