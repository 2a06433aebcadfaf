"""The supplied authentication library inside a running daemon: its files, its users, its TLS."""

import os
import re
import tempfile
from pathlib import Path

import pytest
from dovmad_harness import Daemon, eventually
from rights_support import add_user

ROOT_ONLY = pytest.mark.skipif(os.geteuid() != 0, reason="only root can become somebody else")


@pytest.fixture(name="public_folder")
def public_folder_fixture():
    """A folder that every user can reach, as the ones of pytest are not."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        yield Path(folder)


def log_lines(daemon, *words):
    return [line for line in daemon.error_log.read_text().splitlines()
            if all(word in line for word in words)]


def status(daemon, login, path="/pub/f.txt", **kwargs):
    return daemon.request("GET", path, user=login, **kwargs).status


# --- Changes of accounts ---


@ROOT_ONLY
@pytest.mark.parametrize("earlier", [False, True])
def test_accounts_change_at_once_whoever_the_daemon_is(public_folder, earlier):
    """The daemon has given up root's rights; everything of an earlier version belonged to root."""
    base = public_folder / "d"
    if earlier:
        daemon = Daemon(base, auth=True).start()
        daemon.check()
    daemon = Daemon(base, auth=True, runtime_uid="nobody")
    (daemon.root / "pub").mkdir(exist_ok=True)
    (daemon.root / "pub" / "f.txt").write_text("f")
    for log in (daemon.error_log, daemon.access_log):
        log.touch()
        os.chown(log, 65534, 65534)
    daemon.pid_file.touch()
    os.chown(daemon.pid_file, 65534, 65534)
    daemon.start()
    try:
        assert daemon.stderr_text().count("now belong to user 65534") == int(earlier)
        assert len(log_lines(daemon, "now belong to user 65534")) == int(earlier)
        at = daemon.ca.parent
        assert {path.stat().st_uid for path in (at.parent, at, *at.rglob("*"))} == {65534}
        assert status(daemon, f"root:{daemon.password}") == 200

        def tool(*args, input=None):
            done = daemon.user_tool(*args, input=input)
            assert done.returncode == 0, done

        for command, password, works, refused in (
                ("add", "wonderland", "alice:wonderland", "alice:looking"),
                ("passwd", "looking-glass", "alice:looking-glass", "alice:wonderland"),
                ("lock", None, None, "alice:looking-glass"),
                ("unlock", None, "alice:looking-glass", None),
                ("del", None, None, "alice:looking-glass")):
            tool(command, "alice", input=password)
            assert works is None or status(daemon, works) == 200, command
            assert refused is None or status(daemon, refused) == 401, command
        assert {path.stat().st_uid for path in at.rglob("*")} == {65534}
    finally:
        daemon.check()


# --- Files that are spoilt while the daemon runs ---


def test_refused_files_are_told_and_hurt_nobody(make_daemon):
    daemon = make_daemon(auth=True)
    (daemon.root / "pub").mkdir()
    (daemon.root / "pub" / "f.txt").write_text("f")
    at = daemon.ca.parent
    root = f"root:{daemon.password}"
    add_user(daemon, "alice", "wonderland")
    add_user(daemon, "bob", "the-builder")
    certificate, key = daemon.ca.read_bytes(), (at / "server.key").read_bytes()

    def reset():
        reply = daemon.request("POST", "/admin/security/reset", user=root)
        assert (reply.status, reply.text) == (200, "Success\n")

    def told(*words):
        assert eventually(lambda: log_lines(daemon, *words)), (words,
                                                               daemon.error_log.read_text())

    for spoilt in (b"", b"rubbish\0\xff", certificate[:200], certificate[200:], key):
        daemon.ca.write_bytes(spoilt)
        reset()
        daemon.ca.write_bytes(certificate)
        assert status(daemon, root, tls=True) == 200
    told("server.crt: no usable certificate", "kept as they were")
    (at / "server.key").write_bytes(key[:100])
    reset()
    told("server.key: no private key that fits the certificate", "kept as they were")
    assert status(daemon, root, tls=True) == 200
    (at / "server.key").write_bytes(key)

    (at / "domains").write_text("")
    reset()
    told("domains: no line names a domain", "the former ones stay")
    (at / "domains").unlink()
    assert status(daemon, "alice:wonderland") == 200
    told("domains: No such file")
    (at / "domains").write_text("local:password:box\nbroken\x1b[2J\r\n")
    assert status(daemon, root) == 200
    told("bad line skipped: broken\\x1B[2J")

    users = at / "users"
    os.chmod(users / "alice", 0o666)
    (users / "bob").write_bytes(b"bob:\0\xff\r\n" * 100)
    (users / "carol").symlink_to("/dev/zero")
    os.mkfifo(users / "dave")
    (users / "erin").mkdir()
    for login in ("alice:wonderland", "bob:the-builder", "carol:x", "dave:x", "erin:x",
                  "../root:x", "root\0:x", f"root\r\n:{daemon.password[:3]}", "r\"oo't:x", "x" * 33):
        assert status(daemon, login) == 401, login
    told("users/alice: owner", "mode 0666", "nobody logs in by it")
    told("users/bob: no good line for this user")
    for name in ("carol", "dave", "erin"):
        told(f"users/{name}: ")
    assert status(daemon, root) == 200
    assert not re.search(r"[^\n\x20-\x7e]", daemon.error_log.read_text())
