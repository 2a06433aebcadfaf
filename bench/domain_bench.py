#!/usr/bin/env python3
"""What a domain server's requests cost as the domain grows, and what they cost everybody else.

    bench/domain_bench.py BUILD [PART...]

BUILD is the folder of a build. Parts (all by default):
  enrol    64 agents enrol at once beside 10, 10,000 and 100,000 hosts, the sizes in turn, three
           rounds, medians: enrolments a second, bytes that the daemon wrote for each (replies are
           part of them), median and 99th percentile of the wait for a reply
  stall    the longest wait of another client (/world/ping, one after the other from a process of
           its own) while each operation runs beside 10,000 and 100,000 hosts or schedule entries,
           and the daemon's processor time for it; medians of three. "nothing" is what the
           machine itself costs
  memory   resident memory with 20 clients that ask for a JSON listing of 100,000 hosts and read
           nothing of it
  reports  what 20,000 reports to a server of 10,000 hosts cost

Prints plain tables. Exits with status 1 when a goal is missed: at 10,000 hosts half of the rate at
10, at 100,000 hosts 1,000 enrolments a second, stalls of 20 and 50 ms, 150 MB.
"""

import selectors
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent.parent / "tests" / "e2e"))
import dovmad_harness as harness  # noqa: E402

AGENTS = 64
ENROLLED = 3_000
SIZES = (10, 10_000, 100_000)
STALL_GOALS = {10_000: 20, 100_000: 50}
ROUNDS = 3
READERS = 20
JSON_LIST = b"GET /agent/domain/enum?format=json HTTP/1.1\r\n\r\n"

# Asks until its standard input ends, then prints the longest wait in ms and the number of replies.
PROBE = """
import select, socket, sys, time
port, longest, count = int(sys.argv[1]), 0.0, 0
print("begun", flush=True)
while not select.select([sys.stdin], [], [], 0.001)[0]:
    start = time.perf_counter()
    with socket.create_connection(("127.0.0.1", port), 120) as s:
        s.sendall(b"GET /world/ping HTTP/1.1\\r\\n\\r\\n")
        while s.recv(4096):
            pass
    longest, count = max(longest, time.perf_counter() - start), count + 1
print(1000 * longest, count)
"""


def longest_wait(daemon, action):
    """Of another client while the action ran, in ms."""
    with subprocess.Popen([sys.executable, "-c", PROBE, str(daemon.port)], text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as probe:
        probe.stdout.readline()
        action()
        time.sleep(0.5)
        probe.stdin.close()
        longest, count = map(float, probe.stdout.read().split())
        assert count > 0
        return longest


def host_lines(hosts):
    return "".join(
        f"host{n:06}.example:host{n:06}.example:{{id-{n:06}}}:Linux:6.1.0-18-amd64:x86_64:plx\n"
        for n in range(hosts))


def schedule_lines(entries):
    """Nothing that is ever due."""
    return "".join(f"job{n:06} - {n % 60} 3 30 2 * /bin/true\n" for n in range(entries))


def post(path, body):
    return (f"POST {path} HTTP/1.1\r\nContent-Length: {len(body)}\r\n\r\n{body}").encode()


def registration(name):
    return post("/agent/domain/register", f"id={{{name}}}&host={name}.example&osname=Linux"
                                          "&osrelease=6.1.0-18-amd64&cputype=x86_64")


def ask(daemon, data):
    """The whole reply to one request."""
    with socket.create_connection(("127.0.0.1", daemon.port), 120) as sock:
        sock.sendall(data)
        chunks = []
        while chunk := sock.recv(1 << 18):
            chunks.append(chunk)
    reply = b"".join(chunks)
    assert reply.startswith(b"HTTP/1.1 200 "), reply[:200]
    return reply


def own_ms(daemon):
    """Processor time of all its threads."""
    tasks = Path(f"/proc/{daemon.pid}/task")
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks.iterdir()) / 1e6


def written_bytes(daemon):
    text = Path(f"/proc/{daemon.pid}/io").read_text()
    return int(text.split("wchar: ")[1].split()[0])


# --- Enrolment ---

def run_agents(daemon, requests):
    """AGENTS at a time; the waits in seconds."""
    selector = selectors.DefaultSelector()
    waits, upcoming, under_way = [], iter(requests), 0

    def begin():
        data = next(upcoming, None)
        if data is None:
            return 0
        sock = socket.create_connection(("127.0.0.1", daemon.port), 60)
        start = time.perf_counter()
        sock.sendall(data)
        sock.setblocking(False)
        selector.register(sock, selectors.EVENT_READ, [start, b""])
        return 1

    under_way = sum(begin() for _ in range(AGENTS))
    while under_way:
        for key, _ in selector.select(60):
            chunk = key.fileobj.recv(4096)
            if chunk:
                key.data[1] += chunk
                continue
            assert key.data[1].startswith(b"HTTP/1.1 200 "), key.data[1][:200]
            waits.append(time.perf_counter() - key.data[0])
            selector.unregister(key.fileobj)
            key.fileobj.close()
            under_way += begin() - 1
    return waits


def enrol_once(folder, size, number):
    path = folder / f"domain{size}-{number}"
    path.write_text(host_lines(size))
    daemon = harness.Daemon(folder / f"enrol{size}-{number}", domain_file=path).start()
    before, start = written_bytes(daemon), time.perf_counter()
    waits = sorted(run_agents(daemon, (registration(f"new-{n:06}") for n in range(ENROLLED))))
    rate = ENROLLED / (time.perf_counter() - start)
    written = (written_bytes(daemon) - before) / ENROLLED
    assert path.read_text().count("\n") == size + ENROLLED
    daemon.check()
    path.unlink()
    return (rate, written, 1000 * waits[len(waits) // 2], 1000 * waits[len(waits) * 99 // 100])


def bench_enrolment(folder):
    runs = {size: [] for size in SIZES}
    for number in range(ROUNDS):
        for size in SIZES:
            runs[size].append(enrol_once(folder, size, number))
    print(f"\n{AGENTS} agents, {ENROLLED} enrolments, medians of {ROUNDS} rounds\n"
          f"{'hosts':>8} {'a second':>9} {'bytes each':>11} {'p50 ms':>8} {'p99 ms':>8}")
    medians = {size: [statistics.median(column) for column in zip(*rows)]
               for size, rows in runs.items()}
    for size, (rate, written, p50, p99) in medians.items():
        print(f"{size:>8} {rate:>9.0f} {written:>11.0f} {p50:>8.1f} {p99:>8.1f}", flush=True)
    share = medians[10_000][0] / medians[10][0]
    print(f"10,000 hosts: {share:.2f} of the rate at 10")
    return share >= 0.5 and medians[100_000][0] >= 1000


# --- Stalls ---

def operations(daemon, size, path, schedule):
    """Name and action of each, in an order in which each finds what it needs."""
    enrolled = iter(range(1 << 30))

    def switch(mode):
        ask(daemon, post("/admin/dovmad/config", mode))

    def run_due_jobs():
        schedule.write_text("".join(f"due{n} - * * * * * /bin/true\n" for n in range(1000)))
        ask(daemon, post("/admin/sched/rescan", ""))
        time.sleep(3)  # they start in the passes that follow
        schedule.write_text(schedule_lines(size))
        ask(daemon, post("/admin/sched/rescan", ""))

    return {
        "nothing": lambda: None,
        "register": lambda: ask(daemon, registration(f"one-{next(enrolled)}")),
        "64 registrations": lambda: run_agents(
            daemon, [registration(f"many-{next(enrolled)}") for _ in range(AGENTS)]),
        "text listing": lambda: ask(daemon, b"GET /agent/domain/enum HTTP/1.1\r\n\r\n"),
        "JSON listing": lambda: ask(daemon, JSON_LIST),
        "20 JSON listings": lambda: [sock.close() for sock in open_listings(daemon)],
        "switch away": lambda: switch("mode=standalone"),
        "switch back": lambda: switch(f"mode=domain&domain_file={path}"),
        "dump": lambda: ask(daemon, b"GET /admin/sched/dump HTTP/1.1\r\n\r\n"),
        "rescan": lambda: ask(daemon, post("/admin/sched/rescan", "")),
        "1,000 due jobs": run_due_jobs,
    }


def open_listings(daemon):
    """Asks for listings and waits for the first byte of each."""
    socks = []
    for _ in range(READERS):
        sock = socket.create_connection(("127.0.0.1", daemon.port), 120)
        sock.sendall(JSON_LIST)
        socks.append(sock)
    for sock in socks:
        sock.recv(1)
    return socks


def bench_stalls(folder):
    good = True
    for size, goal in STALL_GOALS.items():
        path, schedule = folder / f"stall{size}", folder / f"schedule{size}"
        path.write_text(host_lines(size))
        schedule.write_text(schedule_lines(size))
        daemon = harness.Daemon(folder / f"daemon{size}", domain_file=path,
                                scheduler_file=schedule).start()
        print(f"\n{size} hosts and schedule entries: longest wait of another client (goal {goal})\n"
              f"{'operation':>18} {'ms':>8} {'own ms':>8}")
        rows = {}
        for _ in range(ROUNDS):
            for name, action in operations(daemon, size, path, schedule).items():
                own = own_ms(daemon)
                stall = longest_wait(daemon, action)
                rows.setdefault(name, []).append((stall, own_ms(daemon) - own))
        for name, runs in rows.items():
            stall, own = (statistics.median(column) for column in zip(*runs))
            good = good and stall <= goal
            print(f"{name:>18} {stall:>8.1f} {own:>8.1f}{'' if stall <= goal else '  missed'}",
                  flush=True)
        daemon.check()
    return good


# --- Memory, reports ---

def bench_memory(folder):
    path = folder / "listed"
    path.write_text(host_lines(100_000))
    daemon = harness.Daemon(folder / "memory", domain_file=path).start()
    idle = daemon.rss_kib()
    socks = open_listings(daemon)
    time.sleep(1)
    held = daemon.rss_kib()
    size = len(ask(daemon, JSON_LIST))
    for sock in socks:
        sock.close()
    time.sleep(1)
    print(f"\n{READERS} clients that don't read a JSON listing of 100,000 hosts "
          f"({size / 1e6:.0f} MB): {idle / 1000:.0f} MB idle, {held / 1000:.0f} MB, "
          f"{daemon.rss_kib() / 1000:.0f} MB afterwards", flush=True)
    daemon.check()
    return held <= 150_000


def bench_reports(folder):
    path = folder / "reporting"
    path.write_text(host_lines(10_000))
    daemon = harness.Daemon(folder / "reports", domain_file=path).start()
    own, start = own_ms(daemon), time.perf_counter()
    run_agents(daemon, (post("/agent/domain/report", f"id={{id-{n % 10_000:06}}}&freq=300")
                        for n in range(20_000)))
    print(f"\n20,000 reports: {20_000 / (time.perf_counter() - start):.0f} a second, "
          f"{(own_ms(daemon) - own) / 20:.1f} us of the daemon's processor time each")
    daemon.check()
    return True


PARTS = {"enrol": bench_enrolment, "stall": bench_stalls, "memory": bench_memory,
         "reports": bench_reports}


def main():
    build = Path(sys.argv[1]).resolve()
    harness.BINARY = f"{build}/core/dovmad"
    harness.PROVIDER = f"{build}/provider/libmolbat4L_t.so"
    with tempfile.TemporaryDirectory() as folder:
        results = {name: PARTS[name](Path(folder)) for name in sys.argv[2:] or PARTS}
    missed = [name for name, good in results.items() if not good]
    print(f"\n{'Goals missed: ' + ', '.join(missed) if missed else 'All goals met.'}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) > 1 else __doc__)
