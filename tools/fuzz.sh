#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (coverage + AddressSanitizer +
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs each one for a bounded
# time over a scratch copy of its seed corpus (ctest -L fuzz).
#
#   tools/fuzz.sh          15 seconds per fuzzer
#   tools/fuzz.sh 300      five minutes per fuzzer
#
# Environment: KELVANE_FUZZ_BUILD_DIR (default build-fuzz/), KELVANE_FUZZ_JOBS
# (fuzzers run at once and build jobs, default 2). A crash leaves its input in
# <build dir>/tests/fuzz/<fuzzer>-run/artifacts/; the failing test prints the
# command that reproduces it.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

case "${1:-}" in
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
esac
seconds=${1:-15}
if [[ ! "$seconds" =~ ^[1-9][0-9]*$ || $# -gt 1 ]]; then
    echo "fuzz.sh: usage: tools/fuzz.sh [seconds per fuzzer] (see --help)" >&2
    exit 2
fi
build_dir=${KELVANE_FUZZ_BUILD_DIR:-$root/build-fuzz}
jobs=${KELVANE_FUZZ_JOBS:-2}

if ! command -v clang++ >/dev/null 2>&1; then
    echo "fuzz.sh: clang++ not found; tools/bootstrap.sh installs it" >&2
    exit 1
fi
cache="$build_dir/CMakeCache.txt"
if [[ -f "$cache" ]] && ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++' "$cache"; then
    echo "fuzz.sh: $build_dir was configured with another compiler; remove it or set KELVANE_FUZZ_BUILD_DIR" >&2
    exit 1
fi

generator=()
command -v ninja >/dev/null 2>&1 && [[ ! -f "$build_dir/Makefile" ]] && generator=(-G Ninja)
CC=clang CXX=clang++ cmake -S "$root" -B "$build_dir" "${generator[@]}" \
    -DKELVANE_BUILD_FUZZERS=ON -DKELVANE_FUZZ_SECONDS="$seconds" \
    -DKELVANE_BUILD_BENCH=OFF -DKELVANE_BUILD_SIMULATORS=OFF >/dev/null
cmake --build "$build_dir" --target kelvane_fuzzers --parallel "$jobs"

status=0
ctest --test-dir "$build_dir" -L fuzz --output-on-failure --parallel "$jobs" || status=$?

# Where each fuzzer got to: executions, coverage (cov: edges, ft: features), corpus.
for log in "$build_dir"/tests/fuzz/*-run/fuzz.log; do
    [[ -f "$log" ]] || continue
    name=$(basename "$(dirname "$log")" -run)
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)
    printf '%-18s %s\n' "$name" "${done_line:-(no summary: see $log)}"
done
exit "$status"
