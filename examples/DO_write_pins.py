"""DO write pins: drive chosen pins of a digital output port, by pin list or by bit mask.

A list names pins by index; a single int is a bit mask (5 = 0b101 selects pins 0 and 2, not pin 5).

Usage: python DO_write_pins.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        port = min(dev.DO_getPinMap())
        pins = dev.DO_getPinMap()[port][:3]
        print("open DO pins %s of port %d:" % (pins, port), await dev.DO_openPins_async(port, pins))
        print("pins %s <- [1, 0, 1]: levels %s" % (pins, await dev.DO_writePins_async(port, pins, [1, 0, 1])))
        mask = sum(1 << p for p in pins)
        print("mask 0b%s <- 0b%s: levels %s" % (bin(mask)[2:], bin(mask & 0b10)[2:],
                                                await dev.DO_writePins_async(port, mask, mask & 0b10)))
        print("close:", await dev.DO_closePins_async(port, pins))


target.run(main())
