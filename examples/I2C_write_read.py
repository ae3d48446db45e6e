"""I2C write and read: store bytes in an EEPROM on I2C port 1 and read them back.

Usage: python I2C_write_read.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1200)

The EEPROM (a 24C02 or alike: 256 bytes, 8-bit memory addresses) answers at address 0x50; its
SDA and SCL go to P2.6 and P2.7 (the emulator has one there). A write starts with the memory
address; a read goes on from the address the last write left.
"""
from __future__ import annotations

import asyncio

import pytorvik
import target

EEPROM = 0x50


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "I2C", 1)  # the catalogue's I2C port of this handle
        print("open:", await dev.I2C_open_async(port))
        print("clock 400 kHz:", await dev.I2C_setClockRate_async(port, pytorvik.I2CClockRate.FAST))
        data = [0xDE, 0xAD, 0xBE, 0xEF]
        print("write %s at 0x00: %d" % (data, await dev.I2C_write_async(port, EEPROM, [0x00] + data)))
        await asyncio.sleep(0.005)  # the EEPROM's write cycle
        print("address 0x00:", await dev.I2C_write_async(port, EEPROM, [0x00]))
        print("read:", await dev.I2C_read_async(port, EEPROM, len(data)))
        print("close:", await dev.I2C_close_async(port))


target.run(main())
