#!/usr/bin/env bash
# Checks that built executables carry the hardening cmake/KelvaneHardening.cmake
# asks for: position-independent (ELF type DYN with an interpreter), read-only
# relocations (GNU_RELRO) resolved at start (BIND_NOW), the stack protector
# (__stack_chk_fail) and glibc's checked calls (some __*_chk symbol of
# _FORTIFY_SOURCE). One line per executable; exits 1 when any of them misses
# something.
#
#   tools/check-hardening.sh build                 the shipped executables in a build tree
#   tools/check-hardening.sh build-arm64 FILE...   directories and files may be mixed
#
# In a directory (a build tree or an unpacked package) the shipped executables
# are kelvane-client, kelvane-backend-sim and kelvane-vehicle-sim, wherever
# they are; it must hold at least one of them. Any architecture: readelf reads
# them all.
set -euo pipefail

if [[ $# -eq 0 || "$1" == -h || "$1" == --help ]]; then
    awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
    [[ $# -eq 0 ]] && exit 2
    exit 0
fi
say() { echo "check-hardening: $*"; }

binaries=()
for argument in "$@"; do
    if [[ -d "$argument" ]]; then
        found=$(find "$argument" \( -name CMakeFiles -o -name _CPack_Packages \) -prune -o -type f \
                    \( -name kelvane-client -o -name kelvane-backend-sim -o -name kelvane-vehicle-sim \) \
                    -print | LC_ALL=C sort)
        [[ -n "$found" ]] || { say "$argument: no kelvane-client, kelvane-backend-sim or kelvane-vehicle-sim in it"; exit 2; }
        mapfile -t -O "${#binaries[@]}" binaries <<<"$found"
    elif [[ -f "$argument" ]]; then
        binaries+=("$argument")
    else
        say "$argument: no such file or directory"
        exit 2
    fi
done

status=0
for binary in "${binaries[@]}"; do
    if ! header=$(readelf -h -W "$binary" 2>/dev/null); then
        say "$binary: MISSING: not an ELF file"
        status=1
        continue
    fi
    machine=$(sed -n 's/^ *Machine: *//p' <<<"$header")
    segments=$(readelf -l -W "$binary")
    dynamic=$(readelf -d -W "$binary")
    symbols=$(readelf --dyn-syms -W "$binary" | awk '{ sub(/@.*/, "", $8); print $8 }')
    # The canary is __stack_chk_guard on arm64, no checked call.
    checked=$(grep -E '^__[A-Za-z0-9_]+_chk$' <<<"$symbols" | grep -vE '^__stack_chk_(fail|guard)$' |
                  LC_ALL=C sort -u || true)

    missing=()
    grep -q '^ *Type: *DYN' <<<"$header" && grep -q '^ *INTERP ' <<<"$segments" || missing+=(PIE)
    grep -q '^ *GNU_RELRO ' <<<"$segments" || missing+=(RELRO)
    grep -qE '\((BIND_NOW|FLAGS)\) .*BIND_NOW|\(FLAGS_1\) .* NOW' <<<"$dynamic" || missing+=(BIND_NOW)
    grep -qx '__stack_chk_fail' <<<"$symbols" || missing+=("stack protector (__stack_chk_fail)")
    [[ -n "$checked" ]] || missing+=("fortify (no __*_chk call)")

    if [[ ${#missing[@]} -eq 0 ]]; then
        examples=$(head -n 3 <<<"$checked" | paste -sd, - | sed 's/,/, /g')
        say "$binary ($machine): ok: PIE, RELRO, BIND_NOW, stack protector, fortify ($examples$(
            [[ $(wc -l <<<"$checked") -le 3 ]] || echo ", ..."))"
    else
        printf -v list '%s, ' "${missing[@]}"
        say "$binary ($machine): MISSING: ${list%, }"
        status=1
    fi
done
exit "$status"
