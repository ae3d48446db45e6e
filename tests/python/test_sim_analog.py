"""The analog firmware of torvik-sim: acquisition streams, waveforms, the false-frame guard, analog
outputs and the stream faults, seen through plain sockets and through the library's handles."""
import asyncio
import math
import socket
import struct
import threading
import time
import warnings

import pytest

import pytorvik as t
from test_sim import request as framed

RATIO = 0.00030517578125  # volts per count of TorvikLanAnalog
SET_AI_SAMPLING_RATE, SET_AI_MODE, SET_AI_NUM_SAMPLES = 0xB1, 0xB2, 0xB3
READ_AI_ON_DEMAND, START_AI_STREAMING, CLOSE_AI_STREAMING = 0xB5, 0xB7, 0xB8
CHECK_BUFFER_STATUS, START_AI_STREAMING_VARIABLE, OPEN_AI = 0xBB, 0xBE, 0xB0
OPEN_AO, WRITE_AO_BY_CHANNEL, OPEN_AO_STREAMING, SET_AO_FORM = 0xC0, 0xC5, 0x2048, 0x2055
GET_SERIAL_NUMBER = 0x7A
STREAM_CODES = {START_AI_STREAMING, START_AI_STREAMING_VARIABLE}


def f32(v):
    return struct.pack(">f", v)


def u32(v):
    return v.to_bytes(4, "big")


def counts_of(payload):
    """Sample counts of a stream or on-demand payload (after port and status)."""
    body = payload[2:]
    return list(struct.unpack(">%dh" % (len(body) // 2), body))


class RawHost:
    """Plain sockets to a unit: requests on the command connection, and the frames that come back
    on it and (Wi-Fi units) on the data connection, read by the unit's length rule."""

    def __init__(self, unit):
        self.cmd = socket.create_connection((unit.addr, unit.cmd_port), timeout=5)
        self.data = None
        if unit.data_port:
            self.data = socket.create_connection((unit.addr, unit.data_port), timeout=5)
            unit.wait_connected("data")
        self.frames = {self.cmd: [], self.data: []}
        self.bufs = {self.cmd: b"", self.data: b""}

    def close(self):
        for s in (self.cmd, self.data):
            if s:
                s.close()

    @property
    def stream_sock(self):
        return self.data or self.cmd

    def _pull(self, sock, timeout):
        if timeout <= 0:
            return False
        sock.settimeout(timeout)
        try:
            chunk = sock.recv(1 << 16)
        except socket.timeout:
            return False
        assert chunk, "connection closed"
        buf = self.bufs[sock] + chunk
        while len(buf) >= 4:
            width = 1 if 48 < buf[3] else 2
            end = 3 + int.from_bytes(buf[1:3], "big") + 2
            if len(buf) < end:
                break
            assert buf[0] == 2 and buf[end - 2:end] == b"\r\n", buf[:16].hex()
            self.frames[sock].append((int.from_bytes(buf[3:3 + width], "big"), buf[3 + width:end - 2]))
            buf = buf[end:]
        self.bufs[sock] = buf
        return True

    def send(self, code, payload):
        self.cmd.sendall(framed(code, bytes(payload)))

    def ask(self, code, payload):
        """The reply to one request; stream frames that come before it stay queued."""
        self.send(code, payload)
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline:
            for i, (c, p) in enumerate(self.frames[self.cmd]):
                if c == code and c not in STREAM_CODES:
                    del self.frames[self.cmd][i]
                    return p
            self._pull(self.cmd, 0.2)
        raise TimeoutError("no reply to 0x%x" % code)

    def take_stream(self, count=None, quiet=0.3, timeout=5):
        """Stream payloads (port and status included) until `count` sample frames came, or none for
        `quiet` seconds (0: only what has been read already)."""
        sock, out, frames = self.stream_sock, [], 0
        deadline = time.monotonic() + timeout
        while True:
            keep = []
            for c, p in self.frames[sock]:
                if c in STREAM_CODES:
                    out.append(p)
                    frames += (len(p) - 2) // 16
                else:
                    keep.append((c, p))
            self.frames[sock] = keep
            if (count is not None and frames >= count) or time.monotonic() > deadline:
                return out
            if not self._pull(sock, quiet) and count is None:
                return out


@pytest.fixture
def raw(sim):
    hosts = []

    def start(cls):
        unit = sim(cls).unit
        hosts.append(RawHost(unit))
        return hosts[-1], unit

    yield start
    for h in hosts:
        h.close()


def run(coro):
    return asyncio.run(coro)


def end(dev):
    try:
        dev.disconnect(verbose=False)
    except t.Error:
        pass
    dev.close()


@pytest.fixture
def analog(sim):
    unit = sim("TorvikLanAnalog").unit
    dev = t.TorvikLanAnalog()
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    unit.wait_connected()
    yield dev, unit
    end(dev)


@pytest.fixture
def output(sim):
    unit = sim("TorvikLanOutput").unit
    dev = t.TorvikLanOutput()
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    unit.wait_connected()
    yield dev, unit
    end(dev)


async def configure(dev, mode, rate, samples=None):
    assert await dev.AI_open_async(0) == 0
    assert await dev.AI_setMode_async(0, mode) == 0
    assert await dev.AI_setSamplingRate_async(0, rate) == 0
    if samples is not None:
        assert await dev.AI_setNumSamples_async(0, samples) == 0


async def read_frames(dev, count=None, quiet=0.3, timeout=8.0):
    """Frames from ai_signal_queue until `count` came, or none for `quiet` seconds."""
    frames, last = [], time.monotonic()
    deadline = last + timeout
    while time.monotonic() < deadline and (count is None or len(frames) < count):
        got = await dev.AI_readStreaming_async(0, -1, 0.01)
        if got:
            frames += got
            last = time.monotonic()
        elif count is None and time.monotonic() - last > quiet:
            break
    return frames


def channel_counts(frames, channel):
    return [round(f[channel] / RATIO) for f in frames]


# ---- acquisition over plain sockets --------------------------------------------------------------

@pytest.mark.parametrize("cls,port,code,rate", [
    ("TorvikLanAnalog", 0, START_AI_STREAMING, 20000),           # on the command connection
    ("TorvikAirAnalog", 1, START_AI_STREAMING_VARIABLE, 10000),  # on the data connection
])
def test_n_samples_sends_exactly_n_frames_in_order(raw, cls, port, code, rate):
    host, unit = raw(cls)
    for c, payload in [(SET_AI_MODE, [port, 1]), (SET_AI_NUM_SAMPLES, bytes([port]) + u32(1234)),
                       (SET_AI_SAMPLING_RATE, bytes([port]) + f32(rate))]:
        assert host.ask(c, payload) == bytes([port, 0])
    host.send(code, [port])
    payloads = host.take_stream(count=1234)
    assert all(p[:2] == bytes([port, 0]) and (len(p) - 2) % 16 == 0 for p in payloads)
    counts = [c for p in payloads for c in counts_of(p)]
    assert counts[0::8] == list(range(1234))  # channel 0 counts the frames
    assert host.take_stream(quiet=0.2) == []   # and then no more
    assert host.ask(GET_SERIAL_NUMBER, b"") == unit.serial.encode()
    if host.data:
        assert not any(c in STREAM_CODES for c, _ in host.frames[host.cmd])
    state = unit.ai_state()
    assert (state["running"], state["index"], state["conn"]) == (0, 1234, "data" if host.data else "cmd")
    assert unit.stats()["stream.frames"] == 1234


def test_continuous_runs_at_about_the_rate_until_stopped(raw):
    host, unit = raw("TorvikLanAnalog")
    host.ask(SET_AI_MODE, [0, 2])
    host.ask(SET_AI_SAMPLING_RATE, bytes([0]) + f32(4000))
    t0 = time.monotonic()
    host.send(START_AI_STREAMING, [0])
    time.sleep(0.4)
    assert host.ask(CLOSE_AI_STREAMING, [0]) == b"\x00\x00"
    elapsed = time.monotonic() - t0
    # everything sent before the stop's reply stands in front of it on the same connection
    frames = sum((len(p) - 2) // 16 for p in host.take_stream(quiet=0))
    assert 0.5 * 4000 * 0.4 < frames <= 4000 * elapsed + 10
    host.ask(GET_SERIAL_NUMBER, b"")
    assert host.take_stream(quiet=0.1) == []


WAVES = [
    (("const", 2.5), lambda n: [8192]),
    (("raw", -1234), lambda n: [-1234]),
    (("counter", "from=65530"), lambda n: [(65530 + n + 32768) % 65536 - 32768]),
    (("ramp", -1, 1, 50), lambda n: [round((-1 + 2 * ((n / 50) % 1)) / RATIO) + d for d in (-1, 0, 1)]),
    (("sine", 3, 1, 40), lambda n: [round((1 + 3 * math.sin(2 * math.pi * n / 40)) / RATIO) + d for d in (-1, 0, 1)]),
    # a period in seconds follows the sample's time at the rate (1000 Hz): 10 samples here
    (("sine", 2, 0, "0.01s"), lambda n: [round(2 * math.sin(2 * math.pi * n / 10) / RATIO) + d for d in (-1, 0, 1)]),
]


@pytest.mark.parametrize("wave,expected", WAVES, ids=[" ".join(map(str, w)) for w, _ in WAVES])
def test_waveforms_come_as_configured(raw, wave, expected):
    host, unit = raw("TorvikLanAnalog")
    unit.set_waveform(3, *wave)
    assert unit.waveforms()[3].split()[0] == wave[0]
    unit.set_pace("fast", frames=64)
    host.ask(SET_AI_MODE, [0, 1])
    host.ask(SET_AI_NUM_SAMPLES, bytes([0]) + u32(300))
    host.send(START_AI_STREAMING, [0])
    counts = [c for p in host.take_stream(count=300) for c in counts_of(p)]
    assert len(counts) == 300 * 8
    for n in range(300):
        assert counts[n * 8 + 3] in expected(n), n
    assert counts[0::8] == list(range(300))  # the other channels keep their defaults


def test_on_demand_reads_the_values_now(raw):
    host, unit = raw("TorvikLanAnalog")
    unit.set_waveform(5, "const", -4)
    reads = [counts_of(host.ask(READ_AI_ON_DEMAND, [0, 0])) for _ in range(3)]
    assert [r[0] for r in reads] == [0, 1, 2]        # a counter of the reads
    assert {r[5] for r in reads} == {round(-4 / RATIO)}
    assert host.ask(READ_AI_ON_DEMAND, [0, 0])[:2] == b"\x00\x00"


@pytest.mark.parametrize("cls,code,payload,reply", [
    ("TorvikLanAnalog", OPEN_AI, b"\x00", b"\x00\x00"),
    ("TorvikLanAnalog", OPEN_AO, b"\x00", b"\x00\x17"),                            # no analog output
    ("TorvikAirAnalog", CHECK_BUFFER_STATUS, b"\x01", b"\x01" + bytes(16)),
    ("TorvikAirAnalog", READ_AI_ON_DEMAND, b"\x00\x01", b"\x01\x17"),              # not this unit's form
    ("TorvikLanOutput", WRITE_AO_BY_CHANNEL, b"\x00\x00" + f32(1), b"\x00\x10"),   # not open
    ("TorvikLanOutput", OPEN_AO_STREAMING, b"\x00", b"\x00\x00" + f32(1000)),
])
def test_status_replies(raw, cls, code, payload, reply):
    host, _ = raw(cls)
    assert host.ask(code, payload) == reply


# ---- through the library ----------------------------------------------------------------------

def test_n_samples_end_to_end_complete_and_in_order(analog):
    dev, unit = analog

    async def main():
        await configure(dev, 1, 20000, 1000)
        assert await dev.AI_start_async(0) == 0
        frames = await read_frames(dev, 1000)
        await asyncio.sleep(0.05)
        frames += await dev.AI_readStreaming_async(0, -1)
        assert await dev.AI_stop_async(0) == 0
        status = await dev.AI_readBufferStatus_async(0)
        assert status[1:] == [0, 0, unit.ai_state()["max"]]  # never full, empty after the stop
        assert await dev.AI_close_async(0) == 0
        return frames

    frames = run(main())
    assert channel_counts(frames, 0) == list(range(1000))
    # channel 1: a sine of half full scale, 40 samples a period
    assert all(abs(f[1] - 5 * math.sin(2 * math.pi * n / 40)) < 0.001 for n, f in enumerate(frames))
    assert unit.ai_state()["running"] == 0


@pytest.mark.parametrize("guard", [True, False])
def test_false_frames_in_sample_data_are_nudged_away(analog, guard):
    dev, unit = analog
    # Channel 6 = 2 counts and channel 7 = 0 end every payload in 02 00 00 0D 0A: the host would
    # take that for a frame of its own and lose the whole payload.
    unit.set_waveform(6, "raw", 2)
    unit.set_waveform(7, "raw", 0)
    unit.set_pace("fast", frames=100)
    unit.guard(guard)

    async def main():
        await configure(dev, 1, 20000, 1000)
        await dev.AI_start_async(0)
        return await read_frames(dev, 1000 if guard else None)

    frames = run(main())
    stats = unit.stats()
    assert stats["stream.payloads"] == 10
    if not guard:
        assert frames == [] and stats["stream.unclean"] == 0 and stats["stream.nudges"] == 0
        return
    assert channel_counts(frames, 0) == list(range(1000))
    assert set(channel_counts(frames, 7)) == {0}
    ch6 = channel_counts(frames, 6)
    assert [n for n, c in enumerate(ch6) if c != 2] == list(range(99, 1000, 100))  # the last of each payload
    assert {ch6[n] for n in range(99, 1000, 100)} == {3}
    assert (stats["stream.nudges"], stats["stream.unclean"]) == (10, 0)


def test_a_stalled_stream_overflows_the_buffer_and_the_counter_shows_the_gap(analog):
    dev, unit = analog

    async def main():
        await configure(dev, 2, 20000)
        await dev.AI_start_async(0)
        frames = await read_frames(dev, 500)
        unit.stall()
        await asyncio.sleep(0.6)  # 12000 frames due, the buffer holds 8192
        status = await dev.AI_readBufferStatus_async(0)
        assert unit.ai_state()["running"] == 1
        unit.stall(False)
        frames += await read_frames(dev, 8192 + 200)
        await dev.AI_stop_async(0)
        frames += await read_frames(dev, quiet=0.2)
        return frames, status

    frames, (empty, full, remaining, most) = run(main())
    assert full >= 1 and remaining == most == 8192
    lost = unit.ai_state()["lost"]
    assert lost > 0
    counts = channel_counts(frames, 0)
    steps = [(b - a) % 65536 for a, b in zip(counts, counts[1:])]
    gaps = [s for s in steps if s != 1]
    assert len(gaps) == 1 and gaps[0] - 1 == lost
    assert run(dev.AI_clearBufferStatus_async(0)) == 0
    assert run(dev.AI_readBufferStatus_async(0)) == [0, 0, 0, 0]


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


def test_ai_channels_fed_from_an_output_of_another_unit(analog, output):
    dev, unit = analog
    out, out_unit = output

    async def main():
        assert await out.AO_open_async(0) == 0
        assert await out.AO_writeOneChannel_async(0, 3, 2.5) == 0
        unit.set_waveform(3, "const", out_unit.ao_state()["values"][3])
        return await dev.AI_readOnDemand_async(0)

    assert run(main())[3] == 2.5


def test_output_values_read_back_and_the_generator_moves_them(output):
    dev, unit = output

    async def main():
        assert await dev.AO_open_async(0) == 0
        assert unit.pin_modes(3)[11] == "ADC"  # the output holds its pin
        assert await dev.AO_writeAllChannels_async(0, [1.5, -2, 0, 0, 0, 0, 0, 9.5]) == 0
        assert await dev.AO_writeOneChannel_async(0, 2, -7.25) == 0
        assert await dev.AO_getValues_async(0) == [1.5, -2.0, -7.25, 0.0, 0.0, 0.0, 0.0, 9.5]
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
        assert unit.ao_state()["running"] == 1
        assert await dev.AO_stopStreaming_async(0) == 0
        held = [await dev.AO_getValues_async(0) for _ in range(2)]
        counters = await dev._AO_getCounters_async(0)
        return seen, held, counters

    seen, held, counters = run(main())
    ch0 = [v[0] for v in seen]
    assert len(set(ch0)) > 3 and all(-2 <= v <= 2 for v in ch0)
    assert all(v[1:] == [-2.0, -7.25, 0.0, 0.0, 0.0, 0.0, 9.5] for v in seen)  # not enabled
    assert held[0] == held[1]
    assert counters[0] > 40 and counters[1] >= counters[0] + 9
    state = unit.ao_state()
    assert (state["running"], state["mode"], state["enabled"], state["forms"][0]) == (0, 2, 1, 3)


@pytest.mark.parametrize("which,op,args,code,status,result", [
    ("analog", "AI_stop_async", (0,), CLOSE_AI_STREAMING, 15, -7015),
    ("output", "AO_setForm_async", (0, 1, 2), SET_AO_FORM, 16, -7016),  # its status stands at index 3
])
def test_status_faults_still_apply(request, which, op, args, code, status, result):
    dev, unit = request.getfixturevalue(which)
    if which == "output":
        run(dev.AO_open_async(0))
    unit.status(status, code=code)
    assert run(getattr(dev, op)(*args)) == result
