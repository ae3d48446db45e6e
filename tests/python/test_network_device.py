"""Life cycle of the network device bases against the emulator: gates, threads, printed lines."""
import re
import time

import pytest

import pytorvik
from devices import DeviceFinder, Probe, TorvikAirAnalog, TorvikLanLogic, TorvikUsbSink, thread_cpu_seconds


@pytest.fixture
def lan(sim):
    return sim("TorvikLanLogic").unit


@pytest.fixture
def air(sim):
    return sim("TorvikAirAnalog").unit


# Every thread is a non-daemon thread, named as threading names a thread with a target from
# Python 3.10 on, on older interpreters too.
@pytest.mark.parametrize("handle,bodies", [
    ("TorvikAirAnalog", {"recv_cmd_thread": "_recvCMDThread", "recv_data_thread": "_recvDataThread",
                         "ai_stream_thread": "_AIStreamThread"}),
    ("TorvikUsbCan", {"recv_cmd_thread": "_recvCMDThread", "uart_p1_stream_thread": "_UARTStreamThread",
                      "uart_p2_stream_thread": "_UARTStreamThread", "can_stream_thread": "_CANStreamThread"}),
    ("DeviceFinder", {"recv_udp_thread": "_recvUDPThread"}),
])
def test_threads_are_named_for_their_bodies(handle, bodies, capsys):
    dev = getattr(pytorvik, handle)()
    try:
        names = {field: getattr(dev, field).name for field in bodies}
        assert not [field for field in bodies if getattr(dev, field).daemon]
    finally:
        dev.close()
    numbers = set()
    for field, name in names.items():
        m = re.fullmatch(r"Thread-(\d+) \((\w+)\)", name)
        assert m and m.group(2) == bodies[field], name
        numbers.add(m.group(1))
    assert len(numbers) == len(names)


def test_life_cycle_and_printed_lines(lan, make_dev, capsys):
    dev = make_dev(TorvikLanLogic, verbose=True)
    assert dev.connect(lan.addr, port=lan.cmd_port) is True
    assert dev.connect(lan.addr, port=lan.cmd_port) is None  # already connected: nothing, silently
    lan.wait_connected()
    dev.disconnect()
    dev.disconnect()
    lan.wait_disconnected()
    assert dev.connect(lan.addr, port=lan.cmd_port) is True
    dev.close(verbose=False)  # close does not pass verbose on to its disconnect
    dev.close()
    assert capsys.readouterr().out == (
        "Opened handle (Torvik-LAN-Logic)\n"
        "Connected to {a} (Torvik-LAN-Logic)\n"
        "Disconnected from {a} (Torvik-LAN-Logic)\n"
        "Connected to {a} (Torvik-LAN-Logic)\n"
        "Disconnected from {a} (Torvik-LAN-Logic)\n".format(a=lan.addr))
    dev.recv_cmd_thread.join(2)
    assert not dev.recv_cmd_thread.is_alive() and dev.client_cmd is None and dev.killed


@pytest.mark.parametrize("cls,label", [(TorvikLanLogic, "Torvik-LAN-Logic"), (TorvikUsbSink, "Torvik-USB-Sink")])
def test_close_without_connect_ends_the_thread_silently(make_dev, capsys, cls, label):
    dev = make_dev(cls, verbose=True)
    dev.close()
    dev.recv_cmd_thread.join(2)
    assert not dev.recv_cmd_thread.is_alive()
    assert capsys.readouterr() == ("Opened handle ({0})\nClosed handle ({0})\n".format(label), "")


def test_refused_connect_leaves_the_object_reusable(lan, loopback_addr, make_dev):
    dev = make_dev(Probe)
    assert (dev.killed, dev.client_cmd.socket) == (False, 0)
    with pytest.raises(KeyError):
        dev._getDeviceName()  # a class no product is named after
    with pytest.raises(pytorvik.NetworkConnectionError) as info:
        dev.connect(loopback_addr, port=lan.cmd_port, verbose=False)
    assert info.value.code == -8002
    assert (dev.connect_status_cmd, dev.ip_addr, dev.recv_cmd_lock.locked()) == (False, None, True)
    assert dev.connect(lan.addr, port=lan.cmd_port, verbose=False) is True and dev.ip_addr == lan.addr


def test_wifi_data_connection_and_its_own_gate(air, make_dev, capsys):
    dev = make_dev(TorvikAirAnalog, verbose=True)
    with pytest.raises(pytorvik.NetworkConnectionError):
        dev.connect(air.addr, port1=air.cmd_port, port2=1)  # wrong data port: command link stays
    assert (dev.connect_status_cmd, dev.connect_status_data) == (True, False)
    dev.disconnect()  # only the command link was up: no line
    assert dev.connect(air.addr, port1=air.cmd_port, port2=air.data_port) is True
    air.wait_connected("data")
    dev.close()
    out = capsys.readouterr().out.splitlines()
    assert out == ["Opened handle (Torvik-Air-Analog)",
                   "Connected to %s (Torvik-Air-Analog)" % air.addr,
                   "Disconnected from %s (Torvik-Air-Analog)" % air.addr,
                   "Closed handle (Torvik-Air-Analog)"]
    for t in (dev.recv_cmd_thread, dev.recv_data_thread):
        t.join(2)
        assert not t.is_alive()


def test_peer_shutdown_parks_the_thread_without_burning_cpu(lan, make_dev):
    dev = make_dev(Probe)
    dev.connect(lan.addr, port=lan.cmd_port, verbose=False)
    lan.wait_connected()
    lan.shutdown()
    time.sleep(0.05)
    before = thread_cpu_seconds(dev.recv_cmd_thread)
    time.sleep(0.3)
    assert thread_cpu_seconds(dev.recv_cmd_thread) - before < 0.05
    assert dev.connect_status_cmd is True
    dev.disconnect(verbose=False)
    assert dev.connect_status_cmd is False and dev.recv_cmd_lock.locked()


def test_reset_connection_then_disconnect_fails_and_leaves_the_gate_held(lan, make_dev):
    dev = make_dev(Probe)
    dev.connect(lan.addr, port=lan.cmd_port, verbose=False)
    lan.wait_connected()
    lan.reset()
    lan.wait_disconnected()
    time.sleep(0.05)
    with pytest.raises(pytorvik.NetworkConnectionLostError) as info:
        dev.disconnect(verbose=False)
    assert str(info.value) == "Error -8007: Network DAQ connection lost."
    assert dev.connect_status_cmd is True and dev.recv_cmd_lock.locked() and dev.client_cmd.socket != 0
    # A further disconnect would wait for ever on the gate its own earlier call holds.
    assert not dev.recv_cmd_lock.acquire(timeout=0.05)


def test_broadcast_device_binds_and_its_disconnect_is_a_lost_connection(make_dev, capsys):
    dev = make_dev(DeviceFinder, verbose=True)
    try:
        assert dev.connect() is True
    except pytorvik.NetworkConnectionError:
        pytest.skip("UDP port %d is in use on this machine" % pytorvik.UDP_RECV_PORT)
    assert dev.connect() is None
    # shutdown() of an unconnected datagram socket is an error on Linux.
    with pytest.raises(pytorvik.NetworkConnectionLostError):
        dev.disconnect()
    assert dev.connect_status_udp is True and dev.recv_udp_lock.locked()
    assert capsys.readouterr().out == "Opened handle (Device finder)\nBinded Device finder\n"
