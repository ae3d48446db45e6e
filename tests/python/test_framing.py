import pytest

import pytorvik as t


def frame(cmd, payload=b"", length=None):
    code = bytes([cmd]) if cmd < 256 else cmd.to_bytes(2, "big")
    n = len(code) + len(payload) if length is None else length
    return b"\x02" + n.to_bytes(2, "big") + code + payload + b"\r\n"


@pytest.mark.parametrize("stream,packets,rest", [
    (b"", [], b""),
    (b"\x02\x00\x05\xf0abc", [], b"\x02\x00\x05\xf0abc"),
    (frame(0xF0, b"\x02\r\n\x02\x00\r\nA") + frame(0x2049, b"\x02\x02"),
     [(0xF0, b"\x02\r\n\x02\x00\r\nA"), (0x2049, b"\x02\x02")], b""),
    (b"\x02junk\r\n" + frame(0xF2) + b"\x02\x00", [(0xF2, b"")], b"\x02\x00"),
    (b"\x02\x00\x00\r\n", [(0x0D0A, b"")], b""),
    (b"\x02\x00\x03\x30\x01\x00\r\n", [(0x3001, b"\x00")], b""),
    (b"\x02\x00\x01\x20\r\n", [(0x200D, b"")], b""),
    (b"\x02\x00\x01\x31\r\n", [(0x31, b"")], b""),
    (b"\x02\x00\x02\x00\x30\r\n", [(t.OPEN_CAN, b"")], b""),
    (frame(t.RELAY_READ, b"\x01", length=3), [(t.RELAY_READ, b"\x01")], b""),
    # A payload that ends in a well-shaped frame is taken for that inner frame.
    (frame(0xB5, frame(0xE7, b"\x05")), [(0xE7, b"\x05")], b"\r\n"),
])
def test_split_packet(stream, packets, rest):
    c = t.Client()
    c.stream = stream
    assert c._splitPacket() == packets
    assert c.stream == rest


def test_torn_frame_waits_and_misfit_length_moves_last_index():
    c = t.Client()
    assert (c.stream, c.last_index) == (b"", 0)
    whole = frame(0xF0, b"\r")
    c.stream = whole[:-1]
    assert c._splitPacket() == [] and c.stream == whole[:-1]
    c.stream += whole[-1:]
    assert c._splitPacket() == [(0xF0, b"\r")]

    bad = frame(0xF1, b"ab", length=9)
    c.stream = bad
    assert c._splitPacket() == [] and c.last_index == len(bad) - 1 and c.stream == bad
    c.stream += frame(0xF3)
    assert c._splitPacket() == [(0xF3, b"")] and c.stream == b"" and c.last_index == 0


def test_written_last_index_is_a_search_start():
    c = t.Client()
    c.stream = frame(0xF0, b"z")
    c.last_index = 100
    assert c._splitPacket() == []
    c.last_index = -3  # counts from the end, as a byte-string search does
    assert c._splitPacket() == [(0xF0, b"z")]


def test_client_is_subclassable_and_holds_attributes():
    class Recorder(t.Client):
        pass

    r = Recorder()
    r.note = 1
    r.stream = bytearray(frame(0xFA))
    assert r._splitPacket() == [(0xFA, b"")] and r.note == 1
