"""AO waveform generation: the unit generates a sine on channel 0; the outputs are sampled meanwhile.

Usage: python AO_waveform_gen.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)

The sine swings over half of the unit's output range around its middle: the unit refuses (status
-7016) a waveform that would leave its range.
"""
from __future__ import annotations

import asyncio

import pytorvik
import target

RATE, PERIOD = 1000, 100  # samples a second; samples a period: a 10 Hz sine


async def main() -> None:
    async with target.handle("192.168.1.110", pytorvik.TorvikLanOutput, pytorvik.TorvikUsbMixed) as dev:
        target.connect(dev)
        port = min(dev.AO_getPort())
        offset = (dev.ao_volt_min + dev.ao_volt_max) / 2
        amplitude = (dev.ao_volt_max - dev.ao_volt_min) / 4
        await dev.AO_open_async(port)
        print("generator (mode, rate):", await dev.AO_openStreaming_async(port))
        print("continuous:", await dev.AO_setMode_async(port, pytorvik.AOMode.CONTINUOUS))
        print("rate %d Hz:" % RATE, await dev.AO_setSamplingRate_async(port, RATE))
        print("channel 0 only:", await dev.AO_setEnableChannels_async(port, 1))  # a mask: channel 0
        print("sine:", await dev.AO_setForm_async(port, 0, pytorvik.AOForm.SINE))
        print("%g V around %g V:" % (amplitude, offset),
              await dev.AO_setFormParam_async(port, 0, amplitude, offset, PERIOD))
        print("start:", await dev.AO_startStreaming_async(port))
        for _ in range(5):
            await asyncio.sleep(0.03)
            print("channel 0: %+.3f V" % (await dev.AO_getValues_async(port))[0])
        print("stop:", await dev.AO_stopStreaming_async(port))
        await dev.AO_closeStreaming_async(port)
        await dev.AO_close_async(port)


target.run(main())
