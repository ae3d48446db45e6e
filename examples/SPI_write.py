"""SPI write: send bytes on SPI port 2 without looking at what comes back.

Usage: python SPI_write.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1200)

The port's pins are P3.3, P3.4 and P3.5; here the data go most significant bit first, 8 bits a
word, clock idle low, sampled on the first edge.
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "SPI", 2)  # the catalogue's SPI port of this handle
        print("open:", await dev.SPI_open_async(port))
        print("8-bit words:", await dev.SPI_setDataSize_async(port, pytorvik.SPIDataSize.BITS_8))
        print("MSB first:", await dev.SPI_setFirstBit_async(port, pytorvik.SPIFirstBit.MSB))
        print("mode 0:", await dev.SPI_setMode_async(port, pytorvik.SPIMode.MODE0))
        for data in ([0x06], [0x02, 0x00, 0x10, 0xAA, 0x55]):
            print("write %s: %d" % (["0x%02X" % b for b in data], await dev.SPI_write_async(port, data)))
        print("close:", await dev.SPI_close_async(port))


target.run(main())
