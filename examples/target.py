"""Shared by the examples: which unit to talk to, taken from the command line.

    python EXAMPLE.py [HANDLE] [TARGET] [MORE...]

HANDLE is a handle class of the catalogue (pytorvik.HANDLE_LIST), TARGET an IP address (optionally
ADDRESS:PORT, for a unit or an emulator listening on another port than 7) or a USB serial number.
Without HANDLE the example's own product is used (the Ethernet one for an IP address, the USB one
for a serial number). Without TARGET: under torvik-sim the emulator's unit of that product, else the
handle's sample target from pytorvik.HANDLE_PROPERTIES.

Under torvik-sim, `emulated(dev)` gives an example the emulator's control of its unit, so that it
can wire what a bench would have wired (a UART's TX to its RX, say).
"""
from __future__ import annotations

import asyncio
import os
import sys
from typing import Any, Coroutine, Dict, List, Optional, Tuple, Type, TypeVar, Union, overload

import pytorvik
from pytorvik import simctl

A = TypeVar("A", bound=pytorvik.Device)
B = TypeVar("B", bound=pytorvik.Device)


def _split_args() -> Tuple[Optional[str], Optional[str], List[str]]:
    args = sys.argv[1:]
    handle = args.pop(0) if args and args[0] in pytorvik.HANDLE_LIST else None
    target = args.pop(0) if args else None
    return handle, target, args


def rest() -> List[str]:
    """The arguments after HANDLE and TARGET."""
    return _split_args()[2]


def file_name(default: str) -> str:
    """The file named after HANDLE and TARGET on the command line, else `default`."""
    more = rest()
    return more[0] if more else default


_sims: List[Optional[simctl.Sim]] = []


def _emulator() -> Optional[simctl.Sim]:
    """The emulator this script runs under (`torvik-sim ... -- python EXAMPLE.py`), else None."""
    if not _sims:
        path = os.environ.get("TORVIK_SIM_CONTROL")
        sim = None
        if path:
            try:
                sim = simctl.Sim.attach(path)
            except (OSError, simctl.SimError):
                pass  # gone, or not ours: the example runs as on a bench
        _sims.append(sim)
    return _sims[0]


def _unit_target(unit: simctl.Unit) -> str:
    if unit.cmd_port is None or unit.cls in simctl.WIFI_CLASSES:  # USB, or a Wi-Fi unit on its fixed ports
        return unit.serial if unit.cmd_port is None else unit.addr
    return "%s:%d" % (unit.addr, unit.cmd_port)


def _choose(classes: Tuple[type, ...], default: str) -> Tuple[type, str]:
    """The handle class and the target text to connect it to."""
    name, text, _ = _split_args()
    if name:
        classes = (getattr(pytorvik, name),)
    sim = _emulator()
    if text is None and sim is not None:
        text = next((_unit_target(u) for u in sim.units if u.cls in [c.__name__ for c in classes]), None)
    if text is None:
        text = pytorvik.HANDLE_PROPERTIES[name]["connect"] if name else default
    usb = "." not in text
    return next((c for c in classes if issubclass(c, pytorvik.USBDevice) == usb), classes[0]), text


_targets: Dict[int, str] = {}


@overload
def handle(default: str, first: Type[A]) -> A: ...
@overload
def handle(default: str, first: Type[A], second: Type[B]) -> Union[A, B]: ...


def handle(default: str, first: type, second: Optional[type] = None) -> Any:
    """A new handle, not yet connected, of the HANDLE on the command line, or of the class given
    that fits the target (USB or network). Use it in a `with` block: leaving the block closes it,
    and only closing ends its threads, so that the script can end."""
    cls, text = _choose((first,) if second is None else (first, second), default)
    dev = cls()
    _targets[id(dev)] = text
    return dev


def connect(dev: pytorvik.Device) -> None:
    """Connects `dev` to the target on the command line (see handle())."""
    host, _, port = _targets[id(dev)].partition(":")
    if isinstance(dev, (pytorvik.USBDevice, pytorvik.WifiDevice)):
        dev.connect(host)  # a serial number; a Wi-Fi unit listens on its fixed ports
    elif isinstance(dev, pytorvik.ETHDevice):
        dev.connect(host, port=int(port) if port else pytorvik.TCP_CMD_PORT)


def emulated(dev: pytorvik.Device) -> Optional[simctl.Unit]:
    """The emulator's control of the unit `dev` talks to when the script runs under torvik-sim, else None."""
    sim = _emulator()
    if sim is None:
        return None
    text = _targets[id(dev)]
    return next((u for u in sim.units if _unit_target(u) in (text, "%s:%d" % (text, pytorvik.TCP_CMD_PORT))), None)


def run(main: Coroutine[Any, Any, None]) -> None:
    """Runs `main`. A library error is shown as a user sees it and ends the program with status 1."""
    try:
        asyncio.run(main)
    except pytorvik.Error as e:
        print("%s: %s" % (type(e).__name__, e), file=sys.stderr)
        sys.exit(1)


def cat_port(dev: object, category: str, fallback: int) -> int:
    """The port the catalogue gives this handle's examples of `category`."""
    ports = pytorvik.HANDLE_PROPERTIES.get(type(dev).__name__, {}).get("cat_port", {})
    port: Optional[int] = ports.get(category)
    return fallback if port is None else port


def loopback_ports(dev: pytorvik.DIOModule) -> Tuple[int, int, List[int]]:
    """(output port, input port, pins they share) for the digital loopback examples: the catalogue's
    port as output where it is one, and as input the port wired to it. On units whose pins go
    either way (equal input and output tables) neighbouring ports are wired to each other."""
    outs, ins = dev.DO_getPinMap(), dev.DI_getPinMap()
    do_port = cat_port(dev, "DIO", min(outs))
    if do_port not in outs:
        do_port = min(outs)
    if sorted(outs) == sorted(ins):
        ports = sorted(ins)
        i = ports.index(do_port)
        di_port = ports[i + 1] if i % 2 == 0 else ports[i - 1]
    else:
        di_port = sorted(ins)[sorted(outs).index(do_port)]
    return do_port, di_port, sorted(set(outs[do_port]) & set(ins[di_port]))
