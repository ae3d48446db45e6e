"""The shipped type stubs match the built module: regenerated they are the same, and stubtest
finds every stub name at run time with a compatible signature."""
import importlib.util
import os
import subprocess
import sys

import pytest

import pytorvik

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
SHIPPED = os.path.join(os.path.dirname(pytorvik.__file__), "__init__.pyi")


def test_stubs_and_marker_ship_with_the_package():
    assert os.path.isfile(SHIPPED) and os.path.isfile(os.path.join(os.path.dirname(SHIPPED), "py.typed"))


def test_stubs_are_current():
    found = importlib.util.spec_from_file_location("gen_stubs", os.path.join(ROOT, "tools", "gen_stubs.py"))
    gen = importlib.util.module_from_spec(found)
    found.loader.exec_module(gen)
    import io
    out = io.StringIO()
    gen.main(out)
    with open(SHIPPED) as f:
        assert out.getvalue() == f.read(), "stubs are stale: run tools/gen_stubs.py (see its docstring)"


def test_stubtest(tmp_path):
    pytest.importorskip("mypy.stubtest", reason="mypy is not installed (pip install .[test])")
    # Compiled classes have the binding's metaclass, which no stub can name.
    compiled = [n for n, v in vars(pytorvik).items() if isinstance(v, type) and type(v) is not type]
    allow = tmp_path / "allow.txt"
    # Before 3.9 typing.NamedTuple is a class whose run-time signature differs from typeshed's, and
    # stubtest checks it where the emulator's driver imports it.
    allow.write_text("".join("pytorvik.%s\n" % n for n in compiled) + "pytorvik\\.simctl\\.NamedTuple\\..*\n")
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(pytorvik.__file__)))
    r = subprocess.run([sys.executable, "-m", "mypy.stubtest", "pytorvik", "--concise", "--allowlist", str(allow),
                        "--ignore-unused-allowlist"], cwd=tmp_path, env=env, capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stdout + r.stderr


def test_udev_rule_matches_the_units_ids():
    with open(os.path.join(os.path.dirname(pytorvik.__file__), "60-torvik.rules")) as f:
        rule = [line for line in f if line.startswith("SUBSYSTEM")]
    assert rule and 'ATTRS{idVendor}=="%04x"' % pytorvik.USB_VID in rule[0] and \
        'ATTRS{idProduct}=="%04x"' % pytorvik.USB_PID in rule[0]
