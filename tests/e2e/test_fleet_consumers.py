"""The fleet programs with those that they are for: Prometheus, Ansible, SQLite's shell, an MQTT
broker. Hosts register with names and values made to hurt."""

import concurrent.futures
import json
import os
import random
import re
import shutil
import subprocess
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

import pytest
from dovmad_harness import SANITIZED_BUILD, Daemon, eventually, free_port
from fleet_support import FLEET, as_root, plain, run

SHIPPED = Path(__file__).resolve().parents[2] / "packaging/prometheus"
HOSTS = 5000
BAD_NAMES = ["{{ 7*7 }}", "{% raw %}", "{# x #}", "${7*7}", "<img src=x onerror=alert(1)>", "$(id)",
             "-oProxyCommand=id", "--list", "=1+1", "@x", "a,b", "a;b", "a b", " a ", "../../etc",
             "all", "localhost", "ungrouped", "_meta", "status_UP", "host*", "~.*", "!a", "&a",
             "%s", "a|b", "`id`", "#a", "é.example", "\u202egnp", "日本", "\U0001f600", "::1",
             "fe80::1%eth0", "a:b", "null", "1e3", "a\u2028b", "a" * 255, "&amp;",
             "'; DROP TABLE hosts; --"]
ALPHABET = "abXY019 .-_,;:<>(){}#%&*!?$=@+~|`/'éß漢\U0001f4a9\u202e"


def needs(*programs):
    missing = [program for program in programs if shutil.which(program) is None]
    return pytest.mark.skipif(bool(missing), reason=f"not installed: {', '.join(missing)}")


# What takes long and asks the daemon for nothing but a listing.
once = pytest.mark.skipif(SANITIZED_BUILD, reason="the build without a sanitizer has tried this")


def hostile_hosts():
    """Id -> the fields of a registration, as they are stored."""
    dice = random.Random(15)

    def value(longest):
        text = "".join(dice.choices(ALPHABET, k=dice.randint(1, longest)))
        return dice.choice((text, text, dice.choice(BAD_NAMES)))

    def cut(text, size):
        return text.encode()[:size].decode(errors="ignore")

    hosts = {}
    for n in range(HOSTS):
        name = BAD_NAMES[n] if n < len(BAD_NAMES) else value(60)
        hosts[cut(f"{n}{value(9).replace(':', '')}", 63)] = {
            "hostname": cut(name, 255), "osname": cut(value(10).replace(":", "_"), 31),
            "osrelease": cut(value(10).replace(":", "_"), 63)}
    return hosts


@pytest.fixture(scope="module", name="domain")
def domain_fixture(tmp_path_factory):
    """A daemon with these hosts, which are those that it lists."""
    base = tmp_path_factory.mktemp("domain")
    daemon = Daemon(base / "d", domain_file=base / "hosts").start()
    hosts = hostile_hosts()

    def register(item):
        hostid, fields = item
        reply = daemon.post("/agent/domain/register", {
            "id": hostid, "host": fields["hostname"], "osname": fields["osname"],
            "osrelease": fields["osrelease"]})
        assert reply.status == 200, item

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        list(pool.map(register, hosts.items()))
    listed = json.loads(daemon.request("GET", "/agent/domain/enum?format=json").text)
    daemon.hosts = {host["hostid"]: host for host in listed}
    assert {i: {k: h[k] for k in hosts[i]} for i, h in daemon.hosts.items()} == hosts
    yield daemon
    daemon.check()


@needs("sqlite3")
def test_sqlite_reads_the_tables(domain, tmp_path):
    def ask(base, *lines):
        return subprocess.run(["sqlite3", "-json", base, *lines], capture_output=True, text=True,
                              check=True).stdout

    options = ["--url", plain(domain)]
    run("dovmad-inventory", *options, "--sqlite", tmp_path / "base")
    run("dovmad-inventory", *options, "--csv", "-o", tmp_path / "table.csv")
    asked = "SELECT hostid, hostname, osname, osrelease, status FROM {}"
    for base, form, lines in ((tmp_path / "base", "hosts", ()),
                              (":memory:", "t", (f".import --csv {tmp_path}/table.csv t",))):
        rows = json.loads(ask(base, *lines, asked.format(form)))
        assert {row["hostid"]: row for row in rows} == {
            i: {k: h[k] for k in rows[0]} for i, h in domain.hosts.items()}
    assert json.loads(ask(tmp_path / "base", "PRAGMA integrity_check")) == [
        {"integrity_check": "ok"}]


@once
@needs("ansible", "ansible-inventory")
def test_ansible_takes_values_for_what_they_are(domain, tmp_path):
    (tmp_path / "inventory.ini").write_text(f"[d]\nurl = {plain(domain)}\n")
    (tmp_path / "a.cfg").write_text("")
    env = dict(os.environ, DOVMAD_INVENTORY=str(tmp_path / "inventory.ini"), HOME=str(tmp_path),
               ANSIBLE_CONFIG=str(tmp_path / "a.cfg"), ANSIBLE_NOCOLOR="1", LC_ALL="C.UTF-8",
               ANSIBLE_DEPRECATION_WARNINGS="0")

    def ansible(program, *args):
        done = subprocess.run([program, "-i", FLEET / "dovmad-inventory", *args], env=env,
                              capture_output=True, text=True, check=False, timeout=400)
        assert done.returncode == 0 and "WARNING" not in done.stderr, done.stderr[-2000:]
        return done.stdout

    listed = json.loads(ansible("ansible-inventory", "--list"))

    def raw(value):
        return value["__ansible_unsafe"] if isinstance(value, dict) else value

    seen = {raw(v["dovmad_hostid"]): {k: raw(v[f"dovmad_{k}"]) for k in ("hostname", "osname")}
            for v in listed["_meta"]["hostvars"].values()}
    assert seen == {i: {k: h[k] for k in ("hostname", "osname")} for i, h in domain.hosts.items()}
    names = list(listed["_meta"]["hostvars"])
    assert all(re.fullmatch(r"\w[\w.-]*", name, re.A) for name in names)
    # A module that prints variables runs on this host only; templates in them are not followed.
    braces = [name for name, v in listed["_meta"]["hostvars"].items()
              if re.search(r"\{\{|\{%|\{#", raw(v["dovmad_hostname"]))]
    shown = ansible("ansible", ",".join(braces[:9] + names[:3]), "-o", "-m", "debug", "-a",
                    "msg={{ dovmad_hostid }}|{{ dovmad_hostname }}|{{ inventory_hostname }}")
    results = dict(re.findall(r"^(\S+) \| SUCCESS => (\{.*\})$", shown, re.M))
    assert len(braces) > 9 and set(results) == {*braces[:9], *names[:3]}
    for name, result in results.items():
        variables = listed["_meta"]["hostvars"][name]
        assert json.loads(result)["msg"] == "|".join((raw(variables["dovmad_hostid"]),
                                          raw(variables["dovmad_hostname"]), name))


@once
@needs("mosquitto", "mosquitto_sub", "mosquitto_pub")
def test_a_bus_gets_every_change(domain, tmp_path):
    port = free_port("upstream")
    address = ["-h", "127.0.0.1", "-p", str(port), "-t", "dovmad/hosts"]
    publish = ["--url", plain(domain), "--changes", tmp_path / "state", "--", "mosquitto_pub",
               *address, "-q", "1", "-l"]
    assert "mosquitto_pub ended with" in run("dovmad-inventory", *publish, status=73).stderr
    (tmp_path / "broker").write_text(
        f"listener {port} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n")
    log = tmp_path / "broker.log"
    with open(log, "wb") as file, subprocess.Popen(
            ["mosquitto", "-v", "-c", tmp_path / "broker"], stderr=file) as broker:
        try:
            assert eventually(lambda: " running" in log.read_text())
            with subprocess.Popen(["mosquitto_sub", *address, "-q", "1", "-C", str(HOSTS), "-W",
                                   "120"], stdout=subprocess.PIPE) as reader:
                assert eventually(lambda: "SUBACK" in log.read_text())
                run("dovmad-inventory", *publish)
                lines = reader.stdout.read().splitlines()
        finally:
            broker.terminate()
    events = [json.loads(line) for line in lines]
    assert {event["id"]: event["host"] for event in events} == {
        i: h["hostname"] for i, h in domain.hosts.items()}
    assert run("dovmad-inventory", *publish[:4]).stdout == ""


@needs("promtool")
def test_promtool_finds_nothing(domain, make_daemon, tmp_path):
    def promtool(*args, text=None):
        done = subprocess.run(["promtool", *map(str, args)], input=text, capture_output=True,
                              text=True, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout + done.stderr

    promtool("check", "rules", SHIPPED / "dovmad.rules.yml")
    promtool("test", "rules", Path(__file__).parent / "fleet_rules_test.yml")
    done = run("dovmad-inventory", "--url", plain(domain), "--prometheus", 9100, "-o",
               tmp_path / "hosts.json")
    targets = json.loads((tmp_path / "hosts.json").read_text())
    assert f"{HOSTS - len(targets)} hosts left out" in done.stderr and len(targets) > 20
    (tmp_path / "file_sd.yml").write_text(
        f"scrape_configs: [{{job_name: x, file_sd_configs: [{{files: [{tmp_path}/hosts.json]}}]}}]")
    assert "SUCCESS" in promtool("check", "config", tmp_path / "file_sd.yml")
    # Hostile ids of schedule entries and names of namespaces are labels, too.
    (tmp_path / "schedule").write_text('a"b\\{} kickoff - - x x x /bin/true\n')
    daemon = make_daemon(auth=True, slips=True, domain_file=tmp_path / "hosts",
                         scheduler_file=tmp_path / "schedule")
    text = run("dovmad-metrics", *as_root(daemon), "-c", daemon.config, "--messages",
               daemon.stderr_file).stdout
    assert promtool("check", "metrics", text=text) == ""


@needs("prometheus", "promtool")
def test_prometheus_scrapes_over_tls(make_daemon, tmp_path):
    """With the configuration, the rules and the dashboard that are shipped."""
    (tmp_path / "schedule").write_text("often - * * * * * /bin/true\n")
    daemon = make_daemon(auth=True, slips=True, domain_file=tmp_path / "hosts",
                         cgi_extensions=".cgi", scheduler_file=tmp_path / "schedule")
    options = " ".join(f"'{option}'" for option in as_root(daemon))
    for name, command in (("metrics", f"dovmad-metrics --cgi -c {daemon.config}"),
                          ("targets", "dovmad-inventory --cgi --prometheus 9100")):
        text = f"#!/bin/sh\nexec '{FLEET}'/{command} {options}\n"
        daemon.write(f"operator/{name}.cgi", text, 0o755)
    daemon.request("HEAD", "/world/ping")
    for name in ("alpha", "beta", "-evil"):
        daemon.post("/agent/domain/register", {"id": name, "host": name},
                    user=f"root:{daemon.password}")
    with open(daemon.error_log, "a", encoding="utf-8") as log:  # every panel has something to show
        log.write('[Sun Nov 22 03:44:30 2026] [error] [client -] "-" slow pass: 120 ms, 9 ms\n')
    text = (SHIPPED / "prometheus.yml").read_text()
    for old, new in (("/etc/prometheus/dovmad.password", daemon.dir / "password"),
                     ("/etc/prometheus/dovmad.crt", daemon.ca), ("5634", daemon.tls_port),
                     ("username: metrics", "username: root"),
                     ("rule_files:", "global: {scrape_interval: 2s, scrape_timeout: 2s, "
                      "evaluation_interval: 2s}\nrule_files:")):
        assert old in text
        text = text.replace(old, str(new))
    (tmp_path / "prometheus.yml").write_text(text)
    shutil.copy(SHIPPED / "dovmad.rules.yml", tmp_path)
    subprocess.run(["promtool", "check", "config", tmp_path / "prometheus.yml"], check=True,
                   capture_output=True)
    port = free_port("upstream")

    def ask(path, **fields):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/v1/{path}?"
                                        f"{urllib.parse.urlencode(fields)}", timeout=30) as reply:
                return json.load(reply)["data"]
        except urllib.error.HTTPError as error:
            assert error.code == 503, f"{fields}: {error.read()}"  # it has just been started
        except OSError:
            pass
        return None

    def result(query):
        return (ask("query", query=query) or {}).get("result")

    with subprocess.Popen(["prometheus", f"--config.file={tmp_path}/prometheus.yml",
                           f"--storage.tsdb.path={tmp_path}/data",
                           f"--web.listen-address=127.0.0.1:{port}"],
                          stderr=open(tmp_path / "prometheus.log", "wb")) as process:
        try:
            assert eventually(lambda: result("dovmad_up == 1"), 60), \
                (tmp_path / "prometheus.log").read_text()
            assert eventually(lambda: {r["metric"]["instance"] for r in result(
                'up{job="hosts",domain="localhost"}')} == {"alpha", "beta"})
            panels = json.loads((SHIPPED / "dashboard.json").read_text())["panels"]
            queries = [re.sub(r"\$instance", ".+", target["expr"]) for panel in panels
                       for target in panel["targets"]]
            assert len(queries) > 12
            for query in queries:
                assert eventually(lambda q=query: result(q)), query
            rules = [r for g in ask("rules")["groups"] for r in g["rules"]]
            assert len(rules) == 13 and {r["health"] for r in rules} == {"ok"}
        finally:
            process.terminate()
