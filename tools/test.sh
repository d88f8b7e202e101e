#!/usr/bin/env bash
# Bootstraps, configures, builds and runs every test.
#
#   tools/test.sh                  plain build (RelWithDebInfo) in build/
#   tools/test.sh --asan           AddressSanitizer + UndefinedBehaviorSanitizer in build-asan/
#   tools/test.sh --tsan           ThreadSanitizer in build-tsan/
#   tools/test.sh --build-type Debug
#   tools/test.sh --no-simulators  without the simulators (and the end-to-end tests)
#   tools/test.sh -- -L unit       anything after -- goes to ctest
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build_type=RelWithDebInfo
sanitizer=""
build_dir=""
simulators=ON
ctest_args=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --asan) sanitizer=address ;;
        --tsan) sanitizer=thread ;;
        --build-type) build_type=$2; shift ;;
        --build-dir) build_dir=$2; shift ;;
        --no-simulators) simulators=OFF ;;
        --) shift; ctest_args=("$@"); break ;;
        -h|--help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "test.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done
# The presets in CMakePresets.json name each build; the options below only
# adjust them.
case "$sanitizer" in
    address) preset=asan ;;
    thread) preset=tsan ;;
    *) preset=host ;;
esac
if [[ -z "$build_dir" ]]; then
    build_dir="$root/build"
    [[ "$preset" == host ]] || build_dir+="-$preset"
fi

"$root/tools/bootstrap.sh"

cmake -S "$root" --preset "$preset" -B "$build_dir" \
    -DCMAKE_BUILD_TYPE="$build_type" -DKELVANE_BUILD_SIMULATORS="$simulators" >/dev/null
cmake --build "$build_dir" --parallel "$(nproc)"

export KELVANE_LOG_LEVEL=${KELVANE_LOG_LEVEL:-info}
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)" "${ctest_args[@]}"
