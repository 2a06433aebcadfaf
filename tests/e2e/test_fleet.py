"""dovmad-metrics, dovmad-inventory and dovmad-agent-report with real daemons, and with servers and
files that are not as they should be."""

import concurrent.futures
import importlib.machinery
import importlib.util
import json
import random
import re
import shutil
import socket
import sqlite3
import subprocess
import threading
import time

import pytest
from dovmad_harness import eventually, free_port
from fleet_support import FLEET, as_root, plain, run, samples_of, secret
from rights_support import Authority, add_user, full_name, grant, openssl


def lines_of_domain(count):
    return "".join(f"h{n}.example:gw:{{{n:036x}}}:Linux:6.1:x86_64:plx\n" for n in range(count))


# --- Metrics ---

def test_metrics_are_what_is_there(make_daemon, tmp_path):
    schedule = tmp_path / "schedule"
    schedule.write_text("often - * * * * * /bin/true\nnever kickoff - - x x x /bin/true\n")
    daemon = make_daemon(auth=True, domain_file=tmp_path / "hosts", scheduler_file=schedule,
                         namespaces=f"lab={tmp_path}")
    root = f"root:{daemon.password}"
    for host, space in (("a", ""), ("b", ""), ("b", "/lab"), ("c", "/lab")):
        daemon.post(f"{space}/agent/domain/register", {"id": host, "host": host}, user=root)
    daemon.post("/agent/domain/report", {"id": "b"}, user=root)
    for name in ("nobody", 'x" 500 y'):
        assert daemon.request("GET", "/pub/", user=f"{name}:wrong").status == 401
    (daemon.root / "pub").write_text("no folder")
    assert daemon.request("PUT", "/pub/no", body=b"x", user=root).status == 500
    options = [*as_root(daemon), "-c", daemon.config, "--state", tmp_path / "state"]
    assert eventually(lambda: "timestamp" in run("dovmad-metrics", *options).stdout, 60)
    start = time.time()
    file = tmp_path / "dovmad.prom"
    with daemon.connect():
        run("dovmad-metrics", *options, "-o", file)
        descriptors = daemon.fd_count()
    seen = samples_of(file.read_text())
    counts = {key: value for key, value in seen.items() if key.startswith("dovmad_hosts")}
    assert counts == {'dovmad_hosts{namespace="lab",status="DN"}': 1,
                      'dovmad_hosts{namespace="lab",status="UP"}': 1,
                      'dovmad_hosts{namespace="plx",status="DN"}': 1,
                      'dovmad_hosts{namespace="plx",status="UP"}': 1}
    end = time.strptime(openssl("x509", "-in", daemon.ca, "-noout", "-enddate", "-dateopt",
                                "iso_8601"), "notAfter=%Y-%m-%d %H:%M:%SZ\n")
    expected = {
        "dovmad_up": 1, "dovmad_registered_hosts": 3, "dovmad_schedule_entries": 2,
        'dovmad_info{version="2.1.213.0",osuuid="UNKNOWN",mode="domain"}'.replace(" ", ""): 1,
        "dovmad_certificate_end_time_seconds": time.mktime(end) - time.timezone,
        "dovmad_descriptors_limit": 4096, f'dovmad_connections{{port="{daemon.port}"}}': 1,
        'dovmad_logged_requests_total{method="PUT",role="pub",status="500"}': 1,
        'dovmad_refusals_total{status="401"}': 2, 'dovmad_refusals_total{status="500"}': 1,
        'dovmad_log_size_bytes{log="access"}': daemon.access_log.stat().st_size,
    }
    assert {key: seen.get(key) for key in expected} == expected
    assert abs(seen["dovmad_open_descriptors"] - descriptors) < 4
    assert abs(seen["dovmad_resident_memory_bytes"] / 1024 / daemon.rss_kib() - 1) < 0.2
    age = start - seen['dovmad_schedule_last_run_timestamp_seconds{id="often"}']
    assert -2 <= age < 120 and not [key for key in seen if "never" in key]
    assert 0 < seen["dovmad_start_time_seconds"] - daemon.config.stat().st_mtime + 2 < 100
    assert file.stat().st_mode & 0o777 == 0o644

    # Counters go on where a log is cut, and only for whole lines.
    daemon.error_log.write_text("")
    daemon.request("GET", "/pub/", user="nobody:wrong")
    with open(daemon.error_log, "a", encoding="utf-8") as log:
        log.write('[Sun Nov 22 03:44:30 2026] [error] [client -] "-" slow pass: 9120 ms, 9 ms\n')
    again = samples_of(run("dovmad-metrics", *options).stdout)
    assert again['dovmad_refusals_total{status="401"}'] == 3
    slow = daemon.error_log.read_text().count("slow pass: ")
    assert again["dovmad_slow_passes_total"] == seen["dovmad_slow_passes_total"] + slow
    assert again["dovmad_longest_pass_seconds"] == 9.12

    # A login that may not read the schedule costs that part, and nothing else.
    add_user(daemon, "agent", "agents-password")
    grant(daemon, full_name(daemon, "agent"), "agent")
    agent = ["--user", "agent", "--password-file", secret(tmp_path / "agent", "agents-password")]
    done = run("dovmad-metrics", *options, *agent, status=77)
    part = samples_of(done.stdout)
    assert (part["dovmad_registered_hosts"], part['dovmad_part_success{part="schedule"}']) == (3, 0)
    assert "agent does not hold the role admin" in done.stderr
    assert run("dovmad-metrics", *options, *agent, "--skip", "schedule").stderr == ""

    # A daemon that is gone is a good file that says so; what its runs told at their end counts.
    daemon.stop()
    line = '[Sun Nov 22 03:44:30 2026] [error] [client ::1] "GET / HTTP/1.1" 401 Unau'
    with open(daemon.error_log, "a", encoding="utf-8") as log:
        log.write(f"{line}thorized\n{line}")
    done = run("dovmad-metrics", *options, "-o", file, "--messages", daemon.stderr_file, status=69)
    gone = samples_of(file.read_text())
    told = re.search(r"(\d+) requests ([\d.]+) Mb in", daemon.stderr_text())
    assert gone["dovmad_up"] == 0 and "Connection refused" in done.stderr
    assert gone["dovmad_finished_requests_total"] == int(told[1]) > 10
    assert gone["dovmad_finished_received_bytes_total"] == float(told[2]) * 2**20
    assert gone['dovmad_refusals_total{status="401"}'] == 4


# --- Inventory ---

def test_lists_and_states_of_two_domains(make_daemon, tmp_path):
    daemons = [make_daemon(domain_file=tmp_path / f"hosts{n}") for n in range(2)]
    east, west = daemons
    for daemon, hostid, name in ((east, "{1}", "web"), (west, "{1}", "web"), (west, "{2}", "web"),
                                 (east, "{3}", "db"), (east, "{4}", "status_UP"),
                                 (west, "{5}", "fe80::1"), (west, "{6}", "a b;$(id)")):
        daemon.post("/agent/domain/register", {"id": hostid, "host": name})
    settings = tmp_path / "inventory.ini"
    settings.write_text("".join(f"[{name}]\nurl = {plain(daemon)}\n"
                                for name, daemon in zip(("east", "west"), daemons)))
    listed = json.loads(run("dovmad-inventory", "--list", "-c", settings).stdout)
    variables = listed["_meta"]["hostvars"]
    names = {(v["dovmad_domain"], v["dovmad_hostid"]): name for name, v in variables.items()}
    assert len(names) == 7 and len(set(names.values())) == 7
    assert (names["east", "{3}"], names["west", "{2}"], names["west", "{5}"]) == (
        "db", "web_2", "fe80__1")
    assert names["east", "{1}"].startswith("web_") and names["east", "{4}"] == "status_UP_4"
    assert listed["domain_east"]["hosts"] == [names["east", i] for i in ("{1}", "{3}", "{4}")]
    assert listed["odd_names"]["hosts"] == [names["west", "{6}"]]
    assert variables["web_2"]["ansible_host"] == "web"
    assert "ansible_host" not in variables[names["west", "{6}"]]
    one = json.loads(run("dovmad-inventory", "--host", "db", "-c", settings).stdout)
    assert one == variables["db"] and one["dovmad_status"] == "DN"
    done = run("dovmad-inventory", "--prometheus", 9100, "-c", settings)
    targets = [group["targets"][0] for group in json.loads(done.stdout)]
    assert sorted(targets) == ["[fe80::1]:9100", "db:9100", "status_UP:9100"] + ["web:9100"] * 3
    assert "1 hosts left out" in done.stderr

    # Times go by: joined, up, down, left; a domain that does not answer keeps its state.
    state, base, pipe = tmp_path / "state", tmp_path / "base", tmp_path / "events"

    def told(status=0):
        run("dovmad-inventory", "--sqlite", base, "-c", settings, status=status)
        done = run("dovmad-inventory", "--changes", state, "-c", settings, status=status)
        events = [json.loads(line) for line in done.stdout.splitlines()]
        return [(e["event"], e["domain"], e["id"], e["status"]) for e in events]

    assert len(told()) == 7 and told() == []
    east.request("GET", "/admin/domain/dhc?freq=1&fudge=0")
    for daemon, hostid in ((east, "{1}"), (east, "{3}"), (west, "{6}")):
        daemon.post("/agent/domain/report", {"id": hostid, "freq": "900"})
    west.post("/agent/domain/unregister", {"id": "{2}"})
    assert told() == [("up", "east", "{1}", "UP"), ("up", "east", "{3}", "UP"),
                      ("up", "west", "{6}", "UP"), ("left", "west", "{2}", "LEFT")]
    east.post("/agent/domain/report", {"id": "{1}", "freq": "1"})
    assert eventually(lambda: told() == [("down", "east", "{1}", "DN")])
    west.stop()
    east.post("/agent/domain/unregister", {"id": "{3}"})
    assert told(status=69) == [("left", "east", "{3}", "LEFT")]
    west.start()  # which has forgotten who reported when
    assert told() == [("down", "west", "{6}", "DN")]
    with sqlite3.connect(base) as rows:
        history = rows.execute("SELECT status FROM history WHERE domain = 'east' AND hostid = "
                               "'{3}' ORDER BY at, rowid").fetchall()
        assert history == [("DN",), ("UP",), ("LEFT",)]
        assert rows.execute("SELECT count(*), sum(status = 'LEFT'), count(last_report) FROM hosts"
                            ).fetchone() == (7, 2, 3)

    # A command that fails is told the same again.
    east.post("/agent/domain/register", {"id": "{9}", "host": "new"})
    only_east = ["--url", plain(east), "--domain", "east", "--changes", state, "--"]
    before = state.read_bytes()
    done = run("dovmad-inventory", *only_east, "sh", "-c", f"cat > {pipe}; exit 3", status=73)
    assert "sh ended with 3" in done.stderr and state.read_bytes() == before
    assert json.loads(pipe.read_text())["event"] == "joined"
    run("dovmad-inventory", *only_east, "sh", "-c", f"cat >> {pipe}")
    assert len(pipe.read_text().splitlines()) == 2


HOST = {"hostname": "a", "revhostname": "", "hostid": "1", "namespaces": ["plx"], "osname": "L",
        "osrelease": "6", "cputype": "x", "pingtime": "1 seconds", "nexttime": "2 seconds",
        "status": "UP"}
VITALS = {"DOVMAD_VERSION": "1", "DOMAIN_MODE": "TRUE", "OSUUID": "u", "LOCAL_TIME": "NOW"}
WHOLE = json.dumps([HOST, {**HOST, "hostid": "2"}])


def reply(body, head="HTTP/1.1 200 OK\r\n"):
    return f"{head}\r\n{body}".encode()


def without(table, key, **more):
    return json.dumps([{k: v for k, v in {**table, **more}.items() if k != key}])


# What is wrong -> vitals and listing that are sent (None: nothing), exit status, words.
BAD = {
    "cut in the middle": (VITALS, reply(WHOLE[:-40]), 65, "is cut short"),
    "cut below its length": (VITALS, reply(WHOLE, "HTTP/1.1 200 OK\r\nContent-Length: 9999\r\n"),
                             69, "the reply was cut short"),
    "an older one": (VITALS, reply(without(HOST, "nexttime")), 65, "has no 'nexttime'"),
    "a newer one": (VITALS, reply(without(HOST, "", status="??")), 65, "status '??'"),
    "types": (VITALS, reply(without(HOST, "", hostname=[1])), 65, "is no text"),
    "no list": (VITALS, reply(without(HOST, "", namespaces="plx")), 65, "are no list"),
    "numbers": (VITALS, reply(without(HOST, "", pingtime=f"{1 << 70} seconds")), 65, "pingtime"),
    "depth": (VITALS, reply("[" * 100000), 65, "is cut short"),
    "no hosts": (VITALS, reply("{}"), 65, "no list of hosts"),
    "bytes": (VITALS, b"HTTP/1.1 200 OK\r\n\r\n[\xff]", 65, "is no JSON"),
    "no HTTP": (VITALS, b"SSH-2.0-x\r\n", 65, "no reply of a daemon"),
    "no reply": (VITALS, b"", 69, "without a reply"),
    "too slow": (VITALS, None, 69, "no whole reply within 1 s"),
    "out of order": (VITALS, reply("", "HTTP/1.1 500 Internal Error\r\n"), 69, "answered 500"),
    "no login": (VITALS, reply("", "HTTP/1.1 401 Unauthorized\r\n"), 77, "login of me was refused"),
    "no right": (VITALS, reply("", "HTTP/1.1 403 Forbidden\r\n"), 77, "hold the role agent"),
    "a collector": ({**VITALS, "DOMAIN_MODE": "FALSE"}, reply(WHOLE), 65, "server of no domain"),
    "another server": ({}, reply(WHOLE), 65, "not those of a dovmad"),
    "another clock": ({**VITALS, "LOCAL_TIME": "1000000000"}, reply(WHOLE), 75, "s behind ours"),
}


class Impostor(threading.Thread):
    """A server that answers as a row of BAD says."""

    def __init__(self):
        super().__init__(daemon=True)
        self.socket = socket.create_server(("127.0.0.1", free_port("upstream")))
        self.asked, self.row = [], None

    def run(self):
        while True:
            client, _ = self.socket.accept()
            with client:
                line = client.recv(4096).split(b"\r\n")[0].decode()
                self.asked.append(line)
                data = self.row[1]
                if "getvitals" in line:
                    data = reply(json.dumps(self.row[0]).replace("NOW", str(int(time.time()))))
                if data is None:
                    client.settimeout(10)
                    client.recv(1)
                else:
                    client.sendall(data)


def test_bad_input_is_told_and_changes_nothing(tmp_path):
    server = Impostor()
    server.start()
    password = secret(tmp_path / "password", "x")
    options = ["--url", f"http://127.0.0.1:{server.socket.getsockname()[1]}",
               "--domain", "d", "--user", "me", "--password-file", password]
    server.row = (VITALS, reply(WHOLE))
    files = {name: tmp_path / name for name in ("-o", "--changes", "--sqlite")}
    forms = {"-o": ["--csv"], "--changes": [], "--sqlite": []}
    for name, file in files.items():
        run("dovmad-inventory", *options, *forms[name], name, file)
    good = {name: file.read_bytes() for name, file in files.items()}
    assert good["-o"].count(b"\n") == 3
    for what, (vitals, listing, status, words) in BAD.items():
        server.row = (vitals, listing)
        for name in files if what in ("cut in the middle", "another clock") else ["--changes"]:
            expected = 0 if (what, name) == ("another clock", "-o") else status  # ages are right
            wait = ["--timeout", "1" if what == "too slow" else "30"]
            done = run("dovmad-inventory", *options, *wait, *forms[name], name, files[name],
                       status=expected)
            assert words in done.stderr, what
            assert expected == 0 or re.search(r"stays as it was \d+ s ago", done.stderr)
            assert files[name].read_bytes() == good[name] or expected == 0
    assert {line.split()[1] for line in server.asked} == {
        "/world/getvitals", "/agent/domain/enum?format=json&scope=all"}
    server.row = (VITALS, reply(WHOLE))
    for text, status in (("", 65), ("{}", 65), ('{"time": 9999999999, "domains": {}}', 75),
                         ('{"time": 1, "domains": {"d": {"1": [1, 2]}}}', 65)):
        files["--changes"].write_text(text)
        run("dovmad-inventory", *options, "--changes", files["--changes"], status=status)
        assert files["--changes"].read_text() == text
    files["--sqlite"].write_text("no data base, but long enough to be taken for one" * 99)
    run("dovmad-inventory", *options, "--sqlite", files["--sqlite"], status=73)
    run("dovmad-inventory", *options, "--csv", "-o", tmp_path / "none/x", status=73)
    done = run("dovmad-inventory", "--cgi", "--csv", *options, "--timeout", "no", status=64)
    server.row = (VITALS, reply("x"))
    done = run("dovmad-inventory", "--cgi", "--csv", *options, status=65)
    assert done.stdout.startswith("Status: 503\n") and "127.0.0.1" not in done.stdout


def test_credentials_are_kept(make_daemon, tmp_path):
    daemon = make_daemon(auth=True)
    good = as_root(daemon)
    loose = tmp_path / "loose"
    authority = Authority(tmp_path / "ca", "ours")
    other = authority.certificate
    for options, words in (
            (["--password-file", loose], "No such file"),
            (["--password-file", "/dev/null"], "not a regular file"),
            (["--password-file", secret(tmp_path / "empty", "")], "no password"),
            (["--password-file", secret(tmp_path / "long", "x" * 60)], "more than"),
            (["--ca", other], "its certificate is refused"), (["--ca", loose], "No such file"),
            (["--url", f"https://127.0.0.2:{daemon.tls_port}"], "its certificate is refused"),
            (["--url", "https://me:pw@localhost"], "can be seen by everybody"),
            (["--url", "http://192.0.2.1:1"], "without TLS"),
            (["--url", "localhost"], "no address"), (["--url", "https://a..b"], "idna"),
            (["--timeout", "0"], "a timeout of 0"),
            (["--cert", other, "--key", tmp_path / "none"], "No such file")):
        for program in ("dovmad-agent-report", "dovmad-inventory"):
            form = ["--csv"] if program == "dovmad-inventory" else []
            assert words in run(program, *good, *options, *form, status=78).stderr
    for mode in (0o640, 0o604, 0o620):
        secret(loose, "x").chmod(mode)
        assert f"{mode:04o}" in run("dovmad-metrics", *good, "--password-file", loose,
                                    status=78).stderr
    assert "401" not in daemon.error_log.read_text()

    (daemon.ca.parent / "client_ca.pem").write_text(other.read_text())
    daemon.restart()
    cert, key = authority.issue("robot")
    robot = ["--url", good[1], "--ca", daemon.ca, "--cert", cert, "--key", key, "--id", "r"]
    assert "robot" in run("dovmad-agent-report", *robot, status=77).stderr
    grant(daemon, full_name(daemon, "robot", "cert"), "agent")
    assert "server of no domain" in run("dovmad-agent-report", *robot, status=65).stderr
    key.chmod(0o644)
    assert "0644" in run("dovmad-agent-report", *robot, status=78).stderr

    # A certificate that has ended is refused, and its end is known all the same.
    openssl("x509", "-in", daemon.ca, "-signkey", daemon.ca.parent / "server.key", "-days", "-1",
            "-out", tmp_path / "ended")
    (tmp_path / "ended").replace(daemon.ca)
    daemon.restart()
    done = run("dovmad-metrics", *good, status=78)
    assert "certificate has expired" in done.stderr
    seen = samples_of(done.stdout)
    age = time.time() - seen["dovmad_certificate_end_time_seconds"]
    assert seen["dovmad_up"] == 0 and 86000 < age < 87000


# --- Agents ---

def test_200_agents_beside_10000_hosts(make_daemon, tmp_path):
    (tmp_path / "hosts").write_text(lines_of_domain(10000))
    daemon = make_daemon(auth=True, domain_file=tmp_path / "hosts")
    options = as_root(daemon)

    def agent(n):
        run("dovmad-agent-report", *options, "--id", f"{{agent-{n}}}", "--host", f"a{n}.example",
            "--every", 600, "--jitter", 2)

    with concurrent.futures.ThreadPoolExecutor(40) as pool:
        list(pool.map(agent, range(200)))
    seen = json.loads(daemon.request("GET", "/agent/domain/enum?format=json",
                                     user=f"root:{daemon.password}").text)
    up = {host["hostname"]: host for host in seen if host["status"] == "UP"}
    assert len(seen) == 10200 and set(up) == {f"a{n}.example" for n in range(200)}
    assert all(500 < int(host["nexttime"].split()[0]) <= 660 for host in up.values())
    assert daemon.error_log.read_text().count('report HTTP/1.1" 404 Host not found') == 200
    agent(0)  # is known: one report
    assert daemon.error_log.read_text().count('report HTTP/1.1" 404 Host not found') == 200
    for _ in range(2):
        run("dovmad-agent-report", *options, "--id", "{agent-7}", "--leave")
    assert "{agent-7}" not in (tmp_path / "hosts").read_text()

    # A server that is away for a moment is waited for, with pauses; one that refuses is not.
    daemon.stop()
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        job = pool.submit(agent, 7)
        time.sleep(1)
        daemon.start()
        job.result()
    assert "{agent-7}" in (tmp_path / "hosts").read_text()
    wrong = secret(tmp_path / "wrong", "wrong")
    assert "login of root was refused" in run("dovmad-agent-report", *options, "--id", "x",
                                              "--password-file", wrong, status=77).stderr
    assert daemon.error_log.read_text().count(" 401 ") == 1


@pytest.mark.skipif(shutil.which("bwrap") is None, reason="bubblewrap is not installed")
def test_failures_leave_one_line_in_syslog(tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind(str(tmp_path / "log"))
        log.settimeout(10)
        sandbox = ["bwrap", "--bind", "/", "/", "--dev", "/dev", "--bind", tmp_path / "log",
                   "/dev/log"]
        if subprocess.run([*sandbox, "true"], capture_output=True, check=False).returncode:
            pytest.skip("no namespaces on this machine")
        port = free_port("upstream")
        done = subprocess.run(
            [*sandbox, FLEET / "dovmad-agent-report", "--url", f"https://localhost:{port}", "--id",
             "x", "--give-up", "2"], capture_output=True, text=True, check=False)
        line = log.recv(4096).decode()
        log.setblocking(False)
        with pytest.raises(BlockingIOError):
            log.recv(1)
    assert done.returncode == 69 and f"localhost:{port}): Connection refused (" in line
    assert line.startswith("<27>") and re.search(r"dovmad-agent-report\[\d+\]: .* tries in", line)


def test_ids_are_the_daemons_own(tmp_path, monkeypatch):
    loader = importlib.machinery.SourceFileLoader("agent", str(FLEET / "dovmad-agent-report"))
    agent = importlib.util.module_from_spec(importlib.util.spec_from_loader("agent", loader))
    monkeypatch.setattr("sys.dont_write_bytecode", True)
    loader.exec_module(agent)
    guid = "{0123ABCD-4567-89ab-cdef-0123456789AB}"
    files = [tmp_path / "one", tmp_path / "two"]
    monkeypatch.setattr(agent, "GUID_FILES", [str(file) for file in files])
    files[1].write_text(f"the id: {guid}\n")
    assert agent.own_id() == guid
    files[0].write_text(guid)  # too short for the daemon, too
    machine = random.randbytes(16).hex()
    real = open
    monkeypatch.setattr("builtins.open", lambda path, *a, **k: real(
        tmp_path / "machine" if path == "/etc/machine-id" else path, *a, **k))
    (tmp_path / "machine").write_text(machine + "\n")
    made = agent.own_id()
    assert re.fullmatch(r"\{[0-9a-f-]{36}\}", made) and machine not in made.replace("-", "")
    assert made == agent.own_id()
