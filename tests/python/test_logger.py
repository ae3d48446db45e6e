"""DataLogger: the bytes in the file, the gate before the open, the close order, printing."""
import csv
import io
import threading

import pytest

import pytorvik

TRICKY_ROWS = [
    [1, 2.5, None, True, False, "a,b", 'q"x', "line\nbreak", "cr\rlf", ""],
    [""],
    [],
    [1e-7, -0.0, 10**20, "é ü 中", " lead", "trail "],
]


def csv_bytes(rows):
    buf = io.StringIO(newline="")
    csv.writer(buf).writerows(rows)
    return buf.getvalue().encode("utf8")


class SpyWriter:
    """Stands in for the csv writer, so a test knows when the worker has written an item."""

    def __init__(self, real):
        self.real, self.done = real, threading.Event()

    def writerows(self, rows):
        self.real.writerows(rows)
        if not rows:  # the marker: items queued before it may still pass through here first
            self.done.set()


@pytest.fixture
def make_logger():
    made = []

    def make(cls=pytorvik.DataLogger):
        made.append(cls())
        return made[-1]

    yield make
    for lg in made:  # a logger left running would keep its worker, and the interpreter, alive
        if not lg.killed:
            if hasattr(lg, "f_handle"):
                lg.f_handle.close()
            lg.killed = True
            lg.save_data_queue.put(None)
            if lg.save_data_lock.locked():
                lg.save_data_lock.release()
        lg.save_data_thread.join(5)
        assert not lg.save_data_thread.is_alive()


def drain_and_close(lg):
    """Lets the queue run empty and the last item be written, then closes."""
    spy = lg.writer_csv = SpyWriter(lg.writer_csv)
    lg.Logger_write2DList([])  # a marker item: written after everything before it
    assert spy.done.wait(5)
    lg.Logger_closeFile(verbose=False)
    lg.save_data_thread.join(5)


def test_file_bytes_match_csv_writer(make_logger, tmp_path):
    lg = make_logger()
    assert not lg.save_data_thread.daemon and lg.save_data_thread.name.endswith(" (_saveStreamingDataThread)")
    fn = tmp_path / "a.csv"
    lg.Logger_writeValue(5)  # before the open: waits at the gate, written after it
    lg.Logger_openFile(str(fn), verbose=False)
    lg.Logger_writeHeader(["t", "v"])
    lg.Logger_writeList([1, 2])
    lg.Logger_write2DList(TRICKY_ROWS)
    drain_and_close(lg)
    assert fn.read_bytes() == csv_bytes([[5], ["t", "v"], [1, 2]] + TRICKY_ROWS)
    assert not lg.save_data_thread.is_alive()


@pytest.mark.parametrize("clear_old, expected", [(True, [["new"]]), (False, [["old"], ["new"]]), (0, [["old"], ["new"]])])
def test_clear_old(make_logger, tmp_path, clear_old, expected):
    fn = tmp_path / "a.csv"
    fn.write_bytes(csv_bytes([["old"]]))
    lg = make_logger()
    lg.Logger_openFile(str(fn), clear_old=clear_old, verbose=False)
    lg.Logger_writeList(["new"])
    drain_and_close(lg)
    assert fn.read_bytes() == csv_bytes(expected)


# verbose is compared with True: 1 equals True and prints, a truthy text does not.
@pytest.mark.parametrize("verbose, prints", [(True, True), (1, True), ("yes", False), (False, False)])
def test_verbose_by_equality(make_logger, tmp_path, capsys, verbose, prints):
    fn = str(tmp_path / "v.csv")
    lg = make_logger()
    lg.Logger_openFile(fn, verbose=verbose)
    lg.Logger_closeFile(verbose=verbose)
    out = capsys.readouterr().out
    assert out == ("Opened file name: (%s)\nClose file name: (%s)\n" % (fn, fn) if prints else "")


@pytest.mark.filterwarnings("ignore::pytest.PytestUnhandledThreadExceptionWarning")
def test_rows_queued_at_close_are_not_written(make_logger, tmp_path):
    fn = tmp_path / "c.csv"
    lg = make_logger()
    lg.Logger_openFile(str(fn), verbose=False)
    real, written = lg.writer_csv, threading.Event()

    class HoldAfterFirst:
        def writerows(self, rows):
            real.writerows(rows)
            if not written.is_set():
                lg.save_data_lock.acquire()  # the worker's next pass through its gate now waits
                written.set()

    lg.writer_csv = HoldAfterFirst()
    lg.Logger_writeList(["first"])
    assert written.wait(5)
    lg.Logger_writeList(["queued"])
    lg.Logger_closeFile(verbose=False)  # releases the gate; the worker then fails on the closed file
    lg.save_data_thread.join(5)
    assert not lg.save_data_thread.is_alive() and lg.killed is True
    assert fn.read_bytes() == csv_bytes([["first"]])


def test_misuse(make_logger, tmp_path):
    lg = make_logger()
    with pytest.raises(AttributeError):
        lg.Logger_closeFile()  # nothing open
    lg.Logger_openFile(str(tmp_path / "1.csv"), verbose=False)
    with pytest.raises(RuntimeError, match="release unlocked lock"):
        lg.Logger_openFile(str(tmp_path / "2.csv"), verbose=False)
    assert (tmp_path / "2.csv").exists()  # the failure comes after the new file was opened
    lg.Logger_closeFile(verbose=False)
    with pytest.raises(FileNotFoundError):
        make_logger().Logger_openFile(str(tmp_path / "no" / "dir.csv"))
    with pytest.raises(ArithmeticError):  # a failing truth value is passed on, not taken as false
        make_logger().Logger_openFile(str(tmp_path / "3.csv"), clear_old=BadBool())


class BadBool:
    def __bool__(self):
        raise ArithmeticError("bool refused")


def test_subclass_override_takes_part(make_logger, tmp_path):
    seen = []

    class Stamped(pytorvik.DataLogger):
        def Logger_write2DList(self, value_mat):
            seen.append(value_mat)
            super().Logger_write2DList([["#"] + row for row in value_mat])

    lg = make_logger(Stamped)
    fn = tmp_path / "s.csv"
    lg.Logger_openFile(str(fn), verbose=False)
    lg.Logger_writeValue(7)
    drain_and_close(lg)
    assert seen == [[[7]], []] and fn.read_bytes() == csv_bytes([["#", 7]])
