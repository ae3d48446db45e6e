#!/usr/bin/env bash
# Runs every test: the engine's GoogleTest suite (plain, then under AddressSanitizer and UBSan)
# through CTest, and the module's pytest suite against a fresh install of the package.
# Needs: a C++20 compiler, GoogleTest (Debian libgtest-dev), libusb-1.0 headers, Python 3.8+,
# and for the broadcast tests root with unshare and ip (util-linux, iproute2).
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
# The threaded parts under ThreadSanitizer (the long randomised framing check is plain C++).
engine_tests build/test-tsan AgreesWithTheReference -DCMAKE_BUILD_TYPE=Debug -DTORVIK_SANITIZE=thread -DTORVIK_BUILD_SIM=OFF

# pytest runs in a private network namespace where that is possible (root and unshare): there
# loopback is the only interface, so the broadcast tests can run without any packet leaving the
# machine. Elsewhere those tests skip themselves.
pytest_cmd=("$py" -m pytest -q tests/python)
if [ "$(id -u)" = 0 ] && command -v unshare > /dev/null && unshare --net --uts true 2> /dev/null; then
    unshare --net --uts sh -c 'ip link set lo up && hostname localhost && exec "$@"' sh "${pytest_cmd[@]}"
else
    echo "note: no private network namespace here; broadcast tests will be skipped" >&2
    "${pytest_cmd[@]}"
fi
