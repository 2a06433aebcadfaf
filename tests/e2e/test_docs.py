"""The manuals and what is shipped beside the programs are true: every keyword, endpoint and fixed
reply is in the pages, the configuration shows the real defaults, the units allow what is done."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import dovmad_harness
import pytest
from dovmad_harness import SANITIZED_BUILD

TREE = Path(__file__).resolve().parents[2]
SOURCES = [path for folder in ("core", "handlers", "security", "domain", "sched")
           for path in (TREE / folder).glob("*.cc")]
PAGES = sorted((TREE / "docs").glob("*.[3578]"))

# One test or two of each thing that the daemon does under its unit. (Rotating its logs asks nothing
# of it: they are copied and truncated.)
TRACED = [
    "test_auth.py::test_certificates_name_users",  # first use, TLS, logins
    "test_auth.py::test_everything_below_world_is_open",  # files, uploads
    "test_cgi.py::test_child_inherits_three_descriptors_and_the_right_environment",
    "test_cgi.py::test_broken_programs",
    "test_dir.py::test_rows",
    "test_domain.py::test_whole_enrolment",
    "test_doors.py::test_grants_through_links_into_the_state_last",
    "test_hob.py::test_service_starts_and_ends_with_the_daemon",
    "test_hob.py::test_requests_go_by_port_or_by_standard_input",
    "test_library.py::test_a_renewed_certificate_is_served_and_disturbs_nobody",
    "test_proxy.py::test_own_address_is_served_locally",  # names
    "test_proxy.py::test_tls_targets_are_verified_and_never_spoken_to_in_clear",
    "test_proxy.py::test_unix_services_are_chosen_by_role",
    "test_sched.py::test_kickoff_and_shell_quoting",
    "test_sched.py::test_rescan_of_one_entry_and_of_all",
    "test_ssi.py::test_slow_command_stops_nobody",
    "test_startup.py::test_inetd_mode_serves_one_request",
    "test_startup.py::test_statistics_when_a_signal_ends_it",
    "test_world.py::test_vitals_of_a_fresh_host",
]


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
    daemon.write("pub/a.txt", "hello")
    assert dovmad_harness.checker(daemon) == (0, "")
    daemon.start()
    for port in (daemon.port, daemon.tls_port):  # its handshake is none
        for password, status in (("the secret", 200), ("a secret", 401), ("", 401)):
            reply = daemon.request("GET", "/pub/a.txt", user=f"x:{password}", port=port)
            assert reply.status == status


@pytest.mark.skipif(shutil.which("strace") is None or shutil.which("systemd-analyze") is None,
                    reason="strace or systemd is not installed")
@pytest.mark.skipif(SANITIZED_BUILD, reason="a sanitizer makes calls of its own")
def test_the_unit_allows_the_system_calls_that_are_made(tmp_path):
    def calls_of(group):
        listed = subprocess.run(["systemd-analyze", "syscall-filter", group], text=True,
                                capture_output=True, check=True).stdout
        names = set()
        for word in re.findall(r"^ +(@?[\w-]+)$", listed, flags=re.M):
            names |= calls_of(word) if word.startswith("@") else {word}
        return names

    traces = tmp_path / "traces"
    traces.mkdir()
    wrapper = tmp_path / "traced"
    wrapper.write_text(f'#!/bin/sh\nexec strace -D -f -qq -o "{traces}/$$" '
                       f'"{dovmad_harness.BINARY}" "$@"\n')
    wrapper.chmod(0o755)
    with tempfile.TemporaryDirectory() as folder:  # sockets want short names
        done = subprocess.run(
            [sys.executable, "-B", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider",
             "--basetemp", f"{folder}/t", *TRACED], cwd=TREE / "tests/e2e", text=True,
            capture_output=True, check=False, env={**os.environ, "DOVMAD_BINARY": str(wrapper)})
    assert done.returncode == 0, done.stdout
    calls = "".join(path.read_text(errors="replace") for path in traces.iterdir())
    made = set(re.findall(r"^\d+ +(\w+)\(", calls, flags=re.M))
    unit = (TREE / "packaging/systemd/dovmad.service").read_text()
    filters = re.findall(r"^SystemCallFilter=(.*)$", unit, flags=re.M)
    assert filters == ["@system-service", "~@privileged @resources", "@chown"]
    allowed = calls_of("@system-service") - calls_of("@privileged") - calls_of("@resources")
    allowed |= calls_of("@chown")
    # Answered EPERM, and that is fine: limits stay as the unit sets them; commands keep their
    # groups. The tracer's own start asks for the latter two.
    refused = made - allowed - {"setrlimit", "prlimit64", "setgroups"}
    assert {"accept4", "connect", "execve", "fdatasync", "sendfile", "clone3", "vfork"} <= made, made
    assert len(made) > 80 and not refused, (len(made), refused)


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd is not installed")
def test_the_unit_is_strict(tmp_path):
    unit = tmp_path / "dovmad.service"
    unit.write_text(re.sub(r"@\w+@/\S+", "/bin/true", (TREE / "packaging/systemd/dovmad.service")
                           .read_text()))
    for arguments in (["security", "--offline=true", "--threshold=20"], ["verify", "--man=no"]):
        done = subprocess.run(["systemd-analyze", *arguments, unit], capture_output=True, text=True,
                              check=False)
        assert (done.returncode, done.stderr) == (0, "")
