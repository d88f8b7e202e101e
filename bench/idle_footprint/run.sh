#!/usr/bin/env bash
# Idle footprint: kelvane-client after "All subscriptions and connections
# ready" (configured as deployed: backend probe every 10 min, MQTT keep-alive
# 30 s, supervision keep-alive every 10 s) over a window of SECONDS (default
# 60): resident and anonymous memory, threads, CPU time and context switches
# of all threads, against a reference program built in this run that loads
# the same shared libraries and sleeps in as many threads. Each thread's
# share is listed by the kernel function it sleeps in.
#
#   bench/idle_footprint/run.sh [--build] [--seconds N]
#   BUILD_DIR=DIR (default build-release), KEEP_LOGS_DIR=DIR keeps the logs.

# Variables such as work, logs and client_pid come from bench/lib/world.sh.
# shellcheck disable=SC2154
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"

seconds=60
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
    [[ "${args[i]}" == --seconds ]] && seconds=${args[i + 1]:?--seconds needs a number}
done
bench_prepare "$@"

bench_workdir
bench_start_world_with_client

# The reference: the client's shared libraries, as many threads.
threads=$(awk '/^Threads:/ { print $2 }' "/proc/$client_pid/status")
bench_build_reference "$work/reference"
"$work/reference" "$threads" >"$logs/reference.out" 2>&1 &
reference_pid=$!
world_track "$reference_pid"
wait_for_line "$logs/reference.out" ready 1 10 || bench_die "the reference did not start" "$logs/reference.out"

# snapshot PID: "cpu UTIME+STIME_TICKS" and per thread "TID VOLUNTARY INVOLUNTARY CPU_NS WCHAN".
snapshot() {
    local task
    echo "cpu $(awk '{ print $14 + $15 }' "/proc/$1/stat")"
    for task in /proc/"$1"/task/*; do
        echo "${task##*/} $(awk '/^voluntary_ctxt_switches/ { v = $2 } /^nonvoluntary_ctxt_switches/ { n = $2 }
            END { print v, n }' "$task/status") $(cut -d' ' -f1 "$task/schedstat") $(cat "$task/wchan" 2>/dev/null || echo -)"
    done
}
memory() { awk -v key="$2" '$1 == key ":" { print $2 }' "/proc/$1/status"; }

bench_header "Idle footprint over $seconds s after \"All subscriptions and connections ready\""
# Let the start-up's last answers (probe, SUBACK) pass.
sleep 1
snapshot "$client_pid" >"$work/client.before"
snapshot "$reference_pid" >"$work/reference.before"
perf_ok=0
if command -v perf >/dev/null 2>&1 &&
    perf stat -e context-switches -x, -o "$work/perf.check" -- true >/dev/null 2>&1; then
    perf_ok=1
    perf stat -e context-switches,task-clock -x, -o "$work/client.perf" -p "$client_pid" -- sleep "$seconds" &
    perf_client=$!
    perf stat -e context-switches,task-clock -x, -o "$work/reference.perf" -p "$reference_pid" -- sleep "$seconds" &
    perf_reference=$!
    wait "$perf_client" "$perf_reference" || perf_ok=0
else
    sleep "$seconds"
fi
snapshot "$client_pid" >"$work/client.after"
snapshot "$reference_pid" >"$work/reference.after"
kill -0 "$client_pid" 2>/dev/null || bench_die "the client ended during the window" "$client_log"

tick_ms=$(awk -v hz="$(getconf CLK_TCK)" 'BEGIN { print 1000 / hz }')
# totals BEFORE AFTER: "cpu_ms_ticks cpu_ms_sched voluntary involuntary threads_came_or_went"
totals() {
    awk -v tick="$tick_ms" '
        FNR == 1 { if (FILENAME == ARGV[1]) c0 = $2; else c1 = $2; next }
        FILENAME == ARGV[1] { v0[$1] = $2; n0[$1] = $3; s0[$1] = $4; next }
        { seen[$1] = 1; if (!($1 in v0)) changed = 1
          v += $2 - v0[$1]; n += $3 - n0[$1]; s += $4 - s0[$1] }
        END { for (t in v0) if (!(t in seen)) changed = 1
              printf "%.0f %.2f %d %d %d\n", (c1 - c0) * tick, s / 1e6, v, n, changed }' "$1" "$2"
}
read -r c_ticks c_sched c_vol c_invol c_changed <<<"$(totals "$work/client.before" "$work/client.after")"
read -r r_ticks r_sched r_vol r_invol _ <<<"$(totals "$work/reference.before" "$work/reference.after")"
per_minute() { awk -v v="$1" -v s="$seconds" 'BEGIN { printf "%.1f", v * 60 / s }'; }

c_rss=$(memory "$client_pid" VmRSS) r_rss=$(memory "$reference_pid" VmRSS)
c_anon=$(memory "$client_pid" RssAnon)
rss_ratio=$(awk -v c="$c_rss" -v r="$r_rss" 'BEGIN { printf "%.2f", c / r }')
c_cpu_min=$(per_minute "$c_sched")
c_switches_min=$(per_minute $((c_vol + c_invol)))

echo
printf '  %-34s %14s %14s\n' "" kelvane-client reference
printf '  %-34s %14s %14s\n' "threads" "$threads" "$(memory "$reference_pid" Threads)"
for key in VmRSS RssAnon RssFile VmHWM; do
    printf '  %-34s %11s kB %11s kB\n' "$key" "$(memory "$client_pid" "$key")" "$(memory "$reference_pid" "$key")"
done
printf '  %-34s %11s ms %11s ms\n' "CPU, utime+stime (tick $tick_ms ms)" "$c_ticks" "$r_ticks"
printf '  %-34s %11s ms %11s ms\n' "CPU, scheduler (ns exact)" "$c_sched" "$r_sched"
printf '  %-34s %14s %14s\n' "context switches, voluntary" "$c_vol" "$r_vol"
printf '  %-34s %14s %14s\n' "context switches, involuntary" "$c_invol" "$r_invol"
if [[ $perf_ok == 1 ]]; then
    perf_count() { awk -F, -v e="$2" '$3 == e { printf "%.0f", $1 }' "$1"; }
    printf '  %-34s %14s %14s\n' "context switches, perf stat" \
        "$(perf_count "$work/client.perf" context-switches)" "$(perf_count "$work/reference.perf" context-switches)"
fi
[[ $c_changed == 1 ]] && echo "  note: client threads came or went during the window; their switches are not counted above"
echo
echo "  client threads over the window (TID, sleeping in, context switches, CPU ms):"
awk 'FNR == 1 { next } FILENAME == ARGV[1] { v[$1] = $2 + $3; s[$1] = $4; next }
    { printf "    %-8s %-40s %6d %8.2f\n", $1, $5, $2 + $3 - v[$1], ($4 - s[$1]) / 1e6 }' \
    "$work/client.before" "$work/client.after"
echo
printf '  goals: resident <= 1.3 x reference: %s (%s), anonymous < 3 MiB: %s kB (%s),\n' \
    "$rss_ratio" "$(bench_verdict "$rss_ratio" "<=" 1.3)" "$c_anon" "$(bench_verdict "$c_anon" "<" 3072)"
printf '         CPU < 20 ms/min: %s (%s), context switches < 120/min: %s (%s)\n' \
    "$c_cpu_min" "$(bench_verdict "$c_cpu_min" "<" 20)" "$c_switches_min" "$(bench_verdict "$c_switches_min" "<" 120)"
echo "  load average now $(bench_load); $(bench_logs_note)"
bench_summary "resident $c_rss kB (reference $r_rss kB, ratio $rss_ratio), anonymous $c_anon kB," \
    "CPU $c_cpu_min ms/min, context switches $c_switches_min/min, $threads threads"
