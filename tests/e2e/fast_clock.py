"""Programs whose time passes only while they wait, and the minutes in which they started others."""

import os
import shutil

from dovmad_harness import eventually

LIBRARY = os.environ.get("DOVMAD_FAST_CLOCK", "")


class Clock:
    """A program's clock from `begin` to `begin` + `end` seconds; it stands still at `hold` until it is
    let go. What it starts shall be named by the last word of its command."""

    def __init__(self, folder, begin, end, hold=None):
        self.begin, self.record = int(begin), folder / "record"
        moments = [self.begin, self.begin + (end if hold is None else hold), self.begin + end]
        # Blanks part the names of preloaded libraries, and folders may have some.
        self.environment = {"LD_PRELOAD": shutil.copy(LIBRARY, folder),
                            "FAST_CLOCK": " ".join(map(str, [*moments, self.record]))}

    def __reached(self, word):
        return eventually(self.record.with_suffix(f".{word}").exists, 120)

    def held(self):
        return self.__reached("held")

    def go(self):
        self.record.with_suffix(".go").touch()

    def at_end(self):
        return self.__reached("end")

    def runs(self, lead=0):
        """(name, minute since `begin` + `lead` seconds) of every start."""
        for line in self.record.read_text().splitlines() if self.record.exists() else []:
            moment, *_, name = line.split()
            yield name, (int(moment) - self.begin - lead) // 60
