# shellcheck shell=bash
# What the whole-program benchmarks share besides the simulated world
# (world.sh): where the build is, building it on request, statistics, the
# machine's load, and the summary lines bench/run_all.sh collects.
#
# BUILD_DIR picks the build (default build-release in the repository); with
# BENCH_BUILD=1 (or a script's --build) it is configured as Release and the
# benchmarks' targets are built in it first.

bench_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
bench_build_dir=${BUILD_DIR:-$bench_root/build-release}
bench_targets=(kelvane-client kelvane-vehicle-sim kelvane-backend-sim bench_update_floor bench_update_trigger
               bench_startup_probe bench_hostile_broker bench_delay_proxy)

# shellcheck source=world.sh
source "$bench_root/bench/lib/world.sh"

bench_die() {
    echo "$(basename "$0"): $1" >&2
    if [[ -n "${2:-}" && -f "$2" ]]; then
        echo "--- last lines of $2:" >&2
        tail -n 25 "$2" >&2
    fi
    exit 1
}

# bench_build: configures (Release) and builds what the benchmarks run.
bench_build() {
    local generator=()
    command -v ninja >/dev/null 2>&1 && [[ ! -f "$bench_build_dir/Makefile" ]] && generator=(-G Ninja)
    echo "Building ${bench_targets[*]} in $bench_build_dir (Release)" >&2
    cmake -S "$bench_root" -B "$bench_build_dir" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$bench_build_dir" --parallel "$(nproc)" --target "${bench_targets[@]}" >/dev/null
}

# bench_prepare "$@": handles --build and --help (the caller's header comment,
# from line 2 to the first line that is not a comment) and finds the binaries.
bench_prepare() {
    local argument
    for argument in "$@"; do
        case $argument in
            --build) BENCH_BUILD=1 ;;
            -h | --help) awk 'NR > 1 && !/^#/ { exit } NR > 1' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        esac
    done
    [[ "${BENCH_BUILD:-0}" == 1 ]] && bench_build
    world_binaries "$bench_build_dir" ||
        bench_die "$world_missing is missing: build with --build (or BENCH_BUILD=1), or set BUILD_DIR"
    local type
    type=$(bench_build_type)
    [[ "$type" == Release ]] || echo "note: $bench_build_dir is a ${type:-unknown} build, not Release" >&2
}

bench_build_type() {
    sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$bench_build_dir/CMakeCache.txt" 2>/dev/null
}

# bench_workdir: KEEP_LOGS_DIR, or a new directory removed after a successful
# run. That one is on tmpfs by default (BENCH_TMPDIR): the vehicle simulator
# fsyncs its key store on every update, and a disk shared with other work
# makes that the largest and noisiest part of an update, which is not the
# client's.
bench_workdir() {
    if [[ -n "${KEEP_LOGS_DIR:-}" ]]; then
        world_workdir "$KEEP_LOGS_DIR"
        return
    fi
    local base=${BENCH_TMPDIR:-/dev/shm}
    [[ -d "$base" && -w "$base" ]] || base=/tmp
    world_remove_work=1
    world_workdir "$(mktemp -d "$base/kelvane-bench.XXXXXX")"
}

# bench_logs_note: where the logs are, when they are kept.
bench_logs_note() {
    [[ "${world_remove_work:-0}" == 1 ]] && echo "logs removed (KEEP_LOGS_DIR=DIR keeps them)" ||
        echo "logs in $logs"
}

# bench_build_reference OUT: the reference program (reference.c) linked with
# every shared library the client loads, so that it maps the same code.
bench_build_reference() {
    command -v cc >/dev/null || bench_die "a C compiler (cc) is needed for the reference program"
    local libraries
    mapfile -t libraries < <(ldd "$client_bin" | awk '$2 == "=>" && $3 ~ /^\// { print $3 }')
    cc -O2 -o "$1" "$bench_root/bench/lib/reference.c" -Wl,--no-as-needed "${libraries[@]}" -lpthread ||
        bench_die "building the reference program failed"
}

# Bus, broker and both simulators, and the client's configuration as deployed
# (connection state as deployed, keep-alive every 10 s).
bench_start_world() {
    world_start_dbus || bench_die "dbus-daemon did not start" "$logs/dbus-daemon.log"
    world_start_broker || bench_die "mosquitto did not start" "$logs/mosquitto.log"
    world_init_vehicle 200 || bench_die "vehicle init failed" "$logs/vehicle-init.log"
    world_start_vehicle || bench_die "vehicle simulator did not start" "$logs/vehicle.log"
    world_start_backend || bench_die "backend simulator did not start" "$logs/backend.log"
    world_write_client_config deployed 10000
}

# bench_start_world and the client, waited for until it is subscribed to the
# push topic. Sets client_log.
bench_start_world_with_client() {
    bench_start_world
    client_log=$logs/client.log
    world_start_client "$client_log"
    wait_for_line "$client_log" "All subscriptions and connections ready" 1 20 ||
        bench_die "the client did not get ready" "$client_log"
    # Sent with the broker link up, so a push from then on reaches the client.
    wait_for_line "$client_log" "Subscribed to topic TTVI-Kelvane-C003.CTzelkDlcInitiation, status=0" 1 20 ||
        bench_die "the client did not subscribe to the push topic" "$client_log"
}

bench_load() { cut -d' ' -f1-3 /proc/loadavg; }

# bench_stats [DECIMALS]: numbers on stdin -> "median p95 min max count"
# (nearest-rank p95; the median of an even count is the mean of the middle
# two), with DECIMALS places (default 1).
bench_stats() {
    sort -g | awk -v d="${1:-1}" '{ v[NR] = $1 }
        END {
            if (NR == 0) { print "nan nan nan nan 0"; exit }
            median = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
            rank = int(0.95 * NR); if (rank < 0.95 * NR) rank++
            f = "%." d "f "
            printf f f f f "%d\n", median, v[rank], v[1], v[NR], NR
        }'
}

# bench_verdict VALUE OP LIMIT: "ok" or "MISSED" (OP is < or <=).
bench_verdict() {
    awk -v v="$1" -v op="$2" -v l="$3" 'BEGIN { ok = op == "<" ? v < l : v <= l; print ok ? "ok" : "MISSED" }'
}

# bench_summary TEXT: one line for run_all.sh's summary.
bench_summary() { echo "SUMMARY $(basename "$(dirname "$0")"): $*"; }

bench_header() {
    echo "$1"
    echo "  $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, load average $(bench_load), build $bench_build_dir ($(bench_build_type))"
}
