"""USB client and USB device against USB units of the emulator, through the real libusb."""
import asyncio
import subprocess
import sys
import time

import pytest

import pytorvik as t
from conftest import listed_serials
from devices import TorvikUsbLogic, TorvikUsbSink, run, thread_cpu_seconds


def wait_until(predicate, timeout=3.0):
    deadline = time.monotonic() + timeout
    while not predicate():
        assert time.monotonic() < deadline, "condition not met within %.3g s" % timeout
        time.sleep(0.005)


@pytest.fixture
def connected(usb_unit, make_dev):
    unit = usb_unit()
    dev = make_dev(TorvikUsbSink)
    dev.connect(unit.serial, verbose=False)
    unit.wait_connected()
    return unit, dev


def test_listing_and_exact_serial_match(usb_unit, make_dev):
    a = usb_unit("TorvikUsbSink")
    b = usb_unit("TorvikUsbLogic", product="Bench-Unit-7", transfer="interrupt")
    units = t.Packet()._getAllUSBDevices()
    assert [a.serial, "Torvik-USB-Sink"] in units and [b.serial, "Bench-Unit-7"] in units
    dev = make_dev(TorvikUsbSink)
    for wrong in (a.serial.lower(), a.serial[:-1], a.serial + "0", " " + a.serial):
        with pytest.raises(t.USBConnectionError) as info:
            dev.connect(wrong, verbose=False)
        assert info.value.code == -8001
    assert (dev.connect_status_cmd, dev.serial_num, dev.client_cmd, dev.recv_cmd_lock.locked()) == (False, None, None, True)
    assert dev.connect(a.serial, verbose=False) is True
    c = dev.client_cmd
    assert isinstance(c, t.USBClient) and (c.takeSerialNumber(), c.takeProductName()) == (a.serial, "Torvik-USB-Sink")
    assert (c.device.idVendor, c.device.idProduct, c.ep_in, c.ep_out) == (t.USB_VID, t.USB_PID, 0x81, 0x01)
    assert (c.config.bConfigurationValue, c.interface.bInterfaceNumber, c.interface.bAlternateSetting) == (1, 0, 0)
    assert a.stats()["usb.driver"] == 0  # the bound kernel driver was detached
    other = make_dev(TorvikUsbLogic)
    other.connect(b.serial, verbose=False)
    assert [e.bmAttributes & 3 for e in other.client_cmd.interface.endpoints] == [3, 3]

    async def both():
        return await asyncio.gather(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1]),
                                    other._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [2]))

    assert run(both()) == [b"\x01\x00", b"\x02\x00"]


def test_two_units_with_one_serial_the_first_listed_is_taken(usb_unit, make_dev):
    usb_unit(serial="DUP-1", product="First-Or-Second-A")
    usb_unit(serial="DUP-1", product="First-Or-Second-B")
    first = [p for s, p in t.Packet()._getAllUSBDevices() if s == "DUP-1"][0]
    dev = make_dev(TorvikUsbSink)
    dev.connect("DUP-1", verbose=False)
    assert dev.client_cmd.takeProductName() == first


def test_life_cycle_fresh_stream_and_printed_lines(usb_unit, make_dev, capsys):
    unit = usb_unit()
    dev = make_dev(TorvikUsbSink, verbose=True)
    assert dev.data_pool_strm2 is not dev.data_pool_strm and len(dev.data_pool_strm2.keys()) == 0
    assert dev.connect(unit.serial) is True
    first = dev.client_cmd
    assert dev.connect(unit.serial) is None and dev.client_cmd is first  # already connected: nothing
    unit.wait_connected()
    unit.send_frame(t.GET_GATEWAY, b"\x05")   # unclaimed reply
    unit.send_raw(b"\x02\x00\x09\xf0")         # a frame in progress
    wait_until(lambda: t.GET_GATEWAY in dev.data_pool_echo and b"\x02\x00\x09\xf0" in first.stream)
    dev.disconnect()
    dev.disconnect()
    assert dev.client_cmd is None and dev.recv_cmd_lock.locked()
    assert dev.connect(unit.serial) is True
    assert dev.client_cmd is not first and dev.client_cmd.stream == b""
    assert run(dev._getReplyFromPool_async(t.GET_GATEWAY)) == b"\x05"
    dev.close(verbose=False)  # close does not pass verbose on to its disconnect
    dev.close()
    dev.recv_cmd_thread.join(2)
    assert not dev.recv_cmd_thread.is_alive() and dev.killed
    s = unit.serial
    assert capsys.readouterr().out == (
        "Opened handle (Torvik-USB-Sink)\n"
        "Connected to %s (Torvik-USB-Sink)\n"
        "Disconnected from %s (Torvik-USB-Sink)\n"
        "Connected to %s (Torvik-USB-Sink)\n"
        "Disconnected from %s (Torvik-USB-Sink)\n" % (s, s, s, s))
    unit.wait_disconnected()  # the device handle was let go


@pytest.mark.parametrize("via", ["operation", "client"])
@pytest.mark.parametrize("payload,transfer", [(58, 64), (59, 65), (120, 126)])
def test_frames_go_out_padded_to_64_or_whole(connected, via, payload, transfer):
    unit, dev = connected
    unit.clear_log()
    data = [0x5A] * payload
    frame = dev._preparePacket(t.GET_DRIVER_INFO, data)
    if via == "operation":
        run(dev._sendPacketWithoutReply(t.GET_DRIVER_INFO, data))
    else:
        dev.client_cmd.sendPacket(frame)
    assert [f.payload for f in unit.wait_frames(1)] == [bytes(data)]
    assert unit.transfers() == [bytes(frame) + bytes(transfer - len(frame))]


def test_transfers_run_beside_the_loop_in_the_order_the_operations_started(connected):
    unit, dev = connected
    unit.clear_log()

    async def scenario():
        ticks = 0

        async def ticker():
            nonlocal ticks
            while True:
                ticks += 1
                await asyncio.sleep(0)

        spinning = asyncio.ensure_future(ticker())
        await asyncio.sleep(0)
        before = ticks
        await dev._sendPacketWithoutReply(t.GET_MAC, [0])
        during = ticks - before
        # a send given up while under way still goes out, in its place
        cancelled = asyncio.ensure_future(dev._sendPacketWithoutReply(t.GET_MAC, [1]))
        await asyncio.sleep(0)
        cancelled.cancel()
        await asyncio.gather(*(dev._sendPacketWithoutReply(t.GET_MAC, [i]) for i in range(2, 8)))
        reply = await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [8])
        spinning.cancel()
        return during, reply

    during, reply = run(scenario())
    assert during > 0  # the loop ran other tasks while the transfer went out
    assert reply == b"\x08\x00"
    assert [f.payload for f in unit.log()] == [bytes([i]) for i in range(9)]


def test_unplug_prints_the_error_repeatedly_but_not_in_a_spin(connected, capsys):
    unit, dev = connected
    unit.silent()

    async def waiting():
        return await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1], num_retries=1, timeout=1.5)

    async def scenario():
        task = asyncio.ensure_future(waiting())
        await asyncio.sleep(0.1)
        unit.unplug()
        with pytest.raises(asyncio.TimeoutError):
            await task

    run(scenario())
    lines = capsys.readouterr().out.splitlines()
    # The failures back off to one line in 50 ms: some tens of lines in the 1.4 s wait, where a
    # spinning thread would print thousands.
    assert 3 <= len(lines) < 90 and set(lines) == {"USBError: [Errno -4] No such device (it may have been disconnected)"}
    with pytest.raises(t.USBError) as info:
        run(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [2]))  # the send fails with the raw error
    assert (info.value.code, type(info.value)) == (-4, t.USBError)
    assert dev.connect_status_cmd is True
    wait_until(lambda: unit.serial not in listed_serials())  # the listing follows the unplug, and the replug below
    dev.disconnect(verbose=False)
    capsys.readouterr()
    time.sleep(0.1)
    assert capsys.readouterr().out == ""  # nothing read, nothing printed, once disconnected
    unit.replug()
    unit.resume()
    assert dev.connect(unit.serial, verbose=False) is True
    assert run(dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [3])) == b"\x03\x00"
    dev.close(verbose=False)
    dev.recv_cmd_thread.join(2)
    assert not dev.recv_cmd_thread.is_alive()


def test_faults_work_over_usb_and_the_thread_waits_without_polling(connected):
    unit, dev = connected
    unit.status(3, count=1)
    unit.drop(1)
    unit.duplicate(1)

    async def exchanges():
        a = await dev._echoPacketWithRetry_async(t.GET_DRIVER_INFO, [1])  # dropped, then answered on the resend
        b = await dev._echoPacketWithRetry_async(t.GET_MAC, [2])
        return a, b

    a, b = run(exchanges())
    assert a == b"\x01\x03" and b == b"\x02\x00"
    assert [f.code for f in unit.log()] == [t.GET_DRIVER_INFO, t.GET_DRIVER_INFO, t.GET_MAC]
    before = thread_cpu_seconds(dev.recv_cmd_thread)
    time.sleep(0.4)
    assert thread_cpu_seconds(dev.recv_cmd_thread) - before < 0.02


def test_client_reads_with_a_1_ms_limit(usb_unit):
    unit = usb_unit()
    c = t.USBClient(unit.serial)
    with pytest.raises(t.USBTimeoutError) as info:
        c.recvPacket(64)
    assert info.value.code == -7 and isinstance(info.value, t.USBError)
    with pytest.raises(t.USBTimeoutError):
        c.recvAndSplitPacket(64)
    assert c.stream == b""
    c.sendPacket([2, 0, 2, 0xF0, 9, 13, 10])
    packets = []
    deadline = time.monotonic() + 3
    while not packets and time.monotonic() < deadline:
        try:
            packets = c.recvAndSplitPacket(64)
        except t.USBTimeoutError:
            pass
    assert packets == [(t.GET_DRIVER_INFO, b"\x09\x00")]
    assert c.stream == bytes(64 - 8)  # the reply's padding waits for the next frame's cut
    del c
    unit.wait_disconnected()


def test_the_node_of_an_unplugged_unit_answers_as_a_gone_device_however_often_it_is_opened(usb_unit):
    # A host that listed the bus just before an unplug opens the node afterwards; that must fail
    # as a gone device does, every time, and never end the host (its own process here).
    unit = usb_unit()
    s = unit.stats()
    node = "/dev/bus/usb/%03d/%03d" % (s["usb.bus"], s["usb.address"])
    unit.unplug()
    probe = ("import errno, fcntl, os, struct\n"
             "for _ in range(100):\n"
             "    fd = os.open(%r, os.O_RDWR)\n"
             "    try:\n"
             "        fcntl.ioctl(fd, 0x8004551a, struct.pack('I', 0))\n"  # the capabilities query
             "    except OSError as e:\n"
             "        assert e.errno == errno.ENODEV, e\n"
             "    else:\n"
             "        raise AssertionError('answered')\n"
             "    os.close(fd)\n") % node
    done = subprocess.run([sys.executable, "-c", probe], capture_output=True, text=True, timeout=30)
    assert done.returncode == 0, done.stderr


def test_a_steady_analog_stream_over_usb_goes_out_a_tick_of_frames_at_a_time(usb_unit):
    """The unit does not shrink its payloads to one frame each because the bus took the last one
    quickly: a payload carries the frames of its tick, and every frame arrives."""
    unit = usb_unit("TorvikUsbAnalog", firmware="model")
    dev = t.TorvikUsbAnalog()

    async def stream():
        await dev.AI_open_async(0)
        await dev.AI_setMode_async(0, 2)
        await dev.AI_setSamplingRate_async(0, 1000)
        await dev.AI_start_async(0)
        got = []
        until = time.monotonic() + 0.5
        while time.monotonic() < until:
            got += await dev.AI_readStreaming_async(0, -1, 0.01)
        await dev.AI_stop_async(0)
        got += await dev.AI_readStreaming_async(0, -1, 0.1)
        return len(got)

    try:
        dev.connect(unit.serial, verbose=False)
        received = run(stream())
    finally:
        dev.close()
    stats = unit.stats()
    assert received == stats["stream.frames"] >= 300
    assert stats["stream.payloads"] * 3 <= stats["stream.frames"]
