"""Directory listings of a real daemon, byte by byte."""

import os
import re
import time

import pytest

from relay_support import get, leaving_nothing, receive, until_close

HEAD = ("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/html; charset=utf-8\r\n\r\n"
        "<html><head><title>Index of /d/</title><style>th {text-align: left;}</style></head>"
        "<body><h1>Index of /d/</h1><pre><table cellpadding=\"0\">"
        "<tr><th>Name</th><th>Modified</th><th>Size</th></tr>"
        "<tr><td colspan=\"3\"><hr></td></tr>")
ROW = re.compile(r'<tr><td><a href="/d/([^"]+)">(\1/?)</a></td><td>&nbsp;(..-...-.... ..:..)</td>'
                 r'<td>&nbsp;&nbsp;([^<]*)</td></tr>\n')


def listing(reply):
    """The rows as name: (time, size); nothing but rows may follow the head."""
    text = reply.decode()
    assert text.startswith(HEAD) and not ROW.sub("", text[len(HEAD):])
    rows = [match.groups() for match in ROW.finditer(text)]
    assert len(rows) == len({row[0] for row in rows})
    return {row[1]: row[2:] for row in rows}


def test_rows(make_daemon):
    daemon = make_daemon()
    folder = daemon.root / "d"
    folder.mkdir()
    assert set(listing(until_close(daemon, get("/d/")))) == {"../"}
    sizes = {"a": (0, "0"), "b": (1023, "1023"), "c": (1024, "2k"), "d": (1048575, "1024k"),
             "e": (1048576, "1.0M"), "f": (2097152, "2.0M"), ".hidden": (3 << 30, "3072.0M"),
             "<b>&'> %41": (1536, "2k"), ".dovmaaccess": (10, None)}
    for name, (size, _) in sizes.items():
        (folder / name).touch()
        os.truncate(folder / name, size)
        os.utime(folder / name, (1700000000, 1700000000))
    (folder / "sub").mkdir()
    (folder / "dangling").symlink_to("nowhere")
    rows = listing(until_close(daemon, get("/d/")))
    when = time.strftime("%d-%b-%Y %H:%M", time.localtime(1700000000))
    for name, (_, text) in sizes.items():
        assert rows.pop(name, None) == (text and (when, text)), name
    # What has no status of its own shows that of the entry before it.
    assert set(rows) - {"dangling/"} | {"dangling"} == {"../", "sub/", "dangling"}
    assert daemon.request("GET", "/d/b").body == bytes(1023)


def test_when_there_is_a_listing(make_daemon):
    daemon = make_daemon(io_buf_size=2559)
    (daemon.root / "d").mkdir()
    # A buffer in which no row has room leaves the head.
    assert until_close(daemon, get("/d/")) == HEAD.encode()
    # The body of the request is no second request.
    smuggled = get("/world/ping")
    request = get("/d/", f"Content-Length: {len(smuggled)}") + smuggled
    assert until_close(daemon, request) == HEAD.encode()
    daemon.write("d/index.html", "INDEX")
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
    with leaving_nothing(daemon):
        with daemon.connect() as sock:
            sock.settimeout(60)
            sock.sendall(get("/d/"))
            time.sleep(0.5)  # until nothing fits between the two
            assert set(listing(receive(sock))) == names | {"../"}
        with daemon.begin(get("/d/"))[0] as sock:  # and one that leaves
            assert sock.recv(10)
