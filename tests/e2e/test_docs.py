"""The manuals and what is shipped beside the programs are true: every keyword, endpoint and fixed
reply is in the pages, the configuration shows the real defaults, the units allow what is done."""

import os
import re
import shutil
import socket
import subprocess
import urllib.parse
from pathlib import Path

import dovmad_harness
import pytest
from dovmad_harness import SANITIZED_BUILD

TREE = Path(__file__).resolve().parents[2]
SOURCES = [path for folder in ("core", "handlers", "security", "domain", "sched")
           for path in (TREE / folder).glob("*.cc")]
PAGES = sorted((TREE / "docs").glob("*.[3578]"))


def words_of(page):
    """A page's lines without their macros and escapes."""
    text = re.sub(r"^(?:\.[A-Z][a-z] )+", "", page.read_text(), flags=re.M)
    return re.sub(r"\\&|\\e|\"", "", text).replace(" ,\n", "\n")


def option_rows():
    text = (TREE / "core/options.cc").read_text()
    rows = re.findall(r"\{'\w', \"(\w+)\",.*?\n\s+\"[^\"]*\", (nullptr|\"[^\"]*\"),", text)
    assert len(rows) == 25
    return {keyword: None if value == "nullptr" else value.strip('"') for keyword, value in rows}


@pytest.mark.skipif(shutil.which("mandoc") is None, reason="mandoc is not installed")
def test_pages_are_well_formed():
    for page in PAGES:
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], text=True,
                              capture_output=True, check=False)
        assert (done.returncode, done.stdout) == (0, "")


def test_every_keyword_endpoint_and_reply_is_in_the_pages():
    text = "\n".join(words_of(page) for page in PAGES)
    conf = (TREE / "docs/dovmad.conf.5").read_text()
    missing = [f".Cm {keyword}" for keyword in option_rows()
               if f".It Cm {keyword}" not in conf]
    uris = words_of(TREE / "docs/dovmad-uris.7")
    replies = 0
    endpoints = 0
    for path in SOURCES:
        code = path.read_text()
        for uri in re.findall(r"\{\"(/(?:admin|agent|world)/[^\"]+)\", ", code):
            endpoints += 1
            missing += [uri] if not re.search(rf"{uri}(?![\w/])", uris) else []
        for reply in re.findall(r"(?:show_error|send_server_error)\([^;]*?[\"\s]\d{3}\"?,\s+"
                                r"\"([^\"]+)\"", code):
            replies += 1
            missing += [reply] if reply.strip() not in text else []
    assert endpoints == 21 and replies > 50
    assert not missing


def test_the_shipped_configuration_shows_the_defaults():
    text = (TREE / "packaging/dovmad.conf").read_text()
    settings = re.findall(r"^(#?)(\w+) (.+)$", text, flags=re.M)
    rows = option_rows()
    assert sorted(keyword for _, keyword, _ in settings) == sorted(rows)
    for commented, keyword, value in settings:
        if commented and rows[keyword] is not None:
            assert value == rows[keyword], keyword
        elif commented:  # it must be clear that the value is none that holds by itself
            block = text[:text.index(f"#{keyword} ")].rsplit("\n\n", 1)[1]
            assert re.search(r"example|the default is", block.lower()), keyword
            assert len(block.splitlines()) >= 2
        assert "#" not in value
    assert not [s for s in settings if not s[0] and s[1] in ("cgi_extensions", "ssi_extensions")]


def test_a_library_of_ones_own(make_daemon):
    """The example of dovmad-library(3)."""
    library = os.environ["DOVMAD_TOKEN_LIBRARY"]
    lines = (TREE / "packaging/token_library/library.cc").read_text().count("\n")
    assert lines <= 150
    daemon = make_daemon(start=False, auth=True, env={"DOVMAD_TOKEN": "the secret"})
    (daemon.home / "lib/libmolbat4L_t.so").unlink()
    (daemon.home / "lib/libmolbat4L_t.so").symlink_to(library)
    (daemon.root / "pub").mkdir()
    (daemon.root / "pub/a.txt").write_text("hello")
    assert dovmad_harness.checker(daemon) == (0, "")
    daemon.start()
    for port in (daemon.port, daemon.tls_port):  # its handshake is none
        for password, status in (("the secret", 200), ("a secret", 401), ("", 401)):
            reply = daemon.request("GET", "/pub/a.txt", user=f"x:{password}", port=port)
            assert reply.status == status


@pytest.mark.skipif(shutil.which("strace") is None or shutil.which("systemd-analyze") is None,
                    reason="strace or systemd is not installed")
@pytest.mark.skipif(SANITIZED_BUILD, reason="a sanitizer makes calls of its own")
def test_the_unit_allows_the_system_calls_that_are_made(make_daemon, tmp_path, monkeypatch):
    def calls_of(group):
        listed = subprocess.run(["systemd-analyze", "syscall-filter", group], text=True,
                                capture_output=True, check=True).stdout
        names = set()
        for word in re.findall(r"^ +(@?[\w-]+)$", listed, flags=re.M):
            names |= calls_of(word) if word.startswith("@") else {word}
        return names

    trace = tmp_path / "trace"
    wrapper = tmp_path / "traced"
    wrapper.write_text(f'#!/bin/sh\nexec strace -D -f -qq -o "{trace}" '
                       f'"{dovmad_harness.BINARY}" "$@"\n')
    wrapper.chmod(0o755)
    monkeypatch.setattr(dovmad_harness, "BINARY", str(wrapper))
    (tmp_path / "schedule").write_text("a kickoff - - x x x /bin/true\n")
    daemon = make_daemon(start=False, slips=True, domain_file=tmp_path / "hosts",
                         scheduler_file=tmp_path / "schedule", cgi_extensions=".cgi",
                         ssi_extensions=".shtml")
    for name in ("world", "admin"):
        (daemon.root / name).mkdir()
    (daemon.root / "world/a.txt").write_text("x" * 100000)
    (daemon.root / "world/a.cgi").write_text("#!/bin/sh\nprintf 'A: b\\n\\nhi'\n")
    (daemon.root / "world/a.cgi").chmod(0o755)
    (daemon.root / "world/a.shtml").write_text('<!--#exec "echo hi" -->')
    daemon.start()
    with socket.create_server(("127.0.0.1", dovmad_harness.free_port("upstream"))) as upstream:
        target = f"/http://127.0.0.1:{upstream.getsockname()[1]}/world/x"
        answer = b"HTTP/1.0 200 OK\r\n\r\nhi"
        with daemon.connect() as client:
            client.sendall(f"GET {target} HTTP/1.1\r\n\r\n".encode())
            peer, _ = upstream.accept()
            with peer:
                peer.recv(4096)
                peer.sendall(answer)
            assert client.recv(100)
    form = urllib.parse.urlencode({"user": "a", "role": "agent", "type": "user"})
    host = urllib.parse.urlencode({"id": "{1}", "host": "h"})
    for method, uri, body in [
            ("GET", "/world/ping", None), ("GET", "/world/getvitals", None),
            ("GET", "/world/a.txt", None), ("GET", "/world/a.cgi", None),
            ("GET", "/world/a.shtml", None), ("GET", "/world/", None), ("PUT", "/world/b", b"b"),
            ("DELETE", "/world/b", None), ("POST", "/admin/security/grant", form.encode()),
            ("POST", "/agent/domain/register", host.encode()), ("GET", "/agent/domain/enum", None),
            ("GET", "/admin/sched/dump", None), ("POST", "/admin/sched/rescan", b"")]:
        assert daemon.request(method, uri, body=body).status < 300, uri
    assert daemon.request("GET", "/world/ping", tls=True).status == 200
    daemon.stop()
    made = set(re.findall(r"^\d+ +(\w+)\(", trace.read_text(), flags=re.M))
    unit = (TREE / "packaging/systemd/dovmad.service").read_text()
    filters = re.findall(r"^SystemCallFilter=(.*)$", unit, flags=re.M)
    assert filters == ["@system-service", "~@privileged @resources", "@chown"]
    allowed = calls_of("@system-service") - calls_of("@privileged") - calls_of("@resources")
    allowed |= calls_of("@chown")
    # Answered EPERM, and that is fine: limits stay as the unit sets them; commands keep their
    # groups. The tracer's own start asks for the latter two.
    refused = made - allowed - {"setrlimit", "prlimit64", "setgroups"}
    assert len(made) > 50 and not refused


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd is not installed")
def test_the_unit_is_strict(tmp_path):
    unit = tmp_path / "dovmad.service"
    unit.write_text(re.sub(r"@\w+@/\S+", "/bin/true", (TREE / "packaging/systemd/dovmad.service")
                           .read_text()))
    for arguments in (["security", "--offline=true", "--threshold=20"], ["verify", "--man=no"]):
        done = subprocess.run(["systemd-analyze", *arguments, unit], capture_output=True, text=True,
                              check=False)
        assert (done.returncode, done.stderr) == (0, "")
