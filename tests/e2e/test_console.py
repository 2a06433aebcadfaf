"""The console in headless Chromium: on the daemon, and on a server that gives bad answers. Pictures of
every view are left in DOVMAD_PICTURES."""

import http.server
import json
import os
import random
import re
import shutil
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from browser import CHROMIUM, Browser
from dovmad_harness import CHECKER, USER_TOOL, QuietHandler, eventually, free_port

TREE = Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.skipif(CHROMIUM is None, reason="Chromium is not installed")
MANY = 100_000


def pictures():
    folder = Path(os.environ.get("DOVMAD_PICTURES", "/tmp/dovmad-pictures"))
    folder.mkdir(parents=True, exist_ok=True)
    return folder


@pytest.fixture(name="make_console")
def make_console_fixture(make_daemon, tmp_path, monkeypatch):
    """Returns make(hosts, **options) -> a daemon with logins that serves the console and its program,
    and knows that many hosts."""
    (tmp_path / "bin").mkdir()
    for name, program in (("dovmad-user", USER_TOOL), ("dovmad-check", CHECKER)):
        (tmp_path / "bin" / name).symlink_to(program)
    monkeypatch.setenv("PATH", f"{tmp_path}/bin:/usr/bin:/bin")

    def make(hosts=0, program=True, **options):
        (tmp_path / "hosts").write_text("".join(
            f"web{i}.example:r{i}.example:{{{i:08x}-id}}:{('Linux', 'AIX')[i % 3 == 0]}:6.{i % 7}:"
            f"x86_64:{('plx', 'lab')[i % 5 == 0]}\n" for i in range(hosts)))
        daemon = make_daemon(start=False, auth=True, domain_file=tmp_path / "hosts",
                             mime_types=TREE / "packaging/mime.types", cgi_extensions=".cgi",
                             cgi_envvar=f"DOVMAD_CONF={tmp_path}/d0/dovmad.conf", **options)
        for role in ("world", "pub", "operator", "admin", "agent"):
            (daemon.root / role).mkdir()
        (daemon.root / "world/console").symlink_to(TREE / "console")
        if program:
            shutil.copy(TREE / "packaging/console.cgi", daemon.root / "admin/console.cgi")
        return daemon.start()

    return make


def sign_in(browser, origin, user, password, view="hosts"):
    browser.open("about:blank")  # else only the view would change
    browser.open(f"{origin}/world/console/#{view}")
    browser.wait("!document.getElementById('login-fields').disabled")
    browser.type(user, "[name=name]")
    browser.type(password, "[name=password]")
    browser.click("#login-form .primary")
    browser.wait("document.querySelector('#login').hidden || "
                 "document.querySelector('#login-trouble').innerText")


def go(browser, view):
    browser.run(f"location.hash = '#{view}'")
    browser.wait(f"!document.querySelector('#{view}').hidden && "
                 f"/As of/.test(document.querySelector('#{view} .fresh').innerText)")


def take_pictures(browser, view):
    for width, height in ((1440, 900), (390, 844)):
        for dark in (False, True):
            browser.look(width, height, dark)
            browser.picture(pictures() / f"{view}-{width}-{'dark' if dark else 'light'}.png")
    browser.look(1440, 900)


def assert_clean(browser, origin):
    """No complaint, and nothing asked of anybody else."""
    assert [p for p in browser.problems if "401" not in str(p) and "403" not in str(p)] == []
    assert [url for url in browser.requests if not url.startswith(origin + "/")] == []


def confirm(browser, *words):
    """Checks the dialog's sentence, and says yes."""
    said = browser.text("#dialog")
    assert all(word in said for word in words), said
    browser.click("#dialog-yes")


def test_a_hundred_thousand_hosts(make_console):
    daemon = make_console(MANY)
    origin = f"https://localhost:{daemon.tls_port}"
    user = f"root:{daemon.password}"
    for ids, freq in ((range(0, 20), 300), (range(20, 23), 1)):
        for i in ids:
            assert daemon.post("/agent/domain/report", {"id": f"{{{i:08x}-id}}", "freq": freq},
                               user=user).status == 200
    with Browser() as browser:
        sign_in(browser, origin, "root", "wrong")
        assert "refused this name and password" in browser.text("#login-trouble")
        sign_in(browser, origin, "root", daemon.password)
        browser.wait("document.getElementById('found').innerText.includes('hosts')")
        assert browser.text("#found") == "100\u2009000 hosts"
        assert browser.text("#tiles").split("\n") == ["up", "23", "overdue", "0", "down", "99\u2009977"]
        assert browser.text("#by-namespace .bar").split("\n")[0] == "plx"
        assert "19\u2009995 down" in browser.text("#by-namespace .bar:last-child")
        browser.type("lab WEB77", "#search")
        matching = sum(str(i).startswith("77") for i in range(0, MANY, 5))
        assert browser.text("#found") == f"{matching} of 100\u2009000 hosts"
        browser.type("id:none web", "#search")
        assert "No host has" in browser.text("#blank")
        # Sorted by name, numbers count as numbers; keys choose, and a refresh moves nothing.
        browser.type("os:aix r9999", "#search")
        browser.click("#head .name button")
        shown = browser.run("[...document.querySelectorAll('.row:not([hidden])')]"
                            ".sort((a, b) => a.ariaRowIndex - b.ariaRowIndex)"
                            ".map(r => r.children[1].innerText)")
        assert shown == [f"web{n}.example" for n in (9999, 99990, 99993, 99996, 99999)]
        browser.type("", "#search")
        browser.run("document.querySelector('#search').value = ''; document.querySelector('#search')"
                    ".dispatchEvent(new Event('input')); document.querySelector('#table').focus()")
        browser.press("End", 35)
        browser.press("ArrowUp", 38)
        assert browser.text("#details h2") == "web99998.example"
        top = browser.run("document.querySelector('#table').scrollTop")
        daemon.post("/agent/domain/register", {"id": "{aa}", "host": "aaa.example"}, user=user)
        browser.click("#hosts .again")
        browser.wait("document.getElementById('found').innerText === '100\\u2009001 hosts'")
        assert browser.run("document.querySelector('#table').scrollTop") == top + 36
        chosen = [browser.text(at) for at in ("#details h2", ".row[aria-selected=true] .name")]
        assert chosen == ["web99998.example"] * 2
        browser.press("Escape", 27)
        browser.click(".tile:first-child")
        assert browser.text("#found") == "23 of 100\u2009001 hosts"
        take_pictures(browser, "hosts")
        assert_clean(browser, origin)


def test_hostile_registrations_are_shown_as_text(make_console):
    daemon = make_console()
    user = f"root:{daemon.password}"
    random.seed(15)
    bits = ["<img src=x onerror=alert(1)>", "<script>alert(1)</script>", "</span>", "&lt;", "&#60;",
            "{{7*7}}", "javascript:alert(1)", "${1}", "%3C", "'", "`", "--", ";", ",", "\u202e",
            "\u200b", "é", "漢", "😀", "A" * 60]
    names = ["<img src=x onerror=alert(1)>"]
    names += ["".join(random.choices(bits, k=random.randint(1, 4)))[:60] for _ in range(4999)]

    def register(i):
        fields = {"id": f"{{{i:04d}}}", "host": names[i], "osname": random.choice(bits)[:30],
                  "cputype": "<b>"}
        return daemon.post("/agent/domain/register", fields, user=user).status

    with ThreadPoolExecutor(32) as pool:
        assert set(pool.map(register, range(5000))) == {200}
    with Browser(height=4000) as browser:
        sign_in(browser, f"https://localhost:{daemon.tls_port}", "root", daemon.password)
        browser.wait("document.getElementById('found').innerText === '5\\u2009000 hosts'")
        shown = browser.run("""(async () => {
            const box = document.getElementById("table"), seen = {};
            for (let top = 0; top < box.scrollHeight; top += 3600) {
                box.scrollTop = top;
                await new Promise(requestAnimationFrame);
                await new Promise(requestAnimationFrame);
                for (const row of document.querySelectorAll(".row:not([hidden])"))
                    seen[row.querySelector(".id").textContent] = row.querySelector(".name").textContent;
            }
            return seen; })()""")
        assert shown == {f"{{{i:04d}}}": name for i, name in enumerate(names)}
        assert browser.run("document.querySelectorAll('.row .cell *, .bar img, .bar b').length") == 0
        browser.type("{0000}", "#search")
        browser.click(".row[aria-rowindex='2']")
        assert browser.text("#details h2") == names[0]
        assert browser.run("document.images.length") == 2  # the page's own marks
        assert_clean(browser, f"https://localhost:{daemon.tls_port}")


def test_rights_and_what_other_pages_can_do(make_console):
    daemon = make_console()
    origin = f"https://localhost:{daemon.tls_port}"
    listed = daemon.root / "operator/.dovmaaccess"
    daemon.user_tool("-c", daemon.config, "add", "-w", "alice", input="alices-own\n")
    grants = []

    class Foreign(QuietHandler):
        def do_GET(self):
            page = (f"<script>fetch('{origin}/admin/security/grant?user=evil&role=admin&type=user', "
                    "{mode: 'no-cors', credentials: 'include'})</script>").encode()
            self.answer(200, page, {"Content-Type": "text/html"})
            grants.append(self.path)

    address = ("127.0.0.1", free_port("upstream"))
    with http.server.ThreadingHTTPServer(address, Foreign) as foreign, Browser() as browser:
        threading.Thread(target=foreign.serve_forever, daemon=True).start()
        sign_in(browser, origin, "root", daemon.password, "rights")
        browser.wait("document.querySelector('.roles')")
        browser.type("zoe@cert.h", "#grant [name=user]")
        browser.click("#grant .primary")
        confirm(browser, "Grant the role operator in the namespace plx to the user “zoe@cert.h”?")
        browser.wait_text("#holders", "zoe@cert.h")
        assert listed.read_text() == "zoe@cert.h:user\n"
        take_pictures(browser, "rights")
        browser.click("[aria-label='Take operator away from zoe@cert.h']")
        confirm(browser, "Take the role operator in the namespace plx away from the user “zoe@cert.h”")
        browser.wait("!document.querySelector('#holders').innerText.includes('zoe')")
        assert listed.read_text() == ""
        assert browser.text("#changes").count(" the role operator in the namespace plx ") == 2
        # The browser has no login to lend, though the console is signed in.
        browser.call("Target.createTarget", url=f"http://127.0.0.1:{foreign.server_port}/",
                     background=True)
        assert eventually(lambda: re.search(r"user=evil&.*\" 401 Unauthorized",
                                            daemon.error_log.read_text()))
        assert grants and not (daemon.root / "admin/.dovmaaccess").exists()
        foreign.shutdown()
        assert_clean(browser, origin)
        # Somebody without rights is told so, in words.
        sign_in(browser, origin, "alice", "alices-own")
        browser.wait_text("#blank", "alice does not hold the role agent in the namespace plx")
        browser.run("location.hash = '#rights'")
        browser.wait_text("#holders", "alice does not hold the role admin")
        browser.type("x", "#grant [name=user]")
        browser.click("#grant .primary")
        confirm(browser, "to the user “x”")
        browser.wait_text("#said", "Not done. alice does not hold")


def test_schedule_and_daemon(make_console, tmp_path):
    (tmp_path / "schedule").write_text("start kickoff - - x x x /bin/true\n<b> - 7 - x x x /bin/true\n"
                                       "half - */30 * * * * /bin/true secret\n")
    daemon = make_console(scheduler_file=tmp_path / "schedule")
    origin = f"https://localhost:{daemon.tls_port}"
    user = f"root:{daemon.password}"
    with Browser() as browser:
        sign_in(browser, origin, "root", daemon.password, "schedule")
        marks = "[...document.querySelectorAll('.runs')].map(e => e.getAttribute('d').split('M').length - 1)"
        browser.wait(f"{marks}[1] === 48")
        every7, _, at_start = browser.run(marks)
        assert abs(every7 - 24 * 60 / 7) < 2 and at_start == 0
        ids = browser.run("[...document.querySelectorAll('.entry b')].map(e => e.innerText)")
        assert ids == ["<b>", "half", "start"] and "at start" in browser.text(".entry:last-child")
        browser.click("#rescan")
        confirm(browser, "Read the whole schedule file again?")
        browser.wait("document.querySelector('#said').innerText.startsWith('Done')")
        take_pictures(browser, "schedule")
        go(browser, "daemon")
        browser.wait("/\\d left|days left/.test(document.querySelector('#facts').innerText)")
        assert {"server of a domain", "agrees with yours"} <= set(browser.text("#facts").split("\n"))
        browser.wait_text("#lines", "3 entries")
        browser.type("SCHEDULE 3 entries", "#log-filter")
        assert "3 entries, 0 lines not loaded" in browser.text("#lines")
        browser.type(" no such words", None)
        assert browser.text("#lines") == "No line has these words."
        browser.run("document.querySelector('#log-filter').value = ''")
        browser.click("#reset")
        confirm(browser, "A broken pair is not taken up")
        browser.wait_text("#lines", "admin/security/reset")
        take_pictures(browser, "daemon")
        assert_clean(browser, origin)
        # The program tells administrators only, wherever it lies, and never a command of the schedule.
        shutil.copy(TREE / "packaging/console.cgi", daemon.root / "world/console.cgi")
        told = {show: daemon.request("GET", f"/admin/console.cgi?show={show}", user=user)
                for show in ("next", "log", "daemon", "rights", "../etc", "next;id")}
        versions = [json.loads(reply.text).get("version") for reply in told.values()]
        assert versions == [1, 1, 1, 1, None, None]
        assert "secret" not in told["next"].text and daemon.password not in str(told)
        assert "for administrators" in daemon.request("GET", "/world/console.cgi?show=log").text
        # Stopping wants a word typed.
        browser.click("#stop")
        browser.click("#dialog-yes")
        assert browser.run("document.querySelector('#dialog').open")
        browser.type("stop", "#dialog input")
        daemon.expected_end = True
        browser.click("#dialog-yes")
        browser.wait_text("#said", "The daemon has ended")
        assert daemon.process.wait(20) == 0
        browser.wait_text("#daemon .fresh", "Not refreshed")
        assert "server of a domain" in browser.text("#facts")


class Fake(QuietHandler):
    """Serves the console, and to everything else the answers that a test gives."""
    answers = {}

    def do_GET(self):
        path = self.path.split("?")[0]
        name = path.removeprefix("/world/console/") or "index.html"
        if path.startswith("/world/console/"):
            kind = {"html": "text/html", "js": "text/javascript", "css": "text/css",
                    "svg": "image/svg+xml"}[name.rsplit(".", 1)[1]]
            status, body = 200, (TREE / "console" / name).read_bytes()
        else:
            kind, (status, body) = "text/plain", self.answers.get(path, (404, "404 Not Found"))
            body = body.encode()
        self.answer(status, body, {"Content-Type": kind, "Cache-Control": "no-store"})

    do_POST = do_GET


def test_bad_answers_are_told_in_words():
    def vitals(ahead):
        return 200, json.dumps({"LOCAL_TIME": str(int(time.time()) + ahead), "DOMAIN_MODE": "TRUE"})

    host = {"hostname": "one", "hostid": "{1}", "revhostname": "", "namespaces": ["plx"], "osname": "L",
            "osrelease": "1", "cputype": "c", "pingtime": "5 seconds", "nexttime": "300 seconds",
            "status": "UP"}
    old = {key: host[key] for key in ("hostname", "hostid", "status")}
    enum, fresh = "/agent/domain/enum", "#hosts .fresh"
    Fake.answers = {"/world/getvitals": vitals(10800), enum: (200, json.dumps([host]))}
    server = http.server.ThreadingHTTPServer(("127.0.0.1", free_port("upstream")), Fake)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    origin = f"http://127.0.0.1:{server.server_port}"
    with Browser(args=["--host-resolver-rules=MAP console.test 127.0.0.1"]) as browser:
        browser.open(f"http://console.test:{server.server_port}/world/console/")
        assert "came over plain HTTP" in browser.text("#login-words")
        assert browser.run("document.getElementById('login-fields').disabled")
        sign_in(browser, origin, "root", "x")
        browser.wait("document.querySelector('#found').innerText === '1 host'")
        for answer, words in (((200, json.dumps([host, host])[:-30]), "The list broke off after 0 hosts"),
                              ((200, '{"error": 1}'), "The answer is no list of hosts."),
                              ((200, ""), "The list broke off"),
                              ((500, "500 Internal Error"), "500 Internal Error"),
                              ((403, "403 Forbidden"), "root does not hold the role agent"),
                              ((401, "no"), "refused this name and password")):
            Fake.answers[enum] = answer
            browser.click("#hosts .again")
            browser.wait_text(fresh, words)
            assert re.search(r"Not refreshed: .* What you see is \d+ s old\.", browser.text(fresh))
            assert browser.text(".row:not([hidden]) .name") == "one"
        Fake.answers[enum] = 200, json.dumps([old])
        browser.click("#hosts .again")
        browser.wait_text(fresh, "of another version: it does not tell")
        assert "pingtime" in browser.text(fresh) and "revhostname" in browser.text(fresh)
        go(browser, "daemon")
        assert "3 h ahead of yours" in browser.text("#facts")
        browser.wait_text("#lines", "The program console.cgi does")
        Fake.answers["/admin/sched/dump"] = 200, "----\nnow=  Sun Nov 22 03:34:49 2026\n"
        Fake.answers["/admin/console.cgi"] = 200, "#!/usr/bin/python3\n"
        browser.run("location.hash = '#schedule'")
        browser.wait_text("#entries", "The dump broke off before its end.")
        browser.run("location.hash = '#rights'")
        browser.wait_text("#holders", "cgi_extensions must name .cgi")
        # A collector has lists that reading empties: they are not asked for, its settings are offered.
        Fake.answers["/world/getvitals"] = 200, '{"DOMAIN_MODE": "FALSE", "DOMAINS": {"corp": {}}}'
        Fake.answers["/admin/domain/add"] = 200, ""
        go(browser, "hosts")
        browser.run("document.querySelector('.tile').focus()")
        asked = sum(enum in url for url in browser.requests)
        browser.press("r", 82)
        browser.wait_text(fresh, "not the server of a domain")
        assert sum(enum in url for url in browser.requests) == asked
        assert browser.run("document.activeElement === document.querySelector('.tile')")
        browser.click("#collectors")
        browser.type("60", "#dialog [name=freq]")
        browser.type("a:b&c", "#dialog [name=blacklist]")
        browser.click("#dialog-yes")
        browser.wait("document.querySelector('#said').innerText === 'Done: collector settings.'")
        assert browser.requests[-1].endswith("/add?domain=corp&freq=60&blacklist=a%3Ab%26c%3A")
        server.shutdown()
        server.server_close()
        browser.click("#hosts .again")
        browser.wait_text(fresh, "does not answer")
        assert browser.text(".row:not([hidden]) .name") == "one"


def test_accessibility(make_console, tmp_path):
    """By axe-core, which the npm registry has."""
    try:
        got = subprocess.run(["npm", "pack", "--silent", "axe-core@4"], cwd=tmp_path, text=True,
                             capture_output=True, check=True, timeout=120)
    except (OSError, subprocess.SubprocessError):
        pytest.skip("accessibility is not checked: axe-core cannot be had from npm")
    subprocess.run(["tar", "-xzf", got.stdout.strip()], cwd=tmp_path, check=True)
    axe = (tmp_path / "package/axe.min.js").read_text()
    (tmp_path / "schedule").write_text("half kickoff */30 * * * * /bin/true\n")
    daemon = make_console(50, scheduler_file=tmp_path / "schedule")
    with Browser() as browser:
        browser.call("Page.setBypassCSP", enabled=True)
        sign_in(browser, f"https://localhost:{daemon.tls_port}", "root", daemon.password)
        browser.run(axe + "; 1")
        for view in ("hosts", "rights", "schedule", "daemon"):
            go(browser, view)
            for width, dark in ((1440, False), (390, True), (1440, True)):
                browser.look(width, 900, dark)
                found = browser.run("axe.run().then(r => r.violations.map(v => "
                                    "[v.id, v.nodes.map(n => n.html)]))")
                assert found == [], (view, width, dark)
