"""The other end of fault_shim.c: lets the calls of a daemon fail."""

import errno
import mmap
import shutil
import struct

KINDS = {"malloc": errno.ENOMEM, "open": errno.EMFILE, "read": errno.EIO, "write": errno.ENOSPC,
         "fsync": errno.EIO, "rename": errno.EIO, "fork": errno.EAGAIN, "socket": errno.EMFILE,
         "accept": errno.EMFILE, "connect": errno.EADDRNOTAVAIL, "wait": errno.EINTR,
         "stat": errno.EACCES}
FIELDS = ("armed", "left", "error", "calls", "hits", "live", "clock_s", "foreign")
NEVER = 1 << 60


class Faults:
    """One control file; `environment` attaches a program to it."""

    def __init__(self, shim, path):
        path.write_bytes(bytes(4096))
        # The loader parts its list by blanks, which the folder of a build may have in its name.
        self.environment = {"LD_PRELOAD": shutil.copy(shim, path.parent), "FAULT_CONTROL": str(path)}
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), 4096)

    def get(self, field):
        return struct.unpack_from("q", self.page, 8 * FIELDS.index(field))[0]

    def set(self, field, value):
        struct.pack_into("q", self.page, 8 * FIELDS.index(field), value)

    def arm(self, kind, nth=None, error=None, part=""):
        """The n-th call from now on fails (from 0); without a number all are only counted."""
        self.disarm()
        text = part.encode() + b"\0"
        at = 8 * len(FIELDS)
        self.page[at:at + len(text)] = text
        self.set("foreign", 0)
        self.set("calls", 0)
        self.set("hits", 0)
        self.set("left", NEVER if nth is None else nth)
        self.set("error", KINDS[kind] if error is None else error)
        self.set("armed", 1 + list(KINDS).index(kind))

    def disarm(self):
        """(calls, failures) since it was armed."""
        self.set("armed", 0)
        return self.get("calls"), self.get("hits")
