#!/usr/bin/env bash
# Checks the Windows x64 build on this Linux machine:
#  1. compiles every source of the module for Windows with mingw-w64 (-fsyntax-only; Python's own
#     Windows headers are not at hand, so its Linux headers stand in, with a pyconfig.h that
#     states what differs on 64-bit Windows);
#  2. cross-builds the engine and its GoogleTest suite (cmake/mingw-w64.cmake; GoogleTest from
#     Debian's googletest sources, built with the same compiler);
#  3. runs the suite under wine64, and the network client's tests against the Linux torvik-sim on
#     loopback. Tests that need Linux-only things (the USB bus is umockdev's) are not built for
#     Windows; tests of Linux-only behaviour skip themselves with their reason.
# Installs what it lacks with apt-get (as root, or through sudo). Environment: TORVIK_SIM (a
# torvik-sim to use; default: the venv's, the PATH's, or one built here), TORVIK_VENV (default
# .venv), TORVIK_WIN_BUILD (default build/check-windows), TORVIK_JOBS (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${TORVIK_JOBS:-2}
build=${TORVIK_WIN_BUILD:-build/check-windows}
venv=${TORVIK_VENV:-.venv}
case "$venv" in /*) ;; *) venv="$PWD/$venv" ;; esac
if [ -d "$venv/bin" ]; then export PATH="$venv/bin:$PATH"; fi
cxx=x86_64-w64-mingw32-g++-posix
started=$(date +%s)

find_wine() { command -v wine64 || { [ -x /usr/lib/wine/wine64 ] && echo /usr/lib/wine/wine64; } || true; }
py=$(command -v python3)
python_include() { "$py" -c 'import sysconfig; print(sysconfig.get_paths()["include"])'; }

# --- what the check needs -------------------------------------------------------------------
missing=()
command -v "$cxx" > /dev/null || missing+=(g++-mingw-w64-x86-64-posix)
[ -n "$(find_wine)" ] || missing+=(wine64)
[ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
command -v cmake > /dev/null || missing+=(cmake)
[ -f "$(python_include)/Python.h" ] || missing+=(python3-dev)
if [ ${#missing[@]} -gt 0 ]; then
    echo "check-windows: installing ${missing[*]}" >&2
    if [ "$(id -u)" = 0 ]; then sudo=""; else sudo="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" > /dev/null
fi
wine=$(find_wine)
generator=()
command -v ninja > /dev/null && generator=(-G Ninja)
"$py" -c 'import pybind11' 2> /dev/null || "$py" -m pip install -q pybind11 2> /dev/null ||
    { echo "check-windows: pybind11 is needed for the module's check (pip install pybind11)" >&2; exit 1; }

# --- 1. the module's sources, compiled for Windows --------------------------------------------
echo "== the module's sources, compiled for Windows (syntax only)"
shim="$build/python-windows"
rm -rf "$shim" && mkdir -p "$build" && cp -r "$(python_include)" "$shim"
# Debian's pyconfig.h only picks the architecture's own; take that one.
host_config="$shim/pyconfig.h"
multiarch="$(dirname "$(python_include)")/x86_64-linux-gnu/$(basename "$(python_include)")/pyconfig.h"
[ -f "$multiarch" ] && grep -q "multiarch" "$host_config" && host_config="$multiarch"
cp "$host_config" "$shim/pyconfig_linux.h"
"$py" - "$shim/pyconfig_linux.h" "$cxx" > "$shim/pyconfig.h" <<'EOF'
# The Linux configuration with what differs on 64-bit Windows, and without the headers that
# mingw-w64 does not have.
import os, re, subprocess, sys
linux, cxx = sys.argv[1], sys.argv[2]
out = subprocess.run([cxx, "-xc++", "-E", "-v", "-"], input="", capture_output=True, text=True).stderr
dirs, on = [], False
for line in out.splitlines():
    if line.startswith("#include <...>"): on = True; continue
    if line.startswith("End of search list"): break
    if on: dirs.append(line.strip())
def exists(stem):
    parts = stem.lower().split("_")
    names = ["_".join(parts)] + ["_".join(parts[:i]) + "/" + "_".join(parts[i:]) for i in range(1, len(parts))]
    return any(os.path.exists(os.path.join(d, n + ".h")) for d in dirs for n in names)
print('#include "pyconfig_linux.h"')
for name, value in [("SIZEOF_WCHAR_T", 2), ("SIZEOF_LONG", 4), ("SIZEOF_LONG_DOUBLE", 16), ("NT_THREADS", 1),
                    ("MS_WIN32", 1), ("MS_WIN64", 1), ("MS_WINDOWS", 1), ("HAVE_DECLSPEC_DLL", 1)]:
    print(f"#undef {name}\n#define {name} {value}")
print("#undef _POSIX_THREADS\n#undef HAVE_PTHREAD_H")
for m in re.finditer(r"^#define (HAVE_([A-Z0-9_]+)_H) 1", open(linux).read(), re.M):
    if not exists(m.group(2)):
        print(f"#undef {m.group(1)}")
EOF
pybind_inc=$("$py" -c 'import pybind11; print(pybind11.get_include())')
module_errors=0
# shellcheck disable=SC2046
printf '%s\n' $(git ls-files 'src/pytorvik/*.cpp' 2> /dev/null || find src/pytorvik -name '*.cpp') |
    xargs -P "$jobs" -I{} sh -c '"$0" -std=c++20 -fsyntax-only -Wall -Wextra -DNOMINMAX -DWIN32_LEAN_AND_MEAN -DTORVIK_VERSION=\"0\" \
        -Isrc/core -Isrc/pytorvik -I"$1" -I"$2" {} || { echo "FAILED: {}"; exit 1; }' "$cxx" "$shim" "$pybind_inc" ||
    module_errors=1
[ $module_errors = 0 ] && echo "all $(git ls-files 'src/pytorvik/*.cpp' | wc -l) sources compile for Windows"

# --- 2. the engine and its tests, built for Windows --------------------------------------------
echo "== the engine and its GoogleTest suite, cross-built with mingw-w64"
cmake -S . -B "$build/win" "${generator[@]}" -Wno-deprecated -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTORVIK_BUILD_MODULE=OFF -DTORVIK_BUILD_TESTS=ON -DTORVIK_WERROR=ON > /dev/null
cmake --build "$build/win" -j "$jobs" --target core_tests net_sim_tests

# --- 3. the tests, under wine ------------------------------------------------------------------
sim=${TORVIK_SIM:-}
if [ -z "$sim" ]; then sim=$(command -v torvik-sim || true); fi
if [ -z "$sim" ]; then
    echo "== building the Linux emulator (no torvik-sim found)"
    cmake -S . -B "$build/sim" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release -DTORVIK_BUILD_MODULE=OFF > /dev/null
    cmake --build "$build/sim" -j "$jobs" --target torvik-sim
    sim="$build/sim/sim/torvik-sim"
fi

# A prefix of our own, made afresh (console programs only: no Mono, no Gecko), and removed after.
WINEPREFIX=$(mktemp -d "${TMPDIR:-/tmp}/torvik-wine.XXXXXX")
export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
wineserver="$(dirname "$wine")/wineserver"
[ -x "$wineserver" ] || wineserver=$(command -v wineserver || echo true)
cleanup() {
    "$wineserver" -k 2> /dev/null || true
    rm -rf "$WINEPREFIX"
}
trap cleanup EXIT
"$wine" wineboot --init > /dev/null 2>&1 || true

# A wine run is bounded: under load wine has now and then stalled for good (every thread waiting on
# wineserver) in a suite that passes in seconds otherwise. A stalled run names the test it was in
# and is tried again; a failing test fails at once.
run_bounded() {
    local rc attempt log
    log=$(mktemp "${TMPDIR:-/tmp}/torvik-wine-run.XXXXXX")
    for attempt in 1 2 3; do
        rc=0
        timeout 120 "$@" > "$log" 2>&1 || rc=$?
        if [ $rc != 124 ]; then
            # The whole output when something failed; the tally otherwise.
            if [ $rc = 0 ]; then grep -E '^\[ *(PASSED|SKIPPED|FAILED) *\]|^\[=+\]' "$log" || true; else cat "$log"; fi
            rm -f "$log"
            return $rc
        fi
        echo "note: the wine run stalled for 120 s (attempt $attempt) in: $(grep '^\[ RUN' "$log" | tail -1)" >&2
        "$wineserver" -k 2> /dev/null || true
    done
    rm -f "$log"
    return 1
}

status=0
echo "== engine tests under wine ($("$wine" --version 2> /dev/null || echo wine))"
run_bounded "$wine" "$build/win/tests/core/core_tests.exe" || status=1
echo "== network client tests under wine, against the Linux emulator on loopback"
"$sim" --unit TorvikLanAnalog@127.0.3.40:7007 -- "$wine" "$build/win/tests/core/net_sim_tests.exe" --gtest_brief=1 || status=1

[ $module_errors = 0 ] || { echo "check-windows: module sources fail to compile for Windows" >&2; status=1; }
echo "check-windows: $([ $status = 0 ] && echo passed || echo FAILED) in $(( $(date +%s) - started )) s"
exit $status
