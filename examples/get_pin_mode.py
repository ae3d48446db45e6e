"""Get pin mode: the function of every pin of every hardware port of a unit.

Usage: python get_pin_mode.py [HANDLE] [SERIAL | ADDRESS[:PORT]]    (default: the sample serial 21JA1298)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("21JA1298", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
        target.connect(dev)
        for port in sorted(set(dev.DI_getPinMap()) | set(dev.DO_getPinMap())):
            modes = await dev.Sys_getPinModeInPort_async(port)
            # Modes come two to a byte; the operation leaves the port's pin count in num_of_pins.
            pins: int = getattr(dev, "num_of_pins")
            print("port %d: %s" % (port, ", ".join("P%d.%d %s" % (port, pin, m) for pin, m in enumerate(modes[:pins]))))


target.run(main())
