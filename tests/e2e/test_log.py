"""What the logs tell: each mistake is one line with its reason, each change one line with its
author, a start without trouble leaves nothing, and fail2ban finds the refused logins."""

import re
import shutil
import socket
import ssl
import subprocess
from pathlib import Path

import pytest

from dovmad_harness import eventually, free_port
from rights_support import Authority, add_user, basic, make_role_folders, root_login

ALICE = "alice:wonder"
FILTER = Path(__file__).parents[2] / "packaging" / "fail2ban" / "dovmad.conf"


@pytest.fixture(name="daemon")
def make_logging_daemon(make_daemon, tmp_path):
    authority = Authority(tmp_path / "trusted", "trusted")
    foreign = Authority(tmp_path / "foreign", "foreign")
    daemon = make_daemon(start=False, auth=True, list_directories=0, cgi_extensions=".cgi",
                         io_buf_size=4096, aliases=f"/world/keys={tmp_path}/d0/root/pub/.dovmaaccess")
    daemon.certificate = foreign.issue("mallory")
    make_role_folders(daemon.root)
    daemon.write("world/f.txt", "world")
    daemon.write("pub/.dovmaaccess")
    daemon.write("world/p.cgi", "#!/bin/sh\nprintf 'Status: 410 Gone fishing\\r\\n\\r\\n'\n", 0o755)
    daemon.start()
    shutil.copy(authority.certificate, daemon.ca.parent / "client_ca.pem")
    daemon.restart()
    add_user(daemon, "alice", "wonder")
    return daemon


def log_lines(daemon):
    """The error log without what a busy machine adds."""
    return [line for line in daemon.error_log.read_text().splitlines()
            if not re.search(r'" slow pass: \d+ ms', line)]


def messages(daemon):
    """What stands behind the request line, of every line of the error log; it holds no quotes."""
    lines = log_lines(daemon)
    assert all(re.match(r'\[[^]]+\] \[error\] \[client \S+\] ".*" ', line) for line in lines)
    return [line.rpartition('" ')[2] for line in lines]


def get(path, login=None, **headers):
    return lambda d: d.request("GET", path, user=login, headers=headers)


def upload(path, body=b"x", **headers):
    return lambda d: d.request("PUT", path, body=body, headers=headers, user=root_login(d))


def plain(data, tls=False, end="any"):
    return lambda d: d.raw(data, port=d.tls_port if tls else None, timeout=1, end=end)


def shake_hands(certificate=False):
    def mistake(daemon):
        context = ssl.create_default_context(cafile=str(daemon.ca))
        if certificate:
            context.load_cert_chain(*daemon.certificate)
        with pytest.raises(OSError), daemon.connect(
                daemon.tls_port if certificate else daemon.port) as sock:
            sock.settimeout(1)
            with context.wrap_socket(sock, server_hostname="localhost") as tls:
                tls.sendall(b"GET /world/f.txt HTTP/1.1\r\n\r\n")
                if not tls.recv(100):
                    raise OSError("closed")
    return mistake


def spoil_certificate(daemon):
    good = daemon.ca.read_bytes()
    daemon.ca.write_bytes(b"garbage")
    assert daemon.request("POST", "/admin/security/reset", body="", user=root_login(daemon)).text \
        == "Success\n"
    daemon.ca.write_bytes(good)


def refused_target(scheme):
    def mistake(daemon):
        assert daemon.request("GET", f"/{scheme}://127.0.0.1:{free_port('upstream')}/world/x"
                              ).status == 404
    return mistake


def silent_upstream(answer):
    """A target that answers with these bytes."""
    def mistake(daemon):
        with socket.create_server(("127.0.0.1", free_port("upstream"))) as server:
            with daemon.connect() as sock:
                port = server.getsockname()[1]
                sock.sendall(f"GET /http://127.0.0.1:{port}/world/x HTTP/1.1\r\n\r\n".encode())
                with server.accept()[0] as target:
                    target.recv(1000)
                    target.sendall(answer)
                assert sock.recv(1000).startswith(answer[:12])
    return mistake


MISTAKES = {
    "wrong password": (get("/pub/f.txt", "alice:no"), "401 Unauthorized, user alice"),
    "unknown user": (get("/pub/f.txt", "nobody:no"), "401 Unauthorized, user nobody"),
    "unknown domain": (get("/pub/f.txt", "NO\\alice:wonder"), r"401 Unauthorized, user NO\alice"),
    "no login": (get("/pub/f.txt"), "401 Unauthorized"),
    "login too long": (get("/pub/f.txt", "alice:" + "x" * 60), "401 Unauthorized, user alice"),
    "forged name": (get("/pub/f.txt", "a\r\n\"b\x1b:no"),
                    r"401 Unauthorized, user a\x0d\x0a\x22b\x1b"),
    "no Basic login": (get("/pub/f.txt", Authorization="Bearer abcdefghijk"), "401 Unauthorized"),
    "wrong role": (get("/operator/f.txt", ALICE), "403 Forbidden, user alice@local.HOST"),
    "access file": (get("/world/keys"), "403 Forbidden"),
    "directory": (get("/world/"), "403 Directory Listing Denied"),
    "missing page": (get("/world/none"), "404 Not Found"),
    "quote in the request": (get('/world/none"x'), "404 Not Found"),
    "beyond the end": (get("/world/f.txt", Range="bytes=99-"),
                       "416 Requested Range Not Satisfiable"),
    "upload onto a folder": (upload("/pub"), "500 PUT Error: Is a directory"),
    "upload below a file": (upload("/pub/f.txt/x/y"), "500 PUT Directory Error: Not a directory"),
    "upload without length": (upload("/pub/x", body=None), "411 Length Required"),
    "part of an upload": (upload("/pub/x", Range="bytes=1-2"), "501 PUT Range Not Implemented"),
    "upload of a program": (upload("/pub/x.cgi"), "501 Bad method "),
    "deletion of nothing": (lambda d: d.request("DELETE", "/world/none"),
                            "500 DELETE Error: No such file or directory"),
    "a program's refusal": (get("/world/p.cgi"), "410 Gone fishing"),
    "a target's refusal": (silent_upstream(b'HTTP/1.1 503 Gone "out"\r\nContent-Length: 0\r\n\r\n'),
                           r"503 Gone \x22out\x22"),
    "grant without user": (lambda d: get("/admin/security/grant?role=pub", root_login(d))(d),
                           "400 Error: User name and Type not specified"),
    "later version": (plain(b"GET / HTTP/2.0\r\n\r\n"), "505 HTTP version not supported"),
    "no version": (plain(b"GET /world/x and more\r\n\r\n"), "400 Bad HTTP version"),
    "relative URI": (plain(b"GET world HTTP/1.1\r\n\r\n"), "400 Bad URI"),
    "unknown method": (plain(b"PATCH /world/ HTTP/1.1\r\n\r\n"), "muted: unknown method"),
    "endless header": (plain(b"GET / HTTP/1.1\r\n" + b"x" * 5000), "muted: no header block"),
    "control byte": (plain(b"GET /\x01 HTTP/1.1\r\n\r\n"),
                     "muted: forbidden byte in the header block"),
    "TLS on a plain port": (shake_hands(), "muted: TLS handshake on a plain port"),
    "plain on a TLS port": (plain(b"GET / HTTP/1.1\r\n\r\n", tls=True),
                            re.compile("handshake failed: .*http request.*")),
    "foreign client certificate": (shake_hands(certificate=True),
                                   re.compile("handshake failed: .*(issuer|certificate).*")),
    "target refuses": (refused_target("http"),
                       re.compile("404 Not Found. Could not connect to proxy target: .*refused.*")),
    "bad renewal": (spoil_certificate, [re.compile("authentication library: .*kept.*"),
                                        "root renewed the service's credential"]),
}


def test_each_mistake_is_one_line(daemon):
    assert daemon.error_log.read_text() == "", "a start without trouble"
    console = daemon.stderr_text()
    host = re.search(r"^local:.*:(.*)$", (daemon.ca.parent / "domains").read_text(), re.M).group(1)
    for name, (mistake, expected) in MISTAKES.items():
        before = len(messages(daemon))
        mistake(daemon)
        expected = expected if isinstance(expected, list) else [expected]
        assert eventually(lambda: len(messages(daemon)) >= before + len(expected), 10), name
        told = messages(daemon)[before:]
        assert len(told) == len(expected), (name, told)
        for line, wanted in zip(told, expected):
            if isinstance(wanted, re.Pattern):
                assert wanted.fullmatch(line), (name, line)
            else:
                assert line == wanted.replace("HOST", host), name
    assert daemon.stderr_text() == console, "these lines are the log's alone"


def test_each_change_is_one_line(daemon, tmp_path):
    root = root_login(daemon)
    space = "/admin/dovmad/config/namespace"
    for method, path, body, line in [
        ("GET", "/admin/security/grant?user=evil&role=operator&type=user", None,
         "root granted operator in plx to user evil"),
        ("POST", "/admin/security/grant", "user=evil&role=admin&type=user",
         "root granted admin in plx to user evil, in place of operator"),
        ("GET", "/admin/security/grant?user=evil&role=pub&type=user", None, None),
        ("POST", "/admin/security/deny", "user=evil&role=admin&type=user",
         "root took admin in plx from user evil"),
        ("POST", "/admin/security/deny", "user=evil&role=admin&type=user", None),
        ("GET", "/admin/security/grant?user=a%22b%07&role=agent&type=user", None,
         r"root granted agent in plx to user a\x22b\x07"),
        ("POST", f"{space}/add", f"namespace=two&document_root={tmp_path}/x%0Ay", None),
        ("POST", f"{space}/add", f"namespace=two&document_root={tmp_path}",
         f"root added namespace two with root {tmp_path}"),
        ("POST", f"{space}/remove", "namespace=two", "root removed namespace two"),
        ("POST", "/admin/security/reset", "", "root renewed the service's credential"),
    ]:
        before = messages(daemon)
        status = daemon.request(method, path, body=body, user=root).status
        told = messages(daemon)[len(before):]
        assert told == ([line] if line else ["400 Bad params"] if status == 400 else []), path
    daemon.request("GET", "/admin/security/grant?user=x&role=agent&type=group", user=root,
                   headers={"X-PLX-OnBehalf-User": "carol", "X-PLX-OnBehalf-Ip": "192.0.2.1"})
    assert messages(daemon)[-1] == \
        "root granted agent in plx to group x, on behalf of carol from 192.0.2.1"


def test_stop_requests_name_who_made_them(daemon):
    request = ("GET /admin/lifecycle/stop HTTP/1.1\r\nAuthorization: "
               f"{basic(root_login(daemon))}\r\n\r\n").encode()
    first = daemon.raw(request, until=lambda received: received.endswith(b"Success"))
    assert first == b"HTTP/1.1 200 OK\r\n\r\nSuccess"
    assert daemon.request("GET", "/world/ping").status == 200, "the second call ends it"
    daemon.expected_end, console = True, daemon.stderr_text()
    assert daemon.raw(request) == b""
    assert daemon.process.wait(10) == 0
    assert "Exit on signal" not in daemon.stderr_text().removeprefix(console)
    assert messages(daemon) == ["root stopped the companion service", "root ended the daemon"]


@pytest.mark.skipif(not shutil.which("fail2ban-regex"), reason="fail2ban is not installed")
def test_fail2ban_finds_the_refused_logins_and_nothing_else(daemon):
    for login in ("alice:no", "nobody:no", 'a"b:no'):
        daemon.request("GET", '/pub/a"b', user=login)
    for name in ("no login", "missing page", "wrong role", "unknown method"):
        MISTAKES[name][0](daemon)
    daemon.raw(b'GET /a" 401 Unauthorized, user x\r\n\r\n')
    assert len(messages(daemon)) == 8
    daemon.error_log.write_text("\n".join(log_lines(daemon)) + "\n")
    # That program takes a name with blanks for an expression.
    filter_file = shutil.copy(FILTER, daemon.dir)
    done = subprocess.run(["fail2ban-regex", daemon.error_log, filter_file], capture_output=True,
                          text=True, timeout=60, check=False)
    assert re.search(r"Lines: 8 lines, 0 ignored, 3 matched, 5 missed", done.stdout), done.stdout
