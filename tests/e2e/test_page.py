"""Pages as a browser sees them: headless Chromium over the TLS port, through the proxy, and on
generated pages."""

import base64
import http.server
import os
import shutil
import subprocess
import tempfile
import threading

import pytest

from dovmad_harness import free_port

CHROMIUM = shutil.which("chromium")
pytestmark = pytest.mark.skipif(CHROMIUM is None, reason="Chromium is not installed")


# An image, 9 wide and 1 high.
PNG = base64.b64decode("iVBORw0KGgoAAAANSUhEUgAAAAkAAAABAQAAAAAkubnQAAAAC0lEQVR4nGNY1QAAAdcBK2xU"
                       "ELIAAAAASUVORK5CYII=")


def dump_dom(url):
    """The document after its scripts have run."""
    # Chromium binds a socket below its TMPDIR, whose path must be short.
    with tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True) as folder:
        result = subprocess.run(
            [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--ignore-certificate-errors", "--virtual-time-budget=5000",
             f"--user-data-dir={folder}/profile", "--dump-dom", url],
            capture_output=True, timeout=120, check=False, env=dict(os.environ, TMPDIR=folder))
    assert result.returncode == 0, result.stderr[-2000:]
    return result.stdout.decode()


def write_page(folder):
    """A page that says which style and image it has been given."""
    (folder / "style.css").write_text("#mark { width: 321px; color: rgb(1, 2, 3); }")
    (folder / "dot.png").write_bytes(PNG)
    (folder / "page.html").write_text("""<!doctype html><link rel="stylesheet" href="style.css">
<p id="mark">text</p><img id="dot" src="dot.png"><p id="out">pending</p><script>
addEventListener("load", () => {
  const style = getComputedStyle(document.getElementById("mark"));
  const image = document.getElementById("dot");
  document.getElementById("out").textContent =
    [style.width, style.color, image.naturalWidth, image.complete].join(" ");
});</script>""")


WHOLE_PAGE = "321px rgb(1, 2, 3) 9 true"


def test_page_with_style_sheet_and_image_over_tls(make_daemon):
    daemon = make_daemon(auth=True)
    (daemon.root / "world").mkdir()
    write_page(daemon.root / "world")
    assert WHOLE_PAGE in dump_dom(f"https://localhost:{daemon.tls_port}/world/page.html")


def test_page_of_another_server_through_the_proxy(make_daemon, tmp_path):
    daemon = make_daemon()
    folder = tmp_path / "site"
    folder.mkdir()
    write_page(folder)
    asked = []

    class Handler(http.server.SimpleHTTPRequestHandler):
        def __init__(self, *args):
            super().__init__(*args, directory=folder)

        def log_request(self, *args):
            asked.append(self.path)

    with http.server.ThreadingHTTPServer(("127.0.0.1", free_port("upstream")), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        target = f"http://127.0.0.1:{server.server_port}/page.html"
        dom = dump_dom(f"http://127.0.0.1:{daemon.port}/{target}")
        server.shutdown()
    assert WHOLE_PAGE in dom
    assert {"/page.html", "/style.css", "/dot.png"} <= set(asked)


def test_generated_pages(make_daemon):
    """A listing and a page with includes."""
    daemon = make_daemon(ssi_extensions=".shtml")
    (daemon.root / "list").mkdir()
    for i in range(50):
        (daemon.root / "list" / f"entry-{i}.txt").write_text("x")
    dom = dump_dom(f"http://127.0.0.1:{daemon.port}/list/")
    assert dom.count(">entry-") == 50 and "Index of /list/" in dom
    (daemon.root / "part.txt").write_text("<b>included part</b>")
    (daemon.root / "page.shtml").write_text('<p>a<!--#include virtual="part.txt" -->z</p>')
    assert "<p>a<b>included part</b>z</p>" in dump_dom(
        f"http://127.0.0.1:{daemon.port}/page.shtml")
