"""CAN write: send a standard, an extended and a remote frame on the CAN port.

Usage: python CAN_write.py [HANDLE] [SERIAL]    (default: the sample serial 21JA1312)

Another node on the bus must acknowledge the frames.
"""
from __future__ import annotations

import pytorvik
import target

FRAMES = [  # (identifier, data, remote, extended)
    (0x123, [0x11, 0x22, 0x33], False, False),
    (0xD5E6F78, [1, 2, 3, 4, 5, 6, 7, 8], False, True),
    (0x7FF, [], True, False),
]


async def main() -> None:
    async with target.handle("21JA1312", pytorvik.TorvikUsbCan) as dev:
        target.connect(dev)
        port = target.cat_port(dev, "CAN", 1)  # the catalogue's CAN port of this handle
        print("open CAN port %d:" % port, await dev.CAN_open_async(port))
        for id_, data, remote, extended in FRAMES:
            status = await dev.CAN_write_async(port, id_, data, remote, extended)
            print("write %s: %d" % (pytorvik.CANFrame(id_, int(extended), int(remote), data), status))
        print("counters:", await dev._CAN_getCounters_async(port))
        print("close:", await dev.CAN_close_async(port))


target.run(main())
