"""Tutorial, multiple loops (asyncio): three coroutines share one unit, each at its own pace.

Their requests interleave on the one connection; each reply goes to the coroutine that waits for it.

Usage: python multiple_loops_async.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
import asyncio

import target


async def ask(dev, name, period, times):
    for i in range(times):
        value = await dev.Sys_getRTC_async() if name == "clock" else await dev.Sys_getDriverInfo_async()
        print("%s %d: %s" % (name, i, value))
        await asyncio.sleep(period)


async def main(dev):
    await asyncio.gather(ask(dev, "clock", 0.05, 6), ask(dev, "info", 0.08, 4), ask(dev, "clock", 0.03, 5))
    print("all loops done")


target.run(main, target.open_handle("TorvikLanLogic", "TorvikUsbLogic", "21JA1200"))
