"""Discovery against the emulator: units found by broadcast, a unit moved to another address, and
arguments refused before anything is sent. Broadcasts run only in a private network namespace with
loopback alone (tools/run-tests.sh makes one)."""
import asyncio
import gc
import socket

import pytest

import pytorvik as t
from pytorvik import simctl
from devices import run

in_private_namespace = pytest.mark.skipif(
    [name for _, name in socket.if_nameindex()] != ["lo"],
    reason="broadcasts run only in a private network namespace with loopback alone (see tools/run-tests.sh)")


async def both(*coros):
    return await asyncio.gather(*coros, return_exceptions=True)


@pytest.fixture(scope="module")
def finder():
    # One finder for the module: the port it binds is fixed, and its socket stays open until the
    # handle is gone (the disconnect of an unconnected datagram socket fails before the close).
    import devices
    dev = t.DeviceFinder(verbose=False)
    try:
        dev.connect(verbose=False)
        yield dev
    finally:
        devices.force_end(dev)
        del dev
        gc.collect()


def mac_of(unit):
    dev = t.TorvikLanLogic()
    try:
        dev.connect(unit.addr, port=unit.cmd_port, verbose=False)
        # The settings' text leaves bytes below 16 unpadded; discovery pads them.
        return ":".join("%02x" % int(b, 16) for b in run(dev.Net_getMACAddr_async()).split(":"))
    finally:
        dev.disconnect(verbose=False)
        dev.close()


def frame(code, payload):
    return b"\x02" + (len(payload) + 1).to_bytes(2, "big") + bytes([code]) + bytes(payload) + b"\r\n"


@in_private_namespace
def test_units_answer_requests_alone_and_the_one_with_the_mac_restarts_or_moves(sim):
    # Raw datagrams, before this module's finder takes the answer port.
    s = sim("TorvikLanLogic", "TorvikLanRelay", "TorvikAirAnalog")
    quiet, unit, air = s.units
    quiet.discovery(copies=0)
    unit.set_pin_mode(0, 0, "DO")
    mac = [int(b, 16) for b in mac_of(unit).split(":")]
    gc.collect()  # a finder of an earlier test may still hold the port until it is gone
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as rx, \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as tx:
        rx.bind(("127.0.0.1", t.UDP_RECV_PORT))
        rx.settimeout(0.3)
        tx.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        tx.bind(("127.0.0.1", 0))

        def ask(code, payload):
            tx.sendto(frame(code, payload), ("255.255.255.255", t.UDP_SEND_PORT))
            got = []
            try:
                while True:
                    got.append(rx.recv(512))
            except socket.timeout:
                return got

        assert ask(t.GET_DEVICE_INFO, [1]) == []  # another unit's answer
        info = [int(b) for b in unit.addr.split(".")] + [255, 255, 255, 0] + mac + list(b"Torvik-LAN-Relay")
        answers = ask(t.GET_DEVICE_INFO, [0])  # the relay unit and the Wi-Fi unit; the quiet one is silent
        assert len(answers) == 2 and frame(t.GET_DEVICE_INFO, [1] + info) in answers
        assert ask(t.CHECK_MAC_AND_REBOOT, [0] + mac[:5] + [mac[5] ^ 1]) == []
        assert unit.pin_modes(0)[0] == "DO"
        assert ask(t.CHECK_MAC_AND_REBOOT, [0] + mac) == [frame(t.CHECK_MAC_AND_REBOOT, [1, 1, 0])]
        assert unit.pin_modes(0)[0] == "Idle"

        # A Wi-Fi unit moves both its connections; an address that is no host's is refused.
        old_addr, new_addr = air.addr, simctl.loopback_addr()
        bad = [int(b) for b in new_addr.split(".")[:3]] + [255]
        amac = [int(b, 16) for b in mac_of(air).split(":")]
        assert ask(t.CHECK_MAC_AND_SET_IP, [0] + bad + [255, 255, 255, 0] + amac) == \
            [frame(t.CHECK_MAC_AND_SET_IP, [1, 1, 11])]
        assert air.refresh().addr == old_addr
        new = [int(b) for b in new_addr.split(".")]
        assert ask(t.CHECK_MAC_AND_SET_IP, [0] + new + [255, 255, 0, 0] + amac) == \
            [frame(t.CHECK_MAC_AND_SET_IP, [1, 1, 0])]
        assert air.refresh().addr == new_addr
    for port in (air.cmd_port, air.data_port):
        socket.create_connection((new_addr, port), timeout=2).close()
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection((old_addr, port), timeout=2)
    assert [u.discovery()["heard"] for u in s.units] == [6, 6, 6]


WORKED = [1, 192, 168, 1, 110, 255, 255, 255, 0, 0, 26, 43, 60, 77, 94] + list(b"Bench-Model")


@in_private_namespace
@pytest.mark.slow
def test_units_are_found_once_each_and_set_ip_moves_one(sim, finder):
    loud, mover, scripted = sim("TorvikLanLogic", "TorvikLanRelay", "TorvikLanAnalog").units
    for other in (loud, scripted):
        other.discovery(copies=0)  # the mover answers alone at first
    mac, first_addr = mac_of(mover), simctl.loopback_addr()
    found, status = run(both(finder.Bcst_enumerateNetworkDevices_async(),
                             finder.Bcst_checkMACAndSetIP_async(first_addr, mac, "255.255.0.0")))
    assert found == [[mover.addr, "255.255.255.0", mac, "Torvik-LAN-Relay"]]
    # One answer, [1, 0], seen three times: a set of one, and no entry at index 1.
    assert isinstance(status, IndexError)
    assert list(finder.data_pool_bcst[t.CHECK_MAC_AND_SET_IP]) == [b"\x01\x00"]
    assert mover.refresh().addr == first_addr
    assert list(mover.log(t.CHECK_MAC_AND_SET_IP)[0].payload)[5:9] == [255, 255, 0, 0]  # the mask given goes out

    loud.discovery(copies=3)
    scripted.discovery(copies=1)
    scripted.set_reply(t.GET_DEVICE_INFO, WORKED)
    scripted.set_reply(t.CHECK_MAC_AND_SET_IP, [1, 0, 42])  # any MAC: a second, distinct answer
    mover.clear_log()
    new_addr = simctl.loopback_addr()

    found, status = run(both(finder.Bcst_enumerateNetworkDevices_async(),
                             finder.Bcst_checkMACAndSetIP_async(new_addr, mac)))

    assert sorted(found) == sorted([
        [loud.addr, "255.255.255.0", mac_of(loud), "Torvik-LAN-Logic"],
        [first_addr, "255.255.0.0", mac, "Torvik-LAN-Relay"],
        ["192.168.1.110", "255.255.255.0", "00:1a:2b:3c:4d:5e", "Bench-Model"],
    ])
    answers = list(finder.data_pool_bcst[t.CHECK_MAC_AND_SET_IP])
    assert sorted(answers) == [b"\x00\x2a", b"\x01\x00"]
    assert status == answers[1][1]
    assert mover.refresh().addr == new_addr
    # Every broadcast reached every unit, and carried the mover's MAC at the end, mask defaulted.
    request = mover.log(t.CHECK_MAC_AND_SET_IP)[0].payload
    assert list(request) == [0] + [int(b) for b in new_addr.split(".")] + [255, 255, 255, 0] + \
        [int(b, 16) for b in mac.split(":")]
    assert all(u.discovery()["heard"] >= 2 for u in (loud, mover, scripted))


@in_private_namespace
@pytest.mark.parametrize("op,args,error", [
    ("Bcst_checkMACAndSetIP_async", (1, "02:54:00:00:00:01"), t.InputTypeNotCorrectError),
    ("Bcst_checkMACAndSetIP_async", ("127.0.0.9", b"02:54:00:00:00:01"), t.InputTypeNotCorrectError),
    ("Bcst_checkMACAndSetIP_async", ("127.0.0.9", "02:54:00:00:00:01", None), t.InputTypeNotCorrectError),
    ("Bcst_checkMACAndSetIP_async", ("127.0.0.256", "02:54:00:00:00:01"), OSError),
    ("Bcst_checkMACAndSetIP_async", ("127.0.0.9", "02:54:zz:00:00:01"), ValueError),
    ("Bcst_checkMACAndReboot_async", (254,), t.InputTypeNotCorrectError),
    ("Bcst_checkMACAndReboot_async", ("02:54:00:00:00:01",), TypeError),
])
def test_bad_arguments_and_the_reboot_fail_before_anything_is_sent(sim, finder, op, args, error):
    unit = sim("TorvikLanLogic").unit
    with pytest.raises(error):
        run(getattr(finder, op)(*args))
    assert unit.discovery()["heard"] == 0
