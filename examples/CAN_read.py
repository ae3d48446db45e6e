"""CAN read: receive frames on the CAN port for a few seconds and print each one.

Usage: python CAN_read.py [HANDLE] [SERIAL [SECONDS]]    (default: the sample serial 21JA1312, 2 seconds)

The bus runs at 500 kbit/s; it needs its terminations and at least one other node. Under
torvik-sim the emulator's tester node sends 20 frames a second during the first half of the time.
"""
from __future__ import annotations

import time

import pytorvik
import target

async def main(seconds: float) -> None:
    async with target.handle("21JA1312", pytorvik.TorvikUsbCan) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "CAN", 1)  # the catalogue's CAN port of this handle
        print("open CAN port %d:" % port, await dev.CAN_open_async(port))
        print("speed 500 kbit/s:", await dev.CAN_setSpeed_async(port, pytorvik.CANSpeed.K500))
        await dev.CAN_start_async(port)  # frames arrive from here on
        unit = target.emulated(dev)
        if unit:
            unit.can_stream(rate=20, id_=0x2AA, count=int(seconds * 10))
        total = 0
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            for frame in await dev.CAN_read_async(port, -1, 0.1):  # all that came in during 0.1 s
                total += 1
                print(frame)
        print("stop:", await dev.CAN_stop_async(port))
        print("close:", await dev.CAN_close_async(port))
        print("%d frames in %g s" % (total, seconds))


more = target.rest()
target.run(main(float(more[0]) if more else 2.0))
