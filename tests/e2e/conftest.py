import os
import sys
import tempfile
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "prove")]  # faults, kills and power cuts

from dovmad_harness import CHECKER, SANITIZED_BUILD, Daemon, checker  # noqa: E402


@pytest.fixture(name="public_folder")
def public_folder_fixture():
    """A folder that every user can reach and write, as the ones of pytest are not."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o777)
        yield Path(folder)


@pytest.fixture(name="make_daemon")
def make_daemon_fixture(tmp_path):
    """Returns make(**options) -> a running Daemon; every one of them is checked at the end, and its
    set-up by dovmad-check when it first serves, unless slips=True says that there are some. Folders
    and files that the test makes only later may be missing."""
    started = []

    def make(start=True, slips=False, **options):
        daemon = Daemon(tmp_path / f"d{len(started)}", **options)
        started.append(daemon)
        if not slips and CHECKER and not SANITIZED_BUILD:
            daemon.before_first_start = look
        return daemon.start() if start else daemon

    def look(daemon):
        status, said = checker(daemon)
        slips = [line for line in said.splitlines() if "warning: " not in line or
                 "No such file" not in line and "grants are lost" not in line and
                 (os.geteuid() == 0 or "may write" not in line)]  # here a user is its own daemon
        assert (status, slips) == (0, [])

    yield make
    problems = []
    for daemon in started:
        try:
            daemon.check()
        except AssertionError as problem:
            problems.append(str(problem))
    assert not problems, "\n".join(problems)
