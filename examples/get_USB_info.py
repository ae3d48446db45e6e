"""get_USB_info: the serial number and product of every unit attached by USB, then a connect to each.

Without hardware, run it against emulated units:
    torvik-sim --usb TorvikUsbSink:21JA1298 --usb TorvikUsbLogic:21JA1299 -- python examples/get_USB_info.py
"""
from __future__ import annotations

import asyncio
from typing import Any

import pytorvik


def handle_class(product: str) -> Any:
    """The handle class whose label is the unit's product string (all have the system operations)."""
    names = [key for key, label in pytorvik.LABEL_DICT.items() if label == product and key.startswith("Torvik")]
    return getattr(pytorvik, names[0] if names else "TorvikUsbLogic", pytorvik.TorvikUsbLogic)


units = pytorvik.Packet()._getAllUSBDevices()
print("%d unit(s) on USB" % len(units))
for serial, product in units:
    print("serial number: %s, product: %s" % (serial, product))
for serial, product in units:
    with handle_class(product)() as dev:
        dev.connect(serial)
        print("driver info:", asyncio.run(dev.Sys_getDriverInfo_async()))
