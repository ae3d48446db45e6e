"""DIO loopback port: drive a digital output port and read back the input port wired to it.

Usage: python DIO_loopback_port.py [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

Wire each output pin to the input pin of the same number (the emulator does this by default).
"""
import asyncio

import target


async def main(dev):
    do_port, di_port = min(dev.DO_getPinMap()), min(dev.DI_getPinMap())
    await dev.DO_openPort_async(do_port)
    await dev.DI_openPort_async(di_port)
    width = len(dev.DO_getPinMap()[do_port])
    for pattern in (0, (1 << width) - 1, 0b101010, 0b010101):
        written = await dev.DO_writePort_async(do_port, pattern)
        read = await dev.DI_readPort_async(di_port)
        print("DO port %d wrote %s | DI port %d reads %s" % (do_port, written[:width], di_port, read[:width]))
    await dev.DI_closePort_async(di_port)
    await dev.DO_closePort_async(do_port)


dev = target.open_handle("TorvikLanLogic", "TorvikUsbSink", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
