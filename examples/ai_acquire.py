"""Shared by the analog input examples: one acquisition of a given mode, read to its end."""
from __future__ import annotations

import asyncio
from typing import List

import pytorvik


async def configure(dev: pytorvik.AIModule, port: int, mode: pytorvik.AIMode, rate: int,
                    samples: int | None = None) -> None:
    await dev.AI_setMode_async(port, mode)
    await dev.AI_setSamplingRate_async(port, rate)
    if samples is not None:
        await dev.AI_setNumSamples_async(port, samples)


async def read_frames(dev: pytorvik.AIModule, port: int, wanted: int, seconds: float) -> List[List[float]]:
    """Frames (lists of volts) until `wanted` came or `seconds` passed."""
    frames: List[List[float]] = []
    loop = asyncio.get_running_loop()
    end = loop.time() + seconds
    while len(frames) < wanted and loop.time() < end:
        frames += await dev.AI_readStreaming_async(port, -1, 0.05)
    return frames
