"""Kills a daemon at random moments while it rewrites a file, and looks at what is left.

Every answered change must be in the file, no line may be lost or cut, and whoever reads the file
while it is rewritten never misses what was answered before he looked. The tests do it with a few
kills.
"""

import http.client
import random
import signal
import threading
import time
from dataclasses import dataclass

LONGEST_RUN_S = 0.1  # between the start of a daemon and its kill


@dataclass
class Report:
    kills: int = 0
    rewrites: int = 0  # answered
    cut_short: int = 0  # changes that a kill left without an answer
    looks: int = 0  # answered changes that a reader of the file looked for meanwhile


class Writer(threading.Thread):
    """Adds names of its own and takes them away until the daemon is gone. `held` is what answers
    confirmed; `pending` the name whose change was asked for and not answered."""

    def __init__(self, change, held, names, seed):
        super().__init__(daemon=True)
        self.change, self.held, self.names = change, held, names
        self.rng = random.Random(seed)
        self.answered = 0
        self.begun = dict.fromkeys(names, 0)  # changes of each name
        self.pending = None
        self.refused = None

    def certain(self):
        """What the file must hold while the numbers stay the same."""
        begun, held, pending = dict(self.begun), set(self.held), self.pending
        return {(name, begun[name]) for name in held if name != pending}

    def run(self):
        while True:
            self.pending = name = self.rng.choice(self.names)
            self.begun[name] += 1
            joins = name not in self.held
            try:
                reply = self.change(name, joins)
            except (OSError, http.client.HTTPException):
                return
            if b"Success" not in reply:
                self.refused = reply
                return
            (self.held.add if joins else self.held.discard)(name)
            self.pending = None
            self.answered += 1


def ask(daemon, method, path, body=None):
    connection = http.client.HTTPConnection("127.0.0.1", daemon.port, timeout=20)
    connection.request(method, path, body)
    return connection.getresponse().read()


def whole_lines(path):
    text = path.read_text()
    assert text.endswith("\n"), f"cut after {text[-60:]!r}"
    lines = text[:-1].split("\n")
    assert len(lines) == len(set(lines)), "a line stands twice"
    return lines


def follow(writers, present, seconds):
    """Reads the file again and again; how often something that must be in it was asked for."""
    looks, deadline = 0, time.monotonic() + seconds
    while time.monotonic() < deadline:
        before = [writer.certain() for writer in writers]
        found = present()
        for writer, certain in zip(writers, before):
            # A change that has begun meanwhile may show already.
            certain &= writer.certain()
            missing = {name for name, _ in certain} - found
            assert not missing, f"answered, and not in the file: {sorted(missing)}"
            looks += len(certain)
    return looks


def kill_repeatedly(daemon, kills, seed, names, *, change, present, look=lambda held: None,
                    writers=1):
    """`change(name, joins)` asks for one change and returns the reply; `present()` is what the file
    holds of `names`; `look(held)` checks a daemon that has just started."""
    rng = random.Random(seed)
    report, helds = Report(), [set() for _ in range(writers)]
    for _ in range(kills):
        daemon.start()
        look(set().union(*helds))
        team = [Writer(change, held, names[i::writers], rng.random())
                for i, held in enumerate(helds)]
        for writer in team:
            writer.start()
        report.looks += follow(team, present, rng.uniform(0, LONGEST_RUN_S))
        daemon.stop(signal.SIGKILL)
        found = None
        for writer in team:
            writer.join(30)
            assert not writer.is_alive() and writer.refused is None, writer.refused
            report.rewrites += writer.answered
            found = present() if found is None else found
            if writer.pending:
                report.cut_short += 1
                (writer.held.add if writer.pending in found else writer.held.discard)(
                    writer.pending)
        report.kills += 1
        held = set().union(*helds)
        assert found == held, f"answered: {sorted(held)}, in the file: {sorted(found)}"
    return report
