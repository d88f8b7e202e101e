#!/usr/bin/env bash
# shellcheck disable=SC2034,SC2154  # variables that bench/lib/world.sh reads and sets
# A fault campaign against the real kelvane-client: a private D-Bus, a broker,
# both simulators and the client (under a supervisor that restarts it as
# systemd's Restart=on-failure would), all on loopback. A seeded random
# schedule alternates faults (backend 500, early close, slow answer, status
# line without digits, broker, bus or vehicle simulator restart, SIGKILL of the
# client) with triggers (ignition off/on with an expiring certificate, backend
# push) and checks invariants after every step.
#
#   tools/soak.sh [--minutes N] [--seed S] [--build-dir DIR]
#
# Last line: "soak: U updates, F faults, V violations, RSS +K kB, fds +D"
# (K and D: the largest growth seen after the first 10 updates). Exit 0 only
# without violations; a failed run keeps its logs and names them.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
minutes=5
seed=$(( $(date +%s) % 100000 ))
build_dir=${BUILD_DIR:-$root/build}
while (( $# )); do
    case $1 in
        --minutes) minutes=$2; shift 2 ;;
        --seed) seed=$2; shift 2 ;;
        --build-dir) build_dir=$2; shift 2 ;;
        -h|--help) sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "soak: unknown argument '$1' (--minutes N, --seed S, --build-dir DIR)" >&2; exit 2 ;;
    esac
done
[[ "$minutes" =~ ^[0-9]+$ && "$seed" =~ ^[0-9]+$ ]] ||
    { echo "soak: --minutes and --seed take whole numbers" >&2; exit 2; }

world_secret=soak-shared-secret
world_token=soak-bearer-token
world_client_id=kelvane-client-soak
# shellcheck source=../bench/lib/world.sh
source "$root/bench/lib/world.sh"
world_binaries "$build_dir" || { echo "soak: $world_missing is missing; build first" >&2; exit 1; }
world_workdir "$(mktemp -d /tmp/kelvane-soak.XXXXXX)"
world_remove_work=0
ulimit -c 0   # a designed exit aborts; its core is of no use here
client_log=$logs/client.log
RANDOM=$seed

updates=0 faults=0 violations=0 step_no=0 step_name=start
rss_base="" fds_base="" rss_growth=0 fds_growth=0
client_pid="" client_starts=0 expect_kill=0 must_update=0 supervisor_pid=""

say() { printf '%s soak[%s] %s\n' "$(date -u +%H:%M:%S)" "$step_no" "$*" >>"$logs/soak.log"; }

violation() {
    violations=$((violations + 1))
    say "VIOLATION at step $step_no ($step_name): $*"
    echo "soak: violation at step $step_no ($step_name): $*" >&2
}

# --- the supervised client --------------------------------------------------

start_client() {
    client_starts=$((client_starts + 1))
    echo "=== soak: client start $client_starts ===" >>"$client_log"
    (world_client_environment && exec "$client_bin") >>"$client_log" 2>&1 &
    client_pid=$!
    world_track "$client_pid"
}

# The log of the client's current (or last) run.
segment() { awk -v m="=== soak: client start $client_starts ===" '$0 == m { n = NR } n && NR >= n' "$client_log"; }
seg_count() { segment | grep -c -F -- "$1" || true; }

# Restart=on-failure: an ended client is judged, then started again.
supervise() {
    [[ -n "$client_pid" ]] && kill -0 "$client_pid" 2>/dev/null && return 0
    local status=0
    world_untrack "$client_pid"
    wait "$client_pid" 2>/dev/null || status=$?
    local seg
    seg=$(segment)
    if (( expect_kill && status == 137 )); then
        say "client killed as planned"
    elif (( status == 134 )) && grep -q "terminate called after throwing" <<<"$seg" &&
        ! grep -q "sdbus::Error" <<<"$seg"; then
        say "client ended by its designed path: $(grep -A1 'terminate called' <<<"$seg" | tr '\n' ' ')"
        must_update=1
    else
        violation "client ended with status $status: $(tail -n 3 <<<"$seg" | tr '\n' ' ')"
    fi
    expect_kill=0
    # An update cut short by the exit has that exit as its outcome; more is a fault.
    local open=$(( $(seg_count "DLC Update Started") - $(seg_count "Sending status feedback.") ))
    (( open == 0 || open == 1 )) || violation "$open updates without an outcome before the exit"
    sleep 1   # RestartSec
    start_client
}

# Waits (bounded, supervising meanwhile) until `condition` holds.
wait_until() {
    local seconds=$1; shift
    local deadline=$(( $(now_ms) + seconds * 1000 ))
    while (( $(now_ms) < deadline )); do
        supervise
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

ready_count() { seg_count "All subscriptions and connections ready"; }
ready_since() { (( $(ready_count) > $1 )); }
idle() { (( $(seg_count "DLC Update Started") == $(seg_count "Sending status feedback.") )); }

# The key-management services are found (again) since the client's last loss of them.
services_found() {
    segment | grep -E "(DiagnosticServices|TypeidAccessService) service (found|stopped)" |
        awk '{ last[$4] = $6 } END { exit !(last["DiagnosticServices"] == "found" && last["TypeidAccessService"] == "found") }'
}
# Since `before` ready lines, or any in a client restarted meanwhile.
settled() {
    local before=$1
    (( client_starts == ${ready_starts:-$client_starts} )) || before=0
    ready_since "$before" && services_found
}

# Waits for the client to be subscribed everywhere and to see its services again,
# after a fault that broke that.
wait_ready_again() {
    local before=$1
    ready_starts=$client_starts
    wait_until 60 settled "$before" || violation "client not ready again within 60 s"
}

# --- the world ----------------------------------------------------------------

http() { # METHOD PATH [BODY]: the backend simulator's admin endpoints
    local body=${3:-}
    exec 7<>"/dev/tcp/127.0.0.1/$backend_port" || return 1
    printf '%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: %d\r\nConnection: close\r\n\r\n%s' \
        "$1" "$2" "${#body}" "$body" >&7
    local status
    IFS= read -r -t 10 status <&7 || true
    exec 7>&-
    [[ "$status" == *" 2"[0-9][0-9]* ]]
}

start_broker_again() {
    mosquitto -c "$work/mosquitto.conf" >>"$logs/mosquitto.log" 2>&1 &
    broker_pid=$!
    world_track "$broker_pid"
}

start_bus_again() {
    dbus-daemon --session --address="unix:path=$work/bus" --nofork --nosyslog >>"$logs/dbus-daemon.log" 2>&1 &
    bus_pid=$!
    world_track "$bus_pid"
    for _ in $(seq 100); do [[ -S "$work/bus" ]] && return 0; sleep 0.05; done
    return 1
}

vehicle_alive() { kill -0 "$vehicle_pid" 2>/dev/null || { violation "vehicle simulator died"; return 1; }; }

restart_vehicle() {
    local status=0
    world_stop "$vehicle_pid" || status=$?
    (( status == 0 )) || violation "vehicle simulator ended with status $status"
    world_start_vehicle || violation "vehicle simulator did not come back"
}

# A Base certificate that expires within a year again (the last update made it
# valid for three), keeping the vehicle's training counter.
rearm_certificate() {
    local counter
    counter=$(status_field trainingCounter)
    world_stop "$vehicle_pid" || violation "vehicle simulator ended with status $?"
    "$vehicle_bin" init --force --state "$work/vehicle" --base-cert-days 200 --secret "$world_secret" \
        --training-counter "$counter" >>"$logs/vehicle-init.log" 2>&1 || violation "cannot re-arm the key store"
    world_start_vehicle || violation "vehicle simulator did not come back"
}

last_counter=""
verify_key_store() {
    local status counter
    if ! status=$(vehicle_status 2>&1); then
        violation "key store does not load: $status"
        return
    fi
    counter=$(grep -o '"trainingCounter":[0-9]*' <<<"$status" | cut -d: -f2)
    if [[ -n "$last_counter" ]] && (( counter < last_counter )); then
        violation "training counter went back from $last_counter to $counter"
    fi
    last_counter=$counter
}

sample_resources() {
    kill -0 "$client_pid" 2>/dev/null || return 0
    local rss fds
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$client_pid/status" 2>/dev/null) || return 0
    fds=$(find "/proc/$client_pid/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
    [[ -n "$rss" ]] || return 0
    if [[ -z "$rss_base" ]]; then
        (( updates >= 10 )) && { rss_base=$rss; fds_base=$fds; say "resource baseline: RSS $rss kB, $fds fds"; }
        return 0
    fi
    (( rss - rss_base > rss_growth )) && rss_growth=$(( rss - rss_base ))
    (( fds - fds_base > fds_growth )) && fds_growth=$(( fds - fds_base ))
    (( rss - rss_base <= 2048 )) || violation "client RSS $rss kB, $(( rss - rss_base )) kB above its level after 10 updates"
    (( fds - fds_base <= 4 )) || violation "client holds $fds descriptors, $(( fds - fds_base )) above its level after 10 updates"
}

# --- steps --------------------------------------------------------------------

fault() {
    local kinds=(backend-500 backend-close backend-slow backend-no-digits broker-restart bus-restart vehicle-restart client-kill)
    local kind=${kinds[RANDOM % ${#kinds[@]}]}
    local exchanges=(challenge download feedback) before
    local exchange=${exchanges[RANDOM % 3]}
    step_name="fault $kind"
    faults=$((faults + 1))
    say "$step_name"
    case $kind in
        backend-500) http POST /admin/fault "$exchange=status:500" || violation "cannot arm a backend fault" ;;
        backend-close) http POST /admin/fault "$exchange=close" || violation "cannot arm a backend fault" ;;
        backend-slow) http POST /admin/fault "$exchange=delay:$(( 500 + RANDOM % 2500 ))" || violation "cannot arm a backend fault" ;;
        backend-no-digits) http POST /admin/fault "$exchange=no-digits" || violation "cannot arm a backend fault" ;;
        broker-restart)
            before=$(ready_count)
            world_stop "$broker_pid" || true
            sleep "0.$(( RANDOM % 9 + 1 ))"
            start_broker_again
            wait_ready_again "$before" ;;
        bus-restart)
            before=$(ready_count)
            world_stop "$bus_pid" || true
            sleep "0.$(( RANDOM % 9 + 1 ))"
            start_bus_again || violation "dbus-daemon did not come back"
            wait_ready_again "$before"
            vehicle_alive || true ;;
        vehicle-restart)
            before=$(ready_count)
            restart_vehicle
            wait_ready_again "$before" ;;
        client-kill)
            expect_kill=1
            kill -KILL "$client_pid" 2>/dev/null || true
            wait_until 10 client_restarted || violation "client not restarted"
            wait_ready_again 0 ;;
    esac
}

client_restarted() { [[ $expect_kill == 0 ]]; }

trigger() {
    local starts_before=$client_starts started_before before
    started_before=$(seg_count "DLC Update Started")
    local declined_before
    declined_before=$(segment | grep -c -e " Ignored!" -e "no DLC Update needed" -e "DLC update is already")
    local updated_before
    updated_before=$(count "DLC Update finished successfully." "$client_log")
    if (( RANDOM % 2 )); then
        step_name="trigger ignition"
        if [[ "$(status_field baseCertificateNotAfter)" > "$(date -u -d '+1 year' +%Y-%m-%dT%H:%M:%SZ)" ]]; then
            before=$(ready_count)
            rearm_certificate
            wait_ready_again "$before"
            starts_before=$client_starts started_before=$(seg_count "DLC Update Started")
            declined_before=$(segment | grep -c -e " Ignored!" -e "no DLC Update needed" -e "DLC update is already")
        fi
        say "$step_name"
        "$vehicle_bin" clamp off --state "$work/vehicle" >/dev/null 2>&1 || violation "clamp off refused"
        "$vehicle_bin" clamp on --state "$work/vehicle" >/dev/null 2>&1 || violation "clamp on refused"
    else
        step_name="trigger push"
        say "$step_name"
        http POST /admin/push || violation "backend refused to push"
    fi
    # Accepted: an update starts (an ignored push or a valid certificate start none).
    started() { (( client_starts != starts_before || $(seg_count "DLC Update Started") > started_before )); }
    declined() { (( $(segment | grep -c -e " Ignored!" -e "no DLC Update needed" -e "DLC update is already") > declined_before )); }
    decided() { started || declined; }
    if wait_until 8 decided && started; then
        wait_until 90 idle || violation "update without an outcome after 90 s"
    fi
    local updated
    updated=$(count "DLC Update finished successfully." "$client_log")
    # After a designed exit, the first update the restarted client runs without
    # a backend fault armed must succeed (the restart itself may run it).
    if (( must_update && client_starts == starts_before )); then
        if (( $(seg_count "DLC Update finished successfully.") > 0 )); then
            must_update=0
        elif (( pending_fault == 0 && $(seg_count "DLC Update Started") > started_before )); then
            violation "the first update after the restart that followed a designed exit failed"
            must_update=0
        fi
    fi
    updates=$updated
}

# --- the run ------------------------------------------------------------------

finish() {
    local status=$?
    trap - EXIT
    set +e
    step_name=teardown
    [[ -n "$client_pid" ]] && kill -0 "$client_pid" 2>/dev/null && {
        local s=0; world_stop "$client_pid" || s=$?
        (( s == 0 )) || violation "client ended with status $s on SIGTERM"
    }
    local left=("${pids[@]}")
    world_cleanup || true
    for pid in "${left[@]}"; do
        kill -0 "$pid" 2>/dev/null && violation "process $pid still running after the end"
    done
    if grep -l "terminate called\|AddressSanitizer\|Segmentation" "$logs/vehicle.log" "$logs/backend.log" >/dev/null 2>&1; then
        violation "a simulator aborted"
    fi
    (( status == 0 )) || violation "soak.sh itself failed (status $status)"
    if (( violations > 0 )); then
        echo "soak: logs kept in $logs (soak.log lists the violations)" >&2
    else
        rm -rf "$work"
    fi
    echo "soak: $updates updates, $faults faults, $violations violations, RSS +$rss_growth kB, fds +$fds_growth"
    (( violations == 0 ))
    exit $?
}
trap finish EXIT
trap 'exit 130' INT TERM

world_start_dbus || { echo "soak: dbus-daemon did not start" >&2; exit 1; }
bus_pid=${pids[-1]}
world_start_broker || { echo "soak: mosquitto did not start" >&2; exit 1; }
broker_pid=${pids[-1]}
world_init_vehicle 200 || { echo "soak: vehicle init failed" >&2; exit 1; }
world_start_vehicle || { echo "soak: vehicle simulator did not start" >&2; exit 1; }
world_start_backend || { echo "soak: backend simulator did not start" >&2; exit 1; }
world_write_client_config 500 1000
sed -i 's/^keep_alive = 30$/keep_alive = 10\nreconnect_delay_min_ms = 100\nreconnect_delay_max_ms = 2000/' "$work/vi-connector.ini"
start_client
say "seed $seed, $minutes minutes, work in $work"
wait_until 30 ready_since 0 || violation "client never became ready"

end_ms=$(( $(now_ms) + minutes * 60 * 1000 ))
while (( $(now_ms) < end_ms )); do
    step_no=$((step_no + 1))
    # A client restarted in the last step is up before the next fault.
    ready_starts=$client_starts
    wait_until 60 settled 0 || violation "client not ready within 60 s"
    pending_fault=0
    fault
    [[ $step_name == "fault backend-"* ]] && pending_fault=1
    step_no=$((step_no + 1))
    trigger
    # A fault armed but not hit (the trigger started nothing) must not spill into later steps.
    http DELETE /admin/faults || violation "cannot clear backend faults"
    step_name="check after step"
    wait_until 90 idle || violation "update without an outcome"
    verify_key_store
    sample_resources
done
