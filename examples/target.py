"""Shared by the examples: which unit to talk to, taken from the command line.

    python EXAMPLE.py [HANDLE] [TARGET] [MORE...]

HANDLE is a handle class of the catalogue (pytorvik.HANDLE_LIST), TARGET an IP address (optionally
ADDRESS:PORT, for a unit or an emulator listening on another port than 7) or a USB serial number.
Without HANDLE the example's own product is used (the Ethernet one for an IP address, the USB one
for a serial number); without TARGET the handle's sample target from pytorvik.HANDLE_PROPERTIES.
"""
import asyncio
import sys

import pytorvik


def _split_args():
    args = sys.argv[1:]
    handle = args.pop(0) if args and args[0] in pytorvik.HANDLE_LIST else None
    target = args.pop(0) if args else None
    return handle, target, args


def parse(default):
    """(target text, port or None) from the command line, else from `default`."""
    _, text, _ = _split_args()
    host, _, port = (text or default).partition(":")
    return host, (int(port) if port else None)


def rest():
    """The arguments after HANDLE and TARGET."""
    return _split_args()[2]


def is_network(target):
    return target.count(".") == 3


def open_handle(network_cls, usb_cls, default):
    """Builds the handle that fits the command line and connects it."""
    handle, text, _ = _split_args()
    if handle:
        text = text or pytorvik.HANDLE_PROPERTIES[handle]["connect"]
    else:
        text = text or default
        handle = network_cls if is_network(text) else usb_cls
    host, _, port = text.partition(":")
    dev = getattr(pytorvik, handle)()
    try:
        if isinstance(dev, pytorvik.USBDevice):
            dev.connect(host)
        elif isinstance(dev, pytorvik.WifiDevice):
            dev.connect(host)  # the Wi-Fi unit listens on its fixed ports
        else:
            dev.connect(host, port=int(port) if port else pytorvik.TCP_CMD_PORT)
    except BaseException:
        dev.close()
        raise
    return dev


def cat_port(dev, category, fallback=None):
    """The port the catalogue gives this handle's examples of `category`."""
    ports = pytorvik.HANDLE_PROPERTIES.get(type(dev).__name__, {}).get("cat_port", {})
    port = ports.get(category)
    return fallback if port is None else port


def run(main, dev, *args):
    """Runs main(dev, *args), then closes the handle. A library error is shown as a user sees it
    and ends the program with status 1."""
    try:
        asyncio.run(main(dev, *args))
    except pytorvik.Error as e:
        print("%s: %s" % (type(e).__name__, e), file=sys.stderr)
        sys.exit(1)
    finally:
        dev.close()


def loopback_ports(dev):
    """(output port, input port, pins they share) for the digital loopback examples: the catalogue's
    port as output where it is one, and as input the port wired to it. On units whose pins go
    either way (equal input and output tables) neighbouring ports are wired to each other."""
    outs, ins = dev.DO_getPinMap(), dev.DI_getPinMap()
    do_port = cat_port(dev, "DIO")
    if do_port not in outs:
        do_port = min(outs)
    if sorted(outs) == sorted(ins):
        ports = sorted(ins)
        i = ports.index(do_port)
        di_port = ports[i + 1] if i % 2 == 0 else ports[i - 1]
    else:
        di_port = sorted(ins)[sorted(outs).index(do_port)]
    return do_port, di_port, sorted(set(outs[do_port]) & set(ins[di_port]))
def open_usb(usb_cls, default):
    """A USB handle of `usb_cls` (or of the HANDLE given), connected to the serial number given, else `default`."""
    return open_handle(None, usb_cls, default)
