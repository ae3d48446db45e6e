"""Tutorial, single loop (asyncio): one coroutine asks the unit for its clock ten times.

Every operation ending in _async is awaited; the reply wakes the coroutine, so nothing polls.
`async with` closes the handle when the block ends, however it ends: an open handle's threads
would keep the script from ending.

Usage: python single_loop_async.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
from __future__ import annotations

import asyncio

import pytorvik
import target


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        for i in range(10):
            print("%d: %s" % (i, await dev.Sys_getRTC_async()))
            await asyncio.sleep(0.05)


target.run(main())
