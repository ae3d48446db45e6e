#!/usr/bin/env bash
# Fuzzes for a bounded time: the engine's frame splitter and byte conversions (libFuzzer, built
# with AddressSanitizer and UBSan), then the module's conversion and check functions (atheris).
# A crash fails the run and leaves its reproducer in the output folder (crash-*, leak-*, oom-*),
# to be replayed with `$out/fuzz_wire FILE` or `python tests/fuzz/fuzz_convert.py FILE`.
#
#   bash tools/fuzz.sh [PYTHON]     PYTHON: an interpreter with pytorvik installed (default python3)
#
# Needs clang with libFuzzer (Debian: clang libclang-rt-14-dev) and, for the module, PyPI atheris.
# FUZZ_SECONDS (default 60) bounds each target, FUZZ_OUT (default build/fuzz) holds the corpora
# that grow from the seeds in tests/fuzz/corpus and the reproducers.
set -euo pipefail
cd "$(dirname "$0")/.."

py=${1:-python3}
secs=${FUZZ_SECONDS:-60}
out=${FUZZ_OUT:-build/fuzz}
cxx=${FUZZ_CXX:-$(command -v clang++ || command -v clang++-14)}
mkdir -p "$out/corpus-wire" "$out/corpus-convert"

"$cxx" -std=c++20 -O1 -g -fno-omit-frame-pointer -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -Isrc/core -Itests/core tests/fuzz/fuzz_wire.cpp src/core/wire/splitter.cpp src/core/stream/ai_decoder.cpp \
    -o "$out/fuzz_wire"

status=0
echo "== fuzz_wire: frame splitter against its model, byte conversions ($secs s)"
UBSAN_OPTIONS=print_stacktrace=1 "$out/fuzz_wire" -max_total_time="$secs" -print_final_stats=1 \
    -artifact_prefix="$out/" "$out/corpus-wire" tests/fuzz/corpus/wire 2>&1 | tail -n 30 || status=1

echo "== fuzz_convert: the module's conversions and checks ($secs s)"
"$py" tests/fuzz/fuzz_convert.py -max_total_time="$secs" -print_final_stats=1 -rss_limit_mb=4096 \
    -artifact_prefix="$out/" "$out/corpus-convert" tests/fuzz/corpus/convert 2>&1 | tail -n 30 || status=1

if [ "$status" != 0 ]; then
    echo "fuzzing found a crash; reproducers:" >&2
    ls -1 "$out"/crash-* "$out"/leak-* "$out"/oom-* "$out"/timeout-* 2> /dev/null >&2 || true
fi
exit "$status"
