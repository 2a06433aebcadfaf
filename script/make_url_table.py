"""Writes tests/core/url_decode_table.txt: hexadecimal source, blank, hexadecimal result as Python decodes it."""

import random
from pathlib import Path
from urllib.parse import unquote_to_bytes

FIXED = ["", "%", "%4", "%41", "%4g", "%g1", "%%41", "%2541", "a+b", "%2B", "%00x", "%fF%Ff", "%e4%C3",
         "100%", "100%2", "+%20+", "%-1", "% 1", "%+1"]
ALPHABET = "%%%%++0123456789abcdefABCDEFgGxz -./\xff\x01"


def main():
    rng = random.Random(20130)
    sources = [s.encode("latin-1") for s in FIXED]
    sources += ["".join(rng.choices(ALPHABET, k=rng.randint(1, 24))).encode("latin-1")
                for _ in range(200)]
    lines = [f"{s.hex()} {unquote_to_bytes(s.replace(b'+', b' ')).hex()}\n" for s in sources]
    table = Path(__file__).resolve().parents[1] / "tests" / "core" / "url_decode_table.txt"
    table.write_text("".join(lines))


main()
