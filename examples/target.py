"""Shared by the examples: which unit to talk to, taken from the command line.

A target is an IP address (optionally ADDRESS:PORT, for a unit or an emulator listening on another
port than 7) or a USB serial number. Without one, the product's sample target is used.
"""
import sys

import pytorvik


def parse(default):
    """(target text, port or None) from argv[1], else from `default`."""
    text = sys.argv[1] if len(sys.argv) > 1 else default
    host, _, port = text.partition(":")
    return host, (int(port) if port else None)


def is_network(target):
    return target.count(".") == 3


def open_handle(network_cls, usb_cls, default):
    """Builds the handle that fits the target and connects it."""
    target, port = parse(default)
    if is_network(target):
        dev = getattr(pytorvik, network_cls)()
        dev.connect(target, port=port or pytorvik.TCP_CMD_PORT)
    else:
        dev = getattr(pytorvik, usb_cls)()
        dev.connect(target)
    return dev


def open_usb(usb_cls, default):
    """A USB handle of `usb_cls`, connected to the serial number given in argv[1], else `default`."""
    serial, _ = parse(default)
    dev = getattr(pytorvik, usb_cls)()
    dev.connect(serial)
    return dev
