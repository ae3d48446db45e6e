"""Tutorial, single loop (thread): a plain thread runs its own event loop for the unit's operations.

A script that is not built around asyncio can still use the awaitable operations: each thread
keeps one event loop and runs one operation at a time on it.

Usage: python single_loop_thread.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
import asyncio
import threading
import time

import target


def worker(dev):
    loop = asyncio.new_event_loop()
    try:
        for i in range(10):
            print("%d: %s" % (i, loop.run_until_complete(dev.Sys_getRTC_async())))
            time.sleep(0.05)
    finally:
        loop.close()


dev = target.open_handle("TorvikLanLogic", "TorvikUsbLogic", "21JA1200")
try:
    t = threading.Thread(target=worker, args=(dev,))
    t.start()
    t.join()
finally:
    dev.close()
