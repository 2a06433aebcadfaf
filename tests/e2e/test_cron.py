"""The daemon beside Debian's cron: the same table, ten minutes each, in name spaces of its own and
otherwise idle. Both must start the same commands in the same minutes, each once, but for what the
manual says about hours that are skipped or repeated."""

import datetime
import os
import shutil
import signal
import subprocess
from collections import Counter
from pathlib import Path
from zoneinfo import ZoneInfo

import pytest

import fast_clock
from dovmad_harness import SANITIZED_BUILD

MINUTES = 10
LEAD = 40  # seconds before the first minute that counts
ZONES = Path("/usr/share/zoneinfo")
CRON = shutil.which("cron", path="/usr/sbin:/usr/bin")

EVERYWHERE = {"every": "* * * * *", "even": "*/2 * * * *", "list": "1,3,57-59 * * * *",
              "dom": "* * {day} * *", "other-dom": "* * {other} * *", "either": "* * {other} * {week}",
              "both": "*/3 * 1-31 {mon} {week}", "not": "* * * {month} *"}

# name -> begin in local time, zone, fixed times, zone half-way, only cron, only the daemon
DAYS = {
    "plain": ("2024-06-17 10:55", "UTC", {"57 10": 1, "0 11": 1, "30 2": 0, "3 10-12": 1}, None,
              {}, {}),
    # 02:00 to 02:59 do not come: cron makes the run up.
    "spring": ("2024-03-31 01:55", "Europe/Berlin", {"58 1": 1, "30 2": 1, "2 3": 1}, None,
               {"30 2"}, {}),
    # 02:00 to 02:59 come twice: cron has run what stands at a fixed time.
    "autumn": ("2024-10-27 02:55", "Europe/Berlin", {"57 2": 1, "2 2": 1, "2 3": 0}, None,
               {}, {"2 2"}),
    "move": ("2024-06-17 10:55", "UTC", {"57 10": 1, "3 11": 0, "3 20": 1}, "Asia/Tokyo", {}, {}),
}


def why_not():
    if os.geteuid() != 0 or not CRON:
        return "needs root and Debian's cron"
    if not Path(fast_clock.LIBRARY).is_file():
        return "the preloaded clock was not built"
    if SANITIZED_BUILD:
        return "a sanitizer wants to be loaded before the clock"
    if subprocess.run(["unshare", "-m", "true"], check=False, capture_output=True).returncode:
        return "no name spaces"
    return ""


class Side:
    """One program with a zone file, a clock and a record of its own."""

    def __init__(self, base, zone, begin):
        base.mkdir()
        self.base, self.process, self.age = base, None, 0
        self.clock = fast_clock.Clock(base, begin - LEAD, LEAD + 60 * MINUTES + 30, LEAD + 5 * 60 + 45)
        self.zone_file = base / "zone"
        self.move_to(zone)

    def start(self, command, mounts, env):
        clock = " ".join(f"{name}='{value}'" for name, value in self.clock.environment.items())
        lines = [f"mount --bind {self.zone_file} /etc/localtime", *mounts,
                 f"exec env {clock} {command}"]
        with open(self.base / "said", "wb") as said:
            self.process = subprocess.Popen(
                ["unshare", "-m", "sh", "-ec", "\n".join(lines)], env=env, stdout=said,
                stderr=said, stdin=subprocess.DEVNULL)

    def move_to(self, zone):
        self.zone_file.write_bytes((ZONES / zone).read_bytes())
        # The C library looks at the whole seconds of a file's age only.
        self.age += 10
        os.utime(self.zone_file, (self.age, self.age))

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(30)

    def runs(self):
        """How often each job ran in each of the minutes that count."""
        found = Counter(self.clock.runs(LEAD))
        return Counter({run: n for run, n in found.items() if 0 <= run[1] < MINUTES})


def clean_environment():
    return {"PATH": os.environ["PATH"]}


def start_cron(side, table):
    tabs, empty = side.base / "tabs", side.base / "empty"
    tabs.mkdir()
    empty.mkdir()
    (tabs / "root").write_text("".join(f"{times} /bin/true {job}\n" for job, times in table))
    (tabs / "root").chmod(0o600)
    nothing = side.base / "nothing"
    nothing.write_text("")
    side.start(f"{CRON} -f", [f"mount --bind {tabs} /var/spool/cron/crontabs",
                              f"mount --bind {empty} /etc/cron.d",
                              f"mount --bind {nothing} /etc/crontab",
                              "mount -t tmpfs none /run"], clean_environment())


def start_daemon(side, table, make_daemon):
    schedule = side.base / "schedule"
    schedule.write_text("".join(f"{job} - {times} /bin/true {job}\n" for job, times in table))
    daemon = make_daemon(start=False, scheduler_file=schedule)
    side.start(f"{os.environ['DOVMAD_BINARY']} {daemon.config}", [],
               {**clean_environment(), "DOVMAD_TEST_ROOT": str(daemon.prefix)})


def table_of(begin, fixed):
    values = {"day": begin.day, "other": begin.day % 28 + 1, "week": begin.isoweekday() % 7,
              "mon": begin.strftime("%b").lower(), "month": begin.month % 12 + 1}
    rows = [(name, times.format(**values)) for name, times in EVERYWHERE.items()]
    return rows + [(times.replace(" ", "-"), times + " * * *") for times in fixed]


def test_same_minutes_as_cron(make_daemon, tmp_path):
    if reason := why_not():
        pytest.skip(reason)
    sides = {}
    try:
        for name, (text, zone, fixed, moved, _, _) in DAYS.items():
            begin = datetime.datetime.fromisoformat(text).replace(tzinfo=ZoneInfo(zone))
            table = table_of(begin, fixed)
            pair = sides[name] = [Side(tmp_path / f"{name}-{who}", zone, int(begin.timestamp()))
                                  for who in ("cron", "daemon")]
            start_cron(pair[0], table)
            start_daemon(pair[1], table, make_daemon)
            for side in pair:
                assert side.clock.held(), (name, (side.base / "said").read_text())
                side.move_to(moved or zone)
                side.clock.go()
        assert all(side.clock.at_end() for pair in sides.values() for side in pair)
    finally:
        for pair in sides.values():
            for side in pair:
                if side.process is not None:
                    side.stop()

    for name, (_, _, fixed, _, only_cron, only_daemon) in DAYS.items():
        theirs, ours = (side.runs() for side in sides[name])
        assert sum(theirs.values()) > 20, (name, theirs, (sides[name][0].base / "said").read_text())
        assert max(theirs.values()) == max(ours.values()) == 1, name
        dashed = [{job.replace(" ", "-") for job in jobs} for jobs in (only_cron, only_daemon)]
        assert {job for job, _ in theirs - ours} == dashed[0], (name, theirs - ours, ours - theirs)
        assert {job for job, _ in ours - theirs} == dashed[1], (name, theirs - ours, ours - theirs)
        for job, runs in fixed.items():
            seen = {ran for ran, _ in theirs | ours}
            assert (job.replace(" ", "-") in seen) == bool(runs), (name, job)
