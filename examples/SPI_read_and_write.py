"""SPI read and write: full-duplex transfers on SPI port 2.

Usage: python SPI_read_and_write.py [SERIAL]    (default: the sample serial 21JA1200)

Every byte clocked out on MOSI clocks one in on MISO. With MOSI wired to MISO, what goes out
comes back. The port's pins are P3.3, P3.4 and P3.5.
"""
import asyncio

import target

PORT = 2  # the SPI port of the catalogue


async def main(dev):
    print("open:", await dev.SPI_open_async(PORT))
    print("mode 0:", await dev.SPI_setMode_async(PORT, 0))
    print("clock / 64:", await dev.SPI_setPrescaler_async(PORT, 64))
    for out in ([0x9F, 0x00, 0x00, 0x00], [0x01, 0x02, 0x03]):
        print("write %s read %s" % (out, await dev.SPI_readAndWrite_async(PORT, out)))
    print("read 4:", await dev.SPI_read_async(PORT, 4))
    print("close:", await dev.SPI_close_async(PORT))


dev = target.open_usb("TorvikUsbLogic", "21JA1200")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
