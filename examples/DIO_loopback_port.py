"""DIO loopback port: drive a digital output port and read back the input port wired to it.

Usage: python DIO_loopback_port.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

Wire each output pin to the input pin of the same number (the emulator does this by default).
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        do_port, di_port, pins = target.loopback_ports(dev)
        await dev.DO_openPort_async(do_port)
        await dev.DI_openPort_async(di_port)
        mask = sum(1 << pin for pin in dev.DO_getPinMap()[do_port])  # an int selects pins as a bit mask
        for pattern in (0, mask, 0b101010 & mask, 0b010101 & mask):
            written = await dev.DO_writePort_async(do_port, pattern)
            read = await dev.DI_readPort_async(di_port)
            print("DO port %d wrote %s | DI port %d reads %s" % (
                do_port, [written[p] for p in pins], di_port, [read[p] for p in pins]))
        await dev.DI_closePort_async(di_port)
        await dev.DO_closePort_async(do_port)


target.run(main())
