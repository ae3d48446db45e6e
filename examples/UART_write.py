"""UART write: send lines of text on serial port 2, and show what comes back.

Usage: python UART_write.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1200)

A wire from the port's TX pin (P1.2) to its RX pin (P1.3) brings every line back; under torvik-sim
the example has the emulator lay that wire. At most 50 characters go in one write.
"""
from __future__ import annotations

import asyncio

import pytorvik
import target


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "UART", 2)  # the catalogue's UART port of this handle
        unit = target.emulated(dev)
        if unit:
            unit.uart_loopback(port, "paced")  # TX to RX, at the baud rate
        print("open:", await dev.UART_open_async(port))
        print("baud rate:", await dev.UART_setBaudRate_async(port, 115200))
        for n in range(3):
            line = "Hello from pytorvik, line %d\r\n" % n
            print("write %r: %d" % (line, await dev.UART_write_async(port, line)))
        await asyncio.sleep(0.1)  # 90 bytes take some 8 ms at 115200 baud
        back = "".join(await dev.UART_read_async(port, -1))
        print("came back: %r" % back)
        print("close:", await dev.UART_close_async(port))


target.run(main())
