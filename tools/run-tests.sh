#!/usr/bin/env bash
# Runs every test: the engine's GoogleTest suite (plain, then under AddressSanitizer and UBSan)
# through CTest, and the module's pytest suite against a fresh install of the package.
# Needs: a C++20 compiler, GoogleTest (Debian libgtest-dev), libusb-1.0 headers, Python 3.8+,
# for the USB tests umockdev (Debian umockdev, libumockdev-dev, libglib2.0-dev), and for the
# broadcast tests root with unshare and ip (util-linux, iproute2).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
venv=${TORVIK_VENV:-.venv}
[ -x "$venv/bin/python" ] || python3 -m venv "$venv"
py="$venv/bin/python"
"$py" -m pip install -q --upgrade pip
"$py" -m pip install -q cmake ninja
"$py" -m pip install -q ".[test]"
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
pytest_cmd=("$py" -m pytest -q -rs tests/python)
# pytest runs as the child of the emulator's USB bus, so that the libusb inside the module finds
# the USB units the tests plug in (umockdev's preload). Without USB support those tests skip.
sim="$PWD/$venv/bin/torvik-sim"
if "$sim" --usb-host -- true > /dev/null 2>&1; then
    pytest_cmd=("$sim" --usb-host -- "${pytest_cmd[@]}")
else
    echo "note: torvik-sim has no USB support here (umockdev missing at build time); USB tests will be skipped" >&2
fi
if [ "$(id -u)" = 0 ] && command -v unshare > /dev/null && unshare --net --uts true 2> /dev/null; then
    unshare --net --uts sh -c 'ip link set lo up && hostname localhost && exec "$@"' sh "${pytest_cmd[@]}"
else
    echo "note: no private network namespace here; broadcast tests will be skipped" >&2
    "${pytest_cmd[@]}"
fi
