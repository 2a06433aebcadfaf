"""A page of another server, as headless Chromium sees it through the proxy. (The console has pages of
the daemon's own.)"""

import base64
import http.server
import threading

import pytest
from browser import CHROMIUM, Browser
from dovmad_harness import free_port

pytestmark = pytest.mark.skipif(CHROMIUM is None, reason="Chromium is not installed")


# An image, 9 wide and 1 high.
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAkAAAABAQAAAAAkubnQAAAAC0lEQVR4nGNY1QAAAdcBK2xU"
                       "ELIAAAAASUVORK5CYII=")


def test_page_of_another_server_through_the_proxy(make_daemon, tmp_path):
    daemon = make_daemon()
    (tmp_path / "style.css").write_text("#mark { width: 321px; color: rgb(1, 2, 3); }")
    (tmp_path / "dot.png").write_bytes(PNG)
    (tmp_path / "page.html").write_text('<!doctype html><link rel="stylesheet" href="style.css">'
                                        '<p id="mark">text</p><img id="dot" src="dot.png">')
    asked = []

    class Handler(http.server.SimpleHTTPRequestHandler):
        def __init__(self, *args):
            super().__init__(*args, directory=tmp_path)

        def log_request(self, *args):
            asked.append(self.path)

    with http.server.ThreadingHTTPServer(
            ("127.0.0.1", free_port("upstream")), Handler) as server, Browser() as browser:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        target = f"http://127.0.0.1:{server.server_port}/page.html"
        browser.open(f"http://127.0.0.1:{daemon.port}/{target}")
        assert browser.run("(s => [s.width, s.color, dot.naturalWidth])(getComputedStyle(mark))") \
            == ["321px", "rgb(1, 2, 3)", 9]
        server.shutdown()
    assert {"/page.html", "/style.css", "/dot.png"} <= set(asked)
