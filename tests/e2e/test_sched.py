"""The scheduler in a real daemon: what it starts, with which surroundings, and what it shows."""

import json
import os
import re
import socket

import pytest

import fast_clock
from dovmad_harness import SANITIZED_BUILD, eventually

CHECK_PASSES = 9  # the daemon looks at its schedule every seventh pass


def check_now(daemon):
    """Keeps the daemon's loop turning until it has looked at its schedule."""
    for _ in range(CHECK_PASSES):
        daemon.request("GET", "/world/ping")


def wait_for(condition, daemon, seconds=120):
    assert eventually(lambda: check_now(daemon) or condition(), seconds)


def dump(daemon):
    reply = daemon.request("GET", "/admin/sched/dump")
    assert reply.raw.startswith(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n")
    assert b"\0" not in reply.body
    return reply.text


def ids(daemon):
    return re.findall(r"^id=(\S+)", dump(daemon), re.M)


def rescan(daemon, query="", method="POST"):
    reply = daemon.request(method, "/admin/sched/rescan" + query)
    assert (reply.status, reply.body) == (200, b"Success\n")


@pytest.fixture(name="schedule")
def schedule_fixture(tmp_path):
    return tmp_path / "schedule"


def test_kickoff_and_shell_quoting(make_daemon, schedule, tmp_path):
    out = tmp_path / "out"
    out.mkdir()
    schedule.write_text(
        f"nothing kickoff - - x x x /nonexistent/program\n"
        f"plain kickoff - - x x x /usr/bin/touch {out}/a {out}/b\\ {out}/c '{out}/d\n"
        f"shell kickoff - - x x x /bin/sh -c printf '%s|' \"a  b\" 'c\"d' $((6*7)) > {out}/shell\n"
        f"other - - - x x x /usr/bin/touch {out}/never\n"
        f"paused pause,kickoff - - x x x /usr/bin/touch {out}/never\n")
    daemon = make_daemon(slips=True, scheduler_file=schedule)
    wait_for(lambda: (out / "c").exists() and (out / "shell").exists()
             and (out / "shell").read_text().count("|") == 3, daemon)
    assert (out / "b\\").exists()  # made before "c"; words are cut at blanks, whatever quotes they hold
    assert (out / "shell").read_text() == 'a  b|c"d|42|'
    (out / "a").unlink()
    rescan(daemon)
    check_now(daemon)
    assert not (out / "a").exists() and not (out / "never").exists()
    assert ids(daemon) == ["nothing", "other", "plain", "shell"]
    assert ("sched: job nothing could not be started: /nonexistent/program: No such file or "
            "directory\n") in daemon.error_log.read_text()


FACTS = """
import json, os, sys
names = os.listdir("/proc/self/fd")
status = dict(line.split(":", 1) for line in open("/proc/self/status"))
facts = {
    "descriptors": {n: os.readlink("/proc/self/fd/" + n) for n in names
                    if os.path.exists("/proc/self/fd/" + n)},
    "environment": dict(line.split("=", 1) for line in
                        open("/proc/self/environ").read().split("\\0") if line),
    "umask": os.umask(0), "session": os.getsid(0) == os.getpid() == os.getpgid(0),
    "groups": sorted(os.getgroups()), "arguments": sys.argv[2:],
    "blocked": int(status["SigBlk"], 16),
}
with open(sys.argv[1] + ".new", "w") as out:
    json.dump(facts, out)
os.rename(sys.argv[1] + ".new", sys.argv[1])
"""


def test_surroundings_of_a_command(make_daemon, schedule, tmp_path):
    """Session, descriptors, environment, umask, mask and groups of a child."""
    out, script = tmp_path / "facts", tmp_path / "facts.py"
    script.write_text(FACTS)
    ignored = tmp_path / "ignored"
    schedule.write_text(
        f"job kickoff - - x x x  \t/usr/bin/python3 -S {script} {out} 'a\tb'  \n"
        f"signals kickoff - - x x x /bin/sh -c grep SigIgn /proc/self/status > {ignored}\n")
    daemon = make_daemon(slips=True, scheduler_file=schedule,
                         cgi_envvar="X=1,PLX_INSTALL_ROOT=/opt/plx",
                         env={"PATH": "/usr/bin:/bin", "SECRET": "1"})
    held = [daemon.connect() for _ in range(5)]  # sockets that a child must not see
    wait_for(lambda: out.exists() and ignored.exists() and ignored.read_text(), daemon)
    assert int(ignored.read_text().split()[1], 16) == 0, "the daemon's own ignoring of SIGPIPE"
    for sock in held:
        sock.close()
    assert json.loads(out.read_text()) == {
        "descriptors": {"0": "/dev/null", "1": "/dev/null", "2": "/dev/null"},
        "environment": {"LC_TIME": "C", "PATH": "/usr/bin:/bin", "PLX_VAR_DIR": str(daemon.var),
                        "PERL5LIB": "/opt/plx/lib/modules", "PLX_INSTALL_ROOT": "/opt/plx",
                        "SERVER_NAME": socket.gethostname()},
        "umask": 0o027, "session": True, "groups": sorted(os.getgroups()),
        "arguments": ["'a", "b'"], "blocked": 0,
    }


@pytest.mark.skipif(SANITIZED_BUILD or not fast_clock.LIBRARY, reason="needs the preloaded clock")
def test_idle_daemon_starts_each_minute_once(make_daemon, schedule, tmp_path):
    """Nobody asks it for anything: it looks at its schedule by itself."""
    clock = fast_clock.Clock(tmp_path, 1750069800 - 20, 650, hold=590)  # half past ten
    schedule.write_text("every - * * * * * /bin/true every\n"
                        "interval - 2 - x x x /bin/true interval\n"
                        "odd - 31-59/2 * * * * /bin/true odd\n"
                        "bad - 61 * * * * /bin/true bad\n")
    daemon = make_daemon(scheduler_file=schedule, slips=True, env=clock.environment)
    assert clock.held()

    def minutes(job):
        return [minute for name, minute in clock.runs(20) if name == job and minute >= 0]
    jobs = "every", "odd", "interval"  # the last ones write while the clock stands
    assert eventually(lambda: sum(len(minutes(job)) for job in jobs) == 20)
    assert minutes("every") == list(range(10))
    assert minutes("odd") == list(range(1, 10, 2)) and minutes("bad") == []
    assert minutes("interval") in (list(range(0, 10, 2)), list(range(1, 10, 2)))
    clock.go()
    assert clock.at_end()
    assert "prev=Thu Jan  1" not in dump(daemon)
    # A starved machine makes passes slow, which is told, too.
    lines = [line for line in re.findall(r'"-" (.*)', daemon.error_log.read_text())
             if not line.startswith("slow pass")]
    assert lines == [f"schedule {schedule}:4: job bad: bad minute",
                     f"schedule {schedule}: 3 entries, 1 lines not loaded"]


def test_rescan_of_one_entry_and_of_all(make_daemon, schedule):
    schedule.write_text("a - 5 - x x x /bin/true\nb - 5 - x x x /bin/true\n")
    daemon = make_daemon(scheduler_file=schedule)
    assert ids(daemon) == ["a", "b"]
    schedule.write_text("a - 7 - x x x /bin/true\nb - 7 - x x x /bin/true\nc - - - x x x /bin/true\n")
    rescan(daemon, "?id=a")
    assert re.findall(r"interval=(\d+)", dump(daemon)) == ["7", "5"]
    rescan(daemon, "?id=nobody", method="GET")
    assert re.findall(r"interval=(\d+)", dump(daemon)) == ["7", "7", "0"]
    schedule.write_text("a pause 7 - x x x /bin/true\nb - 8 - x x x /bin/true\n")
    rescan(daemon, "?id=a")
    assert ids(daemon) == ["b", "c"]
    schedule.unlink()
    rescan(daemon)
    assert ids(daemon) == []
    assert daemon.request("POST", "/admin/sched/rescan", body=b"id=a").status == 200
    reply = daemon.request("POST", "/admin/sched/rescan", body=b"x" * 100000)
    assert (reply.status, reply.reason) == (400, "Request is too big")


def test_a_thousand_entries_start_and_leave_nothing(make_daemon, schedule, tmp_path):
    out = tmp_path / "out"
    out.mkdir()
    schedule.write_text("".join(
        f"job{i:04} kickoff - - x x x /usr/bin/touch {out}/{i}\n" for i in range(1000)))
    daemon = make_daemon(scheduler_file=schedule)
    before = daemon.fd_count()
    assert ids(daemon) == [f"job{i:04}" for i in range(1000)]
    wait_for(lambda: len(os.listdir(out)) == 1000, daemon)
    wait_for(lambda: daemon.children() == [], daemon)
    wait_for(lambda: daemon.fd_count() <= before, daemon)
