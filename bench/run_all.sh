#!/usr/bin/env bash
# Runs the whole-program benchmarks one after the other and prints their
# figures and a summary: update latency, the update over a slow link, idle
# footprint, start-up, binary size, peak memory under an oversized push. Every
# one starts its own bus, broker and simulators on loopback. The fleet
# (bench/fleet/run.sh, several minutes) runs on its own.
#
#   bench/run_all.sh [--build] [--quick]
#     --build   configure BUILD_DIR as Release and build what they run first
#     --quick   fewer runs and a 20 s idle window (a smoke test, not figures)
#   BUILD_DIR=DIR (default build-release); BENCH_TMPDIR=DIR where their
#   working directories go (default /dev/shm).
#
# The micro-benchmarks (bench/base64, http, mqtt, tee) are Google Benchmark
# programs in the build tree and are not run from here.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
quick=0
for argument in "$@"; do
    case $argument in
        --build) export BENCH_BUILD=1 ;;
        --quick) quick=1 ;;
        -h | --help) awk 'NR > 1 && !/^#/ { exit } NR > 1' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "run_all.sh: unknown argument '$argument' (see --help)" >&2; exit 2 ;;
    esac
done

benchmarks=(update_latency slow_link idle_footprint startup binary_size oversized_push)
options() {  # NAME: its options under --quick
    [[ $quick == 1 ]] || return 0
    case $1 in
        update_latency) echo --runs 5 ;;
        slow_link) echo --runs 3 ;;
        idle_footprint) echo --seconds 20 ;;
        startup) echo --runs 3 ;;
        oversized_push) echo --mib 16 ;;
    esac
}

summary=()
failed=()
for name in "${benchmarks[@]}"; do
    echo "=== $name"
    output=$(mktemp)
    read -ra arguments <<<"$(options "$name")"
    if "$here/$name/run.sh" "${arguments[@]}" 2>&1 | tee "$output"; then
        mapfile -t -O "${#summary[@]}" summary < <(sed -n 's/^SUMMARY //p' "$output")
    else
        failed+=("$name")
    fi
    rm -f "$output"
    # Built once is enough.
    export BENCH_BUILD=0
    echo
done

echo "=== Summary ($(date -u '+%Y-%m-%d %H:%M UTC'), load average $(cut -d' ' -f1-3 /proc/loadavg))"
for line in "${summary[@]}"; do echo "  $line"; done
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "  FAILED: ${failed[*]}"
    exit 1
fi
