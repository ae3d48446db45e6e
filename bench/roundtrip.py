"""Request/reply round trips against torvik-sim on loopback, in one run:

(a) _echoPacketWithRetry_async through a connected ETHDevice composition,
(b) the same framed exchange by a plain asyncio stream client (what a pure-Python driver reaches),
(c) the same exchange awaited by polling the reply pool every 10 ms,
and operations per second of 8 concurrent operations with different codes under gather.

Run from the repository with the package installed: python bench/roundtrip.py [rounds]
"""
import asyncio
import statistics
import sys
import time

import pytorvik as t
from pytorvik import simctl


class Bench(t.ETHDevice, t.Packet):
    pass


FRAME = bytes([2, 0, 2, t.GET_DRIVER_INFO, 1, 13, 10])


def summary(samples):
    s = sorted(samples)
    return statistics.median(s) * 1e6, s[min(len(s) - 1, int(len(s) * 0.99))] * 1e6


async def engine(dev, n):
    out = []
    for _ in range(n):
        t0 = time.perf_counter()
        await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1])
        out.append(time.perf_counter() - t0)
    return out


async def plain_asyncio(addr, port, n):
    reader, writer = await asyncio.open_connection(addr, port)
    out = []
    for _ in range(n):
        t0 = time.perf_counter()
        writer.write(FRAME)
        await reader.readuntil(b"\r\n")
        out.append(time.perf_counter() - t0)
    writer.close()
    await writer.wait_closed()
    return out


async def polling(dev, n):
    out = []
    pool = dev.data_pool_echo
    for _ in range(n):
        t0 = time.perf_counter()
        await dev._sendPacketWithoutReply(t.GET_DRIVER_INFO, [1])
        while t.GET_DRIVER_INFO not in pool:
            await asyncio.sleep(t.ECHO_DELAY)
        pool.pop(t.GET_DRIVER_INFO)
        out.append(time.perf_counter() - t0)
    return out


async def concurrent(dev, seconds):
    codes = list(range(0xF0, 0xF8))
    done = 0
    end = time.perf_counter() + seconds
    t0 = time.perf_counter()
    while time.perf_counter() < end:
        await asyncio.gather(*[dev._echoPacketWithRetry_async(c, [1]) for c in codes])
        done += len(codes)
    return done / (time.perf_counter() - t0)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 2000
    with simctl.Sim(simctl.unit_spec("TorvikLanAnalog", cmd_port=0)) as sim:
        u = sim.unit
        dev = Bench(verbose=False)
        dev.connect(u.addr, port=u.cmd_port, verbose=False)
        try:
            # Interleave the variants so that machine noise falls on all of them alike.
            a, b = [], []
            for _ in range(4):
                a += asyncio.run(engine(dev, rounds // 4))
                b += asyncio.run(plain_asyncio(u.addr, u.cmd_port, rounds // 4))
            c = asyncio.run(polling(dev, 60))
            ops = asyncio.run(concurrent(dev, 2.0))
        finally:
            dev.disconnect(verbose=False)
            dev.close(verbose=False)
    (am, ap), (bm, bp), (cm, cp) = summary(a), summary(b), summary(c)
    print("round trip, median / p99 (us):")
    print("  (a) pytorvik _echoPacketWithRetry_async  %8.1f / %8.1f" % (am, ap))
    print("  (b) plain asyncio stream client           %8.1f / %8.1f" % (bm, bp))
    print("  (c) 10 ms polling of the reply pool        %8.1f / %8.1f" % (cm, cp))
    print("ratios: a/b = %.2f (target <= 1.5), c/a = %.1f (target >= 20)" % (am / bm, cm / am))
    print("8 concurrent operations under gather: %.0f operations/s" % ops)


if __name__ == "__main__":
    main()
