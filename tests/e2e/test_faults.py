"""Every call of a program that can fail does so once: it says so or goes on, and damages nothing.
What requests meet is the score-sheet's affair."""

import contextlib
import errno
import os
import re
import shutil
import signal

import pytest
from common import Place
from dovmad_harness import SANITIZED_BUILD, checker, eventually
from faults import KINDS, Faults
from test_user_tool import Site, run_tool
from torture import Target, Torture, scenarios

SHIM = os.environ.get("DOVMAD_FAULTS", "")
pytestmark = pytest.mark.skipif(SANITIZED_BUILD or not SHIM, reason="needs the preloaded faults")
AMOUNT = 4  # faults of each kind in each scenario
DATABASE = ("open", "read", "write", "fsync", "rename", "stat")


def each_fault(tmp_path, kinds, most, run, error=None):
    """Calls `run(environment, what)` with every call of each kind failing in turn, as long as one did;
    how many did."""
    faults, count = Faults(SHIM, tmp_path / "faults"), 0
    for kind in kinds:
        for nth in range(most):
            faults.arm(kind, nth, error)
            run(faults.environment, f"{kind} {nth}")
            if not faults.disarm()[1]:
                break
            count += 1
    return count


# What is called, its input, and how one sees that it was done.
COMMANDS = [
    (("add", "bob"), lambda site: "\nbob\t" in site.good("list")),
    (("passwd", "alice"), lambda site: site.user("alice") != site.before),
    (("lock", "alice"), lambda site: ":off" in site.user("alice")),
    (("del", "alice"), lambda site: "alice" not in site.good("list")),
    (("grant", "alice", "operator", "ns"),
     lambda site: "alice" in (site.access("operator", site.other) or "")),
    (("-g", "deny", "wheel", "agent"), lambda site: site.access("agent") == ""),
]


@pytest.mark.parametrize("args, is_done", COMMANDS)
def test_the_tool_does_it_or_says_so(tmp_path, args, is_done):
    site = Site(tmp_path / "site")
    site.good("add", "alice", input="wonderland\n")
    site.good("-g", "grant", "wheel", "agent")
    site.before = site.user("alice")
    shutil.copytree(site.base, tmp_path / "pristine")

    def run(environment, what):
        done = run_tool(site.config, *args, input="another-word\n", **environment)
        assert done.returncode in (0, 1), (what, done)
        assert done.returncode == 0 or "dovmad-user: " in done.stderr, (what, done)
        for path in (site.at / "users").glob("[!.]*"):
            assert re.fullmatch(r"(alice|bob):\$y\$[^:\s]+(:[a-z,]+)?\n", path.read_text()), what
        assert site.access("agent") in ("wheel:group\n", ""), what
        if done.returncode == 0:
            assert is_done(site), (what, done)
        else:  # the very same command makes it good
            again = run_tool(site.config, *args, input="another-word\n")
            assert again.returncode == 0 or is_done(site), (what, done, again)
        shutil.rmtree(site.base)
        shutil.copytree(tmp_path / "pristine", site.base)

    assert each_fault(tmp_path, DATABASE, 60, run) > 12  # root looks at more

    def goes_on(environment, what):
        site.good("lock", "alice", **environment)
        assert site.good("passwd", "-w", "alice", input="word\n", **environment) == "", what

    assert each_fault(tmp_path, ("read",), 60, goes_on, errno.EINTR) > 3


def test_the_checker_ends_and_says_what_it_could_not_see(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)

    def run(environment, what):
        status, said = checker(daemon, env=environment)
        assert status in (0, 1, 2), what
        assert status == 0 or said.strip(), what

    assert each_fault(tmp_path, ("open", "read", "stat", "socket"), 60, run) > 20


def test_a_daemon_starts_or_says_why_not(make_daemon, tmp_path):
    """Also where the directory of accounts is still to be made."""
    daemon = make_daemon(start=False, auth=True, slips=True)
    usual = dict(daemon.env)

    def run(environment, what):
        if fresh:
            shutil.rmtree(daemon.var)
            daemon.var.mkdir()
        daemon.env = {**usual, **environment}
        daemon.stderr_file.unlink(missing_ok=True)
        daemon.start(wait=False)
        assert eventually(lambda: daemon.process.poll() is not None or
                          " started on port" in daemon.stderr_text()), what
        status, text = daemon.process.poll(), daemon.stderr_text()
        aborts = re.search("Error initializing MOLB AT|zel home dir not specified", text)
        assert status in (None, 1, -signal.SIGABRT if aborts else 1), (what, status, text)
        assert status is None or text.strip(), what
        daemon.expected_end = True
        if status is None:
            assert daemon.stop() == 0, what
        daemon.process.stdout.close()
        daemon.bad_ends.clear()

    for fresh in (True, False):
        assert each_fault(tmp_path, (*DATABASE, "socket", "fork"), 40, run) > 30
    daemon.env = usual
    daemon.start()
    assert daemon.request("GET", "/world/ping").status == 200


def serves(daemon):
    with contextlib.suppress(OSError):
        return daemon.request("GET", "/world/ping", tls=True).status == 200


def test_no_memory_in_the_first_handshake_spoils_no_later_one(make_daemon, tmp_path):
    daemon, faults, lived = make_daemon(start=False), Faults(SHIM, tmp_path / "faults"), 0
    daemon.env |= faults.environment
    for nth in range(24):
        daemon.start()
        faults.arm("malloc", nth)
        with contextlib.suppress(OSError):
            daemon.request("GET", "/world/ping", tls=True)
        faults.disarm()
        daemon.expected_end = True
        assert eventually(lambda: daemon.process.poll() is not None or serves(daemon), 20), nth
        lived += daemon.process.poll() is None and daemon.stop() == 0
        daemon.process.stdout.close()
        daemon.bad_ends.clear()
    assert lived > 8


@pytest.mark.parametrize("error", [None, errno.EINTR], ids=["usual", "interrupted"])
def test_requests_that_meet_faults(tmp_path, monkeypatch, error):
    """A sample of the score-sheet's; and the same calls, only interrupted."""
    place = Place(tmp_path, None, quick=True, done=0, shim=SHIM)
    kinds = [kind for kind in KINDS if kind != "malloc"]  # without memory it ends
    if error:
        kinds = ["read", "write", "accept", "connect", "wait"]
        for kind in KINDS:
            monkeypatch.setitem(KINDS, kind, error)
    monkeypatch.setattr("torture.KINDS", kinds)
    monkeypatch.setattr("torture.QUICK", AMOUNT)
    rack, target = Torture(place), Target()
    try:
        daemons = [rack.build(name, auth=name == "guarded").start() for name in ("plain", "guarded")]
        for scenario in scenarios(target):
            rack.run_scenario(daemons["login" in scenario[0]], scenario)
        assert [daemon.stop() for daemon in daemons] == [0, 0]
    finally:
        place.close()
    assert rack.tallies["faults"] > 10 * AMOUNT and not rack.wrong, rack.wrong
