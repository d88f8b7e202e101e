#!/usr/bin/env bash
# Shows kelvane-client doing real key updates on this machine: a private D-Bus,
# an MQTT broker, the vehicle and backend simulators and the real client, all
# on loopback. Ignition on updates an expiring certificate, ignition off/on
# finds it valid, a backend push updates again.
#
#   tools/demo.sh               bootstrap, build, run the demo
#   tools/demo.sh --no-build    use the existing build/ as it is
#   KEEP_LOGS_DIR=DIR tools/demo.sh   put the logs there instead of a temporary directory
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
build=1
[[ "${1:-}" == "--no-build" ]] && build=0
[[ "${1:-}" == "-h" || "${1:-}" == "--help" ]] && { sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0; }

if [[ -t 1 ]]; then bold=$'\e[1m'; green=$'\e[32m'; red=$'\e[31m'; dim=$'\e[2m'; off=$'\e[0m'
else bold=""; green=""; red=""; dim=""; off=""; fi

if [[ $build -eq 1 ]]; then
    echo "${bold}Preparing${off}: installing packages if needed and building (this takes a while the first time)"
    "$root/tools/bootstrap.sh"
    generator=()
    command -v ninja >/dev/null 2>&1 && [[ ! -f "$build_dir/Makefile" ]] && generator=(-G Ninja)
    cmake -S "$root" -B "$build_dir" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build_dir" --parallel "$(nproc)" \
        --target kelvane-client kelvane-vehicle-sim kelvane-backend-sim >/dev/null
fi
client_bin=$build_dir/app/kelvane-client
vehicle_bin=$build_dir/sim/vehicle/kelvane-vehicle-sim
backend_bin=$build_dir/sim/backend/kelvane-backend-sim
for binary in "$client_bin" "$vehicle_bin" "$backend_bin"; do
    [[ -x "$binary" ]] || { echo "${red}demo: $binary is missing; run without --no-build${off}" >&2; exit 1; }
done

work=${KEEP_LOGS_DIR:-$(mktemp -d /tmp/kelvane-demo.XXXXXX)}
mkdir -p "$work"
logs=$work/logs
mkdir -p "$logs"
pids=()
# Stops what the demo started, newest first, so nothing loses its bus or broker
# while it is still shutting down.
cleanup() {
    local pid
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        pid=${pids[i]}
        kill -TERM "$pid" 2>/dev/null || continue
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}
trap cleanup EXIT

start_ms=$(date +%s%3N)
now_ms() { date +%s%3N; }
stamp() { printf '%6.2fs' "$(awk -v a="$(now_ms)" -v b="$start_ms" 'BEGIN { printf "%.2f", (a - b) / 1000 }')"; }

fail() {
    local step=$1 log=$2
    echo
    echo "${red}${bold}FAILED${off}: $step"
    if [[ -f "$log" ]]; then
        echo "${dim}last lines of $log:${off}"
        tail -n 25 "$log"
    fi
    echo "All logs: $logs"
    exit 1
}

count() { grep -c -F -- "$1" "$2" 2>/dev/null || true; }

# wait_for_line FILE TEXT OCCURRENCES TIMEOUT_S
wait_for_line() {
    local file=$1 text=$2 n=$3 deadline=$(( $(now_ms) + $4 * 1000 ))
    while (( $(now_ms) < deadline )); do
        (( $(count "$text" "$file") >= n )) && return 0
        sleep 0.05
    done
    return 1
}

free_port() {
    local port
    for _ in $(seq 50); do
        port=$(( 20000 + RANDOM % 40000 ))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then echo "$port"; return 0; fi
    done
    return 1
}

step() { printf '%s %s%-48s%s' "$(stamp)" "$bold" "$1" "$off"; step_started=$(now_ms); }
outcome() { printf ' %s%s%s %s(%d ms)%s\n' "$green" "$1" "$off" "$dim" $(( $(now_ms) - step_started )) "$off"; }

vehicle_status() { "$vehicle_bin" status --state "$work/vehicle"; }
# One field of the JSON object `status` prints.
status_field() { vehicle_status | grep -o "\"$1\":\"\{0,1\}[^,\"}]*" | sed "s/^\"$1\":\"\{0,1\}//"; }

echo "${bold}kelvane-client demo${off} (logs in $logs)"

step "Private D-Bus"
dbus-daemon --session --address="unix:path=$work/bus" --nofork --nosyslog >"$logs/dbus-daemon.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [[ -S "$work/bus" ]] && break; sleep 0.05; done
[[ -S "$work/bus" ]] || fail "starting dbus-daemon" "$logs/dbus-daemon.log"
export KELVANE_DBUS_ADDRESS="unix:path=$work/bus"
outcome "unix:path=$work/bus"

step "MQTT broker"
mqtt_port=$(free_port) || fail "finding a free port" /dev/null
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$mqtt_port" >"$work/mosquitto.conf"
mosquitto -c "$work/mosquitto.conf" >"$logs/mosquitto.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$mqtt_port") 2>/dev/null && break; sleep 0.05; done
(exec 3<>"/dev/tcp/127.0.0.1/$mqtt_port") 2>/dev/null || fail "starting mosquitto" "$logs/mosquitto.log"
outcome "mosquitto on 127.0.0.1:$mqtt_port"

step "Vehicle simulator, Base certificate 200 days"
secret="demo-shared-secret"
token="demo-bearer-token"
"$vehicle_bin" init --state "$work/vehicle" --base-cert-days 200 --secret "$secret" \
    >"$logs/vehicle-init.log" 2>&1 || fail "kelvane-vehicle-sim init" "$logs/vehicle-init.log"
"$vehicle_bin" run --state "$work/vehicle" >"$logs/vehicle.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [[ "$(status_field running)" == true ]] && break; sleep 0.05; done
[[ "$(status_field running)" == true ]] || fail "starting kelvane-vehicle-sim" "$logs/vehicle.log"
counter_before=$(status_field trainingCounter)
expiry_before=$(status_field baseCertificateNotAfter)
outcome "training counter $counter_before, certificate expires $expiry_before"

step "Backend simulator"
"$backend_bin" run --port 0 --port-file "$work/backend.port" --token "$token" --secret "$secret" \
    --event-log "$logs/backend-events.jsonl" --mqtt-port "$mqtt_port" >"$logs/backend.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [[ -s "$work/backend.port" ]] && break; sleep 0.05; done
[[ -s "$work/backend.port" ]] || fail "starting kelvane-backend-sim" "$logs/backend.log"
backend_port=$(cat "$work/backend.port")
outcome "http://127.0.0.1:$backend_port"

backend="http://127.0.0.1:$backend_port"
cat >"$work/vi-connector.ini" <<INI
[mqtt]
host = 127.0.0.1
port = $mqtt_port
client_id = kelvane-client-demo
keep_alive = 30

[connection_state]
mode = probe
probe_interval_ms = 1000

[transaction TTVI-Kelvane-C003.COzelkDlcChallenge]
url = $backend/zelk/dlc/challenge
token = $token

[transaction TTVI-Kelvane-C003.COzelkDlcDownload]
url = $backend/zelk/dlc/download
token = $token

[transaction TTVI-Kelvane-C003.COzelkDlcStatusFeedback]
url = $backend/zelk/dlc/feedback
token = $token
INI
printf '[supervision]\nkeep_alive_period_ms = 5000\n' >"$work/phm.ini"

step "kelvane-client"
client_log=$logs/client.log
KELVANE_VI_CONFIG="$work/vi-connector.ini" KELVANE_PHM_CONFIG="$work/phm.ini" \
    KELVANE_TESMO_ID_PATH="$work/vehicle/tesmo_string.bin" KELVANE_LOG_LEVEL=info \
    "$client_bin" >"$client_log" 2>&1 &
client_pid=$!
pids+=($client_pid)
wait_for_line "$client_log" "All subscriptions and connections ready" 1 20 ||
    fail "kelvane-client start-up (no \"All subscriptions and connections ready\")" "$client_log"
outcome "All subscriptions and connections ready"

step "Ignition on"
"$vehicle_bin" clamp on --state "$work/vehicle" >/dev/null
wait_for_line "$client_log" "Status feedback sent successfully" 1 30 ||
    fail "update after ignition on" "$client_log"
(( $(count "DLC Update finished successfully." "$client_log") == 1 )) ||
    fail "update after ignition on (no \"DLC Update finished successfully.\")" "$client_log"
outcome "DLC Update finished successfully."

step "Ignition off and on again"
"$vehicle_bin" clamp off --state "$work/vehicle" >/dev/null
"$vehicle_bin" clamp on --state "$work/vehicle" >/dev/null
wait_for_line "$client_log" "Certificate is valid for more than one year, no DLC Update needed" 1 20 ||
    fail "certificate check after the update" "$client_log"
outcome "Certificate is valid for more than one year, no DLC Update needed"

step "Backend push over MQTT"
"$backend_bin" push --mqtt-port "$mqtt_port" >"$logs/push.log" 2>&1 || fail "kelvane-backend-sim push" "$logs/push.log"
wait_for_line "$client_log" "Status feedback sent successfully" 2 30 ||
    fail "update after the push" "$client_log"
(( $(count "DLC Update finished successfully." "$client_log") == 2 )) ||
    fail "update after the push (no second \"DLC Update finished successfully.\")" "$client_log"
outcome "DLC Update finished successfully."

step "Stopping kelvane-client (SIGTERM)"
kill -TERM "$client_pid"
client_status=0
wait "$client_pid" || client_status=$?
[[ $client_status -eq 0 ]] || fail "kelvane-client exit status $client_status" "$client_log"
outcome "Kelvane Client Terminated."

counter_after=$(status_field trainingCounter)
expiry_after=$(status_field baseCertificateNotAfter)
echo
echo "${bold}Key store${off}            before                      after"
printf '  training counter   %-27s %s\n' "$counter_before" "$counter_after"
printf '  certificate expiry %-27s %s\n' "$expiry_before" "$expiry_after"
echo
echo "${green}${bold}Demo passed${off} in $(stamp | tr -d ' '). Logs: $logs"
