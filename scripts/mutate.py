#!/usr/bin/env python3
"""Mutation runner: how many planted bugs does the test suite catch?

Each mutant (tests/mutation/mutants/*.txt: blocks of `key: value` lines, '#'
comments) names a source file, an exact text that occurs once in it, its
replacement and the CTest label whose tests should notice. The runner copies
the tree to a scratch directory, builds it, checks that every label involved
passes unmutated, then per mutant: applies it, rebuilds incrementally, runs
that label's tests (stopping at the first failure) and restores the file. A
mutant is "caught" when a test fails or times out, "SURVIVED" when all pass,
"invalid" when its text is not found exactly once or the tree does not build.
"""
import argparse, json, os, re, shutil, subprocess, sys, time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
KEYS = {"id", "file", "label", "find", "replace"}


def read_mutants(folder):
    mutants = []
    for path in sorted(Path(folder).glob("*.txt")):
        text = re.sub(r"(?m)^#.*\n", "", path.read_text())
        for block in filter(str.strip, re.split(r"\n\s*\n", text)):
            mutant = dict(line.split(": ", 1) if ": " in line else (line.rstrip(":"), "")
                          for line in block.strip().split("\n"))
            if not KEYS <= mutant.keys():
                sys.exit(f"{path}: mutant {mutant.get('id')} lacks {sorted(KEYS - mutant.keys())}")
            for key in ("find", "replace"):  # \n, \t and \\ escapes
                mutant[key] = re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t"}.get(m[1], m[1]),
                                     mutant[key])
            mutants.append(mutant)
    ids = [m["id"] for m in mutants]
    if len(set(ids)) != len(ids):
        sys.exit(f"duplicate mutant ids: {sorted({i for i in ids if ids.count(i) > 1})}")
    return mutants


def run(cmd, quiet=True):
    return subprocess.run(cmd, stdout=subprocess.DEVNULL if quiet else None,
                          stderr=subprocess.DEVNULL if quiet else None).returncode


def sync_tree(source, scratch):
    """Mirrors the tree (build directories and .git left out), copying only what
    changed so that rebuilds stay incremental."""
    wanted = set()
    for path in source.rglob("*"):
        rel = path.relative_to(source)
        if path.is_dir() or rel.parts[0].startswith("build") or rel.parts[0] == ".git":
            continue
        wanted.add(rel)
        target, stat = scratch / rel, path.stat()
        if not target.exists() or (target.stat().st_size, int(target.stat().st_mtime)) != \
                (stat.st_size, int(stat.st_mtime)):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(path, target)
    for path in list(scratch.rglob("*")):
        if path.is_file() and path.relative_to(scratch) not in wanted:
            path.unlink()


def problem_of(mutant, tree):
    path = tree / mutant["file"]
    if not path.is_file():
        return f"no file {mutant['file']}"
    count = path.read_text().count(mutant["find"])
    return None if count == 1 else f"text found {count} times in {mutant['file']}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--source", default=str(ROOT), help="tree to mutate (default: this one)")
    parser.add_argument("--scratch", default=str(ROOT / "build-mutate"),
                        help="scratch copy with its own build directory")
    parser.add_argument("--mutants", default=str(ROOT / "tests/mutation/mutants"))
    parser.add_argument("--only", default="", help="comma-separated ids or labels to run")
    parser.add_argument("--check", action="store_true", help="only check that every text applies")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--timeout", type=int, default=120, help="seconds per test")
    parser.add_argument("--json", help="write the results to this file")
    args = parser.parse_args()

    mutants = read_mutants(args.mutants)
    if args.only:
        wanted = set(args.only.split(","))
        mutants = [m for m in mutants if m["id"] in wanted or m["label"] in wanted]
    source = Path(args.source).resolve()
    problems = {m["id"]: p for m in mutants if (p := problem_of(m, source))}
    if args.check:
        for ident, problem in problems.items():
            print(f"invalid   {ident}: {problem}")
        print(f"{len(mutants) - len(problems)} of {len(mutants)} mutants apply")
        return 1 if problems else 0

    scratch, build = (Path(args.scratch).resolve() / d for d in ("tree", "scratch-build"))
    sync_tree(source, scratch)
    if not (build / "build.ninja").exists() and run(
            ["cmake", "-S", str(scratch), "-B", str(build), "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DZELPH_BUILD_EXAMPLES=OFF"], quiet=False):
        sys.exit("configuring the scratch tree failed")
    labels = sorted({m["label"] for m in mutants})
    build_cmd = ["cmake", "--build", str(build), "-j", str(args.jobs), "--target"]
    if run(build_cmd + [f"zelph_tests_{label}" for label in labels], quiet=False):
        sys.exit("the unmutated scratch tree does not build")

    def tests_fail(label):
        return run(["ctest", "--test-dir", str(build), "-L", f"^{label}$", "--stop-on-failure",
                    "-j", str(args.jobs), "--timeout", str(args.timeout)])

    for label in labels:
        print(f"checking that the {label} tests pass unmutated ...", flush=True)
        if tests_fail(label):
            sys.exit(f"the {label} tests fail without any mutant: fix them first")

    results = []
    for m in mutants:
        start, path = time.monotonic(), scratch / m["file"]
        outcome, detail = "invalid", problems.get(m["id"])
        if detail is None:
            original = path.read_text()
            try:
                path.write_text(original.replace(m["find"], m["replace"], 1))
                if run(build_cmd + [f"zelph_tests_{m['label']}"]):
                    detail = "does not build"
                elif tests_fail(m["label"]):
                    outcome, detail = "caught", ""
                else:
                    outcome, detail = "SURVIVED", m.get("why", "")
            finally:
                path.write_text(original)
        seconds = time.monotonic() - start
        print(f"{outcome:<9} {m['id']:<40} {seconds:6.1f} s  {detail}", flush=True)
        results.append({"id": m["id"], "label": m["label"], "outcome": outcome,
                        "seconds": round(seconds, 1)})
    run(build_cmd + [f"zelph_tests_{label}" for label in labels])  # match the tree again
    caught = sum(r["outcome"] == "caught" for r in results)
    print(f"{caught} of {len(mutants)} caught")
    if args.json:
        Path(args.json).write_text(json.dumps({"caught": caught, "total": len(mutants),
                                               "mutants": results}, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
