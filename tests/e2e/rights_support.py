"""Users, rights and certificates for tests of authentication and authorization."""

import base64
import subprocess
from urllib.parse import urlencode

ROLES = ("pub", "operator", "admin", "agent")


def make_role_folders(root, file="f.txt"):
    """A file in the folder of every role; the access files live there too."""
    for role in ROLES:
        (root / role).mkdir(parents=True, exist_ok=True)
        (root / role / file).write_text(f"{root.name} {role}\n")


def openssl(*args, cwd=None, input=None):
    done = subprocess.run(["openssl", *map(str, args)], cwd=cwd, input=input, text=True,
                          capture_output=True, timeout=60, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


def add_user(daemon, name, password, *options):
    """Writes the user's file as an administrator's own script would."""
    hashed = openssl("passwd", "-6", "-stdin", input=password + "\n").strip()
    line = ":".join([name, hashed, *([",".join(options)] if options else [])])
    path = daemon.ca.parent / "users" / name
    path.write_text(line + "\n")
    path.chmod(0o600)


def guarded(make_daemon, **options):
    """A daemon with folders for the roles, which knows alice."""
    daemon = make_daemon(auth=True, **options)
    make_role_folders(daemon.root)
    add_user(daemon, "alice", "wonder")
    return daemon


def qualifier(daemon, domain="local"):
    """The host name in the user names of a domain."""
    for line in (daemon.ca.parent / "domains").read_text().splitlines():
        name, _, host = line.split(":")
        if name == domain:
            return host
    raise AssertionError(f"no domain {domain}")


def full_name(daemon, name, domain="local"):
    """The name under which a user is granted roles."""
    return f"{name}@{domain}.{qualifier(daemon, domain)}"


def basic(login):
    """The value of an Authorization header."""
    return "Basic " + base64.b64encode(login.encode()).decode()


def root_login(daemon):
    return f"root:{daemon.password}"


def change(daemon, action, user, role, kind="user", namespace=None, tls=False):
    """Grants or denies as root and returns the reply."""
    prefix = f"/{namespace}" if namespace else ""
    body = urlencode({"user": user, "role": role, "type": kind})
    return daemon.request("POST", f"{prefix}/admin/security/{action}", body=body,
                          user=root_login(daemon), tls=tls)


def grant(daemon, *args, **kwargs):
    reply = change(daemon, "grant", *args, **kwargs)
    assert (reply.status, reply.text) == (200, "Success\n"), reply.raw


def deny(daemon, *args, **kwargs):
    reply = change(daemon, "deny", *args, **kwargs)
    assert (reply.status, reply.text) == (200, "Success\n"), reply.raw


class Authority:
    """A certificate authority in a folder of its own."""

    def __init__(self, folder, name, *options):
        self.folder = folder
        folder.mkdir()
        self.certificate = folder / "ca.pem"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", "ca.key", "-out", "ca.pem", "-subj", f"/CN={name}", "-days", "2",
                *options, cwd=folder)

    def issue(self, name):
        """A client certificate for a common name: (certificate, key)."""
        stem = name.replace(" ", "_")
        openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", f"{stem}.key", "-out", f"{stem}.csr", "-subj", f"/CN={name}",
                cwd=self.folder)
        openssl("x509", "-req", "-in", f"{stem}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                "-CAcreateserial", "-out", f"{stem}.pem", "-days", "2", cwd=self.folder)
        return self.folder / f"{stem}.pem", self.folder / f"{stem}.key"
