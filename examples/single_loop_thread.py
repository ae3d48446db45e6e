"""Tutorial, single loop (thread): a plain thread runs its own event loop for the unit's operations.

A script that is not built around asyncio can still use the awaitable operations: each thread
keeps one event loop and runs one operation at a time on it. `with` closes the handle when the
block ends, however it ends: an open handle's threads would keep the script from ending.

Usage: python single_loop_thread.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
from __future__ import annotations

import asyncio
import threading
import time

import pytorvik
import target


def worker(dev: pytorvik.SystemModule) -> None:
    loop = asyncio.new_event_loop()
    try:
        for i in range(10):
            print("%d: %s" % (i, loop.run_until_complete(dev.Sys_getRTC_async())))
            time.sleep(0.05)
    finally:
        loop.close()


with target.handle("21JA1200", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbLogic) as dev:
    target.connect(dev)
    t = threading.Thread(target=worker, args=(dev,))
    t.start()
    t.join()
