"""DIO loopback pins: drive chosen output pins and read back the input pins wired to them.

Usage: python DIO_loopback_pins.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

Wire each output pin to the input pin of the same number (the emulator does this by default).
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        do_port, di_port, shared = target.loopback_ports(dev)
        pins = shared[:1] + shared[2:4]
        await dev.DO_openPins_async(do_port, pins)
        await dev.DI_openPins_async(di_port, pins)
        for values in ([1, 0, 1], [0, 1, 1], [0, 0, 0]):
            await dev.DO_writePins_async(do_port, pins, values)
            read = await dev.DI_readPins_async(di_port, pins)
            print("DO P%d pins %s <- %s | DI P%d pins %s read %s" % (do_port, pins, values, di_port, pins, read))
        await dev.DI_closePins_async(di_port, pins)
        await dev.DO_closePins_async(do_port, pins)


target.run(main())
