#!/usr/bin/env bash
# How many small faults in the daemon's code the tests catch. Each mutant is
# one change in one place of src/**/*.cpp (src/daemon/main.cpp aside): a
# comparison flipped (< <=, > >=, == !=), a decimal constant one higher, a
# binary + - or * / swapped, && || swapped, true false swapped. A sample of
# them, the same for the same code and seed, is built and run one at a time
# against the unit tests, the corpus replays, the report and the golden
# traces (not the sandboxed binary, not the metrics under the host's
# Prometheus tools, not the fault matrix). A mutant is caught when a test
# fails or the run hangs; the score is caught / mutants that compiled.
#   bench/mutants.sh BUILD_DIR [COUNT] [SEED]
# Needs python3 (to find the places). The source files are restored after
# each mutant, also on Ctrl-C.
set -euo pipefail
build=${1:?usage: bench/mutants.sh BUILD_DIR [COUNT] [SEED]} count=${2:-40} seed=${3:-1}
cd "$(dirname "$0")/.."
git diff --quiet src || { echo "src/ has changes: commit or stash them first" >&2; exit 1; }
selection=(-LE "sandbox|prometheus|faults")
work=$(mktemp -d "${TMPDIR:-/tmp}/mutants-XXXXXX")
mutated="" child=""
restore() {
    [[ -n $child ]] && end_session "$child"; child=""
    [[ -n $mutated ]] && cp "$work/original" "$mutated"; mutated=""
}
trap 'restore; rm -rf "$work"' EXIT
trap 'echo " interrupted" >&2; exit 130' INT TERM

# The places: the files are lexed, so that comments, string and character
# literals and preprocessor lines are never touched. A < right after a name
# opens a template's arguments (the code writes comparisons with spaces), and
# its > closes them; -> << >> and the compound assignments are tokens of
# their own. + - / are binary after a value; * and && also need spaces on
# both sides, or they are a pointer or a reference in a declaration.
# A + next to a string literal joins strings and is left alone.
sites=$(python3 - "$seed" "$count" "$work/sites" <<'PY'
import bisect, collections, hashlib, re, subprocess, sys
seed, count, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]
TOKEN = re.compile(r'''(?P<ws>\s+) | (?P<comment>//[^\n]*|/\*.*?\*/) | (?P<pp>\#(?:\\\n|[^\n])*)
  | (?P<str>(?:u8|[uUL])?R"(?P<d>[^(\s]*)\(.*?\)(?P=d)" | (?:u8|[uUL])?"(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])+')
  | (?P<num>\.?\d(?:[eEpP][+-]|'?[\w.])*) | (?P<id>[A-Za-z_]\w*)
  | (?P<op><=>|<<=|>>=|->\*|->|\.\.\.|::|<<|>>|&&|\|\||\+\+|--|[-+*/%&|^!=<>]=|.)''', re.S | re.X)
SWAP = dict(zip('< <= > >= == != + - * / && || true false'.split(), '<= < >= > != == - + / * || && false true'.split()))
KIND = {t: k for k, ts in (('comparison', '< <= > >= == !='), ('arithmetic', '+ - * /'), ('logical', '&& ||'),
                           ('boolean', 'true false')) for t in ts.split()}
NOT_VALUES = {'return', 'case', 'else', 'throw', 'co_return', 'co_yield', 'sizeof', 'new', 'delete', 'operator'}
files = sorted(f for f in subprocess.check_output(['git', 'ls-files', 'src/*.cpp'], text=True).split()
               if f != 'src/daemon/main.cpp')
sites = []
for path in files:
    text = open(path, encoding='latin-1').read()          # columns in bytes, as awk counts them
    starts = [0] + [m.end() for m in re.finditer('\n', text)]
    toks = [m for m in TOKEN.finditer(text) if m.lastgroup not in ('ws', 'comment', 'pp')]
    spaced = lambda m: m.start() > 0 and text[m.start() - 1].isspace() and text[m.end():m.end() + 1].isspace()
    value = lambda m: m is not None and (m.lastgroup in ('num', 'str') or m.group() in (')', ']') or (
        m.lastgroup == 'id' and m.group() not in NOT_VALUES))
    template = set()
    for i, m in enumerate(toks):
        prev = toks[i - 1] if i else None
        if m.group() != '<' or prev is None or prev.lastgroup != 'id':
            continue
        if prev.end() != m.start() and prev.group() != 'template':
            continue
        depth, j = 0, i
        while j < len(toks) and toks[j].group() not in (';', '{', '}', '&&', '||'):
            depth += {'<': 1, '>': -1, '>>': -2}.get(toks[j].group(), 0)
            if depth <= 0:
                template.update((i, j))
                break
            j += 1
    for i, m in enumerate(toks):
        t, prev = m.group(), toks[i - 1] if i else None
        if i in template or (prev is not None and prev.group() == 'operator'):
            continue
        if m.lastgroup == 'num' and re.fullmatch(r"(0|[1-9][\d']*)[uUlLzZ]*", t):
            digits = re.match(r"[\d']+", t).group()
            kind, new = 'constant', str(int(digits.replace("'", "")) + 1) + t[len(digits):]
        elif t in KIND and (m.lastgroup == 'id' or KIND[t] != 'arithmetic' or value(prev)) and (
                t not in ('*', '&&') or (spaced(m) and value(prev))):
            if t == '+' and 'str' in (prev.lastgroup, toks[i + 1].lastgroup):
                continue                                    # joins strings: - would not compile
            kind, new = KIND[t], SWAP[t]
        else:
            continue
        line = bisect.bisect_right(starts, m.start())
        sites.append((path, line, m.start() - starts[line - 1] + 1, kind, t, new))
kinds = collections.Counter(s[3] for s in sites)
print(f"sites: {len(sites)} (" + ", ".join(f"{k} {n}" for k, n in sorted(kinds.items())) + ")")
key = lambda s: hashlib.sha256('|'.join(map(str, (seed,) + s)).encode()).hexdigest()
with open(out, 'w') as f:
    for s in sorted(sorted(sites, key=key)[:count]):
        f.write('\t'.join(map(str, s)) + '\n')
PY
)
echo "$sites"
total=$(wc -l < "$work/sites")

build() { cmake --build "$build" -j2 > "$work/build.log" 2>&1; }
# The tests run in a session of their own, and whatever is left of it when
# they end, pass or fail, or are stopped past the limit or on Ctrl-C, is
# ended with them: a simulator outlives its killed golden-trace script, and
# it does not stop on SIGTERM. A test at its own time limit counts as a hang.
end_session() {
    local sig pids
    for sig in TERM KILL; do
        pids=$(ps -o pid= -s "$1") || return 0
        kill -"$sig" $pids 2>/dev/null || true; [[ $sig == KILL ]] || sleep 2
    done
}
run_tests() {
    setsid timeout -k 10 "$1" ctest --test-dir "$build" -j2 --stop-on-failure --no-tests=error \
        "${selection[@]}" > "$work/ctest.log" 2>&1 &
    child=$!
    local rc=0
    wait "$child" || rc=$?
    end_session "$child"; child=""
    if ((rc != 0)) && grep -q '\*\*\*Timeout' "$work/ctest.log"; then rc=124; fi
    return "$rc"
}

echo "building and testing the unmutated code in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug > "$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
build || { tail -30 "$work/build.log"; echo "the unmutated code does not build" >&2; exit 1; }
t0=$(date +%s)
run_tests 3600 || { tail -30 "$work/ctest.log"; echo "the unmutated code fails its tests" >&2; exit 1; }
took=$(($(date +%s) - t0)) && limit=$((4 * took + 60))
echo "unmutated tests: ${took} s; a mutant's run is stopped after ${limit} s"

n=0 caught=0 timeouts=0 survived=0 broken=0 survivors=()
while IFS=$'\t' read -r file line col kind old new; do
    n=$((n + 1))
    cp "$file" "$work/original"
    mutated=$file
    LC_ALL=C awk -v l="$line" -v c="$col" -v o="$old" -v r="$new" '
        NR == l { if (substr($0, c, length(o)) != o) exit 3; $0 = substr($0, 1, c - 1) r substr($0, c + length(o)) }
        { print }' "$work/original" > "$file" || { echo "$file:$line:$col: '$old' not found" >&2; exit 1; }
    text=$(sed -n "${line}{s/^[[:space:]]*//;p}" "$file")
    rc=0
    if build; then run_tests "$limit" || rc=$?; else rc=build; fi
    case $rc in
        build) result="not compiled" broken=$((broken + 1)) ;;
        0) result=survived survived=$((survived + 1)) survivors+=("$file:$line  $old -> $new  | $text") ;;
        124) result=timeout timeouts=$((timeouts + 1)) caught=$((caught + 1)) ;;
        *) result=caught caught=$((caught + 1)) ;;
    esac
    restore
    printf '[%2d/%d] %-12s %s:%s:%s  %s -> %s  | %s\n' "$n" "$total" "$result" "$file" "$line" "$col" "$old" "$new" "$text"
done < "$work/sites"
git diff --quiet src || { echo "src/ was not restored" >&2; exit 1; }

scored=$((n - broken))
echo
echo "$sites"
echo "mutants sampled: $n (seed $seed), not compiled: $broken"
echo "caught: $caught (timeouts $timeouts), survived: $survived"
if ((scored > 0)); then
    echo "score: $caught / $scored = $(awk -v c="$caught" -v s="$scored" 'BEGIN { printf "%.1f", 100 * c / s }') %"
fi
((survived == 0)) || { echo "survivors:"; printf '  %s\n' "${survivors[@]}"; }
