"""get_USB_info: the serial number and product of every unit attached by USB, then a connect to each.

Without hardware, run it against emulated units:
    torvik-sim --usb TorvikUsbSink:21JA1298 --usb TorvikUsbLogic:21JA1299 -- python examples/get_USB_info.py
"""
import asyncio

import pytorvik


def handle_class(product):
    """The handle class whose label is the unit's product string."""
    names = [key for key, label in pytorvik.LABEL_DICT.items() if label == product and key.startswith("Torvik")]
    name = names[0] if names else "TorvikUsbLogic"
    return getattr(pytorvik, name, None) or type(name, (pytorvik.USBDevice, pytorvik.SystemModule), {})


async def driver_info(dev):
    return await dev.Sys_getDriverInfo_async()


units = pytorvik.Packet()._getAllUSBDevices()
print("%d unit(s) on USB" % len(units))
for serial, product in units:
    print("serial number: %s, product: %s" % (serial, product))
for serial, product in units:
    dev = handle_class(product)()
    dev.connect(serial)
    print("driver info:", asyncio.run(driver_info(dev)))
    dev.close()
