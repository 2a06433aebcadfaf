"""The two URIs for everybody: is the daemon alive, and which host is it."""

import json
import os
import re
import time

GUID = "{0123ABCD-4567-89ab-cdef-0123456789AB}"


def vitals(daemon, **kwargs):
    reply = daemon.request("GET", "/world/getvitals", **kwargs)
    assert reply.status == 200
    assert reply.headers == [("Content-Type", "application/json")]
    return json.loads(reply.text)


def put(daemon, path, text):
    """Writes a file where the daemon believes the root directory to be."""
    return daemon.write(path.lstrip("/"), text, base=daemon.prefix)


def test_ping_answers_the_bare_status_line(make_daemon):
    daemon = make_daemon(auth=True)
    for method in ("GET", "POST", "HEAD"):
        assert daemon.raw(f"{method} /world/ping HTTP/1.1\r\n\r\n".encode()) == \
            b"HTTP/1.1 200 OK\r\n\r\n"
    assert daemon.request("GET", "/world/ping/", timeout=10).status == 404
    assert daemon.request("GET", "/world/ping", tls=True).status == 200


def test_vitals_of_a_fresh_host(make_daemon):
    env = {"LANG": "xx_XX.UTF-8", "LC_ALL": "C"}
    daemon = make_daemon(auth=True, env=env)
    before = int(time.time())
    reply = daemon.request("GET", "/world/getvitals")
    data = json.loads(reply.text)
    assert list(data) == [
        "DOVMAD_VERSION", "LOCAL_NAME", "LOCAL_ADDR", "PEER_NAME", "PEER_ADDR", "LOCAL_TIME",
        "LOCALE", "DOMAIN_MODE", "OSNAME", "OSRELEASE", "CPUTYPE", "OSUUID", "DOMAINS"]
    assert reply.text.startswith('{\n"DOVMAD_VERSION" :  "2.1.213.0",\n"LOCAL_NAME" : "')
    assert reply.text.endswith('"OSUUID" : "UNKNOWN",\n"DOMAINS" : {\n    }\n}\n')
    assert data["LOCAL_ADDR"] == data["PEER_ADDR"] == "127.0.0.1"
    assert before - 1 <= int(data["LOCAL_TIME"]) <= time.time()  # clocks differ by some ms
    system = os.uname()
    assert [data["OSNAME"], data["OSRELEASE"], data["CPUTYPE"]] == \
        [system.sysname, system.release, system.machine]
    assert data["LOCALE"] == "xx_XX.UTF-8", "LANG comes first"
    assert data["DOMAIN_MODE"] == "FALSE"
    over_tls = vitals(daemon, tls=True)
    assert (over_tls["PEER_ADDR"], over_tls["PEER_NAME"]) == ("127.0.0.1", data["PEER_NAME"])


def test_locale_and_mode_come_from_the_surroundings(make_daemon, tmp_path, monkeypatch):
    for variable in ("LANG", "LC_ALL", "LC_CTYPE"):
        monkeypatch.delenv(variable, raising=False)
    assert vitals(make_daemon())["LOCALE"] == "UNKNOWN"
    assert vitals(make_daemon(env={"LC_ALL": "C.all", "LC_CTYPE": "c"}))["LOCALE"] == "C.all"
    domain_file = tmp_path / "domain.txt"
    domain_file.touch()
    data = vitals(make_daemon(env={"LC_CTYPE": "C.ctype"}, domain_file=domain_file))
    assert data["LOCALE"] == "C.ctype"
    assert data["DOMAIN_MODE"] == "TRUE"


def test_management_domains_are_read_for_every_request(make_daemon):
    daemon = make_daemon()
    resolver = "/etc/default/plx_resolv.conf"
    put(daemon, resolver, """[beta.example]
admin_url = "https://cms.example:5634/";
primary_broker = broker1.example;
[alpha.example]
primary_broker = "kpr://broker2.example:2821/x";
[gamma.example]
other = x;
""")
    reply = daemon.request("GET", "/world/getvitals").text
    assert reply.endswith('''"DOMAINS" : {
    "alpha.example" : {
        "primary_broker" : "kpr://broker2.example:2821/x"
        },
    "beta.example" : {
        "admin_url" : "https://cms.example:5634/",
        "primary_broker" : "broker1.example"
        },
    "gamma.example" : {
        "primary_broker" : "UNKNOWN"
        }
    }
}
''')
    put(daemon, resolver, "[domains]\nb = \"\";\nmissing = \"\";\n"
        "[a]\nprimary_broker = x;\n[b]\nprimary_broker = y;\n")
    assert vitals(daemon)["DOMAINS"] == {
        "b": {"primary_broker": "y"}, "missing": {"primary_broker": "UNKNOWN"}}
    put(daemon, resolver, "# not the store's syntax\n")
    assert vitals(daemon)["DOMAINS"] == {}


def test_host_guid_is_read_for_every_request_from_two_places(make_daemon):
    daemon = make_daemon()
    second = put(daemon, "/etc/.osuuid", GUID.lower() + " " * 20)
    assert vitals(daemon)["OSUUID"] == GUID.lower()
    for content, expected in [
            (GUID + "\n" * 8, GUID),              # 46 bytes
            (GUID + "\n" * 7, "UNKNOWN"),         # 45 bytes
            ("host id: " + GUID + "\n", GUID),
            ("x" * 61 + GUID, GUID),              # ends with the 99th byte
            ("x" * 62 + GUID, "UNKNOWN"),         # and one byte further
            ("x" * 60, "UNKNOWN"),
            ("", "UNKNOWN")]:
        first = put(daemon, "/var/opt/MOLBplxh/.hostguid", content)
        assert vitals(daemon)["OSUUID"] == expected, "the first file that opens decides"
    first.unlink()
    assert vitals(daemon)["OSUUID"] == GUID.lower()
    second.unlink()
    assert vitals(daemon)["OSUUID"] == "UNKNOWN"


def test_many_domains_are_cut_at_the_reply_buffer(make_daemon):
    daemon = make_daemon(io_buf_size=2048)
    sections = "".join(f"[d{i:03}.example]\nprimary_broker = b;\n" for i in range(200))
    put(daemon, "/etc/default/plx_resolv.conf", sections)
    reply = daemon.raw(b"GET /world/getvitals HTTP/1.1\r\n\r\n")
    assert len(reply) == 2048 and reply.endswith(b"\0")
    assert re.search(rb'"d000.example" : \{', reply)
