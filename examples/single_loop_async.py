"""Tutorial, single loop (asyncio): one coroutine asks the unit for its clock ten times.

Every operation ending in _async is awaited; the reply wakes the coroutine, so nothing polls.

Usage: python single_loop_async.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
import asyncio

import target


async def main(dev):
    for i in range(10):
        print("%d: %s" % (i, await dev.Sys_getRTC_async()))
        await asyncio.sleep(0.05)


target.run(main, target.open_handle("TorvikLanLogic", "TorvikUsbLogic", "21JA1200"))
