#!/usr/bin/env python3
"""Compares the logins and the refusals of two builds, interleaved: bench/login_bench.py OLD NEW
[rounds], where both are build folders with a release build. Prints medians, ratios to OLD, and how
much processor time a request takes of OLD's, which a busy machine disturbs less.

A first login costs a password hash, which the library rations at 20 a second: what is measured is
how long a burst of them takes. A remembered login costs a connection and a look-up; a refused page
is the same without login, with the error log on."""

import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from base64 import b64encode
from pathlib import Path

USERS = 15


def start(build, work, port):
    (work / "home" / "lib").mkdir(parents=True)
    (work / "var").mkdir()
    (work / "root" / "pub").mkdir(parents=True)
    (work / "root" / "pub" / "f").write_text("x" * 100)
    (work / "home" / "lib" / "libmolbat4L_t.so").symlink_to(build / "provider/libmolbat4L_t.so")
    (work / "conf").write_text(
        f"document_root {work}/root\nlisten_ports {port}u\nzel_home {work}/home\n"
        f"var_dir {work}/var\npid_file {work}/pid\nerror_log {work}/error\naccess_log {work}/access\n")
    daemon = subprocess.Popen(["taskset", "-c", "0", build / "core/dovmad", work / "conf"],
                              stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    deadline = time.monotonic() + 20
    while daemon.poll() is None and time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            break
        except OSError:
            time.sleep(0.05)
    hashed = subprocess.run(["openssl", "passwd", "-6", "secret"], text=True, check=True,
                            capture_output=True).stdout.strip()
    for n in range(USERS * 40):
        path = work / "var/sec/dovmad-at/users" / f"u{n}"
        path.write_text(f"u{n}:{hashed}\n")
        path.chmod(0o600)
    return daemon


def first_logins(port, offset):
    began = time.monotonic()
    for n in range(offset, offset + USERS):
        login = b64encode(f"u{n}:secret".encode()).decode()
        with socket.create_connection(("127.0.0.1", port)) as sock:
            sock.sendall(f"GET /pub/f HTTP/1.1\r\nAuthorization: Basic {login}\r\n\r\n".encode())
            assert b" 200 OK" in sock.recv(1000)
    return USERS / (time.monotonic() - began)


def load(port, path, *args):
    shown = subprocess.run(["taskset", "-c", "1", "ab", "-q", "-n", "20000", "-c", "32", *args,
                            f"http://127.0.0.1:{port}{path}"], text=True, check=True,
                           capture_output=True).stdout
    return float(re.search(r"Requests per second: +([\d.]+)", shown).group(1))


def cpu_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    builds = [Path(argument).resolve() for argument in sys.argv[1:3]]
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory() as folder:
        ports = [24410, 24520]
        daemons = [start(build, Path(folder, str(i)), ports[i]) for i, build in enumerate(builds)]
        rows = {}
        try:
            for number in range(rounds):
                for i in (0, 1):
                    port = ports[i]
                    time.sleep(1.2)  # the ration of hashes fills up
                    for title, measure in [
                            ("first logins a second", lambda: first_logins(port, number * USERS)),
                            ("remembered logins a second", lambda: load(
                                port, "/pub/f", "-A", f"u{number * USERS}:secret")),
                            ("404 a second, error log on", lambda: load(port, "/world/none"))]:
                        before = cpu_seconds(daemons[i].pid)
                        value = measure()
                        rows.setdefault(title, ([], [], [], []))[i].append(value)
                        rows[title][i + 2].append(cpu_seconds(daemons[i].pid) - before)
        finally:
            for daemon in daemons:
                daemon.terminate()
                daemon.wait()
    for title, (old, new, old_cpu, new_cpu) in rows.items():
        ratio = statistics.median(b / a for a, b in zip(old, new))
        cpu = statistics.median(b / a for a, b in zip(old_cpu, new_cpu))
        print(f"{title:28} {statistics.median(old):9.1f} {statistics.median(new):9.1f}  x {ratio:.3f}"
              f"  processor time x {cpu:.3f}")


if __name__ == "__main__":
    main()
