"""AI on demand in loop: read every channel ten times, a tenth of a second apart.

Usage: python AI_on_demand_in_loop.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import asyncio

import pytorvik
import target

READS, PERIOD = 10, 0.1


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
        target.connect(dev)
        port = min(dev.AI_getPort())
        await dev.AI_open_async(port)
        for i in range(READS):
            print("read %d: %s" % (i, await dev.AI_readOnDemand_async(port)))
            await asyncio.sleep(PERIOD)
        await dev.AI_close_async(port)


target.run(main())
