"""Finds units and shows what one of them is.

    python -m pytorvik find            every unit on USB and on the local network
    python -m pytorvik info TARGET     identity, clock and pin modes of one unit
                                       (TARGET: a USB serial number, or an IP address[:port])
"""
import argparse
import asyncio
import contextlib
import io
import sys

import pytorvik

# Tables whose entries are (hardware port, pin) cells; the digital ones are keyed by the port.
_CELL_TABLES = ("uart_dict", "I2C_dict", "SPI_dict", "can_dict", "thermal_dict", "ai_dict", "ao_dict")


def _handle_for_label(label):
    for name in pytorvik.PRODUCT_LIST:
        if pytorvik.LABEL_DICT.get(name) == label:
            return name
    return None


def _table(header, rows):
    widths = [max(len(str(r[i])) for r in [header] + rows) for i in range(len(header))]
    for r in [header] + rows:
        print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())


def _quiet(func):
    """Runs func without the handles' own opened/connected lines."""
    def run(*args):
        with contextlib.redirect_stdout(io.StringIO()):
            return func(*args)
    return run


@_quiet
def _usb_units():
    finder = pytorvik.DeviceFinder()
    try:
        return finder.Bcst_enumerateUSBDevices()
    finally:
        finder.close()


@_quiet
def _network_units():
    finder = pytorvik.DeviceFinder()
    try:
        finder.connect()
        return asyncio.run(finder.Bcst_enumerateNetworkDevices_async())
    finally:
        if finder.connect_status_udp:
            try:
                finder.disconnect()
            except pytorvik.NetworkConnectionLostError:
                # Linux refuses to shut down a datagram socket that never connected; close still
                # ends the receive thread.
                finder.connect_status_udp = False
        finder.close()


def find(args):
    rows = []
    for serial, product in _usb_units():
        rows.append(["USB", _handle_for_label(product) or product, serial, "-", product])
    if not args.usb_only:
        print("Asking the local network (this takes %d s)..." % pytorvik.PACKET_TIMEOUT, file=sys.stderr)
        try:
            found = _network_units()
        except OSError as e:
            print("network search failed: %s" % e, file=sys.stderr)
            found = []
        for ip, _mask, mac, model in sorted(found, key=lambda r: [int(x) for x in r[0].split(".")]):
            rows.append(["network", _handle_for_label(model) or "?", ip, mac, model])
    if not rows:
        print("No unit found%s." % (" on USB" if args.usb_only else " on USB or on the local network"), file=sys.stderr)
        return 1
    _table(["link", "product", "serial number / IP", "MAC", "model"], rows)
    return 0


def _connect(target):
    """A connected handle of the unit's own product."""
    host, _, port = target.partition(":")
    if host.count(".") == 3:
        # Any Ethernet handle reads the identity; the unit's own handle then knows its ports.
        with contextlib.redirect_stdout(io.StringIO()):
            probe = pytorvik.TorvikLanLogic()
            try:
                probe.connect(host, port=int(port) if port else pytorvik.TCP_CMD_PORT)
                info = asyncio.run(probe.Sys_getDriverInfo_async())
            finally:
                probe.close()
        name = _handle_for_label(info[0]) if info else None
        if name is None or pytorvik.LABEL_DICT[name] == "Torvik-Air-Analog":
            name = "TorvikLanLogic"
        return _connected(name, host, port=int(port) if port else pytorvik.TCP_CMD_PORT)
    for serial, product in _usb_units():
        if serial == target:
            return _connected(_handle_for_label(product) or "TorvikUsbSink", target)
    raise LookupError("no unit with serial number %s on USB" % target)


def _connected(name, *args, **kwargs):
    dev = getattr(pytorvik, name)()
    try:
        dev.connect(*args, **kwargs)
    except BaseException:
        dev.close()  # its receive thread would keep the interpreter alive
        raise
    return dev


def _ports(dev):
    ports = set(getattr(dev, "di_dict", {}) or {}) | set(getattr(dev, "do_dict", {}) or {})
    for name in _CELL_TABLES:
        for cells in (getattr(dev, name, None) or {}).values():
            ports.update(cell[0] for cell in cells)
    return sorted(ports)


async def _show(dev):
    print("handle:        %s" % type(dev).__name__)
    print("driver info:   %s" % (await dev.Sys_getDriverInfo_async(),))
    print("serial number: %s" % (await dev.Sys_getSerialNumber_async(),))
    print("clock:         %s" % (await dev.Sys_getRTC_async(),))
    for port in _ports(dev):
        modes = await dev.Sys_getPinModeInPort_async(port)
        print("port %d:        %s" % (port, ", ".join("P%d.%d %s" % (port, pin, m) for pin, m in enumerate(modes))))


def info(args):
    try:
        dev = _connect(args.target)
    except (LookupError, OSError, pytorvik.Error) as e:
        print("cannot reach %s: %s" % (args.target, e), file=sys.stderr)
        return 1
    try:
        asyncio.run(_show(dev))
    except (OSError, asyncio.TimeoutError, pytorvik.Error) as e:
        print("%s stopped answering: %s" % (args.target, e or type(e).__name__), file=sys.stderr)
        return 1
    finally:
        dev.close()
    return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python -m pytorvik", description="Find Torvik units and show what they are.")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("find", help="list every unit on USB and on the local network")
    p.add_argument("--usb-only", action="store_true", help="skip the network search (it takes 5 s)")
    p.set_defaults(run=find)
    p = sub.add_parser("info", help="connect to one unit and show its identity, clock and pin modes")
    p.add_argument("target", help="USB serial number, or IP address[:port]")
    p.set_defaults(run=info)
    args = parser.parse_args(argv)
    return args.run(args)


if __name__ == "__main__":
    sys.exit(main())
