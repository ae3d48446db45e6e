import math
import struct

import pytest

import pytorvik as t

UNPACK = [
    ("convert2U8ToU16", ">H"), ("convert4U8ToU32", ">I"), ("convert8U8ToU64", ">Q"),
    ("convert2U8ToI16", ">h"), ("convert4U8ToI32", ">i"), ("convert8U8ToI64", ">q"),
    ("convert4U8ToF32", ">f"), ("convert8U8ToF64", ">d"),
]


@pytest.mark.parametrize("name,fmt", UNPACK)
def test_bytes_to_number(name, fmt):
    fn = getattr(t, name)
    size = struct.calcsize(fmt)
    for raw in (bytes(size), bytes([0xFF] * size), bytes([0x80] + [0] * (size - 1)), bytes(range(1, size + 1))):
        want = struct.unpack(fmt, raw)[0]
        for arg in (list(raw), raw, bytearray(raw)):
            got = fn(arg)
            assert got == want or (math.isnan(got) and math.isnan(want))
    with pytest.raises(ValueError):
        fn([0] * (size + 1))
    with pytest.raises(ValueError):
        fn([256] + [0] * (size - 1))


PACK = [
    ("convertU16To2U8", 16, False), ("convertU32To4U8", 32, False), ("convertU64To8U8", 64, False),
    ("convertI16To2U8", 16, True), ("convertI32To4U8", 32, True), ("convertI64To8U8", 64, True),
]


@pytest.mark.parametrize("name,bits,signed", PACK)
@pytest.mark.parametrize("value", [0, -1, 256, 2**15, 2**31, -2**31 - 1, 2**63, 2**64 + 5, -2**70, True])
def test_integer_casts_wrap_modulo_width(name, bits, signed, value):
    out = getattr(t, name)(value)
    assert out == list((int(value) % 2**bits).to_bytes(bits // 8, "big"))


def test_casts_of_floats_and_text_follow_the_numeric_cast():
    assert t.convertI16To2U8(3.9) == [0, 3] and t.convertI16To2U8(-3.9) == [255, 253]
    assert t.convertU16To2U8("513") == [2, 1]
    assert t.convertF32To4U8(0.1) == list(struct.pack(">f", 0.1))
    assert t.convert4U8ToF32(t.convertF32To4U8(0.1)) == struct.unpack(">f", struct.pack(">f", 0.1))[0]
    assert t.convertF32To4U8(1e39) == list(struct.pack(">f", math.inf))
    assert t.convertF64To8U8(2) == list(struct.pack(">d", 2.0))
    with pytest.raises(ValueError):
        t.convertU32To4U8(math.nan)
    with pytest.raises(TypeError):
        t.convertU16To2U8(None)


@pytest.mark.parametrize("data,text", [
    (list(b"ab") + [0] + list(b"c"), "ab"), (list(b"abc"), "abc"), ([], ""), ([0, 0x41], ""),
    (list("µs\0pad".encode()), "µs"),
])
def test_u8_list_to_str(data, text):
    assert t.convertU8ListToStr(data) == text


def test_text_and_address_failures_are_the_interpreters_own():
    with pytest.raises(UnicodeDecodeError):
        t.convertU8ListToStr([0x41, 0, 0xFF])  # invalid after the NUL still fails: the whole list is decoded
    with pytest.raises(OSError):
        t.convertIPAddrTo4U8("300.1.1.1.1")
    with pytest.raises(ValueError):
        t.convertMACAddrTo6U8("00:zz")


def test_addresses_and_code_points():
    assert t.convertIPAddrTo4U8("192.168.1.110") == [192, 168, 1, 110]
    assert t.convertMACAddrTo6U8("00:1a:2b:3c:4d:5e") == [0, 26, 43, 60, 77, 94]
    assert t.convertMACAddrTo6U8("1:2:3:4:5") == [1, 2, 3, 4, 5]
    assert t.convertMACAddrTo6U8("100:ff") == [256, 255]
    assert t.convertStrToU8List("aé€") == [97, 233, 8364]


@pytest.mark.parametrize("value,width,bits", [
    (5, 8, [1, 0, 1, 0, 0, 0, 0, 0]), (5, 2, [1, 0, 1]), (0, 0, []), (0, 3, [0, 0, 0]),
    (2**64 + 1, 1, [1] + [0] * 63 + [1]), (True, 2, [1, 0]),
])
def test_int_to_binary_list(value, width, bits):
    assert t.convertIntToBinaryList(value, width) == bits


def test_index_and_bit_lists():
    assert t.convertIndexAndBinaryListsToInt([0, 3], [1, 7]) == 9
    assert t.convertIndexAndBinaryListsToInt([0, 1, 2], [1, -4]) == 1  # the shorter list ends the walk
    assert t.convertIndexListToInt([0, 3, 3, 70]) == 9 + 2**70
    assert t.convertIndexListToInt([]) == 0
    assert t.convertIntToIndexList(0) == [] and t.convertIntToIndexList(0b1010) == [1, 3]
    assert t.convertIntToIndexList(2**80 | 1) == [0, 80]
    with pytest.raises(ValueError):
        t.convertIntToBinaryList(-1, 8)


@pytest.mark.parametrize("args,out", [
    (([-1, 0, 5],), [0, 0, 1]), (([True, False],), [1, 0]), (([1, 2.5],), [1.0, 1.0]),
    (([1, 2], 0.5, 1.5), [1.0, 1.5]), (([3, -3], 5, 1), [1, 1]), (([],), []), (([True, 2],), [1, 1]),
])
def test_coerce(args, out):
    got = t.coerce(*args)
    assert got == out and [type(x) for x in got] == [type(x) for x in out]


@pytest.mark.parametrize("args,out", [
    (([1, 2, 3],), [1, 2, 3, 0, 0, 0, 0, 0]), (([1, 2], 4, 1), [0, 1, 2, 0, 0]),
    ((list(range(9)),), list(range(8))), (([0.5],), [0.5] + [0.0] * 7), (([],), [0.0] * 8),
    (([1, 2, 3], 2), [1, 2]), (([True, 2], 3), [1, 2, 0]), (([True, False], 3), [True, False, False]),
])
def test_adjust_data_list(args, out):
    got = t.adjustDataList(*args)
    assert got == out and [type(x) for x in got] == [type(x) for x in out]


def test_type_checks():
    assert t.checkInputType(1) and t.checkInputType([]) and t.checkInputType(True)
    assert t.checkInputType(1.5, float) and t.checkInputType("x", (str, bytes))
    for bad in (1.5, "1", (1,), None):
        with pytest.raises(t.InputTypeNotCorrectError) as info:
            t.checkInputType(bad)
        assert info.value.code == -8012
    assert t.checkInputTypeConsistent(1, 2) and t.checkInputTypeConsistent([1], [])
    for a, b in ((1, True), (1, 1.0), ([], ())):
        with pytest.raises(t.InputTypeNotConsistentError):
            t.checkInputTypeConsistent(a, b)


def test_each_item_in_range():
    assert t.checkEachItemInRange([0, 255]) and t.checkEachItemInRange([])
    assert t.checkEachItemInRange([0.5], 0, 1)
    with pytest.raises(t.InputDataNotInRangeError) as info:
        t.checkEachItemInRange([256])
    assert str(info.value) == "Error -8014: Input value not in range."
    with pytest.raises(t.InputDataNotInRangeError) as info:
        t.checkEachItemInRange([1, 9, 2], 1, 8, "port")
    assert str(info.value) == "Error -8014: port"


def test_pin_map_checks():
    modes = ["DI", "DO", "AI", "UART"]
    assert t.checkFuncPinMap((7, 1), modes, ["DO"]) is True
    assert t.checkFuncPinMap((0, 2), modes, ["DO"]) is False
    assert t.checkPinMap([(0, 0), (9, 1)], modes, ["DI", "DO"]) is True
    assert t.checkPinMap([(0, 0), (0, 2)], modes, ["DI", "DO"]) is False
    assert t.checkPinMap([], modes, []) is True
    with pytest.raises(IndexError):
        t.checkFuncPinMap((0, 9), modes, ["DI"])
