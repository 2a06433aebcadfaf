"""Clocks, starts and ends."""

import contextlib
import datetime
import os
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path
from zoneinfo import ZoneInfo

import fast_clock
from common import (ROOT, Outcome, Unavailable, ask, connect, get, line, literal, need_root, percentile,
                    ping_ms, run, status_of)
from dovmad_harness import eventually
from faults import Faults

QUICK_STALL_MS = 100  # a stall is seconds long; on whatever machine less may be the machine's


@line("longest-pass", "no situation of the stall bench holds others up for more than 20 ms, 50 ms beside "
      "100,000 hosts", 1, 1, alone=True)
def longest_pass(_, place):
    """A situation that misses its goal is met again, twice at most: what the machine does to a
    request does not come back, what the daemon does to it does."""
    wanted = ["nobody", "own-port-with-zero", "silent-tls-target", "cgi-flood", "ssi-exec-sleep-3"] \
        if place.quick else []
    waits, skipped, again = {}, set(), 0
    for attempt in range(3):
        done = subprocess.run([sys.executable, "-B", str(ROOT / "bench" / "stall_bench.py"),
                               str(place.build), *wanted],
                              capture_output=True, text=True, timeout=1200, check=False)
        rows = [text.split() for text in done.stdout.splitlines()[2:] if text.strip()]
        for row in rows:
            if row[1:2] == ["skipped"]:
                skipped.add(row[0])
            elif len(row) > 1:
                waits[row[0]] = min(float(row[1]), waits.get(row[0], 1e9))
        if not waits:
            return Outcome(False, literal((done.stdout + done.stderr)[-300:]))
        goals = {name: QUICK_STALL_MS if place.quick else 50 if "hosts" in name else 20
                 for name in waits}
        wanted = [name for name in waits if waits[name] > goals[name]]
        if not wanted:
            break
        again += len(wanted) if attempt < 2 else 0
    base = waits.pop("nobody", 0.0)
    name, longest = max(waits.items(), key=lambda item: item[1])
    return Outcome(not [key for key in wanted if key != "nobody"],
                   f"{len(waits)} situations, longest {longest:.1f} ms ({name}), nobody {base:.1f} ms, "
                   f"{again} repeated" + (f"; judged by {QUICK_STALL_MS} ms" if place.quick else "")
                   + (f"; skipped: {', '.join(sorted(skipped))}" if skipped else "")
                   + (f"; missed: {', '.join(wanted)}" if wanted else ""))


@line("clock-steps", "the wall clock steps by an hour and a day, both ways: no connection ends, no job "
      "runs twice in a minute", 4, 24)
def clock_steps(amount, place):
    faults = Faults(place.shim, place.folder / "control")
    schedule, marks = place.folder / "schedule", place.folder / "marks"
    schedule.write_text("")
    daemon = place.make(env=faults.environment, scheduler_file=schedule)
    (daemon.root / "large").write_bytes(b"x" * 3_000_000)
    rng_steps = [3600, -3600, 86400, -86400, 400, -400]
    lost, wrong, twice = 0, 0, 0
    idle, reader = connect(daemon), connect(daemon)
    reader.sendall(get("/large"))
    for number in range(amount):
        schedule.write_text("")
        ask(daemon, get("/admin/sched/rescan"))
        marks.unlink(missing_ok=True)
        faults.set("clock_s", faults.get("clock_s") + rng_steps[number % len(rng_steps)])
        schedule.write_text(f"j{number} - * * * * * /bin/sh -c echo x >>{marks}\n")
        ask(daemon, get("/admin/sched/rescan"))
        second = (time.time() + faults.get("clock_s")) % 60
        for _ in range(30):  # the schedule is looked at in every seventh pass
            if ping_ms(daemon) is None:
                wrong += 1
        eventually(marks.exists, 5)
        for _ in range(15):
            ping_ms(daemon)
        runs = len(marks.read_text().split()) if marks.exists() else 0
        crossed = second > 50  # a new minute may have begun
        twice += runs > 1 + crossed
        wrong += runs < 1
        reader.settimeout(0.05)
        with contextlib.suppress(TimeoutError):
            lost += len(reader.recv(10_000)) == 0
        idle.settimeout(0.01)
        with contextlib.suppress(TimeoutError):
            lost += idle.recv(1) == b""
    idle.sendall(get("/world/ping"))
    idle.settimeout(10)
    alive = status_of(idle.recv(4096)) == 200
    idle.close()
    reader.close()
    daemon.stop()
    return Outcome(lost == 0 and wrong == 0 and twice == 0 and alive,
                   f"{amount} steps: {lost} connections lost, {twice} double starts, {wrong} wrong")


# --- Zones ---

ZONE_FILES = Path("/usr/share/zoneinfo")
LEAD_S, BEFORE = 40, 65  # before the first minute that counts; minutes before the change
ZONES = ("Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "America/St_Johns",
         "Pacific/Chatham", "Africa/Casablanca", "America/Santiago", "Asia/Gaza", "Europe/Dublin",
         "Pacific/Auckland", "Asia/Beirut", "America/Havana")
MOVES = (("UTC", "Asia/Tokyo"), ("Europe/Berlin", "America/New_York"), ("Asia/Kolkata", "UTC"),
         ("America/Caracas", "Asia/Kathmandu"))


def changes(zone):
    """The moments of 2024 at which the zone's offset changes."""
    def offset(at):
        return datetime.datetime.fromtimestamp(at, ZoneInfo(zone)).utcoffset()
    first = int(datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc).timestamp())
    return [at for at in range(first, first + 366 * 86400, 1800) if offset(at) != offset(at - 1800)]


class Zoned:
    """A daemon with a clock and an /etc/localtime of its own; `begin` is the first minute that
    counts. Without `other` the zone changes by its own rules, else its file is replaced half-way."""

    def __init__(self, place, begin, minutes, zone, other=None):
        self.begin, self.minutes, self.zones = begin, minutes, [ZoneInfo(zone), ZoneInfo(other or zone)]
        self.other = other
        daemon = self.daemon = place.make(start=False, scheduler_file=place.folder / "schedule")
        self.zone_file = daemon.dir / "zone"
        self.clock = fast_clock.Clock(daemon.dir, begin - LEAD_S, LEAD_S + 60 * minutes,
                                      LEAD_S + 60 * (minutes // 2) + 30)
        self.put(zone, 10)
        # Every wall clock time near the change, also those that are left out or come twice.
        times = {(at.hour, at.minute) for z in self.zones for minute in range(-90, minutes + 90)
                 for at in [datetime.datetime.fromtimestamp(begin + 60 * minute, z)]}
        (place.folder / "schedule").write_text("".join(
            f"{h:02}{m:02} - {m} {h} * * * /bin/true {h:02}{m:02}\n" for h, m in sorted(times))
            + "every - * * * * * /bin/true every\n")

    def put(self, zone, age):
        self.zone_file.write_bytes(ZONE_FILES.joinpath(zone).read_bytes())
        os.utime(self.zone_file, (age, age))  # whole seconds are what the C library looks at

    def pass_time(self, place):
        clock = [f"{name}={value}" for name, value in self.clock.environment.items()]
        with open(self.daemon.stderr_file, "ab") as stderr:
            self.daemon.process = subprocess.Popen(
                ["unshare", "-m", "sh", "-ec", f"mount --bind {self.zone_file} /etc/localtime\n"
                 'exec env "$@"', "sh", *clock, os.environ["DOVMAD_BINARY"], str(self.daemon.config)],
                env={key: value for key, value in self.daemon.env.items() if key != "TZ"},
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=stderr)
        assert self.clock.held(), self.daemon.stderr_text()
        if self.other:
            self.put(self.other, 20)
        self.clock.go()
        assert self.clock.at_end(), self.daemon.stderr_text()
        self.daemon.stop()
        place.forget(self.daemon)

    def job_at(self, minute, zone):
        at = datetime.datetime.fromtimestamp(self.begin + 60 * minute, zone)
        return f"{at.hour:02}{at.minute:02}", minute

    def due(self):
        """Which starts are due, by the zone's rules: (job, minute), each once."""
        return Counter(run for minute in range(self.minutes) for run in (
            ("every", minute), self.job_at(minute, self.zones[minute > self.minutes // 2])))

    def seen(self):
        runs = Counter(run for run in self.clock.runs(LEAD_S) if 0 <= run[1] < self.minutes)
        if self.other:  # in the minute of the move both zones' times have come
            runs -= Counter([self.job_at(self.minutes // 2, self.zones[1])])
        return runs


@line("zone-changes", "summer time begins and ends, the zone's file is replaced: every start in the "
      "minute that the zone's rules say, each once", 1, 1)
def zone_changes(_, place):
    need_root("a zone file of its own")
    if run("unshare", "-m", "true").returncode != 0:
        raise Unavailable("no mount namespaces here")
    if not Path(fast_clock.LIBRARY).exists():
        raise Unavailable("the preloaded clock was not built")
    cases = [(at - 60 * BEFORE, zone, None) for zone in ZONES for at in changes(zone)]
    cases += [(1718614500, *move) for move in MOVES]
    if place.quick:
        cases = [*cases[:2], cases[-1]]
    due = seen = 0
    wrong = []
    for begin, zone, other in cases:
        side = Zoned(place, begin, 2 * BEFORE, zone, other)
        side.pass_time(place)
        expected, found = side.due(), side.seen()
        due, seen = due + expected.total(), seen + found.total()
        wrong += [f"{zone}: {'missing' if run in expected - found else 'too many'} {run}"
                  for run in (expected - found) + (found - expected)]
    return Outcome(not wrong, f"{len(cases)} changes of {len({case[1] for case in cases})} zones, "
                   f"{2 * BEFORE} minutes each: {due} starts due, {seen} seen, {len(wrong)} wrong"
                   + "".join(f"; {literal(text)}" for text in wrong[:4]))


@line("cold-start", "start to first answer within 100 ms, SIGTERM to the end within a pass", 10, 200,
      alone=True)
def cold_start(amount, place):
    daemon = place.make()
    daemon.stop()
    starts, ends = [], []
    for _ in range(amount):
        begin = time.perf_counter()
        daemon.start(wait=False)
        while True:
            with contextlib.suppress(OSError):
                if ping_ms(daemon) is not None:
                    break
        starts.append(1000 * (time.perf_counter() - begin))
        begin = time.perf_counter()
        status = daemon.stop()
        ends.append(1000 * (time.perf_counter() - begin))
        if status != 0:
            return Outcome(False, f"it ended with {status}")
    most = 1000 if place.quick else 100
    good = percentile(starts, 0.5) <= most and percentile(ends, 0.5) <= most
    return Outcome(good, f"{amount} times: start p50 {percentile(starts, 0.5):.0f} / max "
                   f"{max(starts):.0f} ms; end p50 {percentile(ends, 0.5):.0f} / max "
                   f"{max(ends):.0f} ms" + (f" (judged by {most} ms)" if place.quick else ""))


@line("sigterm-under-load", "SIGTERM amid requests: exit 0, no answered change lost, no half reply of a "
      "small file", 5, 200, piece=50)
def sigterm_under_load(amount, place):
    domain = place.folder / "domain"
    domain.write_text("keeper::keeper:Linux:6.1:x86_64:plx\n")
    daemon = place.make(domain_file=domain, start=False)
    (daemon.root / "small").write_bytes(b"s" * 2000)
    wrong, answered = [], 0
    for number in range(amount):
        daemon.start()
        over, told, lock = threading.Event(), set(), threading.Lock()

        def client(which, number=number, over=over, told=told, lock=lock):
            count = 0
            while not over.is_set():
                count += 1
                name = f"n{number}c{which}k{count}"
                with contextlib.suppress(OSError):
                    reply = ask(daemon, get("/agent/domain/register", method="POST",
                                            body=f"id={name}&host={name}".encode()), 5)
                    if b"Success" in reply:
                        with lock:
                            told.add(name)
                    reply = ask(daemon, get("/small", "Connection: close"), 5)
                    if reply and reply.end == "closed" and not reply.endswith(b"\r\n\r\n" + b"s" * 2000):
                        wrong.append(f"half a reply: {len(reply)} bytes")
        threads = [threading.Thread(target=client, args=(which,)) for which in range(6)]
        for thread in threads:
            thread.start()
        time.sleep(0.3)
        os.kill(daemon.pid, signal.SIGTERM)
        daemon.expected_end = True
        status = daemon.process.wait(20)
        over.set()
        for thread in threads:
            thread.join(20)
        daemon.process.stdout.close()
        kept = {row.split(":")[0] for row in domain.read_text().splitlines()}
        answered += len(told)
        if status != 0:
            wrong.append(f"exit {status}")
        if told - kept:
            wrong.append(f"{len(told - kept)} enrolments lost")
    return Outcome(not wrong and answered > 0, "{ends} ends, {answered} enrolments answered: "
                   "{wrong} wrong" + "".join(f"; {literal(text)}" for text in wrong[:3]),
                   {"ends": amount, "answered": answered, "wrong": len(wrong)})


