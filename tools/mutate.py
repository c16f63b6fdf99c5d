#!/usr/bin/env python3
"""Mutation sample: apply one small fault at a time, rebuild, run the suite.

A fresh random sample, drawn over all of src/ with a seed named on the command
line (choose it before you look: today's date, say), against the normal and the
ASan trees (configure them first with tools/check.sh normal asan):

    tools/mutate.py --seed 20261125 --tree build/check-normal --tree build/check-asan \\
                    --out /tmp/mutation.txt

    --count N            sample size (default 40)
    --list               print the sample and stop (nothing is built)
    --save-sample FILE   write the sample as a mutants file, to replay it later
    --mutants FILE       run a mutants file instead of a draw (a saved sample, or
                         the hand-chosen tools/mutants.txt)
    --only ID,...        run only these mutants of the sample, in this order
    --exclude REGEX      leave these tests out (ctest -E), to see what the rest catch
    --under PATH         draw only from this part of src/ (repeatable)
    --matrix             run every test, not up to the first failure, and record
                         every failing one: which tests catch what, alone or not

The draw: every line of src/ outside comments, preprocessor lines, log calls,
debug assertions and Windows-only code yields its candidate faults -- the first
comparison flipped (== and !=, < and <=, > and >=), the first && or || swapped,
the first negation (!) dropped, a returned constant changed, a one-line call
statement deleted.  The candidates are sorted, shuffled with the seed, and the
first N taken.  Each mutant is found by its text (with the line before it when
its own line is not unique in the file), so a saved sample survives edits; a
mutant whose text is no longer there is "gone" and not counted, nor is one that
does not compile ("build-failed").

A mutants file has one mutant per line, tab-separated:

    id  path (from the repository root; older lists: under src/)  original-text  replacement  kind

with "\\n" for a line break and an empty replacement for a deletion.

Trees are tried in the order given; the first whose suite fails kills the
mutant, and later trees see only the survivors.  So with the normal tree first,
"tree check-normal: killed a/n" is the normal tree's own rate and "overall" the
rate of both together.  The unmutated suite must pass in every tree first.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
KINDS = {"cmp", "logic", "neg", "const", "call", "leak"}
# Same as tools/check.sh: a leak or a sanitizer report must fail the test.
SANITIZER_ENV = {
    "ASAN_OPTIONS": "detect_leaks=1:halt_on_error=1:detect_stack_use_after_return=1",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    "TSAN_OPTIONS": "halt_on_error=1:second_deadlock_stack=1",
}
SKIP_FILES = {"src/socket/non_lsp_platform_win.cc"}  # Windows only: not built here
FLIP = {"==": "!=", "!=": "==", "<=": "<", ">=": ">", "<": "<=", ">": ">="}
SWAP_RETURN = {"true": "false", "false": "true", "0": "-1", "-1": "0", "nullptr": None}


def windows_state(line):
    """'win', 'posix' or None for an #if line; how an #else turns it."""
    if re.match(r"#\s*ifdef\s+(_WIN32|_MSC_VER)\b", line) or re.match(r"#\s*if\s+defined\(?(_WIN32|_MSC_VER)", line):
        return "win"
    if re.match(r"#\s*ifndef\s+_WIN32\b", line) or re.match(r"#\s*if\s+!\s*defined\(?_WIN32", line):
        return "posix"
    return None


def line_faults(code):
    """The candidate faults of one line of code: (kind, replacement)."""
    faults = []
    if "&&" in code:
        faults.append(("logic", code.replace("&&", "||", 1)))
    elif "||" in code:
        faults.append(("logic", code.replace("||", "&&", 1)))
    # Spaced on both sides, as the code is formatted: never a template's brackets.
    m = re.search(r"(?<= )(==|!=|<=|>=|<|>)(?= )", code)
    if m and not re.search(r"template|static_assert|operator|#include", code):
        faults.append(("cmp", code[:m.start()] + FLIP[m.group(1)] + code[m.end():]))
    m = re.search(r"(?<![\w)\]])!(?!=)", code)
    if m and not re.search(r"operator", code):
        faults.append(("neg", code[:m.start()] + code[m.end():]))
    m = re.search(r"\breturn (true|false|0|-1|nullptr|\d+);", code)
    if m:
        new = SWAP_RETURN.get(m.group(1), "0")
        if new:
            faults.append(("const", code[:m.start(1)] + new + code[m.end(1):]))
    if (re.fullmatch(r"[A-Za-z_][\w:.>\-\[\]*()]*(<[^;]*>)?\(.*\);", code) and code.count("(") == code.count(")")
            and not code.startswith(("return", "if", "while", "for", "switch", "delete", "case"))
            and "=" not in code.split("(")[0]):
        faults.append(("call", ""))
    return faults


def candidates(path):
    """Every candidate mutant of one source file, in line order."""
    rel = str(path.relative_to(ROOT))
    text = path.read_text()
    lines = text.splitlines()
    out, stack, in_block = [], [], False
    for n, raw in enumerate(lines, 1):
        s = raw.strip()
        if re.match(r"#\s*if", s):
            stack.append(windows_state(s))
        elif re.match(r"#\s*else", s) and stack and stack[-1]:
            stack[-1] = "posix" if stack[-1] == "win" else "win"
        elif re.match(r"#\s*endif", s) and stack:
            stack.pop()
        if "win" in stack:
            continue
        if in_block:
            in_block = "*/" not in s
            continue
        if s.startswith("/*"):
            in_block = "*/" not in s
            continue
        if not s or s.startswith(("//", "#")) or re.search(r"\bLog(Info|Error|Debug|Write)\(|ZS_DCHECK|ZS_ASSERT", s):
            continue
        code = s.split("//")[0].rstrip()
        if not code or "\t" in raw:
            continue
        find = code
        if text.count(code) != 1:  # take in the line before, if that makes it unique
            before = lines[n - 2] if n > 1 else ""
            find = before + "\n" + raw[:raw.index(code) + len(code)]
            if text.count(find) != 1:
                continue
        for kind, repl in line_faults(code):
            replaced = find[:len(find) - len(code)] + repl if find != code else repl
            out.append(dict(path=rel, line=n, find=find, repl=replaced, kind=kind))
    return out


def draw(seed, count, under=None):
    pool = []
    for path in sorted((ROOT / "src").rglob("*")):
        rel = str(path.relative_to(ROOT))
        if path.suffix in (".h", ".cc") and rel not in SKIP_FILES and (not under or rel.startswith(tuple(under))):
            pool += candidates(path)
    random.Random(seed).shuffle(pool)
    sample = pool[:count]
    for i, m in enumerate(sample, 1):
        m["id"] = f"s{i:02d}"
    return sample, len(pool)


def escape(text):
    return text.replace("\n", "\\n")


def read_mutants(path):
    mutants = []
    for n, line in enumerate(Path(path).read_text().splitlines(), 1):
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        fields = line.split("\t")
        if len(fields) != 5 or fields[4] not in KINDS or not fields[2]:
            sys.exit(f"{path}:{n}: want id, path, original, replacement, kind (tab-separated)")
        fields[2:4] = [f.replace("\\n", "\n") for f in fields[2:4]]
        mutants.append(dict(zip(("id", "path", "find", "repl", "kind"), fields)))
    ids = [m["id"] for m in mutants]
    if len(ids) != len(set(ids)):
        sys.exit(f"{path}: duplicate mutant ids")
    return mutants


def run(cmd, cwd, log):
    with open(log, "w") as out:
        return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT).returncode


def failed_tests(log):
    """Names of the failed tests in a ctest log."""
    text = Path(log).read_text(errors="replace")
    if "The following tests FAILED:" in text:
        return re.findall(r"^\s*\d+ - (\S+) \(", text.split("The following tests FAILED:")[-1], re.M)
    return re.findall(r"Test +#\d+: (\S+) \.+\**(?:Failed|Timeout|Exception|Subprocess)", text)


EXCLUDE = []  # ctest -E, from --exclude
MATRIX = False  # --matrix: every test runs, and every failing one is recorded


def build_and_test(tree, logdir, tag):
    """Returns (status, detail): status is pass, fail or build-failed."""
    build_log = logdir / f"{tag}.build.log"
    if run(["cmake", "--build", str(tree), "-j2"], ROOT, build_log) != 0:
        return "build-failed", ""
    test_log = logdir / f"{tag}.ctest.log"
    mode = ["--timeout", "30"] if MATRIX else ["--timeout", "120", "--stop-on-failure", "--output-on-failure"]
    rc = run(["ctest", "-j2"] + mode + EXCLUDE, tree, test_log)
    if rc == 0:
        return "pass", ""
    names = failed_tests(test_log)
    return "fail", ",".join(names if MATRIX else names[:3]) or f"ctest exit {rc}"


def run_mutant(m, trees, logdirs):
    """Applies m, tries each tree until one kills it, always restores the file."""
    path = ROOT / m["path"]
    if not path.is_file() and (ROOT / "src" / m["path"]).is_file():
        path = ROOT / "src" / m["path"]  # an older list, with paths under src/
    if not path.is_file():
        return "gone", "", "file not found"
    original = path.read_bytes().decode()  # bytes: line endings stay as they are
    count = original.count(m["find"])
    if count != 1:
        return "gone", "", f"text found {count} times"
    try:
        path.write_bytes(original.replace(m["find"], m["repl"], 1).encode())
        for i, tree in enumerate(trees):
            status, detail = build_and_test(tree, logdirs[tree], m["id"])
            ran = ",".join(t.name for t in trees[:i + 1])  # the killer is last
            if status == "build-failed":
                return status, ran, f"see {logdirs[tree] / m['id']}.build.log"
            if status == "fail":
                return "killed", ran, detail
        return "survived", ",".join(t.name for t in trees), ""
    finally:
        path.write_bytes(original.encode())
        now = time.time()
        os.utime(path, (now, now))  # newer than the mutated objects: rebuilt next time


def interrupted(signum, frame):
    raise KeyboardInterrupt


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--seed", type=int, help="draw a fresh sample with this seed")
    ap.add_argument("--count", type=int, default=40)
    ap.add_argument("--mutants", help="run this mutants file instead of a draw")
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--save-sample", help="write the sample to this mutants file")
    ap.add_argument("--tree", action="append", default=[], help="configured build tree (repeatable)")
    ap.add_argument("--only", help="comma-separated mutant ids, run in this order")
    ap.add_argument("--out", default="mutation-results.txt")
    ap.add_argument("--no-baseline", action="store_true", help="skip the unmutated run")
    ap.add_argument("--exclude", help="ctest -E: leave these tests out (to see what the others catch)")
    ap.add_argument("--under", action="append", help="draw only from this path, e.g. src/socket (repeatable)")
    ap.add_argument("--matrix", action="store_true", help="run every test and record every failing one")
    args = ap.parse_args()
    global MATRIX
    MATRIX = args.matrix
    if args.exclude:
        EXCLUDE.extend(["-E", args.exclude])
    if (args.seed is None) == (args.mutants is None):
        sys.exit("give either --seed or --mutants")

    if args.mutants:
        mutants, origin = read_mutants(args.mutants), f"mutants file {args.mutants}"
    else:
        mutants, pool = draw(args.seed, args.count, args.under)
        origin = f"seed {args.seed}: {len(mutants)} of {pool} candidates over {', '.join(args.under or ['src/'])}"
    if args.save_sample:
        with open(args.save_sample, "w") as out:
            out.write(f"# {origin}\n# id\tpath\toriginal\treplacement\tkind\n")
            for m in mutants:
                out.write(f"{m['id']}\t{m['path']}\t{escape(m['find'])}\t{escape(m['repl'])}\t{m['kind']}\n")
    if args.list:
        print(f"# {origin}")
        for m in mutants:
            where = f"{m['path']}:{m['line']}" if "line" in m else m["path"]
            print(f"{m['id']}\t{m['kind']}\t{where}\t{escape(m['find'].split(chr(10))[-1].strip())}"
                  f"\t=> {escape(m['repl'].split(chr(10))[-1].strip())}")
        return
    if not args.tree:
        sys.exit("give at least one --tree")
    if args.only:
        by_id = {m["id"]: m for m in mutants}
        unknown = [i for i in args.only.split(",") if i not in by_id]
        if unknown:
            sys.exit(f"unknown mutant ids: {','.join(unknown)}")
        mutants = [by_id[i] for i in args.only.split(",")]

    for key, value in SANITIZER_ENV.items():
        os.environ.setdefault(key, value)
    # A SIGTERM should restore the source file just as Ctrl-C does.
    signal.signal(signal.SIGTERM, interrupted)

    trees = [Path(t).resolve() for t in args.tree]
    logdirs = {t: t / "mutate-logs" for t in trees}
    for t in trees:
        logdirs[t].mkdir(exist_ok=True)
    if not args.no_baseline:
        for t in trees:
            status, detail = build_and_test(t, logdirs[t], "baseline")
            if status != "pass":
                sys.exit(f"{t.name}: unmutated suite does not pass ({status} {detail}); logs in {logdirs[t]}")
            print(f"baseline {t.name}: pass", flush=True)

    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=ROOT, capture_output=True, text=True)
    results = []
    with open(args.out, "w") as out:
        out.write(f"# {origin}\n# source: {commit.stdout.strip() or 'not a git checkout'}, "
                  f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}\n")
        out.write(f"# trees, in order: {', '.join(t.name for t in trees)}\n")
        out.write("# id\tkind\tpath\tstatus\ttrees\tfirst failing tests\toriginal\treplacement\n")
        for m in mutants:
            start = time.time()
            status, tree, detail = run_mutant(m, trees, logdirs)
            results.append((m, status, tree))
            line = (f"{m['id']}\t{m['kind']}\t{m['path']}\t{status}\t{tree}\t{detail}\t"
                    f"{escape(m['find'])}\t{escape(m['repl'])}")
            out.write(line + "\n")
            out.flush()
            print(f"{line}\t{time.time() - start:.0f}s", flush=True)

        counted = [(m, s, t) for m, s, t in results if s in ("killed", "survived")]
        summary = []
        for tree in trees:
            # A tree saw every counted mutant that no earlier tree killed.
            seen = [(m, s, t) for m, s, t in counted if tree.name in t.split(",")]
            killed = sum(1 for m, s, t in seen if s == "killed" and t.split(",")[-1] == tree.name)
            summary.append(f"tree {tree.name}: killed {killed}/{len(seen)}")
        killed = sum(1 for m, s, t in counted if s == "killed")
        others = {s: sum(1 for r in results if r[1] == s) for s in ("gone", "build-failed")}
        rate = f" ({100 * killed // len(counted)}%)" if counted else ""
        summary.append(f"overall: killed {killed}/{len(counted)}{rate} "
                       f"(not counted: gone {others['gone']}, build-failed {others['build-failed']})")
        for line in summary:
            out.write(f"# {line}\n")
            print(line)


if __name__ == "__main__":
    main()
