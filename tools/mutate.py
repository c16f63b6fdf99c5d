#!/usr/bin/env python3
"""Mutation sample: apply one small fault to src/ at a time, rebuild, run the suite.

    tools/mutate.py --tree build/check-normal [--tree build/check-asan ...]
                    [--mutants tools/mutants.txt] [--only ID,...] [--out FILE]

A mutant is a line of the mutants file, tab-separated:

    id  path-under-src  original-text  replacement-text  kind

The original text must occur exactly once in the file; otherwise the mutant is
"gone" (src/ moved on) and is not counted.  An empty replacement deletes the
text; "\\n" in either text stands for a line break, so a mutant can take in
the line before its own when its line alone is not unique.  Trees are tried
in the order given and the first one whose suite fails kills the mutant;
later trees only see survivors.  A mutant that does not
compile is "build-failed" and not counted either.  The trees must already be
configured (see tools/check.sh); the unmutated suite must pass in each of them.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
KINDS = {"cmp", "logic", "const", "call", "leak"}
# Same as tools/check.sh: a leak or a sanitizer report must fail the test.
SANITIZER_ENV = {
    "ASAN_OPTIONS": "detect_leaks=1:halt_on_error=1:detect_stack_use_after_return=1",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    "TSAN_OPTIONS": "halt_on_error=1:second_deadlock_stack=1",
}


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


def build_and_test(tree, logdir, tag):
    """Returns (status, detail): status is pass, fail or build-failed."""
    build_log = logdir / f"{tag}.build.log"
    if run(["cmake", "--build", str(tree), "-j2"], ROOT, build_log) != 0:
        return "build-failed", ""
    test_log = logdir / f"{tag}.ctest.log"
    rc = run(["ctest", "-j2", "--timeout", "60", "--stop-on-failure", "--output-on-failure"], tree, test_log)
    if rc == 0:
        return "pass", ""
    names = failed_tests(test_log)
    return "fail", ",".join(names[:3]) or f"ctest exit {rc}"


def run_mutant(m, trees, logdirs):
    """Applies m, tries each tree until one kills it, always restores the file."""
    path = ROOT / "src" / m["path"]
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
    ap.add_argument("--tree", action="append", required=True, help="configured build tree (repeatable)")
    ap.add_argument("--mutants", default=str(ROOT / "tools" / "mutants.txt"))
    ap.add_argument("--only", help="comma-separated mutant ids, run in this order")
    ap.add_argument("--out", default="mutation-results.txt")
    ap.add_argument("--no-baseline", action="store_true", help="skip the unmutated run")
    args = ap.parse_args()

    for key, value in SANITIZER_ENV.items():
        os.environ.setdefault(key, value)
    # A SIGTERM should restore the source file just as Ctrl-C does.
    signal.signal(signal.SIGTERM, interrupted)

    trees = [Path(t).resolve() for t in args.tree]
    logdirs = {t: t / "mutate-logs" for t in trees}
    for t in trees:
        logdirs[t].mkdir(exist_ok=True)
    mutants = read_mutants(args.mutants)
    if args.only:
        by_id = {m["id"]: m for m in mutants}
        wanted = args.only.split(",")
        unknown = [i for i in wanted if i not in by_id]
        if unknown:
            sys.exit(f"unknown mutant ids: {','.join(unknown)}")
        mutants = [by_id[i] for i in wanted]  # in the order given

    if not args.no_baseline:
        for t in trees:
            status, detail = build_and_test(t, logdirs[t], "baseline")
            if status != "pass":
                sys.exit(f"{t.name}: unmutated suite does not pass ({status} {detail}); logs in {logdirs[t]}")
            print(f"baseline {t.name}: pass", flush=True)

    results = []
    with open(args.out, "w") as out:
        out.write("# id\tkind\tpath\tstatus\ttree\tdetail\n")
        for m in mutants:
            start = time.time()
            status, tree, detail = run_mutant(m, trees, logdirs)
            results.append((m, status, tree))
            line = f"{m['id']}\t{m['kind']}\t{m['path']}\t{status}\t{tree}\t{detail}"
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
        summary.append(f"overall: killed {killed}/{len(counted)} "
                       f"(gone {others['gone']}, build-failed {others['build-failed']}, not counted)")
        for line in summary:
            out.write(f"# {line}\n")
            print(line)


if __name__ == "__main__":
    main()
