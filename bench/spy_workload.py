#!/usr/bin/env python3
"""The same pkcs11-tool workload against SoftHSM2, run directly and through
each PKCS#11 tracer: our spy with tracing on and off, OpenSC's pkcs11-spy and
p11-kit's proxy with log-calls.

The workload lists the objects of a token holding 40 objects, signs twice and
lists the mechanisms, each step a pkcs11-tool process. Rounds run every
configuration once, in an order that rotates from round to round; the overhead
of a tracer is the median over the rounds of its time minus the direct time of
the same round.

With --steady, it also runs the steady state of one application process per
tracer (bench/SpySteady.c: a fixed mix of eight calls, repeated, directly and
through the tracer in turn, in the same process): the overhead per PKCS#11
call and the write() calls per PKCS#11 call.

p11-kit's proxy loads every module its configuration names. To give it SoftHSM2
alone without touching the machine's configuration, run this script in a mount
namespace of its own (`unshare --mount --propagation private`) and pass
--private-mounts: the module directory is then replaced inside that namespace
only. Without it the p11-kit figure is left out.

Prints one JSON object on standard output.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so"
PKCS11_SPY = "/usr/lib/x86_64-linux-gnu/pkcs11/pkcs11-spy.so"
P11KIT_PROXY = "/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so"
P11KIT_MODULES = "/usr/share/p11-kit/modules"
SO_PIN = "27182818"
PIN = "31415926"
LABEL = "bench"


def log(message):
    print(f"spy workload: {message}", file=sys.stderr, flush=True)


class Bed:
    """A SoftHSM2 token store and everything the runs write, in one scratch
    directory removed at the end."""

    def __init__(self, spy):
        self.spy = spy
        self.dir = tempfile.mkdtemp(prefix="zelph-spy-bench.")
        self.tokens = os.path.join(self.dir, "tokens")
        os.mkdir(self.tokens)
        self.softhsm_conf = os.path.join(self.dir, "softhsm2.conf")
        with open(self.softhsm_conf, "w") as f:
            f.write(f"directories.tokendir = {self.tokens}\n"
                    "objectstore.backend = file\nlog.level = ERROR\n")
        self.logs = {"on": os.path.join(self.dir, "logs-on"),
                     "off": os.path.join(self.dir, "logs-off")}
        for side, logs in self.logs.items():
            os.mkdir(logs)
            with open(os.path.join(self.dir, f"zelph-{side}.conf"), "w") as f:
                f.write(f"Quillon {{\n\tEnableTrace = {1 if side == 'on' else 0}\n"
                        f"\tTrace = {logs}\n}}\nSpy {{\n\tModule = {SOFTHSM}\n}}\n")
        self.message = os.path.join(self.dir, "message.txt")
        with open(self.message, "w") as f:
            f.write("Signed by the zelph benchmark.\n")
        self.blob = os.path.join(self.dir, "blob.bin")
        with open(self.blob, "wb") as f:
            f.write(bytes(range(256)) * 2)

    def close(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def env(self, extra=None):
        env = dict(os.environ)
        env["SOFTHSM2_CONF"] = self.softhsm_conf
        for name in ("ZELPH_CONFFILE", "ZELPH_SPY_MODULE", "PKCS11SPY", "PKCS11SPY_OUTPUT"):
            env.pop(name, None)
        env.update(extra or {})
        return env

    def tool(self, module, args, env, stderr=subprocess.DEVNULL):
        result = subprocess.run(["pkcs11-tool", "--module", module] + args, env=env,
                                stdout=subprocess.DEVNULL, stderr=stderr)
        if result.returncode != 0:
            raise RuntimeError(f"pkcs11-tool {' '.join(args)} through {module} "
                               f"failed with {result.returncode}")

    def set_up_token(self):
        env = self.env()
        login = ["--token-label", LABEL, "--login", "--pin", PIN]
        self.tool(SOFTHSM, ["--init-token", "--label", LABEL, "--so-pin", SO_PIN], env)
        self.tool(SOFTHSM, ["--token-label", LABEL, "--login", "--login-type", "so",
                            "--so-pin", SO_PIN, "--init-pin", "--pin", PIN], env)
        self.tool(SOFTHSM, login + ["--keypairgen", "--key-type", "rsa:2048", "--id", "01",
                                    "--label", "signing key"], env)
        for i in range(8):
            self.tool(SOFTHSM, login + ["--keygen", "--key-type", "AES:32", "--id", f"1{i}",
                                        "--label", f"aes key {i}"], env)
        for i in range(30):
            self.tool(SOFTHSM, login + ["--write-object", self.blob, "--type", "data",
                                        "--label", f"data object {i}"], env)

    def workload(self, module, env, stderr=subprocess.DEVNULL):
        """Runs the workload through `module`; returns its wall-clock time."""
        login = ["--token-label", LABEL, "--login", "--pin", PIN]
        sign = login + ["--sign", "--mechanism", "SHA256-RSA-PKCS", "--id", "01",
                        "--input-file", self.message,
                        "--output-file", os.path.join(self.dir, "message.sig")]
        steps = [login + ["--list-objects"], sign, sign,
                 ["--token-label", LABEL, "--list-mechanisms"]]
        start = time.perf_counter()
        for args in steps:
            self.tool(module, args, env, stderr)
        return time.perf_counter() - start


def p11kit_modules(bed):
    """Replaces p11-kit's module directory, inside this mount namespace only,
    by one that names SoftHSM2 with call logging. False when it cannot."""
    modules = os.path.join(bed.dir, "p11-kit-modules")
    os.mkdir(modules)
    with open(os.path.join(modules, "softhsm2.module"), "w") as f:
        f.write(f"module: {SOFTHSM}\nlog-calls: yes\n")
    result = subprocess.run(["mount", "--bind", modules, P11KIT_MODULES],
                            stderr=subprocess.DEVNULL)
    return result.returncode == 0


def quartiles(samples):
    """The first and third quartiles of `samples`."""
    q = statistics.quantiles(samples, n=4)
    return [q[0], q[2]]


def steady(bed, configs, program, rounds, iterations, real=SOFTHSM):
    """Per-call figures of the steady state: one process per tracer, with the
    direct way to `real` and the tracer's interleaved in it (see
    bench/SpySteady.c)."""
    result = {"rounds": rounds, "iterations": iterations, "module_ns_per_call": {},
              "overhead_ns_per_call": {}, "overhead_spread": {}, "writes_per_call": {}}
    # "direct" against itself: the noise floor of the measure.
    for name, (module, env, stderr_path) in configs.items():
        log(f"steady state through {name}: {rounds} rounds of {iterations} x 8 calls each way")
        with open(stderr_path or os.devnull, "w") as stderr:
            run = subprocess.run([program, real, module, PIN, str(rounds), str(iterations)],
                                 env=env, stdout=subprocess.PIPE, stderr=stderr)
        if run.returncode != 0:
            raise RuntimeError(f"{os.path.basename(program)} through {name} failed with "
                               f"{run.returncode}")
        row = json.loads(run.stdout)
        result["module_ns_per_call"][name] = row["module_ns_per_call"]
        result["overhead_ns_per_call"][name] = statistics.median(row["overhead_ns_per_call"])
        result["overhead_spread"][name] = quartiles(row["overhead_ns_per_call"])
        result["writes_per_call"][name] = row["writes_per_call"]
        light = row["light_overhead_ns_per_call"]
        result.setdefault("light_overhead_ns_per_call", {})[name] = statistics.median(light)
        result.setdefault("light_overhead_spread", {})[name] = quartiles(light)
    for logs in bed.logs.values():
        for entry in os.listdir(logs):
            os.remove(os.path.join(logs, entry))
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--spy", required=True, help="libzelphspy.so to measure")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--private-mounts", action="store_true",
                        help="this process runs in a mount namespace of its own")
    parser.add_argument("--steady", metavar="PROGRAM",
                        help="the steady-state program (zelph_spy_steady) to run as well")
    parser.add_argument("--steady-rounds", type=int, default=101)
    parser.add_argument("--steady-iterations", type=int, default=20)
    parser.add_argument("--null-module",
                        help="a module that does no work (zelph_null_pkcs11), for the steady "
                             "state of the tracers' own cost")
    args = parser.parse_args()

    bed = Bed(os.path.abspath(args.spy))
    try:
        log("setting up a SoftHSM2 token with 40 objects")
        bed.set_up_token()
        p11kit_log = os.path.join(bed.dir, "p11-kit.log")
        spy_log = os.path.join(bed.dir, "pkcs11-spy.log")
        configs = {
            "direct": (SOFTHSM, bed.env(), None),
            "zelph-on": (bed.spy, bed.env({"ZELPH_CONFFILE":
                                           os.path.join(bed.dir, "zelph-on.conf")}), None),
            "zelph-off": (bed.spy, bed.env({"ZELPH_CONFFILE":
                                            os.path.join(bed.dir, "zelph-off.conf")}), None),
            "pkcs11-spy": (PKCS11_SPY, bed.env({"PKCS11SPY": SOFTHSM,
                                                "PKCS11SPY_OUTPUT": spy_log}), None),
        }
        if args.private_mounts and os.path.exists(P11KIT_PROXY) and p11kit_modules(bed):
            configs["p11-kit"] = (P11KIT_PROXY, bed.env(), p11kit_log)
        else:
            log("p11-kit's proxy left out: it needs a mount namespace of its own")

        times = {name: [] for name in configs}
        names = list(configs)
        log(f"{args.rounds} rounds of {', '.join(names)}")
        for round_index in range(args.rounds + 1):
            shift = round_index % len(names)
            for name in names[shift:] + names[:shift]:
                module, env, stderr_path = configs[name]
                if stderr_path:
                    with open(stderr_path, "w") as stderr:
                        elapsed = bed.workload(module, env, stderr)
                else:
                    elapsed = bed.workload(module, env)
                if round_index > 0:  # the first round only warms the caches
                    times[name].append(elapsed)
            if round_index == 0:
                check_logs(bed, spy_log, p11kit_log if "p11-kit" in configs else None)
            for logs in bed.logs.values():
                for entry in os.listdir(logs):
                    os.remove(os.path.join(logs, entry))
            if os.path.exists(spy_log):
                os.remove(spy_log)

        result = {"rounds": args.rounds, "median_ms": {}, "overhead_ms": {},
                  "overhead_spread_ms": {}}
        for name, samples in times.items():
            result["median_ms"][name] = statistics.median(samples) * 1e3
            if name != "direct":
                deltas = [(t - d) * 1e3 for t, d in zip(samples, times["direct"])]
                result["overhead_ms"][name] = statistics.median(deltas)
                result["overhead_spread_ms"][name] = quartiles(deltas)
        if args.steady:
            program = os.path.abspath(args.steady)
            result["steady"] = steady(bed, configs, program, args.steady_rounds,
                                      args.steady_iterations)
        if args.steady and args.null_module:
            null = os.path.abspath(args.null_module)
            # The same mix in front of a module that does no work: only the
            # tracers' own cost is left (p11-kit's proxy is set up for SoftHSM2).
            spy_log_null = os.path.join(bed.dir, "pkcs11-spy-null.log")
            null_configs = {
                "direct": (null, bed.env(), None),
                "zelph-on": (bed.spy, bed.env({
                    "ZELPH_CONFFILE": os.path.join(bed.dir, "zelph-on.conf"),
                    "ZELPH_SPY_MODULE": null}), None),
                "zelph-off": (bed.spy, bed.env({
                    "ZELPH_CONFFILE": os.path.join(bed.dir, "zelph-off.conf"),
                    "ZELPH_SPY_MODULE": null}), None),
                "pkcs11-spy": (PKCS11_SPY, bed.env({"PKCS11SPY": null,
                                                    "PKCS11SPY_OUTPUT": spy_log_null}), None),
            }
            result["steady_null"] = steady(bed, null_configs, program, args.steady_rounds,
                                           args.steady_iterations * 10, real=null)
        print(json.dumps(result, indent=2))
    finally:
        bed.close()


def check_logs(bed, spy_log, p11kit_log):
    """Each tracer must really have traced (and ours with tracing off not)."""
    on = "".join(open(os.path.join(bed.logs["on"], f), errors="replace").read()
                 for f in os.listdir(bed.logs["on"]))
    if "Entering C_Sign." not in on:
        raise RuntimeError("our spy with tracing on wrote no C_Sign")
    if os.listdir(bed.logs["off"]):
        raise RuntimeError("our spy with tracing off wrote a log")
    if "C_Sign" not in open(spy_log, errors="replace").read():
        raise RuntimeError("pkcs11-spy wrote no C_Sign")
    if p11kit_log and "C_Sign" not in open(p11kit_log, errors="replace").read():
        raise RuntimeError("p11-kit wrote no C_Sign")


if __name__ == "__main__":
    try:
        main()
    except RuntimeError as error:
        log(str(error))
        sys.exit(1)
