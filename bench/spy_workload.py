#!/usr/bin/env python3
"""The same pkcs11-tool workload against SoftHSM2, run directly and through
each PKCS#11 tracer: our spy with tracing on and off, OpenSC's pkcs11-spy and
p11-kit's proxy with log-calls.

The workload lists the objects of a token holding 40 objects, signs twice and
lists the mechanisms, each step a pkcs11-tool process. Rounds run every
configuration once, in an order that rotates from round to round; the overhead
of a tracer is the median over the rounds of its time minus the direct time of
the same round.

With --steady, each round also runs the steady state of one application
process (bench/SpySteady.c: a fixed mix of eight calls, repeated) through every
configuration: the overhead per PKCS#11 call and the write() calls per
PKCS#11 call.

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


def steady_run(program, module, env, stderr_path, iterations):
    """One steady-state process; returns its JSON line as a dict."""
    with open(stderr_path or os.devnull, "w") as stderr:
        result = subprocess.run([program, module, PIN, str(iterations)], env=env,
                                stdout=subprocess.PIPE, stderr=stderr)
    if result.returncode != 0:
        raise RuntimeError(f"{os.path.basename(program)} through {module} failed with "
                           f"{result.returncode}")
    return json.loads(result.stdout)


def steady(bed, configs, program, rounds, iterations):
    """Per-call figures of the steady state, rounds interleaved as above."""
    names = list(configs)
    log(f"steady state: {rounds} rounds of {iterations} x 8 calls through {', '.join(names)}")
    per_call = {name: [] for name in names}
    writes = {}
    for round_index in range(rounds + 1):
        shift = round_index % len(names)
        for name in names[shift:] + names[:shift]:
            module, env, stderr_path = configs[name]
            row = steady_run(program, module, env, stderr_path, iterations)
            if round_index > 0:
                per_call[name].append(row["ns_per_call"])
            writes[name] = row["writes_per_call"]
        for logs in bed.logs.values():
            for entry in os.listdir(logs):
                os.remove(os.path.join(logs, entry))
    result = {"rounds": rounds, "iterations": iterations, "ns_per_call": {},
              "overhead_ns_per_call": {}, "overhead_spread": {}, "writes_per_call": writes}
    for name, samples in per_call.items():
        result["ns_per_call"][name] = statistics.median(samples)
        if name != "direct":
            deltas = [t - d for t, d in zip(samples, per_call["direct"])]
            result["overhead_ns_per_call"][name] = statistics.median(deltas)
            result["overhead_spread"][name] = quartiles(deltas)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--spy", required=True, help="libzelphspy.so to measure")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--private-mounts", action="store_true",
                        help="this process runs in a mount namespace of its own")
    parser.add_argument("--steady", metavar="PROGRAM",
                        help="the steady-state program (zelph_spy_steady) to run as well")
    parser.add_argument("--steady-rounds", type=int, default=51)
    parser.add_argument("--steady-iterations", type=int, default=100)
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
            result["steady"] = steady(bed, configs, os.path.abspath(args.steady),
                                      args.steady_rounds, args.steady_iterations)
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
