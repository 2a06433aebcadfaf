"""Attacks on logins and rights that once worked, and what an administrator changes meanwhile."""

import contextlib
import socket
import threading
import time

import pytest

from dovmad_harness import eventually
from rights_support import (ROLES, add_user, basic, full_name, grant, guarded,
                            make_role_folders, root_login)

ALICE = "alice:wonder"


@pytest.fixture(name="daemon")
def make_guarded_daemon(make_daemon):
    return guarded(make_daemon)


def ask(daemon, login, source="127.0.0.1", path="/pub/f.txt"):
    """The status of one request from a loopback address."""
    with socket.create_connection(("127.0.0.1", daemon.port), 30, (source, 0)) as sock:
        sock.sendall(f"GET {path} HTTP/1.1\r\nAuthorization: {basic(login)}\r\n\r\n".encode())
        return int(sock.recv(100)[9:12])


@contextlib.contextmanager
def attack(daemon, source, logins, a_second):
    """Tries logins from an address until the block ends; yields the list of their statuses."""
    statuses, over = [], threading.Event()

    def run():
        for login in logins:
            statuses.append(ask(daemon, login, source))
            if over.wait(1 / a_second):
                return
    thread = threading.Thread(target=run)
    thread.start()
    yield statuses
    over.set()
    thread.join()


def endless(make):
    number = 0
    while True:
        number += 1
        yield make(number)


# --- Logins ---

@pytest.mark.parametrize("source", ["127.0.0.1", "127.0.0.2"])
def test_guesses_after_a_real_login_find_nothing(daemon, source):
    assert ask(daemon, ALICE, source) == 200
    words = [f"word{i}" for i in range(2500)] + ["wonder"]
    assert {ask(daemon, f"alice:{word}", source) for word in words} == {401}
    assert ask(daemon, ALICE, "127.0.0.9") == 200, "elsewhere she is welcome"


def test_an_attack_on_root_keeps_nobody_else_out(daemon):
    root = root_login(daemon)
    with attack(daemon, "127.0.0.2", endless(lambda n: f"root:no{n}"), 50) as statuses:
        assert eventually(lambda: len(statuses) > 20)
        for number in range(25):
            for source in ("127.0.0.3", "127.0.0.1"):
                assert ask(daemon, root, source, "/admin/f.txt") == 200, (source, number)
            time.sleep(0.2)
        assert eventually(lambda: len(statuses) > 100)
    assert set(statuses) == {401}
    assert ask(daemon, root, "127.0.0.2") == 401, "from there nobody is listened to"


def test_a_flood_of_unknown_names_keeps_nobody_out(daemon):
    with contextlib.ExitStack() as stack:
        for source in ("127.0.0.2", "127.0.0.3", "127.0.0.4"):
            stack.enter_context(
                attack(daemon, source, endless(lambda n: f"u{n}:no"), 10000))
        for n in range(40):
            assert ask(daemon, ALICE, f"127.0.1.{n + 1}") == 200
            time.sleep(0.05)


def test_users_who_logged_in_outlive_a_wrong_program_at_their_address(daemon):
    assert ask(daemon, ALICE, "127.0.0.2") == 200
    for n in range(40):
        assert ask(daemon, f"agent:no{n}", "127.0.0.2") == 401
    assert ask(daemon, ALICE, "127.0.0.2") == 200
    assert ask(daemon, root_login(daemon), "127.0.0.2") == 401, "a stranger there"


def test_no_buffer_keeps_a_login(daemon):
    login = root_login(daemon)
    secrets = [basic(login).split()[1].encode(), login.encode()]
    for tls in (False, True):
        with contextlib.suppress(AssertionError):
            for path in ("/pub/f.txt", "/operator/none", "/world/none"):
                daemon.request("GET", path, user=login, tls=tls)
                daemon.request("GET", path, user=login + "x" * 30, tls=tls)
    with daemon.connect() as sock:  # in pieces, behind another request, and never answered
        head = f"GET /pub/f.txt HTTP/1.1\r\nAuthorization: {basic(login)}\r\n\r\n".encode()
        sock.sendall(head * 3 + head[:70])
        eventually(lambda: sock.recv(4096).count(b"root pub") > 0)
        sock.sendall(head[70:] + b"PATCH" + head[3:])
    assert eventually(lambda: not daemon.find_in_memory(*secrets)), daemon.find_in_memory(*secrets)


# --- Rights ---

def test_grants_through_links_into_the_state_last(make_daemon, tmp_path):
    """The set-up of script/server and of the package: the root is nothing that the daemon writes."""
    daemon = make_daemon(start=False, auth=True)
    make_role_folders(daemon.root)
    state = tmp_path / "rights"
    state.mkdir()
    for role in ROLES:
        (daemon.root / role / ".dovmaaccess").symlink_to(state / role)
    daemon.start()
    add_user(daemon, "alice", "wonder")
    alice = full_name(daemon, "alice")
    for role in ("operator", "agent"):
        grant(daemon, alice, role)
        assert (state / role).read_text() == f"{alice}:user\n", "on the disk with the answer"
        daemon.restart()
        assert ask(daemon, ALICE, path=f"/{role}/f.txt") == 200
        assert (daemon.root / role / ".dovmaaccess").is_symlink()
    grant(daemon, alice, "admin")
    daemon.stop(9)
    daemon.start()
    assert [(state / role).read_text() for role in ("operator", "agent", "admin")] == \
        ["", "", f"{alice}:user\n"]
    assert ask(daemon, ALICE, path="/admin/f.txt") == 200
    assert daemon.error_log.read_text().count("granted") == 3


def test_access_files_stay_out_of_reach_through_aliases(make_daemon, tmp_path):
    """The folder's own name would lead there; only an alias meets the file itself."""
    daemon = make_daemon(start=False, auth=True,
                         aliases=f"/world/keys={tmp_path}/d0/root/operator/.dovmaaccess")
    make_role_folders(daemon.root)
    path = daemon.root / "operator" / ".dovmaaccess"
    path.write_text("ann:user\n")
    daemon.start()
    for method in ("GET", "PUT", "DELETE", "HEAD"):
        for suffix in ("", ".bak", "/x"):
            body = b"eve:user\n" if method == "PUT" else None
            assert daemon.request(method, f"/world/keys{suffix}", body=body).status == 403
    assert path.read_text() == "ann:user\n"
