#!/usr/bin/env bash
# Checks that packaging is reproducible: clones the last commit into a
# temporary directory elsewhere, makes the packages there with
# tools/package.sh and compares them byte for byte with those in dist/, which
# must have been made from the same commit (run tools/package.sh first). The
# package's SBOM (.spdx.json) must be identical too.
#
#   tools/check-reproducible.sh                       the amd64 client package
#   tools/check-reproducible.sh --arch arm64 --package kelvane-simulators
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
arch=$(dpkg --print-architecture)
package=kelvane-client
while [[ $# -gt 0 ]]; do
    case "$1" in
        --arch) arch=$2; shift ;;
        --package) package=$2; shift ;;
        -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
        *) echo "check-reproducible.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done
say() { echo "check-reproducible: $*" >&2; }

if [[ -n "$(git -C "$root" status --porcelain --untracked-files=no)" ]]; then
    say "the working tree has uncommitted changes: dist/ would not be the last commit's"
    exit 1
fi
version=$(sed -n 's/^project([^ ]* VERSION \([^ ]*\) .*/\1/p' "$root/CMakeLists.txt")
first="$root/dist/${package}_${version}_${arch}.deb"
[[ -f "$first" ]] || { say "no $first: run tools/package.sh --arch $arch first"; exit 1; }

# A different directory, at a different depth, from a path of another length.
work=$(mktemp -d /tmp/kelvane-reproducible.XXXXXX)
trap 'rm -rf "$work"' EXIT
clone="$work/elsewhere/kelvane-client-clone"
git clone -q "$root" "$clone"
# The same commit even where the checkout is a detached HEAD (as in CI).
git -C "$clone" checkout -q --detach "$(git -C "$root" rev-parse HEAD)"
say "packaging a clean clone in $clone"
"$clone/tools/package.sh" --arch "$arch" >"$work/package.log" 2>&1 ||
    { tail -n 30 "$work/package.log" >&2; say "packaging the clone failed"; exit 1; }
second="$clone/dist/$(basename "$first")"

sbom="${first%.deb}.spdx.json"
if cmp -s "$first" "$second" && cmp -s "$sbom" "${second%.deb}.spdx.json"; then
    say "$(basename "$first"): identical ($(sha256sum <"$first" | cut -c1-16)...), and so is its SBOM"
    exit 0
fi
if ! cmp -s "$sbom" "${second%.deb}.spdx.json"; then
    say "$(basename "$sbom") differs between $root and $clone"
    diff "$sbom" "${second%.deb}.spdx.json" >&2 || true
    cmp -s "$first" "$second" && exit 1
fi
say "$(basename "$first") differs between $root and $clone"
n=0
for deb in "$first" "$second"; do
    mkdir -p "$work/x$((++n))"
    dpkg-deb -R "$deb" "$work/x$n"
done
diff -r "$work/x1" "$work/x2" >&2 || true
exit 1
