"""Many requests, malformed ones, clients that vanish, programs: nothing is wrong, nothing is left."""

import base64
import random
import re
import socket
import struct
import threading
import time

from common import (Outcome, ask, connect, get, line, literal, make_program, percentile, ping_ms,
                    settled, status_of, zombies)
from dovmad_harness import eventually
from torture import Target

DATE = re.compile(rb"\r\n(Date|Last-Modified): [^\r]*")
PIPELINED = 100
CLIENTS = 6  # at a time
SMALL = b"0123456789abcdef" * 64


def undated(reply):
    return DATE.sub(b"", reply)


class Mixed:
    """Every feature over plain and TLS connections. A request's reply is known in advance: from what
    the files hold, or from what the daemon must make of the request."""

    def __init__(self, place):
        self.place, self.mine, self.lock = place, threading.local(), threading.Lock()
        domain = place.folder / "domain"
        domain.write_text("keeper::keeper:Linux:6.1:x86_64:plx\n")
        self.daemon = daemon = place.make(start=False, auth=True, domain_file=domain,
                                          cgi_extensions=".cgi", ssi_extensions=".shtml")
        for name in ("world", "world/list", "operator", "pub", "agent", "admin"):
            (daemon.root / name).mkdir(parents=True, exist_ok=True)
        (daemon.root / "world" / "small").write_bytes(SMALL)
        (daemon.root / "world" / "large").write_bytes(random.Random(1).randbytes(200_000))
        (daemon.root / "pub" / "page").write_text("for users\n")
        (daemon.root / "world" / "list" / "entry").write_text("e")
        make_program(daemon.root / "world" / "p.cgi",
                     "printf 'Content-Type: text/plain\\n\\nsaid '\ncat\n")
        (daemon.root / "world" / "s.shtml").write_text('a<!--#include file="small" -->b')
        self.target = Target()
        daemon.start()
        self.login = "Authorization: Basic " + base64.b64encode(
            f"root:{daemon.password}".encode()).decode()
        self.wrong, self.done = [], 0
        # Share, name, action; the actions return how many requests they have made.
        self.mix = [(70, self.pipelined), (8, self.range_request), (4, self.missing),
                    (3, self.large), (3, self.user), (3, self.listing), (2, self.upload),
                    (2, self.page), (1, self.program), (2, self.forwarded), (2, self.enrolment),
                    (1, self.enumeration), (1, self.head)]

    def expect(self, what, good, reply):
        if not good and len(self.wrong) < 20:
            self.wrong.append(f"{what}: {reply[:120]!r}")

    def once(self, data, tls):
        return undated(bytes(ask(self.daemon, data, 30, tls)))

    def kept_connection(self, tls):
        if tls not in self.mine.kept:
            self.mine.kept[tls] = connect(self.daemon, 30, tls)
        return self.mine.kept[tls]

    def whole_file(self, tls, count, request, body, head):
        """Requests in one piece on a kept connection; all replies are the same but for the date."""
        sock = self.kept_connection(tls)
        sock.sendall(request * count)
        received, first = bytearray(), None
        while count > 0:
            end = received.find(b"\r\n\r\n")
            size = len(first) if first else end + 4 + len(body) if end >= 0 else 1
            # In one go, unless the second changes amid the replies.
            some = count if first and len(received) >= size * count else 1
            if len(received) < size * some or (some == 1 and end < 0):
                piece = sock.recv(1 << 18)
                if not piece:
                    self.mine.kept.pop(tls).close()
                    self.expect("kept connection", False, b"closed")
                    return
                received += piece
                continue
            if first is None or received[:size * some] != first * some:
                some, first = 1, bytes(received[:size])
                self.expect("file", first.startswith(head)
                            and first.endswith(b"\r\n\r\n" + body), first)
            del received[:size * some]
            count -= some
        self.expect("pipelined", not received, bytes(received))

    def pipelined(self, tls):
        self.whole_file(tls, PIPELINED, get("/world/small"), SMALL, b"HTTP/1.1 200 OK\r\n")
        return PIPELINED

    def range_request(self, tls):
        first = self.mine.rng.randrange(len(SMALL) - 2)
        last = self.mine.rng.randrange(first + 1, len(SMALL))
        self.whole_file(tls, 1, get("/world/small", f"Range: bytes={first}-{last}"),
                        SMALL[first:last], b"HTTP/1.1 206 Partial Content\r\n")
        return 1

    def head(self, tls):
        reply = self.once(get("/world/small", "Connection: close", method="HEAD"), tls)
        self.expect("HEAD", status_of(reply) == 200 and reply.endswith(b"\r\n\r\n") and
                    b"Content-Length: 1024\r\n" in reply, reply)
        return 1

    def large(self, tls):
        body = (self.daemon.root / "world" / "large").read_bytes()
        self.whole_file(tls, 1, get("/world/large"), body, b"HTTP/1.1 200 OK\r\n")
        return 1

    def missing(self, tls):
        reply = self.once(get("/world/none"), tls)
        self.expect("missing", reply == b"HTTP/1.1 404 Not Found\r\n\r\n404 Not Found", reply)
        return 1

    def user(self, tls):
        reply = self.once(get("/pub/page", self.login, "Connection: close"), tls)
        self.expect("user", status_of(reply) == 200 and reply.endswith(b"\r\n\r\nfor users\n"), reply)
        reply = self.once(get("/pub/page"), tls)
        self.expect("nobody", status_of(reply) == 401, reply)
        return 2

    def listing(self, tls):
        reply = self.once(get("/world/list/"), tls)
        self.expect("listing", status_of(reply) == 200 and
                    reply.count(b'<a href="/world/list/entry">entry</a>') == 1, reply)
        return 1

    def upload(self, tls):
        body = self.mine.rng.randbytes(self.mine.rng.randrange(1, 40_000))
        name = f"up{self.mine.number}-{self.mine.rng.randrange(8)}"
        reply = self.once(get(f"/world/{name}", method="PUT", body=body), tls)
        stored = (self.daemon.root / "world" / name).read_bytes()
        self.expect("upload", status_of(reply) in (200, 201) and stored == body, reply)
        return 1

    def page(self, tls):
        reply = self.once(get("/world/s.shtml"), tls)
        self.expect("page", reply.endswith(b"a" + SMALL + b"b"), reply)
        return 1

    def program(self, tls):
        body = self.mine.rng.randbytes(3000)
        reply = self.once(get("/world/p.cgi", method="POST", body=body), tls)
        self.expect("program", status_of(reply) == 200 and reply.endswith(b"said " + body), reply)
        return 1

    def forwarded(self, tls):
        reply = self.once(get(f"/http://127.0.0.1:{self.target.port}/world/x"), tls)
        self.expect("forwarded", reply == b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\ntarget",
                    reply)
        return 1

    def enrolment(self, tls):
        name = f"host{self.mine.number}-{self.mine.rng.randrange(50)}"
        body = f"id={name}&host={name}&osname=L&osrelease=6&cputype=x".encode()
        for action in ("register", "unregister"):
            reply = self.once(get(f"/agent/domain/{action}", self.login, method="POST", body=body),
                              tls)
            self.expect(action, status_of(reply) == 200 and b"Success" in reply, reply)
        return 2

    def enumeration(self, tls):
        reply = self.once(get("/agent/domain/enum", self.login), tls)
        self.expect("enumeration", status_of(reply) == 200 and b"keeper" in reply, reply)
        return 1

    def client(self, number, start, requests, seconds, rate):
        self.mine.rng, self.mine.kept, self.mine.number = random.Random(number), {}, number
        actions = [action for share, action in self.mix for _ in range(share)]
        while (requests is None or self.done < requests) and (
                seconds is None or time.monotonic() - start < seconds):
            try:
                made = self.mine.rng.choice(actions)(self.mine.rng.random() < 0.4)
            except OSError as problem:
                made = 1
                self.expect("connection", False, repr(problem).encode())
            with self.lock:
                self.done += made
            if rate is not None:
                time.sleep(max(0.0, start + self.done / rate - time.monotonic()))
        for sock in self.mine.kept.values():
            sock.close()

    def go(self, requests=None, seconds=None, rate=None, clients=CLIENTS):
        """So many requests, or for so long, at most `rate` a second; how long it took."""
        start = time.monotonic()
        threads = [threading.Thread(target=self.client, args=(number, start, requests, seconds, rate))
                   for number in range(clients)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return time.monotonic() - start

    def judge(self, halves):
        """Both halves of the load by `halves()`, what is left behind them, and the figure."""
        self.go(requests=2000)
        daemon = self.daemon
        eventually(lambda: daemon.fd_count() < 40)
        descriptors, self.done = daemon.fd_count(), 0
        took = halves(0)
        between = daemon.rss_kib()
        took += halves(1)
        growth = daemon.rss_kib() - between
        left = settled(daemon, descriptors)
        refused = self.server_errors()
        # The allocator's own steps are pages; what leaks grows with the requests.
        allowed = 256 if self.place.quick else 64
        good = not self.wrong and left <= 0 and growth <= allowed and not zombies(daemon) \
            and refused == 0
        daemon.stop()
        return Outcome(good, "{requests} requests in {seconds} s: {wrong} wrong, {refused} of 5xx; "
                       "descriptors at most {most_left:+d}, memory of the last half at most "
                       "{most_growth:+d} KiB" + "".join(
                           f"; {literal(w)}" for w in self.wrong[:3]),
                       {"requests": self.done, "seconds": round(took), "wrong": len(self.wrong),
                        "refused": refused, "most_left": max(left, 0), "most_growth": max(growth, 0)})

    def server_errors(self):
        with open(self.daemon.access_log, "rb") as log:
            return sum(1 for row in log if re.search(rb'" 5\d\d ', row))


@line("mixed-load", "10 M requests of every feature, plain and TLS: 0 wrong bytes, +0 descriptors, "
      "+0 KiB in the last half (but for 64 of the allocator's)", 60_000, 10_000_000, piece=2_500_000)
def mixed_load(amount, place):
    mixed = Mixed(place)
    return mixed.judge(lambda half: mixed.go(requests=amount * (half + 1) // 2))


@line("soak", "200 requests a second for an hour: 0 wrong, nothing left", 4, 3600)
def soak(amount, place):
    mixed = Mixed(place)

    def half(_):
        before, mixed.done = mixed.done, 0
        took = mixed.go(seconds=amount / 2, rate=200, clients=2)
        mixed.done += before
        return took
    return mixed.judge(half)


MALFORMED = [b"\r\n\r\n", b"NONSENSE / HTTP/1.1\r\nA: b\r\n\r\n", b"GET\x01/ HTTP/1.1\r\n\r\n" * 2,
             b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(100), b"G /\r\n\r\n",
             b"get / HTTP/1.1\r\nHost: x\r\n\r\n", b"\0" * 64 + b"\r\n\r\n", b"PRI * HTTP/2.0\r\n\r\n"]


@line("malformed", "250,000 silent malformed requests: +0 descriptors, +0 KiB in the last half, "
      "no CPU afterwards", 8_000, 250_000, piece=125_000)
def malformed(amount, place):
    daemon = place.make()
    rng = random.Random(2)

    def some(count, at_once=20):
        for _ in range(count // at_once):
            socks = [connect(daemon) for _ in range(at_once)]
            for sock in socks:
                sock.sendall(rng.choice(MALFORMED) + rng.randbytes(rng.randrange(40)))
            for sock in socks:
                sock.close()
    # On a busy machine the daemon has several handfuls of them at a time: that much is not growth.
    some(2000, 500)
    some(1000)
    eventually(lambda: daemon.fd_count() < 40)
    descriptors = daemon.fd_count()
    some(amount // 2)
    settled(daemon, descriptors)
    between = daemon.rss_kib()
    some(amount // 2)
    left = settled(daemon, descriptors)
    growth = daemon.rss_kib() - between
    before = daemon.cpu_seconds()
    time.sleep(2)
    used = daemon.cpu_seconds() - before
    good = left <= 0 and growth <= (128 if place.quick else 0) and used <= 0.1 and ping_ms(daemon) is not None
    daemon.stop()
    return Outcome(good, "{requests} requests: descriptors at most {most_left:+d}, memory of the last "
                   "half at most {most_growth:+d} KiB, CPU afterwards at most {most_cpu:.1%}",
                   {"requests": amount, "most_left": max(left, 0), "most_growth": max(growth, 0),
                    "most_cpu": used / 2})


@line("vanishing", "30,000 clients that vanish in mid-reply: +0 descriptors, no zombies", 900, 30_000,
      piece=10_000)
def vanishing(amount, place):
    daemon = place.make(cgi_extensions=".cgi")
    (daemon.root / "large").write_bytes(b"x" * 3_000_000)
    (daemon.root / "list").mkdir()
    for number in range(500):
        (daemon.root / "list" / f"e{number}").write_text("")
    make_program(daemon.root / "p.cgi",
                 "printf 'Content-Type: text/plain\\n\\n'\nhead -c 300000 /dev/zero\n")
    uris = ["/large"] * 6 + ["/list/"] * 3 + ["/p.cgi"]
    rng = random.Random(3)
    reset = struct.pack("ii", 1, 0)
    descriptors = daemon.fd_count()
    for number in range(amount):
        tls = number % 4 == 0
        sock = connect(daemon, 20, tls)
        sock.sendall(get(rng.choice(uris)))
        way = rng.randrange(3)
        if way < 2:
            sock.recv(1 + rng.randrange(2000))
        if way == 1:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset)
        elif way == 2 and not tls:
            sock.shutdown(socket.SHUT_WR)
        sock.close()
    left = settled(daemon, descriptors, 6)
    dead = zombies(daemon)
    good = left <= 0 and dead == 0 and ping_ms(daemon) is not None
    daemon.stop()
    return Outcome(good, "{clients} clients: descriptors at most {most_left:+d}, {dead} zombies",
                   {"clients": amount, "most_left": max(left, 0), "dead": dead})


@line("programs", "100,000 programs: 0 zombies, 0 stray descriptors in them", 900, 100_000,
      piece=20_000)
def programs(amount, place):
    daemon = place.make(cgi_extensions=".cgi")
    # The third descriptor is that of the folder that is being listed.
    make_program(daemon.root / "p.cgi",
                 "printf 'Content-Type: text/plain\\n\\n'\nexec /bin/ls -m /proc/self/fd\n")
    descriptors, wrong, lock = daemon.fd_count(), [], threading.Lock()

    def client(count):
        for _ in range(count):
            reply = ask(daemon, get("/p.cgi"), 60)
            if not reply.endswith(b"\r\n\r\n0, 1, 2, 3\n") and not reply.endswith(b"\n\n0, 1, 2, 3\n"):
                with lock:
                    wrong.append(bytes(reply))
    threads = [threading.Thread(target=client, args=(amount // 4,)) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    left, dead = settled(daemon, descriptors), zombies(daemon)
    daemon.stop()
    return Outcome(not wrong and left <= 0 and dead == 0,
                   "{programs} programs: {wrong} wrong, descriptors at most {most_left:+d}, {dead} "
                   "zombies" + "".join(f"; {literal(w[-80:])}" for w in wrong[:1]),
                   {"programs": amount, "wrong": len(wrong), "most_left": max(left, 0), "dead": dead})


@line("scheduled", "10,000 scheduled starts: each once, 0 zombies", 400, 10_000, piece=2000)
def scheduled(amount, place):
    schedule, marks = place.folder / "schedule", place.folder / "marks"
    schedule.write_text("")
    daemon = place.make(scheduler_file=schedule)
    descriptors, rounds = daemon.fd_count(), max(1, amount // 2000)
    pings, missing, twice = [], 0, 0
    for number in range(rounds):
        jobs = amount // rounds
        marks.unlink(missing_ok=True)
        schedule.write_text("".join(f"r{number}j{job} - * * * * * /bin/sh -c echo {job} >>{marks}\n"
                                    for job in range(jobs)))
        if time.time() % 60 > 40:  # all starts within one minute
            time.sleep(61 - time.time() % 60)
        ask(daemon, get("/admin/sched/rescan"), 60)
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            pings.append(ping_ms(daemon) or 1e9)
            if marks.exists() and marks.stat().st_size and \
                    len(marks.read_text().splitlines()) >= jobs:
                break
            time.sleep(0.01)
        schedule.write_text("")
        ask(daemon, get("/admin/sched/rescan"), 60)
        time.sleep(0.3)
        told = marks.read_text().split() if marks.exists() else []
        missing += jobs - len(set(told))
        twice += len(told) - len(set(told))
    eventually(lambda: zombies(daemon) == 0)
    dead, left = zombies(daemon), settled(daemon, descriptors)
    slowest = percentile(pings, 0.99)
    daemon.stop()
    return Outcome(missing == 0 and twice == 0 and dead == 0 and left <= 0,
                   "{starts} starts: {missing} missing, {twice} twice, {dead} zombies, descriptors at "
                   "most {most_left:+d}; ping p99 at most {most_p99:.1f} ms meanwhile",
                   {"starts": amount, "missing": missing, "twice": twice, "dead": dead,
                    "most_left": max(left, 0), "most_p99": slowest})
