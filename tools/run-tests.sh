#!/usr/bin/env bash
# Runs every test: the engine's GoogleTest suite (plain, then under AddressSanitizer and UBSan)
# through CTest, and the module's pytest suite against a fresh install of the package.
# Needs: a C++20 compiler, GoogleTest (Debian libgtest-dev), libusb-1.0 headers, Python 3.8+.
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

engine_tests() {  # build dir, extra cmake args...
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja -DTORVIK_BUILD_MODULE=OFF -DTORVIK_BUILD_TESTS=ON -DTORVIK_WERROR=ON "$@" > /dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}
engine_tests build/test-engine -DCMAKE_BUILD_TYPE=RelWithDebInfo
engine_tests build/test-asan -DCMAKE_BUILD_TYPE=Debug -DTORVIK_SANITIZE=address,undefined

"$py" -m pytest -q tests/python
