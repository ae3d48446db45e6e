"""The analog firmware of torvik-sim through the library's handles: acquisition streams on either
connection, waveforms, the false-frame guard, analog outputs and the stream faults. The firmware's
replies themselves are tested directly in tests/core/test_sim_analog.cpp."""
import asyncio
import math
import threading
import time
import warnings

import pytest

import pytorvik as t

RATIO = 0.00030517578125  # volts per count of TorvikLanAnalog


def run(coro):
    return asyncio.run(coro)


@pytest.fixture
def handle(sim):
    """handle("TorvikLanAnalog") -> (connected handle, its unit); closed at teardown."""
    made = []

    def connect(cls):
        unit = sim(cls).unit
        dev = getattr(t, cls)()
        made.append(dev)
        if unit.data_port:  # the Wi-Fi handle's own connect takes the default ports only
            t.WifiDevice.connect(dev, unit.addr, port1=unit.cmd_port, port2=unit.data_port, verbose=False)
            unit.wait_connected("data")
        else:
            dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        unit.wait_connected()
        return dev, unit

    yield connect
    for dev in made:
        dev.close()


@pytest.fixture
def analog(handle):
    return handle("TorvikLanAnalog")


@pytest.fixture
def output(handle):
    return handle("TorvikLanOutput")


async def configure(dev, mode, rate, samples=None):
    port = min(dev.ai_dict)
    assert await dev.AI_open_async(port) == 0
    assert await dev.AI_setMode_async(port, mode) == 0
    assert await dev.AI_setSamplingRate_async(port, rate) == 0
    if samples is not None:
        assert await dev.AI_setNumSamples_async(port, samples) == 0
    return port


async def read_frames(dev, count=None, quiet=0.3, timeout=8.0):
    """Frames from ai_signal_queue until `count` came, or none for `quiet` seconds."""
    port = min(dev.ai_dict)
    frames, last = [], time.monotonic()
    deadline = last + timeout
    while time.monotonic() < deadline and (count is None or len(frames) < count):
        got = await dev.AI_readStreaming_async(port, -1, 0.01)
        if got:
            frames += got
            last = time.monotonic()
        elif count is None and time.monotonic() - last > quiet:
            break
    return frames


def channel_counts(frames, channel, ratio=RATIO):
    return [round(f[channel] / ratio) for f in frames]


# ---- acquisition --------------------------------------------------------------------------------

@pytest.mark.parametrize("cls,rate,conn", [
    ("TorvikLanAnalog", 20000, "cmd"),   # START_AI_STREAMING on the command connection
    ("TorvikAirAnalog", 10000, "data"),  # START_AI_STREAMING_VARIABLE on the data connection
])
def test_n_samples_come_complete_in_order_and_then_stop(handle, cls, rate, conn):
    dev, unit = handle(cls)

    async def main():
        port = await configure(dev, 1, rate, 1234)
        assert await dev.AI_start_async(port) == 0
        frames = await read_frames(dev, 1234)
        frames += await read_frames(dev, quiet=0.2)  # and then no more
        assert await dev.AI_stop_async(port) == 0
        status = await dev.AI_readBufferStatus_async(port)
        assert status[1:] == [0, 0, unit.ai_state()["max"]]  # never full, empty after the stop
        assert await dev.AI_close_async(port) == 0
        return frames

    frames = run(main())
    assert channel_counts(frames, 0, dev.ai_ratio) == list(range(1234))  # channel 0 counts the frames
    state = unit.ai_state()
    assert (state["running"], state["index"], state["conn"]) == (0, 1234, conn)


WAVES = [
    (("const", 2.5), lambda n: [8192]),
    (("counter", "from=65530"), lambda n: [(65530 + n + 32768) % 65536 - 32768]),
    (("ramp", -1, 1, 50), lambda n: [round((-1 + 2 * ((n / 50) % 1)) / RATIO) + d for d in (-1, 0, 1)]),
    # a period in seconds follows the sample's time at the rate (1000 Hz): 10 samples here
    (("sine", 2, 0, "0.01s"), lambda n: [round(2 * math.sin(2 * math.pi * n / 10) / RATIO) + d for d in (-1, 0, 1)]),
]


@pytest.mark.parametrize("wave,expected", WAVES, ids=[" ".join(map(str, w)) for w, _ in WAVES])
def test_waveforms_come_as_configured(analog, wave, expected):
    dev, unit = analog
    unit.set_waveform(3, *wave)
    assert unit.waveforms()[3].split()[0] == wave[0]
    unit.set_pace("fast", frames=64)

    async def main():
        await dev.AI_start_async(await configure(dev, 1, 1000, 300))
        return await read_frames(dev, 300)

    frames = run(main())
    ch3 = channel_counts(frames, 3)
    assert len(ch3) == 300
    for n in range(300):
        assert ch3[n] in expected(n), n
    assert channel_counts(frames, 0) == list(range(300))  # the other channels keep their defaults


def test_false_frames_in_sample_data_are_nudged_away(analog):
    dev, unit = analog
    # Channel 6 = 2 counts and channel 7 = 0 end every payload in 02 00 00 0D 0A: the host would
    # take that for a frame of its own and lose the whole payload (the guard's cases against the
    # host's splitter are in tests/core/test_sim_analog.cpp).
    unit.set_waveform(6, "raw", 2)
    unit.set_waveform(7, "raw", 0)
    unit.set_pace("fast", frames=100)
    unit.guard(True)

    async def main():
        await configure(dev, 1, 20000, 1000)
        await dev.AI_start_async(0)
        return await read_frames(dev, 1000)

    frames = run(main())
    stats = unit.stats()
    assert channel_counts(frames, 0) == list(range(1000))  # no payload was lost to a false frame
    ch6 = channel_counts(frames, 6)
    assert [n for n, c in enumerate(ch6) if c != 2] == list(range(99, 1000, 100))  # the last of each payload
    assert (stats["stream.payloads"], stats["stream.nudges"], stats["stream.unclean"]) == (10, 10, 0)


def test_a_burst_overflows_the_hosts_queue(analog):
    dev, unit = analog
    run(dev.AI_open_async(0))
    queue = dev.ai_signal_queue
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        unit.burst(1000050)
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline and (unit.stats()["stream.frames"] < 1000050 or len(caught) < 50):
            time.sleep(0.05)
        time.sleep(0.1)
        # each dropped frame builds an AIQueueOverflowWarning, which warns with its text
        overflows = [w for w in caught if str(t.AIQueueOverflowWarning(silent=True).msg) in str(w.message)]
    assert unit.stats()["stream.frames"] == 1000050
    assert queue.qsize() == 1000000 and len(overflows) == 50
    assert round(queue.get_nowait()[0] / RATIO) == 0  # the burst's frames are counted from 0
    assert unit.ai_state()["burst"] == 0


def test_a_payload_of_the_wrong_length_ends_the_hosts_worker(analog, monkeypatch):
    dev, unit = analog
    seen = []
    monkeypatch.setattr(threading, "excepthook", lambda args: seen.append(args.exc_type))
    run(dev.AI_open_async(0))
    unit.bad_length(3)
    dev.ai_stream_thread.join(3)
    assert not dev.ai_stream_thread.is_alive() and seen == [ValueError]
    assert unit.stats()["stream.payloads"] == 1


# What the firmware does with each write and setting is tested in tests/core/test_sim_analog.cpp;
# here the generator runs on the emulator's own clock.
def test_the_generator_moves_the_enabled_outputs(output):
    dev, unit = output

    async def main():
        assert await dev.AO_open_async(0) == 0
        assert await dev.AO_writeAllChannels_async(0, [1.5, -2, 0, 0, 0, 0, 0, 9.5]) == 0
        assert await dev.AO_openStreaming_async(0) == [0, 1000.0]
        for op, args in [("AO_setMode_async", (2,)), ("AO_setSamplingRate_async", (1000,)),
                         ("AO_setEnableChannels_async", (1,)), ("AO_setForm_async", (0, 3)),
                         ("AO_setFormParam_async", (0, 2, 0, 50))]:
            assert await getattr(dev, op)(0, *args) == 0, op
        assert await dev.AO_startStreaming_async(0) == 0
        seen = []
        for _ in range(8):
            await asyncio.sleep(0.007)
            seen.append(await dev.AO_getValues_async(0))
        assert await dev.AO_stopStreaming_async(0) == 0
        held = [await dev.AO_getValues_async(0) for _ in range(2)]
        return seen, held

    seen, held = run(main())
    ch0 = [v[0] for v in seen]
    assert len(set(ch0)) > 3 and all(-2 <= v <= 2 for v in ch0)
    assert all(v[1:] == [-2.0, 0.0, 0.0, 0.0, 0.0, 0.0, 9.5] for v in seen)  # not enabled
    assert held[0] == held[1] and unit.ao_state()["running"] == 0
