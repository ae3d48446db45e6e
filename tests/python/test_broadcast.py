"""Broadcasts. They run only where the sole network interface is loopback (the test command runs
pytest in a private network namespace), so no packet can leave the machine."""
import asyncio
import socket
import threading

import pytest

import pytorvik as t
from devices import DeviceFinder

pytestmark = pytest.mark.skipif(
    [name for _, name in socket.if_nameindex()] != ["lo"],
    reason="broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")


@pytest.fixture
def listener():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)  # an emulator's units may listen there too
    s.bind(("", t.UDP_SEND_PORT))
    s.settimeout(0.5)
    yield s
    s.close()


def drain(sock):
    got = []
    try:
        while True:
            got.append(sock.recv(512))
    except socket.timeout:
        return got


def test_one_datagram_per_address_record_of_the_host_name(listener):
    frame = [2, 0, 2, t.GET_DEVICE_INFO, 0, 13, 10]
    t.UDPClient().sendBcstPacket(frame)
    records = socket.getaddrinfo(socket.gethostname(), None, socket.AF_INET)
    assert drain(listener) == [bytes(frame)] * len(records)


@pytest.mark.slow
def test_broadcast_collects_distinct_answers_for_the_full_wait(listener, make_dev):
    dev = make_dev(DeviceFinder)
    dev.connect(verbose=False)
    stop = threading.Event()

    def answer():
        # A unit answering every request with flag 1, and echoing one request with flag 0.
        while not stop.is_set():
            try:
                req, _ = listener.recvfrom(512)
            except socket.timeout:
                continue
            for payload in (b"\x01\xaa\xbb", b"\x00\xcc"):
                frame = b"\x02" + (len(payload) + 1).to_bytes(2, "big") + bytes([req[3]]) + payload + b"\r\n"
                listener.sendto(frame, ("127.0.0.1", t.UDP_RECV_PORT))

    th = threading.Thread(target=answer)
    th.start()
    try:
        answers = asyncio.run(dev._broadcastPacket_async(t.GET_DEVICE_INFO, [0]))
    finally:
        stop.set()
        th.join()
    assert answers == {b"\xaa\xbb"} and answers is not None
    assert answers == dev.data_pool_bcst[t.GET_DEVICE_INFO]
