"""Forwarding by the real daemon to real targets: plain, keep-alive, chunked, TLS, Unix-domain, the
daemon itself, and targets that are slow, dead, silent or wrong."""

import base64
import contextlib
import hashlib
import http.server
import os
import select
import socket
import ssl
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial

import pytest

from browser import CHROMIUM, Browser
from dovmad_harness import QuietHandler, free_port, parse_response, receive_until_end
from rights_support import Authority
from relay_support import calms_down, eventually, get, leaving_nothing, receive, until_close

NO_TARGET = (b"HTTP/1.1 404 Not Found. Could not connect to proxy target\r\n\r\n"
             b"404 Not Found. Could not connect to proxy target")
ROOT_ADMIN = "Basic " + base64.b64encode(b"root:admin").decode()
CHUNKS = b"".join(b"%x\r\n%s\r\n" % (len(piece), piece)
                  for piece in (b"one ", b"two " * 20000, b"three", b""))


def ask(daemon, uri, *headers, **kwargs):
    return until_close(daemon, get(uri, *headers, **kwargs))


class KeepAlive(QuietHandler):
    """An HTTP/1.1 server that keeps every connection and answers in every way there is; its chunked
    answer has a body even where it must not have one."""

    protocol_version = "HTTP/1.1"

    def answer(self, status, body, headers):
        super().answer(status, body if self.command != "HEAD" or body == CHUNKS else b"", headers)

    def do_GET(self):
        self.server.seen.append((self.requestline, self.headers, b""))
        if self.path == "/chunked":
            self.answer(200, CHUNKS, {"Transfer-Encoding": "chunked"})
        elif self.path in ("/204", "/304"):
            self.answer(int(self.path[1:]), b"", {})
        else:
            body = {"/empty": b"", "/large": b"L" * 2_000_000,
                    "/huge": b"H" * 12_000_000}.get(self.path, b"hello")
            moved = {"Location": "/elsewhere"} if self.path == "/moved" else {}
            self.answer(200, body, {"Content-Length": len(body), **moved})

    do_HEAD = do_GET

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.server.seen.append((self.requestline, self.headers, body))
        self.answer(200, hashlib.sha256(body).hexdigest().encode(), {"Content-Length": 64})


class Upstream(http.server.ThreadingHTTPServer):
    request_queue_size = 64

    def __init__(self, context=None, handler=KeepAlive):
        self.seen = []
        super().__init__(("127.0.0.1", free_port("upstream")), handler)
        if context:
            self.socket = context.wrap_socket(self.socket, server_side=True,
                                              do_handshake_on_connect=False)
        self.port = self.server_address[1]
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def handle_error(self, request, client_address):
        pass

    def close(self):
        self.shutdown()
        self.server_close()


@pytest.fixture(name="upstream")
def make_upstream():
    with contextlib.closing(Upstream()) as server:
        yield server


@pytest.fixture(name="raw_target")
def make_raw_target():
    """make(play, path=None): a server whose every connection is handed to `play(sock)` in a thread
    of its own. Returns its port unless it listens on a Unix-domain socket."""
    listeners = []

    def serve(sock, play):
        with sock, contextlib.suppress(OSError):
            play(sock)

    def accept(listener, play):
        with contextlib.suppress(OSError):
            while True:
                sock, _ = listener.accept()
                threading.Thread(target=serve, args=(sock, play), daemon=True).start()

    def make(play, path=None):
        if path:
            listener = socket.socket(socket.AF_UNIX)
            listener.bind(str(path))
            listener.listen()
        else:
            listener = socket.create_server(("127.0.0.1", free_port("upstream")))
        listeners.append(listener)
        threading.Thread(target=accept, args=(listener, play), daemon=True).start()
        return None if path else listener.getsockname()[1]

    yield make
    for listener in listeners:
        listener.close()


def read_head(sock):
    return receive_until_end(sock, lambda received: b"\r\n\r\n" in received)


@pytest.mark.parametrize("connection", [(), ("Connection: keep-alive",)])
def test_answers_of_a_keep_alive_server_end(make_daemon, upstream, connection):
    daemon = make_daemon()
    # "localhost" has an IPv6 address that nobody listens on.
    base, other = (f"http://{host}:{upstream.port}" for host in ("127.0.0.1", "localhost"))
    base = "/" + base
    rows = {"/plain": b"hello", "/empty": b"", "/204": b"", "/304": b"", "/moved": b"hello",
            "/large": b"L" * 2_000_000, "/chunked": CHUNKS}
    for path, body in rows.items():
        reply = parse_response(ask(daemon, base + path, *connection))
        assert reply.body == body, path
        assert path != "/moved" or reply.raw.startswith(b"HTTP/1.1 302 OK\r\n")
    for path in ("/plain", "/chunked", "/large"):
        reply = parse_response(ask(daemon, base + path, *connection, method="HEAD"))
        assert reply.status == 200 and reply.body == b""
    assert ask(daemon, other + "/plain").endswith(b"\r\n\r\nhello")
    assert ask(daemon, "/" + other + "/plain").endswith(b"\r\n\r\nhello")


def test_bodies_arrive_whole_and_alone(make_daemon, upstream):
    daemon = make_daemon()
    uri = f"/http://127.0.0.1:{upstream.port}/a%20b?q=1&r=%32"
    stray = b"GET /admin HTTP/1.1\r\n\r\n"
    for size in (1, 5, 16000, 16384, 100_000, 3_000_000):
        body = os.urandom(size)
        request = get(uri, "Host: original", "Cookie: a=b", "Authorization: Basic eDp5",
                      "X-Other: x", "Expect: 100-continue", method="POST", body=body)
        for send in (lambda: until_close(daemon, request),
                     lambda: until_close(daemon, request[:-size], body),
                     lambda: until_close(daemon, request + stray)):
            reply = parse_response(send())
            assert reply.body == hashlib.sha256(body).hexdigest().encode(), size
            assert upstream.seen[-1][2] == body
    for line, headers, body in upstream.seen:
        assert line == "POST /a%20b?q=1&r=%32 HTTP/1.1", "the stray request stays here"
        assert headers.items() == [
            ("Content-Length", str(len(body))), ("Host", "original"), ("Cookie", "a=b"),
            ("Authorization", ROOT_ADMIN), ("Connection", "close")]


# --- TLS ---

@pytest.fixture(name="authority")
def make_authority(tmp_path):
    """Two self-signed certificates for localhost: the trusted one and another."""
    made = [Authority(tmp_path / name, "localhost", "-addext",
                      "subjectAltName=DNS:localhost,IP:127.0.0.1") for name in ("trusted", "other")]
    return [(one.certificate, one.folder / "ca.key") for one in made]


def tls_server_context(pair):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*pair)
    return context


@pytest.fixture(name="trusting")
def trusting_fixture(make_daemon, authority):
    def make(**options):
        daemon = make_daemon(**options)
        (daemon.ca.parent / "peer_ca.pem").write_bytes(authority[0][0].read_bytes())
        return daemon.restart()
    return make


def test_tls_targets_are_verified_and_never_spoken_to_in_clear(trusting, authority, raw_target):
    daemon = trusting()
    heard = []
    clear = raw_target(lambda sock: heard.append(sock.recv(65536)))
    with contextlib.closing(Upstream(tls_server_context(authority[0]))) as good, \
            contextlib.closing(Upstream(tls_server_context(authority[1]))) as bad:
        base = f"/https://127.0.0.1:{good.port}"
        assert parse_response(ask(daemon, base + "/x")).body == b"hello"
        assert parse_response(ask(daemon, base + "/large")).body == b"L" * 2_000_000
        body = os.urandom(1_000_000)
        reply = parse_response(ask(daemon, base + "/p", method="POST", body=body))
        assert reply.body == hashlib.sha256(body).hexdigest().encode()
        assert good.seen[-1][1]["Authorization"] == ROOT_ADMIN
        assert ask(daemon, f"/https://127.0.0.1:{bad.port}/x") == NO_TARGET
        assert bad.seen == []
        assert ask(daemon, f"/https://127.0.0.1:{clear}/x") == NO_TARGET
        assert eventually(lambda: heard) and b"HTTP/1.1" not in heard[0]
        assert daemon.request("GET", "/world/ping").status == 200  # and the daemon lives
        # A record larger than the room for it: what was decrypted already is not lost from sight
        # although the target sends nothing more. Beside it, a buffer larger than a record.
        for size in (1024, 100_000):
            other = trusting(io_buf_size=size)
            for path, length in (("/large", 2_000_000), ("/plain", 5)):
                reply = parse_response(ask(other, base + path, "Connection: keep-alive"))
                assert len(reply.body) == length


def test_client_that_takes_nothing_of_a_tls_answer_costs_nothing(trusting, authority):
    # The last piece lies in the daemon's buffer: nothing more is to be read from the target.
    daemon = trusting(io_buf_size=16 << 20)
    with contextlib.closing(Upstream(tls_server_context(authority[0]))) as target:
        with socket.socket() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            client.connect(("127.0.0.1", daemon.port))
            client.sendall(get(f"/https://127.0.0.1:{target.port}/huge"))
            assert client.recv(100)
            assert calms_down(daemon)


# --- Unix-domain services ---

def test_unix_services_are_chosen_by_role(make_daemon, raw_target):
    daemon = make_daemon(auth=True)
    folder = daemon.prefix / "var/qz/tuvo/.uds"
    user = "root:" + daemon.password
    seen = {"admin": [], "query": []}

    def play_as(name):
        def play(sock):
            data = read_head(sock)
            while b"\r\nContent-Length: 4\r\n" in data and not data.endswith(b"body"):
                data += sock.recv(100)
            seen[name].append(data)
            # Answers and closes: the daemon sees a hang-up together with the answer.
            sock.sendall(b"HTTP/1.1 200 OK\r\n\r\nfrom " + name.encode())
        return play

    assert daemon.request("GET", "/httpu://any:admin/x", user=user).raw == NO_TARGET
    for name in seen:
        (folder / name).mkdir(parents=True)
        raw_target(play_as(name), folder / name / "tuvo_uds")
    for _ in range(20):
        reply = daemon.request("GET", "/httpu://any:pub/x", user=user)
        assert reply.raw == b"HTTP/1.1 200 OK\r\n\r\nfrom query"
    reply = daemon.request("POST", "/httpu://any:admin/y", body=b"body", user=user)
    assert reply.body == b"from admin" and seen["admin"][0].endswith(b"\r\n\r\nbody")
    for name, line, role in (("query", b"GET httpu://any:pub/x HTTP/1.1\r\n", b"pub"),
                             ("admin", b"POST httpu://any:admin/y HTTP/1.1\r\n", b"admin")):
        data = seen[name][0]
        assert data.startswith(line)
        identity = data.partition(b"\r\nAuthorization: Basic ")[2].partition(b"\r\n")[0]
        caller, _, sent = base64.b64decode(identity).rpartition(b":")
        assert caller.startswith(b"root") and sent == role
    assert daemon.request("GET", "/httpu://any:pub/x").status == 401
    assert len(seen["query"]) == 20
    # Nobody authenticated: no socket stands for that.
    assert daemon.request("GET", "/httpu://any:world/x").raw == NO_TARGET
    assert daemon.request("GET", "/httpu://any/x", user=user).status in (403, 404)


# --- The daemon itself ---

def test_own_address_is_served_locally(make_daemon):
    daemon = make_daemon(auth=True)
    daemon.write("world/a b.txt", "local")
    daemon.write("secret.txt", "secret")
    for form in ("/http://", "http://", "/https://"):
        for host in ("127.0.0.1", "localhost"):
            for port in (daemon.port, daemon.tls_port, f"0{daemon.tls_port}"):
                reply = daemon.request("GET", f"{form}{host}:{port}/world/a%20b.txt?x=1")
                assert reply.body == b"local"
    base = f"/http://127.0.0.1:{daemon.port}"
    assert daemon.request("GET", base + "/world/ping").raw == daemon.request(
        "GET", "/world/ping").raw
    # Whatever the path hides, nothing outside the role that was checked is served.
    for path in ("/world/%2e%2e/secret.txt", "/world%2f..%2fsecret.txt", "/world/../secret.txt",
                 "/w%6frld/../secret.txt", "/world%00/secret.txt", "/secret.txt"):
        reply = daemon.request("GET", base + path)
        assert b"secret" not in reply.body, path


# --- Targets that misbehave ---

def test_dead_targets_leave_nothing_and_cost_nothing(make_daemon):
    daemon = make_daemon()
    targets = [f"127.0.0.1:{free_port('upstream')}"] * 50
    with leaving_nothing(daemon):
        for target in (*targets, "no.such.host.invalid", "127.0.0.1:65536", "h" * 300, ""):
            assert ask(daemon, f"/http://{target}/") == NO_TARGET
        assert calms_down(daemon)


def test_targets_that_go_wrong(make_daemon, raw_target):
    answers = {
        b"none": b"",
        b"half": b"HTTP/1.1 200 OK\r\nContent-Le",
        b"bytes": b"HTTP/1.1 200 OK\r\nA: \x01\r\n\r\n",
        b"endless": b"HTTP/1.1 200 OK\r\nA: " + b"x" * 40000,
        b"short": b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort",
        b"cut": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhel",
        b"chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello",
        b"plain": b"no header at all\n\nbody",
        b"early": b"HTTP/1.1 413 Too Large\r\nContent-Length: 4\r\n\r\nlarg",
    }
    port = raw_target(lambda sock: sock.sendall(answers[read_head(sock).split(b" ")[1][1:]]))
    daemon = make_daemon()
    error = b"HTTP/1.1 500 Error in proxy\r\n\r\n500 Error in proxy"
    bad = b"HTTP/1.1 500 Bad headers sent\r\n\r\n500 Bad headers sent"
    expected = {**answers, b"none": error, b"half": error, b"bytes": bad, b"endless": bad,
                b"chunk": answers[b"chunk"].partition(b"zz")[0]}
    for path, reply in expected.items():
        uri = f"/http://127.0.0.1:{port}/{path.decode()}"
        assert ask(daemon, uri, "Connection: keep-alive") == reply, path
    assert (r"CGI script sent invalid headers: [HTTP/1.1 200 OK\x0d\x0aA: \x01\x0d\x0a\x0d\x0a]" in
            daemon.error_log.read_text())
    # The target closes with most of an upload unread, which resets its connection.
    for _ in range(10):
        assert daemon.raw(get(f"/http://127.0.0.1:{port}/early", method="POST",
                              body=bytes(3_000_000)), timeout=60) == answers[b"early"]


def test_silent_and_slow_targets_disturb_nobody(make_daemon, raw_target):
    release = threading.Event()

    def play(sock):
        path = read_head(sock).split(b" ")[1]
        if path == b"/drip":
            for byte in b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello":
                sock.sendall(bytes([byte]))
                time.sleep(0.01)
        elif path == b"/endless":
            sock.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            while not release.is_set():
                sock.sendall(b"x" * 65536)
        else:
            release.wait(100)

    base = f"/http://127.0.0.1:{raw_target(play)}"
    daemon = make_daemon()
    requests = [get(base + "/silent")] * 10 + [
        get(base + "/endless"), get(base + "/silent", method="POST", body=bytes(100))[:-50]]
    with leaving_nothing(daemon):
        clients = daemon.begin(*requests)
        assert ask(daemon, base + "/drip") == b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"
        assert daemon.request("GET", "/world/ping").status == 200
        assert calms_down(daemon)
        for sock in clients:
            sock.close()
    release.set()


def test_targets_that_are_never_ready_keep_nobody_waiting(make_daemon, raw_target):
    # A listener whose queue is full drops further connection requests; another takes them and
    # never says a word of the handshake.
    hole = socket.create_server(("127.0.0.1", free_port("upstream")), backlog=0)
    fillers = [socket.socket() for _ in range(4)]
    for filler in fillers:
        filler.setblocking(False)
        filler.connect_ex(hole.getsockname())
    release = threading.Event()
    mute = raw_target(lambda sock: release.wait(100))
    daemon = make_daemon()
    uris = (f"/http://127.0.0.1:{hole.getsockname()[1]}/", f"/https://127.0.0.1:{mute}/") * 3
    with leaving_nothing(daemon):
        clients = []
        for uri in uris:
            clients += daemon.begin(get(uri))
            assert daemon.request("GET", "/world/ping").status == 200
        assert select.select(clients, [], [], 0)[0] == [], "the others were served meanwhile"
        for sock in clients:
            sock.settimeout(15)  # many times what a target may take
            assert receive(sock) == NO_TARGET
            sock.close()
    release.set()
    for sock in [*fillers, hole]:
        sock.close()


def test_many_forwarded_requests_leave_nothing(make_daemon, upstream):
    daemon = make_daemon()

    def forward(_):
        body = os.urandom(1000)
        reply = ask(daemon, f"/http://127.0.0.1:{upstream.port}/x", method="POST", body=body)
        return reply.endswith(hashlib.sha256(body).hexdigest().encode())

    assert forward(0)
    with leaving_nothing(daemon, 4096), ThreadPoolExecutor(4) as pool:
        assert all(pool.map(forward, range(400)))


# --- A browser ---

# An image, 9 wide and 1 high.
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAkAAAABAQAAAAAkubnQAAAAC0lEQVR4nGNY1QAAAdcBK2xU"
                       "ELIAAAAASUVORK5CYII=")


@pytest.mark.skipif(CHROMIUM is None, reason="Chromium is not installed")
def test_page_of_another_server_comes_with_its_style_and_image(make_daemon, tmp_path):
    daemon = make_daemon()
    (tmp_path / "style.css").write_text("#mark { width: 321px; color: rgb(1, 2, 3); }")
    (tmp_path / "dot.png").write_bytes(PNG)
    (tmp_path / "page.html").write_text('<!doctype html><link rel="stylesheet" href="style.css">'
                                        '<p id="mark">text</p><img id="dot" src="dot.png">')
    handler = partial(http.server.SimpleHTTPRequestHandler, directory=tmp_path)
    with contextlib.closing(Upstream(handler=handler)) as server, Browser() as browser:
        target = f"http://127.0.0.1:{server.port}/page.html"
        browser.open(f"http://127.0.0.1:{daemon.port}/{target}")
        assert browser.run("(s => [s.width, s.color, dot.naturalWidth])(getComputedStyle(mark))") \
            == ["321px", "rgb(1, 2, 3)", 9]
