#!/usr/bin/python3
"""What the console of dovmad shows beyond the daemon's own URIs. Read-only, JSON, for administrators.

Installed by an administrator as ROOT/admin/console.cgi, see dovmad-console(7). The query is one of

  show=rights   who holds which role: dovmad-user rights -j
  show=next     the runs of the next 24 hours, and the next one of each entry: dovmad-check -n
  show=daemon   process, connections, end of the certificate, sizes of the logs
  show=log      the last lines of the error log

and nothing of it reaches a command line. Every answer is an object with "version": 1, or has
"error". Commands of the schedule, passwords, keys and the request's own headers are not shown.
"""

import calendar
import json
import os
import re
import subprocess
import sys
import time

CONFIG = os.environ.get("DOVMAD_CONF", "/etc/opt/MOLBplxh/dovmad.conf")
LOG_BYTES = 128 * 1024
LOG_LINES = 500
DAY = 86_400
# Runs that are asked for: an entry of every minute has 1,440 in a day.
RUNS_ASKED = 40_000
RUNS_SHOWN = 1_500


class Failure(Exception):
    """Ends the request with words for the page."""


def settings():
    """The keywords of the daemon's configuration; a later line counts."""
    try:
        with open(CONFIG, encoding="utf-8", errors="replace") as file:
            lines = [line.rstrip("\n").split(None, 1) for line in file
                     if line.strip() and not line.startswith("#")]
    except OSError as error:
        raise Failure(f"{CONFIG}: {error.strerror}; cgi_envvar can name it with DOVMAD_CONF")
    return {words[0]: words[1] for words in lines if len(words) == 2}


def run(*command):
    """Standard output of one of our own programs, which gets nothing of the request."""
    kept = ("PATH", "LANG", "ZEL_DATA_DIR", "TZ", "DOVMAD_TEST_ROOT")
    env = {name: os.environ[name] for name in kept if name in os.environ}
    env["PATH"] = f"{env.get('PATH', '/usr/bin:/bin')}:/usr/sbin:/usr/local/sbin"
    try:
        done = subprocess.run(command, env=env, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=20, check=False)
    except (OSError, subprocess.TimeoutExpired) as error:
        raise Failure(f"{command[0]}: {error}")
    return done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")


def rights():
    said, complaint = run("dovmad-user", "-c", CONFIG, "rights", "-j")
    try:
        return json.loads(said)
    except ValueError:
        raise Failure(complaint.strip() or "dovmad-user says nothing")


def next_runs():
    said, complaint = run("dovmad-check", "-q", "-n", str(RUNS_ASKED), CONFIG)
    now = time.time()
    runs = {}
    for line in said.splitlines():
        match = re.match(r"\w{3} (\d{4}-\d\d-\d\d \d\d:\d\d) (\S+): ", line)
        if not match:
            continue
        moment = int(time.mktime(time.strptime(match[1], "%Y-%m-%d %H:%M")))
        of_entry = runs.setdefault(match[2], [])
        # What is in this minute has begun, or stands for the start of a daemon.
        if moment > now and len(of_entry) < RUNS_SHOWN and (moment <= now + DAY or not of_entry):
            of_entry.append(moment)
    if not said and complaint:
        raise Failure(complaint.strip())
    return {"version": 1, "now": int(now), "runs": runs}


def certificate_end(config):
    path = f"{config.get('var_dir', '/var/opt/MOLBplxh')}/sec/dovmad-at/server.crt"
    try:
        said, _ = run("openssl", "x509", "-noout", "-enddate", "-in", path)
        return calendar.timegm(time.strptime(said.strip(), "notAfter=%b %d %H:%M:%S %Y GMT"))
    except (Failure, ValueError):
        return None


def daemon():
    config = settings()
    pid = os.getppid()
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as file:
        ticks = int(file.read().rsplit(")", 1)[1].split()[19])
    uptime = time.clock_gettime(time.CLOCK_BOOTTIME) - ticks / os.sysconf("SC_CLK_TCK")
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
        memory = re.search(r"VmRSS:\s+(\d+) kB", file.read())
    with open(f"/proc/{pid}/limits", encoding="ascii", errors="replace") as file:
        limit = re.search(r"Max open files +(\d+)", file.read())
    ports = {int(port) for port in re.findall(r"\d+", config.get("listen_ports", "5634"))}
    connections = 0
    for table in ("tcp", "tcp6"):
        try:
            with open(f"/proc/{pid}/net/{table}", encoding="ascii") as file:
                rows = [line.split() for line in file][1:]
        except OSError:
            continue
        connections += sum(row[3] == "01" and int(row[1].rsplit(":", 1)[1], 16) in ports
                           for row in rows)
    logs = []
    for name in ("error", "access"):
        path = config.get(f"{name}_log")
        try:
            logs.append({"name": name, "size": os.stat(path).st_size if path else None})
        except OSError:
            logs.append({"name": name, "size": None})
    return {"version": 1, "started": int(time.time() - uptime), "connections": connections,
            "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
            "descriptors_max": int(limit[1]) if limit else None,
            "memory": int(memory[1]) * 1024 if memory else 0,
            "certificate_end": certificate_end(config), "logs": logs}


def log():
    path = settings().get("error_log")
    if path is None:
        raise Failure("no error_log is configured")
    try:
        with open(path, "rb") as file:
            start = max(0, os.fstat(file.fileno()).st_size - LOG_BYTES)
            file.seek(start)
            lines = file.read(LOG_BYTES).decode(errors="replace").splitlines()
    except OSError as error:
        raise Failure(f"{path}: {error.strerror}")
    return {"version": 1, "lines": (lines[1:] if start else lines)[-LOG_LINES:]}


def main():
    status = "200 OK"
    actions = {"show=rights": rights, "show=next": next_runs, "show=daemon": daemon, "show=log": log}
    action = actions.get(os.environ.get("QUERY_STRING", ""))
    try:
        # The daemon says which role it has asked for: a copy below /world/ must tell nobody anything.
        if os.environ.get("PLXE_ROLE") != "admin":
            status, answer = "403 Forbidden", {"error": "this program is for administrators"}
        elif os.environ.get("REQUEST_METHOD") != "GET" or action is None:
            status, answer = "400 Bad Request", {"error": "nothing to show by that name"}
        else:
            answer = action()
    except Failure as failure:
        answer = {"error": str(failure)}
    except OSError as error:
        answer = {"error": f"{error.filename}: {error.strerror}"}
    body = json.dumps(answer)
    sys.stdout.write(f"Status: {status}\r\nContent-Type: application/json\r\n"
                     f"Cache-Control: no-store\r\nContent-Length: {len(body)}\r\n\r\n{body}")


main()
