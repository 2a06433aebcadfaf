"""Fuzzing, sanitizers, valgrind, and what is true of the build."""

import contextlib
import hashlib
import json
import os
import re
import shutil
import sys
import time

import dovmad_harness as harness
import load
import torture
from common import ROOT, Outcome, Unavailable, ask, get, line, literal, make_program, run

COUNTS = ROOT / "fuzz" / "executions.json"


def script_fuzz(*arguments, timeout=900, counted=False):
    shared = ROOT / "build" / "dev" / "fuzz"  # the tests' own, where they have been run
    environment = {**os.environ, **({"DOVMAD_FUZZ_BUILD": str(shared)} if shared.is_dir() else {}),
                   **({} if counted else {"DOVMAD_FUZZ_UNCOUNTED": "1"})}
    return run(ROOT / "script" / "fuzz", *arguments, timeout=timeout, cwd=ROOT, env=environment)


def fuzz_goal(target):
    """Parsers take no time; these drive whole connections."""
    return 10_000_000 if target in ("engine", "channel") else 100_000_000


@line("fuzz", "every parser 100 M executions in all, the engine and TLS channels 10 M; 0 findings", 2, 240,
      piece=4)
def fuzzing(amount, place):
    if not shutil.which("clang++"):
        raise Unavailable("clang is not installed")
    known = script_fuzz("list").stdout.split()
    runs, found, now = [(kind, target) for target in known for kind in ((), ("fast",))], [], 0
    if place.quick:  # another two in every run
        start = int(time.time() // 3600) % len(known)
        runs = [((), target) for target in (known + known)[start:start + 2]]
    for kind, target in runs:
        done = script_fuzz(*kind, target, str(amount), timeout=amount + 3000, counted=not place.quick)
        now += int((re.search(r": +(\d+) runs", done.stdout) or [0, 0])[1])
        if done.returncode != 0:
            found.append(f"{target}: {done.stdout[-300:]}")
    counts = {name: 0 for name in known} | json.loads(COUNTS.read_text())
    short = [name for name in known if counts[name] < fuzz_goal(name)]
    least = min(known, key=lambda name: counts[name] / fuzz_goal(name))
    # Executions add up over runs: what is still missing is told, and is no failure of this run.
    partial = (f"; partial: {len(short)} of {len(known)} targets below their number, least {least} "
               f"with {counts[least] / 1e6:.2f} M" if short else "")
    return Outcome(not found, f"{len({target for _, target in runs})} targets, {{now:,}} executions now, "
                   f"{sum(counts.values()) / 1e6:.1f} M in all, {len(found)} findings{partial}"
                   + "".join(f"; {literal(text)}" for text in found[:2]), {"now": now}, bool(short))


# What has threads, by the folder of its test programs.
THREADED = {"core": ("background_test", "resolver_test", "state_writer_test"),
            "shim": ("shim_test_O2",), "lib": ("lib.replace_file",)}


# This sanitizer makes a fork of each vfork, so children hold what the daemon has closed meanwhile. Such
# a stray is taken out of the wait by its number, which may be another thread's by then: the kernel
# says that the number is in no wait, and the wait is made anew.
BENIGN = "race:take_out_stray\n"


@contextlib.contextmanager
def other_daemon(binary, provider=None):
    """Daemons that are made meanwhile are of this program."""
    before = harness.BINARY, harness.PROVIDER
    harness.BINARY, harness.PROVIDER = str(binary), str(provider or harness.PROVIDER)
    try:
        yield
    finally:
        harness.BINARY, harness.PROVIDER = before


@line("threads", "10 minutes of the library's monitor and locks, the resolver, the writer and a daemon "
      "under load, under ThreadSanitizer: 0 reports but one that is known", 4, 600, piece=120)
def threads(amount, place):
    build = ROOT / "build" / "tsan"
    programs = {name: build / "tests" / folder / name for folder, names in THREADED.items()
                for name in names if folder == "core" or not place.quick}
    # The INI store's has the sanitizer built in.
    programs["lib.ini_threads"] = place.build / "tests" / "lib" / "lib.ini_threads"
    some = [] if place.quick else ["dovmad_under_test", "molbat_provider"]
    for words in (["--preset", "tsan"],
                  ["--build", "--preset", "tsan", "--target", *list(programs)[:-1], *some],
                  ["--build", place.build, "--target", "lib.ini_threads"]):
        done = run("cmake", *words, cwd=ROOT, timeout=3000)
        if done.returncode != 0:
            return Outcome(False, literal(done.stdout[-300:]))
    start, runs, bad, requests = time.monotonic(), 0, [], 0
    (place.folder / "benign").write_text(BENIGN)
    os.environ["TSAN_OPTIONS"] = f"suppressions={place.folder}/benign print_suppressions=0"
    if not place.quick:
        with other_daemon(build / "tests" / "support" / "dovmad_under_test",
                          build / "provider" / "libmolbat4L_t.so"):
            mixed = load.Mixed(place)
            mixed.go(seconds=amount / 2)
            status, requests = mixed.daemon.stop(), mixed.done
        said = mixed.daemon.stderr_text()
        if status != 0 or mixed.wrong or "ThreadSanitizer" in said:
            bad.append(f"the daemon: {status} {mixed.wrong[:1]} {said[-400:]}")
    while time.monotonic() - start < amount:
        for name, program in programs.items():
            done = run(program, cwd=place.folder, timeout=300)
            runs += 1
            if done.returncode != 0 or "ThreadSanitizer" in done.stdout:
                bad.append(f"{name}: {done.stdout[-200:]}")
    return Outcome(not bad, f"{len(programs)} programs, {{runs}} runs, a daemon through {{requests}} "
                   "requests, {seconds} s: {bad} with reports"
                   + "".join(f"; {literal(text)}" for text in bad[:2]),
                   {"runs": runs, "requests": requests, "bad": len(bad),
                    "seconds": round(time.monotonic() - start)})


# The C library's own tidying at the end loses what a resolver's thread still holds.
VALGRIND = """#!/bin/sh
exec valgrind --quiet --vgdb=no --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \\
    --errors-for-leak-kinds=definite --run-libc-freeres=no --log-file={folder}/%p.txt \\
    --child-silent-after-fork=yes {binary} "$@"
"""
E2E = ("engine", "world", "cgi", "dir", "ssi", "proxy", "hob", "domain", "rights", "sched", "auth",
       "log", "startup")


def valgrind_reports(folder):
    """What valgrind had to say; lines that begin with "--" are about itself."""
    texts = {path.name: "\n".join(row for row in path.read_text(errors="replace").splitlines()
                                  if not row.startswith("--")) for path in folder.glob("*.txt")}
    return [text for text in texts.values() if text.strip()], len(texts)


@line("valgrind", "valgrind over the torture's scenarios and the end-to-end tests of the daemon: 0 "
      "reports", 1, 1 + len(E2E), piece=1)
def valgrind(_, place):
    if not shutil.which("valgrind"):
        raise Unavailable("valgrind is not installed")
    folder, answered, ends, tests, failed = place.folder / "valgrind", 0, [0], 0, 0
    folder.mkdir()
    program = make_program(place.folder / "daemon", "")
    program.write_text(VALGRIND.format(folder=folder, binary=os.environ["DOVMAD_BINARY"]))
    if place.done == 0:
        with other_daemon(program):
            answered, ends = torture.once(place)
    else:
        # What needs more speed than valgrind leaves fails: it is counted, and no fault of the daemon.
        done = run(sys.executable, "-B", "-m", "pytest", "-q", "--no-header", "-p", "no:cacheprovider",
                   ROOT / "tests" / "e2e" / f"test_{E2E[place.done - 1]}.py", timeout=1800,
                   env={**os.environ, "DOVMAD_BINARY": str(program)})
        tests = sum(map(int, re.findall(r"(\d+) passed", done.stdout)))
        failed = sum(map(int, re.findall(r"(\d+) failed", done.stdout)))
    reports, daemons = valgrind_reports(folder)
    return Outcome(not reports and not any(ends) and (answered or tests) > 0,
                   "{answered} requests of the scenarios, {tests} tests and {failed} that were too slow, "
                   "{daemons} processes: {reports} with reports"
                   + "".join(f": {literal(text[-1500:])}" for text in reports[:1]),
                   {"answered": answered, "tests": tests, "failed": failed, "daemons": daemons,
                    "reports": len(reports)})


def products(build):
    return {name: build / path for name, path in
            (("dovmad", "core/dovmad"), ("dovmad-user", "provider/dovmad-user"),
             ("dovmad-check", "check/dovmad-check"), ("library", "provider/libmolbat4L_t.so"))}


@line("hardening", "all binaries: PIE, full RELRO, stack protector, fortified, no executable stack", 1, 1)
def hardening(_, place):
    missing = []
    for name, path in products(place.build).items():
        text = run("readelf", "-W", "-h", "-l", "-d", "--dyn-syms", path).stdout
        # An object without arrays on the stack, or without a call that can be checked, has no sign.
        checks = {"PIE": "DYN" in text, "RELRO": "GNU_RELRO" in text, "NOW": "BIND_NOW" in text
                  or "Flags: NOW" in text, "canary": "__stack_chk_fail" in text,
                  "FORTIFY": re.search(r"_chk(@|$)", text, re.M) is not None,
                  "NX": re.search(r"GNU_STACK.*RWE", text) is None}
        missing += [f"{name}: {check}" for check, good in checks.items() if not good]
    return Outcome(not missing, "; ".join(missing) or f"{len(products(place.build))} binaries, all")


@line("exposure", "every service unit at most 1.5", 1, 1)
def exposure(_, place):
    if not shutil.which("systemd-analyze"):
        raise Unavailable("systemd-analyze is not installed")
    scores = {}
    for unit in sorted((ROOT / "packaging" / "systemd").glob("*.service*")):
        # As it is installed, but for the place of the programs.
        text = re.sub(r"@CMAKE_INSTALL_FULL_\w+@", "/usr/sbin", unit.read_text())
        if "ExecStart" not in text:
            continue
        copy = place.folder / unit.name.removesuffix(".in")
        copy.write_text(text)
        done = run("systemd-analyze", "security", "--offline=true", "--no-pager", copy)
        match = re.search(r"Overall exposure level for \S+ ([\d.]+)", done.stdout.replace(":", ""))
        scores[copy.name] = float(match[1]) if match else 10.0
    if not scores:
        raise Unavailable("no unit can be scored as it lies in the tree")
    return Outcome(max(scores.values()) <= 1.5,
                   ", ".join(f"{name} {score}" for name, score in scores.items()))


@line("reproducible", "builds in two folders are the same to the byte", 1, 2)
def reproducible(amount, place):
    """The whole build; `quick` compares a few objects only."""
    some = ["core/CMakeFiles/dovmad_main.dir/standalone.cc.o"]
    sums = []
    environment = {**os.environ, "CCACHE_DISABLE": "1"}
    environment.pop("CMAKE_CXX_COMPILER_LAUNCHER", None)
    for name in ("one", "another-folder"):
        source = place.folder / name
        source.mkdir()
        files = run("git", "ls-files", cwd=ROOT).stdout.split()
        for path in files:
            if (ROOT / path).is_file():
                (source / path).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / path, source / path)
        build = source / "build"
        done = run("cmake", "-S", source, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                   "-DDOVMAD_TESTS=OFF", env=environment)
        if amount == 1:
            listed = run("ninja", "-C", build, "-t", "targets", "all").stdout
            some = sorted(re.findall(r"^(\S+(?:channel|tls_files|standalone)\.cc\.o):", listed, re.M))
            done = run("ninja", "-C", build, *some, env=environment, timeout=1200)
            made = [build / path for path in some]
        else:
            done = run("ninja", "-C", build, "dovmad", "dovmad-user", "dovmad-check",
                       "molbat_provider", env=environment, timeout=3600)
            made = list(products(build).values())
        if done.returncode != 0:
            return Outcome(False, done.stdout[-300:])
        sums.append([hashlib.sha256(path.read_bytes()).hexdigest() for path in made])
    different = sum(a != b for a, b in zip(*sums))
    what = "objects" if amount == 1 else "binaries"
    return Outcome(different == 0 and len(sums[0]) > 0,
                   f"{len(sums[0])} {what}, {different} differ")


@line("sizes", "stated: sizes of the binaries without symbols, memory of an idle daemon", 1, 1)
def sizes(_, place):
    figures = []
    for name, path in products(place.build).items():
        stripped = place.folder / name
        shutil.copy2(path, stripped)
        run("strip", stripped)
        figures.append(f"{name} {stripped.stat().st_size // 1024} KiB")
    daemon = place.make()
    ask(daemon, get("/world/ping"))
    memory = daemon.rss_kib()
    daemon.stop()
    return Outcome(memory < 32 << 10, ", ".join(figures) + f"; idle {memory / 1024:.1f} MiB")
