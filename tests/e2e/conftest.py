import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from dovmad_harness import Daemon  # noqa: E402


@pytest.fixture(name="make_daemon")
def make_daemon_fixture(tmp_path):
    """Returns make(**options) -> a running Daemon; every one of them is checked at the end."""
    started = []

    def make(start=True, **options):
        daemon = Daemon(tmp_path / f"d{len(started)}", **options)
        started.append(daemon)
        return daemon.start() if start else daemon

    yield make
    problems = []
    for daemon in started:
        try:
            daemon.check()
        except AssertionError as problem:
            problems.append(str(problem))
    assert not problems, "\n".join(problems)
