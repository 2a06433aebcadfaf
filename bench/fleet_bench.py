#!/usr/bin/env python3
"""How long dovmad-inventory takes for each of its forms, and dovmad-metrics, beside 100,000 hosts.

    fleet_bench.py DAEMON PROVIDER [HOSTS] [ROUNDS]

Prints the median and the longest of some rounds, the forms in turn, and the processor time, which
other users of the machine do not change; curl, which only fetches the listing, is there to compare.
Exits with status 1 when a form's median is above 5 s.
"""

import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
GOAL = 5.0


def cpu_seconds():
    """Of the programs that have ended; the daemon runs on."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def main():
    for name, path in zip(("DOVMAD_BINARY", "DOVMAD_PROVIDER"), sys.argv[1:3]):
        os.environ[name] = os.path.realpath(path)
    hosts = int(sys.argv[3]) if len(sys.argv) > 3 else 100000
    rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 5
    sys.path.insert(0, str(TREE / "tests/e2e"))
    import dovmad_harness

    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        (folder / "hosts").write_text("".join(
            f"h{n}.example:gw{n % 99}.example:{{{n:08x}-0000-4000-8000-000000000000}}:Linux:"
            f"6.1.{n % 9}:x86_64:plx\n" for n in range(hosts)))
        daemon = dovmad_harness.Daemon(folder / "d", auth=True, domain_file=folder / "hosts")
        daemon.start()
        (folder / "login").write_text(f'user = "root:{daemon.password}"')
        (folder / "password").write_text(daemon.password)
        (folder / "password").chmod(0o600)
        url = f"https://localhost:{daemon.tls_port}"
        ask = ["--url", url, "--ca", daemon.ca, "--user", "root", "--password-file",
               folder / "password"]
        inventory = [TREE / "fleet/dovmad-inventory", *ask]
        commands = {
            "curl, the listing alone": [
                "curl", "-sS", "-K", folder / "login", "--cacert", daemon.ca,
                f"{url}/agent/domain/enum?format=json&scope=all"],
            "--list": [*inventory, "--list"], "--host": [*inventory, "--host", "h7.example"],
            "--prometheus": [*inventory, "--prometheus", "9100"], "--csv": [*inventory, "--csv"],
            "--sqlite": [*inventory, "--sqlite", folder / "base"],
            "--changes": [*inventory, "--changes", folder / "state"],
            "dovmad-metrics": [TREE / "fleet/dovmad-metrics", *ask, "-c", daemon.config],
        }
        spent = {what: [] for what in commands}
        work = {what: [] for what in commands}
        for _ in range(rounds):
            for what, command in commands.items():
                begin, used = time.monotonic(), cpu_seconds()
                subprocess.run(command, stdout=subprocess.DEVNULL, check=True)
                spent[what].append(time.monotonic() - begin)
                work[what].append(cpu_seconds() - used)
        daemon.stop()
    print(f"{hosts} hosts, {rounds} rounds: {'median s':>12} {'longest s':>12} {'processor s':>12}")
    for what, times in spent.items():
        print(f"{what:<26} {statistics.median(times):>12.2f} {max(times):>12.2f} "
              f"{statistics.median(work[what]):>12.2f}")
    return int(max(map(statistics.median, spent.values())) > GOAL)


if __name__ == "__main__":
    sys.exit(main())
