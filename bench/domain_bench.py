#!/usr/bin/env python3
"""What a domain server's requests cost as the domain grows.

    bench/domain_bench.py DOVMAD_UNDER_TEST AUTHENTICATION_LIBRARY [HOSTS...]

Enrols the first 10,000 hosts one by one and prints the latencies per thousand; enumerates domains
of the given sizes (1,000, 10,000 and 100,000 by default) as JSON; sends 100,000 reports. Each
request has a connection of its own, as the daemon closes it after the answer of an endpoint.
Prints plain tables; "own" is the daemon's processor time, which other work on the machine does not
lengthen. Exits with status 1 when a request at up to 10,000 hosts took over 50 ms of it.
"""

import os
import re
import socket
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent.parent / "tests" / "e2e"))
import dovmad_harness as harness  # noqa: E402

ENROLLED = 10_000
REPORTS = 100_000
LIMIT_MS = 50


@dataclass
class Cost:
    first: float  # ms to the first byte
    last: float  # ms to the last
    own: float  # ms of the daemon's processor time
    size: int  # bytes


def own_ms(daemon):
    return int(Path(f"/proc/{daemon.pid}/schedstat").read_text().split()[0]) / 1e6


def exchange(daemon, data):
    """Sends one request and returns its Cost."""
    own = own_ms(daemon)
    start = time.perf_counter()
    with socket.create_connection(("127.0.0.1", daemon.port), 60) as sock:
        sock.sendall(data)
        chunk = sock.recv(1 << 18)
        first = time.perf_counter() - start
        assert chunk.startswith(b"HTTP/1.1 200 "), chunk[:200]
        received = len(chunk)
        while chunk := sock.recv(1 << 18):
            received += len(chunk)
    last = time.perf_counter() - start
    return Cost(1000 * first, 1000 * last, own_ms(daemon) - own, received)


def post(daemon, action, body):
    return exchange(daemon, f"POST /agent/domain/{action} HTTP/1.1\r\nContent-Length: {len(body)}"
                            f"\r\n\r\n{body}".encode())


def summary(costs):
    """Median, 99th percentile and worst of the elapsed time, then median and worst of the own."""
    elapsed, own = sorted(c.last for c in costs), sorted(c.own for c in costs)
    values = (elapsed[len(elapsed) // 2], elapsed[len(elapsed) * 99 // 100], elapsed[-1],
              own[len(own) // 2], own[-1])
    return " ".join(f"{value:>9.2f}" for value in values)


SUMMARY_HEAD = " ".join(f"{name:>9}" for name in ("median", "p99", "worst", "own", "worst own"))


def peak_kib(daemon):
    status = Path(f"/proc/{daemon.pid}/status").read_text()
    return int(re.search(r"VmHWM:\s+(\d+)", status).group(1))


def write_domain(path, hosts):
    path.write_text("".join(
        f"host{n:06}.example:host{n:06}.example:{{id-{n:06}}}:Linux:6.1.0-18-amd64:x86_64:plx\n"
        for n in range(hosts)))


def bench_enrolment(folder):
    daemon = harness.Daemon(folder / "enrol", domain_file=folder / "enrolled").start()
    print(f"\nEnrolling {ENROLLED} hosts one by one (ms)\n{'hosts':>8} {SUMMARY_HEAD}")
    costs = []
    for base in range(0, ENROLLED, 1000):
        costs.append([post(daemon, "register",
                           f"id=id-{n:06}&host=host{n:06}.example&osname=Linux&osrelease=6.1"
                           "&cputype=x86_64") for n in range(base, base + 1000)])
        print(f"{base + 1000:>8} {summary(costs[-1])}", flush=True)
    daemon.check()
    return max(cost.own for row in costs for cost in row)


def bench_enumeration(folder, sizes):
    print("\nEnumerating as JSON (best of 5 requests, ms)")
    print(f"{'hosts':>8} {'first byte':>11} {'last byte':>10} {'own':>8} {'MiB':>7} "
          f"{'idle MiB':>9} {'peak MiB':>9}")
    worst = 0
    for size in sizes:
        path = folder / f"domain{size}"
        write_domain(path, size)
        daemon = harness.Daemon(folder / f"enum{size}", domain_file=path).start()
        idle = daemon.rss_kib()
        Path(f"/proc/{daemon.pid}/clear_refs").write_text("5")  # forget the peak of the start
        runs = [exchange(daemon, b"GET /agent/domain/enum?format=json HTTP/1.1\r\n\r\n")
                for _ in range(5)]
        print(f"{size:>8} {min(r.first for r in runs):>11.2f} {min(r.last for r in runs):>10.2f} "
              f"{min(r.own for r in runs):>8.2f} {runs[0].size / 2**20:>7.2f} "
              f"{idle / 1024:>9.1f} {peak_kib(daemon) / 1024:>9.1f}", flush=True)
        if size <= ENROLLED:
            worst = max(worst, *(run.own for run in runs))
        daemon.check()
    return worst


def bench_reports(folder):
    path = folder / "reporting"
    write_domain(path, ENROLLED)
    daemon = harness.Daemon(folder / "report", domain_file=path).start()
    print(f"\n{REPORTS} reports to a server of {ENROLLED} hosts (ms)\n"
          f"{'reports':>8} {SUMMARY_HEAD} {'RSS MiB':>8}")
    costs = []
    for base in range(0, REPORTS, REPORTS // 5):
        costs.append([post(daemon, "report", f"id={{id-{n % ENROLLED:06}}}&freq=300")
                      for n in range(base, base + REPORTS // 5)])
        print(f"{base + REPORTS // 5:>8} {summary(costs[-1])} {daemon.rss_kib() / 1024:>8.1f}",
              flush=True)
    daemon.check()
    return max(cost.own for row in costs for cost in row)


def main():
    harness.BINARY, harness.PROVIDER = (os.path.abspath(path) for path in sys.argv[1:3])
    sizes = [int(size) for size in sys.argv[3:]] or [1_000, 10_000, 100_000]
    with tempfile.TemporaryDirectory() as folder:
        worst = max(bench_enrolment(Path(folder)), bench_enumeration(Path(folder), sizes),
                    bench_reports(Path(folder)))
    print(f"\nDearest request at up to {ENROLLED} hosts: {worst:.1f} ms of its own")
    return 1 if worst > LIMIT_MS else 0


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) > 2 else __doc__)
