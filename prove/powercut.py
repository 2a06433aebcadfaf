"""Cuts the power of a file system while 32 agents enrol and are given rights, and looks at what a
daemon finds there after the next boot.

Domain file and access files lie on an image behind a loop device. At a random moment the daemon is
stopped where it stands (each thread at the end of the call that it is in) and the image is copied:
what the file system has handed to its disk by then is all that survives. Another program syncs files of its own meanwhile, so that renames reach the
journal at any time. The copy is mounted, its journal replayed, a daemon started on it: every host
and grant that had been answered must be there. Needs root, loop devices and the mkfs program.
"""

import contextlib
import http.client
import json
import os
import random
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path

from dovmad_harness import eventually

AGENTS = 32
IMAGE_BYTES = 320 << 20  # the smallest that xfs takes is 300 MiB
MAKE = {"ext4": ["mkfs.ext4", "-q", "-F"], "xfs": ["mkfs.xfs", "-q", "-f"]}
OPTIONS = {"ext4": "rw", "xfs": "nouuid"}


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0, f"{command}: {done.stderr}"
    return done.stdout


@contextlib.contextmanager
def mounted(image, kind, where):
    where.mkdir(exist_ok=True)
    device = run("losetup", "--find", "--show", image).strip()
    try:
        run("mount", "-t", kind, "-o", OPTIONS[kind], device, where)
        try:
            yield where
        finally:
            run("umount", where)
    finally:
        run("losetup", "--detach", device)


def why_not(kind):
    """Why no power can be cut here; empty when it can."""
    if os.geteuid() != 0:
        return "only root can mount images"
    if not shutil.which(MAKE[kind][0]):
        return f"{MAKE[kind][0]} is not installed"
    with tempfile.TemporaryDirectory() as folder:
        image = Path(folder) / "image"
        try:
            make_image(image, kind)
            with mounted(image, kind, Path(folder) / "mounted"):
                return ""
        except AssertionError as problem:
            return str(problem)


def make_image(image, kind):
    with open(image, "wb") as file:
        file.truncate(IMAGE_BYTES)
    run(*MAKE[kind], image)


def pieces(file):
    """The parts of a sparse file that hold data, as (offset, bytes)."""
    end = 0
    with contextlib.suppress(OSError):  # no more data
        while True:
            at = os.lseek(file.fileno(), end, os.SEEK_DATA)
            end = os.lseek(file.fileno(), at, os.SEEK_HOLE)
            while at < end:
                yield at, os.pread(file.fileno(), min(end - at, 1 << 20), at)
                at = min(end, at + (1 << 20))


def copy_image(source, target):
    """Copies an image, again until nothing has been written to it meanwhile: what a disk holds at
    one moment."""
    with open(source, "rb", buffering=0) as old:
        while True:
            with open(target, "w+b", buffering=0) as new:
                new.truncate(IMAGE_BYTES)
                for at, data in pieces(old):
                    os.pwrite(new.fileno(), data, at)
                if all(os.pread(new.fileno(), len(data), at) == data for at, data in pieces(old)):
                    return


class Agent(threading.Thread):
    """Enrols hosts, grants to users, and takes some of both away again. `here` is what answers say
    must be there, `gone` what must not; what is asked for and not answered stands in neither."""

    def __init__(self, port, number, over):
        super().__init__(daemon=True)
        self.port, self.number, self.over = port, number, over
        self.lock = threading.Lock()
        self.here, self.gone = set(), set()
        self.answered, self.problem = 0, None
        self.rng = random.Random(number)

    def ask(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        connection.request(method, path, body)
        reply = connection.getresponse()
        text = reply.read()
        assert reply.status == 200 and b"Success" in text, (reply.status, text)
        self.answered += 1

    def change(self, kind, name, joins):
        with self.lock:
            self.here.discard((kind, name))
            self.gone.discard((kind, name))
        if kind == "host":
            self.ask("POST", f"/agent/domain/{'' if joins else 'un'}register",
                     f"id={name}&host=h-{name}&osname=Linux&osrelease=6.1&cputype=x86_64")
        else:
            self.ask("POST", f"/admin/security/{'grant' if joins else 'deny'}",
                     f"role=operator&type=user&user={name}")
        with self.lock:
            (self.here if joins else self.gone).add((kind, name))

    def run(self):
        count = 0
        try:
            while not self.over.is_set():
                count += 1
                kind = self.rng.choice(("host", "host", "grant"))
                self.change(kind, f"{kind[0]}{self.number}x{count}e", True)
                with self.lock:
                    held = sorted(self.here)
                if len(held) > 8:
                    self.change(*self.rng.choice(held), False)
        except (AssertionError, OSError, http.client.HTTPException) as problem:
            if not self.over.is_set():
                self.problem = problem

    def state(self):
        with self.lock:
            return set(self.here), set(self.gone)


def keep_syncing(folder, power, over):
    """A program of somebody else, whose syncs take the journal along."""
    rng = random.Random(1)
    while not over.is_set():
        with power, open(folder / "other", "w", encoding="ascii") as file:
            file.write("x" * rng.randrange(1, 5000))
            file.flush()
            os.fsync(file.fileno())
        time.sleep(rng.uniform(0, 0.05))


@dataclass
class Report:
    cuts: int = 0
    answered: int = 0
    looked_for: int = 0
    lost: int = 0


def is_stopped(pid):
    return all(stat.read_text().rsplit(")", 1)[1].split()[0] == "T"
               for stat in Path(f"/proc/{pid}/task").glob("*/stat"))


def found_after_boot(make_daemon, folder):
    """What a daemon that starts on the folder knows."""
    daemon = make_daemon(document_root=folder / "root", domain_file=folder / "domain",
                         slips=True)
    hosts = json.loads(daemon.request("GET", "/agent/domain/enum?format=json").text)
    daemon.stop()
    text = (folder / "root" / "operator" / ".dovmaaccess").read_text()
    assert text == "" or text.endswith("\n"), f"half a row: {text[-60:]!r}"
    return ({("host", host["hostid"]) for host in hosts} |
            {("grant", row.removesuffix(":user")) for row in text.splitlines()})


def cut_power(make_daemon, base, kind, cuts, seed):
    rng = random.Random(seed)
    images = Path(tempfile.mkdtemp(dir="/dev/shm" if os.path.isdir("/dev/shm") else base))
    image = images / "image"
    over, power, report = threading.Event(), threading.Lock(), Report()
    try:
        make_image(image, kind)
        with mounted(image, kind, base / "disk") as disk:
            (disk / "root" / "operator").mkdir(parents=True)
            daemon = make_daemon(document_root=disk / "root", domain_file=disk / "domain",
                                 slips=True)
            agents = [Agent(daemon.port, number, over) for number in range(AGENTS)]
            other = threading.Thread(target=keep_syncing, args=(disk, power, over), daemon=True)
            try:
                for thread in [*agents, other]:
                    thread.start()
                assert eventually(lambda: all(agent.answered > 1 for agent in agents), 60)
                for number in range(cuts):
                    # A name of its own: nothing that the system remembers of another one counts.
                    copy = images / f"copy{number}"
                    time.sleep(rng.uniform(0, 0.3))
                    os.kill(daemon.pid, signal.SIGSTOP)
                    assert eventually(lambda: is_stopped(daemon.pid))
                    states = [agent.state() for agent in agents]
                    with power:
                        copy_image(image, copy)
                    os.kill(daemon.pid, signal.SIGCONT)
                    with mounted(copy, kind, base / "after") as after:
                        found = found_after_boot(make_daemon, after)
                    copy.unlink()
                    report.cuts += 1
                    for here, gone in states:
                        report.looked_for += len(here) + len(gone)
                        report.lost += len(here - found) + len(gone & found)
                    problems = [agent.problem for agent in agents if agent.problem]
                    assert not problems, problems
                report.answered = sum(agent.answered for agent in agents)
            finally:
                over.set()
                os.kill(daemon.pid, signal.SIGCONT)
                for thread in [*agents, other]:
                    thread.join(60)
                daemon.stop()
    finally:
        shutil.rmtree(images)
    return report
