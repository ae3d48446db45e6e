"""AO write one channel: set one output channel to a few voltages and read the outputs back.

Usage: python AO_write_one_channel.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanOutput, pytorvik.TorvikUsbMixed) as dev:
        target.connect(dev)
        port = min(dev.AO_getPort())
        print("open:", await dev.AO_open_async(port))
        for volts in (1.0, 2.5, dev.ao_volt_max):
            print("channel 0 <- %s V: %s" % (volts, await dev.AO_writeOneChannel_async(port, 0, volts)))
            print("outputs:", await dev.AO_getValues_async(port))
        print("close:", await dev.AO_close_async(port))


target.run(main())
