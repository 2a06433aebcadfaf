"""Programs on a clock that is fast, and the moments at which they started their children."""

import os
import time

LIBRARY = os.environ.get("DOVMAD_FAST_CLOCK", "")
SPEED = 12


def setting(real, begin):
    """The variables for a program whose clock says `begin` when the system's says `real`."""
    return {"LD_PRELOAD": LIBRARY, "FAST_CLOCK": f"{int(real * 1e9)} {int(begin)} {SPEED}"}


class Marks:
    """A program that notes, for the job that it is given, when its own process began: that is when
    it was started, however long it had to wait for the processor since."""

    def __init__(self, folder):
        self.file, self.program = folder / "marks", folder / "mark"
        self.program.write_text('#!/bin/sh\nread -r line </proc/$$/stat\n'
                                f'echo "$1 ${{line##*) }}" >>{self.file}\n')
        self.program.chmod(0o755)

    def minutes(self, real):
        """(job, minute of the fast clock since the moment `real`) of every start."""
        text = self.file.read_text() if self.file.exists() else ""
        booted = time.time() - time.clock_gettime(time.CLOCK_BOOTTIME)
        ticks = os.sysconf("SC_CLK_TCK")
        for row in text.splitlines():
            job, *fields = row.split()
            yield job, int((booted + int(fields[19]) / ticks - real) * SPEED // 60)
