"""AO write all channels: set every output channel at once; a short list leaves the rest at 0 V.

Usage: python AO_write_all_channels.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanOutput, pytorvik.TorvikUsbMixed) as dev:
        target.connect(dev)
        port = min(dev.AO_getPort())
        await dev.AO_open_async(port)
        for values in ([0.5 * (i + 1) for i in range(8)], [1.25, -1.25]):
            values = [max(dev.ao_volt_min, v) for v in values]  # a unit of 0 to 5 V takes no -1.25 V
            print("write %s: %s" % (values, await dev.AO_writeAllChannels_async(port, values)))
            print("outputs:", await dev.AO_getValues_async(port))
        await dev.AO_close_async(port)


target.run(main())
