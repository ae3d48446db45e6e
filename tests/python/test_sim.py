"""torvik-sim seen from a host made of plain sockets: framing, replies, faults, log, connections.
Units here run the echo firmware, which answers every code alike; test_sim_firmware.py tests the
firmware models."""

import os
import random
import signal
import socket
import subprocess
import sys
import time

import pytest

from pytorvik import simctl
from test_libusb_loading import can_hide_files

GET_DRIVER_INFO = 0xF0
READ_DI = 0xE7
OPEN_CAN = 0x30
START_AI_STREAMING = 0xB7
GET_DEVICE_INFO = 0xFC
RELAY_READ = 0x1B00
SET_AO_MODE = 0x2051
STREAMING = {0x31, 0x81, 0xB7, 0xBE, 0x2049, 0xD3}
BROADCAST = {0xFC, 0xFD, 0xFE}


def request(code, payload=b"", length=None):
    """A frame as the host builds it: the length is the payload plus one, whatever the code."""
    code_bytes = bytes([code]) if code < 256 else code.to_bytes(2, "big")
    n = len(payload) + 1 if length is None else length
    return b"\x02" + n.to_bytes(2, "big") + code_bytes + bytes(payload) + b"\r\n"


def reply(code, payload):
    """A frame as the host's splitter wants it: the length counts every code byte."""
    code_bytes = bytes([code]) if 48 < code < 256 else code.to_bytes(2, "big")
    return b"\x02" + (len(code_bytes) + len(payload)).to_bytes(2, "big") + code_bytes + bytes(payload) + b"\r\n"


def recv_exactly(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        assert chunk, "connection closed after %r" % data
        data += chunk
    return data


def exchange(sock, req, expected):
    sock.sendall(req)
    assert recv_exactly(sock, len(expected)) == expected


def barrier(sock):
    """Proves that nothing was sent before: replies leave in order, so the next bytes must be
    this request's reply."""
    exchange(sock, request(GET_DRIVER_INFO, b"\xee"), reply(GET_DRIVER_INFO, b"\xee\x00"))


def connect(unit, port=None):
    s = socket.create_connection((unit.addr, port or unit.cmd_port), timeout=3)
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


def echo(unit):
    unit.use_firmware("echo")
    return unit


@pytest.fixture
def core(sim):
    return echo(sim("TorvikCore").unit)


@pytest.fixture
def host(core):
    with connect(core) as s:
        core.wait_connected()  # before a test acts on the unit's links
        yield s


# ---- framing ----------------------------------------------------------------------------------

def _deliveries():
    a, b, c = request(READ_DI, b"\x01\x02\r\n\x02"), request(RELAY_READ, b""), request(OPEN_CAN, b"\x30\x0d")
    whole = a + b + c
    return {
        # (junk, slicing anywhere and zero padding are in the random stream below)
        "false start, huge length": (b"\x02\xff\xff" + whole, 3),
        "false start, length waits": (b"\x02\x01\x30\xf0" + whole, 4),
        "wrong length": (request(READ_DI, b"\x09", length=5) + whole, 6),
        "unit's length rule": (bytes.fromhex("0200041b0001000d0a") + whole, 6),
    }


@pytest.mark.parametrize("name", list(_deliveries()))
def test_requests_survive_false_starts(core, host, name):
    stream, junk = _deliveries()[name]
    host.sendall(stream)
    expected = [(READ_DI, b"\x01\x02\r\n\x02"), (RELAY_READ, b""), (OPEN_CAN, b"\x30\x0d")]
    frames = core.wait_frames(3, timeout=2)
    assert [(f.code, f.payload) for f in frames] == expected
    replies = reply(READ_DI, b"\x01\x00") + reply(RELAY_READ, b"\x00") + reply(OPEN_CAN, b"\x30\x00")
    assert recv_exactly(host, len(replies)) == replies
    assert core.stats()["junk"] == junk


def test_random_stream_with_junk_is_cut_exactly(core, host):
    rng = random.Random(20261124)
    codes = [c for c in range(0x31, 0x100) if c not in STREAMING | BROADCAST] + [OPEN_CAN, RELAY_READ, SET_AO_MODE]
    noise = [b for b in range(1, 256) if b != 2]  # junk without a start byte cannot hide a frame
    sent, stream, junk_bytes = [], b"", 0
    for _ in range(300):
        code = rng.choice(codes)
        payload = bytes(rng.choice([0, 2, 10, 13, 0x30, rng.randrange(256)]) for _ in range(rng.randrange(12)))
        sent.append((code, payload))
        gap = bytes(rng.choice([0, 0, 5, 40]))
        if rng.random() < 0.3:
            gap += bytes(rng.choice(noise) for _ in range(rng.randrange(1, 8)))
            junk_bytes += len(gap) - gap.count(0)
        stream += gap + request(code, payload)
    pos = 0
    while pos < len(stream):
        step = rng.randrange(1, 100)
        host.sendall(stream[pos:pos + step])
        pos += step
    frames = core.wait_frames(len(sent), timeout=5)
    assert [(f.code, f.payload) for f in frames] == sent
    expected = b"".join(reply(c, p[:1] + b"\x00" if p else b"\x00") for c, p in sent)
    assert recv_exactly(host, len(expected)) == expected
    assert core.stats()["junk"] == junk_bytes


def test_long_request_and_output_backlog(core, host):
    big = bytes(range(256)) * 20
    host.sendall(request(READ_DI, big[:2000]))
    host.sendall(request(READ_DI, big[2000:]))
    assert [len(f.payload) for f in core.wait_frames(2)] == [2000, 3120]
    blob = os.urandom(1 << 21)  # far more than the socket buffers take while the host reads nothing
    core.send_raw(blob)
    core.send_frame(GET_DRIVER_INFO, b"\x01")
    tail = reply(READ_DI, b"\x00\x00") + reply(READ_DI, b"\xd0\x00") + blob + reply(GET_DRIVER_INFO, b"\x01")
    assert recv_exactly(host, len(tail)) == tail


# ---- replies ----------------------------------------------------------------------------------

def test_scripted_replies(core, host):
    core.set_reply(GET_DRIVER_INFO, b"\x01\x02\x03")
    core.set_reply(RELAY_READ, [9])
    core.set_reply(READ_DI, b"")
    exchange(host, request(GET_DRIVER_INFO), reply(GET_DRIVER_INFO, b"\x01\x02\x03"))
    exchange(host, request(RELAY_READ, b"\x01"), bytes.fromhex("0200031b00090d0a"))
    exchange(host, request(READ_DI, b"\x01"), bytes.fromhex("020001e70d0a"))

    core.no_reply(READ_DI)
    host.sendall(request(READ_DI, b"\x01"))
    exchange(host, request(RELAY_READ), reply(RELAY_READ, b"\x09"))
    core.default_reply(READ_DI)
    exchange(host, request(READ_DI, b"\x04"), reply(READ_DI, b"\x04\x00"))


def test_stream_and_discovery_codes_are_not_echoed(core, host):
    for code in sorted(STREAMING) + [GET_DEVICE_INFO]:
        host.sendall(request(code, b"\x01"))
    barrier(host)
    core.set_reply(START_AI_STREAMING, b"\x00\x00\x10\x20")
    exchange(host, request(START_AI_STREAMING), reply(START_AI_STREAMING, b"\x00\x00\x10\x20"))
    assert len(core.log()) == len(STREAMING) + 3


def test_status_for_next_replies_and_for_a_code(core, host):
    core.status(7, count=2)
    exchange(host, request(READ_DI, b"\x02"), reply(READ_DI, b"\x02\x07"))
    exchange(host, request(GET_DRIVER_INFO), reply(GET_DRIVER_INFO, b"\x00\x07"))  # [0] grows to [0, status]
    exchange(host, request(READ_DI, b"\x02"), reply(READ_DI, b"\x02\x00"))
    core.status(0x15, code=RELAY_READ)
    core.set_reply(READ_DI, b"\x01\x00\xaa")
    core.status(9, count=1)
    exchange(host, request(READ_DI, b"\x01"), reply(READ_DI, b"\x01\x09\xaa"))  # scripted replies too
    for _ in range(2):
        exchange(host, request(RELAY_READ, b"\x03"), reply(RELAY_READ, b"\x03\x15"))
    core.clear_status()
    exchange(host, request(RELAY_READ, b"\x03"), reply(RELAY_READ, b"\x03\x00"))


# ---- faults -----------------------------------------------------------------------------------

def test_drop_then_duplicate(core, host):
    core.drop(2)
    core.duplicate(1)
    for port in (1, 2, 3, 4):
        host.sendall(request(READ_DI, bytes([port])))
    expected = reply(READ_DI, b"\x03\x00") * 2 + reply(READ_DI, b"\x04\x00")
    assert recv_exactly(host, len(expected)) == expected
    barrier(host)
    s = core.stats()
    assert (s["frames"], s["replies"], s["dropped"]) == (5, 4, 2)


def test_delayed_reply_keeps_order_and_is_still_sent(core, host):
    core.delay(0.3, count=1)
    host.sendall(request(READ_DI, b"\x01") + request(READ_DI, b"\x02"))
    assert recv_exactly(host, 16) == reply(READ_DI, b"\x01\x00") + reply(READ_DI, b"\x02\x00")


def test_silence_hears_but_swallows_replies_even_those_still_waiting(core, host):
    core.delay(0.2, count=1)
    host.sendall(request(READ_DI, b"\x01"))
    core.wait_frames(1)
    core.silent()
    host.sendall(request(READ_DI, b"\x02"))
    core.wait_frames(2)
    time.sleep(0.25)
    core.resume()
    barrier(host)
    assert [f.code for f in core.log()] == [READ_DI, READ_DI, GET_DRIVER_INFO]
    assert core.stats()["lost"] == 1


def test_replies_of_a_closed_connection_are_lost(core, host):
    core.delay(1)  # every reply, until taken back
    host.sendall(request(READ_DI, b"\x01") + request(READ_DI, b"\x02"))
    core.wait_frames(2)
    core.delay(0)  # what waits keeps its time, and the next reply waits behind it
    host.close()
    core.wait_disconnected()
    with connect(core) as again:
        barrier(again)  # nothing of the old connection's replies comes here
    assert core.stats()["lost"] == 2


# ---- unsolicited bytes ------------------------------------------------------------------------

def test_send_frame_and_raw_bytes(core, host):
    core.send_frame(RELAY_READ, b"\xab")
    core.send_raw(b"\x02\x00")  # raw bytes go out as given
    core.send_raw(b"\x09\x0d")
    assert recv_exactly(host, 12) == bytes.fromhex("0200031b00ab0d0a") + b"\x02\x00\x09\x0d"


def test_data_connection_of_a_wifi_unit(sim):
    air = echo(sim("TorvikAirAnalog").unit)
    assert air.data_port is not None and air.data_port != air.cmd_port
    with connect(air) as cmd, connect(air, air.data_port) as data:
        air.wait_connected("data")
        air.send_frame(START_AI_STREAMING, b"\x00\x00\x01\x02", conn="data")
        assert recv_exactly(data, 10) == reply(START_AI_STREAMING, b"\x00\x00\x01\x02")
        barrier(cmd)
        data.sendall(request(READ_DI, b"\x05"))  # whatever comes is logged with its connection
        exchange(data, b"", reply(READ_DI, b"\x05\x00"))
        assert [(f.code, f.conn) for f in air.log()] == [(GET_DRIVER_INFO, "cmd"), (READ_DI, "data")]
        air.reset("both")
        air.wait_disconnected("data")
        air.wait_disconnected("cmd")


# ---- connections ------------------------------------------------------------------------------

def test_shutdown_sends_eof_and_keeps_reading(core, host):
    core.shutdown()
    assert host.recv(10) == b""
    host.sendall(request(READ_DI, b"\x01"))  # the unit still hears, but cannot answer
    core.wait_frames(1)
    assert core.connections() == (1, 1)
    host.close()
    core.wait_disconnected()
    with connect(core) as again:
        barrier(again)
    assert [f.link for f in core.log()] == [1, 2]


def test_reset(core, host):
    core.reset()
    with pytest.raises(ConnectionResetError):
        host.recv(10)
    core.wait_disconnected(timeout=1)
    assert core.connections() == (1, 0)


def test_replies_go_to_the_connection_that_asked(core):
    with connect(core) as first, connect(core) as second:
        core.wait_accepted(2)
        core.delay(0.1, count=1)
        first.sendall(request(READ_DI, b"\x01"))
        exchange(second, request(READ_DI, b"\x02"), reply(READ_DI, b"\x02\x00"))
        assert recv_exactly(first, 8) == reply(READ_DI, b"\x01\x00")
        core.send_raw(b"\xff")  # unsolicited bytes take the newest connection
        assert second.recv(1) == b"\xff"


def test_wait_is_answered_by_the_event(core):
    import threading
    seen = []
    waiter = threading.Thread(target=lambda: seen.append(core.wait_frames(1, code=READ_DI, timeout=3)))
    waiter.start()
    core.status(1, count=1)  # the control socket stays usable while a wait stands
    with connect(core) as h:
        h.sendall(request(RELAY_READ, b"\x02") + request(READ_DI, b"\x01"))  # the filter passes over the first
        waiter.join()
    assert [f.payload for f in seen[0]] == [b"\x01"]


def test_without_a_host_waits_time_out_and_sends_fail(core):
    with pytest.raises(TimeoutError):
        core.wait_connected(timeout=0.05)
    with pytest.raises(TimeoutError):
        core.wait_frames(1, timeout=0.05)
    core.wait_disconnected(timeout=0)
    with pytest.raises(simctl.SimError, match="no open cmd link"):
        core.send_raw(b"\x00")
    with pytest.raises(simctl.SimError, match="no data channel"):
        core.send_frame(GET_DRIVER_INFO, conn="data")


# ---- command line, control requests and process life --------------------------------------------

@pytest.mark.parametrize("args,message", [
    (["--unit", "NoSuchUnit@127.0.0.2"], "unknown product class 'NoSuchUnit'"),
    (["--unit", "TorvikCore@10.1.2.3"], "not a loopback address"),
    (["--unit", "TorvikCore@localhost"], "bad IPv4 address"),
    (["--unit", "TorvikCore@127.0.0.2:70000"], "bad port"),
    (["--unit", "TorvikCore@127.0.0.2:0:0"], "has no data connection"),
    (["--unit", "TorvikUsbLogic@127.0.0.2"], "USB unit"),
    (["--unit", "TorvikCore@127.0.0.2,colour=red"], "bad option"),
    (["--unit", "TorvikCore@127.0.0.2,serial=X", "--unit", "TorvikCore@127.0.0.3,serial=X"], "two units"),
    (["--unit"], "needs a value"),
    (["--units", "TorvikCore@127.0.0.2"], "unknown argument"),
    (["--unit", "TorvikCore@127.0.0.2", "--"], "no command"),
    (["--usb", "TorvikLanLogic:X1"], "not a USB unit"),
    (["--usb", "TorvikUsbSink:"], "expected CLASS[:SERIAL]"),
])
def test_bad_arguments(args, message):
    r = subprocess.run([simctl.sim_binary()] + args, capture_output=True, timeout=10)
    assert r.returncode == 2
    assert message in r.stderr.decode()
    assert r.stdout == b""


def test_port_in_use_fails_before_ready(loopback_addr):
    with socket.socket() as taken:
        taken.bind((loopback_addr, 0))
        taken.listen()
        unit_arg = "TorvikCore@%s:%d" % (loopback_addr, taken.getsockname()[1])
        with pytest.raises(simctl.SimError, match="in use"):
            simctl.Sim(unit_arg).start()


def test_control_selection_and_errors(sim, loopback_addr):
    s = sim("TorvikCore@%s:0,serial=AB12" % loopback_addr, "TorvikLanLogic@%s:0" % loopback_addr, "TorvikCoreMini")
    a, b, c = s.units
    assert (a.serial, b.serial, c.serial) == ("AB12", "99JA0002", "99JA0003")
    assert s.request("units").split(";")[0] == "TorvikCore %s cmd=%d data=- serial=AB12" % (a.addr, a.cmd_port)
    s.request("drop AB12 1")
    s.request("stats %s" % c.addr)
    c.use_firmware("echo")
    for line, err in [("stats %s" % a.addr, "several units"), ("stats nobody", "no unit"), ("fly AB12", "unknown"),
                      ("reply AB12 0xF0 zz", "bad hex"), ("reply AB12 NOT_A_CODE 00", "bad code"),
                      ("status AB12 300 next=1", "bad status"), ("delay AB12 -1", "bad seconds"), ("", "empty"),
                      # requests the firmware model answers, where the unit lacks what they need
                      ("sensors AB12 rssi=-50", "no on-board sensors"), ("pinmode 99JA0002 1.0 DO", "cannot be DO"),
                      ("clock AB12 2023-02-30T00:00:00", "bad date"), ("wiring 99JA0003", "echo firmware")]:
        with pytest.raises(simctl.SimError, match=err):
            s.request(line)


def test_sigterm_ends_cleanly_and_removes_the_socket(core):
    path = core.sim.control_path
    assert os.path.exists(path)
    assert core.sim.stop() == 0
    assert not os.path.exists(path) and not os.path.exists(os.path.dirname(path))


CHILD = r"""
import os, socket, sys
cls, addr, cmd, data, serial = os.environ["TORVIK_SIM_UNITS"].split(";")[0].split()
assert os.path.exists(os.environ["TORVIK_SIM_CONTROL"])
with socket.create_connection((addr, int(cmd.split("=")[1])), timeout=3) as s:
    s.sendall(b"\x02\x00\x02\x60\x04\r\n")  # an unassigned code: [port, 23] from any firmware
    assert s.recv(8) == b"\x02\x00\x03\x60\x04\x17\r\n"
sys.exit(int(sys.argv[1]))
"""


@pytest.mark.parametrize("command,code,message", [
    ([sys.executable, "-c", CHILD, "7"], 7, ""),
    (["/nonexistent/torvik-test-command"], 127, "cannot run"),
])
def test_child_mode_returns_the_child_status(command, code, message):
    r = simctl.run_with_command([simctl.unit_spec("TorvikCore")], command)
    assert r.returncode == code and message in r.stderr.decode(), r.stderr.decode()
    assert "ready" not in r.stdout.decode()  # a child's output stands alone


def test_child_mode_passes_sigterm_on():
    argv = [simctl.sim_binary(), "--unit", simctl.unit_spec("TorvikCore"), "--",
            sys.executable, "-c", "import time; print('child up', flush=True); time.sleep(30)"]
    with subprocess.Popen(argv, stdout=subprocess.PIPE) as p:
        while p.stdout.readline() != b"child up\n":
            pass
        p.send_signal(signal.SIGTERM)
        assert p.wait(timeout=5) == 128 + signal.SIGTERM


def loaded_umockdev():
    """The file of umockdev's library on this system, or None."""
    for d in ("/usr/lib/x86_64-linux-gnu", "/usr/lib64", "/usr/lib"):
        path = os.path.join(d, "libumockdev.so.0")
        if os.path.exists(path):
            return os.path.realpath(path)
    return None


# umockdev hidden in a mount namespace of the emulator's own: network units play on, and asking for
# a USB unit ends with 77 (skip) and a message that says what to install.
@pytest.mark.skipif(not can_hide_files() or loaded_umockdev() is None,
                    reason="needs root, unshare -m and umockdev installed, to hide umockdev")
@pytest.mark.parametrize("units, rc, message", [
    (["--unit", "TorvikLanLogic@127.0.0.61:7007"], 0, ""),
    (["--usb", "TorvikUsbSink"], 77, "torvik-sim: cannot play USB units: libumockdev.so.0 could not be loaded ("),
])
def test_without_umockdev(units, rc, message):
    hide = 'mount --bind /dev/null "$1" && shift && exec "$@"'
    out = subprocess.run(["unshare", "-m", "sh", "-c", hide, "sh", loaded_umockdev(), simctl.sim_binary()] + units +
                         ["--", "true"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
                         timeout=30)
    assert out.returncode == rc, out.stderr
    assert out.stderr.startswith(message)
    if message:
        assert "install umockdev (Debian/Ubuntu: sudo apt-get install umockdev)" in out.stderr
