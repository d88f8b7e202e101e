#!/usr/bin/env bash
# Cross-builds kelvane-client for the target (64-bit Arm Linux) and runs its unit
# tests under qemu-user.
#
#   tools/cross-build.sh                   make the sysroot (once), configure, build, ctest -L unit
#   tools/cross-build.sh --no-test         configure and build only
#   tools/cross-build.sh --simulators      build the simulators as well
#   tools/cross-build.sh --sysroot DIR     sysroot to use or make (default: $KELVANE_SYSROOT,
#                                          else ~/.cache/kelvane/sysroot-arm64)
#   tools/cross-build.sh --refresh-sysroot make the sysroot anew from fresh package lists
#   tools/cross-build.sh --sysroot-only    make the sysroot (if needed) and stop
#   tools/cross-build.sh --build-dir DIR   (default: build-arm64)  --build-type T  --jobs N
#   tools/cross-build.sh -- -R base64      anything after -- goes to ctest, after -L unit
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

sysroot=${KELVANE_SYSROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/kelvane/sysroot-arm64}
build_dir="$root/build-arm64"
build_type=RelWithDebInfo
jobs=$(nproc)
simulators=OFF
run_tests=1
refresh=0
sysroot_only=0
ctest_args=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --sysroot) sysroot=$2; shift ;;
        --build-dir) build_dir=$2; shift ;;
        --build-type) build_type=$2; shift ;;
        --jobs) jobs=$2; shift ;;
        --simulators) simulators=ON ;;
        --no-test) run_tests=0 ;;
        --refresh-sysroot) refresh=1 ;;
        --sysroot-only) sysroot_only=1 ;;
        --) shift; ctest_args=("$@"); break ;;
        -h|--help) awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; exit 0 ;;
        *) echo "cross-build.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done
[[ "$sysroot" == /* ]] || sysroot="$PWD/$sysroot"
[[ "$build_dir" == /* ]] || build_dir="$PWD/$build_dir"

say() { echo "cross-build: $*" >&2; }
die() { say "$*"; exit 1; }

# The arm64 libraries and headers the build links against: everything
# cmake/KelvaneDependencies.cmake finds (the simulators' too, which the arm64
# packages carry), plus the C and C++ runtime. apt resolves
# their dependencies.
sysroot_packages=(
    libc6-dev libstdc++-12-dev
    libprotobuf-dev libbotan-2-dev
    libsdbus-c++-dev libmosquitto-dev libdlt-dev libsystemd-dev libssl-dev
    libboost-dev
    libgtest-dev libgmock-dev
    libcli11-dev nlohmann-json3-dev
)

# Host tools: the native toolchain, protoc and the D-Bus glue generator come from
# bootstrap.sh; the cross compiler and the emulator only this script needs.
install_host_tools() {
    "$root/tools/bootstrap.sh"
    local missing=() package status
    for package in g++-aarch64-linux-gnu qemu-user; do
        status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
        [[ "$status" == "install ok installed" ]] || missing+=("$package")
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    local as_root=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo -n true 2>/dev/null || die "missing host packages (${missing[*]}) and no root rights to install them"
        as_root=(sudo -n)
    fi
    say "installing ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get update -qq >/dev/null
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# What the sysroot was made from; a different list means a different sysroot.
sysroot_recipe() {
    printf '%s\n' "${sysroot_packages[@]}" | sort
}

sysroot_is_current() {
    [[ $refresh -eq 0 && -f "$sysroot/.kelvane-sysroot" ]] &&
        [[ "$(cat "$sysroot/.kelvane-sysroot")" == "$(sysroot_recipe)" ]]
}

# Makes the sysroot from Debian's arm64 packages: apt resolves and downloads them
# with a private state directory and the host's package sources (so the host's
# dpkg never learns about arm64 and nothing is installed), then dpkg -x unpacks
# them. Built beside the target and renamed into place, so an interrupted run
# leaves nothing that looks complete.
make_sysroot() {
    sysroot_is_current && return 0
    # Only a sysroot this script made (it holds the marker) is ever replaced:
    # --sysroot may name a directory of someone else's.
    if [[ -e "$sysroot" && ! -f "$sysroot/.kelvane-sysroot" ]]; then
        die "$sysroot exists and was not made by this script; not touching it (choose another --sysroot)"
    fi
    mkdir -p "$(dirname "$sysroot")"
    exec 9>"$sysroot.lock"
    flock 9
    # Another run may have made it while this one waited.
    sysroot_is_current && return 0

    local apt_dir="$sysroot.apt"
    mkdir -p "$apt_dir"/{lists/partial,archives/partial,cache,state,sources.list.d}
    : >"$apt_dir/state/status"
    local apt=(apt-get -q
               -o APT::Architecture=arm64 -o APT::Architectures::=arm64
               -o Dir::State="$apt_dir/state" -o Dir::State::status="$apt_dir/state/status"
               -o Dir::State::Lists="$apt_dir/lists" -o Dir::Cache="$apt_dir/cache"
               -o Dir::Cache::archives="$apt_dir/archives")
    # root's apt hands downloads to the _apt user, who cannot write under ~root.
    if [[ $(id -u) -eq 0 ]]; then
        apt+=(-o APT::Sandbox::User=root)
    fi
    # The host's package sources by default; another mirror for arm64 if given.
    if [[ -n "${KELVANE_ARM64_APT_SOURCES:-}" ]]; then
        apt+=(-o Dir::Etc::SourceList="$KELVANE_ARM64_APT_SOURCES"
              -o Dir::Etc::SourceParts="$apt_dir/sources.list.d")
    fi

    say "making the arm64 sysroot in $sysroot"
    "${apt[@]}" update >"$apt_dir/update.log" 2>&1 ||
        { cat "$apt_dir/update.log" >&2; die "apt-get update for arm64 failed"; }
    local plan
    plan=$("${apt[@]}" -s install --no-install-recommends "${sysroot_packages[@]}" 2>&1) ||
        { echo "$plan" >&2; die "cannot resolve the arm64 packages"; }
    "${apt[@]}" -y install --download-only --no-install-recommends "${sysroot_packages[@]}" \
        >"$apt_dir/download.log" 2>&1 ||
        { cat "$apt_dir/download.log" >&2; die "downloading the arm64 packages failed"; }

    local staging="$sysroot.new"
    if [[ -e "$staging" && ! -f "$staging/.kelvane-sysroot-staging" ]]; then
        die "$staging exists and was not made by this script; not touching it"
    fi
    rm -rf "$staging"
    mkdir -p "$staging"
    : >"$staging/.kelvane-sysroot-staging"
    # "Inst <name> (<version> <release> [<arch>])": the archive apt keeps is
    # <name>_<version with ':' as %3a>_<arch>.deb.
    local count=0 name version arch deb
    while read -r name version arch; do
        deb="$apt_dir/archives/${name}_${version//:/%3a}_${arch}.deb"
        [[ -f "$deb" ]] || die "expected $deb after the download"
        dpkg-deb -x "$deb" "$staging"
        count=$((count + 1))
    done < <(echo "$plan" | sed -n 's/^Inst \([^ ]*\) (\([^ ]*\) [^[]*\[\([a-z0-9]*\)\].*/\1 \2 \3/p')
    [[ $count -gt 0 ]] || die "apt planned no arm64 packages"

    # Debian links /bin, /sbin and /lib into /usr; packages still ship some files
    # under the old paths.
    local dir
    for dir in bin sbin lib; do
        if [[ -d "$staging/$dir" && ! -L "$staging/$dir" ]]; then
            mkdir -p "$staging/usr/$dir"
            cp -a "$staging/$dir/." "$staging/usr/$dir/"
            rm -rf "${staging:?}/$dir"
        fi
        [[ ! -d "$staging/usr/$dir" ]] || ln -sfn "usr/$dir" "$staging/$dir"
    done
    # Absolute links (libz.so -> /lib/...) would point into the host; make them
    # relative so they resolve inside the sysroot wherever it lives.
    local link target
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$staging$target")" "$link"
    done < <(find "$staging" -type l -lname '/*' -print0)

    rm -f "$staging/.kelvane-sysroot-staging"
    sysroot_recipe >"$staging/.kelvane-sysroot"
    rm -rf "$sysroot"
    mv "$staging" "$sysroot"
    say "sysroot ready: $count packages"
}

# Generated message code only compiles against the libprotobuf of the protoc
# that made it; the host's protoc generates for the sysroot's library.
check_protoc() {
    local host target
    host=$(protoc --version | awk '{ split($2, v, "."); printf "%d", v[1] * 1000000 + v[2] * 1000 + v[3] }')
    target=$(sed -n 's/^#define PROTOBUF_VERSION \([0-9]*\)$/\1/p' \
        "$sysroot/usr/include/google/protobuf/port_def.inc")
    [[ "$host" == "$target" ]] ||
        die "host protoc ($(protoc --version)) does not match the sysroot's libprotobuf ($target)"
}

install_host_tools
make_sysroot
check_protoc
[[ $sysroot_only -eq 0 ]] || exit 0

cmake -S "$root" -B "$build_dir" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake" \
    -DKELVANE_SYSROOT="$sysroot" \
    -DCMAKE_BUILD_TYPE="$build_type" \
    -DKELVANE_BUILD_BENCH=OFF \
    -DKELVANE_BUILD_SIMULATORS="$simulators" >/dev/null
cmake --build "$build_dir" --parallel "$jobs"

[[ $run_tests -eq 1 ]] || exit 0
export KELVANE_LOG_LEVEL=${KELVANE_LOG_LEVEL:-info}
ctest --test-dir "$build_dir" -L unit --output-on-failure --parallel "$jobs" "${ctest_args[@]}"
