"""How the binaries were built. script/package asks the same of the packages' files, there with
DOVMAD_OPTIMISED set."""

import os
import re
import subprocess

import pytest

FILES = [os.environ[name] for name in ("DOVMAD_BINARY", "DOVMAD_PROVIDER", "DOVMAD_USER_TOOL")
         if name in os.environ]


def readelf(*arguments):
    return subprocess.run(["readelf", "-W", *arguments], capture_output=True, text=True,
                          check=True).stdout


@pytest.mark.parametrize("path", FILES, ids=os.path.basename)
def test_binaries_are_hardened(path):
    head = readelf("-h", "-l", "-d", path)
    assert re.search(r"Type: +DYN", head)
    assert "GNU_RELRO" in head and re.search(r"FLAGS_1.*NOW", head)  # both: full RELRO
    assert re.search(r"GNU_STACK.* RW ", head), "executable stack"
    assert "RWE" not in head and "TEXTREL" not in head and "RPATH" not in head
    assert path.endswith(".so") or re.search(r"FLAGS_1.*PIE", head)
    symbols = readelf("--dyn-syms", path)
    assert "__stack_chk_fail" in symbols
    if "DOVMAD_OPTIMISED" in os.environ:
        assert re.search(r"UND __\w+_chk@", symbols.replace("__stack_chk", "")), "no FORTIFY"
        with open(path, "rb") as file:
            folder = os.environ["DOVMAD_OPTIMISED"]
            assert folder.encode() not in file.read(), "the build's folder is in the file"


@pytest.mark.skipif("DOVMAD_LIBRARIES" not in os.environ or os.uname().machine != "x86_64",
                    reason="object files of x86-64 only")
def test_every_object_has_control_flow_protection():
    for library in os.environ["DOVMAD_LIBRARIES"].split(":"):
        # The final links take in objects of the compiler that lack the mark; ours all have it.
        notes = readelf("-n", library)
        objects = notes.count("File: ")
        assert objects > 3 and len(re.findall(r"x86 feature: IBT, SHSTK", notes)) == objects
