"""Crowds: thousands of idle and slow clients, and what happens at the ceilings."""

import contextlib
import resource
import select
import ssl
import subprocess
import time

from common import (Outcome, Unavailable, ask, connect, get, line, percentile, ping_ms, settled)
from dovmad_harness import eventually


def raise_own_limit(wanted):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < wanted:
        try:
            resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, max(hard, wanted)))
        except (ValueError, OSError) as why:
            raise Unavailable(f"this process may not have {wanted} descriptors: {why}") from why


def dropped(socks):
    """How many have been ended by the daemon."""
    poller = select.poll()
    for sock in socks:
        poller.register(sock, select.POLLRDHUP)
    return sum(1 for _, events in poller.poll(0)
               if events & (select.POLLRDHUP | select.POLLHUP | select.POLLERR))


# What slow clients have begun when they slow down; idle ones ask for something now and then.
SLOW = {"heads": b"GET /world/x HTTP/1.1\r\nX: ",
        "bodies": b"POST /agent/domain/register HTTP/1.1\r\nContent-Length: 4000\r\n\r\nid=",
        "readers": get("/large"), "idle": get("/small")}
SPARE = 70  # of the daemon's 4,096 descriptors, for itself, the uploads and those who ask
UPLOADS = 24
UPLOAD = b"PUT /f%d HTTP/1.1\r\nContent-Length: 100000\r\n\r\nx"
TURN_S, IDLE_TURNS = 10, 20  # a connection on which nothing moves for 300 seconds is closed


def slow_step(kind, sock, turn):
    """One client's turn: it sends a byte, takes what has come, or asks."""
    with contextlib.suppress(OSError):  # the end of a connection is looked for later
        if kind in ("heads", "bodies"):
            sock.sendall(b"y")
        elif kind == "readers" or turn % IDLE_TURNS == 1:
            sock.setblocking(False)
            with contextlib.suppress(BlockingIOError, ssl.SSLWantReadError):
                while sock.recv(1 << 14):
                    pass
            sock.setblocking(True)
        elif turn % IDLE_TURNS == 0:
            sock.sendall(SLOW[kind])


@line("slow-clients", "4,000 idle and slow clients (headers, bodies, reading; plain and TLS) for 10 "
      "minutes: 0 dropped, ping p99 at most 20 ms, CPU at most 10 % of a core", 5, 600, alone=True)
def slow_clients(amount, place):
    raise_own_limit(6000)
    count = 400 if place.quick else 4000
    (place.folder / "domain").write_text("h::id:Linux:6.1:x86_64:plx\n")
    daemon = place.make(domain_file=place.folder / "domain")
    (daemon.root / "small").write_text("small")
    with open(daemon.root / "large", "wb") as large:
        large.truncate(30_000_000)
    with contextlib.ExitStack() as stack:
        crowd = []
        for number in range(count):
            kind = list(SLOW)[number // 4 % 4]
            sock = stack.enter_context(connect(daemon, 60, number % 4 == 0,
                                               8192 if kind == "readers" else None))
            sock.sendall(UPLOAD % number if kind == "bodies" and number // 16 < UPLOADS // 4
                         else SLOW[kind])
            crowd.append((kind, sock))
        eventually(lambda: ping_ms(daemon) is not None)
        descriptors, memory = daemon.fd_count(), daemon.rss_kib()
        pings, before, start = [], daemon.cpu_seconds(), time.monotonic()
        at, turn = 0, 1
        while (now := time.monotonic() - start) < amount:
            # As many as are due by now; each has its turn every ten seconds.
            while at + turn * count - count < now * count / TURN_S:
                slow_step(*crowd[at], turn)
                at += 1
                if at == count:
                    at, turn = 0, turn + 1
            pings.append(ping_ms(daemon) or 1e9)
            time.sleep(0.1)
        took = time.monotonic() - start
        # What the pings cost is no part of it, but too little to be worth taking off.
        share = (daemon.cpu_seconds() - before) / took
        lost = dropped([sock for _, sock in crowd])
        memory = max(memory, daemon.rss_kib())
        slowest = percentile(pings, 0.99)
    left = settled(daemon, 40)
    daemon.stop()
    # Of a short run on whatever machine only the median says something.
    good = lost == 0 and share <= 0.10 and left <= 0 and \
        (percentile(pings, 0.5) if place.quick else slowest) <= 20
    return Outcome(good, f"{count} clients for {took:.0f} s: {lost} dropped, ping p50 "
                   f"{percentile(pings, 0.5):.1f} / p99 {slowest:.1f} / max {max(pings):.1f} ms, CPU "
                   f"{share:.1%}, {memory / 1024:.0f} MiB, {descriptors} descriptors"
                   + (" (judged by p50)" if place.quick else ""))


@line("descriptors", "4,096 descriptors taken: no exit, CPU at most 2 % meanwhile, new clients served "
      "within a second of the release", 4, 60, alone=True)
def descriptors(amount, place):
    raise_own_limit(6000)
    daemon = place.make()
    socks = []
    with contextlib.ExitStack() as stack:
        while daemon.fd_count() < 4090 and len(socks) < 4600:
            for _ in range(100):
                socks.append(stack.enter_context(connect(daemon)))
            time.sleep(0.02)
        time.sleep(1)
        held, before = daemon.fd_count(), daemon.cpu_seconds()
        time.sleep(amount)
        share = (daemon.cpu_seconds() - before) / amount
    start = time.monotonic()
    served = eventually(lambda: ping_ms(daemon) is not None, 10)
    took = time.monotonic() - start
    status = daemon.stop()
    good = served and took <= 1 and share <= 0.02 and status == 0 and held >= 4090
    return Outcome(good, f"{held} descriptors held for {amount} s: CPU {share:.1%}, served "
                   f"{took:.2f} s after the release, exit {status}")


@line("memory-ceiling", "64 MB of address space in all, 1,500 clients: lives or ends by itself, starts "
      "anew within a second, no host lost", 1500, 1500)
def memory_ceiling(amount, place):
    raise_own_limit(6000)
    domain = place.folder / "domain"
    domain.write_text("".join(f"h{n}::id{n}:Linux:6.1:x86_64:plx\n" for n in range(1000)))
    daemon = place.make(domain_file=domain)
    subprocess.run(["prlimit", f"--pid={daemon.pid}", f"--as={64 << 20}"], check=True)
    refused = 0
    with contextlib.ExitStack() as stack:
        for number in range(amount):
            try:
                sock = stack.enter_context(connect(daemon, 2))
                sock.sendall(get("/agent/domain/enum") if number % 2 else
                             b"PUT /f HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n" + b"x" * 16000)
            except OSError:
                refused += 1
        time.sleep(1)
        alive = daemon.process.poll() is None
    if alive:
        start = time.monotonic()
        served = eventually(lambda: ping_ms(daemon) is not None, 5)
        after = time.monotonic() - start
        status = daemon.stop()
    else:
        served, after, status = True, 0.0, daemon.process.returncode
        daemon.expected_end = True
        daemon.process.stdout.close()
    start = time.monotonic()
    daemon.start()
    again = time.monotonic() - start
    hosts = ask(daemon, get("/agent/domain/enum")).count(b"\n")
    kept = len(domain.read_text().splitlines())
    daemon.stop()
    clean = status in (0, -6)
    return Outcome(served and clean and again <= 1 and kept >= 1000,
                   f"{amount} clients, {refused} refused: {'lives' if alive else 'ended'} "
                   f"({status}), serves {after:.2f} s after release; new start {again:.2f} s, "
                   f"{kept} hosts in the file, {hosts} lines listed")


