"""Tutorial, multiple loops (threads): two threads, each with its own event loop, share one unit.

The library releases Python's lock while it waits for the unit, so the threads overlap.

Usage: python multiple_loops_thread.py [HANDLE] [TARGET]    (default: TorvikUsbLogic, serial 21JA1200)
"""
import asyncio
import threading
import time

import target


def worker(dev, name, period, times):
    loop = asyncio.new_event_loop()
    try:
        for i in range(times):
            op = dev.Sys_getRTC_async() if name == "clock" else dev.Sys_getDriverInfo_async()
            print("%s %d: %s" % (name, i, loop.run_until_complete(op)))
            time.sleep(period)
    finally:
        loop.close()


dev = target.open_handle("TorvikLanLogic", "TorvikUsbLogic", "21JA1200")
try:
    threads = [threading.Thread(target=worker, args=(dev, "clock", 0.05, 6)),
               threading.Thread(target=worker, args=(dev, "info", 0.08, 4))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    print("all loops done")
finally:
    dev.close()
