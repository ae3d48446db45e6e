"""Get Air status: what the Wi-Fi unit knows of itself: signal, battery, temperature, motion and
its Wi-Fi settings.

Usage: python get_Air_status.py [HANDLE] [ADDRESS]    (default: the sample address 192.168.5.79)
"""
from __future__ import annotations

import pytorvik
import target


async def main() -> None:
    async with target.handle("192.168.5.79", pytorvik.TorvikAirAnalog) as dev:
        target.connect(dev)
        print("RSSI (dBm):        ", await dev.Wifi_readRSSI_async())
        print("battery:           ", await dev.Wifi_readBattery_async())
        print("temperature:       ", await dev.Wifi_readThermo_async())
        print("acceleration:      ", await dev.Wifi_readAccleration_async())
        print("Wi-Fi bandwidth:   ", await dev.Wifi_getWifiBandwidth_async())
        print("Wi-Fi configuration:", await dev.Wifi_getWifiConfiguration_async())


target.run(main())
