"""AIO one channel loopback: drive one analog output channel and read it back on the analog input
channel wired to it.

Usage: python AIO_one_channel_loopback.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1439)

Wire output channel 0 to input channel 0 (the emulator does this by default).
"""
from __future__ import annotations

import pytorvik
import target

CHANNEL, TOLERANCE = 0, 0.01


async def main() -> None:
    async with target.handle("21JA1439", pytorvik.TorvikUsbMixed) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "AIO", 0)
        await dev.AO_open_async(port)
        await dev.AI_open_async(port)
        for volts in (0.5, 1.25, 3.3):
            await dev.AO_writeOneChannel_async(port, CHANNEL, volts)
            read = (await dev.AI_readOnDemand_async(port))[CHANNEL]
            print("AO CH%d wrote %.4f V | AI CH%d reads %.4f V | %s" % (
                CHANNEL, volts, CHANNEL, read, "match" if abs(read - volts) <= TOLERANCE else "MISMATCH"))
        await dev.AI_close_async(port)
        await dev.AO_close_async(port)


target.run(main())
