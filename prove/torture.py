"""Torture: in every scenario every n-th call of every kind fails once."""

import contextlib
import os
import signal
import socket
import threading
import time

from common import Outcome, ask, end_daemon, get, line, literal, make_program, run, settled
from dovmad_harness import eventually
from faults import KINDS, NEVER, Faults

# Beyond so many calls of a kind in a scenario they are sampled evenly: allocations are many and alike.
FULL, QUICK = 600, 2
# The documented ends of a start without its library, and without its configuration.
START_ABORTS = ("Error initializing MOLB AT", "zel home dir not specified")
# The dynamic loader's own abort, with status 127.
LOADER_ABORTS = "cannot allocate memory for thread-local data: ABORT"
# A reload that fails ends the daemon.
RELOAD_ENDS = ("Cannot get credential for service", "Cannot get list of domains", "Out of memory")
GROWTH_MAX = 24  # blocks that one kind of fault may leave behind in a scenario, whatever its number

COMPANION = """#!/usr/bin/python3 -I
import os
os.write(1, b"PORT : 1\\n")
while os.read(0, 65536):
    os.write(1, b"HTTP/1.1 200 OK\\r\\nContent-Length: 9\\r\\n\\r\\ncompanion")
"""


class Target(threading.Thread):
    """A small HTTP server behind the daemon."""

    def __init__(self):
        super().__init__(daemon=True)
        self.sock = socket.create_server(("127.0.0.1", 0))
        self.port = self.sock.getsockname()[1]
        self.start()

    def run(self):
        while True:
            with contextlib.suppress(OSError):
                client = self.sock.accept()[0]
                with client:
                    client.settimeout(5)
                    data = b""
                    while b"\r\n\r\n" not in data:
                        piece = client.recv(4096)
                        if not piece:
                            break
                        data += piece
                    client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\ntarget")


def scenarios(target):
    """(name, request, what the reply must hold, whether over TLS)."""
    login = "Authorization: Basic {login}"
    form = "id={n}&host=h{n}&osname=L&osrelease=6&cputype=x"
    return [
        ("file", get("/world/page"), b"the page", False),
        ("file over TLS", get("/world/page"), b"the page", True),
        ("large file", get("/world/large"), b"Content-Length: 300000", False),
        ("upload", get("/up/f{n}", method="PUT", body=b"x" * 20000), b"HTTP/1.1 20", False),
        ("removal", get("/up/gone", method="DELETE"), b"HTTP/1.1 ", False),
        ("listing", get("/up/"), b"Index of", False),
        ("program", get("/world/p.cgi", method="POST", body=b"input"), b"said input", False),
        ("page with commands", get("/world/s.shtml"), b"ran it", False),
        ("target", get(f"/http://127.0.0.1:{target.port}/world/x"), b"target", False),
        ("secure target", get("/https://127.0.0.1:1/world/x"), b"404", False),
        ("companion", get("/hob://x"), b"companion", False),
        ("enrolment", get("/agent/domain/register", method="POST", body=form.encode()),
         b"Success", False),
        ("departure", get("/agent/domain/unregister", method="POST", body=b"id=x{n}"), b"404", False),
        ("report", get("/agent/domain/report", method="POST", body=b"id=keeper&freq=60"),
         b"Success", False),
        ("enumeration", get("/agent/domain/enum?format=json"), b"keeper", False),
        ("grant", get("/admin/security/grant?user=u{n}e&role=operator&type=user"), b"Success", False),
        ("namespace", get("/admin/dovmad/config/namespace/add", method="POST",
                          body=b"namespace=n{n}e&document_root=/tmp"), b"Success", False),
        ("rescan", get("/admin/sched/rescan"), b"Success", False),
        ("vital signs", get("/world/getvitals"), b"HTTP/1.1 200", False),
        ("reload of the library", get("/admin/security/reset", method="POST", body=b"x=1"),
         b"Success", False),
        ("login", get("/pub/page", login), b"the page", False),
        ("large file over TLS", get("/world/large"), b"Content-Length: 300000", True),
        ("upload over TLS", get("/up/t{n}", method="PUT", body=b"x" * 20000), b"HTTP/1.1 20", True),
        ("program over TLS", get("/world/p.cgi", method="POST", body=b"input"), b"said input", True),
        ("enrolment over TLS", get("/agent/domain/register", method="POST", body=form.encode()),
         b"Success", True),
        ("login over TLS", get("/pub/page", login), b"the page", True),
    ]


class Torture:
    def __init__(self, place):
        self.place = place
        self.faults = Faults(place.shim, place.folder / "control")
        self.tallies = {"faults": 0, "aborts": 0, "refused": 0, "right": 0, "silent": 0}
        self.wrong = []
        self.number = 0
        self.died = False  # of no memory for the C library's list of name services: at most one start

    def build(self, folder, auth=False):
        place = self.place
        domain = place.folder / f"{folder}-domain"
        domain.write_text("keeper::keeper:Linux:6.1:x86_64:plx\n")
        schedule = place.folder / f"{folder}-schedule"
        schedule.write_text("job - 0 3 * * * /bin/true\n")
        service = place.folder / f"{folder}-service"
        make_program(service / "bin" / "hobintf", "")
        (service / "bin" / "hobintf").write_text(COMPANION)
        daemon = place.make(start=False, name=folder, auth=auth, env=self.faults.environment,
                            domain_file=domain, scheduler_file=schedule, cgi_extensions=".cgi",
                            ssi_extensions=".shtml",
                            cgi_envvar=f"PLX_INSTALL_ROOT={service}")
        for name in ("world", "up", "operator", "pub"):
            (daemon.root / name).mkdir(parents=True, exist_ok=True)
        for name in ("world/page", "pub/page"):
            (daemon.root / name).write_text("the page\n")
        (daemon.root / "world" / "large").write_bytes(b"l" * 300_000)
        (daemon.root / "operator" / ".dovmaaccess").write_text("kept:user\n")
        make_program(daemon.root / "world" / "p.cgi",
                     "printf 'Content-Type: text/plain\\n\\nsaid '\ncat\n")
        (daemon.root / "world" / "s.shtml").write_text('<!--#exec "echo ran it" -->\n')
        return daemon

    def request(self, daemon, template, timeout, tls):
        """The template with a number of its own; the library makes a password's base64 of it."""
        self.number += 1
        # A namespace is taken for another one that begins with its name: all numbers are as long.
        data = template.replace(b"{n}", b"%06d" % self.number)
        if b"{login}" in data:
            import base64
            data = data.replace(b"{login}", base64.b64encode(
                f"root:{daemon.password}".encode()))
        head, blank, body = data.partition(b"\r\n\r\n")
        if b"Content-Length" in head:
            head = b"\r\n".join(line if not line.startswith(b"Content-Length")
                                else f"Content-Length: {len(body)}".encode()
                                for line in head.split(b"\r\n"))
        head += b"\r\nConnection: close"
        return ask(daemon, head + blank + body, timeout, tls)

    def whole(self, daemon):
        domain = self.place.folder / f"{daemon.dir.name}-domain"
        hosts = domain.read_text()
        access = (daemon.root / "operator" / ".dovmaaccess").read_text()
        good = hosts.endswith("\n") and "keeper::keeper:" in hosts and access.endswith("\n") \
            and "kept:user\n" in access
        return "" if good else f"damaged: {hosts[-50:]!r} {access[-50:]!r}"

    def after(self, daemon, what, scenario, may_abort):
        """Judges the daemon behind one fault; it is running again afterwards."""
        _, template, wanted, tls = scenario
        reply = b""
        # Out of descriptors it pauses for a second; one that aborts takes its time on a busy machine.
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline:
            with contextlib.suppress(OSError):
                reply = self.request(daemon, template, 10, tls)
            if wanted in reply or daemon.process.poll() is not None:
                break
            time.sleep(0.3)
        status = daemon.process.poll()
        if status is not None:
            daemon.expected_end = True
            daemon.process.stdout.close()
            told = daemon.stderr_text().strip().splitlines()[-1:]
            if (may_abort and (status == -signal.SIGABRT or
                               (status == 127 and told == [LOADER_ABORTS]))) or \
                    (status == 1 and scenario[0] == "reload of the library" and
                     any(row.endswith(text) for row in told for text in RELOAD_ENDS)):
                self.tallies["aborts"] += 1
            else:
                self.wrong.append(f"{what}: ended with {status}, {told}")
            daemon.start()
        elif wanted not in reply:  # it may never answer again
            self.wrong.append(f"{what}: then {reply[:60]!r}")
            daemon.stop(signal.SIGKILL)
            daemon.start()
        if problem := self.whole(daemon):
            self.wrong.append(f"{what}: {problem}")

    def places_of(self, calls):
        """Which of the calls fail: all, or a sample."""
        most = QUICK if self.place.quick else FULL
        if calls <= most:
            return range(calls)
        return sorted({i * calls // most for i in range(most)})

    def run_scenario(self, daemon, scenario):
        name, template, wanted, tls = scenario
        if daemon.process.poll() is not None:
            self.wrong.append(f"before {name}: ended with {daemon.process.returncode}")
            daemon.expected_end = True
            daemon.start()
        for _ in range(3):  # what is made at first use is there then
            reply = self.request(daemon, template, 10, tls)
        if wanted not in reply:
            self.wrong.append(f"{name}: {reply[:80]!r}")
            return
        live = self.faults.get("live")
        for _ in range(10):  # what a request leaves by its nature, such as an entry of a file
            self.request(daemon, template, 10, tls)
        each = max(0, self.faults.get("live") - live) / 10
        for kind in KINDS:
            self.faults.arm(kind)
            with contextlib.suppress(OSError):
                self.request(daemon, template, 10, tls)
            calls = self.faults.disarm()[0]
            descriptors, live, begun = daemon.fd_count(), self.faults.get("live"), daemon.pid
            count, asked = 0, self.number
            for nth in self.places_of(calls):
                self.faults.arm(kind, nth)
                reply = b""
                with contextlib.suppress(OSError):
                    reply = self.request(daemon, template, 0.5 if kind != "wait" else 2, tls)
                hit = self.faults.disarm()[1]
                self.tallies["faults"] += hit
                count += hit
                word = "right" if wanted in reply else "refused" if reply else "silent"
                self.tallies[word] += hit
                self.after(daemon, f"{name}, {kind}[{nth}]", scenario, kind == "malloc")
            if daemon.pid != begun:
                continue  # started anew: nothing to compare with
            left = settled(daemon, descriptors, 6)
            if left > 0:
                self.wrong.append(f"{name}, {kind}: {left} descriptors left")
            allowed = GROWTH_MAX + count // 2 + each * (self.number - asked)
            # Replies that nobody took may still be under way.
            if count > 8 and not eventually(lambda: self.faults.get("live") - live <= allowed, 8):
                self.wrong.append(f"{name}, {kind}: {self.faults.get('live') - live} blocks left by "
                                  f"{count} faults")

    def start_up(self, kind, nth, fresh):
        """A start that meets one fault; whether there was one."""
        name = f"s{self.number}"
        self.number += 1
        daemon = self.build(name)
        if not fresh:
            daemon.var.mkdir(parents=True, exist_ok=True)
            run("cp", "-a", self.place.folder / "site", daemon.var / "sec")
        self.faults.arm(kind, nth)
        daemon.start(wait=False)
        eventually(lambda: daemon.process.poll() is not None
                   or " started on port" in daemon.stderr_text(), 20)
        calls, hit = self.faults.disarm()
        what = f"{'first use' if fresh else 'start'}, {kind}[{nth}]"
        status = daemon.process.poll()
        if hit:
            self.tallies["faults"] += 1
            said = daemon.stderr_text()
            allowed = kind == "malloc" or any(text in said for text in START_ABORTS)
            if status == -signal.SIGSEGV and self.faults.get("foreign") and not self.died:
                self.died = True
                self.tallies["aborts"] += 1
            elif status not in (None, 1, -signal.SIGABRT if allowed else 1):
                self.wrong.append(f"{what}: ended with {status}")
            self.tallies["aborts"] += status == -signal.SIGABRT
            self.tallies["refused"] += status == 1
            self.tallies["right"] += status is None
            if status == 1 and not daemon.stderr_text().strip():
                self.wrong.append(f"{what}: ended without a word")
            if status is None and " started on port" in said:  # what runs works, over TLS, too
                reply = b""
                with contextlib.suppress(OSError):
                    reply = self.request(daemon, get("/world/page"), 10, True)
                if b"the page" not in reply:
                    self.wrong.append(f"{what}: then {reply[:60]!r}")
        end_daemon(daemon, status)
        if hit:
            daemon.start()
            if self.whole(daemon):
                self.wrong.append(f"{what}: {self.whole(daemon)}")
            if daemon.stop() != 0:
                self.wrong.append(f"{what}: the next run did not end well")
        for path in self.place.folder.glob(f"{name}*"):
            run("rm", "-rf", path)
        self.place.forget(daemon)
        return calls, hit

    def starts(self, fresh):
        for kind in KINDS:
            calls = self.start_up(kind, NEVER, fresh)[0]
            for nth in self.places_of(calls)[:1 if self.place.quick else None]:
                self.start_up(kind, nth, fresh)

    def shutdowns(self):
        """Faults between the signal and the end."""
        for kind in KINDS:
            for nth in range(QUICK if self.place.quick else FULL):
                daemon = self.shut
                if daemon.process is None or daemon.process.poll() is not None:
                    daemon.start()
                self.request(daemon, get("/world/page"), 10, False)
                self.faults.arm(kind, nth)
                daemon.expected_end = True
                os.kill(daemon.pid, signal.SIGTERM)
                try:
                    status = daemon.process.wait(20)
                except Exception:
                    self.wrong.append(f"shutdown, {kind}[{nth}]: does not end")
                    daemon.process.kill()
                    status = daemon.process.wait()
                daemon.process.stdout.close()
                if not self.faults.disarm()[1]:
                    break
                self.tallies["faults"] += 1
                if status != 0 and not (kind == "malloc" and status == -signal.SIGABRT):
                    self.wrong.append(f"shutdown, {kind}[{nth}]: ended with {status}")
                if problem := self.whole(daemon):
                    self.wrong.append(f"shutdown, {kind}[{nth}]: {problem}")


def once(place):
    """Every scenario once, without a fault, over plain and TLS: how many were answered right, and how
    the daemons ended."""
    rack, target = Torture(place), Target()
    rack.faults.environment.pop("LD_PRELOAD")
    daemons = {auth: rack.build(f"a{auth}", auth=auth).start(wait=False) for auth in (False, True)}
    for daemon in daemons.values():
        assert eventually(daemon.answers, 300), daemon.stderr_text()
    right = 0
    for name, template, wanted, _ in scenarios(target):
        for tls in (False, True):
            reply = rack.request(daemons["login" in name], template, 60, tls)
            right += wanted in reply
            assert wanted in reply, (name, tls, bytes(reply[:200]))
    return right, [daemon.stop(timeout=300) for daemon in daemons.values()]


PIECES = 29  # the scenarios, starts, first use, shutdowns


@line("torture", "5,000 failing calls in 20 scenarios: 0 crashes but aborts without memory, 0 leaks, "
      "0 damaged files, the same request right afterwards", PIECES, PIECES, piece=1,
      least={"faults": 5000})
def torture(amount, place):
    rack, target = Torture(place), Target()
    requests = scenarios(target)
    assert len(requests) + 3 == PIECES
    daemon = rack.build("plain").start()
    guarded = rack.build("guarded", auth=True).start()
    for piece in range(place.done, place.done + amount):
        if piece < len(requests):
            scenario = requests[piece]
            rack.run_scenario(guarded if "login" in scenario[0] else daemon, scenario)
    daemon.stop()
    guarded.stop()
    run("cp", "-a", daemon.var / "sec", place.folder / "site")
    for piece, fresh in ((PIECES - 3, False), (PIECES - 2, True)):
        if place.done <= piece < place.done + amount:
            rack.starts(fresh)
    if place.done + amount == PIECES:
        rack.shut = rack.build("shut")
        rack.shutdowns()
    return Outcome(not rack.wrong, "{scenarios} scenarios: "
                   + ", ".join(f"{name} {{{name}}}" for name in rack.tallies) + ", wrong {wrong}"
                   + "".join(f"; {literal(text)}" for text in rack.wrong[:8]),
                   {"scenarios": amount, **rack.tallies, "wrong": len(rack.wrong)})
