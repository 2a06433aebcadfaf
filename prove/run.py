"""The score-sheet: runs its lines, prints one row for each, and keeps docs/reliability.md.

    script/prove [quick|full] [LINE ...]

`quick` (the default) gives each line a small amount of work, `full` the whole one: at most eight
hours, begun lines are finished, and a later call goes on with the lines that are missing for this
commit. `full` writes the table of docs/reliability.md from what it has seen. "script/prove list"
names the lines.
"""

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
FULL_LIMIT_S = 8 * 3600
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
    return (f"{os.cpu_count()} cores of {platform.machine()}, {int(memory) >> 20} GiB, "
            f"Linux {platform.release().split('-')[0]}")


def commit():
    head = common.run("git", "describe", "--always", "--dirty", "--abbrev=10", cwd=ROOT).stdout
    return head.strip() or "unknown"


def run_line(line, quick):
    start = time.monotonic()
    # Short: paths of Unix sockets lie below it.
    folder = Path(tempfile.mkdtemp(prefix="prove-"))
    place = common.Place(folder, BUILD, quick)
    try:
        outcome = line.run(line.quick if quick else line.full, place)
        verdict, figure = ("pass" if outcome.good else "FAIL"), outcome.figure
    except common.Unavailable as why:
        verdict, figure = "NOT RUN", str(why)
    except Exception as problem:  # whatever a line stumbles over is its result
        traceback.print_exc()
        verdict, figure = "FAIL", f"{type(problem).__name__}: {problem}"[:400]
    finally:
        place.close()
        shutil.rmtree(folder, ignore_errors=True)
    return {"verdict": verdict, "figure": " ".join(figure.split()),
            "seconds": round(time.monotonic() - start), "date": time.strftime("%Y-%m-%d"),
            "commit": commit(), "machine": machine()}


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


def main():
    words = sys.argv[1:]
    mode = words.pop(0) if words and words[0] in ("quick", "full", "list") else "quick"
    if mode == "list":
        for name, line in common.LINES.items():
            print(f"{name:<20} {line.target}")
        return 0
    unknown = [word for word in words if word not in common.LINES]
    if unknown:
        sys.exit(f"no such line: {', '.join(unknown)}; script/prove list names them")
    quick = mode == "quick"
    results = json.loads(STATE.read_text()) if STATE.exists() else {}
    deadline, now = time.monotonic() + FULL_LIMIT_S, commit()
    start, bad, seen = time.monotonic(), 0, 0
    subprocess.run(["prlimit", f"--pid={os.getpid()}", "--nofile=16384:16384"], check=False,
                   stderr=subprocess.DEVNULL)
    for name, line in common.LINES.items():
        known = results.get(name, {})
        done = not quick and known.get("commit") == now and known.get("verdict") == "pass"
        if words and name not in words or not words and done:
            continue
        if time.monotonic() > deadline:
            print(f"{name:<20} left for the next call", flush=True)
            bad += 1
            continue
        result = run_line(line, quick)
        seen += 1
        bad += result["verdict"] == "FAIL"
        print(f"{result['verdict']:<8} {name:<20} {result['seconds']:>5} s  {result['figure']}\n"
              f"{'':<8} {'':<20} {'':>7}  target: {line.target}", flush=True)
        if not quick:
            results[name] = result
            STATE.write_text(json.dumps(results, indent=1))
            write_table(results)
    print(f"prove {mode}: {seen} lines, {bad} failed, {time.monotonic() - start:.0f} s")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
