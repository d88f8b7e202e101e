#!/usr/bin/env bash
# Measures what the test suite reaches: a --coverage RelWithDebInfo build in
# build-coverage/, the unit, integration and e2e tests, and gcovr's line and
# branch figures for the client's folders together and for platform/.
#
#   tools/coverage.sh                   build, test, print the two summary lines
#   tools/coverage.sh --build-dir DIR   build elsewhere
#   tools/coverage.sh --html DIR        also write a browsable report to DIR
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build_dir="$root/build-coverage"
html_dir=""
while [[ $# -gt 0 ]]; do
    case "$1" in
        --build-dir) build_dir=$2; shift ;;
        --html) html_dir=$2; shift ;;
        -h|--help) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "coverage.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done

"$root/tools/bootstrap.sh"

generator=()
command -v ninja >/dev/null 2>&1 && [[ ! -f "$build_dir/Makefile" ]] && generator=(-G Ninja)
cmake -S "$root" -B "$build_dir" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    -DKELVANE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" --parallel "$(nproc)"

# Counters of an earlier run would add up with this one's.
find "$build_dir" -name '*.gcda' -delete
export KELVANE_LOG_LEVEL=${KELVANE_LOG_LEVEL:-info}
# A failing test still leaves its counters; the figures are printed either way
# and the exit status tells.
status=0
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)" \
    -L 'unit|integration|e2e' || status=$?

client_folders=(app backend csa_common tee process_lifecycle_adapter signal_handler
                ini_file_reader base64_utils)
excludes=(--exclude '.*/test/.*' --exclude "$root/tests/.*" --exclude "$build_dir/.*")
tracefile="$build_dir/coverage.json"
# CMake's compiler probes leave counters without sources; they are no part of the tree.
gcovr --root "$root" --object-directory "$build_dir" --exclude-throw-branches \
    --gcov-exclude '.*CompilerId.*' "${excludes[@]}" --json "$tracefile" "$build_dir" >/dev/null

summary() {
    local name=$1; shift
    local filters=()
    for folder in "$@"; do filters+=(--filter "$root/$folder/"); done
    gcovr --root "$root" --add-tracefile "$tracefile" "${filters[@]}" --print-summary \
        --output /dev/null | awk -v name="$name" '
            /^lines:/    { lines = $2 " " $3 " " $4 " " $5 " " $6 }
            /^branches:/ { branches = $2 " " $3 " " $4 " " $5 " " $6 }
            END { printf "%-9s lines %s  branches %s\n", name ":", lines, branches }'
}
summary client "${client_folders[@]}"
summary platform platform

if [[ -n "$html_dir" ]]; then
    mkdir -p "$html_dir"
    gcovr --root "$root" --add-tracefile "$tracefile" --html-details "$html_dir/index.html"
    echo "coverage.sh: report in $html_dir/index.html"
fi
exit "$status"
