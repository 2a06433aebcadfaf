"""Who is calling: Basic logins over plain and TLS connections, client certificates, and callers
who only look like somebody."""

import os
import socket
import ssl
import struct

import pytest

import relay_support
from dovmad_harness import receive_until_end
from rights_support import (Authority, basic, full_name, grant, guarded, qualifier,
                            root_login)

PAGE = (
    "<html><head> <title>401 Authorization Required</title> </head><body> "
    "<h1>Authorization Required</h1> <p>This server could not verify that you are authorized to "
    "access the document requested.  Either you supplied the wrong credentials (e.g., bad "
    "password), or your browser doesn't understand how to supply the credentials required.</p> "
    "</body></html>\r\n").encode()


@pytest.fixture(name="daemon")
def make_guarded_daemon(make_daemon):
    return guarded(make_daemon, auth_realm="the host name is what counts")


def tls_socket(daemon, certificate=None):
    context = ssl.create_default_context(cafile=str(daemon.ca))
    if certificate:
        context.load_cert_chain(*certificate)
    sock = context.wrap_socket(daemon.connect(daemon.tls_port), server_hostname="localhost")
    sock.settimeout(20)
    return sock


def read_until(sock, what):
    return receive_until_end(sock, lambda received: what in received)


def get(path, login=None):
    return relay_support.get(path, *([f"Authorization: {basic(login)}"] if login else []))


@pytest.mark.parametrize("tls", [False, True])
def test_strangers_are_asked_for_a_login(daemon, tls):
    reply = daemon.request("GET", "/pub/f.txt", tls=tls)
    assert len(PAGE) == 351
    assert reply.raw == (
        b"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"" +
        socket.gethostname().encode() + b"\"\r\n\r\n " + PAGE)
    for login in ("alice:wrong", "nobody:wonder", "alice", "NOWHERE\\alice:wonder", ":", "\\:",
                  "\\alice:wonder", "alice\0:wonder"):
        assert daemon.request("GET", "/pub/f.txt", user=login, tls=tls).status == 401, login
    for login in ("alice:wonder", "local\\alice:wonder", root_login(daemon)):
        assert daemon.request("GET", "/pub/f.txt", user=login, tls=tls).text == "root pub\n"
    assert daemon.request("GET", "/operator/f.txt", user="alice:wonder", tls=tls).raw == \
        b"HTTP/1.1 403 Forbidden\r\n\r\n403 Forbidden"


def test_everything_below_world_is_open(daemon):
    daemon.write("world/news.txt", "news")
    assert daemon.request("GET", "/world/news.txt", tls=True).text == "news"
    assert daemon.request("GET", "/wor/x").status == 404
    assert daemon.request("GET", "/worlds/x").status == 401
    assert daemon.request("GET", "/World/news.txt").status == 401


@pytest.mark.parametrize("tls", [False, True])
def test_a_login_holds_for_its_connection(daemon, tls):
    with tls_socket(daemon) if tls else daemon.connect() as sock:
        sock.settimeout(20)
        for login in ("alice:wonder", None, root_login(daemon)):
            sock.sendall(get("/pub/f.txt", login))
            assert b" 200 OK" in read_until(sock, b"root pub\n")
        sock.sendall(get("/admin/f.txt", root_login(daemon)))
        assert b" 403 Forbidden" in read_until(sock, b"403 Forbidden"), "still alice"
    assert daemon.request("GET", "/pub/f.txt", tls=tls).status == 401
    reply = daemon.request("POST", "/admin/security/grant", body=bytes(3_000_000), tls=tls)
    assert reply.status == 401, "the rest of a refused body does not cost the answer"


def test_requests_in_one_record_are_served_whatever_the_buffer_holds(make_daemon):
    daemon = guarded(make_daemon, io_buf_size=2048)
    login = root_login(daemon)
    body = os.urandom(9000)
    head = (f"PUT /admin/upload HTTP/1.1\r\nAuthorization: {basic(login)}\r\n"
            f"Content-Length: {len(body)}\r\n\r\n").encode()
    with tls_socket(daemon) as sock:
        sock.sendall(head + body)
        assert b"HTTP/1.1 20" in read_until(sock, b"\r\n\r\n")
    assert (daemon.root / "admin" / "upload").read_bytes() == body
    with tls_socket(daemon) as sock:
        sock.sendall(get("/pub/f.txt", login) * 100 + get("/admin/none"))
        assert read_until(sock, b" 404 Not Found").count(b"root pub\n") == 100


# --- Secure channels that come to nothing ---

def test_broken_handshakes_are_dropped_without_an_answer(daemon):
    assert daemon.raw(b"GET / HTTP/1.1\r\n\r\n", port=daemon.tls_port, end="reset") == b""
    before = daemon.fd_count()
    for _ in range(20):
        with daemon.connect(daemon.tls_port) as sock:
            sock.sendall(b"\x16\x03\x01")  # half a record, then a reset
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    assert daemon.request("GET", "/world/ping", tls=True).status == 200
    assert daemon.fd_count() <= before + 1


def test_a_slow_handshake_keeps_nobody_waiting(daemon):
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    context = ssl.create_default_context(cafile=str(daemon.ca))
    client = context.wrap_bio(incoming, outgoing, server_hostname="localhost")
    with daemon.connect(daemon.tls_port) as sock:
        sock.settimeout(20)

        def until_done(step):
            while True:
                try:
                    return step()
                except ssl.SSLWantReadError:
                    for byte in outgoing.read():
                        sock.sendall(bytes([byte]))
                    assert daemon.request("GET", "/world/ping", tls=True).status == 200
                    incoming.write(sock.recv(65536))

        until_done(client.do_handshake)
        client.write(get("/world/ping"))
        sock.sendall(outgoing.read())  # the last flight and the request in one packet
        assert b"200 OK" in until_done(lambda: client.read(65536))


# --- Client certificates ---

@pytest.fixture(name="certified")
def make_certified(daemon, tmp_path):
    """The daemon with an authority whose certificates name users."""
    authority = Authority(tmp_path / "ca", "Test CA")
    (daemon.ca.parent / "client_ca.pem").write_text(authority.certificate.read_text())
    daemon.restart()
    return daemon, authority


def cert_get(daemon, path, certificate=None, login=None):
    with tls_socket(daemon, certificate) as sock:
        sock.sendall(get(path, login))
        return sock.recv(4096).split(b"\r\n")[0]


def test_certificates_name_users(certified):
    daemon, authority = certified
    alice = authority.issue("alice")
    ok, forbidden = b"HTTP/1.1 200 OK", b"HTTP/1.1 403 Forbidden"
    assert cert_get(daemon, "/pub/f.txt", alice) == ok
    assert cert_get(daemon, "/operator/f.txt", alice) == forbidden
    grant(daemon, full_name(daemon, "alice", "cert"), "operator")
    assert cert_get(daemon, "/operator/f.txt", alice) == ok
    line = f"alice@cert.{qualifier(daemon, 'cert')}:user\n"
    assert (daemon.root / "operator" / ".dovmaaccess").read_text() == line
    assert cert_get(daemon, "/operator/f.txt", None, "alice:wonder") == forbidden, \
        "a password user of the same name is somebody else"
    assert cert_get(daemon, "/admin/f.txt", alice, root_login(daemon)) == forbidden, \
        "the certificate counts, not the header"
    assert cert_get(daemon, "/admin/f.txt", authority.issue("root")) == forbidden, \
        "a certificate for root is no administrator"
    assert cert_get(daemon, "/pub/f.txt") == b"HTTP/1.1 401 Unauthorized"
    assert cert_get(daemon, "/pub/f.txt", None, "alice:wonder") == ok, \
        "without a certificate the password still counts"


def test_a_daemon_shows_its_own_certificate_to_another(certified, make_daemon):
    target, authority = certified
    relay = make_daemon()
    certificate, key = authority.issue("relay")
    path = f"/https://127.0.0.1:{target.tls_port}/pub/f.txt"
    site = relay.ca.parent
    (site / "peer_ca.pem").write_bytes(target.ca.read_bytes())
    relay.restart()
    assert relay.request("GET", path).status == 500, "its first certificate is nobody's there"
    (site / "server.crt").write_bytes(certificate.read_bytes())
    (site / "server.key").write_bytes(key.read_bytes())
    relay.restart()
    assert relay.request("GET", path).text == "root pub\n"
