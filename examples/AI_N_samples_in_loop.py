"""AI N samples in loop: three acquisitions of a fixed number of frames, one after another.

Usage: python AI_N_samples_in_loop.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import ai_acquire
import target

SAMPLES, RATE, ROUNDS = 500, 10000, 3


async def main(dev):
    port = min(dev.AI_getPort())
    await dev.AI_open_async(port)
    await ai_acquire.configure(dev, port, ai_acquire.N_SAMPLES, RATE, SAMPLES)
    for i in range(ROUNDS):
        await dev.AI_start_async(port)
        frames = await ai_acquire.read_frames(dev, port, SAMPLES, 5)
        await dev.AI_stop_async(port)
        print("round %d: %d frames, channel 0 from %s to %s" % (i, len(frames), frames[0][0], frames[-1][0]))
    await dev.AI_close_async(port)


dev = target.open_handle("TorvikLanAnalog", "TorvikUsbAnalog", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
