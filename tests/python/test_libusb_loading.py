"""Where the module finds libusb-1.0: loaded at first USB use from beside the module, its
../ext_lib, the system's own, then the libusb-package wheel; never by the import alone."""
import os
import shutil
import subprocess
import sys
import textwrap

import pytest

import pytorvik


def mapped_files():
    with open("/proc/self/maps") as maps:
        return {line.split(None, 5)[5].strip() for line in maps if len(line.split(None, 5)) == 6}


@pytest.fixture(scope="module")
def system_libusb():
    backend = pytorvik.getLibUSB1()
    if backend is None:
        pytest.skip("no libusb-1.0 on this machine")
    return backend


@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="reads /proc/self/maps")
def test_getLibUSB1_reports_the_file_in_use(system_libusb):
    b = system_libusb
    assert b.name == "libusb-1.0" and os.path.isfile(b.path)
    assert os.path.realpath(b.path) in {os.path.realpath(f) for f in mapped_files() if f.startswith("/")}
    assert len(b.version.split(".")) == 4 and all(p.isdigit() for p in b.version.split("."))
    assert repr(b) == "<USBBackend libusb-1.0 %s from %s>" % (b.version, b.path)
    assert pytorvik.getLibUSB1().path == b.path  # loaded once


# A copy of the package in a directory of its own, run in a fresh interpreter, with a working
# libusb (a copy of the system's), a file that is no library, or nothing at the two private places.
@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="reads /proc/self/maps")
@pytest.mark.parametrize("beside, ext_lib, expect", [
    ("lib", "lib", "beside"),
    ("junk", "lib", "ext_lib"),
    (None, None, "system"),
])
def test_search_order(tmp_path, system_libusb, beside, ext_lib, expect):
    pkg = tmp_path / "site" / "pytorvik"
    shutil.copytree(os.path.dirname(pytorvik.__file__), str(pkg), ignore=shutil.ignore_patterns("__pycache__"))
    places = {"beside": pkg / "libusb-1.0.dll", "ext_lib": tmp_path / "site" / "ext_lib" / "libusb-1.0.dll"}
    for where, what in (("beside", beside), ("ext_lib", ext_lib)):
        if what == "lib":
            places[where].parent.mkdir(exist_ok=True)
            shutil.copyfile(os.path.realpath(system_libusb.path), str(places[where]))
        elif what == "junk":
            places[where].write_text("not a library\n")
    script = textwrap.dedent("""
        import pytorvik
        def loaded():
            return "libusb" in open("/proc/self/maps").read()
        dev = pytorvik.TorvikLanLogic()  # a network handle needs no USB library
        dev.close()
        print(pytorvik.__file__, loaded())
        print(pytorvik.getLibUSB1().path, loaded())
    """)
    env = dict(os.environ, PYTHONPATH=str(tmp_path / "site"))
    out = subprocess.run([sys.executable, "-c", script], env=env, cwd=str(tmp_path), stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    assert out.returncode == 0, out.stderr
    (module_file, before), (path, after) = [line.rsplit(" ", 1) for line in out.stdout.split("\n")[-3:-1]]
    assert module_file.startswith(str(pkg)) and (before, after) == ("False", "True")
    if expect == "system":
        assert os.path.realpath(path) == os.path.realpath(system_libusb.path)
    else:
        assert os.path.samefile(path, str(places[expect]))


def can_hide_files():
    if not sys.platform.startswith("linux") or os.geteuid() != 0 or shutil.which("unshare") is None:
        return False
    return subprocess.run(["unshare", "-m", "true"], stderr=subprocess.DEVNULL).returncode == 0


# The system's libusb hidden in a mount namespace of the child's own: the libusb-package wheel's
# copy is the last resort, and without it every USB entry fails saying what to install.
@pytest.mark.skipif(not can_hide_files(), reason="needs root and unshare -m to hide the system's libusb")
@pytest.mark.parametrize("wheel", [True, False])
def test_without_the_system_library(tmp_path, system_libusb, wheel):
    if wheel:
        (tmp_path / "libusb_package").mkdir()
        (tmp_path / "libusb_package" / "__init__.py").write_text("raise ImportError('never imported')\n")
        shutil.copyfile(os.path.realpath(system_libusb.path), str(tmp_path / "libusb_package" / "libusb-1.0.so"))
    script = textwrap.dedent("""
        import pytorvik
        backend = pytorvik.getLibUSB1()
        print(backend.path if backend else None)
        for entry in (lambda: pytorvik.Packet()._getAllUSBDevices(), lambda: pytorvik.USBClient("21JA1298")):
            try:
                print(entry())
            except (pytorvik.USBError, pytorvik.Error) as e:
                print(type(e).__name__, e.code, e)
    """)
    hide = 'mount --bind /dev/null "$1" && shift && exec "$@"'
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([str(tmp_path)] + sys.path[1:]))
    out = subprocess.run(["unshare", "-m", "sh", "-c", hide, "sh", os.path.realpath(system_libusb.path),
                          sys.executable, "-c", script], env=env, cwd=str(tmp_path), stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    assert out.returncode == 0, out.stderr
    lines = out.stdout.splitlines()
    if wheel:
        assert os.path.samefile(lines[0], str(tmp_path / "libusb_package" / "libusb-1.0.so"))
        assert lines[1].startswith("[") and lines[2].startswith("USBConnectionError -8001 ")  # no unit, but a working libusb
    else:
        pkg_dir = os.path.dirname(pytorvik.__file__)
        text = ("libusb-1.0 not found (looked in: {0}/libusb-1.0.dll, {0}/../ext_lib/libusb-1.0.dll, libusb-1.0.so.0 "
                "(the system's search), the libusb-package wheel (not installed)); install it with your system's "
                "package manager (Debian/Ubuntu: sudo apt-get install libusb-1.0-0) or pip install pytorvik[usb]"
                ).format(pkg_dir)
        assert lines == ["None"] + ["USBError -12 [Errno -12] " + text] * 2
