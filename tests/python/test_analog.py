"""Analog input and output against the emulator: payloads, decoding, the AI gate and worker."""
import asyncio
import struct

import pytest

import pytorvik as t
from devices import check_operation, check_refused, fresh, run

FF = 0xFF
RATIO = 0.00030517578125


class AnalogProbe(t.ETHDevice, t.SystemModule, t.AIModule, t.AOModule):
    """A unit whose class name none of the modules treats specially."""


@pytest.fixture(scope="module")
def units():
    from pytorvik import simctl
    with simctl.Sim(simctl.unit_spec("TorvikLanAnalog"), simctl.unit_spec("TorvikLanOutput"),
                    simctl.unit_spec("TorvikLanAnalog")) as s:
        yield s.units


def connect(dev, unit):
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    unit.wait_connected()
    return dev


@pytest.fixture(scope="module")
def handles(units):
    lan, out, other = units
    analog = connect(t.TorvikLanAnalog(), lan)
    output = connect(t.TorvikLanOutput(), out)
    probe = AnalogProbe(verbose=False)
    t.AIModule.__init__(probe, {0: [(1, 5)]}, 16000, RATIO, 8, True)
    t.AOModule.__init__(probe, {0: [(1, 4)]}, 0, 5, 8)
    connect(probe, other)
    yield {"analog": (analog, lan), "output": (output, out), "probe": (probe, other)}
    for dev in (analog, output, probe):
        dev.disconnect(verbose=False)
    analog.close()
    output.close()
    probe.close(verbose=False)
    probe._AI_free()


@pytest.fixture
def on(handles):
    return fresh(handles)


def f32(v):
    return list(struct.pack(">f", v))


def frame_bytes(counts):
    return b"".join(struct.pack(">h", c) for c in counts)


CASES = [
    ("analog", "AI_setSamplingRate_async", (0, 20000), {t.SET_AI_SAMPLING_RATE: [0, 0]},
     [(t.SET_AI_SAMPLING_RATE, [0] + f32(20000))], 0),
    ("analog", "AI_setSamplingRate_async", (0, 0), {t.SET_AI_SAMPLING_RATE: [0, 15]}, [(t.SET_AI_SAMPLING_RATE, [0] + f32(0))], -7015),
    ("analog", "AI_setMode_async", (0, 2), {t.SET_AI_MODE: [0, 0]}, [(t.SET_AI_MODE, [0, 2])], 0),
    ("analog", "AI_setNumSamples_async", (0, 70000), {t.SET_AI_NUM_SAMPLES: [0, 0]},
     [(t.SET_AI_NUM_SAMPLES, [0, 0, 1, 0x11, 0x70])], 0),
    ("analog", "AI_clearBufferStatus_async", (0,), {t.CLEAR_DATA: [0, 0]}, [(t.CLEAR_DATA, [0])], 0),
    ("analog", "AI_readBufferStatus_async", (0,), {t.CHECK_BUFFER_STATUS: [0] + [0, 0, 0, 1] + [0, 0, 1, 0] + [FF] * 4 + [0, 0, 0, 9]},
     [(t.CHECK_BUFFER_STATUS, [0])], [1, 256, 4294967295, 9]),
    ("analog", "AI_readOnDemand_async", (0,), {t.READ_AI_ON_DEMAND: [0, 0] + list(frame_bytes([1, -1, 32767, -32768, 0, 0, 0, 0]))},
     [(t.READ_AI_ON_DEMAND, [0, 0])], [0.0003, -0.0003, 9.9997, -10.0, 0.0, 0.0, 0.0, 0.0]),
    ("probe", "AI_readOnDemand_async", (0,), {t.READ_AI_ON_DEMAND_VARIABLE: [0, 0] + list(frame_bytes([3] * 8))},
     [(t.READ_AI_ON_DEMAND_VARIABLE, [0])], [0.0009] * 8),
    ("analog", "AI_start_async", (0,), {}, [(t.OPEN_AI_STREAMING, [0]), (t.START_AI_STREAMING, [0])], 0),
    ("probe", "AI_start_async", (0,), {}, [(t.OPEN_AI_STREAMING, [0]), (t.START_AI_STREAMING_VARIABLE, [0])], 0),
    # analog output of the LAN unit: -10 V to 10 V, eight channels
    ("output", "AO_open_async", (0,), {t.OPEN_AO: [0, 0]}, [(t.OPEN_AO, [0])], 0),
    ("output", "AO_close_async", (0,), {}, [], 0),
    ("output", "AO_writeOneChannel_async", (0, 7, 10), {t.WRITE_AO_BY_CHANNEL: [0, 0]}, [(t.WRITE_AO_BY_CHANNEL, [0, 7] + f32(10))], 0),
    ("output", "AO_writeAllChannels_async", (0, [1.0]), {t.WRITE_AO_SYNCHRONIZED: [0, 0]},
     [(t.WRITE_AO_SYNCHRONIZED, [0] + f32(1.0) + f32(0) * 7)], 0),
    ("output", "AO_writeAllChannels_async", (0, [0.5] * 9), {t.WRITE_AO_SYNCHRONIZED: [0, 16]},
     [(t.WRITE_AO_SYNCHRONIZED, [0] + f32(0.5) * 8)], -7016),
    ("output", "AO_getValues_async", (0,), {t.GET_AO_VALUES: [0, 0] + f32(1.5) + f32(-2) + [0] * 24},
     [(t.GET_AO_VALUES, [0])], [1.5, -2.0] + [0.0] * 6),
    ("output", "AO_openStreaming_async", (0,), {t.OPEN_AO_STREAMING: [0, 2] + f32(1000)}, [(t.OPEN_AO_STREAMING, [0])], [2, 1000.0]),
    ("output", "AO_startStreaming_async", (0,), {}, [(t.START_AO_STREAMING, [0])], 0),
    ("output", "AO_closeStreaming_async", (0,), {t.CLOSE_AO_STREAMING: [0, 0]}, [(t.CLOSE_AO_STREAMING, [0])], 0),
    ("output", "AO_setSamplingRate_async", (0, 1e6), {t.SET_AO_SAMPLING_RATE: [0, 0]}, [(t.SET_AO_SAMPLING_RATE, [0] + f32(1e6))], 0),
    ("output", "AO_setNumSamples_async", (0, 100), {t.SET_AO_NUM_SAMPLES: [0, 0]}, [(t.SET_AO_NUM_SAMPLES, [0, 0, 0, 0, 100])], 0),
    ("output", "AO_setForm_async", (0, 2, 3), {t.SET_AO_FORM: [0, 9, 9, 6]}, [(t.SET_AO_FORM, [0, 0, 2, 3])], -7006),
    ("output", "AO_setFormParam_async", (0, 1, 2, 0.5, 10), {t.SET_AO_FORM_PARAM: [0, 1, 1, 0]},
     [(t.SET_AO_FORM_PARAM, [0, 0, 1] + f32(2) + f32(0.5) + f32(10))], 0),
    ("output", "_AO_setSpan_async", (0, 4), {t.SET_AO_SPAN: [0, 0]}, [(t.SET_AO_SPAN, [0])], 0),
    ("output", "_AO_initialBuffer_async", (0,), {t.INIT_AO_BUFFER: [0, 0, 0, 1, 0, 5]}, [(t.INIT_AO_BUFFER, [0])], [256, 5]),
    ("output", "_AO_getCounters_async", (0,), {t.GET_AO_COUNTERS: [0, 0, 0, 0, 7, 0, 0, 0, 8]}, [(t.GET_AO_COUNTERS, [0])], [7, 8]),
    ("output", "_AO_PushToBuffer_async", (0,), {}, [], 0),
    # a unit that is not the LAN output tests its pins before opening and sends the close
    ("probe", "AO_open_async", (0,), {t.GET_PIN_MODE_OF_SLOT: [1, 5, 0x11, 0x11, 0x01], t.OPEN_AO: [0, 0]},
     [(t.GET_PIN_MODE_OF_SLOT, [1]), (t.OPEN_AO, [0])], 0),
    ("probe", "AO_open_async", (0,), {t.GET_PIN_MODE_OF_SLOT: [1, 5, 0x11, 0x11, 0x02]}, [(t.GET_PIN_MODE_OF_SLOT, [1])],
     t.AOPortNotAvaliableError),
    ("probe", "AO_close_async", (0,), {t.CLOSE_AO: [0, 0]}, [(t.CLOSE_AO, [0])], 0),
]


@pytest.mark.parametrize("which,op,args,replies,sent,result", CASES, ids=[c[1] + str(i) for i, c in enumerate(CASES)])
def test_operation(on, which, op, args, replies, sent, result):
    dev, unit = on(which)
    check_operation(dev, unit, op, args, replies, result)
    unit.wait_frames(len(sent))  # a command sent without a reply may still be on its way
    assert [(f.code, list(f.payload)) for f in unit.log()] == sent


BAD = [
    ("analog", "AI_open_async", ("0",), t.InputTypeNotCorrectError),
    ("analog", "AI_open_async", (1,), t.AIPortNotAvaliableError),
    ("analog", "AI_setSamplingRate_async", (0, 20001), t.AIRateNotVaildError),
    ("analog", "AI_setSamplingRate_async", (1, "x"), t.InputTypeNotCorrectError),  # the rate's type comes before the port
    ("analog", "AI_setMode_async", (0, 3), t.AIModeNotAvaliableError),
    ("analog", "AI_setNumSamples_async", (0, 1.5), t.InputTypeNotCorrectError),
    ("analog", "AI_readStreaming_async", (2, 1), t.AIPortNotAvaliableError),
    ("output", "AO_writeOneChannel_async", (0, 0, 10.001), t.InputDataNotInRangeError),
    ("output", "AO_writeOneChannel_async", (0, 8, 1.0), t.AOChannelNotAvaliableError),
    ("output", "AO_writeAllChannels_async", (0, [0.0] * 8 + [11.0]), t.InputDataNotInRangeError),
    ("output", "AO_writeAllChannels_async", (0, (1.0,)), t.InputTypeNotCorrectError),
    ("output", "AO_setForm_async", (0, 9, 0), t.AOFormNotAvaliableError),  # the form is checked before the channel
    ("output", "AO_setEnableChannels_async", (0, [0, 1]), t.AOChannelNotAvaliableError),
    ("output", "AO_setMode_async", (0, 5), t.AOModeNotVaildError),
    ("output", "_AO_setSpan_async", (0, 5), t.AOSpanNotVaildError),
    ("output", "AO_open_async", (1,), t.AOPortNotAvaliableError),
    ("output", "AO_setFormParam_async", (0, 0, 1, None, 1), t.InputTypeNotCorrectError),
]


@pytest.mark.parametrize("which,op,args,error", BAD, ids=[b[1] + str(i) for i, b in enumerate(BAD)])
def test_bad_input_sends_nothing(on, which, op, args, error):
    check_refused(*on(which), op, args, error)


def stream(unit, code, counts_per_frame, frames, payload_prefix=b"\x00\x00"):
    unit.send_frame(code, payload_prefix + frame_bytes(counts_per_frame) * frames)


def test_gate_worker_and_reader(on):
    dev, unit = on("analog")
    assert dev.ai_lock.locked() and dev.ai_stream_thread.is_alive()
    counts = [1, -1, 32767, -32768, 1024, 0, 5, -5]
    volts = [round(c * RATIO, 4) for c in counts]

    async def main():
        stream(unit, t.START_AI_STREAMING, counts, 3)  # arrives while the gate is shut: waits in the data queue
        await asyncio.sleep(0.05)
        assert dev.ai_data_queue.qsize() == 1 and dev.ai_signal_queue.qsize() == 0
        assert await dev.AI_open_async(0) == 0 and not dev.ai_lock.locked()
        stream(unit, t.START_AI_STREAMING, counts, 2)
        stream(unit, t.START_AI_STREAMING, counts, 0)  # an empty payload gives no frame
        frames = []
        for _ in range(50):
            frames += await dev.AI_readStreaming_async(0, -1, 0.01)
            if len(frames) >= 5:
                break
        assert frames == [volts] * 5
        stream(unit, t.START_AI_STREAMING, counts, 4)
        await asyncio.sleep(0.05)
        assert await dev.AI_readStreaming_async(0, 2) == [volts] * 2
        assert await dev.AI_readStreaming_async(0, 0) == []
        assert len(await dev.AI_readStreaming_async(0, 9)) == 2
        with pytest.raises(RuntimeError):  # a second open releases a gate that is not held
            await dev.AI_open_async(0)
        assert await dev.AI_close_async(0) == 0 and dev.ai_lock.locked()

    run(main())


def test_free_ends_the_worker_at_the_gate_or_in_the_get(units):
    for open_gate in (False, True):
        dev = AnalogProbe(verbose=False)
        t.AIModule.__init__(dev, {0: [(1, 5)]}, 16000, RATIO, 8, False)
        if open_gate:
            dev.ai_lock.release()
        dev._AI_free()
        dev.ai_stream_thread.join(2)
        assert not dev.ai_stream_thread.is_alive() and dev.ai_killed
        dev.close(verbose=False)

