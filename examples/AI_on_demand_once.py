"""AI on demand once: one reading of every channel of the analog input port, in volts.

Usage: python AI_on_demand_once.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import target


async def main(dev):
    port = min(dev.AI_getPort())
    print("open:", await dev.AI_open_async(port))
    print("volts:", await dev.AI_readOnDemand_async(port))
    print("close:", await dev.AI_close_async(port))


dev = target.open_handle("TorvikLanAnalog", "TorvikUsbAnalog", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
