"""The engine under real clients: keep-alive, pipelining, uploads and downloads of every speed,
clients that vanish, TLS, overload, and what is left behind afterwards."""

import http.client
import random
import re
import resource
import signal
import socket
import struct
import time
from pathlib import Path

from dovmad_harness import eventually
from relay_support import calms_down, get, leaving_nothing


def test_keep_alive_across_handlers(make_daemon):
    daemon = make_daemon(auth=True)
    bodies = {"a.txt": b"alpha", "b.html": b"<p>beta</p>", "c.json": random.Random(1).randbytes(300000)}
    for name, body in bodies.items():
        daemon.write(f"world/{name}", body)
    client = http.client.HTTPConnection("127.0.0.1", daemon.port)
    client.connect()
    first = client.sock
    for name, kind in (("a.txt", "text/plain"), ("b.html", "text/html"),
                       ("c.json", "application/json")) * 3:
        client.request("GET", f"/world/{name}")
        reply = client.getresponse()
        assert (reply.status, reply.getheader("Content-Type")) == (200, kind)
        assert reply.read() == bodies[name]
    stat = (daemon.root / "world" / "c.json").stat()
    assert reply.getheader("Etag") == f'"{int(stat.st_mtime):x}.{stat.st_size:x}"'
    client.request("HEAD", "/world/a.txt")
    assert client.getresponse().read() == b"" and client.sock is first
    client.request("GET", "/world/c.json",
                   headers={"If-Modified-Since": reply.getheader("Last-Modified")})
    assert client.getresponse().status == 304
    ranged = daemon.curl("-s", "-r", "3-", f"http://127.0.0.1:{daemon.port}/world/a.txt")
    assert ranged.stdout == b"ha"


def test_large_downloads_keep_every_byte(make_daemon):
    daemon = make_daemon(auth=True)
    block = random.Random(7).randbytes(1 << 20)
    content = b"".join(struct.pack(">Q", i) + block[8:] for i in range(100))
    file = daemon.write("world/big.bin", content)
    for url, extra in ((f"http://127.0.0.1:{daemon.port}", []),
                       (f"https://localhost:{daemon.tls_port}", ["--cacert", daemon.ca])):
        result = daemon.curl("-s", "--fail", *extra, url + "/world/big.bin")
        assert result.stdout == content, (len(result.stdout), result.stderr)
    file.unlink()


def test_slow_reader_gets_everything_while_others_are_served(make_daemon):
    daemon = make_daemon()
    body = random.Random(2).randbytes(3 << 20)
    daemon.write("slow.bin", body)
    daemon.write("f", "quick")
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
                # Little waits in the kernel: what he reads shows as movement on the connection.
                written = re.search(r"wchar: (\d+)", Path(f"/proc/{daemon.pid}/io").read_text())
                assert int(written[1]) < len(got) + (1 << 20)
    assert got.split(b"\r\n\r\n", 1)[1] == body


def test_no_spin_while_clients_wait_and_an_end_when_told(make_daemon):
    daemon = make_daemon()
    daemon.write("big.bin", bytes(30 << 20))
    daemon.write("f", "x")
    _waiting = daemon.begin(
        b"", get("/none-yet")[:-2], b"PUT /p HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
        b"POST /admin/dovmad/config HTTP/1.1\r\nContent-Length: 99\r\n\r\nab",
        b"FOO / HTTP/1.1\r\n\r\n" + bytes(30000), get("/big.bin"), get("/f"))
    assert calms_down(daemon)
    assert daemon.stop(signal.SIGTERM) == 0, "clients in every state keep it from nothing"
    assert daemon.stderr_text().endswith("Exit on signal 15\n")


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
    assert daemon.request("GET", "/none").status == 404
    with leaving_nothing(daemon, 2048):
        run(18000)


def test_more_clients_than_descriptors(make_daemon):
    """Out of descriptors the daemon neither spins nor dies, and recovers."""
    daemon = make_daemon()
    (daemon.root / "f").write_text("x")
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (256, 256))
    clients = [daemon.connect() for _ in range(300)]
    assert eventually(lambda: daemon.fd_count() >= 256)
    assert calms_down(daemon)
    for sock in clients:
        sock.close()
    assert eventually(lambda: daemon.request("GET", "/f").body == b"x")
