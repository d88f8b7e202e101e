#!/usr/bin/env bash
# Oversized push: kelvane-client's peak resident memory (VmHWM) when a broker
# that ignores the client's maximum packet size sends a message of MIB MiB
# (default 100) with QoS 1 and an ordinary push behind it, over plain TCP and
# over TLS; the push behind it must update. The reference in the same run: the
# same story with a 1 KiB message. Goal: under 24 MiB with the large message.
#
#   bench/oversized_push/run.sh [--build] [--mib N]
#   BUILD_DIR=DIR (default build-release), KEEP_LOGS_DIR=DIR keeps the logs.

# Variables such as work, logs and client_pid come from bench/lib/world.sh,
# which also reads mqtt_port.
# shellcheck disable=SC2154,SC2034
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"

mib=100
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
    [[ "${args[i]}" == --mib ]] && mib=${args[i + 1]:?--mib needs a number}
done
bench_prepare "$@"
broker_bin=$bench_build_dir/bench/oversized_push/bench_hostile_broker
[[ -x "$broker_bin" ]] || bench_die "$broker_bin is missing: build with --build (or BENCH_BUILD=1)"
goal_kib=$((24 * 1024))

bench_workdir
world_start_dbus || bench_die "dbus-daemon did not start" "$logs/dbus-daemon.log"
world_make_tls || bench_die "making the TLS files failed" "$logs/tls.log"
world_init_vehicle 200 || bench_die "vehicle init failed" "$logs/vehicle-init.log"
world_start_vehicle || bench_die "vehicle simulator did not start" "$logs/vehicle.log"
mqtt_port=$(free_port)  # the backend's own pushes are not used here
world_start_backend || bench_die "backend simulator did not start" "$logs/backend.log"

# peak MODE BYTES: the client's VmHWM in KiB once the push behind a BYTES
# message has updated, with the hostile broker in MODE (plain or tls).
peak() {
    local mode=$1 bytes=$2 name="$1-$2" tls=() broker_pid hwm
    rm -f "$work/broker.port"
    [[ $mode == tls ]] && tls=(--cert "$work/tls/server.pem" --key "$work/tls/server.key")
    "$broker_bin" --port-file "$work/broker.port" --payload-bytes "$bytes" "${tls[@]}" \
        >"$logs/broker-$name.log" 2>&1 &
    broker_pid=$!
    world_track "$broker_pid"
    for _ in $(seq 100); do [[ -s "$work/broker.port" ]] && break; sleep 0.05; done
    [[ -s "$work/broker.port" ]] || bench_die "the hostile broker did not start" "$logs/broker-$name.log"
    mqtt_port=$(cat "$work/broker.port")
    world_write_client_config 5000 10000
    [[ $mode == tls ]] && sed -i "s|^port = .*|&\ntls_ca_file = $work/tls/ca.pem|" "$work/vi-connector.ini"
    world_start_client "$logs/client-$name.log"
    wait_for_line "$logs/client-$name.log" "DLC Update finished successfully" 1 120 ||
        bench_die "the push behind the $bytes byte message did not update ($mode)" "$logs/client-$name.log"
    hwm=$(awk '$1 == "VmHWM:" { print $2 }' "/proc/$client_pid/status")
    world_stop_client >/dev/null || true
    world_stop "$broker_pid" || true
    echo "$hwm"
}

bench_header "Peak resident memory of the client when a broker ignoring its bound sends a $mib MiB message"
declare -A result
for mode in plain tls; do
    result[$mode-ref]=$(peak "$mode" 1024)
    result[$mode-big]=$(peak "$mode" $((mib * 1024 * 1024)))
    printf '  %-5s  1 KiB message: %6d KiB   %d MiB message: %6d KiB   (%+d KiB)\n' "$mode" \
        "${result[$mode-ref]}" "$mib" "${result[$mode-big]}" "$((result[$mode-big] - result[$mode-ref]))"
done
verdict=ok
for mode in plain tls; do
    [[ $(bench_verdict "${result[$mode-big]}" "<" "$goal_kib") == ok ]] || verdict=MISSED
done
echo "  goal: under $goal_kib KiB with the $mib MiB message: $verdict; $(bench_logs_note)"
bench_summary "peak RSS with a $mib MiB message: plain ${result[plain-big]} KiB, TLS ${result[tls-big]} KiB (1 KiB message: ${result[plain-ref]}, ${result[tls-ref]} KiB); goal < 24 MiB: $verdict"
