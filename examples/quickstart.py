"""Quick start: connect to a digital Ethernet unit, read its identity, drive its outputs.

Usage: python quickstart.py [ADDRESS[:PORT]]    (default: 192.168.1.110, port 7)

Against the emulator, in one command:
    torvik-sim --unit TorvikLanLogic@127.0.0.5:7007 -- python examples/quickstart.py 127.0.0.5:7007
"""
from __future__ import annotations

import asyncio
import sys

import pytorvik


async def main(address: str, port: int) -> None:
    # Leaving the block closes the handle (also when connect or an operation raised): only
    # closing ends the handle's threads, so that the script can end.
    async with pytorvik.TorvikLanLogic() as dev:  # prints "Opened handle (Torvik-LAN-Logic)"
        dev.connect(address, port=port)
        print(await dev.Sys_getDriverInfo_async())  # ['Torvik-LAN-Logic', version, date]
        print(await dev.DO_openPort_async(0))  # 0, or a firmware status (-7001 to -7023)
        print(await dev.DO_writePort_async(0, [1, 0, 1, 0, 1, 0]))  # the port's levels, pin 0 first
        print(await dev.DO_closePort_async(0))


address, _, port = (sys.argv[1] if len(sys.argv) > 1 else "192.168.1.110").partition(":")
asyncio.run(main(address, int(port) if port else pytorvik.TCP_CMD_PORT))
