"""Tutorial, multiple loops (asyncio): three coroutines share one unit, each at its own pace.

Their requests interleave on the one connection. Replies are matched to requests by command code
alone, so each coroutine asks something of its own: two operations of the same code at once on
one handle would race for each other's replies.

Usage: python multiple_loops_async.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
from __future__ import annotations

import asyncio
from typing import Any, Awaitable, Callable

import pytorvik
import target


async def ask(name: str, operation: Callable[[], Awaitable[Any]], period: float, times: int) -> None:
    for i in range(times):
        print("%s %d: %s" % (name, i, await operation()))
        await asyncio.sleep(period)


async def main() -> None:
    async with target.handle("21JA1200", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbLogic) as dev:
        target.connect(dev)
        await asyncio.gather(ask("clock", dev.Sys_getRTC_async, 0.05, 6),
                             ask("info", dev.Sys_getDriverInfo_async, 0.08, 4),
                             ask("serial", dev.Sys_getSerialNumber_async, 0.03, 5))
        print("all loops done")


target.run(main())
