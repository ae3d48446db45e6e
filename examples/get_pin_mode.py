"""Get pin mode: the function of every pin of every hardware port of a unit.

Usage: python get_pin_mode.py [HANDLE] [SERIAL | ADDRESS[:PORT]]    (default: the sample serial 21JA1298)
"""
import asyncio

import target


async def main(dev):
    for port in sorted(set(dev.DI_getPinMap()) | set(dev.DO_getPinMap())):
        modes = await dev.Sys_getPinModeInPort_async(port)
        print("port %d: %s" % (port, ", ".join("P%d.%d %s" % (port, pin, m) for pin, m in enumerate(modes[:dev.num_of_pins]))))


dev = target.open_handle("TorvikLanLogic", "TorvikUsbSink", "21JA1298")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
