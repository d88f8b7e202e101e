#!/usr/bin/env bash
# Binary size: kelvane-client as built and as a stripped copy, its sections,
# and, for context, the size of every shared library it loads (ldd).
#
#   bench/binary_size/run.sh [--build]
#   BUILD_DIR=DIR (default build-release).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib/bench.sh
source "$here/../lib/bench.sh"
bench_prepare "$@"
command -v strip >/dev/null || bench_die "strip (binutils) is needed"

bench_header "Binary size of $client_bin"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$client_bin" "$work/kelvane-client"
strip --strip-all "$work/kelvane-client"
built=$(stat -c %s "$client_bin")
stripped=$(stat -c %s "$work/kelvane-client")
kib() { awk -v b="$1" 'BEGIN { printf "%.1f KiB", b / 1024 }'; }

echo
printf '  %-40s %12s  %s\n' "as built ($(bench_build_type))" "$built" "$(kib "$built")"
printf '  %-40s %12s  %s\n' "stripped" "$stripped" "$(kib "$stripped")"
read -r text data bss _ < <(size "$work/kelvane-client" | tail -1)
printf '  %-40s %12s  %s\n' "  text" "$text" "$(kib "$text")" "  data" "$data" "$(kib "$data")" \
    "  bss" "$bss" "$(kib "$bss")"

echo
echo "  shared libraries it loads (file sizes, for context; * = linked directly):"
mapfile -t needed < <(readelf -d "$client_bin" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
total=0
while read -r name path; do
    real=$(readlink -f "$path")
    bytes=$(stat -c %s "$real")
    total=$((total + bytes))
    mark=" "
    [[ " ${needed[*]} " == *" $name "* ]] && mark="*"
    printf '    %s %-36s %12s  %s\n' "$mark" "$name" "$bytes" "$(kib "$bytes")"
done < <(ldd "$client_bin" | awk '$2 == "=>" && $3 ~ /^\// { print $1, $3 }
    $1 ~ /^\// { n = split($1, part, "/"); print part[n], $1 }')
printf '      %-36s %12s  %s\n' "total" "$total" "$(kib "$total")"
bench_summary "stripped $stripped bytes ($(kib "$stripped")), as built $built bytes;" \
    "shared libraries $(kib "$total")"
