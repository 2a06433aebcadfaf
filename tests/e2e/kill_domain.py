"""Kills a domain server at random moments while hosts enrol and leave, and looks at what is left.

A domain file must survive every kill: no acknowledged host lost, no line cut, and the next start
reads it back whole. Used by test_domain.py with a few kills; for many, by hand:

    DOVMAD_BINARY=... DOVMAD_PROVIDER=... python3 tests/e2e/kill_domain.py [KILLS] [SEED]
"""

import http.client
import json
import random
import re
import signal
import sys
import tempfile
import threading
from dataclasses import dataclass
from pathlib import Path

from dovmad_harness import Daemon

KEPT = {f"keeper{i:03}" for i in range(300)}
MOVING = [f"mover{i}" for i in range(12)]
LINE = re.compile(r"host-(\w+):[^:]*:(\w+):Linux:6\.1:x86_64:plx")


@dataclass
class Report:
    kills: int = 0
    rewrites: int = 0  # answered
    cut_short: int = 0  # requests that a kill left without an answer


class Writer(threading.Thread):
    """Enrols and removes hosts until the daemon is gone. `held` is what answers confirmed;
    `pending` the host whose change was asked for and not answered."""

    def __init__(self, port, held, rng):
        super().__init__(daemon=True)
        self.port, self.held, self.rng = port, held, rng
        self.answered = 0
        self.pending = None
        self.refused = None

    def run(self):
        while True:
            name = self.rng.choice(MOVING)
            joins = name not in self.held
            self.pending = name
            action = "register" if joins else "unregister"
            body = f"id={name}&host=host-{name}&osname=Linux&osrelease=6.1&cputype=x86_64"
            try:
                connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
                connection.request("POST", f"/agent/domain/{action}", body)
                reply = connection.getresponse()
                text = reply.read()
            except (OSError, http.client.HTTPException):
                return
            if reply.status != 200 or b"Success" not in text:
                self.refused = f"{reply.status} {text}"
                return
            (self.held.add if joins else self.held.discard)(name)
            self.pending = None
            self.answered += 1


def check_file(path, held, pending, report):
    """Compares the file with what it must hold; settles the pending change in `held`."""
    text = path.read_text()
    assert text.endswith("\n"), f"cut after {text[-60:]!r}"
    ids = []
    for line in text[:-1].split("\n"):
        match = LINE.fullmatch(line)
        assert match and match[1] == match[2], f"half a line: {line!r}"
        ids.append(match[2])
    assert len(ids) == len(set(ids)), "a host stands twice"
    missing = KEPT - set(ids)
    assert not missing, f"lost: {sorted(missing)[:5]}"
    present = set(ids) - KEPT
    if pending:
        name = pending
        report.cut_short += 1
        (held.add if name in present else held.discard)(name)
    assert present == held, f"acknowledged: {sorted(held)}, in the file: {sorted(present)}"


def kill_during_enrolments(base, kills, seed, longest_wait=0.08):
    """Kills `kills` daemons one after the other over the same domain file; returns a Report."""
    rng = random.Random(seed)
    report = Report()
    held = set()
    path = Path(base) / "domain"
    path.write_text("".join(f"host-{name}::{name}:Linux:6.1:x86_64:plx\n"
                            for name in sorted(KEPT)))
    daemon = Daemon(Path(base) / "daemon", domain_file=path)
    for _ in range(kills):
        daemon.start()
        hosts = json.loads(daemon.request("GET", "/agent/domain/enum?format=json").text)
        assert {host["hostid"] for host in hosts} == KEPT | held, "read back by the restart"
        writer = Writer(daemon.port, held, rng)
        writer.start()
        writer.join(rng.uniform(0, longest_wait))
        daemon.stop(signal.SIGKILL)
        writer.join(30)
        assert writer.refused is None, writer.refused
        report.kills += 1
        report.rewrites += writer.answered
        check_file(path, held, writer.pending, report)
    return report


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as folder:
        print(kill_during_enrolments(folder, int(sys.argv[1]) if len(sys.argv) > 1 else 1000,
                                     int(sys.argv[2]) if len(sys.argv) > 2 else 1))
