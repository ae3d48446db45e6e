"""Find all devices: every unit attached by USB, and every unit on the local network that answers a
discovery broadcast (this takes five seconds, however many answer).

Without hardware, run it against emulated units (the broadcast stays on this machine only inside
a network namespace of its own, as tools/run-tests.sh makes one):
    torvik-sim --unit TorvikLanLogic@127.0.0.5 --usb TorvikUsbThermo:21JA1239 -- python examples/find_all_devices.py
"""
from __future__ import annotations

import asyncio

import pytorvik


async def main() -> None:
    # Leaving the block ends the finder's thread. (On Linux its disconnect, and so a bare close(),
    # fails with NetworkConnectionLostError; the block's exit knows that and finishes it all the same.)
    async with pytorvik.DeviceFinder() as finder:
        finder.connect()
        usb = finder.Bcst_enumerateUSBDevices()
        print("%d unit(s) on USB" % len(usb))
        for serial, product in usb:
            print("  serial number: %s, product: %s" % (serial, product))
        network = await finder.Bcst_enumerateNetworkDevices_async()
        print("%d unit(s) on the network" % len(network))
        for ip, mask, mac, model in sorted(network):
            print("  IP address: %s, subnet mask: %s, MAC address: %s, model: %s" % (ip, mask, mac, model))


asyncio.run(main())
