"""What the lines of the score-sheet share: how they are registered, daemons, small clients."""

import contextlib
import os
import signal
import socket
import ssl
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path

import dovmad_harness as harness
from dovmad_harness import Daemon, eventually, receive_until_end

ROOT = Path(__file__).resolve().parent.parent
LINES = {}


class Unavailable(Exception):
    """The line can't be run on this machine; the text says why."""


@dataclass
class Line:
    name: str
    target: str
    quick: int
    full: int
    run: object
    piece: int
    alone: bool
    least: dict


@dataclass
class Outcome:
    """`figure` may name `counts` in braces. Those of a line's pieces are added up, but for the ones
    that begin with "most", of which the largest counts."""

    good: bool
    figure: str
    counts: dict = field(default_factory=dict)
    partial: bool = False


def line(name, target, quick, full, piece=None, alone=False, least=None):
    """Registers `run(amount, place) -> Outcome` as a line; `quick` and `full` are its amounts. In
    full it is run in pieces of `piece`, which a later call goes on with; it is partial while a count
    is below that in `least`. Nothing else runs beside a line that is `alone`, because it measures
    times."""
    def register(run):
        LINES[name] = Line(name, target, quick, full, run, piece or full, alone, least or {})
        return run
    return register


def literal(text):
    """The text as a part of an outcome's figure."""
    return str(text).replace("{", "{{").replace("}", "}}")


def add_counts(old, new):
    return {key: max(old.get(key, 0), value) if key.startswith("most") else old.get(key, 0) + value
            for key, value in new.items()}


class Place:
    """A folder and a build for one line; ends the daemons that the line has started. `done` is the
    amount of the pieces before this one."""

    def __init__(self, folder, build, quick, done, shim=None):
        self.folder, self.build, self.quick, self.done = folder, build, quick, done
        self.shim = shim or build / "prove" / "libfault_shim.so"
        self.daemons, self.made = [], 0

    def make(self, start=True, env=None, name=None, **options):
        options.pop("slips", None)
        self.made += 1
        daemon = Daemon(self.folder / (name or f"d{self.made}"), env=env, **options)
        daemon.ports = harness._reservations[-2:]
        self.daemons.append(daemon)
        return daemon.start() if start else daemon

    def forget(self, daemon):
        """Lets go of the ports of a daemon that is not started again."""
        self.daemons.remove(daemon)
        for mark in daemon.ports:
            harness._reservations.remove(mark)
            mark.close()

    def make_for_once(self, **options):
        """Like `make`; those that have ended don't come again."""
        for daemon in [old for old in self.daemons if old.process and old.process.poll() is not None]:
            self.forget(daemon)
        return self.make(**options)

    def close(self):
        for daemon in list(self.daemons):
            with contextlib.suppress(Exception):
                if daemon.process is not None and daemon.process.poll() is None:
                    daemon.stop(signal.SIGKILL)
            self.forget(daemon)


def get(path, *headers, method="GET", body=b""):
    lines = [f"{method} {path} HTTP/1.1", "Host: localhost", *headers]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join([*lines, "", ""]).encode() + body


def ask(daemon, data, timeout=10, tls=False):
    """Everything that comes for the bytes until the connection ends."""
    with connect(daemon, timeout, tls) as sock:
        sock.sendall(data)
        return receive_until_end(sock)


def connect(daemon, timeout=10, tls=False, receive_buffer=None):
    sock = socket.socket()
    sock.settimeout(timeout)
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    try:
        sock.connect(("127.0.0.1", daemon.tls_port if tls else daemon.port))
    except OSError:
        sock.close()
        raise
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    if tls:
        sock = trusting(daemon).wrap_socket(sock, server_hostname="localhost")
    return sock


def trusting(daemon):
    context = getattr(daemon, "context", None)
    if context is None:
        context = daemon.context = ssl.create_default_context(cafile=str(daemon.ca))
    return context


def status_of(reply):
    return int(reply[9:12]) if reply.startswith(b"HTTP/1.1 ") else 0


def end_daemon(daemon, status):
    """Ends a daemon that still runs: `status` is None; else lets go of what it has left."""
    daemon.expected_end = True
    if status is None:
        daemon.stop()
    else:
        daemon.process.stdout.close()


def zombies(daemon):
    count = 0
    for child in daemon.children():
        with contextlib.suppress(OSError):
            state = Path(f"/proc/{child}/stat").read_text().rsplit(")", 1)[1].split()[0]
            count += state == "Z"
    return count


def settled(daemon, descriptors, seconds=15):
    """How many descriptors are left over once the daemon has had time to let go of them."""
    eventually(lambda: daemon.fd_count() <= descriptors, seconds)
    return daemon.fd_count() - descriptors


def ping_ms(daemon, tls=False):
    start = time.perf_counter()
    with connect(daemon, 10, tls) as sock:
        sock.sendall(get("/world/ping"))
        if status_of(sock.recv(4096)) != 200:
            return None
    return (time.perf_counter() - start) * 1000


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))] if ordered else 0.0


def run(*command, timeout=600, **kwargs):
    return subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, timeout=timeout, **kwargs)


def need_root(what):
    if os.geteuid() != 0:
        raise Unavailable(f"{what} needs root")


def make_program(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(0o755)
    return path
