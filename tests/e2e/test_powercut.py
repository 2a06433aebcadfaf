"""A few power cuts of an ext4 and an XFS image, and the order of the calls on which they depend; the
score-sheet makes many."""

import contextlib
import re
import shutil
import signal
import subprocess

import pytest

import powercut
from dovmad_harness import eventually


@pytest.mark.parametrize("kind", powercut.MAKE)
def test_what_was_answered_survives_a_power_cut(make_daemon, tmp_path, kind):
    if reason := powercut.why_not(kind):
        pytest.skip(f"no power can be cut here: {reason}")
    report = powercut.cut_power(make_daemon, tmp_path, kind, cuts=6, seed=20261121)
    assert report.cuts == 6 and report.lost == 0, report


def test_order_of_write_sync_rename_and_reply(make_daemon, tmp_path):
    """Where no image can be mounted this has to do: an answer follows the rename that follows the
    sync of all that was written."""
    (tmp_path / "root" / "operator").mkdir(parents=True)
    daemon = make_daemon(domain_file=tmp_path / "domain", document_root=tmp_path / "root")
    log = tmp_path / "calls"
    calls = "write,writev,pwrite64,sendto,sendmsg,fdatasync,fsync,rename,renameat,renameat2"
    if not shutil.which("strace"):
        pytest.skip("strace is not installed")
    with subprocess.Popen(["strace", "-f", "-y", "-s", "40", "-e", f"trace={calls}", "-o", log, "-p",
                           str(daemon.pid)], stderr=subprocess.PIPE) as tracer, \
            contextlib.ExitStack() as end:
        end.callback(tracer.send_signal, signal.SIGINT)  # also where something is wrong
        if b"attached" not in tracer.stderr.readline():
            pytest.skip("the daemon can't be traced here")
        for method, path, body, file in [
                ("POST", "/agent/domain/register", "id=a&host=b", tmp_path / "domain"),
                ("GET", "/admin/security/grant?role=operator&type=user&user=u", None,
                 tmp_path / "root" / "operator" / ".dovmaaccess")]:
            before = log.read_text()
            assert daemon.request(method, path, body).status == 200
            assert eventually(lambda: "HTTP/1.1 200" in log.read_text()[len(before):])
            new = f"{file.parent}/.{file.name}.dovmad-new"
            lines = log.read_text()[len(before):].splitlines()
            order = [name for line in lines for name, pattern in [
                ("write", rf"write\w*\(\d+<{re.escape(new)}"),
                ("sync", rf"(fdatasync|fsync)\(\d+<{re.escape(new)}"),
                ("rename", rf"rename\w*\(.*\.dovmad-new"),
                ("folder", rf"fsync\(\d+<{re.escape(str(file.parent))}>"),
                ("reply", r"(write|send)\w*\(\d+<.*HTTP/1.1 200")] if re.search(pattern, line)]
            assert order == ["write", "sync", "rename", "folder", "reply"], (order, lines)
