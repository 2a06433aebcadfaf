"""The engine under real clients: keep-alive, pipelining, uploads and downloads of every speed,
clients that vanish, TLS, overload, and what is left behind afterwards."""

import hashlib
import http.client
import random
import signal
import socket
import ssl
import struct
import threading
import time

import pytest

from dovmad_harness import SANITIZED_BUILD

OK = b"HTTP/1.1 200 OK\r\n"


def get(path, *headers):
    lines = [f"GET {path} HTTP/1.1", *headers, "", ""]
    return "\r\n".join(lines).encode()


def read_reply(sock, reader=None):
    """One reply with a Content-Length: (head, body)."""
    file = reader or sock.makefile("rb")
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        line = file.readline()
        if not line:
            return head, b""
        head += line
    length = 0
    for line in head.split(b"\r\n"):
        if line.lower().startswith(b"content-length: "):
            length = int(line.split(b": ")[1])
    return head, file.read(length)


def eventually(check, seconds=10):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if check():
            return True
        time.sleep(0.05)
    return check()


def tls_context(daemon):
    context = ssl.create_default_context(cafile=str(daemon.ca))
    return context


@pytest.fixture(name="big")
def make_big(tmp_path_factory):
    """100 MB that no compression or repetition hides mistakes in, and their hash."""
    path = tmp_path_factory.mktemp("big") / "big.bin"
    block = random.Random(7).randbytes(1 << 20)
    digest = hashlib.sha256()
    with open(path, "wb") as out:
        for i in range(100):
            piece = struct.pack(">Q", i) + block[8:]
            out.write(piece)
            digest.update(piece)
    return path, digest.hexdigest()


def test_keep_alive_across_handlers(make_daemon):
    daemon = make_daemon(auth=True, ssi_extensions=".shtml")
    (daemon.root / "world").mkdir()
    (daemon.root / "world" / "a.txt").write_text("alpha")
    (daemon.root / "world" / "b.html").write_text("<p>beta</p>")
    with daemon.connect() as sock:
        reader = sock.makefile("rb")
        for name, body, kind in (("a.txt", b"alpha", b"text/plain"),
                                 ("b.html", b"<p>beta</p>", b"text/html")) * 3:
            sock.sendall(get(f"/world/{name}"))
            head, got = read_reply(sock, reader)
            assert head.startswith(OK) and got == body
            assert b"Content-Type: " + kind + b"\r\n" in head
        sock.sendall(b"HEAD /world/a.txt HTTP/1.1\r\n\r\n" + get("/world/ping"))
        assert reader.read().endswith(b"HTTP/1.1 200 OK\r\n\r\n")


def test_900_pipelined_requests_in_one_send(make_daemon):
    daemon = make_daemon()
    (daemon.root / "f").write_text("x")
    with daemon.connect() as sock:
        threading.Thread(target=sock.sendall, args=(b"GET /f HTTP/1.1\r\n\r\n" * 900,)).start()
        reader = sock.makefile("rb")
        for _ in range(900):
            head, body = read_reply(sock, reader)
            assert head.startswith(OK) and body == b"x"


def test_put_in_pieces_with_the_next_request_behind(make_daemon):
    daemon = make_daemon()
    body = random.Random(1).randbytes(1 << 20)
    head = f"PUT /up/load.bin HTTP/1.1\r\nContent-Length: {len(body)}\r\n\r\n".encode()
    data = head + body + get("/up/load.bin")
    pieces = [data[i:i + 70001] for i in range(0, len(data), 70001)]
    reply = daemon.raw(pieces)
    assert reply == (b"HTTP/1.1 201 OK\r\nContent-Length: 1048576\r\n"
                     b"Connection: close\r\n\r\n")
    assert (daemon.root / "up" / "load.bin").read_bytes() == body


def test_post_in_three_packets_to_an_endpoint(make_daemon):
    daemon = make_daemon()
    body = b"mode=nothing"
    with daemon.connect() as sock:
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for part in (b"POST /admin/dovmad/config HTTP/1.1\r\nContent-Le",
                     f"ngth: {len(body)}\r\n\r\nmo".encode(), body[2:]):
            sock.sendall(part)
            time.sleep(0.2)
        assert sock.makefile("rb").read() == (
            b"HTTP/1.1 400 Bad Params\r\nContent-Type: text/plain\r\n\r\nBad Params")


def test_large_downloads_keep_every_byte(make_daemon, big):
    path, digest = big
    daemon = make_daemon(auth=True)
    (daemon.root / "world").mkdir()
    (daemon.root / "world" / "big.bin").symlink_to(path)
    for url, extra in ((f"http://127.0.0.1:{daemon.port}", []),
                       (f"https://localhost:{daemon.tls_port}", ["--cacert", str(daemon.ca)])):
        result = daemon.curl("-s", "--fail", *extra, url + "/world/big.bin")
        assert result.returncode == 0, result.stderr
        assert hashlib.sha256(result.stdout).hexdigest() == digest


def test_slow_reader_gets_everything_while_others_are_served(make_daemon):
    daemon = make_daemon()
    body = random.Random(2).randbytes(3 << 20)
    (daemon.root / "slow.bin").write_bytes(body)
    (daemon.root / "f").write_text("quick")
    with socket.socket() as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
        sock.connect(("127.0.0.1", daemon.port))
        sock.sendall(get("/slow.bin", "Connection: close"))
        got = b""
        while chunk := sock.recv(200000):
            got += chunk
            if len(got) < 400000:
                time.sleep(0.05)
                assert daemon.request("GET", "/f").body == b"quick"
    assert got.split(b"\r\n\r\n", 1)[1] == body


def test_clients_that_vanish_leave_nothing(make_daemon):
    daemon = make_daemon()
    (daemon.root / "big.bin").write_bytes(bytes(5 << 20))
    daemon.request("GET", "/none")
    base = daemon.fd_count()
    for data in (b"", b"GET / HT", get("/big.bin"), b"PUT /p HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
                 b"FOO / HTTP/1.1\r\n\r\n", b"POST /admin/sched/rescan HTTP/1.1\r\nContent-Length: 9\r\n\r\n"):
        for reset in (False, True):
            sock = daemon.connect()
            if reset:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            sock.sendall(data)
            time.sleep(0.05)
            sock.close()
    assert eventually(lambda: daemon.fd_count() == base), daemon.fd_count()


def test_a_refused_upload_reads_its_refusal(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)
    upload = tmp_path / "upload.bin"
    upload.write_bytes(bytes(3_000_000))
    for _ in range(10):
        result = daemon.curl("-s", "-i", "--data-binary", f"@{upload}", "-H", "Expect:",
                             "--max-time", "20", f"http://127.0.0.1:{daemon.port}/admin/x")
        assert result.stdout.startswith(b"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=")
    body = random.Random(3).randbytes(2_000_000)
    for path, status in (("/admin/x", 401), ("/none", 401)):
        with daemon.connect() as sock:
            sock.sendall(f"POST {path} HTTP/1.1\r\nContent-Length: {len(body)}\r\n\r\n".encode())
            try:
                sock.sendall(body)
            except OSError:
                pass
            assert f" {status} ".encode() in sock.makefile("rb").readline()


def test_tls_basic_certificate_and_untrusted(make_daemon):
    daemon = make_daemon(auth=True)
    (daemon.root / "pub").mkdir()
    (daemon.root / "pub" / "f").write_text("secret")
    base = f"https://localhost:{daemon.tls_port}"
    trusted = ["-s", "--cacert", str(daemon.ca)]
    refused = daemon.curl(*trusted, "-o", "/dev/null", "-w", "%{http_code}", base + "/pub/f")
    assert refused.stdout == b"401"
    granted = daemon.curl(*trusted, "-u", f"root:{daemon.password}", base + "/pub/f")
    assert granted.stdout == b"secret"
    wrong = daemon.curl(*trusted, "-u", "root:wrong", "-o", "/dev/null", "-w", "%{http_code}",
                        base + "/pub/f")
    assert wrong.stdout == b"401"
    assert daemon.curl("-s", base + "/pub/f").returncode == 60  # not in the system's trust store
    # HTTP without TLS on the handshake port is dropped without an answer.
    assert daemon.raw(get("/world/ping"), port=daemon.tls_port, timeout=5) == b""
    # A client that goes away inside its handshake.
    base_count = daemon.fd_count()
    for cut in (1, 3, 40, 200):
        with daemon.connect(daemon.tls_port) as sock:
            sock.sendall(bytes.fromhex("1603010200010001fc0303") + bytes(cut))
    assert eventually(lambda: daemon.fd_count() <= base_count)
    for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
        context = tls_context(daemon)
        context.minimum_version = context.maximum_version = version
        client = http.client.HTTPSConnection("localhost", daemon.tls_port, context=context)
        client.request("GET", "/world/ping")
        assert client.getresponse().status == 200


def test_plaintext_waiting_inside_the_secure_layer_never_stalls(make_daemon):
    daemon = make_daemon()
    body = random.Random(4).randbytes(60000)
    with tls_context(daemon).wrap_socket(daemon.connect(daemon.tls_port),
                                         server_hostname="localhost") as sock:
        head = f"PUT /t.bin HTTP/1.1\r\nContent-Length: {len(body)}\r\n\r\n".encode()
        started = time.monotonic()
        sock.sendall(head[:20])
        time.sleep(0.1)
        sock.sendall(head[20:] + body)  # full records: more than the buffer's room in each
        reply = sock.recv(4096)
        assert reply.startswith(b"HTTP/1.1 201 OK") and time.monotonic() - started < 4.5
    assert (daemon.root / "t.bin").read_bytes() == body


def test_http_client_library_and_curl_agree(make_daemon):
    daemon = make_daemon()
    (daemon.root / "f.json").write_text('{"a": 1}')
    client = http.client.HTTPConnection("127.0.0.1", daemon.port)
    for _ in range(3):
        client.request("GET", "/f.json")
        reply = client.getresponse()
        assert (reply.status, reply.read()) == (200, b'{"a": 1}')
    etag = reply.getheader("Etag")
    modified = reply.getheader("Last-Modified")
    stat = (daemon.root / "f.json").stat()
    assert etag == f'"{int(stat.st_mtime):x}.{stat.st_size:x}"'
    client.request("GET", "/f.json", headers={"If-Modified-Since": modified})
    assert client.getresponse().status == 304
    ranged = daemon.curl("-s", "-r", "2-", f"http://127.0.0.1:{daemon.port}/f.json")
    assert ranged.stdout == b'a": 1}'


def test_no_spin_while_clients_wait(make_daemon):
    daemon = make_daemon()
    (daemon.root / "big.bin").write_bytes(bytes(30 << 20))
    waiting = []
    for data in (b"", get("/none-yet")[:-2], b"PUT /p HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
                 b"POST /admin/dovmad/config HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
                 b"FOO / HTTP/1.1\r\n\r\n" + bytes(30000), get("/big.bin")):
        sock = daemon.connect()
        sock.sendall(data)
        waiting.append(sock)
    kept = daemon.connect()
    (daemon.root / "f").write_text("x")
    kept.sendall(get("/f"))
    waiting.append(kept)
    time.sleep(1)
    before = daemon.cpu_seconds()
    time.sleep(5)
    assert daemon.cpu_seconds() - before < 0.05
    for sock in waiting:
        sock.close()


def test_20000_mixed_requests_leave_nothing_behind(make_daemon):
    daemon = make_daemon()
    (daemon.root / "f").write_text("x" * 1000)
    rng = random.Random(5)
    menu = [get("/f"), get("/none"), b"GET / HTTP/9.9\r\n\r\n", b"\x00\x01\x02\x03\r\n\r\n",
            get("/f", "Range: bytes=5-9"), get("/%2e%2e/%2e%2e/etc/passwd"), b"GET /f HT",
            b"PUT /u HTTP/1.1\r\nContent-Length: 5\r\n\r\nabc", b"DELETE /none HTTP/1.1\r\n\r\n",
            get("/f", "Authorization: Basic " + "A" * 60), get("/" + "a" * 9000),
            b"POST /admin/security/grant HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc",
            b"GET /f HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", get("/world/ping")]

    def run(count):
        for _ in range(count):
            with daemon.connect() as sock:
                sock.sendall(rng.choice(menu))
                if rng.random() < 0.5:
                    sock.settimeout(0.02)
                    try:
                        sock.recv(65536)
                    except OSError:
                        pass

    run(2000)
    assert eventually(lambda: daemon.request("GET", "/none").status == 404)
    base_fds, base_rss = daemon.fd_count(), daemon.rss_kib()
    run(18000)
    assert eventually(lambda: daemon.fd_count() <= base_fds, 15), daemon.fd_count()
    assert SANITIZED_BUILD or daemon.rss_kib() <= base_rss + 2048


def test_sigterm_under_load_ends_with_the_statistics(make_daemon):
    daemon = make_daemon()
    (daemon.root / "big.bin").write_bytes(bytes(20 << 20))
    clients = [daemon.connect() for _ in range(20)]
    for sock in clients:
        sock.sendall(get("/big.bin"))
    time.sleep(0.2)
    assert daemon.stop(signal.SIGTERM) == 0
    assert " requests " in daemon.stderr_text() and "Exit on signal 15" in daemon.stderr_text()
    for sock in clients:
        sock.close()


def test_more_clients_than_descriptors(make_daemon):
    """Out of descriptors the daemon neither spins nor dies, and recovers."""
    daemon = make_daemon()
    (daemon.root / "f").write_text("x")
    clients = []
    try:
        for _ in range(4200):
            clients.append(daemon.connect())
    except OSError:
        pass
    time.sleep(1)
    before = daemon.cpu_seconds()
    time.sleep(3)
    assert daemon.cpu_seconds() - before < 0.3
    for sock in clients:
        sock.close()
    assert eventually(lambda: daemon.request("GET", "/f").body == b"x")
