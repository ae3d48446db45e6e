"""AO waveform generation: the unit generates a sine on channel 0; the outputs are sampled meanwhile.

Usage: python AO_waveform_gen.py [HANDLE] [ADDRESS[:PORT] | SERIAL]    (default: the sample address 192.168.1.110)
"""
import asyncio

import target

CONTINUOUS, SINE = 2, 3
RATE, PERIOD, AMPLITUDE, OFFSET = 1000, 100, 2.0, 0.0


async def main(dev):
    port = min(dev.AO_getPort())
    await dev.AO_open_async(port)
    print("generator (mode, rate):", await dev.AO_openStreaming_async(port))
    await dev.AO_setMode_async(port, CONTINUOUS)
    await dev.AO_setSamplingRate_async(port, RATE)
    await dev.AO_setEnableChannels_async(port, 1)  # a mask: channel 0
    await dev.AO_setForm_async(port, 0, SINE)
    await dev.AO_setFormParam_async(port, 0, AMPLITUDE, OFFSET, PERIOD)
    await dev.AO_startStreaming_async(port)
    for _ in range(5):
        await asyncio.sleep(0.03)
        print("channel 0: %+.3f V" % (await dev.AO_getValues_async(port))[0])
    print("stop:", await dev.AO_stopStreaming_async(port))
    await dev.AO_closeStreaming_async(port)
    await dev.AO_close_async(port)


dev = target.open_handle("TorvikLanOutput", "TorvikUsbMixed", "192.168.1.110")
try:
    asyncio.run(main(dev))
finally:
    dev.close()
