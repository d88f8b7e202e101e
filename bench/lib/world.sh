# shellcheck shell=bash disable=SC2034
# The simulated world around kelvane-client, for scripts that source this file
# (tools/demo.sh and the whole-program benchmarks): a private D-Bus, a mosquitto
# broker, the vehicle and backend simulators and the real client, all on
# loopback, each with its log under $logs.
#
# Functions return non-zero on failure and leave the reporting to the caller,
# whose messages differ (a demo step, a benchmark's error line). Variables they
# set: client_bin vehicle_bin backend_bin (world_binaries), work logs
# (world_workdir), KELVANE_DBUS_ADDRESS (exported), mqtt_port, vehicle_pid,
# backend_port, backend_pid, client_pid. Everything started is stopped on exit.
#
# With world_tls=1 (after world_make_tls) the backend serves HTTPS and demands
# a client certificate, and the client's configuration says https:// and
# [backend_tls].

world_secret=${world_secret:-demo-shared-secret}
world_token=${world_token:-demo-bearer-token}
world_client_id=${world_client_id:-kelvane-client-demo}
pids=()

now_ms() { date +%s%3N; }

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

# log_epoch_ms FILE TEXT N: UTC time stamp (epoch ms) of the N-th line holding
# TEXT in a log written through csc_logging ("2026-11-22T10:15:02.123Z KV info ...").
log_epoch_ms() {
    local stamp
    stamp=$(grep -F -- "$2" "$1" 2>/dev/null | sed -n "${3}p" | cut -d' ' -f1)
    [[ -n "$stamp" ]] || return 1
    date -u -d "$stamp" +%s%3N
}

# world_binaries BUILD_DIR: the three programs; world_missing names one that is not there.
world_binaries() {
    client_bin=$1/app/kelvane-client
    vehicle_bin=$1/sim/vehicle/kelvane-vehicle-sim
    backend_bin=$1/sim/backend/kelvane-backend-sim
    local binary
    for binary in "$client_bin" "$vehicle_bin" "$backend_bin"; do
        [[ -x "$binary" ]] || { world_missing=$binary; return 1; }
    done
}

# world_workdir [DIR]: where configuration, state and logs go (a new temporary
# directory unless DIR is given); arms the clean-up on exit.
world_workdir() {
    work=${1:-$(mktemp -d /tmp/kelvane-world.XXXXXX)}
    mkdir -p "$work"
    logs=$work/logs
    mkdir -p "$logs"
    trap world_cleanup EXIT
}

world_track() { pids+=("$1"); }

world_untrack() {
    local kept=() pid
    for pid in "${pids[@]}"; do [[ "$pid" == "$1" ]] || kept+=("$pid"); done
    pids=("${kept[@]}")
}

# world_stop PID: SIGTERM, at most 5 s grace, then SIGKILL; the exit status.
world_stop() {
    local pid=$1 status=0
    world_untrack "$pid"
    kill -TERM "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null; return $?; }
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || status=$?
    return "$status"
}

# Stops what was started, newest first, so nothing loses its bus or broker
# while it is still shutting down. With world_remove_work=1 the working
# directory goes too, unless the script failed.
world_cleanup() {
    local status=$? i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        world_stop "${pids[i]}" || true
    done
    [[ $status -eq 0 && "${world_remove_work:-0}" == 1 ]] && rm -rf "$work"
    return "$status"
}

world_start_dbus() {
    dbus-daemon --session --address="unix:path=$work/bus" --nofork --nosyslog >"$logs/dbus-daemon.log" 2>&1 &
    world_track $!
    for _ in $(seq 100); do [[ -S "$work/bus" ]] && break; sleep 0.05; done
    [[ -S "$work/bus" ]] || return 1
    export KELVANE_DBUS_ADDRESS="unix:path=$work/bus"
}

world_start_broker() {
    mqtt_port=$(free_port) || return 1
    printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$mqtt_port" >"$work/mosquitto.conf"
    mosquitto -c "$work/mosquitto.conf" >"$logs/mosquitto.log" 2>&1 &
    world_track $!
    for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$mqtt_port") 2>/dev/null && break; sleep 0.05; done
    (exec 3<>"/dev/tcp/127.0.0.1/$mqtt_port") 2>/dev/null
}

vehicle_status() { "$vehicle_bin" status --state "$work/vehicle"; }
# One field of the JSON object `status` prints.
status_field() { vehicle_status | grep -o "\"$1\":\"\{0,1\}[^,\"}]*" | sed "s/^\"$1\":\"\{0,1\}//"; }

# world_init_vehicle DAYS: a fresh key store whose Base certificate has DAYS left.
world_init_vehicle() {
    "$vehicle_bin" init --force --state "$work/vehicle" --base-cert-days "$1" --secret "$world_secret" \
        >>"$logs/vehicle-init.log" 2>&1
}

world_start_vehicle() {
    "$vehicle_bin" run --state "$work/vehicle" >>"$logs/vehicle.log" 2>&1 &
    vehicle_pid=$!
    world_track "$vehicle_pid"
    for _ in $(seq 100); do [[ "$(status_field running)" == true ]] && return 0; sleep 0.05; done
    return 1
}

world_stop_vehicle() { world_stop "$vehicle_pid"; }

# world_make_tls: a throwaway CA and, issued by it, a server certificate for
# 127.0.0.1 and localhost and a client certificate, in $work/tls.
world_make_tls() {
    local dir=$work/tls name
    mkdir -p "$dir" && chmod 700 "$dir" || return 1
    (
        cd "$dir" || exit 1
        key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
        key ca.key && openssl req -x509 -new -key ca.key -out ca.pem -days 2 -subj "/CN=kelvane throwaway CA" || exit 1
        for name in server client; do
            key "$name.key" && openssl req -new -key "$name.key" -out "$name.csr" -subj "/CN=kelvane-$name" || exit 1
        done
        printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n' >server.ext
        printf 'extendedKeyUsage=clientAuth\n' >client.ext
        for name in server client; do
            openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
                -extfile "$name.ext" -out "$name.pem" 2>/dev/null || exit 1
        done
        chmod 600 ./*.key
    ) >>"$logs/tls.log" 2>&1
}

world_start_backend() {
    rm -f "$work/backend.port"
    local tls=()
    [[ "${world_tls:-0}" == 1 ]] &&
        tls=(--tls-cert "$work/tls/server.pem" --tls-key "$work/tls/server.key" --tls-client-ca "$work/tls/ca.pem")
    "$backend_bin" run --port 0 --port-file "$work/backend.port" --token "$world_token" \
        --secret "$world_secret" --event-log "$logs/backend-events.jsonl" --mqtt-port "$mqtt_port" \
        "${tls[@]}" >>"$logs/backend.log" 2>&1 &
    backend_pid=$!
    world_track "$backend_pid"
    for _ in $(seq 100); do [[ -s "$work/backend.port" ]] && break; sleep 0.05; done
    [[ -s "$work/backend.port" ]] || return 1
    backend_port=$(cat "$work/backend.port")
}

# world_write_client_config PROBE_INTERVAL_MS KEEP_ALIVE_PERIOD_MS: the client's
# connector and supervision files for the broker and backend started above.
# PROBE_INTERVAL_MS "deployed" keeps the connection-state settings of
# deploy/config; a number probes that often, and backs off no further while
# the backend is away.
world_write_client_config() {
    local backend="http://127.0.0.1:$backend_port" tls="" probe=""
    if [[ "$1" != deployed ]]; then
        probe="probe_interval_ms = $1
probe_retry_min_ms = $(($1 < 5000 ? $1 : 5000))
probe_retry_max_ms = $1"
    fi
    if [[ "${world_tls:-0}" == 1 ]]; then
        backend="https://127.0.0.1:$backend_port"
        tls="[backend_tls]
ca_file = $work/tls/ca.pem
cert_file = $work/tls/client.pem
key_file = $work/tls/client.key
"
    fi
    cat >"$work/vi-connector.ini" <<INI
$tls
[mqtt]
host = 127.0.0.1
port = $mqtt_port
client_id = $world_client_id
keep_alive = 30

[connection_state]
mode = probe
$probe

[transaction TTVI-Kelvane-C003.COzelkDlcChallenge]
url = $backend/zelk/dlc/challenge
token = $world_token

[transaction TTVI-Kelvane-C003.COzelkDlcDownload]
url = $backend/zelk/dlc/download
token = $world_token

[transaction TTVI-Kelvane-C003.COzelkDlcStatusFeedback]
url = $backend/zelk/dlc/feedback
token = $world_token
INI
    chmod 600 "$work/vi-connector.ini" # it holds tokens: the connector refuses it otherwise
    printf '[supervision]\nkeep_alive_period_ms = %s\n' "$2" >"$work/phm.ini"
}

# world_client_environment: exports what the client needs to find the
# configuration above and the vehicle's identity file. KELVANE_LOG_LEVEL
# (default info) is passed on.
world_client_environment() {
    export KELVANE_VI_CONFIG="$work/vi-connector.ini" KELVANE_PHM_CONFIG="$work/phm.ini" \
        KELVANE_TESMO_ID_PATH="$work/vehicle/tesmo_string.bin" KELVANE_LOG_LEVEL=${KELVANE_LOG_LEVEL:-info}
}

# world_start_client LOG: the client with the configuration above, its output in LOG.
world_start_client() {
    (world_client_environment && exec "$client_bin") >"$1" 2>&1 &
    client_pid=$!
    world_track "$client_pid"
}

# world_stop_client: SIGTERM; the client's exit status.
world_stop_client() { world_stop "$client_pid"; }
