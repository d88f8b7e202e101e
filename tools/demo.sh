#!/usr/bin/env bash
# Shows kelvane-client doing real key updates on this machine: a private D-Bus,
# an MQTT broker, the vehicle and backend simulators and the real client, all
# on loopback. Ignition on updates an expiring certificate, ignition off/on
# finds it valid, a backend push updates again.
#
#   tools/demo.sh               bootstrap, build, run the demo
#   tools/demo.sh --no-build    use the existing build/ as it is
#   tools/demo.sh --tls         the same over HTTPS with mutual TLS (throwaway
#                               CA, server and client certificates made at start)
#   KEEP_LOGS_DIR=DIR tools/demo.sh   put the logs there instead of a temporary directory
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
build=1
world_tls=0
for argument in "$@"; do
    case $argument in
        --no-build) build=0 ;;
        --tls) world_tls=1 ;;
        -h | --help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "demo: unknown option '$argument' (see --help)" >&2; exit 2 ;;
    esac
done

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
# shellcheck source=../bench/lib/world.sh
source "$root/bench/lib/world.sh"
world_binaries "$build_dir" ||
    { echo "${red}demo: $world_missing is missing; run without --no-build${off}" >&2; exit 1; }
world_workdir "${KEEP_LOGS_DIR:-$(mktemp -d /tmp/kelvane-demo.XXXXXX)}"

start_ms=$(date +%s%3N)
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

step() { printf '%s %s%-48s%s' "$(stamp)" "$bold" "$1" "$off"; step_started=$(now_ms); }
outcome() { printf ' %s%s%s %s(%d ms)%s\n' "$green" "$1" "$off" "$dim" $(( $(now_ms) - step_started )) "$off"; }

echo "${bold}kelvane-client demo${off} (logs in $logs)"

step "Private D-Bus"
world_start_dbus || fail "starting dbus-daemon" "$logs/dbus-daemon.log"
outcome "$KELVANE_DBUS_ADDRESS"

step "MQTT broker"
world_start_broker || fail "starting mosquitto" "$logs/mosquitto.log"
outcome "mosquitto on 127.0.0.1:$mqtt_port"

step "Vehicle simulator, Base certificate 200 days"
world_init_vehicle 200 || fail "kelvane-vehicle-sim init" "$logs/vehicle-init.log"
world_start_vehicle || fail "starting kelvane-vehicle-sim" "$logs/vehicle.log"
counter_before=$(status_field trainingCounter)
expiry_before=$(status_field baseCertificateNotAfter)
outcome "training counter $counter_before, certificate expires $expiry_before"

scheme=http
if [[ $world_tls -eq 1 ]]; then
    scheme=https
    step "Throwaway CA, server and client certificates"
    world_make_tls || fail "making certificates with openssl" "$logs/tls.log"
    outcome "$work/tls"
fi

step "Backend simulator"
world_start_backend || fail "starting kelvane-backend-sim" "$logs/backend.log"
outcome "$scheme://127.0.0.1:$backend_port$([[ $world_tls -eq 1 ]] && echo ', client certificate required')"

world_write_client_config 1000 5000

step "kelvane-client"
client_log=$logs/client.log
world_start_client "$client_log"
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
client_status=0
world_stop_client || client_status=$?
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
