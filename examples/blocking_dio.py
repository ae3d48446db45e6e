"""Blocking DIO: a plain sequential script, each operation run to its result by pytorvik.run.

Usage: python blocking_dio.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

No event loop, no async def: pytorvik.run(dev.X_async(...)) waits on this thread for the unit's
reply. Wire each output pin to the input pin of the same number (the emulator does this by default).
"""
import pytorvik
from pytorvik import run

import target

with target.handle("192.168.1.110", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbSink) as dev:
    target.connect(dev)
    do_port, di_port, shared = target.loopback_ports(dev)
    pins = shared[:3]
    run(dev.DO_openPins_async(do_port, pins))
    run(dev.DI_openPins_async(di_port, pins))
    for values in ([1, 0, 1], [0, 1, 1], [0, 0, 0]):
        run(dev.DO_writePins_async(do_port, pins, values))
        print("DO P%d pins %s <- %s | DI reads %s" % (do_port, pins, values, run(dev.DI_readPins_async(di_port, pins))))
    print("close:", run(dev.DI_closePins_async(di_port, pins)), run(dev.DO_closePins_async(do_port, pins)))
