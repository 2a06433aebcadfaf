#!/usr/bin/env python3
"""The longest wait of somebody else, while one client, target, name server, program, file or
schedule does its worst.

    bench/stall_bench.py BUILD [SITUATION...]

BUILD is the folder of a build. For each situation a process of its own asks for /world/ping, one
request after the other, and the longest answer is printed beside the time that the situation's own
request took, and the daemon's own longest pass where it exceeded 20 ms. "nobody" is what the
machine itself costs. Situations with name servers need a network
and a mount namespace of their own, and are skipped with a word where these can't be made.

Exits with status 1 when an answer took longer than its goal: 20 ms, 50 ms beside 100,000 hosts.
"""

import base64
import contextlib
import os
import re
import resource
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

GOAL_MS, GOAL_BESIDE_MANY_MS = 20, 50
LOGINS, JOBS, STALLED, CGI_CLIENTS = 64, 1_000, 1_000, 16
APART = "STALL_BENCH_APART"  # set in the process that has namespaces of its own
NAME_SERVERS = ("127.0.0.1", "127.0.0.2", "127.0.0.3")


def enter_namespaces():
    """Runs the script anew where /etc/resolv.conf and port 53 are its own, if that is possible."""
    if APART in os.environ:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    apart = ["unshare", "--net", "--mount"] + ([] if os.getuid() == 0 else ["--map-root-user"])
    if subprocess.run([*apart, "ip", "link", "set", "lo", "up"], check=False,
                      capture_output=True).returncode == 0:
        os.execvpe(apart[0], [*apart, sys.executable, *sys.argv], {**os.environ, APART: "1"})
    print("no namespaces of its own here: silent name servers are skipped", flush=True)


build = Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else sys.exit(__doc__)
os.environ |= {"DOVMAD_BINARY": f"{build}/core/dovmad",
               "DOVMAD_PROVIDER": f"{build}/provider/libmolbat4L_t.so"}
sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parent.parent / "tests" / "e2e")]
import dovmad_harness as harness  # noqa: E402
from domain_bench import host_lines, longest_wait, post  # noqa: E402
from rights_support import add_user  # noqa: E402


def ask(daemon, uri, user=None, timeout=60):
    """The whole reply to one GET."""
    login = base64.b64encode((user or "").encode()).decode()
    header = f"Authorization: Basic {login}\r\n" if user else ""
    with socket.create_connection(("127.0.0.1", daemon.port), timeout) as sock:
        sock.sendall(f"GET {uri} HTTP/1.1\r\nConnection: close\r\n{header}\r\n".encode())
        with contextlib.suppress(ConnectionResetError):
            return b"".join(iter(lambda: sock.recv(1 << 16), b""))
    return b""


def at_once(count, action):
    """Runs the action in as many threads; returns when all are done."""
    threads = [threading.Thread(target=action, args=(n,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def expect(reply, status):
    assert reply.startswith(b"HTTP/1.1 %d " % status), reply[:100]


# --- Situations: each is a context that yields an action ---

@contextlib.contextmanager
def nobody(_):
    yield lambda: time.sleep(1)


def silent_name_servers(count):
    @contextlib.contextmanager
    def situation(daemon):
        resolv = daemon.dir / "resolv.conf"
        resolv.write_text("".join(f"nameserver {a}\n" for a in NAME_SERVERS[:count]))
        subprocess.run(["mount", "--bind", resolv, "/etc/resolv.conf"], check=True)
        servers = []
        try:
            for address in NAME_SERVERS[:count]:
                servers.append(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
                servers[-1].bind((address, 53))
            yield lambda: expect(ask(daemon, f"/http://silent{count}.example:81/world/x"), 404)
        finally:
            subprocess.run(["umount", "/etc/resolv.conf"], check=True)
            for server in servers:
                server.close()
    return situation


@contextlib.contextmanager
def own_port(daemon):
    yield lambda: ask(daemon, f"/http://127.0.0.1:0{daemon.port}/world/ping")


def silent_target(scheme, status):
    """A target that takes connections and says nothing; the client gives up on a plain one."""
    @contextlib.contextmanager
    def situation(daemon):
        with socket.create_server(("127.0.0.1", 0)) as target:
            uri = f"/{scheme}://127.0.0.1:{target.getsockname()[1]}/x"

            def action():
                try:
                    expect(ask(daemon, uri, timeout=6), status)
                except TimeoutError:
                    assert status == 0
            yield action
    return situation


@contextlib.contextmanager
def black_hole(daemon):
    """A listener whose queue is full drops what comes."""
    with contextlib.ExitStack() as stack:
        target = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        for _ in range(4):
            sock = stack.enter_context(socket.socket())
            sock.setblocking(False)
            sock.connect_ex(target.getsockname())
        yield lambda: expect(ask(daemon, f"/http://127.0.0.1:{target.getsockname()[1]}/x"), 404)


@contextlib.contextmanager
def first_logins(daemon):
    (daemon.root / "pub").mkdir()
    (daemon.root / "pub" / "f").write_text("f")
    for n in range(LOGINS):
        add_user(daemon, f"user{n}", f"password of {n}")

    def client(n):
        # The library checks a bounded number of passwords a second; who is refused asks again.
        while ask(daemon, "/pub/f", user=f"user{n}:password of {n}").startswith(b"HTTP/1.1 401 "):
            time.sleep(1)
    yield lambda: at_once(LOGINS, client)


@contextlib.contextmanager
def due_jobs(daemon):
    schedule, started = daemon.dir.parent / "schedule", daemon.dir / "started"

    def action():
        # Their count is a file that each makes longer by a byte.
        schedule.write_text("".join(
            f"due{n} - * * * * * /bin/sh -c printf . >>{started}\n" for n in range(JOBS)))
        with socket.create_connection(("127.0.0.1", daemon.port), 60) as sock:
            sock.sendall(post("/admin/sched/rescan", ""))
            assert sock.recv(4096).startswith(b"HTTP/1.1 200 ")
        assert harness.eventually(lambda: started.exists() and started.stat().st_size >= JOBS, 120)
    yield action


@contextlib.contextmanager
def ssi_sleep(daemon):
    (daemon.root / "sleep.shtml").write_text('<!--#exec "sleep 3" -->')

    def action():
        start = time.perf_counter()
        expect(ask(daemon, "/sleep.shtml"), 200)
        assert time.perf_counter() - start > 2.9
    yield action


@contextlib.contextmanager
def cgi_flood(daemon):
    program = daemon.root / "flood.cgi"
    program.write_text("#!/bin/sh\nprintf 'Content-Type: text/plain\\n\\nx'\n")
    program.chmod(0o755)

    def client(_):
        for _ in range(20):
            expect(ask(daemon, "/flood.cgi"), 200)
    yield lambda: at_once(CGI_CLIENTS, client)


@contextlib.contextmanager
def stalled_downloads(daemon):
    big = daemon.root / "big"
    with open(big, "wb") as out:
        out.truncate(30_000_000)
    with contextlib.ExitStack() as stack:
        def action():
            for _ in range(STALLED):
                sock = stack.enter_context(socket.socket())
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                sock.connect(("127.0.0.1", daemon.port))
                sock.sendall(b"GET /big HTTP/1.1\r\n\r\n")
                assert sock.recv(16).startswith(b"HTTP/1.1 200 ")  # it was not left in the queue
            time.sleep(2)
        yield action


@contextlib.contextmanager
def deaf_companion(daemon):
    def client(_):
        with contextlib.suppress(TimeoutError):
            ask(daemon, "/hob://x", timeout=3)
    yield lambda: at_once(8, client)


def companion(folder):
    """A service that announces a port and then answers nothing, neither there nor here."""
    (folder / "bin").mkdir(parents=True)
    program = folder / "bin" / "hobintf"
    program.write_text("#!/bin/sh\necho 'PORT : 1'\nexec sleep 1000\n")
    program.chmod(0o755)
    return {"cgi_envvar": f"PLX_INSTALL_ROOT={folder}"}


# Name, situation, goal, options of its daemon by folder.
SITUATIONS = [
    ("nobody", nobody, GOAL_MS, {}),
    ("silent-name-server", silent_name_servers(1), GOAL_MS, {}),
    ("three-silent-name-servers", silent_name_servers(3), GOAL_MS, {}),
    ("own-port-with-zero", own_port, GOAL_MS, {}),
    ("silent-tcp-target", silent_target("http", 0), GOAL_MS, {}),
    ("silent-tls-target", silent_target("https", 404), GOAL_MS, {}),
    ("black-hole", black_hole, GOAL_MS, {}),
    ("64-first-logins", first_logins, GOAL_MS, {"auth": True}),
    ("1000-due-jobs", due_jobs, GOAL_MS, {"scheduler_file": "schedule"}),
    ("1000-jobs-100000-hosts", due_jobs, GOAL_BESIDE_MANY_MS,
     {"scheduler_file": "schedule", "domain_file": "domain"}),
    ("ssi-exec-sleep-3", ssi_sleep, GOAL_MS, {"ssi_extensions": ".shtml"}),
    ("cgi-flood", cgi_flood, GOAL_MS, {"cgi_extensions": ".cgi"}),
    ("1000-stalled-downloads", stalled_downloads, GOAL_MS, {}),
    ("deaf-companion", deaf_companion, GOAL_MS, companion),
]


def run(folder, name, situation, goal, options):
    """The line of one situation; whether its goal was reached."""
    folder.mkdir()
    options = dict(options(folder / "service") if callable(options) else options)
    for option, content in (("scheduler_file", ""), ("domain_file", host_lines(100_000))):
        if option in options:
            options[option] = folder / options[option]
            options[option].write_text(content)
    daemon = harness.Daemon(folder / "daemon", **options).start()
    with situation(daemon) as action:
        start = time.perf_counter()
        stall = longest_wait(daemon, action)
        lasted = time.perf_counter() - start
    daemon.stop()
    own = re.search(r"longest pass: (\d+) ms, (\d+) ms of it in ([^;]*)",
                    daemon.error_log.read_text())
    print(f"{name:>26} {stall:>9.1f} {lasted:>9.2f}{'' if stall <= goal else '  missed'}"
          f"{f'  {own[0]}' if own else ''}", flush=True)
    return stall <= goal


def main():
    wanted = sys.argv[2:]
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, 4096)), hard))
    print(f"{'situation':>26} {'longest':>9} {'it took':>9}\n{'':>26} {'ms':>9} {'s':>9}")
    good = True
    with tempfile.TemporaryDirectory(prefix="dovmad-stall-") as place:
        for name, situation, goal, options in SITUATIONS:
            if wanted and name not in wanted:
                continue
            if "name-server" in name and APART not in os.environ:
                print(f"{name:>26}   skipped", flush=True)
                continue
            good = run(Path(place) / name, name, situation, goal, options) and good
    return 0 if good else 1


if __name__ == "__main__":
    enter_namespaces()
    sys.exit(main())
