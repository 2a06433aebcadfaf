"""Fuzzing, sanitizers, valgrind, and what is true of the build."""

import hashlib
import json
import os
import re
import shutil
import subprocess
import time

from common import (ROOT, Outcome, Unavailable, ask, get, line, make_program, run, status_of)

COUNTS = ROOT / "fuzz" / "executions.json"


def fuzz(target, seconds, counted):
    """Runs one target and adds its executions to the file; the count, and what it found."""
    shared = ROOT / "build" / "dev" / "fuzz"  # the tests' own, where they have been run
    environment = {**os.environ, **({"DOVMAD_FUZZ_BUILD": str(shared)} if shared.is_dir() else {})}
    done = run(ROOT / "script" / "fuzz", target, str(seconds), timeout=seconds + 900, cwd=ROOT,
               env=environment)
    match = re.search(r"number_of_executed_units: (\d+)", done.stdout)
    count = int(match[1]) if match else 0
    counts = json.loads(COUNTS.read_text())
    counts[target] = counts.get(target, 0) + count
    if counted:
        COUNTS.write_text(json.dumps(dict(sorted(counts.items())), indent=1) + "\n")
    return count, "" if done.returncode == 0 else done.stdout[-300:]


def fuzz_targets():
    return sorted(path.stem.removeprefix("fuzz_") for path in (ROOT / "fuzz").glob("fuzz_*.cc"))


@line("fuzz", "every parser 100 M executions in all, the engine 10 M; 0 findings", 2, 240)
def fuzzing(amount, place):
    if not shutil.which("clang++"):
        raise Unavailable("clang is not installed")
    targets, found, now = fuzz_targets(), [], 0
    if place.quick:  # another two in every run
        start = int(time.time() // 3600) % len(targets)
        targets = (targets + targets)[start:start + 2]
    for target in targets:
        count, problem = fuzz(target, amount, not place.quick)
        now += count
        if problem:
            found.append(f"{target}: {problem}")
    counts = json.loads(COUNTS.read_text())
    short = [name for name in fuzz_targets()
             if counts.get(name, 0) < (10_000_000 if name == "engine" else 100_000_000)]
    least = min(fuzz_targets(), key=lambda name: counts.get(name, 0))
    # Executions add up over runs: what is still missing is told, and is no failure of this run.
    return Outcome(not found, f"{len(targets)} targets, {now / 1e6:.2f} M executions now, "
                   f"{sum(counts.values()) / 1e6:.1f} M in all, {len(found)} findings; partial: "
                   f"{len(short)} of {len(fuzz_targets())} targets below their number, least "
                   f"{least} with {counts.get(least, 0) / 1e6:.2f} M"
                   + "".join(f"; {text}" for text in found[:2]))


@line("threads", "10 minutes of the threads under ThreadSanitizer: 0 reports", 4, 600)
def threads(amount, place):
    build = ROOT / "build" / "tsan"
    names = ["background_test", "resolver_test", "state_writer_test"]
    done = run("cmake", "--preset", "tsan", cwd=ROOT)
    if done.returncode == 0:
        done = run("cmake", "--build", "--preset", "tsan", "--target", *names, cwd=ROOT, timeout=1800)
    if done.returncode != 0:
        return Outcome(False, done.stdout[-300:])
    start, runs, bad = time.monotonic(), 0, []
    while time.monotonic() - start < amount:
        for name in names:
            program = build / "tests" / "core" / name
            done = run(program, cwd=place.folder, timeout=300)
            runs += 1
            if done.returncode != 0 or "ThreadSanitizer" in done.stdout:
                bad.append(f"{name}: {done.stdout[-200:]}")
    return Outcome(not bad, f"{runs} runs of {len(names)} programs in "
                   f"{time.monotonic() - start:.0f} s: {len(bad)} with reports"
                   + "".join(f"; {text}" for text in bad[:2]))


@line("valgrind", "the daemon under valgrind through its features: 0 errors, 0 bytes lost", 1, 20)
def valgrind(amount, place):
    if not shutil.which("valgrind"):
        raise Unavailable("valgrind is not installed")
    domain = place.folder / "domain"
    domain.write_text("keeper::keeper:Linux:6.1:x86_64:plx\n")
    schedule = place.folder / "schedule"
    schedule.write_text("job - * * * * * /bin/true\n")
    daemon = place.make(start=False, domain_file=domain, scheduler_file=schedule,
                        cgi_extensions=".cgi", ssi_extensions=".shtml")
    (daemon.root / "operator").mkdir()
    (daemon.root / "page").write_text("the page\n")
    (daemon.root / "s.shtml").write_text('<!--#exec "echo ran" --><!--#include "page" -->')
    make_program(daemon.root / "p.cgi", "printf 'Content-Type: text/plain\\n\\n'\ncat\n")
    report = place.folder / "valgrind.txt"
    with open(daemon.stderr_file, "ab") as stderr:
        process = subprocess.Popen(
            ["valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
             "--errors-for-leak-kinds=definite", f"--log-file={report}", "--child-silent-after-fork=yes",
             os.environ["DOVMAD_BINARY"], str(daemon.config)], env=daemon.env, stderr=stderr,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    daemon.process, daemon.expected_end = process, False
    deadline = time.monotonic() + 120
    while time.monotonic() < deadline:
        try:
            daemon.connect().close()
            break
        except OSError:
            time.sleep(0.2)
    requests = [get("/page"), get("/page", "Range: bytes=1-4"), get("/none"), get("/"),
                get("/up", method="PUT", body=b"x" * 30000), get("/up", method="DELETE"),
                get("/p.cgi", method="POST", body=b"b" * 500), get("/s.shtml"), b"NONSENSE\r\n\r\n",
                get("/http://127.0.0.1:1/x"), get("/https://127.0.0.1:1/x"), get("/hob://x"),
                get("/agent/domain/register", method="POST", body=b"id=a&host=b"),
                get("/agent/domain/enum?format=json"),
                get("/agent/domain/report", method="POST", body=b"id=keeper&freq=9"),
                get("/agent/domain/unregister", method="POST", body=b"id=a"),
                get("/admin/security/grant?user=u&role=operator&type=user"),
                get("/admin/security/deny?user=u&role=operator&type=user"),
                get("/admin/security/reset", method="POST", body=b"x=1"),
                get("/admin/sched/rescan"), get("/admin/sched/dump"), get("/world/getvitals")]
    answered = 0
    for _ in range(amount):
        for data in requests:
            for tls in (False, True):
                text = data.replace(b"\r\nHost", b"\r\nConnection: close\r\nHost", 1)
                # What is no request gets no answer: it is not waited for.
                patience = 1 if text.startswith(b"NONSENSE") else 60
                answered += status_of(ask(daemon, text, patience, tls)) > 0
    process.terminate()
    status = process.wait(120)
    process.stdout.close()
    daemon.expected_end = True
    # Lines that begin with "--" are about valgrind itself, such as calls newer than it.
    text = "\n".join(row for row in (report.read_text() if report.exists() else "").splitlines()
                     if not row.startswith("--"))
    return Outcome(status == 0 and not text.strip() and answered > 0,
                   f"{amount * 2 * len(requests)} requests, {answered} answered, exit {status}, "
                   f"{len(re.findall('== at |lost', text))} reports" + (
                       f": {text[-1500:]}" if text.strip() else ""))


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
