"""Server-side includes as clients of a real daemon see them."""

import os
import signal
import threading

import pytest

from relay_support import calms_down, eventually, get, leaving_nothing, receive, until_close


def make(make_daemon, **options):
    return make_daemon(ssi_extensions=".shtml,.shtm", **options)


def test_slow_command_stops_nobody(make_daemon):
    daemon = make(make_daemon)
    gate = daemon.dir / "gate"
    os.mkfifo(gate)
    daemon.write("slow.shtml", f'(<!--#exec "cat {gate}; echo late"-->)')
    result = []
    slow = threading.Thread(target=lambda: result.append(daemon.request("GET", "/slow.shtml").text))
    slow.start()
    with open(gate, "w") as hold:  # returns when the command has begun to read
        assert calms_down(daemon)
        for _ in range(20):
            assert daemon.request("GET", "/world/ping").status == 200
        assert result == []
        hold.write("held ")
    slow.join()
    assert result == ["(held late\n)"]


def test_pages_that_work_without_writing_let_others_in(make_daemon):
    daemon = make(make_daemon)
    for level in range(5):  # 24 million includes that come to nothing
        daemon.write(f"{level}.shtml", f'<!--#include virtual="{level + 1}.shtml"-->' * 30)
    daemon.write("5.shtml", "")
    daemon.write("long.shtml", "<!--#if no-->" + "x" * 5_000_000 + "<!--#endif-->end")
    with daemon.connect() as deep:
        deep.sendall(get("/0.shtml"))
        assert receive(deep, b"\r\n\r\n")
        assert until_close(daemon, get("/long.shtml")).endswith(b"\r\n\r\nend")
        deep.setblocking(False)
        with pytest.raises(BlockingIOError):
            deep.recv(1)
    assert calms_down(daemon)


def test_nothing_is_left_behind(make_daemon):
    daemon = make(make_daemon)
    daemon.write("quick.shtml", '<!--#exec "true"--><!--#include "/nonexistent"-->')
    daemon.write("endless.shtml", '<!--#exec "yes"-->')
    daemon.write("quiet.shtml", '<!--#exec "exec sleep 1000"-->')
    daemon.request("GET", "/quick.shtml")
    with leaving_nothing(daemon):
        for _ in range(50):
            daemon.request("GET", "/quick.shtml")
        clients = []
        for page in ("endless", "quiet") * 5:
            clients += daemon.begin(get(f"/{page}.shtml"))
            assert clients[-1].recv(10)
        for sock in clients:
            sock.close()
    # The sleepers have no output that would end them.
    assert eventually(lambda: len(daemon.children()) == 5)
    for child in daemon.children():
        os.kill(child, signal.SIGTERM)
    assert "ssi: fopen(/nonexistent): No such file or directory" in daemon.stderr_text()
