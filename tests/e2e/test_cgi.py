"""CGI programs of the real daemon: what they inherit, what clients see of them, and that thousands
of them leave nothing behind."""

import contextlib
import hashlib
import os
import signal
import socket
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from relay_support import calms_down, eventually, get, leaving_nothing, receive, until_close

# The long variant: DOVMAD_CGI_RUNS=10000
RUNS = int(os.environ.get("DOVMAD_CGI_RUNS", "300"))


@pytest.fixture(name="cgi")
def make_cgi(make_daemon):
    daemons = []

    def make(auth=False, **options):
        daemon = make_daemon(auth=auth, cgi_extensions=".cgi", **options)

        def script(name, text, interpreter="/bin/sh"):
            daemon.write(name, f"#!{interpreter}\n{text}", 0o755)
            return "/" + name

        daemon.script = script
        daemons.append(daemon)
        return daemon

    yield make
    for daemon in daemons:
        for child in daemon.children():  # programs outlive their clients
            with contextlib.suppress(ProcessLookupError):  # it may end by itself meanwhile
                os.kill(child, signal.SIGKILL)


@pytest.fixture(name="gate")
def make_gate(tmp_path):
    """The command that holds a script, and what lets one script on. The test keeps the gate open
    for writing: a reader that comes early would else see the end of the line before its own."""
    path = tmp_path / "gate"
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR)
    yield f"read x <{path}", lambda: os.write(descriptor, b"go\n")
    os.close(descriptor)


INSPECT = r"""
import os, signal
print("Content-Type: text/plain\n")
print("fds", " ".join(sorted(os.listdir("/proc/self/fd"), key=int)))
status = dict(line.split(":\t", 1) for line in open("/proc/self/status") if ":\t" in line)
print("ignored", int(status["SigIgn"], 16) & ~(1 << (signal.SIGXFSZ - 1)) & ~(1 << (signal.SIGPIPE - 1)))
print("blocked", int(status["SigBlk"], 16))
print("cwd", os.getcwd())
for name, value in sorted(os.environ.items()):
    print("env", f"{name}={value}")
"""


def test_child_inherits_three_descriptors_and_the_right_environment(cgi):
    daemon = cgi(auth=True, cgi_envvar="MARK=one two,OTHER=2")
    path = daemon.script("world/sub/look.cgi", INSPECT, "/usr/bin/python3 -I")
    # Connections and a running program whose descriptors must not leak into the next one.
    daemon.script("world/wait.cgi", "printf 'A: b\\n\\n'; exec sleep 20")
    idle = [daemon.connect() for _ in range(5)]
    idle[0].sendall(get("/world/wait.cgi"))
    assert idle[0].recv(100)
    reply = daemon.request("GET", path + "/extra%20path/x?a=%26b+c", headers={
        "X-Foo-Bar": "v", "Content-Type": "text/odd", "Proxy": "evil"})
    assert reply.raw.startswith(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\n\n")
    lines = reply.raw.split(b"\n\n", 1)[1].decode().splitlines()
    facts = dict(line.split(" ", 1) for line in lines if not line.startswith("env "))
    # Descriptor 3 is the program's own look at /proc.
    assert facts == {"fds": "0 1 2 3", "ignored": "0", "blocked": "0",
                     "cwd": str(daemon.root / "world/sub")}
    env = dict(line[4:].split("=", 1) for line in lines if line.startswith("env "))
    script = str(daemon.root) + path
    expected = {
        "SERVER_PORT": str(daemon.port), "SERVER_NAME": socket.gethostname(),
        "DOCUMENT_ROOT": str(daemon.root), "PLX_VAR_DIR": str(daemon.var),
        "REMOTE_ADDR": "127.0.0.1", "REQUEST_URI": path + "/extra path/x", "SCRIPT_NAME": script,
        "PLXE_ROLE": "world", "QUERY_STRING": "a=&b c", "PATH_INFO": "/extra path/x",
        "MARK": "one two", "OTHER": "2", "HTTP_X_FOO_BAR": "v", "PATH": os.environ["PATH"],
    }
    assert 1024 <= int(env["REMOTE_PORT"]) <= 65535
    assert {**env, **expected} == env and not env.keys() & {"HOME", "DOVMAD_TEST_ROOT"}
    for sock in idle:
        sock.close()


def test_bodies_of_every_size_pass_both_ways(cgi):
    daemon = cgi()
    path = daemon.script("sum.cgi", "printf 'A: b\\n\\n'; md5sum | cut -c1-32; echo $CONTENT_LENGTH")
    for size in (1, 1000, 16384, 16385, 100_000, 5_000_000):
        body = os.urandom(size)
        reply = until_close(daemon, get(path, method="POST", body=body))
        assert reply == (b"HTTP/1.1 200 OK\r\nA: b\n\n" + hashlib.md5(body).hexdigest().encode() +
                         f"\n{size}\n".encode()), size
    # Echo: both directions at once, more than any buffer holds.
    echo = daemon.script("echo.cgi", "printf 'Content-Length: %s\\r\\n\\r\\n' $CONTENT_LENGTH; cat")
    body = os.urandom(3_000_000)
    with daemon.connect() as sock:
        sender = threading.Thread(target=sock.sendall, args=(get(echo, method="POST", body=body),))
        sender.start()
        head = b"HTTP/1.1 200 OK\r\nContent-Length: 3000000\r\n\r\n"
        assert receive(sock, body[-100:]) == head + body
        sender.join()
        # The connection stays.
        sock.sendall(get(echo, method="POST", body=b"again"))
        assert receive(sock, b"again") == b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nagain"


def test_program_may_answer_without_reading(cgi):
    daemon = cgi()
    path = daemon.script("deaf.cgi", "printf 'Content-Type: text/plain\\r\\n\\r\\ndeaf'")
    for _ in range(20):
        # The client may notice that nobody reads on; the answer is there all the same.
        assert daemon.raw(get(path, method="POST", body=bytes(3_000_000)), timeout=60) == (
            b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\ndeaf")


def test_broken_programs(cgi):
    daemon = cgi()
    daemon.write("text.cgi", "no program")
    running, headers = (f"HTTP/1.1 500 {text}\r\n\r\n500 {text}".encode()
                        for text in ("Error running CGI", "Bad headers sent"))
    rows = {
        daemon.script("silent.cgi", "exit 3"): running,
        daemon.script("killed.cgi", "printf 'Content-'; kill -9 $$"): running,
        "/text.cgi": running,
        daemon.script("bad.cgi", "printf 'A: \\033\\n\\nx'"): headers,
        daemon.script("endless.cgi", "head -c 20000 /dev/zero | tr '\\0' x"): headers,
        # Less than promised: the client learns it by the end of the connection.
        daemon.script("short.cgi", "printf 'Content-Length: 100\\r\\n\\r\\nabcd'"):
            b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabcd",
    }
    for path, reply in rows.items():
        assert until_close(daemon, get(path)) == reply, path
    log = daemon.error_log.read_text(errors="replace")
    assert r"CGI script sent invalid headers: [A: \x1b\x0a\x0ax]" in log
    assert "redirect: exec(" + str(daemon.root / "text.cgi") in log
    for method in ("PUT", "DELETE", "HEAD"):
        assert until_close(daemon, get("/silent.cgi", "Content-Length: 0", method=method)) == (
            b"HTTP/1.1 501 Bad method \r\n\r\n501 Bad method ")
    assert (daemon.root / "silent.cgi").exists()
    # Standard error is the error log.
    daemon.script("err.cgi", "echo from the program >&2; printf 'A: b\\n\\n'")
    assert daemon.request("GET", "/err.cgi").status == 200
    assert "\nfrom the program\n" in daemon.error_log.read_text()


def test_waiting_programs_cost_nothing_and_outlive_clients(cgi, gate):
    daemon = cgi()
    hold, release = gate
    marker = daemon.dir / "marker"
    waiting = daemon.script("wait.cgi", f"{hold}; echo done >>{marker}")
    # A client whose upload stalls, and one that takes nothing of an endless answer.
    cat = daemon.script("cat.cgi", "printf 'A: b\\n\\n'; cat")
    endless = daemon.script("endless.cgi", "printf 'A: b\\n\\n'; exec yes")
    requests = [get(waiting)] * 10 + [get(cat, method="POST", body=b"x" * 100)[:-5], get(endless)]
    with leaving_nothing(daemon):
        clients = daemon.begin(*requests)
        assert eventually(lambda: len(daemon.children()) == len(requests))
        assert calms_down(daemon)
        for sock in clients:
            sock.close()
    for _ in range(10):
        release()
    assert eventually(lambda: not daemon.children())
    assert marker.read_text() == "done\n" * 10, "a program outlives its client"


def test_many_runs_leave_nothing(cgi):
    daemon = cgi()
    path = daemon.script("hello.cgi", "printf 'Content-Length: 5\\r\\n\\r\\nhello'")
    daemon.request("GET", path)

    def client(_):
        with daemon.connect() as sock:
            for _ in range(RUNS // 4):
                sock.sendall(get(path))
                assert receive(sock, b"hello") == (
                    b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
        return True

    with leaving_nothing(daemon, 4096), ThreadPoolExecutor(4) as pool:
        assert all(pool.map(client, range(4)))
    assert eventually(lambda: not daemon.children())


def test_stopping_while_programs_run(cgi):
    daemon = cgi()
    path = daemon.script("wait.cgi", "printf 'A: b\\n\\n'; exec sleep 5")
    with daemon.connect() as sock:
        sock.sendall(get(path))
        assert sock.recv(100)
        assert daemon.stop(signal.SIGTERM) == 0
        receive(sock)
