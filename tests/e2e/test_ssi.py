"""Server-side includes as clients of a real daemon see them."""

import os
import signal
import threading
import time
from pathlib import Path


def write(daemon, name, text):
    path = daemon.root / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)


def make(make_daemon, **options):
    return make_daemon(ssi_extensions=".shtml,.shtm", **options)


def test_page_head_include_and_command(make_daemon):
    daemon = make(make_daemon)
    write(daemon, "part.txt", "PART")
    write(daemon, "x/page.shtm", '1<!--#include virtual="part.txt" -->2'
          '<!--#exec "printf \'%%s\' a; echo b" -->3<!--#bogus -->4')
    reply = daemon.request("GET", "/x/page.shtm")
    assert reply.status == 200 and reply.header("Content-Type") == "text/html"
    assert reply.header("Connection") == "close" and reply.header("Date").endswith(" GMT")
    assert reply.text == "1PART2%sb\n3<!--#bogus -->4"
    head = daemon.request("HEAD", "/x/page.shtm")
    assert (head.status, head.body) == (200, b"")
    plain = make_daemon()  # the default list is one entry that no page ends in
    write(plain, "page.shtml", '<!--#exec "echo x"-->')
    assert plain.request("GET", "/page.shtml").text == '<!--#exec "echo x"-->'


def test_slow_command_stops_nobody(make_daemon):
    daemon = make(make_daemon)
    write(daemon, "slow.shtml", '(<!--#exec "sleep 3; echo late"-->)')
    result = []
    slow = threading.Thread(target=lambda: result.append(daemon.request("GET", "/slow.shtml").text))
    slow.start()
    time.sleep(0.3)
    served = 0
    while slow.is_alive():
        assert daemon.request("GET", "/world/ping").status == 200
        served += 1
        time.sleep(0.02)
    slow.join()
    assert result == ["(late\n)"]
    assert served > 10  # a daemon that waits for the command serves one at most


def test_large_output_and_slow_reader(make_daemon):
    daemon = make(make_daemon)
    write(daemon, "big.shtml", '<!--#exec "seq 1 300000"-->end')
    expected = "".join(f"{i}\n" for i in range(1, 300001)) + "end"
    assert daemon.request("GET", "/big.shtml").text == expected
    with daemon.connect() as sock:
        sock.settimeout(60)
        sock.sendall(b"GET /big.shtml HTTP/1.1\r\n\r\n")
        time.sleep(1)
        busy = daemon.cpu_seconds()
        time.sleep(1)
        assert daemon.cpu_seconds() - busy < 0.5  # it waits without spinning
        received = b""
        while chunk := sock.recv(1 << 16):
            received += chunk
    assert received.partition(b"\r\n\r\n")[2].decode() == expected


def test_nothing_is_left_behind(make_daemon):
    daemon = make(make_daemon)
    write(daemon, "quick.shtml", '<!--#exec "true"--><!--#include "/nonexistent"-->')
    write(daemon, "endless.shtml", '<!--#exec "yes"-->')
    write(daemon, "quiet.shtml", '<!--#exec "exec sleep 1000"-->')
    daemon.request("GET", "/quick.shtml")
    before = daemon.fd_count()
    for _ in range(50):
        daemon.request("GET", "/quick.shtml")
    clients = []
    for page in ("endless", "quiet") * 5:
        sock = daemon.connect()
        sock.sendall(f"GET /{page}.shtml HTTP/1.1\r\n\r\n".encode())
        sock.recv(10)
        clients.append(sock)
    for sock in clients:
        sock.close()
    deadline = time.monotonic() + 30
    while daemon.fd_count() > before:
        assert time.monotonic() < deadline
        time.sleep(0.05)
    for child in daemon.children():  # the sleepers have no output that would end them
        command = Path(f"/proc/{child}/cmdline").read_bytes()
        assert command == b"sleep\x001000\x00"
        os.kill(child, signal.SIGTERM)
    assert "ssi: fopen(/nonexistent): No such file or directory" in daemon.stderr_text()
