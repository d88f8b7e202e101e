#!/usr/bin/env bash
# Update latency: from the trigger (MQTT push; ignition on) to the client's
# "Status feedback sent successfully", RUNS times each after one warm-up,
# against the floor: the same exchanges and service calls made directly by
# bench_update_floor, one floor run after each client run.
#
#   bench/update_latency/run.sh [--build] [--runs N]
#   BUILD_DIR=DIR (default build-release), KEEP_LOGS_DIR=DIR keeps the logs.
#
# Trigger times: a push is stamped by bench_update_trigger just before it
# hands the message to an already open MQTT session; ignition by the vehicle
# simulator's own "Clamp 15 on" log line, written right after it emitted the
# signal. The end is the client's log line. Both logs stamp milliseconds.
# Then the push runs again with the backend serving HTTPS and demanding the
# client's certificate (a throwaway CA), against a floor whose exchanges
# libcurl makes over mutual TLS (a new connection each, resuming the TLS
# session), and set beside the plain client's median.
# While an update or a floor run is timed, this script only waits in `read`.

# Variables such as work, logs and client_pid come from bench/lib/world.sh.
# shellcheck disable=SC2154
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"

runs=20
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
    [[ "${args[i]}" == --runs ]] && runs=${args[i + 1]:?--runs needs a number}
done
bench_prepare "$@"
floor_bin=$bench_build_dir/bench/update_latency/bench_update_floor
trigger_bin=$bench_build_dir/bench/update_latency/bench_update_trigger
for binary in "$floor_bin" "$trigger_bin"; do
    [[ -x "$binary" ]] || bench_die "$binary is missing: build with --build"
done

readonly kFeedback="Status feedback sent successfully"
readonly kFinished="DLC Update finished successfully."
readonly kStarted="DLC Update Started"

bench_workdir
bench_start_world_with_client

# The helpers talk over FIFOs: one command line in, one answer line out.
mkfifo "$work/floor.in" "$work/floor.out" "$work/trigger.in" "$work/trigger.out"
KELVANE_TESMO_ID_PATH="$work/vehicle/tesmo_string.bin" KELVANE_LOG_LEVEL=warning \
    "$floor_bin" "http://127.0.0.1:$backend_port" "$world_token" \
    <"$work/floor.in" >"$work/floor.out" 2>"$logs/floor.log" &
world_track $!
exec {floor_w}>"$work/floor.in" {floor_r}<"$work/floor.out"
start_trigger() {
    "$trigger_bin" "$mqtt_port" "$work/vehicle" "$client_log" <"$work/trigger.in" >"$work/trigger.out" 2>>"$logs/trigger.log" &
    trigger_pid=$!
    world_track "$trigger_pid"
    exec {trigger_w}>"$work/trigger.in" {trigger_r}<"$work/trigger.out"
    if ! read -r -t 10 -u "$trigger_r" answer || [[ "$answer" != connected ]]; then
        bench_die "the trigger helper did not connect" "$logs/trigger.log"
    fi
}
start_trigger

ask() {  # ask WRITE_FD READ_FD COMMAND TIMEOUT_S -> answer
    echo "$3" >&"$1"
    read -r -t "$4" -u "$2" answer || answer="error no answer within $4 s"
    echo "$answer"
}

# floor_run FILE: one floor update; its step times (ms) appended to FILE.
floor_run() {
    local answer
    answer=$(ask "$floor_w" "$floor_r" ready 30)
    [[ "$answer" == ready ]] || bench_die "floor: $answer" "$logs/floor.log"
    answer=$(ask "$floor_w" "$floor_r" run 30)
    [[ "$answer" == ok* ]] || bench_die "floor: $answer" "$logs/floor.log"
    echo "$answer" | awk '{ for (i = 2; i <= NF; i++) printf "%.3f ", $i / 1000; print "" }' >>"$1"
}

# client_times T0 N: latency of the N-th update from trigger time T0 (epoch
# ms), and how much of it passed before "DLC Update Started".
client_times() {
    local t_started t_feedback
    t_started=$(log_epoch_ms "$client_log" "$kStarted" "$2")
    t_feedback=$(log_epoch_ms "$client_log" "$kFeedback" "$2")
    awk -v a="$1" -v s="$t_started" -v f="$t_feedback" 'BEGIN { printf "%.3f %.3f\n", f - a, s - a }'
}

# trigger COMMAND: the trigger helper's answer; fails on an error.
trigger() {
    local answer
    answer=$(ask "$trigger_w" "$trigger_r" "$1" 60)
    [[ "$answer" != error* ]] || bench_die "trigger '$1': $answer" "$client_log"
    echo "$answer"
}

# check_update N WHAT: the client's N-th update succeeded.
check_update() {
    (( $(count "$kFinished" "$client_log") >= $1 )) || bench_die "update after $2 failed" "$client_log"
}

updates=0
# push_run FILE: one push update; "latency dispatch" appended to FILE.
push_run() {
    local t0 ignored
    updates=$((updates + 1))
    t0=$(trigger "push $updates")
    check_update "$updates" "a push"
    # Whole milliseconds like the log's stamps, so that rounding does not bias the difference.
    client_times "${t0%.*}" "$updates" >>"$1"
    # After an update made for a push the client ignores the next two pushes.
    for _ in 1 2; do
        ignored=$(count " Ignored!" "$client_log")
        trigger push >/dev/null
        wait_for_line "$client_log" " Ignored!" $((ignored + 1)) 10 ||
            bench_die "a push after an update was not ignored" "$client_log"
    done
}

# restart_vehicle: a fresh key store whose Base certificate expires in 200
# days again, offered by a new simulator process; returns once the client has
# found every service and subscribed to the clamp again.
restart_vehicle() {
    local line n before=()
    local lines=("All subscriptions and connections ready" "DiagnosticServices service found"
        "TypeidAccessService service found" "GenericUdsService service found")
    for line in "${lines[@]}"; do before+=("$(count "$line" "$client_log")"); done
    world_stop_vehicle || true
    world_init_vehicle 200 || bench_die "vehicle init failed" "$logs/vehicle-init.log"
    world_start_vehicle || bench_die "vehicle simulator did not restart" "$logs/vehicle.log"
    for n in "${!lines[@]}"; do
        wait_for_line "$client_log" "${lines[n]}" $((before[n] + 1)) 20 ||
            bench_die "the client did not see the restarted vehicle (${lines[n]})" "$client_log"
    done
    # The floor's readiness check makes the first calls into the new process,
    # so that neither the client nor the floor meets it cold.
    local answer
    answer=$(ask "$floor_w" "$floor_r" ready 30)
    [[ "$answer" == ready ]] || bench_die "floor: $answer" "$logs/floor.log"
}

# ignition_run FILE: ignition on with an expiring certificate; "latency
# dispatch" appended to FILE.
ignition_run() {
    local n t0
    restart_vehicle
    n=$(( $(count "Clamp 15 on" "$logs/vehicle.log") + 1 ))
    updates=$((updates + 1))
    trigger "clamp on $updates" >/dev/null
    check_update "$updates" "ignition on"
    t0=$(log_epoch_ms "$logs/vehicle.log" "Clamp 15 on" "$n") || bench_die "no clamp log line" "$logs/vehicle.log"
    client_times "$t0" "$updates" >>"$1"
}

results=$work/results
mkdir -p "$results"
bench_header "Update latency: trigger to \"$kFeedback\", $runs runs per trigger"
echo "  key store and logs on $(df --output=fstype "$work" | tail -1) ($work)"

push_run "$results/warmup"
floor_run "$results/warmup-floor"
for ((i = 1; i <= runs; i++)); do
    push_run "$results/push"
    floor_run "$results/push-floor"
done
# Each ignition run needs a new vehicle; so does the floor run beside it, to
# meet the same conditions.
ignition_run "$results/warmup"
for ((i = 1; i <= runs; i++)); do
    ignition_run "$results/ignition"
    restart_vehicle
    floor_run "$results/ignition-floor"
done

# The same client and vehicle against a backend that serves HTTPS and demands
# the client's certificate: a new backend, client and trigger helper.
switch_to_tls() {
    exec {trigger_w}>&- {trigger_r}<&-
    world_stop "$trigger_pid" || true
    world_stop_client || true
    world_stop "$backend_pid" || true
    world_tls=1
    world_make_tls || bench_die "making certificates failed" "$logs/tls.log"
    world_start_backend || bench_die "the HTTPS backend simulator did not start" "$logs/backend.log"
    world_write_client_config deployed 10000
    client_log=$logs/client-tls.log
    world_start_client "$client_log"
    wait_for_line "$client_log" "Subscribed to topic TTVI-Kelvane-C003.CTzelkDlcInitiation, status=0" 1 20 ||
        bench_die "the client over TLS did not get ready" "$client_log"
    start_trigger
    updates=0
    # The floor over mutual TLS: libcurl makes the exchanges against the same backend.
    exec {floor_w}>&- {floor_r}<&-
    mkfifo "$work/floor-tls.in" "$work/floor-tls.out"
    KELVANE_TESMO_ID_PATH="$work/vehicle/tesmo_string.bin" KELVANE_LOG_LEVEL=warning \
        "$floor_bin" "https://127.0.0.1:$backend_port" "$world_token" "$work/tls/ca.pem" \
        "$work/tls/client.pem" "$work/tls/client.key" \
        <"$work/floor-tls.in" >"$work/floor-tls.out" 2>"$logs/floor-tls.log" &
    world_track $!
    exec {floor_w}>"$work/floor-tls.in" {floor_r}<"$work/floor-tls.out"
}
switch_to_tls
push_run "$results/warmup-tls"
floor_run "$results/warmup-tls-floor"
for ((i = 1; i <= runs; i++)); do
    push_run "$results/push-tls"
    floor_run "$results/push-tls-floor"
done

column() { cut -d' ' -f"$1" "$2" | bench_stats; }
print_row() {  # LABEL "median p95 min max n"
    local median p95 min max n
    read -r median p95 min max n <<<"$2"
    printf '  %-34s %8.1f %8.1f %8.1f %8.1f %4d\n' "$1" "$median" "$p95" "$min" "$max" "$n"
}
echo
printf '  %-34s %8s %8s %8s %8s %4s\n' "(ms)" median p95 min max n
for trigger in push ignition; do
    label=$([[ $trigger == push ]] && echo "MQTT push" || echo "ignition on")
    client=$(column 1 "$results/$trigger")
    floor=$(column 1 "$results/$trigger-floor")
    print_row "$label: client" "$client"
    print_row "  trigger to \"$kStarted\"" "$(column 2 "$results/$trigger")"
    print_row "  floor, same run" "$floor"
    client_median=${client%% *}
    floor_median=${floor%% *}
    client_p95=$(cut -d' ' -f2 <<<"$client")
    ratio=$(awk -v c="$client_median" -v f="$floor_median" 'BEGIN { printf "%.2f", c / f }')
    printf '  %-34s %8s   goal median < 50 ms: %s, ratio <= 2: %s\n' "  ratio client/floor (median)" "$ratio" \
        "$(bench_verdict "$client_median" "<" 50)" "$(bench_verdict "$ratio" "<=" 2)"
    bench_summary "$label: median $client_median ms, p95 $client_p95 ms, floor $floor_median ms," \
        "ratio $ratio ($(bench_verdict "$client_median" "<" 50)/$(bench_verdict "$ratio" "<=" 2))"
done
plain=$(column 1 "$results/push")
tls=$(column 1 "$results/push-tls")
tls_floor=$(column 1 "$results/push-tls-floor")
print_row "MQTT push over mutual TLS: client" "$tls"
print_row "  trigger to \"$kStarted\"" "$(column 2 "$results/push-tls")"
print_row "  floor with libcurl, same run" "$tls_floor"
tls_floor_ratio=$(awk -v t="${tls%% *}" -v f="${tls_floor%% *}" 'BEGIN { printf "%.2f", t / f }')
tls_ratio=$(awk -v t="${tls%% *}" -v p="${plain%% *}" 'BEGIN { printf "%.2f", t / p }')
printf '  %-34s %8s   goal <= 1.3: %s\n' "  ratio client/floor (median)" "$tls_floor_ratio" \
    "$(bench_verdict "$tls_floor_ratio" "<=" 1.3)"
printf '  %-34s %8s   (information)\n' "  ratio TLS/plain client (median)" "$tls_ratio"
bench_summary "MQTT push over mutual TLS: median ${tls%% *} ms, libcurl floor ${tls_floor%% *} ms," \
    "ratio $tls_floor_ratio ($(bench_verdict "$tls_floor_ratio" "<=" 1.3)); plain ${plain%% *} ms," \
    "TLS/plain $tls_ratio"
echo
echo "  floor steps, all floor runs (ms)"
names=(total "challenge GET" "7 identity reads" "download POST" HandleDlc "7 reads for feedback" "feedback POST")
cat "$results/push-floor" "$results/ignition-floor" >"$results/floor-all"
for n in "${!names[@]}"; do
    print_row "  ${names[n]}" "$(column $((n + 1)) "$results/floor-all")"
done
echo "  floor steps over mutual TLS (ms)"
for n in "${!names[@]}"; do
    print_row "  ${names[n]}" "$(column $((n + 1)) "$results/push-tls-floor")"
done
echo "  load average now $(bench_load); $(bench_logs_note)"
