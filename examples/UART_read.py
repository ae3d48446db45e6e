"""UART read: what a device on serial port 2 sends, for a few seconds.

Usage: python UART_read.py [SERIAL [SECONDS]]    (default: the sample serial 21JA1200, 2 seconds)

Wire the device's TX to the port's RX pin (P1.3) and its RX to the port's TX pin (P1.2), at
115200 baud, 8 data bits, no parity, 1 stop bit.
"""
import asyncio
import sys
import time

import target

PORT = 2  # the UART port of the catalogue


async def main(dev, seconds):
    print("open:", await dev.UART_open_async(PORT))
    print("baud rate:", await dev.UART_setBaudRate_async(PORT, 115200))
    received = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        chars = await dev.UART_read_async(PORT, -1, 0.1)  # all that came in during 0.1 s
        if chars:
            print("read %d bytes: %s" % (len(chars), " ".join("%02X" % ord(c) for c in chars)))
        received += chars
    print("received %d bytes in %g s" % (len(received), seconds))
    print("close:", await dev.UART_close_async(PORT))


dev = target.open_usb("TorvikUsbLogic", "21JA1200")
try:
    asyncio.run(main(dev, float(sys.argv[2]) if len(sys.argv) > 2 else 2.0))
finally:
    dev.close()
