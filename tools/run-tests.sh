#!/usr/bin/env bash
# Runs every test: the engine's GoogleTest suite (plain, under AddressSanitizer/UBSan and under
# ThreadSanitizer) through CTest, and the module's pytest suite against a fresh install of the
# package, on the newest Python found, then the pytest suite again on the oldest supported one (3.8).
# Needs: a C++20 compiler, GoogleTest (Debian libgtest-dev), Python 3.8+; for the USB tests
# umockdev and libusb-1.0 (Debian umockdev, libusb-1.0-0), and for the broadcast tests root with
# unshare and ip (util-linux, iproute2). .ci/run installs all of that on a fresh Debian machine.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

# Interpreters: pyenv's when present (CI machines carry 3.8 to 3.13 there), else python3.
pyenv_python() {  # prefix of a version, e.g. 3.8; prints the newest matching interpreter
    local root
    root=$(pyenv root 2>/dev/null) || return 1
    ls -d "$root"/versions/"$1"* 2>/dev/null | sort -V | while read -r d; do
        [ -x "$d/bin/python" ] && echo "$d/bin/python"
    done | tail -1 | grep .
}
newest=$(pyenv_python 3 || command -v python3)
oldest=$(pyenv_python 3.8. || true)

make_venv() {  # venv dir, interpreter
    [ -x "$1/bin/python" ] || "$2" -m venv "$1"
    "$1/bin/python" -m pip install -q --upgrade pip
    "$1/bin/python" -m pip install -q cmake ninja
    "$1/bin/python" -m pip install -q ".[test]"
}
venv=${TORVIK_VENV:-.venv}
make_venv "$venv" "$newest"
py="$venv/bin/python"
echo "note: testing with $("$py" --version)" >&2
export PATH="$PWD/$venv/bin:$PATH"

engine_tests() {  # build dir, tests to leave out (regex or ""), extra cmake args...
    local dir=$1 exclude=$2; shift 2
    cmake -S . -B "$dir" -G Ninja -DTORVIK_BUILD_MODULE=OFF -DTORVIK_BUILD_TESTS=ON -DTORVIK_WERROR=ON "$@" > /dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" ${exclude:+-E "$exclude"}
}
engine_tests build/test-engine "" -DCMAKE_BUILD_TYPE=RelWithDebInfo
engine_tests build/test-asan "" -DCMAKE_BUILD_TYPE=Debug -DTORVIK_SANITIZE=address,undefined
# The threaded parts under ThreadSanitizer (the long randomised framing check is plain C++); the
# USB client's tests run under the installed emulator.
engine_tests build/test-tsan AgreesWithTheReference -DCMAKE_BUILD_TYPE=Debug -DTORVIK_SANITIZE=thread -DTORVIK_BUILD_SIM=OFF \
    -DTORVIK_SIM_FOR_TESTS="$PWD/$venv/bin/torvik-sim"

# pytest runs in a private network namespace where that is possible (root and unshare): there
# loopback is the only interface, so the broadcast tests can run without any packet leaving the
# machine. Elsewhere those tests skip themselves.
# pytest runs as the child of the emulator's USB bus, so that the libusb inside the module finds
# the USB units the tests plug in (umockdev's preload). Without USB support those tests skip.
sim="$PWD/$venv/bin/torvik-sim"
if ! "$sim" --usb-host -- true > /dev/null 2>&1; then
    echo "note: torvik-sim cannot play USB units here ($("$sim" --usb-host -- true 2>&1 | head -1)); USB tests will be skipped" >&2
    sim=""
fi
netns=""
if [ "$(id -u)" = 0 ] && command -v unshare > /dev/null && unshare --net --uts true 2> /dev/null; then
    netns=1
else
    echo "note: no private network namespace here; broadcast tests will be skipped" >&2
fi
run_pytest() {  # python, pytest arguments...
    local cmd=("$@")
    cmd=("$1" -m pytest "${cmd[@]:1}")
    [ -n "$sim" ] && cmd=("$sim" --usb-host -- "${cmd[@]}")
    if [ -n "$netns" ]; then
        unshare --net --uts sh -c 'ip link set lo up && hostname localhost && exec "$@"' sh "${cmd[@]}"
    else
        "${cmd[@]}"
    fi
}
run_pytest "$py" -q -rs tests/python
# The full argument sweep: every odd value in every position of every callable (minutes).
run_pytest "$py" -q -rs -m sweep_full tests/python/test_sweep.py

# The oldest supported Python: its own build of the module, the same tests, the same emulator.
if [ -n "$oldest" ]; then
    venv38=${TORVIK_VENV38:-.venv38}
    make_venv "$venv38" "$oldest"
    echo "note: testing with $("$venv38/bin/python" --version)" >&2
    run_pytest "$venv38/bin/python" -q -rs tests/python
else
    echo "note: no Python 3.8 found (pyenv); the suite ran on $("$py" --version) only" >&2
fi
