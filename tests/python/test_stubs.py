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


def _stub_defs():
    """{class name or "": {name: ast.FunctionDef}} of the shipped stubs."""
    import ast
    with open(SHIPPED) as f:
        tree = ast.parse(f.read())
    defs = {"": {}}
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            defs[""][node.name] = node
        elif isinstance(node, ast.ClassDef):
            defs[node.name] = {n.name: n for n in node.body if isinstance(n, ast.FunctionDef)}
    return defs


def _stub_params(node, method):
    """[(name, kind, has_default)] as the stub declares them, without the receiver."""
    a = node.args
    posonly = getattr(a, "posonlyargs", [])
    positional = posonly + a.args
    defaults = [False] * (len(positional) - len(a.defaults)) + [True] * len(a.defaults)
    out = [(p.arg, "positional" if p in posonly else "either", d) for p, d in zip(positional, defaults)]
    if method and out and out[0][0] == "self":
        out = out[1:]
    if a.vararg:
        out.append(("*", "var", False))
    out += [(p.arg, "keyword", d is not None) for p, d in zip(a.kwonlyargs, a.kw_defaults)]
    if a.kwarg:
        out.append(("**", "var", False))
    return out


def _generator():
    if not _gen:
        found = importlib.util.spec_from_file_location("gen_stubs", os.path.join(ROOT, "tools", "gen_stubs.py"))
        _gen.append(importlib.util.module_from_spec(found))
        found.loader.exec_module(_gen[0])
    return _gen[0]


_gen = []


def _runtime_params(fn, method):
    """The same for the run-time callable, or None where it does not say (overloads, plain slots)."""
    import re
    doc = (getattr(fn, "__doc__", None) or "").strip().splitlines()
    m = re.match(r"^(\w+)\((.*)\) -> (.+)$", doc[0]) if doc else None
    if not m or "Overloaded function." in doc:
        return None
    out = []
    for p in _generator().split_params(m.group(2)):
        name, _, rest = p.partition(":")
        name = name.strip()
        if name in ("*args", "**kwargs"):
            out.append((name.rstrip("args").rstrip("kw"), "var", False))
        else:  # the binding's unnamed parameters take no keyword
            out.append((name, "positional" if re.match(r"arg\d+$", name) else "either", "=" in rest))
    if ("/", "either", False) in out:  # a marker: what stands before it is positional only
        cut = out.index(("/", "either", False))
        out = [(n, "positional", d) for n, _, d in out[:cut]] + out[cut + 1:]
    if method and type(fn).__name__ != "instancemethod" and out and out[0][0] == "self":
        out = out[1:]
    elif method and type(fn).__name__ == "instancemethod":
        out = out[1:]  # a function bound as a method: its first parameter receives the instance
    return out


def test_every_stub_signature_is_what_the_run_time_accepts():
    """Each name a stub class shows (its own or inherited in the stubs) takes at run time exactly the
    parameters the stub gives: names, order, defaults, positional-only and variadic parts."""
    defs = _stub_defs()
    wrong = []
    for name, node in defs[""].items():
        want = _runtime_params(getattr(pytorvik, name), False)
        if want is not None and want != _stub_params(node, False):
            wrong.append("%s: stub %s, run time %s" % (name, _stub_params(node, False), want))
    for cls_name in defs:
        cls = getattr(pytorvik, cls_name, None) if cls_name else None
        if not isinstance(cls, type):
            continue
        shown = {}
        for base in reversed(cls.__mro__):  # what the stub's own inheritance makes visible on cls
            shown.update(defs.get(base.__name__, {}))
        for name, node in shown.items():
            fn = cls.__dict__.get(name) or next((b.__dict__[name] for b in cls.__mro__ if name in b.__dict__), None)
            if fn is None or isinstance(fn, (property, staticmethod, classmethod)):
                continue
            want = _runtime_params(fn, True)
            have = _stub_params(node, True)
            if want is not None and want != have and not (name == "__init__" and ("*", "var", False) in have):
                wrong.append("%s.%s: stub %s, run time %s" % (cls_name, name, have, want))
    assert not wrong, "\n".join(wrong)
