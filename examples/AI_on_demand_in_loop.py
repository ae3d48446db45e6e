"""AI on demand in loop: read every channel ten times, a tenth of a second apart.

Usage: python AI_on_demand_in_loop.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import target

READS, PERIOD = 10, 0.1


async def main(dev):
    port = min(dev.AI_getPort())
    await dev.AI_open_async(port)
    for i in range(READS):
        print("read %d: %s" % (i, await dev.AI_readOnDemand_async(port)))
        await asyncio.sleep(PERIOD)
    await dev.AI_close_async(port)


dev = target.open_handle("TorvikLanAnalog", "TorvikUsbAnalog", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
