"""dovmad-user: accounts and rights, in the files and through a running daemon."""

import ctypes
import json
import os
import pty
import random
import re
import socket
import subprocess

import pytest
from dovmad_harness import USER_TOOL
from rights_support import ROLES, Authority, add_user, full_name, make_role_folders

USAGE = 64


def run_tool(config, *args, input=None, **env):
    environment = {k: v for k, v in os.environ.items()
                   if k not in ("ZEL_DATA_DIR", "DOVMAD_USER", "DOVMAD_PASSWORD")}
    return subprocess.run([USER_TOOL, "-c", config, *args], input=input, text=True, timeout=60,
                          capture_output=True, check=False, env={**environment, **env})


def good(done):
    assert done.returncode == 0, done
    assert all(line.startswith("dovmad-user: warning: ") for line in done.stderr.splitlines()), done
    return done.stdout


def bad(done):
    assert done.returncode == 1 and done.stderr.startswith("dovmad-user: "), done
    assert "Sanitizer" not in done.stderr and "granted" not in done.stdout, done
    return done.stderr


class Site:
    """A data directory and a configuration file, made by hand."""

    def __init__(self, base):
        self.base = base
        self.data = base / "var" / "sec"
        self.at = self.data / "dovmad-at"
        self.root = base / "root"
        self.other = base / "other"
        (self.at / "users").mkdir(parents=True)
        (self.at / "domains").write_text("local:password:box\ncert:certificate:box\n")
        for folder in (self.root, self.other):
            make_role_folders(folder)
        self.config = base / "dovmad.conf"
        self.config.write_text(
            f"\0\n# comment\ndocument_root {self.root}# the value ends here\nvar_dir {base}/var\n"
            f"pid_file {base}/pid\nnamespaces ns={self.other}, broken,plx2={self.other}\n")

    def good(self, *args, **kwargs):
        return good(run_tool(self.config, *args, **kwargs))

    def bad(self, *args, **kwargs):
        return bad(run_tool(self.config, *args, **kwargs))

    def user(self, name):
        return (self.at / "users" / name).read_text()

    def access(self, role, root=None):
        path = (root or self.root) / role / ".dovmaaccess"
        return path.read_text() if path.exists() else None


@pytest.fixture(name="site")
def site_fixture(tmp_path):
    return Site(tmp_path)


# --- Accounts ---


def fits(password, hashed):
    """Whether the C library agrees that the hash is the password's."""
    library = ctypes.CDLL("libcrypt.so.1")
    library.crypt.restype = ctypes.c_char_p
    return library.crypt(password.encode(), hashed.encode()) == hashed.encode()


def test_life_of_a_user(site):
    site.good("add", "alice", input="wonderland\n")
    path = site.at / "users" / "alice"
    name, hashed = path.read_text().rstrip("\n").split(":")
    assert name == "alice" and hashed.startswith("$y$")
    assert fits("wonderland", hashed)
    assert path.stat().st_mode & 0o7777 == 0o600
    site.good("add", "-o", "bob", input="no line end")
    assert site.good("list") == "alice\talice@local.box\tactive\nbob\tbob\tactive\n"

    site.good("passwd", "bob", input="was-changed\r\nmore\n")
    name, hashed, options = site.user("bob").rstrip("\n").split(":")
    assert fits("was-changed", hashed) and options == "os"
    site.good("lock", "bob")
    assert site.user("bob") == f"bob:{hashed}:os,off\n"
    assert site.good("list").endswith("bob\tbob\tlocked\n")
    site.good("unlock", "bob")
    assert site.user("bob") == f"bob:{hashed}:os\n"
    site.good("del", "alice")
    assert site.good("list") == "bob\tbob\tactive\n"
    assert [entry.name for entry in (site.at / "users").iterdir()] == ["bob"]


def test_refuses_what_could_never_log_in(site):
    longest = 42 - len("local\\alice:")
    assert f"leaves {longest} " in site.bad("add", "alice", input="x" * (longest + 1))
    assert "empty" in site.bad("add", "alice", input="\n")
    for password in ("", "a\0b\n", "x" * 5000):
        assert "no password" in site.bad("add", "alice", input=password)
    for name in ("a{b", "a[b", "{", "a:b", "", "-a", "a b", "a/b", "..", "a\nb", "ä", "x" * 33):
        assert "a user name begins" in site.bad("add", "--", name, input="password\n"), name
    for name in ("r", "roo", "Root", "RO"):
        assert "for root" in site.bad("add", "-o", name, input="password\n")
    assert list((site.at / "users").iterdir()) == []
    site.good("add", "_svc_a.b-c", input="password\n")
    site.good("del", "_svc_a.b-c")
    site.good("add", "alice", input="x" * longest)
    assert "exists" in site.bad("add", "alice", input="password\n")
    for command in ("passwd", "del", "lock", "unlock"):
        assert "no such user" in site.bad(command, "carol", input="password\n")
        assert "a user name begins" in site.bad(command, "a:b", input="password\n")
    (site.at / "users" / "dave").write_text("dave:nonsense\n")
    assert "no line" in site.bad("lock", "dave")
    assert site.good("list").endswith("dave\t-\tunusable\n")


def test_wrong_usage(site):
    for args in ((), ("frobnicate",), ("add",), ("add", "a", "b"), ("list", "x"), ("--frob",),
                 ("grant", "alice"), ("grant", "alice", "boss"), ("grant", "alice", "op"),
                 ("deny", "a:b", "pub"), ("grant", "a\nb", "pub"), ("grant", "", "pub"),
                 ("rights", "x" * 128), ("-c",)):
        done = run_tool(site.config, *args)
        assert (done.returncode, done.stdout) == (USAGE, "") and done.stderr, args
    usage = site.good("--help")
    for word in ("add", "passwd", "del", "list", "lock", "unlock", "grant", "deny", "rights"):
        assert re.search(rf"\b{word}\b", usage)


def test_finds_the_data_directory(site, tmp_path):
    (site.at / "users" / "here").write_text("here:nonsense\n")
    second = Site(tmp_path / "second")
    (second.at / "users" / "there").write_text("there:nonsense\n")
    assert "here" in site.good("list")
    assert "there" in site.good("list", ZEL_DATA_DIR=str(second.data))
    assert "here" in site.good("-d", site.data, "list", ZEL_DATA_DIR=str(second.data))
    (tmp_path / "link").symlink_to("second/var/sec")
    (tmp_path / "far").symlink_to(tmp_path / "link")
    assert "there" in site.good("-d", f"{tmp_path}/./far", "list")
    assert "not set up" in site.bad("-d", tmp_path / "nowhere", "list")
    assert "missing.conf" in site.bad("-c", tmp_path / "missing.conf", "list")


# --- Files of others ---

ROOT_ONLY = pytest.mark.skipif(os.geteuid() != 0, reason="only root can be somebody else")
NOBODY = 65534


@pytest.fixture(name="their_site")
def their_site_fixture(public_folder):
    """Everything belongs to the daemon's user, who can reach it."""
    site = Site(public_folder / "s")
    for path in (site.base, *site.base.rglob("*")):
        os.chown(path, NOBODY, NOBODY)
    return site


@ROOT_ONLY
def test_files_belong_to_the_owner_of_their_folder(their_site, site):
    their_site.good("add", "alice", input="password\n")
    their_site.good("passwd", "alice", input="another-one\n")
    their_site.good("grant", "alice", "agent")
    for path in (their_site.at / "users" / "alice", their_site.root / "agent" / ".dovmaaccess"):
        status = path.stat()
        assert (status.st_uid, status.st_gid) == (NOBODY, NOBODY)
    assert (their_site.at / "users" / "alice").stat().st_mode & 0o777 == 0o600
    # In a folder of root's a file keeps the owner that it has.
    site.good("add", "alice", input="password\n")
    path = site.at / "users" / "alice"
    os.chown(path, 1, 1)
    site.good("passwd", "alice", input="another-one\n")
    assert (path.stat().st_uid, path.stat().st_gid, path.stat().st_mode & 0o777) == (1, 1, 0o600)


@ROOT_ONLY
@pytest.mark.parametrize("where", ["users", "dovmad-at", "sec", "role", "file", "outer", "drop"])
def test_root_follows_no_link_of_somebody_else(their_site, tmp_path, where):
    """The daemon's user has laid a link where root is going to write."""
    target = tmp_path / "of-root"
    (target / "dovmad-at" / "users").mkdir(parents=True)
    (target / "users").mkdir()
    for folder in (target, target / "dovmad-at"):
        (folder / "domains").write_text("local:password:box\n")
    victim = target / "victim"
    victim.write_text("precious\n")
    before = {path: path.stat() for path in (target, *target.rglob("*"))}
    place = {"users": their_site.at / "users", "dovmad-at": their_site.at, "sec": their_site.data,
             "role": their_site.root / "agent", "file": their_site.root / "agent" / ".dovmaaccess",
             "outer": their_site.data.parent, "drop": their_site.base / "drop" / "box"}[where]
    if where == "drop":  # a folder of root's in which everybody may put something, like /tmp
        place.parent.mkdir()
        place.parent.chmod(0o1777)
        os.chown(their_site.base, 0, 0)
    os.rename(place, str(place) + ".moved") if place.exists() else None
    place.symlink_to({"users": target / "users", "file": victim}.get(where, target))
    os.chown(place, NOBODY, NOBODY, follow_symlinks=False)
    os.chmod(tmp_path, 0o755)
    if where in ("role", "file"):
        bad(run_tool(their_site.config, "grant", "mallory", "agent"))
        bad(run_tool(their_site.config, "-g", "grant", "mallory", "agent"))
    else:
        args = ("-d", place) if where == "drop" else ()
        done = run_tool(their_site.config, *args, "add", "mallory", input="password\n")
        assert done.returncode == 1, done
    after = {path: path.stat() for path in (target, *target.rglob("*"))}
    assert {p: (s.st_ino, s.st_mtime_ns) for p, s in after.items()} == \
        {p: (s.st_ino, s.st_mtime_ns) for p, s in before.items()}
    assert victim.read_text() == "precious\n"


def on_terminal(site, answers, *args):
    """Runs the tool on a terminal of its own: (status, everything shown). An answer that is a
    function is what it returns when the question stands."""
    master, slave = pty.openpty()
    with os.fdopen(master, "r+b", buffering=0) as terminal:
        process = subprocess.Popen([USER_TOOL, "-c", str(site.config), *args], stdin=slave,
                                   stdout=slave, stderr=slave)
        os.close(slave)
        shown = b""
        for answer in answers:
            while not shown.endswith(b": "):
                shown += terminal.read(4096)
            shown += b"|"
            terminal.write(answer() if callable(answer) else answer)
        try:
            while piece := terminal.read(4096):
                shown += piece
        except OSError:
            pass  # the tool has ended
        return process.wait(30), shown.decode()


def test_asks_twice_without_echo(site):
    status, shown = on_terminal(site, [b"wonderland\n", b"wonderland\n"], "add", "alice")
    assert status == 0, shown
    assert "wonderland" not in shown and shown.count("|") == 2
    before = site.user("alice")
    assert fits("wonderland", before.rstrip("\n").split(":")[1])
    for second, problem in ((b"something-else\n", "differ"), (b"\x03", "no password")):
        status, shown = on_terminal(site, [b"another-one\n", second], "passwd", "alice")
        assert status == 1 and problem in shown
    assert site.user("alice") == before


# --- Rights without a daemon ---


def test_changes_access_files(site):
    site.good("add", "alice", input="password\n")
    alice = "alice@local.box"
    assert site.good("grant", "alice", "operator") == \
        f"{alice}: granted operator in namespace plx\n"
    site.good("grant", "alice", "admin", "ns")
    assert site.access("operator") == site.access("admin", site.other) == f"{alice}:user\n"
    site.good("deny", "alice", "admin", "ns")
    assert site.access("operator") != "" and site.access("admin", site.other) == ""
    for action in ("grant", "deny"):
        assert "built in" in site.good(action, "rootx", "agent")
    for unknown in ("nowhere", "broken", "n", ""):
        assert "not in" in site.bad("grant", "alice", "admin", unknown)
    (site.root / "agent" / ".dovmaaccess").mkdir()
    for name in ("carol", "roo"):  # the latter is taken for root, who holds everything
        assert "agent" in site.bad("grant", name, "agent")
    assert "cannot be read" in site.bad("rights", "carol")


def test_shows_rights(site):
    (site.root / "operator" / ".dovmaaccess").write_text("daemon:group\nbob:user\nno colon\n")
    (site.other / "agent" / ".dovmaaccess").write_text("BOB@x:user\n")
    (site.other / "admin" / ".dovmaaccess").write_text("carol:user\n")

    def held(name, *options):
        rows = [line.split("\t") for line in site.good(*options, "rights", name).splitlines()]
        assert [tuple(row[:2]) for row in rows] == [
            (ns, role) for ns in ("ns", "plx2", "plx") for role in ROLES]
        return {f"{ns} {role}": answer for ns, role, answer in rows if answer != "no"}

    everywhere = {f"{ns} pub": "yes" for ns in ("ns", "plx2", "plx")}
    assert held("nobody-at-all") == everywhere
    assert held("bob") == {**everywhere, "plx operator": "yes", "ns agent": "yes",
                           "plx2 agent": "yes"}
    assert held("carol") == {**{f"{ns} {role}": "yes" for ns in ("ns", "plx2") for role in ROLES},
                             "plx pub": "yes"}
    assert len(held("root")) == 12
    assert held("daemon") == {**everywhere, "plx operator": "yes (group daemon)"}
    assert held("daemon", "-g") == {"plx operator": "yes", "plx pub": "yes"}


def test_a_dead_daemon_does_not_count(site):
    gone = subprocess.Popen(["true"])
    gone.wait()
    pid_file = site.base / "pid"
    for content in (str(gone.pid), "0", "-1", "rubbish", ""):
        pid_file.write_text(content + "\n")
        site.good("grant", "bob", "agent")
        site.good("deny", "bob", "agent")
    # A living process under its number, but nobody on the ports, of which one is none.
    pid_file.write_text(f"{os.getpid()}\n")
    with socket.create_server(("127.0.0.1", 0)) as stranger:
        with open(site.config, "a", encoding="ascii") as config:
            config.write(f"listen_ports 1u,1,{stranger.getsockname()[1] + 65536}u\n")
        site.good("grant", "bob", "agent")
    assert site.access("agent") == "bob:user\n"


# --- Rights through a running daemon ---


def as_root(daemon, *args, **env):
    return run_tool(daemon.config, *args, **{"DOVMAD_PASSWORD": daemon.password, **env})


@pytest.mark.parametrize("tls", [True, False])
def test_asks_a_running_daemon(make_daemon, tmp_path, tls):
    roots = {name: tmp_path / name for name in ("ns", "late")}
    daemon = make_daemon(start=False, auth=True, namespaces=f"ns={roots['ns']}")
    for root in (daemon.root, *roots.values()):
        make_role_folders(root)
    if not tls:
        daemon.config.write_text(re.sub("listen_ports .*", f"listen_ports {daemon.port}u",
                                        daemon.config.read_text()))
    daemon.start()
    add_user(daemon, "alice", "wonderland")
    alice = full_name(daemon, "alice")

    def may(role, prefix=""):
        reply = daemon.request("GET", f"{prefix}/{role}/f.txt", user="alice:wonderland", tls=tls)
        return reply.status == 200

    assert not may("operator")
    assert good(as_root(daemon, "grant", "alice", "operator")) == \
        f"{alice}: granted operator in namespace plx\n"
    assert may("operator") and not may("operator", "/ns") and not may("admin")
    good(as_root(daemon, "grant", "alice", "agent", "ns"))
    assert may("agent", "/ns") and not may("agent")
    assert (roots["ns"] / "agent" / ".dovmaaccess").read_text() == f"{alice}:user\n"
    good(as_root(daemon, "deny", "alice", "operator"))
    assert not may("operator")

    # A namespace that the configuration file does not have: the daemon may.
    assert "no such namespace" in bad(as_root(daemon, "grant", "alice", "operator", "late"))
    assert not may("operator"), "the default namespace was meant by nobody"
    assert daemon.post("/admin/dovmad/config/namespace/add",
                       {"namespace": "late", "document_root": roots["late"]}, tls=tls,
                       user="root:" + daemon.password).status == 200
    assert good(as_root(daemon, "grant", "alice", "operator", "late")) == \
        f"{alice}: granted operator in namespace late\n"
    assert may("operator", "/late") and not may("operator")
    good(as_root(daemon, "deny", "alice", "operator", "late"))
    assert not may("operator", "/late")
    assert "not in" in bad(as_root(daemon, "grant", "alice", "operator", "la te"))

    assert "does not accept" in bad(as_root(daemon, "grant", "alice", "admin",
                                            DOVMAD_PASSWORD="wrong"))
    assert "no administrator" in bad(as_root(daemon, "-u", "alice", "grant", "alice", "admin",
                                             DOVMAD_PASSWORD="wonderland"))
    assert not may("admin")
    good(run_tool(daemon.config, "-u", "root", "grant", "alice", "admin",
                  input=daemon.password + "\n"))
    assert may("admin")


def test_will_not_send_a_password_to_a_stranger(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)  # without folders for the roles
    known = daemon.ca.read_bytes()
    daemon.ca.write_bytes(Authority(tmp_path / "other", "other").certificate.read_bytes())
    for problem in ("TLS", "could not write"):
        assert problem in bad(as_root(daemon, "grant", "bob", "agent"))
        daemon.ca.write_bytes(known)
    # The daemon has gone, another process has got its number and a third one its plain port.
    daemon.stop()
    daemon.pid_file.write_text(f"{os.getpid()}\n")
    with socket.create_server(("127.0.0.1", daemon.port)) as stranger:
        stranger.setblocking(False)
        good(as_root(daemon, "grant", "bob", "agent"))
        assert (daemon.root / "agent" / ".dovmaaccess").read_text() == "bob:user\n"
        with pytest.raises(BlockingIOError):
            stranger.accept()


@ROOT_ONLY
def test_tells_of_changes_that_were_not_written(make_daemon, public_folder):
    """The daemon may read its access files but not write them."""
    root = public_folder / "www"
    make_role_folders(root)
    (root / "agent" / ".dovmaaccess").write_text("bob:user\n")
    daemon = make_daemon(auth=True, slips=True, runtime_uid="nobody", document_root=root,
                         pid_file=public_folder / "pid")
    for action, role, outcome in (("grant", "operator", "lost"), ("deny", "agent", "back")):
        text = bad(as_root(daemon, action, "bob", role))
        assert "could not write" in text and f"{outcome} at a restart" in text
    good(as_root(daemon, "deny", "bob", "admin"))  # which bob never had
    daemon.stop()


# --- What is refused, and what is warned of ---


def warnings(done):
    good(done)
    return done.stderr


def test_weak_passwords_need_a_switch(site):
    for password in ("seven77", "x", "AliceInTheWoods"):
        assert "(-w takes it)" in site.bad("add", "aliceinthewoods", input=password + "\n")
    site.good("add", "aliceinthewoods", input="eight888\n")
    assert "-w" in site.bad("passwd", "aliceinthewoods", input="short\n")
    site.good("passwd", "-w", "aliceinthewoods", input="x\n")
    assert fits("x", site.user("aliceinthewoods").rstrip("\n").split(":")[1])


def test_a_new_name_finds_no_rights_of_others(site):
    (site.root / "admin" / ".dovmaaccess").write_text("alice@cert.vm:user\nErin:user\n")
    (site.other / "pub" / ".dovmaaccess").write_text("daniel@local.boxes:user\n")
    for name, longer in (("alice", "alice@cert.vm (admin in plx)"),
                         ("AL", "alice@cert.vm (admin in plx)"), ("e", "Erin")):
        text = site.bad("add", "-o", name, input="password\n")
        assert "would hold the rights of" in text and longer in text, text
    assert "daniel@local.boxes" in site.bad("add", "daniel", input="password\n")
    assert list((site.at / "users").iterdir()) == []
    # The very same name: left from somebody who is gone, as far as anybody can tell.
    assert "Erin holds rights that were granted before: admin in plx" in \
        warnings(run_tool(site.config, "add", "-o", "Erin", input="password\n"))
    # And the other way round: what a longer name gets.
    assert "user Erin holds this role as well" in \
        warnings(run_tool(site.config, "grant", "erin@cert.vm", "operator"))


def test_warns_of_names_that_nobody_has(site):
    site.good("add", "alice", input="password\n")
    for name, known in (("alice", True), ("alice@local.box", True), ("carol@cert.box", True),
                        ("alicia", False), ("alicia@local.box", False), ("root", True)):
        text = warnings(run_tool(site.config, "grant", name, "agent"))
        assert ("nobody has the name" in text, "as well" in text) == (not known, False), text
        assert "nobody" not in warnings(run_tool(site.config, "-g", "grant", name, "agent"))


def test_tells_which_name_stands_in_the_way(make_daemon, site):
    """The set finds a name in every longer one and takes it in no more."""
    daemon = make_daemon(auth=True)
    make_role_folders(daemon.root)
    for run, root in ((lambda *a: as_root(daemon, *a), daemon.root),
                      (lambda *a: run_tool(site.config, *a), site.root)):
        for name in ("user10", "user11"):
            good(run("-g", "grant", name, "operator"))
        text = bad(run("-g", "grant", "user1", "operator"))
        assert "user1 is not listed: the daemon takes it for user1" in text
        assert (root / "operator/.dovmaaccess").read_text() == "user10:group\nuser11:group\n"
        assert "user1 still holds the role: user10 is listed as operator" in \
            warnings(run("-g", "deny", "user1", "operator"))
        for name in ("user10", "user11"):
            good(run("-g", "deny", name, "operator"))
        good(run("-g", "grant", "user1", "operator"))
        assert good(run("-g", "grant", "user10", "operator")).startswith("user10: granted")
        good(run("-g", "grant", "user10", "admin"))
        assert "holds operator as admin already" in good(run("-g", "grant", "user10", "operator"))
        assert "every user holds pub" in good(run("grant", "zoe", "pub"))
    assert daemon.error_log.read_text().count(" root granted ") == 5
    assert "to group user1\n" in daemon.error_log.read_text()


def test_a_deleted_user_leaves_no_rights(make_daemon, site):
    site.good("add", "alice", input="password\n")
    site.good("grant", "alice", "operator")
    site.good("grant", "alice", "admin", "ns")
    site.good("grant", "alice2@local.box", "operator")
    assert "denied admin in namespace ns" in site.good("del", "alice")
    assert site.access("operator") == "alice2@local.box:user\n"
    assert site.access("admin", site.other) == ""

    # A running daemon is asked when the password is at hand; else it is said what stays.
    daemon = make_daemon(auth=True)
    make_role_folders(daemon.root)
    for password in (None, daemon.password):
        good(run_tool(daemon.config, "add", "bob", input="password\n"))
        bob = full_name(daemon, "bob")
        good(as_root(daemon, "grant", "bob", "operator"))
        env = {"DOVMAD_PASSWORD": password} if password else {}
        done = run_tool(daemon.config, "del", "bob", **env)
        assert (f"{bob} still holds operator in plx" in warnings(done)) is (password is None)
        file = daemon.root / "operator" / ".dovmaaccess"
        assert file.read_text() == (f"{bob}:user\n" if password is None else "")


def test_names_the_missing_configuration(tmp_path):
    prefix = {"DOVMAD_TEST_ROOT": str(tmp_path)}
    for args in (("rights", "alice"), ("grant", "alice", "admin"), ("reset",)):
        done = subprocess.run([USER_TOOL, *args], env={**os.environ, **prefix}, text=True,
                              capture_output=True, check=False, timeout=60)
        assert done.returncode == 1
        assert re.fullmatch(r"dovmad-user: \S+dovmad.conf: No such file or directory; "
                            r"name one with -c\n", done.stderr), done.stderr
    (tmp_path / "empty").touch()
    for args in (("rights", "alice"), ("grant", "alice", "admin")):
        assert "document_root is not set in" in bad(run_tool(tmp_path / "empty", *args))


# --- Several at once, and none that ends well ---


def test_prompts_undo_nobody_elses_change(site):
    """Others change the user while somebody thinks of a password."""
    for change, state in ((("lock", "alice"), "locked"), (("del", "alice"), None)):
        site.good("add", "alice", input="password\n")
        status, shown = on_terminal(
            site, [b"new-password\n", lambda: site.good(*change) or b"new-password\n"],
            "passwd", "alice")
        listed = site.good("list")
        if state:
            assert status == 0 and state in listed, shown
            assert fits("new-password", site.user("alice").split(":")[1])
            site.good("del", "alice")
        else:
            assert status == 1 and "no such user" in shown and listed == ""
    status, shown = on_terminal(
        site, [b"password-1\n", lambda: site.good("add", "carol", input="password-2\n") or
               b"password-1\n"], "add", "carol")
    assert status == 1 and "exists" in shown
    assert fits("password-2", site.user("carol").rstrip("\n").split(":")[1])


def test_many_tools_lose_nothing_and_kills_leave_nothing(site):
    def begin(*args):
        return subprocess.Popen([USER_TOOL, "-c", str(site.config), *args],
                                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)

    names = [f"user-{letter}" for letter in "abcdefghijkl"]  # none begins with another
    started = [begin("-g", "grant", name, "operator") for name in names]
    assert [process.wait(60) for process in started] == [0] * len(names)
    assert sorted(site.access("operator").split()) == sorted(f"{name}:group" for name in names)

    site.good("add", "alice", input="password\n")
    chance = random.Random(3)
    for _ in range(40):
        process = begin(chance.choice(("lock", "unlock")), "alice")
        try:
            process.wait(chance.random() * 0.02)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    users = site.at / "users"
    (users / ".alice.abc234").write_text("of an earlier version")
    (users / ".dovmad-user.new").write_text("of one that was killed")
    site.good("unlock", "alice")
    assert [entry.name for entry in users.iterdir()] == ["alice"]
    assert site.good("list").endswith("active\n")


# --- JSON ---


# Whole letters of each length, and bytes that are none: overlong, surrogates, too high, cut.
NAMES = [b"1\x7f", "2漢😀".encode(), b"3\xc0\xaf", b"4\xe0\x80\x80", b"5\xed\xa0\x80", b"6\xf0\x80\x80\x80",
         b"7\xf4\x90\x80\x80", b"8\xf5\x80", b"9\xc3"]


def test_rights_as_json(site):
    (site.root / "operator" / ".dovmaaccess").write_bytes(
        b'bob "the\\b\x01 \xe4\xc3\xa4:user\nwheel:group\nno entry\n' +
        b"".join(name + b":user\n" for name in NAMES))
    (site.root / "agent" / ".dovmaaccess").mkdir()
    everything = json.loads(site.good("rights", "--json"))
    assert everything["version"] == 1
    spaces = {entry["namespace"]: entry for entry in everything["namespaces"]}
    assert list(spaces) == ["ns", "plx2", "plx"] and spaces["ns"]["root"] == str(site.other)
    roles = {entry["role"]: entry for entry in spaces["plx"]["roles"]}
    assert list(roles) == list(ROLES)
    assert roles["operator"] == {
        "role": "operator", "file": str(site.root / "operator" / ".dovmaaccess"), "readable": True,
        "everybody": False, "built_in": {"users": [], "groups": []},
        "users": [*(name.decode(errors="replace") for name in NAMES), 'bob "the\\b\x01 \ufffdä'],
        "groups": ["wheel"]}
    assert roles["pub"]["everybody"] and roles["pub"]["users"] == []
    assert roles["admin"]["built_in"] == {"users": ["root"], "groups": ["root"]}
    assert not roles["agent"]["readable"]
    (site.root / "agent" / ".dovmaaccess").rmdir()
    held = json.loads(site.good("rights", "-j", "-g", "wheel"))
    assert held["group"] == "wheel"
    assert {(e["namespace"], e["role"]): (e["held"], e["because"]) for e in held["rights"]}[
        "plx", "operator"] == (True, "listed as operator")
    assert json.loads(site.good("rights", "-j", "zoe"))["rights"][0] == {
        "namespace": "ns", "role": "pub", "held": True, "because": "every user holds pub"}
    assert run_tool(site.config, "rights").returncode == USAGE
