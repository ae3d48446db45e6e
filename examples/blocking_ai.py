"""Blocking AI: read the analog inputs on demand and take a fixed number of frames, without asyncio.

Usage: python blocking_ai.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

Each pytorvik.run(...) sends a request and waits on this thread for its reply; Ctrl-C interrupts
a wait and the handle stays usable. The stream of frames is read in slices until it is complete.
"""
import time
from typing import List

import pytorvik
from pytorvik import run

import target

SAMPLES, RATE = 500, 5000

with target.handle("192.168.1.110", pytorvik.TorvikLanAnalog, pytorvik.TorvikUsbAnalog) as dev:
    target.connect(dev)
    port = min(dev.AI_getPort())
    print("open:", run(dev.AI_open_async(port)))
    print("volts:", run(dev.AI_readOnDemand_async(port)))
    run(dev.AI_setMode_async(port, pytorvik.AIMode.N_SAMPLES))
    run(dev.AI_setSamplingRate_async(port, RATE))
    run(dev.AI_setNumSamples_async(port, SAMPLES))
    run(dev.AI_start_async(port))
    frames: List[List[float]] = []
    end = time.monotonic() + 5
    while len(frames) < SAMPLES and time.monotonic() < end:
        frames += run(dev.AI_readStreaming_async(port, -1, 0.05))  # what came within 50 ms
    run(dev.AI_stop_async(port))
    print("%d frames at %d Hz; last: %s" % (len(frames), RATE, frames[-1]))
    print("close:", run(dev.AI_close_async(port)))
