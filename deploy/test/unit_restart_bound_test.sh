#!/usr/bin/env bash
# Installs the build into a staging directory and shows, from the installed
# unit, that a crash loop is bounded: the first restart comes within 60 s, and
# no hour holds more than 12 starts whenever the loop begins, with systemd's
# start limit modelled as systemd 252 applies it (fixed windows).
set -euo pipefail
build_dir=$1
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR="$stage" cmake --install "$build_dir" --prefix /usr >/dev/null
unit="$stage/usr/lib/systemd/system/kelvane-client.service"

# The last assignment wins, as in systemd.
setting() { sed -n "s/^$1=//p" "$unit" | tail -n 1; }
# Seconds, parsed by systemd itself where it exists.
seconds() {
    if command -v systemd-analyze >/dev/null 2>&1; then
        systemd-analyze timespan "$1" | sed -n 's/^ *μs: *//p' | awk '{ print int($1 / 1000000) }'
    else
        echo "$1" | awk '/h$/ { print $0 * 3600; next } /min$/ { print $0 * 60; next } { print $0 + 0 }'
    fi
}
restart=$(setting Restart)
restart_sec=$(seconds "$(setting RestartSec)")
interval=$(seconds "$(setting StartLimitIntervalSec)")
burst=$(setting StartLimitBurst)
echo "Restart=$restart RestartSec=${restart_sec}s StartLimitIntervalSec=${interval}s StartLimitBurst=$burst"

failed=0
[[ "$restart" == on-failure || "$restart" == always ]] || { echo "Restart=$restart does not restart after a failure"; failed=1; }
(( restart_sec <= 60 )) || { echo "first restart after ${restart_sec}s, not within 60s"; failed=1; }
(( interval > 0 && burst > 0 )) || { echo "no start limit"; failed=1; }

# The client runs fine from boot for `healthy` seconds, then fails at once on
# every start. systemd opens a window at a start more than `interval` after
# the window's first start and refuses the start that exceeds `burst` in it.
# Every beginning of the loop over two windows is tried, second by second.
worst=$(awk -v restart="$restart_sec" -v interval="$interval" -v burst="$burst" 'BEGIN {
    worst = 0
    for (healthy = 0; healthy <= 2 * interval; healthy++) {
        n = 0; begin = -1; count = 0; t = 0
        while (1) {
            if (begin < 0 || t - begin > interval) { begin = t; count = 1 }
            else if (++count > burst) break
            start[n++] = t
            t += (n == 1 ? healthy : 0) + restart
        }
        for (i = 0; i < n; i++) {
            inside = 0
            for (j = i; j < n && start[j] < start[i] + 3600; j++) inside++
            if (inside > worst) worst = inside
        }
    }
    print worst
}')
echo "most starts in any hour of a crash loop: $worst"
(( worst <= 12 )) || { echo "a crash loop may start the client $worst times in an hour (at most 12)"; failed=1; }

if command -v systemd-analyze >/dev/null 2>&1; then
    sed "s#^ExecStart=/usr/bin/#ExecStart=$stage/usr/bin/#" "$unit" >"$stage/kelvane-client.service"
    output=$(systemd-analyze verify --man=no "$stage/kelvane-client.service" 2>&1) || { echo "$output"; failed=1; }
    if echo "$output" | grep -i "kelvane-client.service.*\(unknown\|invalid\|failed to parse\)"; then
        failed=1
    fi
fi

[[ $failed -eq 0 ]] || exit 1
echo "1 passed, 0 failed"
