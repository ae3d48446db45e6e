"""What helps a script get the life cycle right: `with` / `async with` on handles, the logger and the
finder, and the reprs that say what a handle is connected to."""
import asyncio
import csv
import socket
import subprocess
import sys
import textwrap

import pytest

import pytorvik


class Boom(Exception):
    pass


def threads_of(obj):
    return [v for k, v in vars(obj).items() if k.endswith("_thread")]


def assert_ended(obj):
    for t in threads_of(obj):
        t.join(5)
    assert obj.killed and not [t.name for t in threads_of(obj) if t.is_alive()]


# Outside the blocks that tests' emulators take their addresses from: nothing listens there.
NOWHERE = "127.254.254.254"


@pytest.mark.parametrize("cls", ["TorvikLanAnalog", "TorvikAirAnalog", "TorvikLanRelay"])
@pytest.mark.parametrize("body", ["returns", "raises", "connect fails"])
@pytest.mark.parametrize("form", ["with", "async with"])
def test_leaving_the_block_closes_the_handle(sim, cls, body, form, capsys):
    unit = sim(cls).unit  # on the units' own ports (the tests run as root)
    made = []

    def use(dev):
        made.append(dev)
        dev.connect(NOWHERE if body == "connect fails" else unit.addr)
        assert " connected>" in repr(dev)
        if body == "raises":
            raise Boom()

    async def use_async():
        async with getattr(pytorvik, cls)() as dev:
            use(dev)

    expected = {"returns": None, "raises": Boom, "connect fails": pytorvik.NetworkConnectionError}[body]
    ctx = pytest.raises(expected) if expected else _nothing()
    with ctx:
        if form == "with":
            with getattr(pytorvik, cls)() as dev:
                use(dev)
        else:
            asyncio.run(use_async())
    assert_ended(made[0])
    assert repr(made[0]).endswith(" closed>")
    assert "Closed handle (" in capsys.readouterr().out


class _nothing:
    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return False


@pytest.mark.parametrize("script", [
    # an unreachable unit: connect raises inside the block
    "with pytorvik.TorvikLanLogic() as dev:\n    dev.connect(%r)" % NOWHERE,
    "with pytorvik.TorvikUsbMixed() as dev:\n    dev.connect('NOSUCHUNIT')",
    "async def main():\n    async with pytorvik.TorvikAirAnalog() as dev:\n        dev.connect(%r)\n"
    "asyncio.run(main())" % NOWHERE,
    "with pytorvik.DataLogger() as log:\n    log.Logger_writeValue(1)\n    raise KeyError",
    "with pytorvik.DeviceFinder() as finder:\n    finder.connect()\n    raise KeyError",
])
def test_a_script_whose_block_fails_still_ends(script):
    code = "import asyncio\nimport pytorvik\n" + script
    r = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert r.returncode == 1 and "Traceback" in r.stderr, r.stderr


def test_the_logger_writes_everything_queued_before_it_closes(tmp_path, capsys):
    path = str(tmp_path / "rows.csv")
    with pytest.raises(Boom):
        with pytorvik.DataLogger() as log:
            log.Logger_openFile(path, verbose=False)
            assert repr(log) == "<DataLogger %r open>" % path
            for i in range(1000):
                log.Logger_writeList([i, i * 0.5])
            raise Boom()
    with open(path, newline="") as f:
        rows = list(csv.reader(f))
    assert rows[0] == ["0", "0.0"] and rows[-1] == ["999", "499.5"] and len(rows) == 1000
    assert_ended(log)
    assert repr(log) == "<DataLogger %r closed>" % path
    assert "Close file name: (" in capsys.readouterr().out
    with log:  # already closed: leaving again does nothing
        pass


def test_a_logger_without_a_file_ends_its_worker_on_exit(capsys):
    with pytorvik.DataLogger() as log:
        assert repr(log) == "<DataLogger no file>"
        log.Logger_writeValue(1)  # nowhere to go
    assert_ended(log)
    assert capsys.readouterr().err == ""


@pytest.mark.parametrize("port_taken", [False, True])
def test_the_finder_exits_through_the_sequence_that_works(port_taken, capsys):
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        if port_taken:
            try:
                holder.bind(("", pytorvik.UDP_RECV_PORT))
            except OSError:
                pass  # someone else has it: the finder's bind fails all the same
        with pytest.raises(pytorvik.NetworkConnectionError) if port_taken else _nothing():
            with pytorvik.DeviceFinder() as finder:
                finder.connect()
                assert repr(finder) == "<DeviceFinder connected>"
    finally:
        holder.close()
    assert_ended(finder)
    assert repr(finder) == "<DeviceFinder closed>"
    assert "Closed handle (Device finder)" in capsys.readouterr().out


def test_exit_uses_the_handles_own_close():
    closed = []

    class TorvikLanLogic(pytorvik.TorvikLanLogic):  # the label is found by the class's name
        def close(self):
            closed.append(True)
            pytorvik.TorvikLanLogic.close(self)

    with TorvikLanLogic() as dev:
        pass
    assert closed == [True]
    assert_ended(dev)
