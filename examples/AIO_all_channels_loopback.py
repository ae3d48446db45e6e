"""AIO all channels loopback: drive every analog output channel at once and read them all back on
the analog inputs wired to them.

Usage: python AIO_all_channels_loopback.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1439)

Wire each output channel to the input channel of the same number (the emulator does this by default).
"""
from __future__ import annotations

import pytorvik
import target

TOLERANCE = 0.01


async def main() -> None:
    async with target.handle("21JA1439", pytorvik.TorvikUsbMixed) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "AIO", 0)
        await dev.AO_open_async(port)
        await dev.AI_open_async(port)
        for step in (0.25, 0.5):
            wrote = [round(step * (i + 1), 4) for i in range(dev.ao_channel)]
            await dev.AO_writeAllChannels_async(port, wrote)
            read = (await dev.AI_readOnDemand_async(port))[:len(wrote)]
            ok = all(abs(r - w) <= TOLERANCE for r, w in zip(read, wrote))
            print("AO wrote %s\nAI reads %s\n%s" % (wrote, read, "match" if ok else "MISMATCH"))
        await dev.AI_close_async(port)
        await dev.AO_close_async(port)


target.run(main())
