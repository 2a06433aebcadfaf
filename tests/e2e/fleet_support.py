"""What the tests of the fleet programs share."""

import re
import subprocess
from pathlib import Path

FLEET = Path(__file__).resolve().parents[2] / "fleet"


def run(program, *args, status=0, timeout=200, **kwargs):
    """One of the programs, which must end with `status`."""
    done = subprocess.run([FLEET / program, *map(str, args)], capture_output=True, text=True,
                          check=False, timeout=timeout, **kwargs)
    assert done.returncode == status, (args, done.returncode, done.stderr)
    return done


def secret(path, text):
    path.write_text(text + "\n")
    path.chmod(0o600)
    return path


def as_root(daemon):
    """Options that ask a daemon over TLS as its first user."""
    password = secret(daemon.dir / "password", daemon.password)
    return ["--url", f"https://localhost:{daemon.tls_port}", "--ca", daemon.ca, "--user", "root",
            "--password-file", password]


def plain(daemon):
    """The address of a daemon that asks for no login."""
    return f"http://127.0.0.1:{daemon.port}"


def samples_of(text):
    """Series and values of an exposition, read without the programs' own code."""
    lines = [line.rpartition(" ") for line in text.splitlines() if not line.startswith("#")]
    values = {re.sub(r"\s", "", key): float(value) for key, _, value in lines}
    assert len(values) == len(lines)
    return values
