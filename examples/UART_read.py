"""UART read: what a device on serial port 2 sends, for a few seconds.

Usage: python UART_read.py [HANDLE] [SERIAL [SECONDS]]    (default: the sample serial 21JA1200, 2 seconds)

Wire the device's TX to the port's RX pin (P1.3) and its RX to the port's TX pin (P1.2), at
115200 baud, 8 data bits, no parity, 1 stop bit. Under torvik-sim the emulator plays that device
and sends a greeting.
"""
from __future__ import annotations

import time

import pytorvik
import target


async def main(seconds: float) -> None:
    async with target.handle("21JA1200", pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "UART", 2)  # the catalogue's UART port of this handle
        print("open:", await dev.UART_open_async(port))
        print("baud rate:", await dev.UART_setBaudRate_async(port, 115200))
        unit = target.emulated(dev)
        if unit:
            unit.uart_send(port, b"Hello from the far end\r\n")
        received: list[str] = []
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            chars = await dev.UART_read_async(port, -1, 0.1)  # all that came in during 0.1 s
            if chars:
                print("read %d bytes: %r" % (len(chars), "".join(chars)))
            received += chars
        print("received %d bytes in %g s" % (len(received), seconds))
        print("close:", await dev.UART_close_async(port))


more = target.rest()
target.run(main(float(more[0]) if more else 2.0))
