"""CAN write: send a standard, an extended and a remote frame on the CAN port.

Usage: python CAN_write.py [SERIAL]    (default: the sample serial number 21JA1312)
"""
import asyncio

import pytorvik
import target

FRAMES = [  # (identifier, data, remote, extended)
    (0x123, [0x11, 0x22, 0x33], False, False),
    (0x1ABCDEF0 >> 1, [1, 2, 3, 4, 5, 6, 7, 8], False, True),
    (0x7FF, [], True, False),
]


async def main(dev):
    port = min(dev.CAN_getPinMap())
    print("open CAN port %d:" % port, await dev.CAN_open_async(port))
    for id_, data, remote, extended in FRAMES:
        status = await dev.CAN_write_async(port, id_, data, remote, extended)
        print("write %s: %d" % (pytorvik.CANFrame(id_, int(extended), int(remote), data), status))
    print("counters:", await dev._CAN_getCounters_async(port))
    print("close:", await dev.CAN_close_async(port))


dev = pytorvik.TorvikUsbCan()
dev.connect(target.parse("21JA1312")[0])
try:
    asyncio.run(main(dev))
finally:
    dev.close()
