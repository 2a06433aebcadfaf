"""What the tests of programs, pages and targets share: requests, whole replies, and waiting."""

import contextlib
import time

from dovmad_harness import SANITIZED_BUILD, eventually, receive_until_end


def calms_down(daemon):
    """Whether the daemon, once its clients have settled, waits without using the processor."""
    def rests():
        before = daemon.cpu_seconds()
        time.sleep(1)
        return daemon.cpu_seconds() - before < 0.05
    return eventually(rests)


@contextlib.contextmanager
def leaving_nothing(daemon, kib=None):
    """Nothing of the block keeps a descriptor open, nor more memory than `kib` in use."""
    daemon.request("GET", "/world/ping")
    descriptors, memory = daemon.fd_count(), daemon.rss_kib()
    yield
    assert eventually(lambda: daemon.fd_count() <= descriptors)
    # Under AddressSanitizer freed memory is held back; its leak check stands in.
    assert SANITIZED_BUILD or kib is None or daemon.rss_kib() < memory + kib


def get(uri, *headers, method="GET", body=b""):
    lines = [f"{method} {uri} HTTP/1.1", *headers]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join([*lines, "", ""]).encode() + body


def receive(sock, end=None):
    """What comes up to `end`, or else until the daemon closes."""
    received = receive_until_end(sock, end and (lambda so_far: so_far.endswith(end)))
    assert received.endswith(end) if end else received.end == "closed", received[-500:]
    return received


def until_close(daemon, *pieces):
    """The whole reply to pieces that arrive apart; fails unless the daemon ends it by closing."""
    with daemon.connect() as sock:
        sock.settimeout(60)
        for piece in pieces[:-1]:
            sock.sendall(piece)
            time.sleep(0.05)
        sock.sendall(pieces[-1])
        return receive(sock)
