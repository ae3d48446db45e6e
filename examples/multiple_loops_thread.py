"""Tutorial, multiple loops (threads): two threads, each with its own event loop, share one unit.

The library releases Python's lock while it waits for the unit, so the threads overlap. They ask
different things: replies are matched by command code alone.

Usage: python multiple_loops_thread.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
from __future__ import annotations

import asyncio
import threading
import time
from typing import Any, Callable, Coroutine

import pytorvik
import target


def worker(name: str, operation: Callable[[], Coroutine[Any, Any, Any]], period: float, times: int) -> None:
    loop = asyncio.new_event_loop()
    try:
        for i in range(times):
            print("%s %d: %s" % (name, i, loop.run_until_complete(operation())))
            time.sleep(period)
    finally:
        loop.close()


with target.handle("21JA1200", pytorvik.TorvikLanLogic, pytorvik.TorvikUsbLogic) as dev:
    target.connect(dev)
    threads = [threading.Thread(target=worker, args=("clock", dev.Sys_getRTC_async, 0.05, 6)),
               threading.Thread(target=worker, args=("info", dev.Sys_getDriverInfo_async, 0.08, 4))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    print("all loops done")
