"""SPI read and write: full-duplex transfers on SPI port 2.

Usage: python SPI_read_and_write.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1200)

Every byte clocked out on MOSI clocks one in on MISO. With MOSI wired to MISO (as the emulator
has it), what goes out comes back. The port's pins are P3.3, P3.4 and P3.5.
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "SPI", 2)  # the catalogue's SPI port of this handle
        print("open:", await dev.SPI_open_async(port))
        print("mode 0:", await dev.SPI_setMode_async(port, pytorvik.SPIMode.MODE0))
        print("clock / 64:", await dev.SPI_setPrescaler_async(port, 64))
        for out in ([0x9F, 0x00, 0x00, 0x00], [0x01, 0x02, 0x03]):
            print("write %s read %s" % (out, await dev.SPI_readAndWrite_async(port, out)))
        print("read 4:", await dev.SPI_read_async(port, 4))
        print("close:", await dev.SPI_close_async(port))


target.run(main())
