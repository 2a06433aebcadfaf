"""Directory listings of a real daemon, read by an HTML parser of another author."""

import os
import re
import time
from html.parser import HTMLParser

import pytest

from relay_support import eventually, get, receive


class Rows(HTMLParser):
    """The table's rows as [href, name, time, size]."""

    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.rows, self.cell, self.href = [], None, None

    def handle_starttag(self, tag, attrs):
        if tag == "tr":
            self.rows.append([])
        elif tag in ("td", "th"):
            self.cell = ""
        elif tag == "a":
            self.rows[-1].append(dict(attrs)["href"])

    def handle_endtag(self, tag):
        if tag in ("td", "th"):
            self.rows[-1].append(self.cell.strip("\xa0"))
            self.cell = None

    def handle_data(self, data):
        if self.cell is not None:
            self.cell += data


def listing(reply):
    parser = Rows()
    parser.feed(reply.text)
    assert parser.rows[0] == ["Name", "Modified", "Size"]
    return {row[1]: row for row in parser.rows[2:]}


def test_listing(make_daemon):
    daemon = make_daemon()
    folder = daemon.root / "d"
    (folder / "sub").mkdir(parents=True)
    (folder / ".dovmaaccess").write_text("secret")
    for name, size in (("a", 1023), ("b", 1024), (".hidden", 3 << 20)):
        (folder / name).touch()
        os.truncate(folder / name, size)
        os.utime(folder / name, (1700000000, 1700000000))
    reply = daemon.request("GET", "/d/")
    assert reply.status == 200 and reply.header("Content-Type") == "text/html; charset=utf-8"
    rows = listing(reply)
    assert set(rows) == {"../", "sub/", "a", "b", ".hidden"}
    when = time.strftime("%d-%b-%Y %H:%M", time.localtime(1700000000))
    assert rows["a"] == ["/d/a", "a", when, "1023"]
    assert rows["b"] == ["/d/b", "b", when, "2k"]
    assert rows[".hidden"] == ["/d/.hidden", ".hidden", when, "3.0M"]
    assert rows["sub/"][0] == "/d/sub" and rows["sub/"][3] == "<DIR>"
    assert daemon.request("GET", rows["a"][0]).body == bytes(1023)
    assert daemon.request("GET", "/d").status == 301
    (folder / "index.html").write_text("INDEX")
    assert daemon.request("GET", "/d/").text == "INDEX"
    denied = make_daemon(list_directories=0)
    (denied.root / "d").mkdir()
    assert denied.request("GET", "/d/").status == 403


@pytest.mark.parametrize("buffer_bytes", [2560, 4000, 16384])
def test_five_thousand_entries_and_a_slow_reader(make_daemon, buffer_bytes):
    daemon = make_daemon(io_buf_size=buffer_bytes)
    folder = daemon.root / "d"
    folder.mkdir()
    names = {f"entry-{i:05}-{'x' * (i % 200)}" for i in range(5000)}
    for name in names:
        (folder / name).touch()
    assert set(listing(daemon.request("GET", "/d/"))) == names | {"../"}
    before = daemon.fd_count()
    with daemon.connect() as sock:
        sock.settimeout(60)
        sock.sendall(get("/d/"))
        time.sleep(0.5)  # until nothing fits between the two
        rows = re.findall(rb">(entry-[^<]*)</a>", receive(sock))
    assert sorted(rows) == sorted(name.encode() for name in names)
    with daemon.connect() as sock:  # and one that leaves
        sock.sendall(get("/d/"))
        assert sock.recv(10)
    assert eventually(lambda: daemon.fd_count() <= before)


def test_body_of_the_request_is_no_second_request(make_daemon):
    daemon = make_daemon()
    (daemon.root / "d").mkdir()
    smuggled = b"GET /world/ping HTTP/1.1\r\n\r\n"
    reply = daemon.raw(b"GET /d/ HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(smuggled) + smuggled)
    assert reply.count(b"HTTP/1.1 ") == 1 and b"Index of /d/" in reply
