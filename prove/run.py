"""The score-sheet: runs its lines, prints one row for each, and keeps docs/reliability.md.

    script/prove [quick|full|list] [--jobs N] [--minutes N] [--again] [LINE ...]

`quick` (the default) gives each line a small amount of work, and a second one, alone, to those that
fail; `full` the whole one, for at most eight hours or as many minutes as are said: begun pieces are
finished, and a later call goes on. N lines run at a time, by default one for each of at most two
processors; those that measure times run alone, last, and with more priority than others where that is
allowed.

What `full` has seen stays in the build folder, and each line's row tells the commit that it measured:
the last one that changed the product (PRODUCT, the folders that the binaries are made of). Without
names `full` runs the lines that have not passed at this one; `--again` runs all. Lines that are run
in pieces add up over calls as long as the product is the same. "script/prove list" names the lines.
"""

import argparse
import concurrent.futures
import contextlib
import dataclasses
import fcntl
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time
import traceback
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "prove"
STATE = BUILD / "state.json"
TABLE = ROOT / "docs" / "reliability.md"
FULL_LIMIT_MINUTES = 8 * 60
PRODUCT = ("CMakeLists.txt", "check", "cmake", "console", "core", "domain", "handlers", "lib",
           "provider", "sched", "security")
BEGIN, END = "<!-- written by script/prove full -->\n", "<!-- end -->\n"

os.environ |= {"DOVMAD_BINARY": str(BUILD / "tests/support/dovmad_under_test"),
               "DOVMAD_CHECK": str(BUILD / "tests/support/dovmad_check_under_test"),
               "DOVMAD_PROVIDER": str(BUILD / "provider/libmolbat4L_t.so"),
               "DOVMAD_USER_TOOL": str(BUILD / "provider/dovmad-user"),
               "DOVMAD_FAST_CLOCK": str(BUILD / "tests/support/libfast_clock.so")}
sys.path[:0] = [str(ROOT / "prove"), str(ROOT / "tests" / "e2e"), str(ROOT / "bench")]

import common  # noqa: E402
import state  # noqa: E402,F401
import torture  # noqa: E402,F401
import load  # noqa: E402,F401
import crowd  # noqa: E402,F401
import moments  # noqa: E402,F401
import tools  # noqa: E402,F401


def machine():
    memory = next((line.split()[1] for line in open("/proc/meminfo", encoding="ascii")
                   if line.startswith("MemTotal")), "0")
    files = common.run("findmnt", "-no", "FSTYPE", "-T", tempfile.gettempdir()).stdout.split()
    return (f"{os.cpu_count()} cores of {platform.machine()}, {int(memory) >> 20} GiB, "
            f"Linux {platform.release().split('-')[0]}, files on {files[0] if files else '?'}")


def git(*words):
    return common.run("git", *words, cwd=ROOT).stdout.strip()


def commit():
    """The last commit that changed the product; what changed elsewhere makes no other binaries."""
    dirty = "-dirty" if git("status", "--porcelain", "--", *PRODUCT) else ""
    return git("log", "-1", "--format=%h", "--abbrev=10", "--", *PRODUCT) + dirty


COMMIT = commit()


def run_piece(line, amount, quick, done=0):
    # Short: paths of Unix sockets lie below it.
    folder = Path(tempfile.mkdtemp(prefix="prove-"))
    place = common.Place(folder, BUILD, quick, done)
    try:
        return line.run(amount, place)
    except common.Unavailable as why:
        return why
    except Exception as problem:  # whatever a line stumbles over is its result
        traceback.print_exc()
        return common.Outcome(False, common.literal(f"{type(problem).__name__}: {problem}"[:400]))
    finally:
        place.close()
        shutil.rmtree(folder, ignore_errors=True)


def add_piece(known, line, amount, outcome, seconds, whole):
    """The line's result with that of another piece of work."""
    result = {"seconds": known.get("seconds", 0) + round(seconds), "date": time.strftime("%Y-%m-%d"),
              "commit": COMMIT, "machine": machine(), "done": known.get("done", 0),
              "counts": known.get("counts", {})}
    if isinstance(outcome, common.Unavailable):
        return {**result, "verdict": "NOT RUN", "figure": str(outcome)}
    if outcome.good:
        result["done"] += amount
        result["counts"] = common.add_counts(result["counts"], outcome.counts)
    figure = " ".join(outcome.figure.format_map({**result["counts"], **(
        {} if outcome.good else outcome.counts)}).split())
    part = result["done"] < whole
    few = whole == line.full and any(result["counts"].get(name, 0) < number
                                     for name, number in line.least.items())
    if not outcome.good:
        verdict = "FAIL"
    elif part or few or outcome.partial:
        verdict = "partial"
        figure = (f"partial: {result['done']:,} of {whole:,}; " if part else "") + figure
    else:
        verdict = "pass"
    return {**result, "verdict": verdict, "figure": figure}


def say(name, result):
    print(f"{result['verdict']:<8} {name:<20} {result['seconds']:>5} s  {result['figure']}\n"
          f"{'':<8} {'':<20} {'':>7}  target: {common.LINES[name].target}", flush=True)


def quick_line(name):
    line, start = dataclasses.replace(common.LINES[name], least={}), time.monotonic()
    outcome = run_piece(line, line.quick, True)
    result = add_piece({}, line, line.quick, outcome, time.monotonic() - start, line.quick)
    say(name, result)
    return result


@contextlib.contextmanager
def kept_results():
    """The results of all calls, several of which may go on at a time."""
    STATE.parent.mkdir(parents=True, exist_ok=True)
    with open(STATE.with_suffix(".lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        results = json.loads(STATE.read_text()) if STATE.exists() else {}
        yield results
        STATE.write_text(json.dumps(results, indent=1))


def full_line(name, again, deadline):
    """All pieces of a line that are missing, while there is time."""
    line = common.LINES[name]
    with kept_results() as results:
        known = results.get(name, {})
    if again or known.get("commit") != COMMIT or known.get("done", 0) >= line.full:
        known = {}
    result = None
    while time.monotonic() < deadline:
        start, amount = time.monotonic(), min(line.piece, line.full - known.get("done", 0))
        outcome = run_piece(line, amount, False, known.get("done", 0))
        result = known = add_piece(known, line, amount, outcome, time.monotonic() - start, line.full)
        with kept_results() as results:
            results[name] = result
            write_table(results)
        if result["verdict"] != "partial" or result["done"] >= line.full:
            break
    if result is None:
        print(f"{name:<20} left for the next call", flush=True)
        return known
    say(name, result)
    return result


def write_table(results):
    rows = ["| line | target | figure | verdict | date, commit | took |",
            "|---|---|---|---|---|---|"]
    for name, line in common.LINES.items():
        result = results.get(name)
        if result is None:
            rows.append(f"| {name} | {line.target} | - | NOT RUN | - | - |")
            continue
        figure = result["figure"].replace("|", "/")
        rows.append(f"| {name} | {line.target} | {figure} | {result['verdict']} | "
                    f"{result['date']}, {result['commit']} | {result['seconds']} s |")
    machines = sorted({result["machine"] for result in results.values()})
    text = f"Measured on {'; '.join(machines)}.\n\n" + "\n".join(rows) + "\n"
    old = TABLE.read_text()
    before, rest = old.split(BEGIN, 1)
    TABLE.write_text(before + BEGIN + text + END + rest.split(END, 1)[1])


def arguments():
    parser = argparse.ArgumentParser(prog="script/prove", usage="script/prove [quick|full|list] "
                                     "[--jobs N] [--minutes N] [--again] [LINE ...]")
    parser.add_argument("--jobs", type=int, default=min(2, os.cpu_count() or 1))
    parser.add_argument("--minutes", type=float, default=FULL_LIMIT_MINUTES)
    parser.add_argument("--again", action="store_true")
    parser.add_argument("words", nargs="*")
    options = parser.parse_args()
    words = options.words
    options.mode = words.pop(0) if words and words[0] in ("quick", "full", "list") else "quick"
    unknown = [word for word in words if word not in common.LINES]
    if unknown:
        sys.exit(f"no such line: {', '.join(unknown)}; script/prove list names them")
    return options


def chosen(options):
    if options.words or options.mode == "quick" or options.again:
        return [name for name in common.LINES if not options.words or name in options.words]
    with kept_results() as results:
        return [name for name in common.LINES if results.get(name, {}).get("verdict") != "pass"
                or results[name]["commit"] != COMMIT]


def come_first():
    """More priority for what measures times, where that is allowed, also to its session as a whole."""
    with contextlib.suppress(OSError):
        os.setpriority(os.PRIO_PROCESS, 0, -20)
        os.setsid()
        Path("/proc/self/autogroup").write_text("-20")


def main():
    options = arguments()
    if options.mode == "list":
        for name, line in common.LINES.items():
            print(f"{name:<20} {line.target}")
        return 0
    start = time.monotonic()
    for limit in ("--nofile=16384:16384", "--core=0:0"):
        subprocess.run(["prlimit", f"--pid={os.getpid()}", limit], check=False,
                       stderr=subprocess.DEVNULL)
    names, results = chosen(options), {}

    def work(workers, some, first=None):
        with concurrent.futures.ProcessPoolExecutor(max(1, workers), initializer=first) as pool:
            if options.mode == "quick":
                results.update(zip(some, pool.map(quick_line, some)))
            else:
                deadline = start + 60 * options.minutes
                results.update(zip(some, pool.map(full_line, some, [options.again] * len(some),
                                                  [deadline] * len(some))))

    alone = [name for name in names if common.LINES[name].alone]
    work(options.jobs, [name for name in names if name not in alone])
    work(1, alone, come_first)

    def failed():
        return [name for name, result in results.items() if result.get("verdict") == "FAIL"]
    again = failed() if options.mode == "quick" else []
    work(1, again, come_first)
    print(f"prove {options.mode}: {len(results)} lines, {len(failed())} failed, "
          + (f"met again: {', '.join(again)}, " if again else "")
          + f"{time.monotonic() - start:.0f} s")
    return 1 if failed() else 0


if __name__ == "__main__":
    sys.exit(main())
