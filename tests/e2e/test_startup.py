"""The daemon's process: command line, configuration, start-up failures with their exact texts and
exit codes, detaching, inetd mode, users, descriptors, and the ways it ends."""

import os
import pwd
import re
import resource
import signal
import socket
import ssl
import subprocess
from pathlib import Path

import pytest
from dovmad_harness import (BINARY, eventually, free_port, inetd_session,
                            start_daemon_expecting_failure)

KEYWORDS = """d document_root directory|Web root directory
i index_files file_list|Index files
p listen_ports ports|Listening ports
D list_directories 0|1|Directory listing
c cgi_extensions ext_list|CGI extensions
C cgi_interpreter file|CGI interpreter
V cgi_envvar X=Y,....|CGI envir variables
S ssi_extensions ext_list|SSI extensions
N auth_realm auth_realm|Authentication realm
l access_log file|Access log file
e error_log file|Error log file
x pid_file file|Pid file
P domain_file file|Domain file
m mime_types file|Mime types file
s zel_home directory|Enable MOLB AT
Q var_dir directory|Var Directory
U put_auth file|PUT,DELETE auth file
a aliases X=Y,...|Aliases
n namespaces X=Y,...|Namespaces
b io_buf_size bytes|IO buffer size
I inetd_mode 0|1|Inetd mode
X daemon_mode 0|1|Daemon mode
A noauth 0|1|No Authentication mode
u runtime_uid user_name|Run as user
s scheduler_file file|Scheduler file"""


def run(*args, **kwargs):
    return subprocess.run([BINARY, *map(str, args)], capture_output=True, text=True, timeout=60,
                          check=False, **kwargs)


def has_pid(daemon):
    """The daemon has written its pid file."""
    return eventually(lambda: daemon.pid_file.exists() and daemon.pid_file.read_text())


def status_of(pid):
    """The lines of /proc/PID/status, empty when the process is gone or a zombie."""
    try:
        text = Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return {}
    fields = dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)
    return {} if fields["State"].startswith("Z") else fields


# --- Command line ---

def test_version_and_usage():
    version = run("-v")
    assert (version.returncode, version.stdout, version.stderr) == (
        0, "dovmad version: 2.1.213.0 \n", "")
    expected = (f"DOVMAD version 1.0\nusage: {BINARY} [OPTIONS] [config_file]\n"
                "Note: config line keyword for every option is in the round brackets\n"
                "-A <htpasswd_file> <realm> <user> <passwd>\n")
    for row in KEYWORDS.splitlines():
        letter, keyword, rest = row.split(" ", 2)
        argument, description = rest.rsplit("|", 1)
        expected += f"-{letter} <{argument}>\t\t{description} ({keyword})\n"
    for args in (["-v", "x"], ["-version", "/some/file.conf"]):
        usage = run(*args)
        assert (usage.returncode, usage.stdout, usage.stderr) == (1, "", expected)


@pytest.mark.parametrize("args, read", [
    ([], "default"), (["{file}"], "file"), (["-p", "8080", "{file}"], "file"),
    (["-d", "{file}"], "default"), (["{file}", "-d"], "default"),
    (["x", "-X", "/srv", "{file}"], "file"),
])
def test_which_file_is_read(make_daemon, args, read):
    daemon = make_daemon(start=False)
    named = daemon.dir / "named.conf"
    default = daemon.prefix / "etc/opt/MOLBplxh/dovmad.conf"
    for name, path in (("default", default), ("file", named)):
        daemon.write(path, daemon.config.read_text() if read == name else "wrong 1\n")
    daemon.args = [arg.format(file=named) for arg in args]
    daemon.start()
    assert daemon.request("GET", "/world/ping").status == 200


# --- Start-up failures ---

def test_fatal_starts(tmp_path):
    (tmp_path / "var").mkdir()
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        cases = [
            ({"config_text": "foo 1\n"}, 1, "set_option: unknown variable [foo]\n"),
            ({"error_log": tmp_path}, 1, f"cannot open log file {tmp_path}: Is a directory\n"),
            ({"config_text": ""}, -signal.SIGABRT, "zel home dir not specified\n"),
            ({"args": ["/no/such.conf"]}, -signal.SIGABRT,
             "no configuration file /no/such.conf\nzel home dir not specified\n"),
            ({"zel_home": "/no"}, -signal.SIGABRT,
             "/no/lib/libmolbat4L_t.so: cannot open shared object file: No such file or directory\n"
             "Error initializing MOLB AT24598\n"),
            ({"listen_ports": f"{port}u"}, 1,
             f"open_listening_port({port}): Address already in use\ncannot open port {port}\n"),
            ({"listen_ports": f"{free_port()}s"}, 1,
             "cannot add SSL socket, please specify certificate file\n"),
            *(({"listen_ports": f"{free_port()}u, {entry}", "var_dir": tmp_path / "var"}, 1,
               f"Cannot open socket on port {entry}\n")
              for entry in ("70000u", "0u", "abc", "127.0.0.1:5634", "0x5346u", "5634U", "-5634u",
                            "21316u;21317u", "21316u 21317u", "u", "99999999999999999999")),
            ({"listen_ports": ", ,"}, 1, "listen_ports [, ,] names no port\n"),
            ({"runtime_uid": "nobody-is-so-named"}, 1, "main: unknown user [nobody-is-so-named]\n"),
            ({"pid_file": "/no/such/dir/pid"}, 1, "Cannot open /no/such/dir/pid\n"),
        ]
        for number, (options, status, text) in enumerate(cases):
            end, errors = start_daemon_expecting_failure(tmp_path / str(number), **options)
            assert (end, errors[-len(text):]) == (status, text)
            assert "started on port" not in errors


def test_starts_that_go_on_with_a_word(make_daemon, tmp_path):
    (tmp_path / "file").write_text("")
    (tmp_path / "link").symlink_to("nowhere")
    for options, text in [
        ({"document_root": tmp_path / "no"},
         f"document_root {tmp_path}/no: No such file or directory\n"),
        ({"document_root": tmp_path / "file"}, f"document_root {tmp_path}/file is no directory\n"),
        ({"domain_file": tmp_path / "link"},
         f"domain_file {tmp_path}/link: No such file or directory: standalone mode\n"),
        ({"scheduler_file": "/no/sched"}, "scheduler_file /no/sched: No such file or directory\n"),
        ({"pid_file": "/dev/full"}, "Cannot write /dev/full: No space left on device\n"),
    ]:
        daemon = make_daemon(slips=True, **options)
        assert daemon.request("GET", "/world/ping").status == 200
        assert text in daemon.stderr_text()
    assert Path("/dev/full").is_char_device()


def test_a_pid_file_that_can_not_be_written_is_removed(make_daemon):
    daemon = make_daemon()
    daemon.stop()
    daemon.pid_file.unlink()
    # No file may grow, so standard error must be none.
    process = subprocess.Popen(
        [BINARY, *daemon.args], env=daemon.env, stderr=subprocess.PIPE,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
    assert eventually(lambda: b"started on port" in os.read(process.stderr.fileno(), 4096))
    process.terminate()
    assert process.wait(30) == 0
    assert not daemon.pid_file.exists()


def test_a_start_where_loopback_is_down(make_daemon):
    daemon = make_daemon(start=False)
    apart = ["unshare", "-rn"]
    if subprocess.run([*apart, "true"], check=False, capture_output=True).returncode != 0:
        pytest.skip("this machine makes no network namespaces")
    process = subprocess.Popen([*apart, BINARY, *daemon.args], env=daemon.env,
                               stderr=subprocess.PIPE, text=True)
    try:
        assert any("started on port" in line for line in process.stderr)
    finally:
        process.terminate()
        assert process.wait(30) == 0


# --- Running ---

def test_every_keyword_is_taken_and_acts(make_daemon, tmp_path):
    other = tmp_path / "other"
    (tmp_path / "types").write_text("text/x-test xyz\n")
    (tmp_path / "sched").write_text("")
    daemon = make_daemon(
        start=False, index_files="start.xyz", list_directories=0, cgi_extensions=".run",
        cgi_interpreter="/bin/sh", cgi_envvar="COLOUR=blue", ssi_extensions=".inc",
        auth_realm="ignored", domain_file=tmp_path / "domain", mime_types=tmp_path / "types",
        put_auth="/unused", aliases=f"/other={other}", namespaces=f"ns={other}", io_buf_size=4096,
        inetd_mode=0, daemon_mode=1, runtime_uid=pwd.getpwuid(os.getuid()).pw_name,
        scheduler_file=tmp_path / "sched", env={"IPV6_TRACEFILE": str(tmp_path / "trace")})
    used = {line.split()[0] for line in daemon.config.read_text().splitlines()}
    assert used == {row.split()[1] for row in KEYWORDS.splitlines()}
    for name, text in (("start.xyz", "index"), ("sub/x", ""), (other / "a.txt", "aliased"),
                       ("x.inc", '[<!--#exec "echo hi" -->]'),
                       ("x.run", 'printf "Content-Type: text/plain\\n\\n$COLOUR"\n')):
        daemon.write(name, text)
    daemon.start()
    index = daemon.request("GET", "/")
    assert (index.body, index.header("Content-Type")) == (b"index", "text/x-test")
    assert daemon.request("GET", "/sub/").status == 403
    assert daemon.request("GET", "/other/a.txt").body == b"aliased"
    assert daemon.request("GET", "/ns/a.txt").body == b"aliased"
    assert daemon.request("GET", "/x.run").raw.endswith(b"\n\nblue")
    assert daemon.request("GET", "/x.inc").raw.endswith(b"[hi\n]")
    assert b'"DOMAIN_MODE" : "TRUE"' in daemon.request("GET", "/world/getvitals").body
    assert daemon.pid_file.read_text() == f"{daemon.pid}\n"
    started = (f"dovmad 2.1.213.0 started on port(s) {daemon.tls_port},{daemon.port}u, "
               f"serving {daemon.root}\n")
    assert started in daemon.stderr_text()
    trace = (tmp_path / "trace").read_text()
    assert f"v6listen: Listen successfull on {daemon.port} port for ipv4\n" in trace
    assert re.search(r"v6init: This is (dual IP|a dual stack|a pure ipv4) machine\n", trace)
    limits = Path(f"/proc/{daemon.pid}/limits").read_text()
    assert re.search(r"Max open files +4096 +4096 ", limits)


def test_closed_standard_descriptors_are_never_reused(make_daemon):
    daemon = make_daemon(start=False)
    process = subprocess.Popen(["sh", "-c", 'exec "$0" "$1" <&- >&- 2>&-', BINARY, daemon.config],
                               env=daemon.env)
    try:
        assert has_pid(daemon)
        assert daemon.request("GET", "/world/ping").status == 200
        for fd in range(3):
            assert os.readlink(f"/proc/{process.pid}/fd/{fd}") == "/dev/null"
    finally:
        process.terminate()
        assert process.wait(30) == 0


def test_detached(make_daemon):
    daemon = make_daemon(start=False, pid_file=None)
    daemon.pid_file = daemon.prefix / "var/opt/MOLBdovma/dovmad.pid"  # the default
    daemon.pid_file.parent.mkdir(parents=True)
    daemon.args = ["-X", "-d", "x", daemon.config]
    parent = subprocess.run([BINARY, *map(str, daemon.args)], env=daemon.env, timeout=60,
                            check=False, capture_output=True)
    assert (parent.returncode, parent.stdout, parent.stderr) == (0, b"", b"")
    assert has_pid(daemon)
    pid = int(daemon.pid_file.read_text())
    try:
        assert daemon.request("GET", "/world/ping").status == 200
        fields = status_of(pid)
        assert fields["Umask"] == "0027"
        assert os.getsid(pid) == pid
        for fd in range(3):
            assert os.readlink(f"/proc/{pid}/fd/{fd}") == "/dev/null"
        os.kill(pid, signal.SIGHUP)
        assert daemon.request("GET", "/world/ping").status == 200
    finally:
        os.kill(pid, signal.SIGTERM)
        assert eventually(lambda: not status_of(pid))


@pytest.mark.skipif(os.getuid() != 0, reason="only root can become somebody else")
def test_runs_as_an_unprivileged_user(make_daemon, public_folder):
    nobody = pwd.getpwnam("nobody")
    pid_file, kept = public_folder / "pid", public_folder / "kept"
    daemon = make_daemon(slips=True, runtime_uid="nobody", pid_file=pid_file,
                         document_root=public_folder)
    kept.write_text("kept open")
    assert daemon.request("GET", "/kept").text == "kept open"
    kept.chmod(0)
    assert daemon.request("GET", "/kept").status == 500
    fields = status_of(daemon.pid)
    assert fields["Uid"].split() == [str(nobody.pw_uid)] * 4
    assert fields["Gid"].split() == [str(nobody.pw_gid)] * 4
    assert fields["Groups"].split() == [str(nobody.pw_gid)]
    assert pid_file.stat().st_uid == nobody.pw_uid
    daemon.stop()


# --- Inetd mode ---

def test_inetd_mode_never_talks_to_its_client_but_in_replies(make_daemon):
    """Not even at its first use, with the socket on all three standard descriptors."""
    daemon = make_daemon(start=False, inetd_mode=1, io_buf_size=10, document_root="/no")
    received = inetd_session(daemon, b"GET /world/ping HTTP/1.1\r\n\r\n", errors_too=True)
    assert (received, received.end) == (b"HTTP/1.1 200 OK\r\n\r\n", "closed")


def test_inetd_mode_serves_one_request(make_daemon):
    daemon = make_daemon(start=False, inetd_mode=1)
    daemon.write("a.txt", "hello")
    assert inetd_session(daemon, b"FOO / HTTP/1.1\r\n\r\n", hang_up=True) == b""
    received = inetd_session(
        daemon, b"HEAD /a.txt HTTP/1.1\r\n\r\nGET /a.txt HTTP/1.1\r\n\r\n")
    assert received.startswith(b"HTTP/1.1 200 OK\r\n")
    assert received.count(b"HTTP/1.1 ") == 1
    assert not daemon.pid_file.exists()
    assert re.match(r'- - - \[.*\] "HEAD /a.txt HTTP/1.1 op=unknown from=- namespace=plx" 200 0 - -\n',
                    daemon.access_log.read_text())


# --- The end ---

@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_statistics_when_a_signal_ends_it(make_daemon, sig):
    daemon = make_daemon()
    body = b"x" * 1572864
    assert daemon.request("PUT", "/file", body=body).status == 201
    assert daemon.request("GET", "/file").body == body
    assert daemon.stop(sig) == 0
    # The harness has made one connection of its own.
    last = daemon.stderr_text().splitlines()[-1]
    assert last == f"3 requests 1.00 Mb in 1.50 Mb out. Exit on signal {int(sig)}"


# --- Brokers ---

def certificate_for(daemon, name):
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    with context.wrap_socket(daemon.connect(daemon.tls_port), server_hostname=name) as sock:
        return sock.getpeercert(binary_form=True)


def test_a_broker_answers_with_its_own_certificate(make_daemon):
    broker = make_daemon(auth=True)
    broker.stop()
    daemon = make_daemon(auth=True, start=False)
    data = f'zel_data_dir = "{broker.var}/sec";\n'
    text = (f"[other]\nprimary_broker = other.test;\n[one]\nprimary_broker = broker.test;\n{data}"
            f"[twice]\nprimary_broker = broker.test;\nzel_data_dir = /nowhere;\n"
            f'[uri]\nprimary_broker = "kpr://b.test:7/local/root";\n{data}'
            "[gone]\nprimary_broker = gone.test;\nzel_data_dir = /nowhere;\n")
    resolver = daemon.write("etc/default/plx_resolv.conf", text, base=daemon.prefix)
    daemon.start()
    own, theirs = (ssl.PEM_cert_to_DER_cert(d.ca.read_text()) for d in (daemon, broker))
    assert own != theirs
    for name, expected in [("localhostx", own), ("other.test", own), ("gone.test", own),
                           ("unknown.test", own), ("broker.test", theirs)]:
        assert certificate_for(daemon, name) == expected, name
    resolver.write_text("[one\n")
    assert certificate_for(daemon, "broker.test") == theirs  # remembered
    for _ in range(2):
        assert daemon.post("/admin/security/cleanup", {"sec_uri": "broker.test"},
                           user=f"root:{daemon.password}").text == "Success\n"
        assert certificate_for(daemon, "broker.test") == own  # forgotten
        assert daemon.error_log.read_text().count("dropped the credential of broker broker") == 1
    assert certificate_for(daemon, "gone.test") == own
    assert f"Syntax error in {resolver}\n" in daemon.stderr_text()
    resolver.write_text(f'[domains]\nz = "";\n{text}[z]\nprimary_broker = z.test;\n{data}')
    assert certificate_for(daemon, "z.test") == theirs
