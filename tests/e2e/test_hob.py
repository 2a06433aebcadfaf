"""The companion service: its start and end with the daemon, and requests that reach it through its
port or through its standard input and output."""

import os
import re
import signal
import threading
import time

import pytest

from dovmad_harness import inetd_session
from relay_support import calms_down, eventually, get, until_close

NO_SERVICE = (b"HTTP/1.1 500 Internal server error. Could not connect to hob server.\r\n\r\n"
              b"500 Internal server error. Could not connect to hob server.")

# Answers on its standard output with what it read; paths choose how. Bodies come over TCP.
SERVICE = r'''#!/usr/bin/python3 -I
import os, socket, socketserver, sys, threading, time

place = os.path.dirname(os.path.abspath(__file__))
class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        self.server.connections += 1
        while data := self.request.recv(65536):
            text = b"tcp %d %s" % (self.server.connections, data)
            self.request.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(text), text))
class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    connections = 0
server = Server(("127.0.0.1", 0), Handler)
threading.Thread(target=server.serve_forever, daemon=True).start()
with open(os.path.join(place, "facts"), "w") as out:
    print(os.getpid(), os.getcwd(), *sorted(os.listdir("/proc/self/fd"), key=int), file=out)
    print(*sorted(f"{k}={v}" for k, v in os.environ.items()), sep="\n", file=out)
announce = "PORT : %d\n" % server.server_address[1]
for piece in ("starting\nPORT ", ": ", announce[7:9], announce[9:]):
    os.write(1, piece.encode())
    time.sleep(0.1)
while data := os.read(0, 65536):
    body = b"stdio " + data
    if b"slow" in data:
        time.sleep(3 if b"very" in data else 1)
    if b"die" in data:
        os._exit(1)
    if b"silent" in data:
        continue
    if b"wrong" in data:
        # An answer that is longer than announced, ambiguous, unreadable or broken, and more of it later.
        os.write(1, {b"e": b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nEXTRA",
                     b"s": b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 2\r\n\r\nEX",
                     b"x": b"A: \1\r\n\r\n",
                     b"k": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}[data[-1:]])
        time.sleep(0.7)
        os.write(1, b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nSECRET")
        continue
    if b"interim" in data:
        os.write(1, b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\n")
    if b"large" in data:
        body += b"x" * 500000
    if b"nolength" in data:
        os.write(1, b"HTTP/1.1 200 OK\r\n\r\n" + body)
        continue
    if b"chunked" in data:
        head = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
        body = b"%x\r\n%s\r\n0\r\n\r\n" % (len(body), body)
    else:
        head = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body)
    out = head + body
    while out:
        out = out[os.write(1, out):]
'''


def alive(pid):
    return os.path.exists(f"/proc/{pid}")


@pytest.fixture(name="hob")
def make_hob(make_daemon, tmp_path):
    def make(service=SERVICE, auth=False, start=True, **options):
        folder = tmp_path / "install" / "bin"
        folder.mkdir(parents=True, exist_ok=True)
        if service is not None:
            (folder / "hobintf").write_text(service)
            (folder / "hobintf").chmod(0o755)
        daemon = make_daemon(start=start, auth=auth, slips=service is None,
                             cgi_envvar=f"PERL5LIB=/p5,PLX_INSTALL_ROOT={tmp_path}/install,X=1",
                             **options)
        daemon.facts = folder / "facts"
        if start:
            # The ports are open before the service has announced itself.
            assert daemon.request("GET", "/world/ping").status == 200
        return daemon

    return make


class Client:
    """A client that keeps its connection; it asks for `path` at once."""

    def __init__(self, daemon, path=None):
        self.sock = daemon.connect()
        self.received = b""
        if path:
            self.sock.sendall(get("/hob://h:/" + path))

    def ask(self, path, body=b""):
        self.sock.sendall(get("/hob://h:/" + path, method="POST" if body else "GET", body=body))
        return self.answer()

    def answer(self):
        while True:
            head, blank, body = self.received.partition(b"\r\n\r\n")
            length = re.search(rb"Content-Length: (\d+)", head)
            end = int(length.group(1)) if length else body.find(b"\r\n0\r\n\r\n") + 7
            if blank and (length or end > 6) and len(body) >= end:
                self.received = body[end:]
                return body[:end]
            chunk = self.sock.recv(1 << 16)
            assert chunk, self.received[:300]
            self.received += chunk


def test_service_starts_and_ends_with_the_daemon(hob):
    daemon = hob()
    pid, cwd, *descriptors = daemon.facts.read_text().splitlines()[0].split(" ")
    environment = daemon.facts.read_text().splitlines()[1:]
    assert cwd == str(daemon.facts.parent)
    # Its own listening socket and its look at /proc come on top.
    assert descriptors[:3] == ["0", "1", "2"] and len(descriptors) <= 6
    install = daemon.facts.parent.parent
    for item in ("PERL5LIB=/p5", f"PLX_INSTALL_ROOT={install}", f"PLX_VAR_DIR={daemon.var}",
                 f"DOCUMENT_ROOT={daemon.root}", f"ZEL_HOME_DIR={daemon.home}"):
        assert item in environment
    assert not any(item.startswith(("X=", "GATEWAY", "DOVMAD")) for item in environment)
    assert int(pid) in daemon.children()
    assert daemon.stop(signal.SIGTERM) == 0
    assert not alive(int(pid))


def test_requests_go_by_port_or_by_standard_input(hob):
    daemon = hob()
    client = Client(daemon)
    for path, body, answer in (
            ("a%20b?c=d", b"", b"stdio /a%20b?c=d"), ("x", b"one", b"tcp 1 one"),
            ("x", b"two", b"tcp 1 two"), ("y", b"", b"stdio /y"),
            ("chunked", b"", b"e\r\nstdio /chunked\r\n0\r\n\r\n"),
            ("large", b"", b"stdio /large" + b"x" * 500000), ("x", b"three", b"tcp 1 three")):
        assert client.ask(path, body) == answer
    assert Client(daemon).ask("x", b"four") == b"tcp 2 four"
    client.sock.sendall(get("/hob://h:/one") + get("/hob://h:/two"))
    assert client.answer() == b"stdio /one" and client.answer() == b"stdio /two"
    # HTTP/1.0 ends with its reply.
    reply = daemon.raw(b"GET /hob://h:/old HTTP/1.0\r\n\r\n")
    assert reply.endswith(b"\r\n\r\nstdio /old")
    # The service is never told the method and answers with a body that HEAD does not have.
    reply = daemon.raw(get("/hob://h:/head", method="HEAD"))
    assert (reply, reply.end) == (b"HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\n", "closed")
    assert client.ask("next") == b"stdio /next"


def test_one_exchange_at_a_time(hob):
    daemon = hob()
    results = {}

    def run(name):
        client = Client(daemon)
        results[name] = [client.ask(f"{name}-{i}") for i in range(10)]
        client.sock.close()

    threads = [threading.Thread(target=run, args=(f"client{n}",)) for n in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(results) == 8
    for name, answers in results.items():
        assert answers == [f"stdio /{name}-{i}".encode() for i in range(10)]


def test_answer_of_a_client_that_left_reaches_nobody(hob):
    daemon = hob()
    for path in ("very-slow", "slow-large", "slow-chunked"):
        leaver = Client(daemon, path)
        time.sleep(0.2)
        waiting = Client(daemon, "mine")
        time.sleep(0.2)
        leaver.sock.close()
        assert waiting.answer() == b"stdio /mine"
        assert Client(daemon).ask("after") == b"stdio /after"
    # One that leaves in the middle of an answer that it has begun to take, of whatever length.
    for path in ("large", "nolength"):
        leaver = Client(daemon, path)
        leaver.sock.recv(1000)
        leaver.sock.close()
        assert Client(daemon).ask("mine") == b"stdio /mine"


def test_service_that_says_nothing_holds_only_its_own_clients(hob):
    daemon = hob()
    silent = Client(daemon, "silent")
    time.sleep(0.2)
    waiting = Client(daemon, "waiting")
    assert daemon.request("GET", "/world/ping").status == 200
    assert Client(daemon).ask("x", b"tcp")[:3] == b"tcp"
    assert calms_down(daemon)
    waiting.sock.close()
    silent.sock.close()


def test_answer_without_length_closes_the_client(hob):
    daemon = hob()
    assert until_close(daemon, get("/hob://h:/nolength")) == b"HTTP/1.1 200 OK\r\n\r\nstdio /nolength"


def test_late_bytes_of_a_wrong_answer_reach_nobody(hob):
    daemon = hob()
    for kind in ("wrong-more", "wrong-lengths", "wrong-x", "wrong-chunk"):
        first = until_close(daemon, get("/hob://h:/" + kind))
        assert b"SECRET" not in first, kind
        assert Client(daemon).ask("mine") == b"stdio /mine", kind


def test_interim_answers_of_the_service_are_dropped(hob):
    daemon = hob()
    client = Client(daemon)
    for path in ("interim", "plain", "interim-chunked", "plain"):
        assert b"stdio /" + path.encode() in client.ask(path), path
    leaver = Client(daemon, "slow-interim")
    time.sleep(0.2)
    leaver.sock.close()
    assert client.ask("mine") == b"stdio /mine"


def test_service_that_dies(hob):
    daemon = hob()
    error = b"HTTP/1.1 500 Error in proxy\r\n\r\n500 Error in proxy"
    assert daemon.raw(get("/hob://h:/die")) == error
    for _ in range(3):
        assert daemon.raw(get("/hob://h:/x")) == error
        assert daemon.raw(get("/hob://h:/x", method="POST", body=b"x")) == NO_SERVICE
    assert calms_down(daemon)


def test_stop_uri_ends_the_service_only(hob):
    daemon = hob()
    pid = int(daemon.facts.read_text().split(" ")[0])
    assert daemon.raw(get("/admin/lifecycle/stop")) == b"HTTP/1.1 200 OK\r\n\r\nSuccess"
    assert eventually(lambda: not alive(pid))
    assert daemon.raw(get("/hob://h:/x")) == NO_SERVICE
    assert daemon.request("GET", "/world/ping").status == 200


def test_only_administrators_reach_it(hob):
    daemon = hob(auth=True)
    user = "root:" + daemon.password
    assert daemon.request("GET", "/hob://h:/admin/x", user=user).body == b"stdio /admin/x"
    forbidden = b"HTTP/1.1 403 Forbidden.\r\n\r\n403 Forbidden."
    assert daemon.request("GET", "/hob://h:/world/x").raw == forbidden
    assert daemon.request("GET", "/hob://h:/pub/x", user=user).raw == forbidden
    assert daemon.request("GET", "/hob://h:/admin/x").status == 401


@pytest.mark.parametrize("output", [
    "", "no port here\n", "PORT : none\n", "PORT : 0\n", "PORT : 655350\n", "PORT: 80\n",
    "none for long\n'; exec sleep '999"])
def test_service_without_port_is_ended(hob, output):
    daemon = hob(f"#!/bin/sh\necho $$ >facts\nprintf '{output}'\n")
    pid = int(daemon.facts.read_text())
    assert eventually(lambda: not alive(pid))
    assert daemon.raw(get("/hob://h:/x")) == NO_SERVICE
    assert daemon.raw(get("/hob://h:/x", method="POST", body=b"x")) == NO_SERVICE
    assert "HOBINTF: no port announced by " in daemon.error_log.read_text()


def test_port_at_the_end_of_what_a_service_says(hob):
    daemon = hob(SERVICE.replace(r'"PORT : %d\n"', '"PORT : %d"'))
    assert Client(daemon).ask("x", b"one") == b"tcp 1 one"


def test_missing_service(hob, make_daemon):
    daemon = hob(None)
    assert daemon.raw(get("/hob://h:/x")) == NO_SERVICE
    first, refused = daemon.error_log.read_text().splitlines()
    assert re.search(r" redirect: exec\(.*/install/bin/hobintf\)$", first)
    assert refused.endswith(" 500 Internal server error. Could not connect to hob server.")
    assert "HOBINTF" not in daemon.stderr_text()
    # Where nobody has named one, nobody misses it.
    daemon = make_daemon()
    assert daemon.raw(get("/world/ping"), until=bool)
    assert daemon.error_log.read_text() == "" and "hobintf" not in daemon.stderr_text()
    assert daemon.raw(get("/hob://h:/x")) == NO_SERVICE


def test_inetd_mode_takes_its_service_along(hob):
    """Even one that does not end by itself; the client need not wait for that."""
    daemon = hob("#!/bin/sh\necho $$ >facts\necho PORT : 1\nexec sleep 60\n", start=False,
                 inetd_mode=1)
    at_end = []
    received = inetd_session(daemon, b"GET /world/ping HTTP/1.1\r\nConnection: close\r\n\r\n",
                             at_end=lambda: at_end.append(alive(int(daemon.facts.read_text()))))
    assert (received, received.end, at_end) == (b"HTTP/1.1 200 OK\r\n\r\n", "closed", [True])
    assert not alive(int(daemon.facts.read_text()))


def test_silent_service_does_not_keep_the_daemon_from_ending(hob):
    daemon = hob("#!/bin/sh\necho $$ >facts\nexec sleep 60\n", start=False)
    daemon.start(wait=False)
    assert eventually(lambda: daemon.facts.exists() and daemon.facts.read_text().strip())
    pid = int(daemon.facts.read_text())
    assert daemon.stop(signal.SIGTERM) == 0
    assert not alive(pid)
