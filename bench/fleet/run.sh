#!/usr/bin/env bash
# Fleet: N vehicles on one machine (each a kelvane-client with its own
# vehicle simulator and private dbus-daemon, configured as deployed), one
# backend simulator and one mosquitto broker, all on loopback. Reports what
# the fleet costs the backend and the broker:
#   - backend connections per vehicle while idle (over IDLE seconds, the
#     start-up's own connections counted apart);
#   - after a broker restart (down 2 s): the peak reconnect rate and the
#     times until 50 % and 99 % of the fleet have subscribed again;
#   - after one push to the whole fleet: the backend's peak request rate and
#     the time until every vehicle has sent its feedback;
#   - resident memory per vehicle: the client alone, and with its simulator.
#
#   bench/fleet/run.sh [--build] [--vehicles N] [--idle-seconds S]
#   N defaults to 100, S to 300. BUILD_DIR=DIR (default build-release),
#   KEEP_LOGS_DIR=DIR keeps every log.
#
# Rates are per second over 1 s windows, taken from the clients' log stamps
# (milliseconds) and the backend's event log; times count from the broker
# accepting connections again, or from just before the push is published.

# Variables such as work, logs, mqtt_port and backend_port come from
# bench/lib/world.sh; its functions run for one vehicle in a subshell that
# sets work (and world_client_id) to that vehicle's.
# shellcheck disable=SC2154,SC2030,SC2031,SC2034
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"

vehicles=100
idle_seconds=300
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
    case ${args[i]} in
        --vehicles) vehicles=${args[i + 1]:?--vehicles needs a number} ;;
        --idle-seconds) idle_seconds=${args[i + 1]:?--idle-seconds needs a number} ;;
    esac
done
[[ "$vehicles" =~ ^[1-9][0-9]*$ && "$idle_seconds" =~ ^[1-9][0-9]*$ ]] ||
    bench_die "--vehicles and --idle-seconds take whole numbers above 0"
bench_prepare "$@"

readonly kConnected="VIConnector: MQTT connected to"
readonly kSubscribed="Subscribed to topic TTVI-Kelvane-C003.CTzelkDlcInitiation, status=0"
readonly kFeedback="Status feedback sent successfully"
readonly kUpdated="DLC Update finished successfully."

bench_workdir
started_at=$(now_ms)
bench_header "Fleet: $vehicles vehicles, one backend simulator, one broker"

# --- the fleet's processes, stopped group by group (clients first) ----------

bus_pids=() vehicle_pids=() client_pids=()

stop_group() {  # PIDS...: SIGTERM to all, 10 s for all of them, then SIGKILL
    (($# > 0)) || return 0
    kill -TERM "$@" 2>/dev/null || true
    local deadline=$(($(now_ms) + 10000)) pid
    for pid in "$@"; do
        while kill -0 "$pid" 2>/dev/null && (($(now_ms) < deadline)); do sleep 0.05; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}

fleet_cleanup() {
    local status=$?
    set +e
    stop_group "${client_pids[@]}"
    stop_group "${vehicle_pids[@]}"
    stop_group "${bus_pids[@]}"
    (exit "$status")
    world_cleanup
}
trap fleet_cleanup EXIT

vehicle_dir() { echo "$work/vehicles/$1"; }

# all_logs NAME: that log of every vehicle.
all_logs() {
    local i
    for ((i = 1; i <= vehicles; i++)); do echo "$(vehicle_dir "$i")/$1"; done
}

# vehicles_with TEXT N: how many clients have logged TEXT at least N times.
vehicles_with() {
    local files
    mapfile -t files < <(all_logs client.log)
    grep -c -F -- "$1" "${files[@]}" 2>/dev/null | awk -F: -v n="$2" '$NF >= n { c++ } END { print c + 0 }'
}

# wait_for_fleet TEXT N TIMEOUT_S: until every client has logged TEXT N times.
wait_for_fleet() {
    local deadline=$(($(now_ms) + $3 * 1000))
    while (($(vehicles_with "$1" "$2") < vehicles)); do
        (($(now_ms) < deadline)) || return 1
        sleep 0.5
    done
}

# stamps TEXT AFTER_MS: epoch ms of every client line holding TEXT after AFTER_MS, sorted.
stamps() {
    local files
    mapfile -t files < <(all_logs client.log)
    grep -h -F -- "$1" "${files[@]}" 2>/dev/null | cut -d' ' -f1 | date -u -f - +%s%3N |
        awk -v a="$2" '$1 > a' | sort -n
}

# peak_rate [WINDOW_MS]: epoch ms on stdin (sorted) -> the largest count
# within any window (default 1000 ms), as a rate per second.
peak_rate() {
    awk -v w="${1:-1000}" '{ t[NR] = $1 } END {
        j = 1; best = 0
        for (i = 1; i <= NR; i++) { while (t[i] - t[j] >= w) j++; if (i - j + 1 > best) best = i - j + 1 }
        printf "%.0f\n", best * 1000 / w }'
}

# quantile_after Q T0: epoch ms on stdin (sorted) -> seconds from T0 until a
# share Q of the fleet (not of the lines) is reached.
quantile_after() {
    awk -v q="$1" -v t0="$2" -v n="$vehicles" '{ t[NR] = $1 } END {
        k = int(q * n); if (k < q * n) k++
        if (k > NR) { print "nan"; exit }
        printf "%.2f\n", (t[k] - t0) / 1000 }'
}

backend_connections() {
    local answer
    answer=$(exec 3<>"/dev/tcp/127.0.0.1/$backend_port" &&
        printf 'GET /admin/status HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n' >&3 &&
        cat <&3) || return 1
    grep -o '"connections":[0-9]*' <<<"$answer" | cut -d: -f2
}

# --- start-up ---------------------------------------------------------------

world_start_broker || bench_die "mosquitto did not start" "$logs/mosquitto.log"
world_start_backend || bench_die "backend simulator did not start" "$logs/backend.log"
connections_at_start=$(backend_connections) || bench_die "the backend's status did not answer"

t_start=$(now_ms)
for ((i = 1; i <= vehicles; i++)); do
    dir=$(vehicle_dir "$i")
    mkdir -p "$dir"
    dbus-daemon --session --address="unix:path=$dir/bus" --nofork --nosyslog >"$dir/dbus.log" 2>&1 &
    bus_pids+=($!)
    # Valid for more than a year: no update at start, only the push starts one.
    "$vehicle_bin" init --state "$dir/vehicle" --vin "$(printf 'WKV0FLEET%08d' "$i")" \
        --base-cert-days 1000 --secret "$world_secret" >"$dir/vehicle-init.log" 2>&1 ||
        bench_die "vehicle $i: init failed" "$dir/vehicle-init.log"
done
for ((i = 1; i <= vehicles; i++)); do
    dir=$(vehicle_dir "$i")
    for _ in $(seq 100); do [[ -S "$dir/bus" ]] && break; sleep 0.05; done
    [[ -S "$dir/bus" ]] || bench_die "vehicle $i: dbus-daemon did not start" "$dir/dbus.log"
    KELVANE_DBUS_ADDRESS="unix:path=$dir/bus" "$vehicle_bin" run --state "$dir/vehicle" \
        >"$dir/vehicle.log" 2>&1 &
    vehicle_pids+=($!)
    # The configuration as deployed, the broker and backend started above.
    (work=$dir world_client_id=$(printf 'kelvane-fleet-%04d' "$i") &&
        world_write_client_config deployed 10000)
done
for ((i = 1; i <= vehicles; i++)); do
    dir=$(vehicle_dir "$i")
    for _ in $(seq 100); do
        [[ "$("$vehicle_bin" status --state "$dir/vehicle" 2>/dev/null)" == *'"running":true'* ]] && break
        sleep 0.05
    done
    (
        work=$dir
        world_client_environment
        export KELVANE_DBUS_ADDRESS="unix:path=$dir/bus"
        exec "$client_bin"
    ) >"$dir/client.log" 2>&1 &
    client_pids+=($!)
done
wait_for_fleet "$kSubscribed" 1 120 ||
    bench_die "only $(vehicles_with "$kSubscribed" 1) of $vehicles clients subscribed within 120 s"
t_ready=$(now_ms)
start_seconds=$(awk -v a="$t_start" -v b="$t_ready" 'BEGIN { printf "%.1f", (b - a) / 1000 }')
echo "  $vehicles vehicles started and subscribed in $start_seconds s"

# --- idle -------------------------------------------------------------------

connections_idle_from=$(backend_connections) || bench_die "the backend's status did not answer"
echo "  idle for $idle_seconds s"
sleep "$idle_seconds"
connections_idle_to=$(backend_connections) || bench_die "the backend's status did not answer"
# Each status request is a connection of its own.
startup_connections=$((connections_idle_from - connections_at_start - 1))
idle_connections=$((connections_idle_to - connections_idle_from - 1))
idle_per_hour=$(awk -v c="$idle_connections" -v n="$vehicles" -v s="$idle_seconds" \
    'BEGIN { printf "%.2f", c / n * 3600 / s }')
startup_per_vehicle=$(awk -v c="$startup_connections" -v n="$vehicles" 'BEGIN { printf "%.2f", c / n }')
first_minutes=$(awk -v c="$((startup_connections + idle_connections))" -v n="$vehicles" \
    'BEGIN { printf "%.2f", c / n }')

# Memory while idle: VmRSS (each process's resident pages, shared ones
# included) and PSS (shared pages split among the processes that map them,
# so that a sum over the fleet is what the machine holds).
memory_of() {  # PID -> "rss_kB pss_kB"
    local rss pss
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null)
    pss=$(awk '/^Pss:/ { print $2 }' "/proc/$1/smaps_rollup" 2>/dev/null)
    echo "${rss:-0} ${pss:-0}"
}
: >"$work/memory"
for ((i = 0; i < vehicles; i++)); do
    echo "$(memory_of "${client_pids[i]}") $(memory_of "${vehicle_pids[i]}") $(memory_of "${bus_pids[i]}")" >>"$work/memory"
done
# Columns: client rss pss, simulator rss pss, bus rss pss.
read -r client_rss client_pss sim_rss sim_pss bus_rss bus_pss < <(awk '
    { for (c = 1; c <= 6; c++) s[c] += $c } END { for (c = 1; c <= 6; c++) printf "%d ", s[c] / NR; print "" }' "$work/memory")
client_rss_median=$(cut -d' ' -f1 "$work/memory" | bench_stats | cut -d' ' -f1)

# --- broker restart ---------------------------------------------------------

broker_pid=${pids[0]}
world_stop "$broker_pid" || true
t_down=$(now_ms)
sleep 2
mosquitto -c "$work/mosquitto.conf" >>"$logs/mosquitto.log" 2>&1 &
world_track $!
for _ in $(seq 200); do (exec 3<>"/dev/tcp/127.0.0.1/$mqtt_port") 2>/dev/null && break; sleep 0.01; done
t_up=$(now_ms)
# The probe above is a connection too; it left at once.
wait_for_fleet "$kSubscribed" 2 180 ||
    bench_die "only $(vehicles_with "$kSubscribed" 2) of $vehicles clients subscribed again within 180 s"
stamps "$kConnected" "$t_down" >"$work/reconnects"
stamps "$kSubscribed" "$t_down" >"$work/resubscribed"
reconnect_peak=$(peak_rate <"$work/reconnects")
reconnect_peak_100=$(peak_rate 100 <"$work/reconnects")
reconnects=$(wc -l <"$work/reconnects")
resub_50=$(quantile_after 0.5 "$t_up" <"$work/resubscribed")
resub_99=$(quantile_after 0.99 "$t_up" <"$work/resubscribed")
resub_100=$(quantile_after 1 "$t_up" <"$work/resubscribed")

# --- one push to the whole fleet --------------------------------------------

events_before=$(wc -l <"$logs/backend-events.jsonl")
t_push=$(now_ms)
"$backend_bin" push --mqtt-port "$mqtt_port" >>"$logs/push.log" 2>&1 ||
    bench_die "the push was not published" "$logs/push.log"
wait_for_fleet "$kFeedback" 1 300 ||
    bench_die "only $(vehicles_with "$kFeedback" 1) of $vehicles clients sent feedback within 300 s"
updated=$(vehicles_with "$kUpdated" 1)
stamps "$kFeedback" "$t_push" >"$work/feedback"
feedback_50=$(quantile_after 0.5 "$t_push" <"$work/feedback")
feedback_100=$(quantile_after 1 "$t_push" <"$work/feedback")
tail -n +"$((events_before + 1))" "$logs/backend-events.jsonl" |
    grep -E '"exchange":"(challenge|download|feedback)"' | grep -o '"time":"[^"]*"' | cut -d'"' -f4 |
    date -u -f - +%s%3N | sort -n >"$work/requests"
requests=$(wc -l <"$work/requests")
request_peak=$(peak_rate <"$work/requests")
request_peak_100=$(peak_rate 100 <"$work/requests")
request_span=$(awk 'NR == 1 { a = $1 } { b = $1 } END { printf "%.2f", (b - a) / 1000 }' "$work/requests")
read -r client_hwm_max < <(for pid in "${client_pids[@]}"; do
    awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status" 2>/dev/null
done | sort -n | tail -1)
backend_rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$backend_pid/status")
broker_rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/${pids[-1]}/status")

# --- figures ----------------------------------------------------------------

per_million() { awk -v r="$1" -v n="$vehicles" 'BEGIN { printf "%.0f", r * 1000000 / n }'; }
echo
echo "  Backend connections while idle (configuration as deployed)"
printf '    %-52s %s\n' "start-up, per vehicle" "$startup_per_vehicle"
printf '    %-52s %s (%d in %d s; the schedule: about 6, one every 8 to 12 min)\n' \
    "idle, per vehicle per hour" "$idle_per_hour" "$idle_connections" "$idle_seconds"
printf '    %-52s %s   goal <= 2: %s\n' "per vehicle from start to the end of the idle window" \
    "$first_minutes" "$(bench_verdict "$first_minutes" "<=" 2)"
echo "  Broker restart (down 2 s)"
printf '    %-52s %s/s, over 100 ms %s/s (%d reconnections)\n' "peak reconnect rate over 1 s" \
    "$reconnect_peak" "$reconnect_peak_100" "$reconnects"
printf '    %-52s %s s / %s s (all: %s s)\n' "subscribed again: 50 % / 99 % of the fleet" "$resub_50" "$resub_99" "$resub_100"
echo "  One push to the whole fleet"
printf '    %-52s %s/s, over 100 ms %s/s (%d requests in %s s)\n' "peak backend request rate over 1 s" \
    "$request_peak" "$request_peak_100" "$requests" "$request_span"
printf '    %-52s %s s / %s s (%d of %d updated)\n' "feedback sent: 50 % / all of the fleet" "$feedback_50" "$feedback_100" "$updated" "$vehicles"
echo "  Resident memory per vehicle while idle (kB; mean)"
printf '    %-52s %s (median %s), PSS %s\n' "client: VmRSS" "$client_rss" "$client_rss_median" "$client_pss"
printf '    %-52s %s, PSS %s\n' "client and vehicle simulator: VmRSS" "$((client_rss + sim_rss))" "$((client_pss + sim_pss))"
printf '    %-52s %s, PSS %s\n' "its private dbus-daemon: VmRSS" "$bus_rss" "$bus_pss"
printf '    %-52s %s\n' "client peak (VmHWM, largest)" "$client_hwm_max"
printf '    %-52s %s / %s\n' "backend simulator / broker VmRSS after the push" "$backend_rss" "$broker_rss"
echo "  For one million vehicles (the rates above times 1e6/$vehicles)"
printf '    %-52s %s/s measured, about 1700/s by the schedule\n' "backend connections while idle" \
    "$(awk -v h="$idle_per_hour" 'BEGIN { printf "%.0f", h * 1000000 / 3600 }')"
printf '    %-52s %s/s\n' "broker reconnections after a restart, peak" "$(per_million "$reconnect_peak")"
printf '    %-52s %s/s\n' "backend requests after a fleet-wide push, peak" "$(per_million "$request_peak")"
total_seconds=$(awk -v a="$started_at" -v b="$(now_ms)" 'BEGIN { printf "%.0f", (b - a) / 1000 }')
echo "  run took $total_seconds s; load average now $(bench_load); $(bench_logs_note)"
bench_summary "N=$vehicles: idle $idle_per_hour backend connections/vehicle/h ($first_minutes from start to" \
    "$idle_seconds s idle, $(bench_verdict "$first_minutes" "<=" 2)); broker restart peak $reconnect_peak/s," \
    "50 %/99 % resubscribed $resub_50/$resub_99 s; push peak $request_peak requests/s, all feedback" \
    "$feedback_100 s; client $client_rss kB RSS ($client_pss PSS), with simulator $((client_rss + sim_rss)) kB"
