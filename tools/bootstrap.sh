#!/usr/bin/env bash
# Installs the Debian packages kelvane-client needs to build, test, run the demo
# and the benchmarks. Does nothing when everything is present.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git clang-format
    clang libclang-rt-14-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    protobuf-compiler libprotobuf-dev
    libbotan-2-dev
    libsdbus-c++-dev libsdbus-c++-bin dbus
    libmosquitto-dev mosquitto mosquitto-clients openssl libssl-dev
    libdlt-dev dlt-daemon dlt-tools
    libsystemd-dev systemd
    libboost-dev
    libcli11-dev nlohmann-json3-dev
    gcovr
    libcurl4-openssl-dev
    procps
    faketime   # a test runs a process with its clock in 2001
    dpkg-dev file lintian reuse  # packaging: tools/package.sh, lintian, reuse lint
    python3 binutils             # SBOMs (tools/sbom.py, check-sbom.py), tools/check-hardening.sh
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -eq 0 ]]; then
    as_root=()
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    as_root=(sudo -n)
else
    echo "bootstrap: missing packages (${missing[*]}) and no root rights to install them; run as root or with password-less sudo." >&2
    exit 1
fi

echo "bootstrap: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive

# No daemon of these packages may start with its defaults (dlt-daemon's listen
# on every interface and multicast): service starts are refused while
# installing, and dlt-daemon is not enabled for later boots. Tests and the
# demo start their own, on loopback.
policy=/usr/sbin/policy-rc.d
if [[ ! -e $policy ]]; then
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
    "${as_root[@]}" chmod 755 "$policy"
    trap '"${as_root[@]}" rm -f "$policy"' EXIT
fi

"${as_root[@]}" apt-get update -qq >/dev/null
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
if command -v systemctl >/dev/null 2>&1; then
    "${as_root[@]}" systemctl disable dlt-daemon.service >/dev/null 2>&1 || true
fi
# Some container images come without a machine id; the connector's MQTT client
# id is read from it, so a new machine gets one (as systemd would at first boot).
if ! grep -qE '^[0-9a-f]{32}$' /etc/machine-id 2>/dev/null; then
    "${as_root[@]}" rm -f /etc/machine-id
    "${as_root[@]}" dbus-uuidgen --ensure=/etc/machine-id
fi
