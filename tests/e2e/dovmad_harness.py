"""Starts real daemons for tests: free loopback ports, a document root of their own, a first-use
authentication set-up, and checks at the end that each one ended cleanly.

The programs come from the environment: DOVMAD_BINARY (the daemon whose fixed system paths are
prefixed by DOVMAD_TEST_ROOT), DOVMAD_PROVIDER (the authentication library) and DOVMAD_USER_TOOL.
"""

import base64
import contextlib
import http.server
import os
import random
import re
import signal
import socket
import ssl
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import urlencode

BINARY = os.environ.get("DOVMAD_BINARY", "")
PROVIDER = os.environ.get("DOVMAD_PROVIDER", "")
USER_TOOL = os.environ.get("DOVMAD_USER_TOOL", "")
CHECKER = os.environ.get("DOVMAD_CHECK", "")
# A sanitizer keeps freed memory back on purpose: resident memory says nothing then.
SANITIZED_BUILD = bool(BINARY) and b"__asan_init" in Path(BINARY).read_bytes()
SANITIZED = re.compile(r"ERROR: \w+Sanitizer|runtime error:|WARNING: ThreadSanitizer")

# The daemon takes a port whose first four digits are one of its own for itself, so its ports and
# those of the servers behind it come from different ranges.
# Both end below the ports that the system hands out for outgoing connections.
_RANGES = {"daemon": range(20003, 30000, 10), "upstream": range(30003, 32700, 10)}
_upcoming = {}
# A port is ours while this process holds the socket of its name, so that test files that run at the
# same time never share one, not even while a daemon restarts. Nothing of them is in the file system.
_reservations = []


def free_port(kind="daemon"):
    """A port that nobody listens on, whose first four digits no recent call has given out."""
    ports = _RANGES[kind]
    start = _upcoming.get(kind, random.randrange(len(ports)))
    for step in range(len(ports)):
        port = ports[(start + step) % len(ports)]
        mark = socket.socket(socket.AF_UNIX)
        try:
            mark.bind(f"\0dovmad-test-port-{port}")
            with socket.socket() as probe:
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                probe.bind(("127.0.0.1", port))
        except OSError:
            mark.close()
            continue
        _reservations.append(mark)
        _upcoming[kind] = start + step + 1
        return port
    raise RuntimeError("no free port")


def eventually(check, seconds=60):
    """Asks until the answer is true or the time is over; the last answer."""
    deadline = time.monotonic() + seconds
    while not (answer := check()) and time.monotonic() < deadline:
        time.sleep(0.02)
    return answer


class Received(bytes):
    """What came over a connection. `end` tells how that connection was then: "closed" by the other
    side, "reset" by it, or "open" still."""

    end = None


def receive_until_end(sock, until=None):
    """Everything until the connection ends, `until(received)` is true, or the socket's time-out
    has passed without a byte; as `Received`."""
    received, end = b"", "open"
    try:
        while not (until and until(received)):
            chunk = sock.recv(1 << 16)
            if not chunk:
                end = "closed"
                break
            received += chunk
    except TimeoutError:
        pass
    except (ConnectionError, ssl.SSLEOFError):  # the latter: the channel was cut, not closed
        end = "reset"
    reply = Received(received)
    reply.end = end
    return reply


def inetd_session(daemon, request, hang_up=False, errors_too=False, at_end=lambda: None):
    """The reply to one connection, whose process must end without an error. `at_end` is called when
    the reply has ended and the process may still be there."""
    ours, theirs = socket.socketpair()
    with ours, theirs:
        process = subprocess.Popen([BINARY, daemon.config], env=daemon.env, stdin=theirs,
                                   stdout=theirs, stderr=theirs if errors_too else subprocess.DEVNULL)
        theirs.close()
        ours.settimeout(60)
        ours.sendall(request)
        if hang_up:
            ours.shutdown(socket.SHUT_WR)
        received = receive_until_end(ours)
        at_end()
        assert process.wait(60) == 0
    return received


@dataclass
class Response:
    status: int
    reason: str
    headers: list
    body: bytes
    raw: bytes = field(repr=False)
    end: str = None  # how the connection was when the reply was whole: "closed" or "open"

    def header(self, name, default=None):
        """The value of the first header of that name."""
        return next((v for n, v in self.headers if n.lower() == name.lower()), default)

    @property
    def text(self):
        return self.body.decode()


def checker(daemon, *args, env=None, **kwargs):
    """Exit status and findings of dovmad-check about a daemon's set-up."""
    path = f"{Path(USER_TOOL).parent}:{os.environ['PATH']}"
    done = subprocess.run([CHECKER, *map(str, args), str(daemon.config)], capture_output=True,
                          text=True, check=False, timeout=60,
                          env={**daemon.env, "PATH": path, **(env or {})}, **kwargs)
    assert not SANITIZED.search(done.stderr), done.stderr
    return done.returncode, done.stdout


def parse_response(raw):
    head, _, body = raw.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    parts = lines[0].split(" ", 2)
    if len(parts) < 2:
        raise AssertionError(f"not a reply: {raw[:200]!r}")
    fields = [line.partition(":") for line in lines[1:]]
    headers = [(name, value.strip()) for name, _, value in fields]
    return Response(int(parts[1]), parts[2] if len(parts) > 2 else "", headers, body, raw)


class Daemon:
    """One daemon below `base`. Keyword options become lines of its configuration file; `auth=True`
    leaves out "noauth 1", `config_text` replaces the file, `env` adds environment variables and
    `args` replaces the command line behind the program."""

    def __init__(self, base, auth=False, config_text=None, env=None, args=None, **options):
        self.dir = base = Path(base)
        self.root, self.home, self.var, self.prefix = (
            base / name for name in ("root", "home", "var", "prefix"))
        self.error_log, self.access_log, self.pid_file, self.config, self.stderr_file = (
            base / name for name in ("error.log", "access.log", "dovmad.pid", "dovmad.conf",
                                     "stderr.txt"))
        self.ca = self.var / "sec" / "dovmad-at" / "server.crt"
        for folder in (self.root, self.home / "lib", self.var, self.prefix):
            folder.mkdir(parents=True, exist_ok=True)
        library = self.home / "lib" / "libmolbat4L_t.so"
        if PROVIDER and not library.exists():
            library.symlink_to(PROVIDER)
        self.port, self.tls_port = free_port(), free_port()
        # Ports are opened in this order: who reaches the plain one can reach both.
        settings = {
            "document_root": self.root, "listen_ports": f"{self.tls_port},{self.port}u",
            "zel_home": self.home, "var_dir": self.var, "pid_file": self.pid_file,
            "error_log": self.error_log, "access_log": self.access_log,
            "noauth": None if auth else 1, **options,
        }
        text = "".join(f"{k} {v}\n" for k, v in settings.items() if v is not None)
        self.config.write_text(text if config_text is None else config_text)
        self.env = dict(os.environ, DOVMAD_TEST_ROOT=str(self.prefix), **(env or {}))
        self.args = [str(a) for a in args] if args is not None else [str(self.config)]
        self.process = None
        self.before_first_start = None
        self.expected_end = False
        self.bad_ends = []

    @property
    def pid(self):
        return self.process.pid

    def start(self, wait=True):
        if wait and self.before_first_start:
            self.before_first_start(self)
            self.before_first_start = None
        with open(self.stderr_file, "ab") as stderr:
            self.said_before = len(self.stderr_text())
            self.process = subprocess.Popen([BINARY, *self.args], env=self.env, stderr=stderr,
                                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.expected_end = False
        if wait:
            assert eventually(self.answers, 60), self.stderr_text()
        return self

    def answers(self):
        """Whether it takes connections and can be found; an error when it has ended instead."""
        if self.process.poll() is not None:
            raise AssertionError(f"the daemon ended with {self.process.returncode}: "
                                 f"{self.stderr_text()}")
        if " started on port" not in self.stderr_text()[self.said_before:]:
            return False
        try:
            self.connect().close()
        except OSError:
            return False
        return True

    def stop(self, sig=signal.SIGTERM, timeout=30):
        """Ends the daemon with a signal and returns its exit status."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(sig)
            self.expected_end = True
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        finally:
            self.process.stdout.close()
        status = self.process.returncode
        handled = sig in (signal.SIGTERM, signal.SIGINT)
        # The leak checker sometimes crashes over a thread that ends just then: its own end, no report.
        if SANITIZED_BUILD and "Tracer caught signal" in self.stderr_text():
            status = 0 if handled else -sig
        if not self.expected_end or status not in ((0,) if handled else (0, -sig)):
            self.bad_ends.append(status)
        self.expected_end = True
        return status

    def restart(self):
        self.stop()
        return self.start()

    def check(self):
        """Ends the daemon and fails when it had died or a sanitizer had something to say."""
        if self.process is None:
            return
        if self.process.poll() is None or not self.expected_end:
            self.stop()
        text = self.stderr_text()
        assert not SANITIZED.search(text), text[-6000:]
        assert not self.bad_ends, f"the daemon ended with {self.bad_ends}: {text[-3000:]}"

    def write(self, name, content="", mode=0o644, base=None):
        """Makes a file below the document root (or `base`), and the folders on its way."""
        path = (base or self.root) / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        path.chmod(mode)
        return path

    # --- Speaking to it ---

    def connect(self, port=None):
        return socket.create_connection(("127.0.0.1", port or self.port), 30)

    def begin(self, *requests, port=None):
        """Connections on which these were sent."""
        clients = [self.connect(port) for _ in requests]
        for sock, request in zip(clients, requests):
            sock.sendall(request)
        return clients

    def raw(self, data, port=None, timeout=10, until=None, end=None):
        """Sends bytes (or a list of pieces) and returns, as `Received`, everything until the daemon
        ends the connection, until `until(received)` is true, or until nothing has come for
        `timeout` seconds. Fails unless the connection then is as `end` says: "closed" where the
        caller names neither an end nor `until`; "any" asks for nothing."""
        pieces = [data] if isinstance(data, bytes) else data
        with self.connect(port) as sock:
            sock.settimeout(timeout)
            with contextlib.suppress(ConnectionError):  # a refusal may come before the last piece
                for piece in pieces:
                    sock.sendall(piece)
            reply = receive_until_end(sock, until)
        expected = end or ("open" if until else "closed")
        assert expected in ("any", reply.end), (
            f"expected it {expected}, but it is {reply.end}: {reply[-300:]!r}")
        return reply

    def request(self, method, path, body=None, headers=None, user=None, port=None, tls=False,
                timeout=30):
        """One request on a connection of its own. `user` is "name:password"."""
        lines = [f"{method} {path} HTTP/1.1", "Host: localhost"]
        fields = dict(headers or {})
        if user is not None:
            fields["Authorization"] = "Basic " + base64.b64encode(user.encode()).decode()
        payload = b""
        if body is not None:
            payload = body if isinstance(body, bytes) else body.encode()
            fields.setdefault("Content-Length", str(len(payload)))
        lines += [f"{name}: {value}" for name, value in fields.items()]
        data = "\r\n".join(lines).encode("latin-1") + b"\r\n\r\n" + payload
        sock = self.connect(port or (self.tls_port if tls else self.port))
        if tls:
            context = ssl.create_default_context(cafile=str(self.ca))
            sock = context.wrap_socket(sock, server_hostname="localhost")
        with sock:
            sock.settimeout(timeout)
            sock.sendall(data)
            received = self._receive(sock, method, path)
            reply = parse_response(received)
            reply.end = received.end
            return reply

    @staticmethod
    def _receive(sock, method, path):
        def is_whole(received):
            head, blank, body = received.partition(b"\r\n\r\n")
            length = re.search(rb"(?i)\r\ncontent-length: (\d+)", head)
            closes = re.search(rb"(?i)\r\nconnection: close", head)
            bodyless = method == "HEAD" or re.match(rb"\S+ (204|304) ", head)
            return blank and length and not closes and (
                bodyless or len(body) >= int(length.group(1)))

        received = receive_until_end(sock, is_whole)
        assert received, f"no reply to {method} {path}, and the connection is {received.end}"
        assert received.end != "reset", f"{method} {path} was reset behind {received[:300]!r}"
        assert received.end == "closed" or is_whole(received), (
            f"the reply to {method} {path} never ended: {received[-300:]!r}")
        return received

    def post(self, path, fields, **kwargs):
        """A POST of form variables."""
        return self.request("POST", path, body=urlencode(fields), **kwargs)

    def curl(self, *args, timeout=120):
        return subprocess.run(["curl", "--noproxy", "*", *map(str, args)], capture_output=True,
                              timeout=timeout, check=False)

    def user_tool(self, *args, input=None, timeout=60):
        """The administration program on this daemon's data directory."""
        env = dict(self.env, ZEL_DATA_DIR=str(self.var / "sec"))
        return subprocess.run([USER_TOOL, *map(str, args)], env=env, input=input, text=True,
                              capture_output=True, timeout=timeout, check=False)

    # --- Looking at it ---

    @property
    def password(self):
        """The password that first use gave to root."""
        return (self.ca.parent / "initial-password").read_text().strip()

    def stderr_text(self):
        return self.stderr_file.read_text(errors="replace") if self.stderr_file.exists() else ""

    def fd_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def rss_kib(self):
        status = Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1))

    def find_in_memory(self, *secrets):
        """What stands around each of them in writable memory, by its mapping."""
        found = {}
        with open(f"/proc/{self.pid}/mem", "rb", 0) as memory:
            for area in Path(f"/proc/{self.pid}/maps").read_text().splitlines():
                start, end = (int(n, 16) for n in area.split()[0].split("-"))
                if " rw" not in area or end - start > 1 << 30:  # a sanitizer's own
                    continue
                memory.seek(start)
                with contextlib.suppress(OSError):  # a mapping that cannot be read
                    content = memory.read(end - start)
                    found.update((area, content[max(0, content.index(secret) - 60):][:160])
                                 for secret in secrets if secret in content)
        return found

    def cpu_seconds(self):
        fields = Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def children(self):
        """Process ids of its children, zombies included."""
        found = []
        for stat in Path("/proc").glob("[0-9]*/stat"):
            with contextlib.suppress(OSError):
                if int(stat.read_text().rsplit(")", 1)[1].split()[1]) == self.pid:
                    found.append(int(stat.parent.name))
        return found


class QuietHandler(http.server.BaseHTTPRequestHandler):
    """Handles the requests of a server that logs nothing; answers in one call."""

    def answer(self, status, body, headers):
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def start_daemon_expecting_failure(base, timeout=30, **options):
    """Starts a daemon that must end by itself: (exit status, standard error)."""
    daemon = Daemon(base, **options).start(wait=False)
    daemon.expected_end = True
    try:
        return daemon.process.wait(timeout), daemon.stderr_text()
    finally:
        daemon.process.kill()
        daemon.process.wait()
        daemon.process.stdout.close()
