"""dovmad-check: finds the slips that people make, and every one over which the daemon stops."""

import os
import random
import re
import socket
import subprocess
import sys
import time
from pathlib import Path

import pytest
from dovmad_harness import BINARY, SANITIZED_BUILD, checker

made = []  # files outside of the slip's own folder


def value(keyword, text):
    """The set-up with one value replaced or added."""
    return lambda conf, tmp: re.sub(rf"^{keyword} .*\n", "", conf, flags=re.M) + \
        f"{keyword} {text.format(tmp=tmp)}\n"


def file_of(keyword, text):
    """The set-up with a file of this content under the keyword."""
    def edit(conf, tmp):
        (tmp / keyword).write_text(text)
        return value(keyword, str(tmp / keyword))(conf, tmp)
    return edit


def in_root(name, text, base="root"):
    def edit(conf, tmp):
        path = tmp / "d0" / base / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        made.append(path)
        return conf
    return edit


def in_prefix(name, text):
    """One of the fixed places."""
    return in_root(name, text, "prefix")


def taken_port(conf, tmp):
    taken_port.socket = socket.create_server(("127.0.0.1", 0))
    return value("listen_ports", f"{taken_port.socket.getsockname()[1]}u")(conf, tmp)


def link_to_nowhere(conf, tmp):
    (tmp / "dangling").symlink_to(tmp / "nowhere")
    return value("domain_file", "{tmp}/dangling")(conf, tmp)


# The slip, the file's name and line ("": the line that was added last), kind, words of the finding.
SLIPS = [
    (lambda c, t: c + "foo 1\n", "dovmad.conf", "error", "unknown keyword"),
    (lambda c, t: c + "Noauth 1\n", "dovmad.conf", "error", "unknown keyword"),
    (lambda c, t: c + "noauth\n", "dovmad.conf", "error", "with a value"),
    (lambda c, t: c + "aliases # none\n", "dovmad.conf", "error", "with a value"),
    (lambda c, t: c + "list_directories 0", "dovmad.conf", "error", "no line feed"),
    (lambda c, t: c + "index_files a,b\r\n", "dovmad.conf", "error", "carriage return"),
    (lambda c, t: c + "cgi_envvar A=1 # why\n", "dovmad.conf", "error", "blanks at the end"),
    (value("document_root", "{tmp}/d0/root "), "dovmad.conf", "error", "blanks at the end"),
    (lambda c, t: c + "index_files " + "x" * 2100 + "\n", "dovmad.conf", "error", "longer than"),
    (lambda c, t: c + "noauth 0\n", "dovmad.conf", "warning", "already"),
    (value("noauth", "yes"), "dovmad.conf", "error", "0 or 1"),
    (value("list_directories", "2"), "dovmad.conf", "error", "0 or 1"),
    (value("io_buf_size", "64k"), "dovmad.conf", "error", "not a number"),
    (value("io_buf_size", "512"), "dovmad.conf", "error", "1024"),
    (value("io_buf_size", "999999999"), "dovmad.conf", "error", "1024"),
    (value("cgi_interpreter", "/tmp"), "dovmad.conf", "error", "directory"),
    (file_of("scheduler_file", "# why\n \n\na - 1 * * * * /bin/sh -c \"date\"\n"), "_file:4", "error",
     "quotes"),
    (file_of("scheduler_file", "a - 1 * * * * /bin/true " + "x" * 9000), "_file:1", "error", "longer"),
    (in_root("admin/.dovmaaccess", "# who\n\nno colon\n"), "dovmaaccess:3", "error", "NAME:user"),
    (value("listen_ports", "21001u 21011u"), "dovmad.conf", "error", "not a port"),
    (value("listen_ports", "0"), "dovmad.conf", "error", "not a port"),
    (value("listen_ports", "70000u"), "dovmad.conf", "error", "not a port"),
    (value("listen_ports", "https"), "dovmad.conf", "error", "not a port"),
    (value("listen_ports", "21001s"), "dovmad.conf", "error", "refused"),
    (value("listen_ports", "21001,21001u"), "dovmad.conf", "error", "twice"),
    (value("listen_ports", ","), "dovmad.conf", "error", "no port"),
    (taken_port, "dovmad.conf", "error", "in use"),
    (value("cgi_extensions", ".cgi .pl"), "dovmad.conf", "error", "sent as text"),
    (value("ssi_extensions", ".shtml .shtm"), "dovmad.conf", "error", "one entry"),
    (value("ssi_extensions", "shtml"), "dovmad.conf", "warning", "dot"),
    (value("index_files", ",a"), "dovmad.conf", "error", "empty entry"),
    (value("index_files", "a ,b"), "dovmad.conf", "error", "in front of the comma"),
    (value("namespaces", "ns:/srv"), "dovmad.conf", "error", "NAME=VALUE"),
    (value("namespaces", "ns=/nowhere"), "dovmad.conf", "warning", "No such file"),
    (value("aliases", "/a=/nowhere"), "dovmad.conf", "warning", "leads to"),
    (value("aliases", "/a=/tmp,/a=/etc"), "dovmad.conf", "warning", "twice"),
    (value("document_root", "/nowhere"), "dovmad.conf", "warning", "No such file"),
    (value("document_root", "www"), "dovmad.conf", "warning", "relative"),
    (value("document_root", "/etc/passwd"), "dovmad.conf", "error", "no directory"),
    (value("error_log", "/nowhere/log"), "dovmad.conf", "error", "No such file"),
    (value("access_log", "{tmp}"), "dovmad.conf", "error", "directory"),
    (value("pid_file", "/nowhere/pid"), "dovmad.conf", "error", "No such file"),
    (value("runtime_uid", "no-such-user"), "dovmad.conf", "error", "no user"),
    (value("cgi_interpreter", "/etc/passwd"), "dovmad.conf", "error", "Permission"),
    (value("cgi_envvar", "PLX_INSTALL_ROOT=/nowhere"), "dovmad.conf", "error", "companion"),
    (value("var_dir", "/nowhere"), "dovmad.conf", "error", "no directory"),
    (value("zel_home", "/nowhere"), "dovmad.conf", "error", "No such file"),
    (lambda c, t: re.sub("zel_home.*\n", "", c), "dovmad.conf", "error", "zel_home"),
    (value("mime_types", "/nowhere"), "dovmad.conf", "error", "No such file"),
    (file_of("mime_types", "# x\ntext/html html htm\n"), "mime_types:2", "error", "one extension"),
    (file_of("mime_types", "text/html \r\n"), "mime_types:1", "error", "without an extension"),
    (value("scheduler_file", "/nowhere"), "dovmad.conf", "warning", "nothing is scheduled"),
    (file_of("scheduler_file", "a - 61 * * * * /bin/true\n"), "_file:1", "error", "dropped"),
    (file_of("scheduler_file", "a\t-\t1\t*\t*\t*\t*\t/bin/true\n"), "_file:1", "error", "tabs"),
    (file_of("scheduler_file", "a - 1 * * * * /bin/true\n" * 2), "_file:2", "error", "already"),
    (file_of("scheduler_file", "a - 1 * * * * true\n"), "_file:1", "error", "whole path"),
    (file_of("scheduler_file", "a - 1 * * * * /bin/tru\n"), "_file:1", "error", "/bin/tru:"),
    (file_of("scheduler_file", "a - 1 * * * * /bin/sh -c 'date'\n"), "_file:1", "error", "quotes"),
    (file_of("scheduler_file", "a - - - x x x /bin/true\n"), "_file:1", "warning", "never"),
    (value("domain_file", "/nowhere/domain"), "dovmad.conf", "error", "No such file"),
    (link_to_nowhere, "dovmad.conf", "warning", "standalone"),
    (file_of("domain_file", "# hosts\nalpha,1.2.3.4\n"), "domain_file:2", "error", "no host"),
    (in_root("admin/.dovmaaccess", "alice:user\nbob\n"), "dovmaaccess:2", "error", "NAME:user"),
    (in_root("admin/.dovmaaccess", "al:user\0x\n"), "dovmaaccess:1", "error", "zero byte"),
    (in_root("pub/.dovmaaccess", "root2:user\n"), "dovmaaccess:1", "warning", "root"),
    (in_root("admin/.dovmaaccess", "alice:user\nbob:group\nal:user\n"), "dovmaaccess:3",
     "warning", "taken for a name further up"),
    (in_prefix("var/opt/MOLBplxh/.hostguid", "{no-guid}\n"), ".hostguid", "warning", "GUID"),
    (in_prefix("etc/default/plx_resolv.conf", "[a]\nb = c;\n[d\n"), "plx_resolv.conf", "error",
     "syntax"),
]


def test_slips_are_found(make_daemon, tmp_path):
    daemon = make_daemon(start=False, aliases="/t=/tmp")
    good = daemon.config.read_text()
    assert checker(daemon) == (0, "")
    for number, (edit, where, kind, words) in enumerate(SLIPS):
        folder = tmp_path / f"slip{number}"
        folder.mkdir()
        (folder / "d0").symlink_to(daemon.dir)
        daemon.config.write_text(edit(good, folder))
        status, said = checker(daemon)
        line = rf"{re.escape(where)}(:\d+)?: {kind}: .*{words}"
        assert re.search(line, said), (number, words, said)
        assert status == (1 if kind == "error" or ": error: " in said else 0)
        assert checker(daemon, "-q")[1] == "".join(
            row for row in said.splitlines(True) if ": warning: " not in row)
        while made:
            made.pop().unlink()
    assert len(SLIPS) >= 40


def test_how_it_is_called(make_daemon):
    daemon = make_daemon(start=False)
    for args, status in ((["-h"], 0), (["another.conf"], 64), (["--frob"], 64), (["-u", "nobody2"], 64),
                         (["-n", "5x"], 64), (["-n", "0"], 64), (["-n", "99999999"], 64)):
        assert checker(daemon, *args)[0] == status, args
    assert "--next" in checker(daemon, "--help")[1]
    # Where inetd listens nobody's port is in the way.
    good = daemon.config.read_text()
    for mode, words in (("", "in use"), ("inetd_mode 1\n", "")):
        daemon.config.write_text(taken_port(good, None) + mode)
        said = checker(daemon)[1]
        assert ("in use" in said) is bool(words), said
    taken_port.socket.close()


def test_what_the_library_would_refuse(make_daemon):
    """As dovmad-user says it, which sees the same configuration."""
    daemon = make_daemon()
    daemon.stop()
    at = daemon.ca.parent
    assert checker(daemon) == (0, f"{daemon.var}/sec: warning: {at}/initial-password: "
                               "still holds the first password\n")
    (at / "server.key").write_text("garbage")
    assert re.match(f"{daemon.var}/sec: error: {at}/server.key: ", checker(daemon, "-q")[1])
    assert "not looked at: there is no" in checker(daemon, env={"PATH": "/nowhere"})[1]


def test_a_library_that_is_none(make_daemon, tmp_path):
    daemon = make_daemon(start=False)
    library = daemon.home / "lib/libmolbat4L_t.so"
    library.unlink()
    library.write_text("no library\n" * 100)
    assert "invalid ELF header" in checker(daemon)[1]
    library.unlink()
    library.symlink_to(next(Path("/lib").glob("*/libm.so.6")))
    assert "no authentication library" in checker(daemon)[1]


@pytest.mark.skipif(os.getuid() != 0, reason="only root can look as somebody else")
def test_it_looks_as_the_daemons_user(make_daemon):
    daemon = make_daemon(start=False, cgi_extensions=".cgi")
    for folder in [daemon.dir, *daemon.dir.parents][:4]:
        folder.chmod(0o755)
    assert checker(daemon)[0] == 0
    status, said = checker(daemon, "-u", "nobody")
    assert status == 1
    for words in ("error_log .*, as nobody: Permission denied", "nobody may not make it",
                  "pid_file .*, as nobody"):
        assert re.search(words, said), said
    daemon.root.chmod(0o777)
    assert "programs as the daemon" in checker(daemon, "-u", "nobody")[1]
    assert checker(daemon, "-u", "no-such-user")[0] == 64
    assert checker(daemon, "--next", "x")[0] == 64


def test_the_next_runs(make_daemon, tmp_path):
    schedule = tmp_path / "schedule"
    schedule.write_text("hourly - 7 * * * * /bin/true\nyearly - 0 0 29 2 * /bin/true a b\n"
                        "start kickoff - - x x x /bin/date\n")
    daemon = make_daemon(start=False, scheduler_file=schedule)
    status, said = checker(daemon, "--next", "4", env={"TZ": "UTC"})
    rows = said.splitlines()
    assert (status, len(rows)) == (0, 4)
    assert rows[0].endswith(" start: /bin/date")
    base = int(time.time())
    for row in rows[1:]:
        assert re.fullmatch(r"\w{3} \d{4}-\d\d-\d\d \d\d:07 hourly: /bin/true", row)
    hours = [int(row.split()[2][:2]) for row in rows[1:]]
    assert [(hours[0] + i) % 24 for i in range(3)] == hours
    first = time.strptime(rows[1].rsplit(" hourly")[0] + " UTC", "%a %Y-%m-%d %H:%M %Z")
    assert -60 <= __import__("calendar").timegm(first) - base <= 3600


def mutate(text, rng):
    """One slip of the finger: a character more, less, another, or a line lost, doubled, joined."""
    at = rng.randrange(len(text))
    stuff = rng.choice(" \t#,=/0159usx\r\n-")
    lines = text.splitlines(True)
    row = rng.randrange(len(lines))
    word = rng.choice(lines).split(" ", 1)[0]
    return rng.choice((
        text[:at] + text[at + 1:], text[:at] + stuff + text[at:], text[:at] + stuff + text[at + 1:],
        text[:at] + text[at + rng.randrange(2, 12):], "".join(lines[:row] + lines[row + 1:]),
        "".join(lines[:row] + [lines[row].rstrip("\n")] + lines[row + 1:]),
        text + f"{word} {stuff}{rng.choice(['', '1', '/nowhere/x', '70000', 'nobody2'])}\n"))


@pytest.mark.skipif(SANITIZED_BUILD, reason="the same programs, a thousand times slower")
def test_whatever_the_daemon_refuses_the_checker_does(make_daemon, tmp_path):
    daemon = make_daemon(start=False)
    (tmp_path / "types").write_text("text/x-test xyz\n")
    (tmp_path / "schedule").write_text("a - 1 * * * * /bin/true\n")
    good = daemon.config.read_text() + (
        f"mime_types {tmp_path}/types\nscheduler_file {tmp_path}/schedule\nio_buf_size 4096\n"
        f"cgi_extensions .cgi,.pl\nnamespaces ns={tmp_path}\nlist_directories 1\n")
    rng = random.Random(7)
    refused = passed = 0
    for _ in range(1000):
        daemon.config.write_text(mutate(good, rng))
        status, said = checker(daemon, cwd=tmp_path)
        if status != 0:
            refused += 1
            continue
        passed += 1
        with subprocess.Popen([BINARY, str(daemon.config)], env=daemon.env, cwd=tmp_path,
                              stderr=subprocess.PIPE, text=True) as process:
            for line in process.stderr:
                if " started on port" in line:
                    break
            else:
                pytest.fail(f"refused, but not by the checker: {process.wait(30)}: "
                            f"{daemon.config.read_text()}\n{said}")
            process.terminate()
    print(f"{refused} refused, {passed} passed", file=sys.stderr)
    assert refused > 200 and passed > 50
