"""The request/reply layer over a network device, against the emulator."""
import asyncio
import collections.abc
import queue
import subprocess
import sys
import textwrap
import time

import pytest

import pytorvik as t
from devices import Probe, run


@pytest.fixture
def unit(sim):
    u = sim("TorvikLanAnalog").unit
    u.use_firmware("echo")  # every code answered [port, 0]: the layer under test sees plain replies
    return u


@pytest.fixture
def dev(unit, make_dev):
    d = make_dev(Probe)
    d.connect(unit.addr, port=unit.cmd_port, verbose=False)
    unit.wait_connected()
    return d


def test_prepare_packet_builder_rules():
    p = t.Packet()
    assert p._preparePacket(t.GET_DRIVER_INFO) == [2, 0, 1, 0xF0, 13, 10]
    assert p._preparePacket(t.SET_AO_MODE, [1, 2]) == [2, 0, 3, 0x20, 0x51, 1, 2, 13, 10]  # length stays n + 1


def test_operations_are_coroutines_and_checks_raise_at_first_send(dev):
    op = dev._echoPacketWithRetry_async("not a code", [1])
    assert isinstance(op, collections.abc.Coroutine) and asyncio.iscoroutine(op)
    with pytest.raises(TypeError):
        op.send(None)
    with pytest.raises(RuntimeError):
        op.send(None)  # a finished operation cannot be awaited again
    op = dev._sendPacketWithoutReply(t.GET_IP, [])
    with pytest.raises(StopIteration):
        op.send(None)  # finishes without suspending


def test_round_trips_by_code_with_every_kind_of_await(dev, unit):
    unit.set_reply(t.GET_DRIVER_INFO, b"\x01\x02\x03")

    async def main():
        a = await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [])
        b = await asyncio.create_task(dev._echoPacketWithRetry_async(t.SET_AO_MODE, [4, 1]))
        c = await asyncio.wait_for(dev._echoPacket_async(t.GET_MAC, [7]), 2)
        many = await asyncio.gather(*[dev._echoPacketWithRetry_async(code, [i]) for i, code in enumerate(range(0xF1, 0xF9))])
        return a, b, c, many

    a, b, c, many = run(main())
    assert (a, b, c) == (b"\x01\x02\x03", b"\x04\x00", b"\x07\x00")
    assert many == [bytes([i, 0]) for i in range(8)]
    assert asyncio.new_event_loop().run_until_complete(dev._echoPacketWithRetry_async(t.GET_IP, [9])) == b"\x09\x00"


def test_unclaimed_replies_stay_newest_wins_and_empty_is_a_value(dev, unit):
    unit.send_frame(t.GET_GATEWAY, b"\x01")
    unit.send_frame(t.GET_SERIAL_NUMBER, b"")
    unit.send_frame(t.GET_GATEWAY, b"\x02")
    unit.wait_frames(0)
    deadline = time.monotonic() + 2
    while dev.data_pool_echo.get(t.GET_GATEWAY) != b"\x02" and time.monotonic() < deadline:
        time.sleep(0.005)
    assert dev.data_pool_echo[t.GET_GATEWAY] == b"\x02" and dev.data_pool_echo[t.GET_SERIAL_NUMBER] == b""
    assert list(dev.data_pool_echo) == [t.GET_GATEWAY, t.GET_SERIAL_NUMBER]  # in the order first filed
    unit.no_reply(t.GET_GATEWAY)
    # The stale reply answers at once; the request still went out.
    assert run(dev._echoPacketWithRetry_async(t.GET_GATEWAY, [5])) == b"\x02"
    assert [f.payload for f in unit.wait_frames(1, code=t.GET_GATEWAY)] == [b"\x05"]
    assert run(dev._getReplyFromPool_async(t.GET_SERIAL_NUMBER)) == b""


@pytest.mark.parametrize("num_retries,timeout,sends,waited", [
    (0, 0.3, 0, 0.3),   # straight to the final wait, nothing sent
    (1, 1, 1, 1.0),     # the final wait is 0: fails at once after the one send
    (1, 1.4, 1, 1.4),
])
def test_time_out_is_the_loops_own_error(dev, unit, num_retries, timeout, sends, waited):
    unit.no_reply(t.GET_IP)
    start = time.monotonic()
    with pytest.raises(asyncio.TimeoutError) as info:
        run(dev._echoPacketWithRetry_async(t.GET_IP, [1], num_retries=num_retries, timeout=timeout))
    assert abs(time.monotonic() - start - waited) < 0.25
    assert str(info.value) == "" and type(info.value) is asyncio.TimeoutError
    assert len(unit.log(t.GET_IP)) == sends


# asyncio costs several times what the module does to import, so the module imports it when an
# operation first needs it; in a process that imported pytorvik first, everything works the same.
LATE_ASYNCIO = textwrap.dedent("""
    import collections.abc, sys
    import pytorvik
    assert "asyncio" not in sys.modules, "import pytorvik imported asyncio"
    dev = pytorvik.TorvikLanAnalog()
    try:
        dev.connect(sys.argv[1], port=int(sys.argv[2]), verbose=False)
        op = dev._echoPacketWithRetry_async(pytorvik.GET_IP, [7])
        assert isinstance(op, collections.abc.Coroutine) and "asyncio" not in sys.modules
        import asyncio
        assert asyncio.run(op) == b"\\x07\\x00"
        try:
            asyncio.run(dev._echoPacketWithRetry_async(pytorvik.GET_MAC, [], num_retries=0, timeout=0.05))
        except asyncio.TimeoutError as e:
            print("raised", type(e).__module__, type(e).__name__)
    finally:
        dev.close()
""")


def test_asyncio_is_imported_when_first_needed(unit):
    unit.no_reply(t.GET_MAC)
    r = subprocess.run([sys.executable, "-c", LATE_ASYNCIO, unit.addr, str(unit.cmd_port)], capture_output=True,
                       text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    raised = [line.split()[1:] for line in r.stdout.splitlines() if line.startswith("raised ")]
    assert raised == [[asyncio.TimeoutError.__module__, asyncio.TimeoutError.__name__]]


def test_final_wait_of_zero_takes_a_reply_already_there(dev):
    dev.data_pool_echo[0x55] = b"ok"
    assert run(dev._echoPacketWithRetry_async(0x55, [], num_retries=0, timeout=0)) == b"ok"


def test_echo_packet_swallows_its_time_out(dev, unit):
    unit.no_reply(t.GET_MAC)
    assert run(dev._echoPacket_async(t.GET_MAC, [], timeout=0.1)) is None


def test_cancelled_wait_leaves_the_late_reply_in_the_pool(dev, unit):
    unit.delay(0.3, count=1)

    async def main():
        task = asyncio.create_task(dev._echoPacketWithRetry_async(t.GET_MAC, [2]))
        await asyncio.sleep(0.05)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(dev._getReplyFromPool_async(t.GET_EEPROM_PAGE), 0.05)
        await asyncio.sleep(0.4)

    run(main())
    assert dev.data_pool_echo.get(t.GET_MAC) == b"\x02\x00"


def test_two_waiters_on_one_code_share_the_replies(dev, unit):
    async def main():
        both = asyncio.gather(dev._getReplyFromPool_async(0x60), dev._getReplyFromPool_async(0x60))
        await asyncio.sleep(0.05)
        unit.send_frame(0x60, b"\x01")
        await asyncio.sleep(0.05)
        unit.send_frame(0x60, b"\x02")
        return sorted(await asyncio.wait_for(both, 2))

    assert run(main()) == [b"\x01", b"\x02"]


def test_loops_in_several_threads_at_once(dev, unit):
    import threading
    results = {}

    def worker(i):
        results[i] = asyncio.run(dev._echoPacketWithRetry_async(0xF1 + i, [i]))

    threads = [threading.Thread(target=worker, args=(i,)) for i in range(4)]
    for th in threads:
        th.start()
    for th in threads:
        th.join(5)
    assert results == {i: bytes([i, 0]) for i in range(4)}


def test_close_while_operations_wait_leaves_them_to_their_time_out(dev, unit):
    unit.no_reply(t.GET_MAC)

    async def main():
        task = asyncio.create_task(dev._echoPacketWithRetry_async(t.GET_MAC, [], num_retries=0, timeout=0.3))
        await asyncio.sleep(0.05)
        dev.disconnect(verbose=False)
        dev.close(verbose=False)
        with pytest.raises(asyncio.TimeoutError):
            await task
        with pytest.raises(AttributeError):  # no client any more: a plain failure at the send
            await dev._echoPacketWithRetry_async(t.GET_MAC, [])

    run(main())


def test_send_without_socket_is_a_plain_failure(make_dev):
    d = make_dev(Probe)
    with pytest.raises(AttributeError, match="'int' object has no attribute 'send'"):
        run(d._echoPacketWithRetry_async(t.GET_IP, []))


def test_routing_into_stream_queues_and_broadcast_sets(dev, unit):
    unit.send_frame(t.START_UART_READING, b"\x01\x00AB")
    unit.send_frame(t.START_UART_READING, b"\x02\x00C")
    unit.send_frame(t.START_UART_READING, b"\x03\x00D")
    unit.send_frame(t.START_AO_STREAMING, b"\x09\x08\x07")
    unit.send_frame(t.START_AI_STREAMING, b"\x00\x00\x01\x02")
    unit.send_frame(t.GET_DEVICE_INFO, b"\x00\x05")
    unit.send_frame(t.GET_DEVICE_INFO, b"\x01\x05")
    unit.send_frame(t.GET_DEVICE_INFO, b"\x01\x05")
    strm = dev.data_pool_strm
    deadline = time.monotonic() + 2
    while len(dev.data_pool_bcst[t.GET_DEVICE_INFO]) == 0 and time.monotonic() < deadline:
        time.sleep(0.005)
    time.sleep(0.02)
    assert strm[(t.START_UART_READING, 1)].get_nowait() == b"AB"
    assert strm[(t.START_UART_READING, 2)].get_nowait() == b"C"
    assert strm[(t.START_UART_READING, 3)].qsize() == 1
    assert strm[t.START_AO_STREAMING].get_nowait() == b"\x09\x08\x07"
    assert strm[t.START_AI_STREAMING].get_nowait() == b"\x01\x02"
    assert strm[t.START_AI_STREAMING] is strm[t.START_AI_STREAMING]
    assert t.START_UART_READING not in strm and (t.START_UART_READING, 1) in strm
    assert dev.data_pool_bcst[t.GET_DEVICE_INFO] == {b"\x05"}


def test_an_unroutable_frame_ends_the_receive_thread(dev, unit, monkeypatch):
    seen = []
    monkeypatch.setattr("threading.excepthook", lambda args: seen.append((args.exc_type, str(args.exc_value))))
    unit.send_frame(t.CHECK_MAC_AND_SET_IP, b"")
    dev.recv_cmd_thread.join(2)
    assert not dev.recv_cmd_thread.is_alive() and dev.connect_status_cmd
    assert seen == [(IndexError, "index out of range")]


def test_stream_queues_behave_like_queues_and_keep_foreign_objects():
    q = t.StreamQueue(maxsize=2)
    marker = object()
    q.put(marker)
    q.put(None)
    assert q.full() and q.qsize() == 2 and q.maxsize == 2
    with pytest.raises(queue.Full):
        q.put_nowait(b"x")
    assert q.get() is marker and q.get_nowait() is None
    with pytest.raises(queue.Empty):
        q.get(timeout=0.01)


@pytest.mark.parametrize("num_samples,expected", [(-1, [b"a", b"b", b"c"]), (2, [b"a", b"b"]), (0, []), (9, [b"a", b"b", b"c"])])
@pytest.mark.parametrize("kind", [t.StreamQueue, queue.Queue])
def test_get_streaming_from_pool(make_dev, kind, num_samples, expected):
    d = make_dev(Probe)
    q = kind()
    for item in (b"a", b"b", b"c"):
        q.put(item)
    start = time.monotonic()
    assert run(d._getStreamingFromPool_async(q, num_samples, 0.05)) == expected
    assert time.monotonic() - start >= 0.05
    assert run(d._getStreamingFromPool_async(kind(), -1, 0)) == []


@pytest.mark.parametrize("delay", [0, 1e-6])
def test_awaiting_releases_what_it_yields_exactly_once(delay):
    # An operation that suspends hands the task None (a bare reschedule) or a future; each must be
    # released once. Released twice, None's count sinks by one an await until the interpreter dies.
    stream = t.StreamQueue()
    packet = t.Packet()

    async def main():
        before = sys.getrefcount(None)
        for _ in range(5000):
            await packet._getStreamingFromPool_async(stream, 0, delay)
        return sys.getrefcount(None) - before

    assert asyncio.run(main()) > -500
