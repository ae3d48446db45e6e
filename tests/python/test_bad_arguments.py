"""Regression cases of the argument sweep: each one crashed the interpreter or failed with a text of
the binding library before; each now fails as the same Python code would."""
import asyncio
import math
import subprocess
import sys

import pytest

import pytorvik as t


@pytest.mark.parametrize("width", ["None", "[]", "'a'", "(1,)"])
def test_a_width_that_is_no_number_does_not_crash(width):
    # A segmentation fault before: the child process shows it without taking pytest along.
    code = "import pytorvik\ntry:\n    pytorvik.convertIntToBinaryList(0, %s)\nexcept TypeError as e:\n    print(e)" % width
    r = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    assert "'<' not supported between instances of 'int' and" in r.stdout


def bad(fn, *args, **kwargs):
    with pytest.raises(Exception) as info:
        r = fn(*args, **kwargs)
        if asyncio.iscoroutine(r):
            asyncio.run(r)
    return info.value


@pytest.mark.parametrize("call,exc,text", [
    (lambda: t.convertIntToBinaryList(0, 2 ** 70), MemoryError, ""),
    (lambda: t.convertIntToBinaryList(1, math.inf), MemoryError, ""),
    (lambda: t.adjustDataList([1], None), TypeError, "'NoneType' object cannot be interpreted as an integer"),
    (lambda: t.adjustDataList([1], 8, 2 ** 70), MemoryError, ""),
    (lambda: t.convertIPAddrTo4U8("\udcff"), UnicodeEncodeError, "surrogates not allowed"),
    (lambda: t.TCPClient().connect(1, 7), TypeError, "str, bytes or bytearray expected, not int"),
    (lambda: t.TCPClient().connect("127.0.0.1", "7"), TypeError, "'str' object cannot be interpreted as an integer"),
    (lambda: t.TCPClient().connect("127.0.0.1", 70000), OverflowError, "connect(): port must be 0-65535."),
    (lambda: t.TCPClient().connect("a\x00", 7), TypeError, "host name must not contain null character"),
    (lambda: t.UDPClient().bind("", -1), OverflowError, "bind(): port must be 0-65535."),
    (lambda: t.TCPClient().setTimeout("1"), TypeError, "'str' object cannot be interpreted as an integer"),
    (lambda: t.TCPClient().setTimeout(math.nan), ValueError, "Invalid value NaN (not a number)"),
    (lambda: t.TCPClient().recvPacket(-1), ValueError, "negative buffersize in recv"),
    (lambda: t.Gate().acquire(True, math.inf), OverflowError, "timestamp out of range for platform time_t"),
    (lambda: t.Gate().acquire("x", None), TypeError, "'NoneType' object cannot be interpreted as an integer"),
    (lambda: t.Gate().acquire(False, 1), ValueError, "can't specify a timeout for a non-blocking call"),
    (lambda: t.StreamQueue().get(True, "a"), TypeError, "'<' not supported between instances of 'str' and 'int'"),
    (lambda: t.StreamQueue().put(1, True, -1), ValueError, "'timeout' must be a non-negative number"),
    (lambda: t.StreamQueue("a"), TypeError, "'str' object cannot be interpreted as an integer"),
    (lambda: t.USBClient(None), t.USBConnectionError, ""),
    (lambda: t.USBClient("\udcff"), t.USBConnectionError, ""),
    (lambda: t.CANFrame.fromU8List([0, "x", 0, 0]), TypeError, "unsupported operand"),
])
def test_bad_arguments_fail_as_python_does(call, exc, text):
    e = bad(call)
    assert type(e) is exc and text in str(e)


@pytest.fixture
def can_dev():
    dev = t.TorvikUsbCan()
    yield dev
    dev.close()


def test_bad_arguments_of_pools_and_stream_reads(can_dev):
    dev = can_dev
    e = bad(dev.data_pool_strm.__setitem__, 5, 1)
    assert type(e) is TypeError and "StreamQueue" in str(e)
    e = bad(dev._putToDataPool, -1, b"")
    assert type(e) is OverflowError
    e = bad(dev._checkCommandType, "1", b"")
    assert type(e) is TypeError and "cannot be interpreted as an integer" in str(e)
    dev.uart_p1_signal_queue.put(ord("a"))  # a read with data waiting gets to its count and delay
    e = bad(dev.UART_read_async, 1, 1, "x")
    assert type(e) is TypeError and "'<=' not supported between instances of 'str' and 'int'" in str(e)
    for n in (10 ** 400, -2 ** 70):  # a count beyond any queue takes all, as min() and `> -1` decide
        dev.uart_p1_signal_queue.put(ord("b"))
        assert asyncio.run(dev.UART_read_async(1, n, 0))[-1] == "b" and dev.uart_p1_signal_queue.qsize() == 0


class BadEq(int):
    """An int whose comparisons fail: a membership test must pass the failure on."""

    def __eq__(self, other):
        raise ArithmeticError("eq refused")

    __hash__ = int.__hash__


@pytest.fixture
def logic_dev():
    dev = t.TorvikUsbLogic()
    yield dev
    dev.close()


@pytest.mark.parametrize("op", ["UART_setParity_async", "SPI_setDataSize_async"])
def test_a_failing_comparison_in_a_mode_check_is_not_swallowed(logic_dev, op):
    port = sorted(logic_dev.uart_dict if op.startswith("UART") else logic_dev.SPI_dict)[0]
    assert type(bad(getattr(logic_dev, op), port, BadEq(1))) is ArithmeticError
