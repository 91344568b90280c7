#!/usr/bin/env python3
"""Runs the benchmark programs and the spy workload, and sets each of our
figures against its floor or peer as a ratio.

Every figure is measured side by side in one run: Google Benchmark runs ours
and the reference in the same process, repetitions randomly interleaved, and
the medians of the repetitions are compared; the spy workload runs all its
configurations round by round. The machine is shared and noisy, so only the
ratios mean something, not the absolute numbers.

Writes the table to <out> as a list of objects with the keys "name", "ours",
"reference", "unit", "ratio", "target" and "met" (target and met are null for
figures reported for information; a target on "ours" itself rather than on the
ratio starts with "ours"), and "spread" where rounds were repeated (the first
and third quartiles of ours), a Markdown copy beside it, and prints it.
"""

import argparse
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))


def log(message):
    print(f"bench: {message}", file=sys.stderr, flush=True)


def run_benchmark(program, extra, repetitions, min_time):
    """Runs one Google Benchmark program; returns {run name: median row}."""
    command = [program] + extra + [
        f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={min_time}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_report_aggregates_only=true",
        "--benchmark_format=json",
    ]
    log(" ".join(os.path.basename(part) if i == 0 else part for i, part in enumerate(command)))
    result = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    medians = {}
    for row in json.loads(result.stdout)["benchmarks"]:
        if row.get("aggregate_name") == "median":
            medians[row["run_name"]] = row
    return medians


def ns_per_call(row):
    """CPU time per iteration in nanoseconds."""
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[row["time_unit"]]
    return row["cpu_time"] * scale


def figure(name, ours, reference, unit, lower_is_better, target=None, absolute=False,
           spread=None):
    """One row. The target bounds the ratio, or with `absolute` ours itself."""
    # A ratio to a reference at or below zero (a noise floor) says nothing.
    ratio = ours / reference if reference > 0 else None
    met = None
    if target is not None:
        value = ours if absolute else ratio
        met = None if value is None else value <= target if lower_is_better else value >= target
    text = None
    if target is not None:
        text = f"{'ours ' if absolute else ''}{'<=' if lower_is_better else '>='} {target}"
    row = {
        "name": name,
        "ours": round(ours, 3),
        "reference": round(reference, 3),
        "unit": unit,
        "ratio": None if ratio is None else round(ratio, 3),
        "target": text,
        "met": met,
    }
    if spread is not None:
        row["spread"] = [round(value, 3) for value in spread]
    return row


def trace_figures(bench_dir, repetitions, min_time):
    program = os.path.join(bench_dir, "zelph_trace_bench")
    off = run_benchmark(program, ["--tracing=off"], repetitions, min_time)
    on = run_benchmark(program, ["--tracing=on"], repetitions, min_time)
    one = on["TraceOn/TraceStringThreads/real_time/threads:1"]["items_per_second"]
    eight = on["TraceOn/TraceStringThreads/real_time/threads:8"]["items_per_second"]
    return [
        figure("TraceString, tracing off vs recursive mutex lock+unlock",
               ns_per_call(off["TraceOff/TraceString"]),
               ns_per_call(off["TraceOff/RecursiveMutexFloor"]), "ns/call", True, 1.5),
        figure("TraceString, tracing on, 1 thread vs fprintf+fflush of the same bytes",
               on["TraceOn/TraceString"]["items_per_second"],
               on["TraceOn/FprintfFloor"]["items_per_second"], "lines/s", False, 0.8),
        figure("TraceTemplate, 10 attributes vs TraceString of the same lines",
               ns_per_call(on["TraceOn/TraceTemplate10"]),
               ns_per_call(on["TraceOn/TraceStringTemplateText"]), "ns/call", True, 2),
        figure("TraceString, 8 threads at once vs 1 thread (all lines, wall clock)",
               eight, one, "lines/s", False, 0.7),
    ]


def names_figures(bench_dir, repetitions, min_time):
    rows = run_benchmark(os.path.join(bench_dir, "zelph_names_bench"), [], repetitions, min_time)
    return [
        figure("Name lookups, 3 known : 1 unknown vs std::unordered_map",
               1e9 / rows["Names/NameTables"]["items_per_second"],
               1e9 / rows["Names/UnorderedMap"]["items_per_second"], "ns/lookup", True, 1),
    ]


def parser_figures(bench_dir, repetitions, min_time, program, kind, peers):
    """`peers`: (benchmark name, display name, {size: target} or None) each."""
    rows = run_benchmark(os.path.join(bench_dir, program), [], repetitions, min_time)
    figures = []
    for size, label in ((1024, "1 KB"), (32768, "32 KB"), (1048576, "1 MB")):
        ours = rows[f"{kind}/Ours/{size}"]["bytes_per_second"] / 1e6
        for peer, display, targets in peers:
            target = targets and targets[size]
            theirs = rows[f"{kind}/{peer}/{size}"]["bytes_per_second"] / 1e6
            figures.append(figure(f"{kind.upper()} parse, {label} vs {display}", ours, theirs,
                                  "MB/s", False, target))
    return figures


def spy_figures(build_dir, rounds, steady_rounds):
    spy = os.path.join(build_dir, "lib", "libzelphspy.so")
    script = os.path.join(HERE, "spy_workload.py")
    command = [sys.executable, script, "--spy", spy, "--rounds", str(rounds),
               "--steady", os.path.join(build_dir, "bench", "zelph_spy_steady"),
               "--null-module", os.path.join(build_dir, "bench", "libzelph_null_pkcs11.so"),
               "--steady-rounds", str(steady_rounds)]
    # p11-kit's proxy is measured in a mount namespace of its own (see the
    # script); without one the other configurations still run.
    private = ["unshare", "--mount", "--propagation", "private"] + command + ["--private-mounts"]
    result = subprocess.run(private, stdout=subprocess.PIPE)
    if result.returncode != 0:
        log("no mount namespace for p11-kit's proxy; running the spy workload without it")
        result = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    data = json.loads(result.stdout)
    overhead = data["overhead_ms"]
    spread = data["overhead_spread_ms"]
    figures = [
        figure("Spy overhead on a pkcs11-tool workload, tracing on vs pkcs11-spy",
               overhead["zelph-on"], overhead["pkcs11-spy"], "ms/workload", True, 1.5,
               spread=spread["zelph-on"]),
        figure("Spy overhead on a pkcs11-tool workload, tracing off vs pkcs11-spy",
               overhead["zelph-off"], overhead["pkcs11-spy"], "ms/workload", True,
               spread=spread["zelph-off"]),
    ]
    if "p11-kit" in overhead:
        figures.append(figure("Spy overhead on a pkcs11-tool workload, tracing on vs p11-kit "
                              "log-calls", overhead["zelph-on"], overhead["p11-kit"],
                              "ms/workload", True, spread=spread["zelph-on"]))
    figures.append(figure("pkcs11-tool workload, whole time through our spy (tracing on) vs "
                          "directly", data["median_ms"]["zelph-on"], data["median_ms"]["direct"],
                          "ms/workload", True))

    steady = data["steady"]
    per_call = {name: ns / 1e3 for name, ns in steady["overhead_ns_per_call"].items()}
    per_call_spread = {name: [ns / 1e3 for ns in q]
                       for name, q in steady["overhead_spread"].items()}
    mix = f"steady state ({steady['rounds']} rounds of {steady['iterations']} x 8 calls)"
    figures += [
        figure(f"Spy overhead per PKCS#11 call, {mix}, tracing on vs pkcs11-spy",
               per_call["zelph-on"], per_call["pkcs11-spy"], "us/call", True, 1.5,
               spread=per_call_spread["zelph-on"]),
        figure(f"Spy overhead per PKCS#11 call, {mix}, tracing off (vs the module against "
               "itself, the noise floor)", per_call["zelph-off"], per_call["direct"], "us/call",
               True, spread=per_call_spread["zelph-off"]),
    ]
    if "p11-kit" in per_call:
        figures.append(figure(f"Spy overhead per PKCS#11 call, {mix}, tracing on vs p11-kit "
                              "log-calls", per_call["zelph-on"], per_call["p11-kit"], "us/call",
                              True, spread=per_call_spread["zelph-on"]))
    null = data["steady_null"]
    null_mix = f"same mix in front of a module that does no work ({null['rounds']} rounds of " \
               f"{null['iterations']} x 8 calls)"
    null_call = {name: ns / 1e3 for name, ns in null["overhead_ns_per_call"].items()}
    null_spread = {name: [ns / 1e3 for ns in q] for name, q in null["overhead_spread"].items()}
    figures += [
        figure(f"Spy overhead per PKCS#11 call, {null_mix}, tracing on vs pkcs11-spy",
               null_call["zelph-on"], null_call["pkcs11-spy"], "us/call", True,
               spread=null_spread["zelph-on"]),
        figure(f"Spy overhead per PKCS#11 call, {null_mix}, tracing off (vs the module against "
               "itself, the noise floor)", null_call["zelph-off"], null_call["direct"], "us/call",
               True, 0.3, absolute=True, spread=null_spread["zelph-off"]),
    ]
    writes = steady["writes_per_call"]
    figures.append(figure("Spy write() calls per PKCS#11 call, tracing on (vs pkcs11-spy)",
                          writes["zelph-on"], writes["pkcs11-spy"], "writes/call", True, 3,
                          absolute=True))
    return figures


def load_figures(build_dir, rounds):
    """Whole processes of a bare C host that loads a trace library and makes
    one TraceString call (tracing off): libzelphtrace.so against a stub C++
    library. Rounds alternate the two; the figure is the median of the paired
    differences."""
    import statistics
    import tempfile
    import time
    host = os.path.join(build_dir, "bench", "zelph_load_host")
    libraries = {"ours": os.path.join(build_dir, "lib", "libzelphtrace.so"),
                 "stub": os.path.join(build_dir, "bench", "libzelph_stub_trace.so")}
    with tempfile.TemporaryDirectory(prefix="zelph-bench-load-") as scratch:
        config = os.path.join(scratch, "zelph.conf")
        with open(config, "w") as f:
            f.write(f"Quillon {{\n\tEnableTrace = 0\n\tTrace = {scratch}\n}}\n")
        env = dict(os.environ, ZELPH_CONFFILE=config)
        env.pop("LD_PRELOAD", None)

        def run(library):
            start = time.perf_counter()
            pid = os.posix_spawn(host, [host, library], env)
            _, status = os.waitpid(pid, 0)
            elapsed = time.perf_counter() - start
            if os.waitstatus_to_exitcode(status) != 0:
                raise RuntimeError(f"zelph_load_host {library} failed")
            return elapsed * 1e3

        log(f"load cost: {rounds} rounds of {', '.join(libraries)}")
        times = {name: [] for name in libraries}
        for round_index in range(rounds + 5):  # the first rounds warm the caches
            order = list(libraries) if round_index % 2 == 0 else list(reversed(libraries))
            for name in order:
                elapsed = run(libraries[name])
                if round_index >= 5:
                    times[name].append(elapsed)
    deltas = [o - s for o, s in zip(times["ours"], times["stub"])]
    q = statistics.quantiles(deltas, n=4)
    stub = statistics.median(times["stub"])
    return [figure(f"Loading libzelphtrace.so + one TraceString (tracing off) from a C host, "
                   f"over a stub C++ library ({rounds} rounds)", statistics.median(deltas), stub,
                   "ms/process", True, 1, absolute=True, spread=[q[0], q[2]])]


def log_figures(build_dir, rounds, megabytes):
    """zelph-log summary against grep -c on the same log, warm in the page
    cache, rounds interleaved; medians of the wall times."""
    import statistics
    import tempfile
    import time
    tool = os.path.join(build_dir, "bin", "zelph-log")
    with tempfile.TemporaryDirectory(prefix="zelph-bench-log-") as scratch:
        path = os.path.join(scratch, "big.log")
        log(f"writing a {megabytes} MB trace log")
        subprocess.run([sys.executable, os.path.join(HERE, "big_log.py"), path,
                        "--megabytes", str(megabytes)], check=True)
        # Written back before the rounds, so that no write-back runs beside them.
        os.sync()
        size = os.path.getsize(path) / 1e6
        commands = {"zelph-log": [tool, "summary", path], "grep": ["grep", "-c", "Entering", path]}
        times = {name: [] for name in commands}
        for _ in range(rounds + 1):  # the first round warms the cache and is dropped
            for name, command in commands.items():
                start = time.perf_counter()
                # Into a pipe: GNU grep stops at the first match when it writes to /dev/null.
                subprocess.run(command, stdout=subprocess.PIPE, check=True)
                times[name].append(time.perf_counter() - start)
        speed = {name: size / statistics.median(t[1:]) for name, t in times.items()}
    log(f"zelph-log summary {speed['zelph-log']:.0f} MB/s, grep -c {speed['grep']:.0f} MB/s")
    return [figure(f"zelph-log summary of a {megabytes} MB log vs grep -c Entering",
                   speed["zelph-log"], speed["grep"], "MB/s", False, 0.5)]


def number(value):
    """A figure's value for the table: millions as "1.63 M"."""
    return f"{value / 1e6:.3g} M" if value >= 1e5 else f"{value:.4g}"


def markdown(figures):
    lines = ["| Figure | Ours | Reference | Unit | Ratio | Target | Met |",
             "|---|---:|---:|---|---:|---|---|"]
    for f in figures:
        met = "" if f["met"] is None else ("yes" if f["met"] else "**no**")
        ours = number(f["ours"])
        if "spread" in f:
            ours += f" ({number(f['spread'][0])} to {number(f['spread'][1])})"
        lines.append(f"| {f['name']} | {ours} | {number(f['reference'])} | {f['unit']} | "
                     f"{'' if f['ratio'] is None else format(f['ratio'], '.2f')} | {f['target'] or ''} | {met} |")
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", required=True,
                        help="the CMake tree built with ZELPH_BUILD_BENCH=ON")
    parser.add_argument("--out", required=True, help="where results.json goes")
    parser.add_argument("--repetitions", type=int, default=15)
    parser.add_argument("--min-time", type=float, default=0.2,
                        help="seconds per repetition of each benchmark")
    parser.add_argument("--rounds", type=int, default=51, help="rounds of the spy workload")
    parser.add_argument("--steady-rounds", type=int, default=101,
                        help="rounds of the spy's steady state")
    parser.add_argument("--load-rounds", type=int, default=201,
                        help="rounds of the load cost")
    parser.add_argument("--log-megabytes", type=int, default=1024,
                        help="size of the log zelph-log summarises")
    parser.add_argument("--only",
                        choices=["trace", "names", "json", "xml", "spy", "load", "log"],
                        action="append", help="run only these groups (repeatable)")
    args = parser.parse_args()

    bench_dir = os.path.join(args.build_dir, "bench")
    groups = args.only or ["trace", "names", "json", "xml", "spy", "load", "log"]
    figures = []
    if "trace" in groups:
        figures += trace_figures(bench_dir, args.repetitions, args.min_time)
    if "names" in groups:
        figures += names_figures(bench_dir, args.repetitions, args.min_time)
    if "json" in groups:
        every = lambda target: {1024: target, 32768: target, 1048576: target}
        figures += parser_figures(bench_dir, args.repetitions, args.min_time, "zelph_json_bench",
                                  "Json", [("Nlohmann", "nlohmann-json", every(1.5)),
                                           ("RapidJSON", "RapidJSON", every(0.35))])
    if "xml" in groups:
        figures += parser_figures(bench_dir, args.repetitions, args.min_time, "zelph_xml_bench",
                                  "Xml", [("TinyXML2", "tinyxml2", {1024: 0.8, 32768: 1, 1048576: 1}),
                                          ("pugixml", "pugixml", None)])
    if "spy" in groups:
        figures += spy_figures(args.build_dir, args.rounds, args.steady_rounds)
    if "load" in groups:
        figures += load_figures(args.build_dir, args.load_rounds)
    if "log" in groups:
        figures += log_figures(args.build_dir, 7, args.log_megabytes)

    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
    with open(args.out, "w") as f:
        json.dump(figures, f, indent=2)
        f.write("\n")
    table = markdown(figures)
    with open(os.path.splitext(args.out)[0] + ".md", "w") as f:
        f.write(table)
    print()
    print(table)
    missed = [f["name"] for f in figures if f["met"] is False]
    print(f"{len(figures)} figures, {sum(f['met'] is True for f in figures)} targets met, "
          f"{len(missed)} missed" + (": " + "; ".join(missed) if missed else ""))


if __name__ == "__main__":
    main()
