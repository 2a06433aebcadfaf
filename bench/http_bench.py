#!/usr/bin/env python3
"""HTTP benchmark against nginx and lighttpd; run it through script/bench.

Every server gets the same document root and one core; the load comes from the other: from wrk where
connections are kept, from ab where each request has its own (wrk would open two for a reply that
ends with the connection or that does not repeat "Connection: close"). Rounds are interleaved, so that
a machine whose speed drifts slows everybody alike; what is printed are medians and ratios to nginx,
and beside them the ratios that were recorded last (bench/recorded.json; --record writes them). Only
ratios carry over to another machine."""

import argparse
import base64
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

# Each server's port for plain HTTP; TLS is on the next one and Basic logins on the one after that.
PORTS = {"nginx": 21100, "lighttpd": 22200, "dovmad": 23300}
TLS, BASIC = 1, 2
USER, PASSWORD = "bench", "benchmark-password"
SERVER_CPU, LOAD_CPU = "0", "1"
RECORDED = Path(__file__).resolve().parent / "recorded.json"

CGI = "#!/bin/sh\nprintf 'Content-Type: text/plain\\r\\nContent-Length: 3\\r\\n\\r\\nhi\\n'\n"

KEEP, CLOSE = [], None
LOGIN = ["-H", "Authorization: Basic " +
         base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()]

# What a look at the speed after each change wants to see.
SHORT = ("1 KB keep-alive, 64 connections", "1 KB, Connection: close, 64 clients",
         "1 KB, TLS, keep-alive, 16", "100 KB keep-alive, 16 connections", "proxied 1 KB, close")

# title, path, connections, CLOSE or further arguments for wrk, port offset, servers that offer it
ROWS = [
    ("1 KB keep-alive, 64 connections", "/1k.bin", 64, KEEP, 0, None),
    ("1 KB keep-alive, 1000 connections", "/1k.bin", 1000, KEEP, 0, None),
    ("1 KB, Connection: close, 64 clients", "/1k.bin", 64, CLOSE, 0, None),
    ("1 KB, Basic, keep-alive, 64", "/pub/1k.bin", 64, LOGIN, BASIC, ("nginx", "dovmad")),
    ("1 KB, TLS, keep-alive, 16", "/1k.bin", 16, KEEP, TLS, ("nginx", "dovmad")),
    ("1 KB, TLS, close, 16", "/1k.bin", 16, CLOSE, TLS, ("nginx", "dovmad")),
    ("100 KB keep-alive, 16 connections", "/100k.bin", 16, KEEP, 0, None),
    ("100 MB, 1 connection", "/100m.bin", 1, KEEP, 0, None),
    ("100 MB, 32 connections", "/100m.bin", 32, KEEP, 0, None),
    ("404, close, 64 clients", "/none", 64, CLOSE, 0, None),
    ("listing of 1000 entries, close", "/list/", 4, CLOSE, 0, None),
    ("CGI shell script, close", "/hello.cgi", 4, CLOSE, 0, ("lighttpd", "dovmad")),
    ("proxied 1 KB, close", "/proxy", 16, CLOSE, 0, None),
    ("SSI page, close", "/page.shtml", 16, CLOSE, 0, ("nginx", "dovmad")),
]


def make_root(root):
    (root / "list").mkdir(parents=True)
    (root / "pub").mkdir()
    for name, size in (("1k.bin", 1 << 10), ("pub/1k.bin", 1 << 10), ("100k.bin", 100 << 10),
                       ("100m.bin", 100 << 20)):
        (root / name).write_bytes(os.urandom(size))
    for i in range(1000):
        (root / "list" / f"file-{i:04}.dat").write_bytes(b"x" * (i % 50))
    (root / "hello.cgi").write_text(CGI)
    (root / "hello.cgi").chmod(0o755)
    (root / "part.txt").write_text("part\n")
    (root / "page.shtml").write_text('<p>\n<!--#include virtual="part.txt" -->\n</p>\n')


def nginx(work, root):
    """Uses dovmad's certificate, so dovmad starts first, and like it resumes no sessions."""
    conf = work / "nginx.conf"
    (work / "passwords").write_text(f"{USER}:{{PLAIN}}{PASSWORD}\n")
    site = work / "var" / "sec" / "dovmad-at"
    conf.write_text(f"""daemon off; master_process off; pid {work}/nginx.pid; error_log {work}/n.log;
worker_rlimit_nofile 8192; events {{ worker_connections 4096; }}
http {{ access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000000;
  client_body_temp_path {work}/nb; proxy_temp_path {work}/np; fastcgi_temp_path {work}/nf;
  uwsgi_temp_path {work}/nu; scgi_temp_path {work}/ns;
  ssl_certificate {site}/server.crt; ssl_certificate_key {site}/server.key;
  ssl_session_tickets off; ssl_session_cache off;
  server {{ listen 127.0.0.1:{PORTS["nginx"]}; listen 127.0.0.1:{PORTS["nginx"] + TLS} ssl;
    root {root}; autoindex on; ssi on; ssi_types text/html; types {{ text/html shtml; }}
    location = /proxy {{ proxy_pass http://127.0.0.1:{PORTS["lighttpd"]}/1k.bin; }} }}
  server {{ listen 127.0.0.1:{PORTS["nginx"] + BASIC}; root {root};
    auth_basic "bench"; auth_basic_user_file {work}/passwords; }} }}
""")
    return ["nginx", "-c", str(conf), "-p", str(work)]


def lighttpd(work, root):
    conf = work / "lighttpd.conf"
    conf.write_text(f"""server.document-root = "{root}"
server.bind = "127.0.0.1"
server.port = {PORTS["lighttpd"]}
server.max-fds = 8192
server.max-keep-alive-requests = 1000000000
server.modules = ( "mod_dirlisting", "mod_cgi", "mod_proxy" )
dir-listing.activate = "enable"
cgi.assign = ( ".cgi" => "" )
$HTTP["url"] == "/proxy" {{
  proxy.server = ( "" => (( "host" => "127.0.0.1", "port" => {PORTS["nginx"]} )) )
  proxy.header = ( "map-urlpath" => ( "/proxy" => "/1k.bin" ) )
}}
""")
    return ["lighttpd", "-D", "-f", str(conf)]


def dovmad(work, root, build):
    (work / "home" / "lib").mkdir(parents=True)
    (work / "var").mkdir()
    shutil.copy(build / "provider" / "libmolbat4L_t.so", work / "home" / "lib")
    return dovmad_with(work, root, build, "dovmad",
                       f"listen_ports {PORTS['dovmad']}u,{PORTS['dovmad'] + TLS}\nnoauth 1\n"
                       "cgi_extensions .cgi\nssi_extensions .shtml\n")


def dovmad_with_logins(work, root, build):
    subprocess.run([build / "provider" / "dovmad-user", "-d", work / "var" / "sec", "add", USER],
                   input=f"{PASSWORD}\n{PASSWORD}\n".encode(), check=True)
    return dovmad_with(work, root, build, "logins", f"listen_ports {PORTS['dovmad'] + BASIC}u\n")


def dovmad_with(work, root, build, name, options):
    conf = work / f"{name}.conf"
    conf.write_text(f"document_root {root}\nzel_home {work}/home\nvar_dir {work}/var\n"
                    f"pid_file {work}/{name}.pid\n{options}")
    return [str(build / "core" / "dovmad"), str(conf)]


def path_for(server, path):
    if path == "/proxy" and server == "dovmad":
        return f"/http://127.0.0.1:{PORTS['lighttpd']}/1k.bin"
    return path


def cpu_seconds(pid):
    total = 0
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                fields = (entry / "stat").read_text().rsplit(")", 1)[1].split()
            except OSError:
                continue
            if entry.name == str(pid) or fields[1] == str(pid):
                total += sum(map(int, fields[11:15]))
    return total / os.sysconf("SC_CLK_TCK")


def load(url, connections, extra, seconds):
    """Requests a second, requests, and how many were refused."""
    if extra is CLOSE:
        command = ["ab", "-q", "-r", "-l", "-c", str(connections), "-t", str(seconds),
                   "-n", "10000000", url]
        patterns = (r"Requests per second: +([\d.]+)", r"Complete requests: +(\d+)",
                    r"Non-2xx responses: +(\d+)")
    else:
        command = ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", *extra, url]
        patterns = (r"Requests/sec: +([\d.]+)", r"(\d+) requests in",
                    r"Non-2xx or 3xx responses: (\d+)")
    out = subprocess.run(["taskset", "-c", LOAD_CPU, *command], capture_output=True, text=True,
                         check=True).stdout
    return tuple(float(found[1]) if (found := re.search(pattern, out)) else 0
                 for pattern in patterns)


def sample(server, pid, path, connections, extra, offset, seconds):
    scheme = "https" if offset == TLS else "http"
    url = f"{scheme}://127.0.0.1:{PORTS[server] + offset}{path_for(server, path)}"
    before = cpu_seconds(pid)
    rate, requests, refused = load(url, connections, extra, seconds)
    if refused and path != "/none":
        print(f"{server}: {refused:.0f} requests for {path} refused", file=sys.stderr)
    return rate, (cpu_seconds(pid) - before) / max(requests, 1) * 1e6


def wait_for(port):
    import socket
    for _ in range(200):
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            time.sleep(0.05)
    sys.exit(f"nothing listens on port {port}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--short", action="store_true", help="the rows marked as such only")
    parser.add_argument("--record", action="store_true", help="keep the ratios for later runs")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        work = Path(folder)
        work.chmod(0o755)
        root = work / "root"
        make_root(root)
        build = options.build.resolve()
        processes = {}
        try:
            for name, port, command in (
                    ("dovmad", PORTS["dovmad"], dovmad(work, root, build)),
                    ("nginx", PORTS["nginx"], nginx(work, root)),
                    ("lighttpd", PORTS["lighttpd"], lighttpd(work, root))):
                start(processes, name, command, port)
            start(processes, "logins", dovmad_with_logins(work, root, build),
                  PORTS["dovmad"] + BASIC)
            run(options, {name: process.pid for name, process in processes.items()})
        finally:
            for process in processes.values():
                process.terminate()
                process.wait()


def start(processes, name, command, port):
    processes[name] = subprocess.Popen(["taskset", "-c", SERVER_CPU, *command],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(port)


def run(options, pids):
    recorded = json.loads(RECORDED.read_text()) if RECORDED.exists() else {}
    print(f"{'':42}{'nginx':>10}{'lighttpd':>10}{'dovmad':>10}{'ratio':>8}{'CPU ratio':>11}"
          f"{'recorded':>15}")
    for title, path, connections, extra, offset, servers in ROWS:
        if options.short and title not in SHORT:
            continue
        names = servers or tuple(PORTS)
        samples = {name: [] for name in names}
        for _ in range(options.rounds):
            for name in names:
                pid = pids["logins" if (name, offset) == ("dovmad", BASIC) else name]
                samples[name].append(sample(name, pid, path, connections, extra, offset,
                                            options.seconds))
        median = {name: tuple(statistics.median(column) for column in zip(*rows))
                  for name, rows in samples.items()}
        peer = next((name for name in ("nginx", "lighttpd") if name in median), None)
        cells = "".join(f"{median[name][0]:10.0f}" if name in median else f"{'-':>10}"
                        for name in PORTS)
        ratios = [round(ours / max(theirs, 1e-9), 2)
                  for ours, theirs in zip(median["dovmad"], median[peer])]
        before = recorded.get(title, ["-", "-"])
        print(f"{title:42}{cells}{ratios[0]:8.2f}{ratios[1]:11.2f}{before[0]:>9}{before[1]:>6}",
              flush=True)
        if options.record:
            recorded[title] = ratios
            RECORDED.write_text(json.dumps(recorded, indent=1) + "\n")


if __name__ == "__main__":
    main()
