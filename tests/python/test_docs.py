"""help() and inspect answer for every public name: a text, and a signature with the real
parameter names (no binding-internal types)."""
import inspect
import os
import subprocess
import sys

import pytest

import pytorvik

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
# The compositions without tables of their own carry no description.
UNDESCRIBED = {"TorvikCore", "TorvikCoreMini", "TorvikDrive", "TorvikBox"}


def _public():
    """(qualified name, object, is a class) of every public class, function and method."""
    out = []
    for name, v in sorted(vars(pytorvik).items()):
        if name.startswith("_"):
            continue
        if isinstance(v, type) and v.__module__ == "pytorvik":
            out.append((name, v, True))
            # its own members, and those of bases the module does not name (the logger's)
            hidden = [b for b in v.__mro__ if b is v or (b.__module__ == "pytorvik" and getattr(pytorvik, b.__name__) is not b)]
            for member, f in sorted(kv for b in hidden for kv in vars(b).items()):
                f = getattr(f, "__func__", f)
                if not member.startswith("_") and callable(f) and not isinstance(f, type):
                    out.append(("%s.%s" % (name, member), f, False))
        elif callable(v) and not isinstance(v, type):
            out.append((name, v, False))
    return out


PUBLIC = _public()


@pytest.mark.parametrize("name,obj,is_class", PUBLIC, ids=[p[0] for p in PUBLIC])
def test_public_name_has_text_and_signature(name, obj, is_class):
    if name not in UNDESCRIBED:
        assert (obj.__doc__ or "").strip(), "no docstring"
    if is_class:
        return
    sig = inspect.signature(obj)
    assert "object" not in str(sig) and ":" not in str(sig), sig
    assert "pybind11" not in (obj.__doc__ or "")


def test_bound_operations_drop_the_receiver_and_keep_defaults():
    dev = pytorvik.TorvikUsbLogic.__new__(pytorvik.TorvikUsbLogic)  # no threads: only the binding matters
    assert list(inspect.signature(dev.UART_write_async).parameters) == ["port", "write_data"]
    assert list(inspect.signature(pytorvik.AOModule.AO_writeOneChannel_async).parameters) == \
        ["self", "port", "channel", "AO_value"]
    assert inspect.signature(pytorvik.DataLogger.Logger_closeFile).parameters["verbose"].default is True


def test_examples_type_check_strictly(tmp_path):
    """mypy --strict over every example, with the shipped stubs."""
    pytest.importorskip("mypy", reason="mypy is not installed (pip install .[test])")
    examples = os.path.join(ROOT, "examples")
    files = sorted(os.path.join(examples, f) for f in os.listdir(examples) if f.endswith(".py"))
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(pytorvik.__file__)))
    r = subprocess.run([sys.executable, "-m", "mypy", "--strict", "--no-incremental", "--cache-dir", str(tmp_path)]
                       + files, cwd=examples, env=env, capture_output=True, text=True, timeout=600)
    assert r.returncode == 0, r.stdout + r.stderr
