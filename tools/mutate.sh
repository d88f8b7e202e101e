#!/usr/bin/env bash
# Mutation testing of the client's own code: a seeded sample of single-operator
# mutants (relational, boolean, constants, removed calls), each built and judged
# by the unit and integration tests. Prints every mutant's fate, the survivors
# with file, line and operator, and the score. Not part of CI.
#
#   tools/mutate.sh                      the default sample: seed 1, 40 mutants
#   tools/mutate.sh --seed 7 --count 100
#   tools/mutate.sh --only 'app/src/'    mutants of matching files only
#   tools/mutate.sh --list               the sample's mutants, nothing built
#   tools/mutate.sh --count all          every candidate mutant
#   tools/mutate.sh --timeout 60         seconds per test (default 60)
#
# The sources are copied to build-mutate/ (the build in build-mutate/build) and
# mutated there, so the worktree is never touched. Log lines are not mutated. A
# failing test is run once more, so that a flaky one does not count as a kill.
# Survivors listed in tools/mutate-equivalent.txt (by id, with the reason) are
# equivalent or log-only mutants and left out of the score.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

seed=1
count=40
timeout=60
only=""
list=0
while [[ $# -gt 0 ]]; do
    case "$1" in
        --seed) seed=$2; shift ;;
        --count) count=$2; shift ;;
        --timeout) timeout=$2; shift ;;
        --only) only=$2; shift ;;
        --list) list=1 ;;
        -h|--help) sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "mutate.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
    esac
    shift
done

work="$root/build-mutate"
if [[ $list -eq 0 ]]; then
    # A copy of the tracked sources at the same depth as the worktree's build/,
    # so that ccache finds the objects of an ordinary build. Only files that
    # differ are copied (and so rebuilt); the file a killed run had mutated is
    # rebuilt too.
    mkdir -p "$work"
    if [[ -f "$work/mutant-in-progress" ]]; then
        touch "$work/$(cat "$work/mutant-in-progress")"
        rm "$work/mutant-in-progress"
    fi
    (cd "$root" && git ls-files -z --cached --others --exclude-standard) |
        while IFS= read -r -d '' file; do
            if ! cmp -s "$root/$file" "$work/$file"; then
                mkdir -p "$work/$(dirname "$file")"
                cp "$root/$file" "$work/$file"
            fi
        done
    launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
    fi
    cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DKELVANE_BUILD_BENCH=OFF "${launcher[@]}" >"$work/configure.log"
    echo "mutate: building the unmutated copy in $work/build"
    ninja -C "$work/build" >"$work/build.log" || { tail -20 "$work/build.log"; exit 1; }
    echo "mutate: running the unmutated tests"
    ctest --test-dir "$work/build" -L 'unit|integration' -j2 --timeout "$timeout" \
        --repeat until-pass:2 >"$work/ctest.log" 2>&1 || { tail -20 "$work/ctest.log"; echo "mutate: fix the tests first" >&2; exit 1; }
fi

exec python3 - "$root" "$work" "$seed" "$count" "$timeout" "$only" "$list" <<'PYTHON'
import hashlib, os, random, re, signal, subprocess, sys, time

root, work, seed, count, timeout, only, list_only = sys.argv[1:8]
seed, timeout, list_only = int(seed), int(timeout), list_only == "1"

COMPONENTS = ["app", "backend", "csa_common", "tee", "base64_utils", "ini_file_reader",
              "process_lifecycle_adapter", "signal_handler"]

def sources():
    for component in COMPONENTS:
        for part in ("src", "include"):
            for folder, folders, files in os.walk(os.path.join(root, component, part)):
                folders.sort()  # the same sample for a seed on every machine
                for name in sorted(files):
                    if name.endswith((".cpp", ".hpp")):
                        path = os.path.relpath(os.path.join(folder, name), root)
                        if re.search(only, path):
                            yield path

def code_only(lines):
    """Each line with comments, string and character literals blanked out
    (same length), so that operators are looked for in code alone."""
    out, in_comment = [], False
    for line in lines:
        chars, i = list(line), 0
        while i < len(chars):
            c, nxt = chars[i], line[i + 1] if i + 1 < len(line) else ""
            if in_comment:
                if c == "*" and nxt == "/":
                    chars[i] = chars[i + 1] = " "
                    in_comment = False
                    i += 2
                    continue
                chars[i] = " "
            elif c == "/" and nxt == "/":
                for j in range(i, len(chars)):
                    chars[j] = " "
                break
            elif c == "/" and nxt == "*":
                chars[i] = chars[i + 1] = " "
                in_comment = True
                i += 1
            elif c == "'" and i > 0 and line[i - 1].isalnum() and nxt.isalnum():
                pass  # digit separator
            elif c in "\"'":
                j = i + 1
                while j < len(line) and line[j] != c:
                    j += 2 if line[j] == "\\" else 1
                for k in range(i + 1, min(j, len(chars))):
                    chars[k] = " "
                i = j
            i += 1
        out.append("".join(chars))
    return out

RELATIONAL = [("==", "!="), ("!=", "=="), ("<=", "<"), (">=", ">"), (" < ", " <= "),
              (" > ", " >= ")]
CALL = re.compile(r"^(\s*)((?:[A-Za-z_][\w]*(?:::|\.|->))*[A-Za-z_]\w*(?:<[\w:, ]*>)?)\(.*\);\s*$")
NOT_CALLS = {"return", "if", "while", "for", "switch", "delete", "throw", "case", "sizeof",
             "static_assert", "assert", "using", "typedef"}

def mutants_of(path):
    with open(os.path.join(root, path)) as f:
        lines = f.read().split("\n")
    code = code_only(lines)
    in_log, previous = False, ";"
    for number, (line, text) in enumerate(zip(lines, code), start=1):
        stripped = text.strip()
        # A call is removed only where a statement starts.
        statement_start, previous = previous[-1:] in ";{}:", stripped or previous
        starts_log = re.search(r"CSCLogging::|CSCLogEntry|\.reserve\(|shrink_to_fit", text)
        # Log statements (and their continuation lines) are wording, not behaviour;
        # capacity hints change no result either.
        skip = in_log or starts_log or stripped.startswith("#") or "static_assert" in text
        if starts_log or in_log:
            in_log = not stripped.endswith(";")
        if skip or not stripped:
            continue
        def at(col, old, new, operator):
            yield (path, number, operator, line, line[:col] + new + line[col + len(old):])
        for old, new in RELATIONAL:
            for m in re.finditer(re.escape(old), text):
                before = text[m.start() - 1:m.start()]
                if old in ("<=", ">=") and before == old[0]:
                    continue  # a shift assignment
                yield from at(m.start(), old, new, "relational")
        for old, new in (("&&", "||"), ("||", "&&")):
            for m in re.finditer(re.escape(old), text):
                yield from at(m.start(), old, new, "boolean")
        for m in re.finditer(r"!(?!=)(?=[\w(])", text):
            yield from at(m.start(), "!", "", "boolean")
        for m in re.finditer(r"\b(true|false)\b", text):
            yield from at(m.start(), m.group(1), "false" if m.group(1) == "true" else "true",
                          "boolean")
        pure_virtual = re.search(r"\)( const)? = 0;$", stripped)
        for m in re.finditer(r"(?<![\w.'])(0[xX][0-9A-Fa-f']+|\d[\d']*)([uUlL]*)(?![\w.'])",
                             text if not pure_virtual else ""):
            digits = m.group(1).replace("'", "")
            value = int(digits, 16) if digits[:2].lower() == "0x" else int(digits)
            new = {0: 1, 1: 0}.get(value, value + 1)
            literal = hex(new) if digits[:2].lower() == "0x" else str(new)
            yield from at(m.start(1), m.group(1), literal, "constant")
        # Declarations in headers look like calls; a logging helper only logs.
        call = CALL.match(text) if path.endswith(".cpp") else None
        if call and re.search(r"Log", call.group(2)):
            call = None
        if call and statement_start and call.group(2).split("<")[0] not in NOT_CALLS and "=" not in text.split("(")[0] \
                and text.count("(") == text.count(")") and " " not in call.group(2):
            yield (path, number, "removed call", line, call.group(1) + ";")

# A mutant's id stays while lines move: its file, the line before and after the
# change, and which of the file's identical changes it is.
ids = {}
def ident(mutant):
    return ids[mutant]

candidates = [m for path in sources() for m in mutants_of(path)]
seen = {}
for mutant in candidates:
    key = "\0".join((mutant[0], mutant[3].strip(), mutant[4].strip()))
    seen[key] = seen.get(key, 0) + 1
    ids[mutant] = hashlib.sha1((key + str(seen[key])).encode()).hexdigest()[:10]
equivalent = {}
listing = os.path.join(root, "tools", "mutate-equivalent.txt")
if os.path.exists(listing):
    for entry in open(listing):
        if entry.strip() and not entry.startswith("#"):
            key, _, reason = entry.strip().partition(" ")
            equivalent[key] = reason.strip()

def describe(mutant):
    path, number, operator, original, mutated = mutant
    return "%s:%d %s [%s]\n      - %s\n      + %s" % (path, number, operator, ident(mutant),
                                                       original.strip(), mutated.strip())

count = len(candidates) if count == "all" else min(int(count), len(candidates))
sample = random.Random(seed).sample(candidates, count)
sample.sort(key=lambda m: (m[0], m[1]))
if list_only:
    for mutant in sample:
        print(describe(mutant))
    print("mutate: %d of %d candidates" % (len(sample), len(candidates)))
    sys.exit(0)

build = os.path.join(work, "build")
# A stopped run still puts the mutated file back.
for stop in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
    signal.signal(stop, lambda number, frame: sys.exit(128 + number))
results = {"killed": [], "survived": [], "equivalent": [], "invalid": []}
started = time.time()
for index, mutant in enumerate(sample, start=1):
    path, number, operator, original, mutated = mutant
    target = os.path.join(work, path)
    with open(target) as f:
        pristine = f.read()
    lines = pristine.split("\n")
    assert lines[number - 1] == original, "the copy differs from the worktree: " + path
    lines[number - 1] = mutated
    marker = os.path.join(work, "mutant-in-progress")
    try:
        with open(marker, "w") as f:
            f.write(path)
        with open(target, "w") as f:
            f.write("\n".join(lines))
        built = subprocess.run(["ninja", "-C", build], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT).returncode == 0
        if not built:
            fate = "invalid"
        else:
            tests = subprocess.run(
                ["ctest", "--test-dir", build, "-L", "unit|integration", "-j2",
                 "--timeout", str(timeout), "--stop-on-failure", "--repeat", "until-pass:2"],
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            if tests.returncode != 0:
                fate = "killed"
            else:
                fate = "equivalent" if ident(mutant) in equivalent else "survived"
    finally:
        with open(target, "w") as f:
            f.write(pristine)
        os.remove(marker)
    results[fate].append(mutant)
    print("[%3d/%d] %-10s %s" % (index, len(sample), fate.upper(), describe(mutant)), flush=True)

# Leave the build matching the sources again.
subprocess.run(["ninja", "-C", build], stdout=subprocess.DEVNULL)
if results["survived"]:
    print("\nSurvivors (no unit or integration test pins them):")
    for mutant in results["survived"]:
        print("  " + describe(mutant))
if results["equivalent"]:
    print("\nEquivalent survivors, left out of the score:")
    for mutant in results["equivalent"]:
        print("  %s\n      (%s)" % (describe(mutant), equivalent[ident(mutant)]))
judged = len(results["killed"]) + len(results["survived"])
score = 100.0 * len(results["killed"]) / judged if judged else 100.0
print("\nmutate: seed %d, %d mutants: %d killed, %d survived, %d equivalent, %d did not build; "
      "score %.0f%% (%d/%d) in %.0f min" % (seed, len(sample), len(results["killed"]),
      len(results["survived"]), len(results["equivalent"]), len(results["invalid"]), score,
      len(results["killed"]), judged, (time.time() - started) / 60))
PYTHON
