"""Kills a daemon at random moments while it rewrites an access file, and looks at what is left.

A file of many lines must survive every kill: no line lost, none cut, nothing granted or denied
undone once it was answered. Used by test_rights.py with a few kills; for many, by hand:

    DOVMAD_BINARY=... DOVMAD_PROVIDER=... python3 tests/e2e/kill_rights.py [KILLS] [SEED]
"""

import random
import re
import signal
import socket
import sys
import tempfile
import threading
from dataclasses import dataclass

from dovmad_harness import Daemon

KEPT = [f"keeper{i:03}@local.example:user" for i in range(200)] + \
       [f"crew{i:02}:group" for i in range(20)]
TOGGLED = [f"toggle{i}@local.example" for i in range(8)]
LINE = re.compile(r"(keeper\d{3}@local\.example:user|crew\d\d:group|toggle\d@local\.example:user)")


@dataclass
class Report:
    kills: int = 0
    rewrites: int = 0  # answered
    cut_short: int = 0  # requests that a kill left without an answer
    done_anyway: int = 0  # and whose change is in the file
    left_over: int = 0  # temporary files


class Writer(threading.Thread):
    """Grants and denies until the daemon is gone. `held` is what answers confirmed; `pending` the
    change that was asked for and not answered."""

    def __init__(self, port, held, rng):
        super().__init__(daemon=True)
        self.port, self.held, self.rng = port, held, rng
        self.answered = 0
        self.pending = None
        self.refused = None

    def run(self):
        while True:
            name = self.rng.choice(TOGGLED)
            action = "deny" if name in self.held else "grant"
            self.pending = (name, action == "grant")
            query = f"user={name}&role=operator&type=user"
            try:
                with socket.create_connection(("127.0.0.1", self.port), 20) as sock:
                    sock.sendall(f"GET /admin/security/{action}?{query} HTTP/1.1\r\n\r\n".encode())
                    reply = b""
                    while chunk := sock.recv(4096):
                        reply += chunk
            except OSError:
                return
            if not reply.endswith(b"Success\n"):
                self.refused = reply or None
                return
            (self.held.add if action == "grant" else self.held.discard)(name)
            self.pending = None
            self.answered += 1


def check_file(path, held, pending, report):
    """Compares the file with what it must hold; settles the pending change."""
    text = path.read_text()
    assert text.endswith("\n"), f"cut after {text[-60:]!r}"
    lines = text[:-1].split("\n")
    assert len(lines) == len(set(lines)), "a line stands twice"
    for line in lines:
        assert LINE.fullmatch(line), f"half a line: {line!r}"
    missing = set(KEPT) - set(lines)
    assert not missing, f"lost: {sorted(missing)[:5]}"
    present = {name for name in TOGGLED if f"{name}:user" in lines}
    if pending:
        name, granted = pending
        report.cut_short += 1
        report.done_anyway += (name in present) == granted
        (held.add if name in present else held.discard)(name)
    assert present == held, f"answered changes were undone: {present ^ held}"


def kill_during_rewrites(daemon, kills, seed):
    rng = random.Random(seed)
    folder = daemon.root / "operator"
    folder.mkdir(exist_ok=True)
    path = folder / ".dovmaaccess"
    path.write_text("".join(line + "\n" for line in KEPT))
    report, held = Report(), set()
    for _ in range(kills):
        daemon.start()
        writer = Writer(daemon.port, held, rng)
        writer.start()
        writer.join(rng.uniform(0.01, 0.12))
        daemon.stop(signal.SIGKILL)
        writer.join(30)
        assert not writer.is_alive() and writer.refused is None, writer.refused
        report.kills += 1
        report.rewrites += writer.answered
        check_file(path, held, writer.pending, report)
        report.left_over = len(list(folder.iterdir())) - 1
    return report


def main():
    kills = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
    print(f"{kills} kills, seed {seed}")
    with tempfile.TemporaryDirectory() as folder:
        print(kill_during_rewrites(Daemon(folder), kills, seed))


if __name__ == "__main__":
    main()
