"""pytorvik.run: operations driven to their result on the calling thread, against the emulator."""
import _thread
import asyncio
import gc
import sys
import threading
import warnings

import pytest

import devices
import pytorvik as t


@pytest.fixture
def handle(sim):
    """A factory: a connected product handle of class `cls` on a unit of its own."""
    made = []

    def make(cls):
        unit = sim(cls.__name__).unit
        made.append(cls())
        made[-1].connect(unit.addr, port=unit.cmd_port, verbose=False)
        return made[-1]

    yield make
    for dev in made:
        dev.disconnect(verbose=False)
        dev.close()


@pytest.fixture
def probe(sim, make_dev):
    unit = sim("TorvikLanAnalog").unit
    unit.use_firmware("echo")  # every code answered [port, 0]
    dev = make_dev(devices.Probe)
    dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
    return dev, unit


def outcome(drive, op):
    try:
        return drive(op)
    except Exception as e:  # noqa: BLE001 - compared below
        return type(e), str(e)


@pytest.mark.parametrize("name,args", [
    ("Sys_getDriverInfo_async", ()),
    ("Net_getIPAddrAndSubmask_async", ()),
    ("DO_openPins_async", (0, [0, 1])),        # checks the pin modes first: a nested operation
    ("DO_writePins_async", (0, 5, 1)),         # a mask
    ("DI_readPort_async", (1,)),
    ("DO_writePins_async", (0, [0, 1], [1])),  # refused before anything is sent
    ("DI_openPins_async", (7, [0])),           # no such port
])
def test_results_and_errors_equal_the_awaited_ones(handle, name, args):
    dev = handle(t.TorvikLanLogic)
    assert outcome(asyncio.run, getattr(dev, name)(*args)) == outcome(t.run, getattr(dev, name)(*args))


def test_analog_input_with_streaming_opens_and_sleeps(handle):
    dev = handle(t.TorvikLanAnalog)
    port = min(dev.AI_getPort())
    assert t.run(dev.AI_open_async(port)) == 0 and len(t.run(dev.AI_readOnDemand_async(port))) == 8
    for op, arg in (("AI_setMode_async", 1), ("AI_setSamplingRate_async", 5000), ("AI_setNumSamples_async", 200)):
        assert t.run(getattr(dev, op)(port, arg)) == 0
    t.run(dev.AI_start_async(port))
    frames = []
    while len(frames) < 200:
        frames += t.run(dev.AI_readStreaming_async(port, -1, 0.02))  # sleeps 20 ms, then takes what came
    assert len(frames) == 200 and t.run(dev.AI_stop_async(port)) == 0


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


def test_refused_inside_a_running_loop_before_anything_is_sent(probe):
    dev, unit = probe
    op = dev._echoPacketWithRetry_async(t.GET_IP, [1])

    async def main():
        with pytest.raises(RuntimeError, match=r"^pytorvik.run\(\) cannot be called from a running event loop$"):
            t.run(op)
        return await op  # still unstarted: it can be awaited

    assert asyncio.run(main()) == b"\x01\x00" and len(unit.log(t.GET_IP)) == 1


class TorvikLanLogic(t.TorvikLanLogic):  # a product's subclass keeps its name: its tables go by it
    """Overrides the operation that its DO checks await with a coroutine function."""
    asked = []

    async def Sys_getPinModeInPort_async(self, port):
        self.asked.append(port)
        return await super().Sys_getPinModeInPort_async(port)


def test_coroutines_awaiting_only_operations_run_nested_or_outermost(handle):
    dev = handle(TorvikLanLogic)

    async def script():
        await asyncio.sleep(0)  # a bare yield needs no loop
        return [await dev.DO_openPins_async(0, [0]), await dev.Sys_getDriverInfo_async()]

    assert t.run(script()) == asyncio.run(script()) and TorvikLanLogic.asked == [0, 0]


def test_what_needs_a_loop_is_refused(probe):
    loop = asyncio.new_event_loop()
    try:
        for other in (loop.create_future(), loop.create_task(asyncio.sleep(0)), (x for x in ()), 5):
            with pytest.raises(TypeError, match="needs an operation of this library"):
                t.run(other)

        async def on_a_future():
            return await loop.create_future()

        with pytest.raises(RuntimeError, match="cannot wait for <Future"):
            t.run(on_a_future())
    finally:
        loop.run_until_complete(asyncio.sleep(0))
        loop.close()
    assert t.run(probe[0]._echoPacketWithRetry_async(t.GET_IP, [2])) == b"\x02\x00"


def test_threads_running_operations_beside_a_thread_with_a_loop(probe):
    dev, results = probe[0], {}

    def blocking(i):
        results[i] = [t.run(dev._echoPacketWithRetry_async(0xF1 + i, [i, n])) for n in range(50)]

    async def awaiting():
        results[9] = [await dev._echoPacketWithRetry_async(0xF8, [9, n]) for n in range(50)]

    threads = [threading.Thread(target=blocking, args=(i,)) for i in range(3)]
    threads.append(threading.Thread(target=asyncio.run, args=(awaiting(),)))
    for th in threads:
        th.start()
    for th in threads:
        th.join(30)
    assert results == {i: [bytes([i, 0])] * 50 for i in (0, 1, 2, 9)}


def test_ctrl_c_ends_a_wait_without_a_time_limit_and_the_handle_stays_usable(probe):
    dev, unit = probe
    timer = threading.Timer(0.3, _thread.interrupt_main)
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        t.run(dev._getReplyFromPool_async(0x60))  # nothing sends 0x60: waits until interrupted
    timer.join()
    unit.send_frame(0x60, b"\x07")
    assert t.run(dev._getReplyFromPool_async(0x60)) == b"\x07"  # the reply stayed for the next taker
    assert t.run(dev._echoPacketWithRetry_async(t.GET_IP, [4])) == b"\x04\x00"


def test_a_waiting_run_files_what_else_comes_with_its_reply(probe):
    dev, unit = probe

    def unit_sends():  # while run waits: stream data, another reply, then its own
        unit.send_frame(t.START_UART_READING, b"\x01\x00hi")
        unit.send_frame(0x62, b"\x02")
        unit.send_frame(0x61, b"\x01")

    timer = threading.Timer(0.05, unit_sends)
    timer.start()
    assert t.run(dev._getReplyFromPool_async(0x61)) == b"\x01"
    timer.join()
    assert dev.data_pool_echo[0x62] == b"\x02"
    assert dev.data_pool_strm[(t.START_UART_READING, 1)].get(timeout=2) == b"hi"


def test_a_full_bounded_stream_queue_holds_up_the_receive_thread_but_not_a_run(probe):
    dev, unit = probe
    queue = t.StreamQueue(1)
    queue.put(b"x")
    dev.data_pool_strm[(t.START_UART_READING, 1)] = queue
    unit.send_frame(t.START_UART_READING, b"\x01\x00hi")  # the receive thread waits for room
    assert t.run(dev._echoPacket_async(0x65, [1], 0.1)) is None  # its time limit still holds
    assert queue.get() == b"x" and queue.get(timeout=2) == b"hi"
    assert t.run(dev._getReplyFromPool_async(0x65)) == b"\x01\x00"  # filed once there was room


def test_usb_commands_go_out_on_the_callers_thread(usb_unit, make_dev):
    unit = usb_unit()  # skips unless pytest runs on the emulator's USB bus
    dev = make_dev(devices.TorvikUsbSink)
    dev.connect(unit.serial, verbose=False)
    replies = [t.run(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [i])) for i in range(3)]
    assert replies == [bytes([i, 0]) for i in range(3)]


async def python_coroutine():
    pass


@pytest.mark.parametrize("use,warned", [(lambda op: None, True), (lambda op: op.close(), False),
                                        (asyncio.run, False), (t.run, False)])
def test_never_started_operations_warn_as_coroutines_do(make_dev, use, warned):
    def warned_by(make):
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            use(make())
            gc.collect()
        return [str(w.message) for w in caught if w.category is RuntimeWarning]

    p = make_dev(devices.Probe)
    p.data_pool_echo[0x55] = b"ok"  # answers the awaited ones
    expected = ["coroutine '%s' was never awaited" % n for n in ("Packet._getReplyFromPool_async", "python_coroutine")]
    assert [warned_by(lambda: p._getReplyFromPool_async(0x55)), warned_by(python_coroutine)] == \
        ([expected[:1], expected[1:]] if warned else [[], []])


def test_a_warning_made_an_error_is_reported_as_unraisable():
    seen, hook = [], sys.unraisablehook
    sys.unraisablehook = seen.append
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            t.Packet()._getReplyFromPool_async(0x55)
    finally:
        sys.unraisablehook = hook
    assert [type(s.exc_value) for s in seen] == [RuntimeWarning]
