#!/usr/bin/env bash
# Start-up: from process start (just before the fork) to the client's
# "Kelvane Client Started", "Kelvane Client Ready" and "All subscriptions and
# connections ready" log lines, RUNS times (default 10) with the simulators,
# the bus and the broker up; the client is stopped with SIGTERM after each
# run. For context, the same probe starts a reference program that only
# loads the client's shared libraries, as often.
#
#   bench/startup/run.sh [--build] [--runs N]
#   BUILD_DIR=DIR (default build-release), KEEP_LOGS_DIR=DIR keeps the logs.

# Variables such as work, logs and client_pid come from bench/lib/world.sh.
# shellcheck disable=SC2154
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"

runs=10
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
    [[ "${args[i]}" == --runs ]] && runs=${args[i + 1]:?--runs needs a number}
done
bench_prepare "$@"
probe_bin=$bench_build_dir/bench/startup/bench_startup_probe
[[ -x "$probe_bin" ]] || bench_die "$probe_bin is missing: build with --build"

readonly kStarted="Kelvane Client Started"
readonly kReady="Kelvane Client Ready"
readonly kAllReady="All subscriptions and connections ready"

bench_workdir
bench_start_world
world_client_environment
bench_build_reference "$work/reference"

bench_header "Start-up: process start to the client's log lines, $runs runs"
results=$work/results
mkdir -p "$results"
# One unrecorded run of each first: the page cache holds the binaries afterwards.
for ((i = 0; i <= runs; i++)); do
    log=$logs/client-$i.log
    read -r start _ status < <("$probe_bin" "$log" "$kAllReady" 20000 "$client_bin") ||
        bench_die "run $i: the client did not get ready" "$log"
    [[ "$status" == 0 ]] || bench_die "run $i: the client's exit status was $status" "$log"
    read -r ref_start ref_seen ref_status < <("$probe_bin" "$logs/reference-$i.out" ready 20000 \
        "$work/reference" 1) || bench_die "run $i: the reference did not start" "$logs/reference-$i.out"
    [[ "$ref_status" == 0 ]] || bench_die "run $i: the reference's exit status was $ref_status"
    ((i == 0)) && continue
    # Whole milliseconds like the log's stamps, so that rounding does not bias the difference.
    start=${start%.*}
    for line in "$kStarted" "$kReady" "$kAllReady"; do
        echo $(( $(log_epoch_ms "$log" "$line" 1) - start ))
    done | paste -sd' ' >>"$results/client"
    awk -v a="$ref_start" -v b="$ref_seen" 'BEGIN { printf "%.3f\n", b - a }' >>"$results/reference"
done

echo
printf '  %-44s %8s %8s %8s %8s %4s\n' "(ms)" median p95 min max n
row() {
    local median p95 min max n
    read -r median p95 min max n <<<"$2"
    printf '  %-44s %8.1f %8.1f %8.1f %8.1f %4d\n' "$1" "$median" "$p95" "$min" "$max" "$n"
}
row "to \"$kStarted\"" "$(cut -d' ' -f1 "$results/client" | bench_stats)"
ready=$(cut -d' ' -f2 "$results/client" | bench_stats)
row "to \"$kReady\"" "$ready"
row "to \"$kAllReady\"" "$(cut -d' ' -f3 "$results/client" | bench_stats)"
reference=$(bench_stats <"$results/reference")
row "reference (same libraries) to \"ready\" seen" "$reference"
ready_median=${ready%% *}
echo
echo "  goal: \"$kReady\" median < 100 ms: $ready_median ms ($(bench_verdict "$ready_median" "<" 100))"
echo "  load average now $(bench_load); $(bench_logs_note)"
bench_summary "\"$kReady\" median $ready_median ms, p95 $(cut -d' ' -f2 <<<"$ready") ms" \
    "(reference start ${reference%% *} ms)"
