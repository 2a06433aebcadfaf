"""A management domain as its machines see it: a domain server, a collector, agents that enrol from
two namespaces, report, are blacklisted, renamed, enumerated and removed."""

import json
import socket
from functools import partial

import pytest

from kill_domain import kill_during_enrolments

SUCCESS = "Success\n"


class Server:
    """A daemon and the requests that agents and administrators send it."""

    def __init__(self, daemon):
        self.daemon = daemon

    def post(self, path, **fields):
        return self.daemon.post(path, fields)

    def get(self, path):
        return self.daemon.request("GET", path)

    def enrol(self, host_id, host, namespace="", **fields):
        reply = self.post(f"{namespace}/agent/domain/register", id=host_id, host=host, **fields)
        assert reply.status == 200, reply.raw
        # The body is one member of an object.
        return json.loads("{" + reply.text + "}")["output"]

    def leave(self, host_id, namespace=""):
        return self.post(f"{namespace}/agent/domain/unregister", id=host_id).text

    def report(self, **fields):
        return self.post("/agent/domain/report", **fields).text

    def hosts(self, query="", namespace=""):
        reply = self.get(f"{namespace}/agent/domain/enum?format=json{query}")
        assert reply.header("Content-Type") == "application/json"
        return {host["hostid"]: host for host in json.loads(reply.text)}

    def switch(self, **fields):
        return self.post("/admin/dovmad/config", **fields).text


@pytest.fixture(name="server")
def server_fixture(make_daemon, tmp_path):
    """A domain server with the namespaces one and two."""
    spaces = ",".join(f"{name}={tmp_path}/{name}" for name in ("one", "two"))
    server = Server(make_daemon(domain_file=tmp_path / "domain", namespaces=spaces))
    server.file = tmp_path / "domain"
    return server


def make_collector(make_daemon):
    """A standalone daemon, not running yet, with a folder for its resolver file."""
    collector = Server(make_daemon(start=False))
    collector.resolver = collector.daemon.prefix / "etc/default/plx_resolv.conf"
    collector.resolver.parent.mkdir(parents=True)
    return collector


def test_whole_enrolment(server, make_daemon):
    collector = make_collector(make_daemon)
    collector.resolver.write_text("[corp.example]\nprimary = true;\n")
    collector.daemon.start()
    loopback_name = socket.gethostbyaddr("127.0.0.1")[0]

    # Agents join from two namespaces; n1 from both.
    answer = server.enrol("n1", "n1.example", "/one", osname="Linux", osrelease="6.1",
                          cputype="x86_64")
    assert answer == {"Status": "Success", "Hostname": "n1.example", "id": "n1",
                      "Remote_Hostname": loopback_name, "OsName": "Linux", "OsRelease": "6.1",
                      "CpuType": "x86_64"}
    server.enrol("n1", "other.example", "/two")
    for host_id in ("n2", "n3"):
        server.enrol(host_id, f"{host_id}.example", "/one")
    server.enrol("n4", "2001:db8::4", "/two")
    assert sorted(server.hosts(namespace="/one")) == ["n1", "n2", "n3"]
    assert sorted(server.hosts(namespace="/two")) == ["n1", "n4"]
    assert server.hosts() == {}
    everybody = server.hosts("&scope=all")
    assert everybody["n1"]["namespaces"] == ["one", "two"]
    assert everybody["n1"]["hostname"] == "n1.example", "a second registration adds a namespace"
    assert everybody["n4"]["hostname"] == "2001:db8::4"
    assert {host["status"] for host in everybody.values()} == {"DN"}
    assert server.file.read_text() == "".join(
        f"{host}:{loopback_name}:{host_id}:{system}:{space}\n" for host, host_id, system, space in [
            ("n1.example", "n1", "Linux:6.1:x86_64", "one"),
            ("n1.example", "n1", "Linux:6.1:x86_64", "two"),
            ("n2.example", "n2", "unknown:unknown:unknown", "one"),
            ("n3.example", "n3", "unknown:unknown:unknown", "one"),
            ("[2001:db8::4]", "n4", "unknown:unknown:unknown", "two")])

    # n2 reports by itself, n3 and a stranger through the collector, which n1 runs.
    assert server.get("/admin/domain/dhc?enable=1&freq=100&fudge=10").text == ""
    assert server.report(id="n2", freq=60) == SUCCESS
    assert collector.get("/admin/domain/add?domain=corp.example&enable=1").text == ""
    for host_id in ("n3", "stranger"):
        assert collector.report(domain="corp.example", id=host_id) == SUCCESS
    collected = collector.get("/agent/domain/enum?domain=corp.example").text.split()
    assert collected == ["n3", "stranger"]
    assert collector.get("/agent/domain/enum?domain=corp.example").text == "", "handed over once"
    unknown = server.report(id="n1", dhc=1, freq=200, list=":".join(collected))
    assert unknown == SUCCESS + "stranger\n"
    alive = server.hosts("&scope=all")
    assert {i: host["status"] for i, host in alive.items()} == \
        {"n1": "UP", "n2": "UP", "n3": "UP", "n4": "DN"}
    seconds = {i: int(host["nexttime"].split()[0]) for i, host in alive.items()}
    assert 100 <= seconds["n2"] <= 110, "the server's frequency and fudge"
    assert seconds["n1"] == seconds["n3"] and 210 <= seconds["n3"] <= 220, "the collector's"
    assert list(server.hosts("&dronly=1")) == ["n2"], "the direct reporters"
    assert server.hosts("&dronly=1") == {}

    # The stranger is blacklisted at the collector for two enumerations.
    assert collector.report(domain="corp.example", id="n1", dhc=1, list="stranger") == SUCCESS
    for _ in range(2):
        assert collector.report(domain="corp.example", id="stranger") == "Host blacklisted"
        assert collector.report(domain="corp.example", id="n3") == SUCCESS
        assert list(collector.hosts("&domain=corp.example")) == ["n3"]
    collector.hosts("&domain=corp.example")
    assert collector.report(domain="corp.example", id="stranger") == SUCCESS

    # Renamed, restarted, and away to standalone mode and back: the file carries everything.
    assert server.post("/admin/domain/host_rename", id="n3", host="fe80::3").text == SUCCESS
    before = server.hosts("&scope=all")
    assert before["n3"]["hostname"] == "fe80::3"
    assert server.switch(mode="standalone") == SUCCESS
    assert server.get("/agent/domain/enum").text == "Bad Request"
    assert server.post("/agent/domain/register", id="x", host="x").text == "Not Found"
    assert server.switch(mode="domain", domain_file=server.file) == SUCCESS
    names = {i: (host["hostname"], host["namespaces"]) for i, host in before.items()}
    for _ in range(2):
        again = server.hosts("&scope=all")
        assert {i: (h["hostname"], h["namespaces"]) for i, h in again.items()} == names
        assert {h["status"] for h in again.values()} == {"DN"}, "pings live in memory"
        server.daemon.restart()

    # Everybody leaves; n1 namespace by namespace.
    assert server.leave("n1", "/two") == SUCCESS
    assert server.leave("n1", "/two") == SUCCESS
    assert server.hosts("&scope=all")["n1"]["namespaces"] == ["one"]
    for host_id, space in (("n1", "/one"), ("n2", "/one"), ("n3", "/one"), ("n4", "/two")):
        assert server.leave(host_id, space) == SUCCESS
    assert server.leave("n1", "/one") == "Host not found\n"
    assert server.file.read_text() == ""


def test_served_domains_come_from_the_resolver_file(make_daemon, tmp_path):
    collector = make_collector(make_daemon)
    collector.daemon.start()
    for resolver, served in [
            ("[domains]\nb.example = \"\";\na.example = \"\";\n[c.example]\nk = v;\n",
             ["a.example", "b.example"]),
            ("[b.example]\nk = v;\n[a.example]\nk = v;\n", ["a.example", "b.example"]),
            ("[a.example\n", []), ("", [])]:
        collector.resolver.write_text(resolver)
        assert collector.switch(mode="domain", domain_file=tmp_path / "none") == SUCCESS
        assert collector.switch(mode="standalone") == SUCCESS
        for name in ("a.example", "b.example", "c.example", "domains"):
            reply = collector.get(f"/agent/domain/enum?domain={name}")
            assert reply.text == ("" if name in served else "Bad Request"), (resolver, name)


def test_only_refused_reports_are_logged(server):
    server.enrol("good", "h")
    server.report(id="good")
    server.report(id="unknown")
    server.daemon.stop()
    lines = server.daemon.access_log.read_text().splitlines()
    assert len(lines) == 1 and '"POST /agent/domain/report' in lines[0] and " 404 " in lines[0]


def test_kills_lose_no_host(make_daemon, tmp_path):
    report = kill_during_enrolments(partial(make_daemon, start=False), tmp_path, kills=25, seed=20)
    assert report.kills == 25 and min(report.rewrites, report.cut_short, report.looks) > 0, report
