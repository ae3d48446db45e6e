"""Get network info: identity, clock and network settings of an Ethernet unit.

Usage: python get_network_info.py [HANDLE] [ADDRESS[:PORT]]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanLogic) as dev:
        target.connect(dev)
        print("driver info:  ", await dev.Sys_getDriverInfo_async())
        print("serial number:", await dev.Sys_getSerialNumber_async())
        print("clock:        ", await dev.Sys_getRTC_async())
        ip, mask = await dev.Net_getIPAddrAndSubmask_async()
        print("IP address:   ", ip)
        print("subnet mask:  ", mask)
        print("gateway:      ", await dev.Net_getGateway_async())
        print("MAC address:  ", await dev.Net_getMACAddr_async())


target.run(main())
