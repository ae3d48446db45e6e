"""pytorvik.run: operations driven to their result on the calling thread, against the emulator."""
import _thread
import asyncio
import gc
import os
import sys
import threading
import warnings

import pytest

import devices
import pytorvik as t
from devices import Probe
from pytorvik import simctl


@pytest.fixture
def handle(sim):
    """A factory: a connected product handle of class `cls` on a unit of its own."""
    made = []

    def make(cls, unit_class=None):
        unit = sim(unit_class or cls.__name__).unit
        dev = cls()
        made.append(dev)
        dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        return dev, unit

    yield make
    for dev in made:
        dev.disconnect(verbose=False)
        dev.close()


@pytest.fixture
def logic(handle):
    return handle(t.TorvikLanLogic)


@pytest.fixture
def analog(handle):
    return handle(t.TorvikLanAnalog)[0]


@pytest.fixture
def probe(sim, make_dev):
    unit = sim("TorvikLanAnalog").unit
    unit.use_firmware("echo")  # every code answered [port, 0]
    dev = make_dev(Probe)
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    return dev, unit


def both_ways(make_op):
    """(awaited outcome, run outcome): each a result or the exception's type and text."""
    def outcome(drive):
        try:
            return drive(make_op())
        except Exception as e:
            return type(e), str(e)
    return outcome(asyncio.run), outcome(t.run)


@pytest.mark.parametrize("name,args", [
    ("Sys_getDriverInfo_async", ()),
    ("Sys_getMACAddr_async", ()),
    ("Net_getIPAddrAndSubmask_async", ()),
    ("Sys_getPinModeInPort_async", (1,)),
    ("DO_openPins_async", (0, [0, 1])),        # checks the pin modes first: a nested operation
    ("DO_writePins_async", (0, 5, 1)),         # a mask
    ("DI_readPort_async", (1,)),
    ("DO_writePins_async", (0, [0, 1], [1])),  # refused before anything is sent
    ("DI_openPins_async", (7, [0])),           # no such port
])
def test_results_and_errors_equal_the_awaited_ones(logic, name, args):
    dev, _ = logic
    awaited, ran = both_ways(lambda: getattr(dev, name)(*args))
    assert awaited == ran


def test_analog_operations_with_streaming_opens_and_sleeps(analog):
    port = min(analog.AI_getPort())
    assert t.run(analog.AI_open_async(port)) == 0
    volts = t.run(analog.AI_readOnDemand_async(port))  # live waveforms: compared by shape only
    assert len(volts) == 8 and all(isinstance(v, float) for v in volts)
    for op, arg in (("AI_setMode_async", 1), ("AI_setSamplingRate_async", 5000), ("AI_setNumSamples_async", 200)):
        assert t.run(getattr(analog, op)(port, arg)) == 0
    assert t.run(analog.AI_start_async(port)) == 0
    frames = []
    for _ in range(200):
        frames += t.run(analog.AI_readStreaming_async(port, -1, 0.02))
        if len(frames) >= 200:
            break
    assert len(frames) == 200 and all(len(f) == 8 for f in frames)
    assert t.run(analog.AI_stop_async(port)) == 0 and t.run(analog.AI_close_async(port)) == 0


@pytest.mark.parametrize("num_retries,timeout,sends", [(0, 0.2, 0), (1, 1, 1), (2, 2.2, 2)])
def test_time_out_follows_the_retry_schedule_and_raises_the_loops_error(probe, num_retries, timeout, sends):
    dev, unit = probe
    unit.no_reply(t.GET_IP)
    for drive in (asyncio.run, t.run):
        unit.clear_log()
        with pytest.raises(asyncio.TimeoutError) as info:
            drive(dev._echoPacketWithRetry_async(t.GET_IP, [1], num_retries=num_retries, timeout=timeout))
        assert type(info.value) is asyncio.TimeoutError and str(info.value) == ""
        assert len(unit.log(t.GET_IP)) == sends


def test_usb_commands_go_out_on_the_callers_thread(usb_unit, make_dev):
    unit = usb_unit()  # skips unless pytest runs on the emulator's USB bus
    dev = make_dev(devices.TorvikUsbSink)
    dev.connect(unit.serial, verbose=False)
    assert [t.run(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [i])) for i in range(3)] == [bytes([i, 0]) for i in range(3)]


def test_a_retry_after_a_dropped_reply_gets_the_answer(probe):
    dev, unit = probe
    unit.drop(1)
    assert t.run(dev._echoPacketWithRetry_async(t.GET_IP, [3])) == b"\x03\x00"
    assert len(unit.log(t.GET_IP)) == 2


def test_refused_inside_a_running_loop_before_anything_is_sent(probe):
    dev, unit = probe
    op = dev._echoPacketWithRetry_async(t.GET_IP, [1])

    async def main():
        with pytest.raises(RuntimeError, match=r"^pytorvik.run\(\) cannot be called from a running event loop$"):
            t.run(op)
        return await op  # still unstarted: it can be awaited

    assert asyncio.run(main()) == b"\x01\x00"
    assert len(unit.log(t.GET_IP)) == 1


class TorvikLanLogic(t.TorvikLanLogic):
    """Overrides the operation its DO checks await with a coroutine function of its own (a
    product's subclass keeps the product's name: the handle looks its tables up by it)."""
    asked = []

    async def Sys_getPinModeInPort_async(self, port):
        self.asked.append(port)
        return await super().Sys_getPinModeInPort_async(port)


def test_coroutines_that_await_only_operations_run_nested_or_outermost(handle):
    dev, _ = handle(TorvikLanLogic)

    async def script():
        await asyncio.sleep(0)  # a bare yield needs no loop
        return [await dev.DO_openPins_async(0, [0]), await dev.Sys_getDriverInfo_async()]

    assert t.run(script()) == asyncio.run(script())
    assert TorvikLanLogic.asked == [0, 0]


def test_other_awaitables_are_refused(probe):
    dev, _ = probe
    loop = asyncio.new_event_loop()
    try:
        for other in (loop.create_future(), loop.create_task(asyncio.sleep(0)), (x for x in ()), 5):
            with pytest.raises(TypeError, match="needs an operation of this library"):
                t.run(other)

        async def needs_a_loop():
            return await loop.create_future()

        with pytest.raises(RuntimeError, match="cannot wait for <Future"):
            t.run(needs_a_loop())
        with pytest.raises(RuntimeError, match="no running event loop"):
            t.run(asyncio.sleep(0.01))
    finally:
        loop.run_until_complete(asyncio.sleep(0))
        loop.close()
    assert t.run(dev._echoPacketWithRetry_async(t.GET_IP, [2])) == b"\x02\x00"


def test_threads_running_operations_beside_a_thread_with_a_loop(probe):
    dev, _ = probe
    results, errors = {}, []

    def blocking(i):
        try:
            results[i] = [t.run(dev._echoPacketWithRetry_async(0xF1 + i, [i, n])) for n in range(50)]
        except Exception as e:  # noqa: BLE001 - reported below
            errors.append(e)

    async def awaiting():
        return [await dev._echoPacketWithRetry_async(0xF8, [9, n]) for n in range(50)]

    threads = [threading.Thread(target=blocking, args=(i,)) for i in range(3)]
    threads.append(threading.Thread(target=lambda: results.__setitem__(9, asyncio.run(awaiting()))))
    for th in threads:
        th.start()
    for th in threads:
        th.join(30)
    assert not errors
    assert results == {i: [bytes([i, 0])] * 50 for i in (0, 1, 2, 9)}


def test_ctrl_c_ends_a_wait_without_a_time_limit_and_the_handle_stays_usable(probe):
    dev, unit = probe
    timer = threading.Timer(0.3, _thread.interrupt_main)
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            t.run(dev._getReplyFromPool_async(0x60))  # nothing sends 0x60: waits until interrupted
    finally:
        timer.join()
    unit.send_frame(0x60, b"\x07")
    assert t.run(dev._getReplyFromPool_async(0x60)) == b"\x07"  # the reply stayed for the next taker
    assert t.run(dev._echoPacketWithRetry_async(t.GET_IP, [4])) == b"\x04\x00"


def unawaited_warnings(use):
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        use()
        gc.collect()
    return [(w.category, str(w.message)) for w in caught if w.category is RuntimeWarning]


async def _python_coroutine():
    pass


@pytest.mark.parametrize("use,warned", [
    (lambda op: None, True),
    (lambda op: op.close(), False),
    (lambda op: asyncio.run(op), False),
    (lambda op: t.run(op), False),
])
def test_never_started_operations_warn_as_coroutines_do(probe, use, warned):
    dev, _ = probe
    got = unawaited_warnings(lambda: use(dev._echoPacketWithRetry_async(t.GET_IP, [1])))
    assert got == ([(RuntimeWarning, "coroutine 'Packet._echoPacketWithRetry_async' was never awaited")] if warned else [])
    # The interpreter's own wording, with the qualified name in the same place.
    assert unawaited_warnings(lambda: _python_coroutine()) == [(RuntimeWarning, "coroutine '_python_coroutine' was never awaited")]


def test_a_warning_made_an_error_is_reported_as_unraisable(probe):
    dev, _ = probe
    seen = []
    hook, sys.unraisablehook = sys.unraisablehook, seen.append
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            dev._echoPacketWithRetry_async(t.GET_IP, [1])
    finally:
        sys.unraisablehook = hook
    assert [type(s.exc_value) for s in seen] == [RuntimeWarning]


@pytest.mark.parametrize("name,unit_class,expect", [
    ("blocking_dio", "TorvikLanLogic", ["<- [1, 0, 1] | DI reads [1, 0, 1]", "close: 0 0"]),
    ("blocking_ai", "TorvikLanAnalog", ["volts: [", "500 frames at 5000 Hz", "close: 0"]),
])
def test_blocking_examples(name, unit_class, expect):
    unit_arg = simctl.unit_spec(unit_class, cmd_port=17007)
    addr = unit_arg.split("@")[1].split(":")[0]
    examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
    r = simctl.run_with_command([unit_arg], [sys.executable, os.path.join(examples, name + ".py"), "%s:17007" % addr],
                                timeout=60)
    out = r.stdout.decode()
    assert r.returncode == 0, out + r.stderr.decode()
    assert all(text in out for text in expect), out
