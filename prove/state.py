"""Files of state under kills, power cuts, full and failing disks."""

import contextlib
import errno
import functools
import random
import re
import signal
import subprocess
import time

import kill_domain
import kill_rights
import kill_support
import powercut
from common import Outcome, Unavailable, ask, end_daemon, get, line, need_root, run, status_of
from dovmad_harness import eventually
from faults import Faults
from torture import START_ABORTS


def kills(run_kills, amount, place):
    """What is lost raises an error, which is the line's result."""
    kill_support.LONGEST_RUN_S = 0.04
    report = run_kills(functools.partial(place.make, start=False), place.folder, amount,
                       random.randrange(1 << 32))
    return Outcome(report.cut_short > 0, "{kills} kills, {changes} changes answered, {cut} cut short: "
                   "0 lost, 0 half lines", {"kills": report.kills, "changes": report.rewrites,
                                            "cut": report.cut_short})


@line("kills-domain", "10,000 kills amid enrolments: 0 hosts lost", 40, 10_000, piece=500)
def kills_domain(amount, place):
    return kills(kill_domain.kill_during_enrolments, amount, place)


@line("kills-access", "10,000 kills amid grants: 0 entries lost", 40, 10_000, piece=500)
def kills_access(amount, place):
    return kills(kill_rights.kill_during_rewrites, amount, place)


@line("kills-ini", "10,000 kills amid changes of an INI store: 0 values lost", 60, 10_000, piece=2000)
def kills_ini(amount, place):
    """The last value that was told, or the one behind it, must stand; all keys whole."""
    store, keys = place.folder / "store.ini", 40
    rng, told_in_all, number = random.Random(), 0, 0
    held = {}
    for _ in range(amount):
        with subprocess.Popen([place.build / "prove" / "ini_writer", store, str(keys), str(number)],
                              stdout=subprocess.PIPE) as writer:
            time.sleep(rng.uniform(0.002, 0.03))
            writer.send_signal(signal.SIGKILL)
            told = [int(word) for word in writer.stdout.read().split()[:-1] or []]
        for value in told:
            held[value % keys] = value
        told_in_all += len(told)
        found = {}
        text = store.read_text() if store.exists() else ""
        assert not text or text.startswith("[numbers]\n") and text.endswith("\n\n"), text[-60:]
        for row in text.splitlines()[1:-1]:
            match = re.fullmatch(r"key(\d+) = (?:\"(\d+)\"|(\d+));", row)
            assert match, f"half a line: {row!r}"
            found[int(match[1])] = int(match[2] or match[3])
        for key, value in held.items():
            # One change, or two, may have been stored and not told, or told and not read here.
            assert value <= found[key] <= value + 3 * keys, (key, value, found.get(key))
        held = found
        number = max(found.values(), default=-1) + 1
    return Outcome(told_in_all > 0, "{kills} kills, {changes} changes told: 0 lost",
                   {"kills": amount, "changes": told_in_all})


@line("power-cuts", "500 power cuts of ext4 and XFS: 0 answered changes lost", 4, 500, piece=50)
def power_cuts(amount, place):
    done, problems = [], []
    for kind in powercut.MAKE:
        if why := powercut.why_not(kind):
            problems.append(f"{kind}: {why}")
            continue
        folder = place.folder / kind
        folder.mkdir()
        report = powercut.cut_power(place.make_for_once, folder, kind, amount // 2, random.randrange(1 << 32))
        done.append(report)
    if not done:
        raise Unavailable("; ".join(problems))
    counts = {name: sum(getattr(report, name) for report in done)
              for name in ("cuts", "answered", "looked_for", "lost")}
    figure = "{cuts} cuts, {answered} changes answered, {looked_for} looked for: {lost} lost"
    return Outcome(counts["lost"] == 0, "; ".join([figure, *problems]), counts)


# --- Full and failing disks ---

ERRORS = (errno.ENOSPC, errno.EIO, errno.EACCES, errno.EDQUOT, errno.EROFS)


class Disk:
    """A daemon whose calls about one file fail; every case is judged by `whole`."""

    def __init__(self, place):
        self.place, self.cases, self.wrong = place, 0, []
        self.faults = Faults(place.shim, place.folder / "control")
        domain = place.folder / "domain"
        domain.write_text("old::old:Linux:6.1:x86_64:plx\n")
        self.daemon = place.make(env=self.faults.environment, domain_file=domain,
                                 scheduler_file=place.folder / "schedule", start=False)
        (place.folder / "schedule").write_text("")
        for folder in ("operator", "up"):
            (self.daemon.root / folder).mkdir(parents=True, exist_ok=True)
        (self.daemon.root / "operator" / ".dovmaaccess").write_text("kept:user\n")
        self.domain = domain
        self.number = 0

    def case(self, part, kind, nth, error, act, whole):
        """False once the n-th call is beyond what `act` makes."""
        self.faults.arm(kind, nth, error, part)
        with contextlib.suppress(OSError):
            act()
        hit = self.faults.disarm()[1] > 0
        if not hit:
            return False
        self.cases += 1
        what = f"{part} {kind}[{nth}] {errno.errorcode[error]}"
        if self.daemon.process.poll() is not None:
            self.wrong.append(f"{what}: the daemon ended")
            self.daemon.start()
        elif problem := whole():
            self.wrong.append(f"{what}: {problem}")
        return True

    def all_cases(self, part, act, whole, kinds, limit):
        for kind in kinds:
            for error in ERRORS[:limit]:
                nth = 0
                while nth < 24 and self.case(part, kind, nth, error, act, whole):
                    nth += 1

    # What acts, and what has to be true behind it.

    def register(self):
        self.number += 1
        body = f"id=n{self.number}&host=h{self.number}&osname=L&osrelease=6&cputype=x".encode()
        return status_of(ask(self.daemon, get("/agent/domain/register", method="POST", body=body)))

    def domain_whole(self):
        lines = self.domain.read_text().split("\n")
        if lines[-1] != "" or "old::old:Linux:6.1:x86_64:plx" not in lines:
            return f"damaged: {lines[-2:]}"
        if self.register() != 200:
            return "the next enrolment is refused"
        if not any(text.startswith(f"h{self.number}:") for text in
                   self.domain.read_text().split("\n")):
            return "the next enrolment is not in the file"
        return ""

    def grant(self):
        self.number += 1
        return status_of(ask(self.daemon, get(
            f"/admin/security/grant?user=u{self.number}e&role=operator&type=user")))

    def access_whole(self):
        path = self.daemon.root / "operator" / ".dovmaaccess"
        text = path.read_text()
        if not text.endswith("\n") or "kept:user\n" not in text:
            return f"damaged: {text[-40:]!r}"
        self.grant()
        return "" if f"u{self.number}e:user\n" in path.read_text() else "the next grant is not there"

    def upload(self):
        ask(self.daemon, get("/up/f", method="PUT", body=b"x" * 5000), timeout=3)

    def upload_whole(self):
        self.upload()
        path = self.daemon.root / "up" / "f"
        return "" if path.exists() and path.read_bytes() == b"x" * 5000 else "the next upload fails"

    def fetch(self):
        return ask(self.daemon, get("/world/page", "Connection: close"))

    def fetch_whole(self):
        return "" if self.fetch().endswith(b"the page\n") else "the next request fails"

    def missing(self):
        return ask(self.daemon, get("/world/missing", method="HEAD"))

    def missing_whole(self):
        return "" if status_of(self.missing()) == 404 else "the next refusal fails"


def start_cases(place, limit):
    """A start whose calls about a file fail ends with a word, or serves; the next one is clean."""
    cases, wrong = 0, []
    parts = [("dovmad-at", True), ("domain", False), (".pid", False), ("error.log", False),
             ("access.log", False), ("dovmad.conf", False)]
    for part, fresh in parts[:2] if place.quick else parts:
        for kind in ("open", "write", "fsync", "rename", "stat", "read"):
            for error in ERRORS[:limit]:
                nth = 0
                while nth < (2 if place.quick else 6 if fresh else 3):
                    folder = place.folder / f"start{cases}"
                    folder.mkdir(exist_ok=True)
                    faults = Faults(place.shim, folder / "control")
                    (folder / "domain").write_text("old::old:Linux:6.1:x86_64:plx\n")
                    if not fresh:
                        (folder / "d" / "var").mkdir(parents=True)
                        run("cp", "-a", place.folder / "site", folder / "d" / "var" / "sec")
                    daemon = place.make(start=False, env=faults.environment,
                                        domain_file=folder / "domain", name=f"start{cases}/d")
                    faults.arm(kind, nth, error, part)
                    daemon.start(wait=False)
                    eventually(lambda d=daemon: d.process.poll() is not None
                               or " started on port" in d.stderr_text(), 20)
                    hit = faults.disarm()[1] > 0
                    status = daemon.process.poll()
                    # Without its library or its configuration it aborts, with a word about the file.
                    aborts = any(text in daemon.stderr_text() for text in START_ABORTS)
                    ends = (1, -signal.SIGABRT if aborts else 1)
                    if status is not None and (status not in ends
                                               or not daemon.stderr_text().strip()):
                        wrong.append(f"start, {part} {kind}[{nth}]: ended with {status}")
                    end_daemon(daemon, status)
                    if hit:
                        cases += 1
                        daemon.start()  # fails unless it serves
                        daemon.stop()
                        if (folder / "domain").read_text() != "old::old:Linux:6.1:x86_64:plx\n":
                            wrong.append(f"start, {part} {kind}[{nth}]: the domain file changed")
                    run("rm", "-rf", folder)
                    place.forget(daemon)
                    if not hit:
                        break
                    nth += 1
    return cases, wrong


def full_disk_cases(place):
    """A file system without room for as much as a byte, and then with room again."""
    need_root("mounting a full file system")
    small = place.folder / "small"
    small.mkdir()
    if (done := run("mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", small)).returncode != 0:
        raise Unavailable(f"no full file system: {done.stdout}")
    cases, wrong = 0, []
    try:
        (small / "operator").mkdir()
        (small / "up").mkdir()
        (small / "domain").write_text("old::old:Linux:6.1:x86_64:plx\n")
        (small / "operator" / ".dovmaaccess").write_text("kept:user\n")
        daemon = place.make(document_root=small, domain_file=small / "domain", name="full")
        for round_number in range(8):
            with contextlib.suppress(OSError), open(small / "filler", "wb", buffering=0) as filler:
                while True:
                    filler.write(b"x" * 4096)
            for uri, method, body in (
                    ("/agent/domain/register", "POST", f"id=f{round_number}&host=h".encode()),
                    (f"/admin/security/grant?user=u{round_number}&role=operator&type=user", "GET", b""),
                    ("/up/f", "PUT", b"y" * 9000)):
                status_of(ask(daemon, get(uri, method=method, body=body), timeout=5))
                cases += 1
                if "old::old" not in (small / "domain").read_text() or \
                        "kept:user\n" not in (small / "operator" / ".dovmaaccess").read_text():
                    wrong.append(f"full, {uri}: damaged")
            (small / "filler").unlink()
            ask(daemon, get("/agent/domain/register", method="POST",
                            body=f"id=r{round_number}&host=h".encode()))
            if f":f{round_number}:" not in (small / "domain").read_text():
                wrong.append("what could not be written did not follow")
        daemon.stop()
    finally:
        run("umount", "-l", small)
    return cases, wrong


@line("disks", "300 cases of full and failing disks: old or new file whole, the daemon lives", 1, 5)
def disks(amount, place):
    disk = Disk(place)
    daemon = disk.daemon.start()
    (daemon.root / "world").mkdir(exist_ok=True)
    (daemon.root / "world" / "page").write_text("the page\n")
    writes = ("open", "write", "fsync", "rename", "stat")
    disk.all_cases("domain", disk.register, disk.domain_whole, writes, amount)
    disk.all_cases("dovmaaccess", disk.grant, disk.access_whole, (*writes, "read"), amount)
    disk.all_cases("/up", disk.upload, disk.upload_whole, ("open", "write", "rename", "stat"), amount)
    disk.all_cases("page", disk.fetch, disk.fetch_whole, ("open", "read", "stat"), amount)
    disk.all_cases(".log", disk.missing, disk.missing_whole, ("write",), amount)
    daemon.stop()
    run("cp", "-a", daemon.var / "sec", place.folder / "site")
    cases, wrong = start_cases(place, amount)
    skipped = ""
    try:
        more, more_wrong = full_disk_cases(place)
        cases, wrong = cases + more, wrong + more_wrong
    except Unavailable as why:
        skipped = f" ({why})"
    cases, wrong = cases + disk.cases, wrong + disk.wrong
    return Outcome(not wrong and cases >= 60 * amount,
                   f"{cases} cases, {len(wrong)} wrong{skipped}" + "".join(
                       f"; {text}" for text in wrong[:6]))


