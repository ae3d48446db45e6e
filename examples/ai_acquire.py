"""Shared by the analog input examples: one acquisition of a given mode, read to its end."""
import asyncio

ON_DEMAND, N_SAMPLES, CONTINUOUS = 0, 1, 2


async def configure(dev, port, mode, rate, samples=None):
    await dev.AI_setMode_async(port, mode)
    await dev.AI_setSamplingRate_async(port, rate)
    if samples is not None:
        await dev.AI_setNumSamples_async(port, samples)


async def read_frames(dev, port, wanted, seconds):
    """Frames (lists of volts) until `wanted` came or `seconds` passed."""
    frames = []
    loop = asyncio.get_running_loop()
    end = loop.time() + seconds
    while len(frames) < wanted and loop.time() < end:
        frames += await dev.AI_readStreaming_async(port, -1, 0.05)
    return frames
