"""Who may do what: roles, namespaces and access files, as an administrator works with them."""

import grp
import http.client
import os
import pwd
import socket
import ssl
from functools import partial

import pytest

from kill_rights import kill_during_rewrites
from rights_support import (ROLES, add_user, basic, change, deny, full_name, grant,
                            make_role_folders, root_login)

ALICE = "alice:wonder"
BOB = "bob:builder"


@pytest.fixture(name="spaces")
def make_daemon_with_namespaces(make_daemon, tmp_path):
    """A daemon with the namespaces one and two; daemon.one and daemon.two are their roots."""
    one, two = tmp_path / "one", tmp_path / "two"
    daemon = make_daemon(auth=True, namespaces=f"one={one}, two={two}")
    daemon.one, daemon.two = one, two
    for folder in (daemon.root, one, two):
        make_role_folders(folder)
    for login in (ALICE, BOB):
        add_user(daemon, *login.split(":"))
    return daemon


def access_file(root, role):
    path = root / role / ".dovmaaccess"
    return path.read_text() if path.exists() else None


def status(daemon, path, login, **kwargs):
    return daemon.request("GET", path, user=login, **kwargs).status


def roles_of(daemon, login, **kwargs):
    return [r for r in ROLES if status(daemon, f"/{r}/f.txt", login, **kwargs) == 200]


def configure(daemon, action, name, root="/x"):
    """The answer to adding a namespace or removing one."""
    fields = {"namespace": name, "document_root": str(root)}
    return daemon.post(f"{SPACE}/{action}", fields, user=root_login(daemon)).text


def get_on(client, path):
    """A request of alice's on a connection that stays open: (status, text)."""
    client.request("GET", path, headers={"Authorization": basic(ALICE)})
    reply = client.getresponse()
    return reply.status, reply.read().decode()


# --- Grant, deny, demote ---

@pytest.mark.parametrize("tls", [False, True])
def test_a_user_is_promoted_and_demoted(spaces, tls):
    alice = full_name(spaces, "alice")

    def roles():
        return roles_of(spaces, ALICE, tls=tls)

    assert roles() == ["pub"]
    grant(spaces, alice, "operator", tls=tls)
    assert roles() == ["pub", "operator"]
    assert access_file(spaces.root, "operator") == f"{alice}:user\n"
    grant(spaces, alice, "agent", tls=tls)
    assert roles() == ["pub", "operator", "agent"]
    grant(spaces, alice, "admin", tls=tls)
    assert roles() == list(ROLES)
    assert [access_file(spaces.root, r) for r in ("operator", "agent", "admin")] == \
        ["", "", f"{alice}:user\n"], "admin includes the others, which are given up"
    grant(spaces, alice, "operator", tls=tls)
    assert access_file(spaces.root, "operator") == "", "nothing to add for an administrator"
    deny(spaces, alice, "admin", tls=tls)
    assert roles() == ["pub"]
    deny(spaces, alice, "pub", tls=tls)
    assert roles() == ["pub"], "every user holds pub"
    assert status(spaces, "/operator/f.txt", BOB, tls=tls) == 403


# --- What is refused, and with which words ---

PARAMS = "Error: User name and Type not specified"
REQUIRED = "Required parameters not specified"
SEC = "/admin/security"
SPACE = "/admin/dovmad/config/namespace"


REFUSALS = [
    ("GET", f"{SEC}/grant", None, PARAMS),
    ("GET", f"{SEC}/deny?", None, PARAMS),
    ("GET", f"{SEC}/grant?user=a&role=pub", None, PARAMS),
    ("GET", f"{SEC}/grant?user=a&type=user", None, PARAMS),
    ("POST", f"{SEC}/grant?user=a&role=pub&type=user", "role=pub&type=user", PARAMS),
    ("GET", f"{SEC}/grant?user=a&role=pub&type=host", None, "Error: Unknown principal type"),
    ("GET", f"{SEC}/deny?user=a&role=pub&type=host", None, "Unknown Role"),
    ("POST", f"{SEC}/grant", "user=a%0Ab&role=admin&type=user", "Bad params"),
    ("POST", f"{SEC}/grant", "user=a%0D&role=admin&type=user", "Bad params"),
    ("POST", f"{SEC}/grant", "user=a:user&role=admin&type=group", "Bad params"),
    ("POST", f"{SEC}/deny", "user=a%0Ab&role=admin&type=user", "Bad params"),
    ("POST", f"{SEC}/deny", "user=root:x&role=admin&type=user", "Bad params"),
    ("GET", f"{SEC}/cleanup", None, "Inappropriate method"),
    ("GET", f"{SPACE}/add", None, "Inappropriate method"),
    ("PUT", f"{SPACE}/remove", "namespace=x", "Inappropriate method"),
    ("POST", f"{SPACE}/add", "namespace=x", REQUIRED),
    ("POST", f"{SPACE}/add", "document_root=/x", REQUIRED),
    ("POST", f"{SPACE}/remove", "name=x", REQUIRED),
    ("POST", f"{SPACE}/add", "namespace=pl&document_root=/x", "Cannot add default namespace"),
    ("POST", f"{SPACE}/remove", "namespace=plx", "Cannot remove default namespace"),
    ("POST", f"{SPACE}/add", "namespace=one&document_root=/x", "Namespace is already configured"),
    ("POST", f"{SPACE}/add", "namespace=onx&document_root=/x", "Namespace is already configured"),
    ("POST", f"{SPACE}/add", "namespace=a,b&document_root=/x", "Bad params"),
    ("POST", f"{SPACE}/add", "namespace=ab&document_root=/x,c=/y", "Bad params"),
    ("POST", f"{SPACE}/add", "namespace=ab&document_root=/x%0A[a]", "Bad params"),
    ("POST", f"{SPACE}/remove", "namespace=three", "Namespace not configured"),
]


def test_refusals(spaces):
    for method, path, body, expected in REFUSALS:
        reply = spaces.request(method, path, body=body, user=root_login(spaces))
        assert reply.raw == (f"HTTP/1.1 400 {expected}\r\nContent-Type: text/plain\r\n\r\n"
                             f"{expected}").encode(), (path, body)
    for role in ROLES:
        assert access_file(spaces.root, role) is None


def test_answers_that_are_always_the_same(spaces):
    success = b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nSuccess\n"
    login = root_login(spaces)
    for name in ("root", "rootx", "ROOT", "Rooty@local.x"):
        for action in ("grant", "deny"):
            assert change(spaces, action, name, "operator").raw == success
    assert access_file(spaces.root, "operator") is None
    for method in ("GET", "POST", "PUT"):
        assert spaces.request(method, f"{SEC}/reset", user=login, body="").raw == success
    assert spaces.request("POST", f"{SEC}/cleanup", body="sec_uri=x", user=login).raw == success
    reply = spaces.request("GET", f"{SEC}/get_admin_group", user=login)
    assert reply.raw == b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nroot\n"
    assert status(spaces, "/pub/f.txt", ALICE, tls=True) == 200, "after the reset"


# --- Groups ---

def memberships():
    """A system user with its own group, and one with a second group where there is any."""
    own = pwd.getpwnam("daemon")
    found = [(own.pw_name, grp.getgrgid(own.pw_gid).gr_name)]
    second = [(user.pw_name, group.gr_name) for user in pwd.getpwall() for group in grp.getgrall()
              if user.pw_name in group.gr_mem and user.pw_gid != group.gr_gid
              and user.pw_name != "root"]
    return found + second[:1]


@pytest.mark.parametrize("user, group", memberships())
def test_the_groups_of_a_system_user_count(spaces, user, group):
    add_user(spaces, user, "wonder", "os")
    login = f"{user}:wonder"
    assert roles_of(spaces, login) == ["pub"]
    grant(spaces, group, "operator", kind="group")
    assert roles_of(spaces, login) == ["pub", "operator"]
    assert roles_of(spaces, ALICE) == ["pub"]
    deny(spaces, group, "operator", kind="group")
    assert roles_of(spaces, login) == ["pub"]
    grant(spaces, group, "admin", kind="group")
    assert roles_of(spaces, login) == list(ROLES)


# --- Namespaces ---

def test_two_namespaces_on_one_connection(spaces):
    grant(spaces, full_name(spaces, "alice"), "operator", namespace="one")
    assert access_file(spaces.one, "operator") == f"{full_name(spaces, 'alice')}:user\n"
    assert access_file(spaces.two, "operator") is None
    for tls in (False, True):
        client = http.client.HTTPConnection("127.0.0.1", spaces.port, timeout=20)
        if tls:
            context = ssl.create_default_context(cafile=str(spaces.ca))
            client = http.client.HTTPSConnection("localhost", spaces.tls_port, timeout=20,
                                                 context=context)

        assert get_on(client, "/one/operator/f.txt") == (200, "one operator\n")
        used = client.sock
        assert get_on(client, "/two/pub/f.txt") == (200, "two pub\n")
        assert get_on(client, "/one/operator/f.txt") == (200, "one operator\n")
        assert get_on(client, "/pub/f.txt") == (200, "root pub\n")
        assert client.sock is used, "all on one connection"
        assert get_on(client, "/two/operator/f.txt")[0] == 403, "granted in the other one only"
        client.close()


def test_namespaces_come_and_go(spaces, tmp_path):
    three = tmp_path / "three"
    make_role_folders(three)
    login = root_login(spaces)
    assert status(spaces, "/three/pub/f.txt", login) == 404
    assert configure(spaces, "add", "three", three) == "Success\n"
    assert configure(spaces, "add", "three", three) == "Namespace is already configured"
    assert spaces.request("GET", "/three/pub/f.txt", user=login).text == "three pub\n"
    grant(spaces, "carol", "operator", namespace="three")
    assert configure(spaces, "remove", "three") == "Success\n"
    assert status(spaces, "/three/pub/f.txt", login) == 404
    assert access_file(three, "operator") == "carol:user\n", "files stay"
    assert spaces.request("GET", "/one/pub/f.txt", user=login).text == "one pub\n"
    assert configure(spaces, "add", "three", three) == "Success\n"
    assert spaces.request("GET", "/three/pub/f.txt", user=login).text == "three pub\n"


def test_the_last_character_of_a_configured_name_takes_no_part(spaces):
    login = root_login(spaces)
    assert configure(spaces, "remove", "onx") == "Success\n"
    assert spaces.request("GET", "/one/pub/f.txt", user=login).text == "one pub\n", \
        "its entry is gone, the namespace is not"
    assert configure(spaces, "remove", "one") == "Namespace not configured"
    assert configure(spaces, "add", "one", spaces.two) == "Success\n"
    assert spaces.request("GET", "/one/pub/f.txt", user=login).text == "one pub\n"


def test_removing_where_nothing_is_left_to_remove(spaces, make_daemon):
    """An empty list of namespaces is one; where none was ever configured everything is removed."""
    for name in ("one", "two"):
        assert configure(spaces, "remove", name) == "Success\n"
    assert configure(spaces, "remove", "two") == "Namespace not configured"
    bare = make_daemon(auth=True)
    for answer in ("Success\n", "Namespace not configured"):
        assert configure(bare, "remove", "x") == answer
    assert spaces.error_log.read_text().count("root removed namespace ") == 2
    assert "removed" not in bare.error_log.read_text()


def test_a_namespace_is_removed_while_requests_run_in_it(spaces):
    login = root_login(spaces)
    auth = f"Authorization: {basic(login)}\r\n"
    big = os.urandom(8 << 20)
    (spaces.one / "pub" / "big.bin").write_bytes(big)
    form = b"user=carol&role=operator&type=user"
    upload = os.urandom(100000)

    def begin(line, body=b"", length=None):
        sock = socket.socket()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        sock.connect(("127.0.0.1", spaces.port))
        sock.settimeout(30)
        size = f"Content-Length: {length}\r\n" if length else ""
        sock.sendall(f"{line} HTTP/1.1\r\n{auth}{size}\r\n".encode() + body)
        return sock

    posting = begin("POST /one/admin/security/grant", form[:9], len(form))
    putting = begin("PUT /one/pub/upload.bin", upload[:1000], len(upload))
    loading = begin("GET /one/pub/big.bin")
    received = loading.recv(1000)
    kept = begin("GET /one/admin/f.txt")
    assert b"one admin\n" in kept.recv(4096)

    for _ in range(3):
        assert configure(spaces, "remove", "one") == "Success\n"
        assert configure(spaces, "add", "one", spaces.two) == "Success\n"
    assert configure(spaces, "remove", "one") == "Success\n"

    posting.sendall(form[9:])
    assert posting.recv(4096).endswith(b"Success\n")
    assert access_file(spaces.one, "operator") == "carol:user\n", "granted where it was asked for"
    assert access_file(spaces.two, "operator") is None
    putting.sendall(upload[1000:])
    assert putting.recv(4096).startswith(b"HTTP/1.1 20")
    assert (spaces.one / "pub" / "upload.bin").read_bytes() == upload
    head, _, body = received.partition(b"\r\n\r\n")
    while len(body) < len(big):
        chunk = loading.recv(1 << 20)
        assert chunk
        body += chunk
    assert head.startswith(b"HTTP/1.1 200") and body == big
    kept.sendall(f"GET /one/admin/f.txt HTTP/1.1\r\n{auth}\r\n".encode())
    assert b" 404 " in kept.recv(4096), "the name is an ordinary folder now"
    for sock in (posting, putting, loading, kept):
        sock.close()


# --- Kills ---

def test_a_kill_never_loses_a_line(make_daemon):
    report = kill_during_rewrites(partial(make_daemon, start=False), None, kills=12, seed=1)
    assert report.rewrites > 0, report
