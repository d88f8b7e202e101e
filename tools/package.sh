#!/usr/bin/env bash
# Builds the release and makes the Debian packages kelvane-client and
# kelvane-simulators, written to dist/ with an SPDX 2.3 document (SBOM) each,
# <package>_<version>_<arch>.spdx.json, and a SHA256SUMS file.
#
#   tools/package.sh                 packages for the build host (amd64)
#   tools/package.sh --arch arm64    packages for the target, cross-built against
#                                    tools/cross-build.sh's sysroot and toolchain
#   tools/package.sh --out DIR       write the packages to DIR (default: dist/)
#   tools/package.sh --jobs N        parallel build jobs (default: all cores)
#
# Reproducible: SOURCE_DATE_EPOCH is the time of the last commit and build paths
# are mapped out of the binaries, so the same commit gives the same bytes in any
# directory, packages and SBOMs alike. Build directory: build-package-<arch>/, made anew on every run
# (Release, no tests, no benchmarks).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

host_arch=$(dpkg --print-architecture)
arch=$host_arch
out="$root/dist"
jobs=$(nproc)
while [[ $# -gt 0 ]]; do
    case "$1" in
        --arch) arch=$2; shift ;;
        --out) out=$2; shift ;;
        --jobs) jobs=$2; shift ;;
        -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
        *) echo "package.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done
[[ "$out" == /* ]] || out="$PWD/$out"

say() { echo "package: $*" >&2; }
die() { say "$*"; exit 1; }

case "$arch" in
    "$host_arch") cross=0 ;;
    arm64) cross=1 ;;
    *) die "cannot package for '$arch' (amd64 or arm64)" ;;
esac

"$root/tools/bootstrap.sh"

export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct)}
# Sorting and messages must not depend on the caller's locale.
export LC_ALL=C.UTF-8 TZ=UTC
umask 022
# ccache's base directory turns absolute paths into relative ones on the
# compiler's command line, which changes the debug information, and with it the
# build id, from one directory to another.
unset CCACHE_BASEDIR

build_dir="$root/build-package-$arch"
cmake_args=(-S "$root" -B "$build_dir" -G Ninja
            -DCMAKE_BUILD_TYPE=Release
            -DKELVANE_BUILD_TESTS=OFF -DKELVANE_BUILD_BENCH=OFF -DKELVANE_BUILD_SIMULATORS=ON
            -DKELVANE_WERROR=OFF)
if [[ $cross -eq 1 ]]; then
    sysroot=${KELVANE_SYSROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/kelvane/sysroot-arm64}
    "$root/tools/cross-build.sh" --sysroot "$sysroot" --sysroot-only
    sysroot=$(realpath "$sysroot")
    cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake"
                 -DKELVANE_SYSROOT="$sysroot")
    export DEB_HOST_ARCH=$arch
fi

# Debian's build flags (-ffile-prefix-map of the source tree, which holds the
# build directory too), taken in the source tree. Not its hardening: every
# build has that from cmake/KelvaneHardening.cmake. PIE stays as the compiler
# has it; turning it off would add specs that undo the build's own.
flags=$(cd "$root" && DEB_BUILD_MAINT_OPTIONS=hardening=-all,+pie dpkg-buildflags --export=sh)
eval "$flags"
export CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS" LDFLAGS
# Always from scratch: objects of an earlier build may come from other flags
# or another compiler environment than the ones the command line shows.
rm -rf "$build_dir"

say "building $arch release in $build_dir"
cmake "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" --parallel "$jobs"

# The dependencies on shared libraries, as dpkg-shlibdeps derives them from
# the arm64 libraries the binaries link, with the symbols and shlibs files of
# the sysroot's packages: those come from a package database made beside the
# sysroot from the packages it was unpacked from, listing each file at its
# place in the sysroot.
target_admindir() {
    local archives="$sysroot.apt/archives" admindir="$build_dir/dpkg-admindir"
    compgen -G "$archives/*.deb" >/dev/null ||
        die "no packages of the sysroot in $archives: make it anew with tools/cross-build.sh --refresh-sysroot"
    rm -rf "$admindir"
    mkdir -p "$admindir/info" "$admindir/updates"
    echo 1 >"$admindir/info/format"
    : >"$admindir/status"
    local deb name version multiarch info control path
    declare -A newest=()
    for deb in "$archives"/*.deb; do
        name=$(dpkg-deb -f "$deb" Package)
        version=$(dpkg-deb -f "$deb" Version)
        if [[ -z "${newest[$name]:-}" ]] ||
            dpkg --compare-versions "$version" gt "$(dpkg-deb -f "${newest[$name]}" Version)"; then
            newest[$name]=$deb
        fi
    done
    control=$(mktemp -d)
    for name in "${!newest[@]}"; do
        deb=${newest[$name]}
        multiarch=$(dpkg-deb -f "$deb" Multi-Arch)
        info="$admindir/info/$name"
        [[ "$multiarch" != same ]] || info="$info:$arch"
        { dpkg-deb -f "$deb" | sed '1a Status: install ok installed'; echo; } >>"$admindir/status"
        rm -rf "${control:?}"/*
        dpkg-deb -e "$deb" "$control"
        for file in shlibs symbols; do
            [[ ! -f "$control/$file" ]] || cp "$control/$file" "$info.$file"
        done
        # The sysroot moved /lib, /bin and /sbin under /usr.
        dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's#^\.##; /^\/$/d; s#/$##' |
            while IFS= read -r path; do
                echo "$sysroot$path"
                case "$path" in /lib/*|/bin/*|/sbin/*) echo "$sysroot/usr$path" ;; esac
            done >"$info.list"
    done
    rm -rf "$control"
    echo "$admindir"
}

shlibs_depends() {
    local admindir=$1; shift
    local work
    work=$(mktemp -d)
    mkdir -p "$work/debian"
    printf 'Source: kelvane-client\n\nPackage: kelvane-client\nArchitecture: any\n' >"$work/debian/control"
    (cd "$work" && dpkg-shlibdeps --admindir="$admindir" -O \
        -l"$sysroot/usr/lib/aarch64-linux-gnu" -l"$sysroot/usr/lib" "$@") |
        sed -n 's/^shlibs:Depends=//p'
    rm -rf "$work"
}

admindir=
if [[ $cross -eq 1 ]]; then
    admindir=$(target_admindir)
    KELVANE_CLIENT_SHLIBS_DEPENDS=$(shlibs_depends "$admindir" "$build_dir/app/kelvane-client")
    KELVANE_SIMULATORS_SHLIBS_DEPENDS=$(shlibs_depends "$admindir" \
        "$build_dir/sim/backend/kelvane-backend-sim" "$build_dir/sim/vehicle/kelvane-vehicle-sim")
    [[ -n "$KELVANE_CLIENT_SHLIBS_DEPENDS" && -n "$KELVANE_SIMULATORS_SHLIBS_DEPENDS" ]] ||
        die "dpkg-shlibdeps derived no dependencies for the $arch binaries"
    export KELVANE_CLIENT_SHLIBS_DEPENDS KELVANE_SIMULATORS_SHLIBS_DEPENDS
    say "kelvane-client depends on: $KELVANE_CLIENT_SHLIBS_DEPENDS"
fi

packages="$build_dir/packages"
rm -rf "$packages"
(cd "$build_dir" && cpack -G DEB -B "$packages" >/dev/null)
mkdir -p "$out"
rm -f "$out"/*_"$arch".deb "$out"/*_"$arch".spdx.json
cp "$packages"/*.deb "$out/"
# An SPDX document beside each package: its files, and the Debian packages it
# depends on at the versions it was built against (the sysroot's for arm64).
for deb in "$packages"/*.deb; do
    "$root/tools/sbom.py" ${admindir:+--admindir "$admindir"} "$deb" \
        "$out/$(basename "$deb" .deb).spdx.json"
done
(cd "$out" && sha256sum -- *.deb *.spdx.json >SHA256SUMS)
say "packages in $out:"
(cd "$out" && ls -1 -- *_"$arch".deb *_"$arch".spdx.json) >&2
