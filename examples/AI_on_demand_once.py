"""AI on demand once: one reading of every channel of the analog input port, in volts.

Usage: python AI_on_demand_once.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
        target.connect(dev)
        port = min(dev.AI_getPort())
        print("open:", await dev.AI_open_async(port))
        print("volts:", await dev.AI_readOnDemand_async(port))
        print("close:", await dev.AI_close_async(port))


target.run(main())
