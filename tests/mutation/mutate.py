#!/usr/bin/env python3
"""Mutation runner: how many planted bugs does the test suite catch?

Each mutant (tests/mutation/mutants/*.txt) names a source file, an exact
text that occurs once in it, its replacement and the CTest label whose tests
should notice. The runner copies the tree to a scratch directory, builds it
once, checks that every label involved passes unmutated, then per mutant:
applies it, rebuilds incrementally, runs that label's tests (stopping at the
first failure), and restores the file. A mutant is "caught" when a test
fails or times out, "SURVIVED" when all pass, "invalid" when its text is not
found exactly once or the mutated tree does not build.
"""
import argparse
import json
import re
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def unescape(text):
    return re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t"}.get(m[1], m[1]), text)


def read_mutants(folder):
    """Blocks of `key: value` lines separated by blank lines; '#' comments."""
    mutants = []
    for path in sorted(Path(folder).glob("*.txt")):
        block, first_line = {}, 0
        lines = path.read_text().split("\n") + [""]
        for number, line in enumerate(lines, 1):
            if line.startswith("#"):
                continue
            if not line.strip():
                if block:
                    missing = {"id", "file", "label", "find", "replace"} - block.keys()
                    if missing:
                        sys.exit(f"{path}:{first_line}: mutant lacks {', '.join(sorted(missing))}")
                    block["where"] = f"{path.name}:{first_line}"
                    mutants.append(block)
                    block = {}
                continue
            key, sep, value = line.partition(": ")
            if not sep and line.endswith(":"):
                key, value = line[:-1], ""
            elif not sep:
                sys.exit(f"{path}:{number}: expected 'key: value'")
            if not block:
                first_line = number
            block[key] = unescape(value) if key in ("find", "replace") else value
    ids = [m["id"] for m in mutants]
    if len(set(ids)) != len(ids):
        sys.exit(f"duplicate mutant ids: {sorted({i for i in ids if ids.count(i) > 1})}")
    return mutants


def run(cmd, quiet=True):
    out = subprocess.DEVNULL if quiet else None
    return subprocess.run(cmd, stdout=out, stderr=out).returncode


def sync_tree(source, scratch):
    """Mirrors the source tree (build directories and .git left out) into the
    scratch copy, copying only what changed so that rebuilds stay incremental."""
    def skipped(rel):
        return rel.parts and (rel.parts[0].startswith("build") or rel.parts[0] == ".git")

    wanted = set()
    for path in source.rglob("*"):
        rel = path.relative_to(source)
        if skipped(rel) or path.is_dir():
            continue
        wanted.add(rel)
        target = scratch / rel
        stat = path.stat()
        if target.exists() and target.stat().st_size == stat.st_size \
                and int(target.stat().st_mtime) == int(stat.st_mtime):
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(path, target)
    for path in list(scratch.rglob("*")):
        if path.is_file() and path.relative_to(scratch) not in wanted:
            path.unlink()


def check_texts(mutants, tree):
    problems = {}
    for m in mutants:
        path = tree / m["file"]
        if not path.is_file():
            problems[m["id"]] = f"no file {m['file']}"
            continue
        count = path.read_text().count(m["find"])
        if count != 1:
            problems[m["id"]] = f"text found {count} times in {m['file']}"
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--source", default=str(ROOT), help="tree to mutate (default: this one)")
    parser.add_argument("--scratch", default=str(ROOT / "build-mutate"),
                        help="scratch copy with its own build directory")
    parser.add_argument("--mutants", default=str(ROOT / "tests/mutation/mutants"))
    parser.add_argument("--only", default="", help="comma-separated ids or labels to run")
    parser.add_argument("--check", action="store_true", help="only check that every text is found once")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--timeout", type=int, default=120, help="seconds per test")
    parser.add_argument("--json", help="write the results to this file")
    args = parser.parse_args()

    mutants = read_mutants(args.mutants)
    if args.only:
        wanted = set(args.only.split(","))
        mutants = [m for m in mutants if m["id"] in wanted or m["label"] in wanted]
    source = Path(args.source).resolve()
    problems = check_texts(mutants, source)
    if args.check:
        for ident, problem in problems.items():
            print(f"invalid   {ident}: {problem}")
        print(f"{len(mutants) - len(problems)} of {len(mutants)} mutants apply")
        return 1 if problems else 0

    scratch = Path(args.scratch).resolve() / "tree"
    build = Path(args.scratch).resolve() / "scratch-build"
    sync_tree(source, scratch)
    if not (build / "build.ninja").exists():
        if run(["cmake", "-S", str(scratch), "-B", str(build), "-G", "Ninja",
                "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DZELPH_BUILD_EXAMPLES=OFF"], quiet=False):
            sys.exit("configuring the scratch tree failed")
    labels = sorted({m["label"] for m in mutants})
    build_cmd = ["cmake", "--build", str(build), "-j", str(args.jobs), "--target"]
    if run(build_cmd + [f"zelph_tests_{label}" for label in labels], quiet=False):
        sys.exit("the unmutated scratch tree does not build")

    def label_tests(label):
        return run(["ctest", "--test-dir", str(build), "-L", f"^{label}$", "--stop-on-failure",
                    "-j", str(args.jobs), "--timeout", str(args.timeout)])

    for label in labels:
        print(f"checking that the {label} tests pass unmutated ...", flush=True)
        if label_tests(label):
            sys.exit(f"the {label} tests fail without any mutant: fix them first")

    results, caught = [], 0
    for m in mutants:
        start = time.monotonic()
        path = scratch / m["file"]
        if m["id"] in problems:
            outcome, detail = "invalid", problems[m["id"]]
        else:
            original = path.read_text()
            try:
                path.write_text(original.replace(m["find"], m["replace"], 1))
                if run(build_cmd + [f"zelph_tests_{m['label']}"]):
                    outcome, detail = "invalid", "does not build"
                elif label_tests(m["label"]):
                    outcome, detail = "caught", ""
                else:
                    outcome, detail = "SURVIVED", m.get("why", "")
            finally:
                path.write_text(original)
        caught += outcome == "caught"
        seconds = time.monotonic() - start
        print(f"{outcome:<9} {m['id']:<40} {seconds:6.1f} s  {detail}", flush=True)
        results.append({"id": m["id"], "label": m["label"], "outcome": outcome, "seconds": round(seconds, 1)})
    # Leave the scratch build matching the tree again.
    run(build_cmd + [f"zelph_tests_{label}" for label in labels])
    print(f"{caught} of {len(mutants)} caught")
    if args.json:
        Path(args.json).write_text(json.dumps({"caught": caught, "total": len(mutants),
                                               "mutants": results}, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
