"""The supplied authentication library inside a running daemon: its files, its users, its TLS."""

import os
import re
import shutil
import socket
import ssl
import subprocess
from pathlib import Path

import pytest
from dovmad_harness import SANITIZED_BUILD, USER_TOOL, Daemon, eventually
from rights_support import Authority, add_user, openssl

ROOT_ONLY = pytest.mark.skipif(os.geteuid() != 0, reason="only root can become somebody else")
HOOK = Path(__file__).parents[2] / "packaging" / "renew-hook"


def log_lines(daemon, *words):
    return [line for line in daemon.error_log.read_text().splitlines()
            if all(word in line for word in words)]


def status(daemon, login, path="/pub/f.txt", **kwargs):
    return daemon.request("GET", path, user=login, **kwargs).status


# --- Changes of accounts ---


@pytest.mark.parametrize("user, earlier", [
    (None, False), pytest.param("nobody", False, marks=ROOT_ONLY),
    pytest.param("nobody", True, marks=ROOT_ONLY)])
def test_accounts_change_at_once_whoever_the_daemon_is(public_folder, user, earlier):
    """A daemon may have given up root's rights; all of an earlier version may have been root's."""
    base, uid = public_folder / "d", 65534 if user else os.geteuid()
    longest = "x" * (42 - len("local\\alice:"))
    if earlier:
        daemon = Daemon(base, auth=True).start()
        daemon.check()
    daemon = Daemon(base, auth=True, runtime_uid=user)
    daemon.write("pub/f.txt", "f")
    for file in (daemon.error_log, daemon.access_log, daemon.pid_file):
        file.touch()
        os.chown(file, uid, -1)
    daemon.start()
    try:
        assert daemon.stderr_text().count("now belong to user 65534") == int(earlier)
        assert len(log_lines(daemon, "now belong to user 65534")) == int(earlier)
        at = daemon.ca.parent
        assert {path.stat().st_uid for path in (at.parent, at, *at.rglob("*"))} == {uid}
        assert status(daemon, f"root:{daemon.password}") == 200
        for command, password, works, refused in (
                ("add", "wonderland", "alice:wonderland", "alice:looking"),
                ("passwd", "looking-glass", "alice:looking-glass", "alice:wonderland"),
                ("lock", None, None, "alice:looking-glass"),
                ("unlock", None, "alice:looking-glass", None),
                ("passwd", longest, f"local\\alice:{longest}", "alice:looking-glass"),
                ("del", None, None, f"alice:{longest}")):
            done = daemon.user_tool(command, "alice", input=password)
            assert done.returncode == 0, done
            assert works is None or status(daemon, works) == 200, command
            assert refused is None or status(daemon, refused) == 401, command
        assert {path.stat().st_uid for path in at.rglob("*")} == {uid}
    finally:
        daemon.check()


# --- Files that are spoilt while the daemon runs ---


def test_refused_files_are_told_and_hurt_nobody(make_daemon):
    daemon = make_daemon(auth=True)
    daemon.write("pub/f.txt", "f")
    at = daemon.ca.parent
    root = f"root:{daemon.password}"
    add_user(daemon, "alice", "wonderland")
    add_user(daemon, "bob", "the-builder")
    certificate, key = daemon.ca.read_bytes(), (at / "server.key").read_bytes()

    def reset():
        reply = daemon.request("POST", "/admin/security/reset", user=root)
        assert (reply.status, reply.text) == (200, "Success\n")

    def told(*words):
        assert eventually(lambda: log_lines(daemon, *words)), (words,
                                                               daemon.error_log.read_text())

    for spoilt in (b"", b"rubbish\0\xff", certificate[:200], certificate[200:], key):
        daemon.ca.write_bytes(spoilt)
        reset()
        daemon.ca.write_bytes(certificate)
        assert status(daemon, root, tls=True) == 200
    told("server.crt: no usable certificate", "kept as they were")
    (at / "server.key").write_bytes(key[:100])
    reset()
    told("server.key: no private key that fits the certificate", "kept as they were")
    assert status(daemon, root, tls=True) == 200
    (at / "server.key").write_bytes(key)

    (at / "domains").write_text("")
    reset()
    told("domains: no line names a domain", "the former ones stay")
    (at / "domains").unlink()
    assert status(daemon, "alice:wonderland") == 200
    told("domains: No such file")
    (at / "domains").write_text("local:password:box\nbroken\x1b[2J\r\n")
    assert status(daemon, root) == 200
    told("bad line skipped: broken\\x1B[2J")

    users = at / "users"
    os.chmod(users / "alice", 0o666)
    (users / "bob").write_bytes(b"bob:\0\xff\r\n" * 100)
    (users / "carol").symlink_to("/dev/zero")
    os.mkfifo(users / "dave")
    (users / "erin").mkdir()
    for login in ("alice:wonderland", "bob:the-builder", "carol:x", "dave:x", "erin:x",
                  "../root:x", "root\0:x", f"root\r\n:{daemon.password[:3]}", "r\"oo't:x", "x" * 33):
        assert status(daemon, login) == 401, login
    told("users/alice: owner", "mode 0666", "nobody logs in by it")
    told("users/bob: no good line for this user")
    for name in ("carol", "dave", "erin"):
        told(f"users/{name}: ")
    assert status(daemon, root) == 200
    assert not re.search(r"[^\n\x20-\x7e]", daemon.error_log.read_text())


# --- TLS as others see it ---


def s_client(daemon, *args, said=b"Q\n", seconds=20):
    """What openssl's client tells of a connection; `said` goes to it once it stands."""
    done = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{daemon.tls_port}",
                           *args], input=said, capture_output=True, timeout=seconds, check=False)
    return (done.stdout + done.stderr).decode("latin-1")


def negotiated(daemon, *args):
    """"TLSv1.3 TLS_AES..." or None when the handshake fails."""
    match = re.search(r"^New, (\S+), Cipher is (\S+)", s_client(daemon, *args), re.M)
    return match and match[2] != "(NONE)" and f"{match[1]} {match[2]}"


def test_offers_the_tls_of_today(make_daemon):
    daemon = make_daemon(auth=True)
    everything = ("-cipher", "ALL:@SECLEVEL=0")
    for version in ("-tls1", "-tls1_1"):
        assert not negotiated(daemon, version, *everything), version
    # With forward secrecy and authenticated encryption, whatever else the client would take.
    for cipher, good in (("ECDHE-ECDSA-AES128-GCM-SHA256", True),
                         ("ECDHE-ECDSA-AES256-GCM-SHA384", True),
                         ("ECDHE-ECDSA-CHACHA20-POLY1305", True),
                         ("ECDHE-ECDSA-AES128-SHA", False), ("ECDHE-ECDSA-AES128-SHA256", False),
                         ("ECDHE-ECDSA-AES128-CCM", False), ("AES128-GCM-SHA256", False),
                         ("DHE-RSA-AES128-GCM-SHA256", False), ("AECDH-AES128-SHA", False),
                         ("ECDHE-ECDSA-NULL-SHA", False)):
        found = negotiated(daemon, "-tls1_2", "-cipher", cipher + ":@SECLEVEL=0")
        assert bool(found) is good, (cipher, found)
    for suite, good in (("TLS_AES_128_GCM_SHA256", True), ("TLS_AES_256_GCM_SHA384", True),
                        ("TLS_CHACHA20_POLY1305_SHA256", True), ("TLS_AES_128_CCM_SHA256", False)):
        assert bool(negotiated(daemon, "-tls1_3", "-ciphersuites", suite)) is good, suite
    for group, good in (("X25519", True), ("P-256", True), ("P-384", True), ("P-521", False),
                        ("X448", False), ("ffdhe2048", False)):
        assert bool(negotiated(daemon, "-tls1_3", "-groups", group)) is good, group
    # Neither renegotiation nor anything to resume, in either version.
    shown = s_client(daemon, "-tls1_2", said=b"R\nGET / HTTP/1.1\r\n\r\n")
    assert "RENEGOTIATING" in shown and "no renegotiation" in shown, shown
    for version in ("-tls1_2", "-tls1_3"):
        shown = s_client(daemon, version, "-reconnect")
        assert shown.count("\nNew, TLSv") == 6 and "Reused" not in shown, shown
        assert "session ticket" not in shown.lower() and "Compression: NONE" in shown
    assert "ALPN protocol: http/1.1" in s_client(daemon, "-alpn", "h2,http/1.1")
    if shutil.which("sslscan"):
        scan = subprocess.run(["sslscan", "--no-colour", f"127.0.0.1:{daemon.tls_port}"], text=True,
                              capture_output=True, timeout=120, check=True).stdout
        assert re.findall(r"(\S+) +enabled", scan) == ["TLSv1.2", "TLSv1.3"], scan
        assert "vulnerable" not in scan.replace("not vulnerable", ""), scan

    (daemon.ca.parent / "tls").write_text("minimum = 1.3\ngroups = P-384\n")
    assert daemon.request("POST", "/admin/security/reset",
                          user=f"root:{daemon.password}").text == "Success\n"
    assert not negotiated(daemon, "-tls1_2")
    assert negotiated(daemon, "-groups", "P-384") and not negotiated(daemon, "-groups", "X25519")


def test_half_handshakes_give_their_memory_back(make_daemon):
    daemon = make_daemon(auth=True)
    assert daemon.request("GET", "/pub/", user=f"root:{daemon.password}", tls=True).status == 404
    hello = None
    with socket.create_server(("127.0.0.1", 0)) as server:
        # A client's first message, recorded from a client that nobody answers.
        client = socket.create_connection(server.getsockname())
        peer = server.accept()[0]
        client.setblocking(False)
        tls = ssl.create_default_context().wrap_socket(client, server_hostname="localhost",
                                                       do_handshake_on_connect=False)
        with pytest.raises(ssl.SSLWantReadError):
            tls.do_handshake()
        hello = peer.recv(4096)
        tls.close()
        peer.close()
    before = daemon.rss_kib()
    waiting = daemon.begin(*[hello] * 800, port=daemon.tls_port)
    for sock in waiting:
        assert sock.recv(1) == b"\x16"  # the server's hello: its half is done
    for sock in waiting:
        sock.close()
    if not SANITIZED_BUILD:
        assert eventually(lambda: daemon.rss_kib() < before + 8000), (before, daemon.rss_kib())


# --- Renewing the certificate ---


def presented(daemon):
    return ssl.get_server_certificate(("127.0.0.1", daemon.tls_port))


def test_a_renewed_certificate_is_served_and_disturbs_nobody(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)
    authority = Authority(tmp_path / "ca", "authority")
    fresh, key = authority.issue("localhost")
    chain = tmp_path / "fullchain.pem"
    chain.write_text(fresh.read_text() + authority.certificate.read_text())
    context = ssl.create_default_context(cafile=str(daemon.ca))
    request = b"GET /world/ HTTP/1.1\r\nHost: localhost\r\n\r\n"
    daemon.write("world/index.html", "hello")
    former = presented(daemon)

    def renew(*args, password=None):
        env = {**daemon.env, "DOVMAD_PASSWORD": password or daemon.password}
        return subprocess.run([USER_TOOL, "-c", daemon.config, "renew", *map(str, args)], env=env,
                              text=True, capture_output=True, timeout=60, check=False)

    def hook():
        """The one that is shipped, as an ACME client runs it."""
        (tmp_path / "bin").mkdir()
        (tmp_path / "bin" / "dovmad-user").symlink_to(USER_TOOL)
        (tmp_path / "password").write_text(daemon.password + "\n")
        (tmp_path / "privkey.pem").write_bytes(key.read_bytes())
        env = {**daemon.env, "PATH": f"{tmp_path}/bin:{os.environ['PATH']}",
               "RENEWED_LINEAGE": str(tmp_path), "DOVMAD_CONFIG": str(daemon.config),
               "DOVMAD_PASSWORD_FILE": str(tmp_path / "password")}
        return subprocess.run([HOOK], env=env, text=True, capture_output=True, timeout=60,
                              check=False)

    with context.wrap_socket(daemon.connect(daemon.tls_port),
                             server_hostname="localhost") as client:
        client.sendall(request)
        assert b"hello" in client.recv(4096)
        for problem, args in (("no usable certificate", (key, key)),
                              ("no private key that fits", (chain, authority.folder / "ca.key")),
                              ("No such file", (tmp_path / "missing", key))):
            done = renew(*args)
            assert done.returncode == 1 and problem in done.stderr, done
        assert "does not accept" in renew(chain, key, password="wrong").stderr
        assert presented(daemon) == former and daemon.ca.read_text() == former
        done = hook()
        assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), done
        assert presented(daemon).strip() in fresh.read_text()
        assert (daemon.ca.parent / "server.key").stat().st_mode & 0o777 == 0o600
        client.sendall(request)
        assert b"hello" in client.recv(4096), "an open connection goes on"
    # Somebody else of the same authority is not the daemon.
    impostor, impostor_key = authority.issue("impostor")
    daemon.stop()
    (daemon.ca.parent / "server.key").write_bytes(impostor_key.read_bytes())
    daemon.ca.write_text(impostor.read_text() + authority.certificate.read_text())
    daemon.start()
    daemon.ca.write_text(chain.read_text())
    done = renew(chain, key)
    assert done.returncode == 1 and "is not the first one of" in done.stderr, done


# --- dovmad-user check ---


def test_check_tells_what_the_daemon_would(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)
    at = daemon.ca.parent

    def check():
        done = subprocess.run([USER_TOOL, "-c", daemon.config, "check"], env=daemon.env, text=True,
                              capture_output=True, timeout=60, check=False)
        assert done.stderr == "" and done.returncode in (0, 1), done
        lines = done.stdout.splitlines()
        assert (done.returncode == 1) == any(line.startswith("error: ") for line in lines), done
        return done.returncode, done.stdout

    assert check() == (0, f"warning: {at}/initial-password: still holds the first password\n")
    assert daemon.user_tool("passwd", "root", input="new-password\n").returncode == 0
    assert check() == (0, "")
    certificate, key = daemon.ca.read_bytes(), (at / "server.key").read_bytes()
    root = (at / "users" / "root").read_bytes()
    authority = Authority(tmp_path / "ca", "authority")
    old = tmp_path / "old.pem"
    (tmp_path / "index").touch()
    (tmp_path / "ca.conf").write_text(
        f"[ca]\ndefault_ca = own\n[own]\ndatabase = {tmp_path}/index\nrand_serial = yes\n"
        f"new_certs_dir = {tmp_path}\npolicy = any\ndefault_md = sha256\n[any]\n"
        "commonName = supplied\n")
    openssl("req", "-new", "-key", at / "server.key", "-out", tmp_path / "csr", "-subj", "/CN=old")
    openssl("ca", "-batch", "-config", tmp_path / "ca.conf", "-selfsign", "-in", tmp_path / "csr",
            "-keyfile", at / "server.key", "-out", old, "-notext", "-startdate", "20200101000000Z",
            "-enddate", "20210101000000Z")
    openssl("req", "-x509", "-days", "9", "-key", at / "server.key", "-out", tmp_path / "soon",
            "-subj", "/CN=soon")
    for file, content, mode, kind, words in (
            ("server.crt", b"rubbish", 0o644, "error", "server.crt: no usable certificate"),
            ("server.crt", old.read_bytes(), 0o644, "error", "server.crt: has expired on"),
            ("server.crt", (tmp_path / "soon").read_bytes(), 0o644, "warning", "within 30 days"),
            ("server.crt", certificate + authority.certificate.read_bytes(), 0o644, "error",
             "certificate 2 has not issued the one before it"),
            ("server.key", (authority.folder / "ca.key").read_bytes(), 0o600, "error",
             "server.key: no private key that fits"),
            ("server.key", key, 0o640, "error", "server.key: others than the owner"),
            ("domains", b"local:password:box\nbad line\n", 0o644, "error", "domains: line 2: not"),
            ("domains", b"a:password:b\na:certificate:b\n", 0o644, "error", "domains: line 2: a"),
            ("domains", b"# none\n", 0o644, "error", "no line names a domain"),
            ("domains", b"a:certificate:b\n", 0o644, "warning", "no password domain"),
            ("tls", b"minimum = 1.0\n", 0o644, "error", "tls: line 1: neither"),
            ("tls", b"groups = X25519:nonsense\n", 0o644, "error", "unknown group"),
            ("locked_certificates", b"alice\na b\n", 0o644, "error", "line 2: neither a common"),
            ("locked_certificates", b"alice\n", 0o644, "warning", "of no use without client_ca"),
            ("client_crl.pem", b"", 0o644, "error", "client_crl.pem: no revocation list"),
            ("client_ca.pem", b"half", 0o644, "error", "client_ca.pem: no certificate"),
            ("users/root", root, 0o640, "error", "users/root: mode 0640"),
            ("users/root", b"root:$6$salt$x\0\n", 0o600, "error", "users/root: no line NAME:HASH"),
            ("users/a b", b"", 0o600, "warning", "no user can have this name"),
            ("users/.dovmad-user.new", b"", 0o600, "warning", "left by a dovmad-user"),
            ("users/link", None, None, "warning", "users/link: is a symbolic link")):
        path = at / file
        before = (path.read_bytes(), path.stat().st_mode) if path.exists() else None
        if content is None:
            path.symlink_to("root")
        else:
            path.write_bytes(content)
            path.chmod(mode)
        result, text = check()
        assert re.search(f"^{kind}: .*{re.escape(words)}", text, re.M), (file, text)
        assert result == 1 or kind == "warning"
        path.unlink()
        if before:
            path.write_bytes(before[0])
            path.chmod(before[1])
    for folder in (at.parent, at, at / "users"):
        folder.chmod(0o777)
        assert f"error: {folder}: mode 0777" in check()[1]
        folder.chmod(0o700)
    configuration = daemon.config.read_text()
    for user, said in (("none", "error: .*no such user"), ("daemon", "warning: .*will be daemon")):
        daemon.config.write_text(f"{configuration}runtime_uid {user}\n")
        assert re.match(said, check()[1])
    daemon.config.write_text(configuration)
    if os.geteuid() == 0:
        os.chown(at / "users", 12345, -1)
        assert "users: belongs to user 12345, neither to root" in check()[1]
    shutil.rmtree(at / "users")
    assert "users: No such file" in check()[1]
    assert "No such file" in daemon.user_tool("-d", tmp_path / "nowhere", "check").stderr
    (at / "users").mkdir(mode=0o700)
