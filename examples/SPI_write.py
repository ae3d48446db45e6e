"""SPI write: send bytes on SPI port 2 without looking at what comes back.

Usage: python SPI_write.py [SERIAL]    (default: the sample serial 21JA1200)

The port's pins are P3.3, P3.4 and P3.5; here the data go most significant bit first, 8 bits a
word, clock idle low, sampled on the first edge.
"""
import asyncio

import target

PORT = 2  # the SPI port of the catalogue


async def main(dev):
    print("open:", await dev.SPI_open_async(PORT))
    print("8-bit words:", await dev.SPI_setDataSize_async(PORT, 0))
    print("MSB first:", await dev.SPI_setFirstBit_async(PORT, 0))
    print("mode 0:", await dev.SPI_setMode_async(PORT, 0))
    for data in ([0x06], [0x02, 0x00, 0x10, 0xAA, 0x55]):
        print("write %s: %d" % (["0x%02X" % b for b in data], await dev.SPI_write_async(PORT, data)))
    print("close:", await dev.SPI_close_async(PORT))


dev = target.open_usb("TorvikUsbLogic", "21JA1200")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
