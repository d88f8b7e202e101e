#!/usr/bin/env bash
# Installs the build into a staging directory as the Debian package would and
# checks the layout; verifies the unit with systemd-analyze where it exists.
set -euo pipefail
build_dir=$1
deploy_dir=$2
story_lines=$3  # the source that gives each story line its journal MESSAGE_ID
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

DESTDIR="$stage" cmake --install "$build_dir" --prefix /usr >/dev/null

expected=(
    usr/bin/kelvane-client
    usr/lib/systemd/system/kelvane-client.service
    usr/lib/systemd/catalog/kelvane-client.catalog
    usr/lib/sysusers.d/kelvane-client.conf
    usr/share/dbus-1/system.d/kelvane-client.conf
    etc/kelvane-client/vi-connector.ini
    etc/kelvane-client-phm.ini
    usr/share/doc/kelvane-client/README.md
    usr/share/doc/kelvane-client/examples/dlt.conf
    usr/share/doc/kelvane-client/copyright
    usr/share/doc/kelvane-client/changelog.gz
    usr/share/man/man8/kelvane-client.8.gz
    usr/share/man/man5/kelvane-vi-connector.ini.5.gz
)
failed=0
for path in "${expected[@]}"; do
    if [[ ! -e "$stage/$path" ]]; then
        echo "missing after install: /$path"
        failed=1
    fi
done
[[ -x "$stage/usr/bin/kelvane-client" ]] || { echo "/usr/bin/kelvane-client is not executable"; failed=1; }
if command -v xmllint >/dev/null 2>&1; then
    xmllint --noout "$stage/usr/share/dbus-1/system.d/kelvane-client.conf" || failed=1
fi

# Every MESSAGE_ID the journal sink sends is explained in the catalog, and journalctl reads it.
if command -v journalctl >/dev/null 2>&1; then
    journalctl --root="$stage" --update-catalog || failed=1
    catalog=$(journalctl --root="$stage" --list-catalog)
    for id in $(grep -o '"[0-9a-f]\{32\}"' "$story_lines" | tr -d '"' | sort -u); do
        grep -q "^$id kelvane-client: " <<<"$catalog" || { echo "MESSAGE_ID $id is not in the journal catalog"; failed=1; }
    done
    [[ $(grep -c . <<<"$catalog") -eq $(grep -o '"[0-9a-f]\{32\}"' "$story_lines" | sort -u | wc -l) ]] ||
        { echo "the journal catalog explains ids the client never sends"; failed=1; }
fi

if command -v systemd-analyze >/dev/null 2>&1; then
    # verify resolves ExecStart against the staged tree, not the host.
    unit="$stage/usr/lib/systemd/system/kelvane-client.service"
    sed "s#^ExecStart=/usr/bin/#ExecStart=$stage/usr/bin/#" "$unit" >"$stage/kelvane-client.service"
    if ! output=$(systemd-analyze verify --man=no "$stage/kelvane-client.service" 2>&1); then
        echo "systemd-analyze verify failed:"
        echo "$output"
        failed=1
    elif [[ -n "$output" ]]; then
        # Warnings about the host (no running systemd, missing dbus.service) are not ours.
        echo "$output" | grep -i "kelvane-client.service" && failed=1
    fi
    # Exposure as systemd rates it (0 best, 10 worst); --offline needs systemd 250.
    if report=$(systemd-analyze security --offline=true "$stage/kelvane-client.service" 2>&1); then
        exposure=$(echo "$report" | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
        if [[ -z "$exposure" ]] || ! awk -v e="$exposure" 'BEGIN { exit !(e <= 1.5) }'; then
            echo "systemd-analyze security: exposure '${exposure}' is above 1.5"
            echo "$report" | grep '✗' || true
            failed=1
        fi
    else
        echo "systemd-analyze security --offline not available: exposure not checked"
    fi
else
    echo "systemd-analyze not found: unit not verified"
fi

if [[ $failed -ne 0 ]]; then
    exit 1
fi
echo "1 passed, 0 failed"
