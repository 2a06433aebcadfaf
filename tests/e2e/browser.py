"""Headless Chromium, driven by the DevTools protocol over a pipe: one page, what it asked for, what it
complained about, its pictures and its figures."""

import base64
import fcntl
import itertools
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

CHROMIUM = shutil.which("chromium")


class Browser:
    """A page in a browser of its own; a context manager."""

    def __init__(self, width=1440, height=900, args=()):
        # Chromium binds a socket below its TMPDIR, whose path must be short.
        self._folder = tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True)
        # It reads commands from descriptor 3 and writes to 4, which the pipes must not have themselves.
        ends = [*os.pipe(), *os.pipe()]
        to_child, self._out, self._in, from_child = (
            fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in ends)
        for end in ends:
            os.close(end)
        self.process = subprocess.Popen(
            ["bash", "-c", f'exec "$@" 3<&{to_child} 4>&{from_child}', "bash", CHROMIUM, "--headless",
             "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--ignore-certificate-errors", "--enable-precise-memory-info", "--hide-scrollbars",
             f"--user-data-dir={self._folder.name}/profile", "--remote-debugging-pipe", *args,
             "about:blank"],
            pass_fds=(to_child, from_child), env=dict(os.environ, TMPDIR=self._folder.name),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_child)
        os.close(from_child)
        self._ids, self._received = itertools.count(1), b""
        self.requests, self.problems = [], []
        self._session = None
        target = next(t for t in self.call("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self._session = self.call("Target.attachToTarget", targetId=target["targetId"],
                                  flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log", "Performance"):
            self.call(f"{domain}.enable")
        self.look(width, height)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        os.close(self._in)
        os.close(self._out)
        self._folder.cleanup()

    def call(self, method, **params):
        number = next(self._ids)
        message = {"id": number, "method": method, "params": params}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + 60
        while True:
            answer = self._next(deadline)
            if answer.get("id") == number:
                assert "error" not in answer, (method, answer["error"])
                return answer["result"]
            self._note(answer)

    def _next(self, deadline):
        while b"\0" not in self._received:
            assert select.select([self._in], [], [], deadline - time.monotonic())[0], "no answer"
            chunk = os.read(self._in, 1 << 20)
            assert chunk, "the browser has ended"
            self._received += chunk
        message, _, self._received = self._received.partition(b"\0")
        return json.loads(message)

    def _note(self, event):
        params = event.get("params", {})
        if event["method"] == "Network.requestWillBeSent":
            self.requests.append(params["request"]["url"])
        elif event["method"] == "Runtime.exceptionThrown":
            self.problems.append(params["exceptionDetails"])
        elif event["method"] == "Runtime.consoleAPICalled" and params["type"] == "error":
            self.problems.append(params["args"])
        elif event["method"] == "Log.entryAdded" and params["entry"]["level"] == "error":
            self.problems.append(params["entry"])
        elif event["method"] == "Page.javascriptDialogOpening":
            self.problems.append(params)
            self.call("Page.handleJavaScriptDialog", accept=True)

    def look(self, width, height, dark=False):
        """The window's size, and the reader's preference."""
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def open(self, url):
        self.call("Page.navigate", url=url)
        self.wait("document.readyState === 'complete'")

    def run(self, script):
        """The value of an expression in the page; promises are awaited."""
        result = self.call("Runtime.evaluate", expression=script, awaitPromise=True,
                           returnByValue=True, userGesture=True)
        assert "exceptionDetails" not in result, (script, result["exceptionDetails"])
        return result["result"].get("value")

    def wait(self, script, seconds=60):
        """Waits until an expression is true."""
        deadline = time.monotonic() + seconds
        while not self.run(f"!!({script})"):
            assert time.monotonic() < deadline, (script, self.text(), self.problems)
            time.sleep(0.02)

    def wait_text(self, selector, words):
        """Waits until an element shows these words."""
        self.wait(f"document.querySelector({json.dumps(selector)})?.innerText"
                  f".includes({json.dumps(words)})")

    def text(self, selector="body"):
        return self.run(f"document.querySelector({json.dumps(selector)}).innerText")

    def click(self, selector):
        """A press of the mouse in the middle of an element, once it has been painted."""
        x, y = self.run("new Promise(f => requestAnimationFrame(() => requestAnimationFrame(f)))"
                        f".then(() => {{ const r = document.querySelector({json.dumps(selector)})"
                        ".getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / 2] })")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def type(self, text, selector=None):
        """Types into an element, in place of what it holds."""
        if selector:
            self.run("(e => { e.focus(); e.select?.() })"
                     f"(document.querySelector({json.dumps(selector)}))")
        self.call("Input.insertText", text=text)

    def press(self, key, code=0):
        for kind in ("rawKeyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key,
                      windowsVirtualKeyCode=code)

    def picture(self, path):
        path.write_bytes(base64.b64decode(self.call("Page.captureScreenshot")["data"]))
