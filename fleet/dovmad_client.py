"""What dovmad-metrics, dovmad-inventory and dovmad-agent-report share: exit statuses, credentials,
asking a daemon, replacing files. Nothing here prints; what goes wrong is a Failure in words."""

import argparse
import base64
import contextlib
import http.client
import json
import os
import re
import ssl
import stat
import sys
import tempfile
import time
from dataclasses import dataclass, field
from urllib.parse import urlencode, urlsplit

# Exit statuses, those of sysexits(3) where it has one.
USAGE, DATA, UNREACHABLE, OUTPUT, CLOCK, REFUSED, SETTINGS = 64, 65, 69, 73, 75, 77, 78

REPLY_MAX = 1 << 28  # bytes; ten times a listing of 100,000 hosts
SECONDS_END = 1 << 40  # what every consumer's numbers hold
LOGIN_MAX = 42  # bytes of "user:password" that the daemon takes
NO_CHECK_TIME = 0x200000  # X509_V_FLAG_NO_CHECK_TIME, which the ssl module has no name for
HOST_FIELDS = ("hostid", "hostname", "revhostname", "osname", "osrelease", "cputype", "status")


class Failure(Exception):
    """What went wrong, in words, and the exit status that says it. `code` is the status of a reply
    that is no success, `reply` its text."""

    def __init__(self, status: int, text: str, code: int = 0, reply: str = "") -> None:
        super().__init__(text)
        self.status, self.code, self.reply = status, code, reply


def run(main) -> None:
    """Ends the program with the status of main(), or with that of its Failure, told in one line."""
    program = os.path.basename(sys.argv[0])
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"{program}: {failure}", file=sys.stderr)
        sys.exit(failure.status)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # for what is still buffered
        print(f"{program}: nobody reads the output any more", file=sys.stderr)
        sys.exit(OUTPUT)
    except KeyboardInterrupt:
        sys.exit(130)


def seconds(text: str) -> float:
    """A span of time on the command line."""
    value = float(text)
    if not 0 <= value < 1e6:
        raise ValueError
    return value


class Parser(argparse.ArgumentParser):
    """Ends with the status of the project's other tools when it is called wrongly."""

    def error(self, message):
        self.print_usage(sys.stderr)
        self.exit(USAGE, f"{self.prog}: {message}\n")


def secret_file(path: str):
    """An open file that nobody but its owner, this user or root, can read; others are refused."""
    try:
        file = open(path, encoding="utf-8", opener=lambda name, flags: os.open(
            name, flags | os.O_NONBLOCK))  # a pipe must not make anybody wait
        status = os.fstat(file.fileno())
    except OSError as error:
        raise Failure(SETTINGS, f"{path}: {error.strerror}") from None
    if not stat.S_ISREG(status.st_mode):
        raise Failure(SETTINGS, f"{path}: not a regular file")
    if status.st_mode & 0o077:
        raise Failure(SETTINGS, f"{path}: mode {stat.S_IMODE(status.st_mode):04o} lets others at a "
                                "secret; chmod 600 it")
    if status.st_uid not in (0, os.geteuid()):
        raise Failure(SETTINGS, f"{path}: belongs to somebody else")
    return file


def password_in(path: str) -> str:
    """The first line of a file that nobody else can read."""
    with secret_file(path) as file, settings_of(path):
        password = file.readline(256).rstrip("\r\n")
    if not password:
        raise Failure(SETTINGS, f"{path}: no password in its first line")
    return password


@contextlib.contextmanager
def settings_of(what: str):
    """Turns what the ssl module says about files into words about `what`."""
    try:
        yield
    except (OSError, ValueError) as error:
        reason = getattr(error, "reason", None) or getattr(error, "strerror", None) or error
        raise Failure(SETTINGS, f"{what}: {reason}") from None


@dataclass
class Daemon:
    """One daemon, and how to ask it. Certificates are always verified: against `ca`, else against
    the system's authorities."""

    url: str
    name: str = ""
    ca: str | None = None
    user: str | None = None
    password_file: str | None = None
    cert: str | None = None
    key: str | None = None
    namespace: str | None = None
    timeout: float = 60.0  # seconds for a request with all of its reply
    certificate_end: float | None = field(default=None, init=False)  # seconds since the epoch

    def __post_init__(self) -> None:
        parts = urlsplit(self.url)
        try:
            self.host, self.port = parts.hostname or "", parts.port or 5634
        except ValueError:
            self.host = ""
        if parts.scheme not in ("http", "https") or not self.host or parts.path.strip("/"):
            raise Failure(SETTINGS, f"{self.url}: no address of the form https://HOST:PORT")
        if "@" in parts.netloc:
            raise Failure(SETTINGS, "a login in the address can be seen by everybody: use "
                                    "--user and --password-file")
        self.tls = parts.scheme == "https"
        if not self.tls and not re.fullmatch(r"localhost|127(\.\d+){3}|::1", self.host):
            raise Failure(SETTINGS, f"{self.url}: without TLS everybody on the way reads along; "
                                    "https://, or an address of this host")
        if self.timeout <= 0:
            raise Failure(SETTINGS, f"a timeout of {self.timeout:g} s")
        if bool(self.user) != bool(self.password_file):
            raise Failure(SETTINGS, "--user and --password-file belong together")
        self.name = self.name or self.host

    def context(self, expired: bool = False) -> ssl.SSLContext:
        """How to set up a secure channel; `expired` takes a certificate that has ended."""
        with settings_of(self.ca or "the system's authorities"):
            context = ssl.create_default_context(cafile=self.ca)
        # A pinned certificate, as the daemon makes it at its first start, is an anchor by itself.
        context.verify_flags |= ssl.VERIFY_X509_PARTIAL_CHAIN
        context.verify_flags &= ~ssl.VERIFY_X509_STRICT
        if expired:
            context.verify_flags |= NO_CHECK_TIME
        if self.cert:
            secret_file(self.key or self.cert).close()
            with settings_of(self.cert):
                context.load_cert_chain(self.cert, self.key)
        return context

    def headers(self) -> dict[str, str]:
        fields = {"Connection": "close", "User-Agent": os.path.basename(sys.argv[0])}
        if self.namespace:
            fields["X-PLX-Namespace"] = self.namespace
        if self.user:
            login = f"{self.user}:{password_in(self.password_file)}".encode()
            if len(login) > LOGIN_MAX:
                raise Failure(SETTINGS, f"{self.password_file}: name and password have more than "
                                        f"the {LOGIN_MAX - 1} bytes that the daemon takes")
            fields["Authorization"] = "Basic " + base64.b64encode(login).decode()
        return fields

    def ask(self, path: str, fields: dict[str, str] | None = None) -> bytes:
        """The body of a reply of status 200 to a GET, or with fields to a POST of them."""
        headers = self.headers()
        if self.tls:
            connection = http.client.HTTPSConnection(self.host, self.port, timeout=self.timeout,
                                                     context=self.context())
        else:
            connection = http.client.HTTPConnection(self.host, self.port, timeout=self.timeout)
        body = None
        if fields is not None:
            body = urlencode(fields)
            headers["Content-Type"] = "application/x-www-form-urlencoded"
        try:
            return self._exchange(connection, path, body, headers)
        except ssl.SSLCertVerificationError as error:
            if error.verify_code == 10:
                self.certificate_end = self._end_of_an_expired_certificate()
            raise self.failure(SETTINGS, f"its certificate is refused: {error.verify_message}")
        except TimeoutError:
            raise self.failure(UNREACHABLE, f"no whole reply within {self.timeout:g} s") from None
        except http.client.RemoteDisconnected:
            raise self.failure(UNREACHABLE, "it ended the connection without a reply") from None
        except http.client.HTTPException as error:
            raise self.failure(DATA, f"no reply of a daemon: {error!r}"[:300]) from None
        except OSError as error:
            reason = getattr(error, "reason", None) or error.strerror or error
            raise self.failure(UNREACHABLE, f"{reason}") from None
        except ValueError as error:  # a name that can be none of a host, a header that can be none
            raise self.failure(SETTINGS, f"{error}") from None
        finally:
            connection.close()

    def failure(self, status: int, text: str, code: int = 0, reply: str = "") -> Failure:
        return Failure(status, f"{self.name} ({self.url}): {text}", code, reply)

    def _exchange(self, connection, path, body, headers) -> bytes:
        deadline = time.monotonic() + self.timeout
        connection.connect()
        channel = connection.sock  # the reply takes it over
        if self.tls:
            self.certificate_end = ssl.cert_time_to_seconds(channel.getpeercert()["notAfter"])
        connection.request("GET" if body is None else "POST", path, body, headers)
        reply = connection.getresponse()
        pieces, size = [], 0
        while piece := reply.read1(1 << 16):
            pieces.append(piece)
            size += len(piece)
            if size > REPLY_MAX:
                raise self.failure(DATA, "a reply without an end")
            if time.monotonic() > deadline:
                raise TimeoutError
            channel.settimeout(max(0.1, deadline - time.monotonic()))
        if reply.length:
            raise self.failure(UNREACHABLE, "the reply was cut short")
        data = b"".join(pieces)
        if reply.status == 200:
            return data
        text = data.decode(errors="replace").strip() or reply.reason
        status = UNREACHABLE if reply.status >= 500 else DATA
        said = f"{path.partition('?')[0]} was answered {reply.status} {reply.reason}"
        if reply.status == 401:
            status = REFUSED
            said = f"the login of {self.user or self.cert or 'nobody'} was refused (401)"
        elif reply.status == 403 and reply.reason == "Forbidden":
            status = REFUSED
            role = path.lstrip("/").partition("/")[0]
            said = f"{self.user or self.cert} does not hold the role {role} (403)"
        raise self.failure(status, said, reply.status, text)

    def _end_of_an_expired_certificate(self) -> float | None:
        with contextlib.suppress(OSError):
            connection = http.client.HTTPSConnection(self.host, self.port, timeout=self.timeout,
                                                     context=self.context(expired=True))
            with contextlib.closing(connection):
                connection.connect()
                return ssl.cert_time_to_seconds(connection.sock.getpeercert()["notAfter"])
        return None

    def ask_json(self, path: str):
        body = self.ask(path)
        try:
            return json.loads(body)
        except (ValueError, RecursionError) as error:  # no UTF-8 is the former, too
            where = "is cut short" if not body.rstrip().endswith((b"}", b"]")) else "is no JSON"
            raise self.failure(DATA, f"{path.partition('?')[0]} {where}: {error}") from None

    def vitals(self) -> dict:
        """What the daemon says about itself, with `offset`: how many seconds its clock is ahead."""
        before = time.time()
        vitals = self.ask_json("/world/getvitals")
        try:
            text = {key: vitals[key] for key in ("DOVMAD_VERSION", "DOMAIN_MODE", "OSUUID")}
            offset = int(vitals["LOCAL_TIME"]) - (before + time.time()) / 2
        except (KeyError, TypeError, ValueError, OverflowError) as error:
            raise self.failure(DATA, f"its vitals are not those of a dovmad: {error!r}") from None
        # The daemon tells whole seconds.
        return {**text, "offset": 0.0 if -1 < offset <= 0 else offset}

    def hosts(self) -> list[dict]:
        """The hosts of its domain, of all namespaces, every field checked; times in seconds. Lists
        whose reading forgets them are not asked for."""
        listing = self.ask_json("/agent/domain/enum?format=json&scope=all")
        if not isinstance(listing, list):
            raise self.failure(DATA, "the listing is no list of hosts")
        known: dict[str, int] = {}
        number = 0
        try:
            for number, host in enumerate(listing, 1):
                for name in HOST_FIELDS:
                    if "\\" in ascii(host[name]) or not isinstance(host[name], str):
                        host[name] = cleaned(host[name])
                if not isinstance(host["namespaces"], list):
                    raise TypeError("its namespaces are no list")
                host["namespaces"] = [cleaned(name) for name in host["namespaces"]]
                for name in ("pingtime", "nexttime"):
                    text = host[name]
                    if text not in known:
                        known[text] = int(text.removesuffix(" seconds"))
                        if not 0 <= known[text] < SECONDS_END:
                            raise ValueError(f"{name} {text!r}")
                    host[name] = known[text]
                if host["status"] not in ("UP", "DN"):
                    raise ValueError(f"status {host['status']!r}")
        except KeyError as error:
            raise self.failure(DATA, f"host {number} of the listing has no {error}: "
                                     "another version of the daemon?") from None
        except (TypeError, ValueError, AttributeError) as error:
            raise self.failure(DATA, f"host {number} of the listing: {error}") from None
        return listing


def cleaned(text: str) -> str:
    """Text without control characters and halves of pairs, which no consumer agrees about."""
    if not isinstance(text, str):
        raise TypeError(f"{text!r} is no text")
    return re.sub("[\x00-\x1f\x7f-\x9f\ud800-\udfff]", "_", text)


def replace_file(path: str, text: str, mode: int) -> None:
    """The file holds the old text or the new one at any time, after a power cut as well."""
    folder = os.path.dirname(os.path.realpath(path))
    temporary = None
    try:
        handle, temporary = tempfile.mkstemp(prefix=f".{os.path.basename(path)}.", dir=folder)
        with open(handle, "w", encoding="utf-8") as file:
            file.write(text)
            file.flush()
            os.fchmod(handle, mode)
            os.fsync(handle)
        os.replace(temporary, os.path.realpath(path))
    except OSError as error:
        if temporary:
            with contextlib.suppress(OSError):
                os.unlink(temporary)
        raise Failure(OUTPUT, f"{path}: {error.strerror}") from None


def write_out(text: str) -> None:
    """Standard output, as UTF-8 whatever the locale."""
    try:
        sys.stdout.buffer.write(text.encode())
        sys.stdout.buffer.flush()
    except BrokenPipeError:
        raise
    except OSError as error:
        raise Failure(OUTPUT, f"standard output: {error.strerror}") from None


def age_in_words(path: str) -> str:
    """What to say about the file that a failed run leaves alone."""
    try:
        age = max(0, time.time() - os.stat(path).st_mtime)
    except OSError:
        return f"{path} is not there yet"
    return f"{path} stays as it was {age:.0f} s ago"


def add_daemon_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--url", default="https://localhost:5634",
                        help="the daemon (default %(default)s)")
    parser.add_argument("--ca", metavar="FILE",
                        help="what its certificate is verified against (default: the system's)")
    parser.add_argument("--user", metavar="NAME")
    parser.add_argument("--password-file", metavar="FILE",
                        help="the first line is the password; mode 0600")
    parser.add_argument("--cert", metavar="FILE", help="a client certificate instead")
    parser.add_argument("--key", metavar="FILE", help="its key; mode 0600")
    parser.add_argument("--timeout", type=seconds, default=60.0, metavar="SECONDS",
                        help="for a request with its reply (default 60)")


def daemon_of(arguments: argparse.Namespace, **more) -> Daemon:
    return Daemon(url=arguments.url, ca=arguments.ca, user=arguments.user,
                  password_file=arguments.password_file, cert=arguments.cert, key=arguments.key,
                  timeout=arguments.timeout, **more)

