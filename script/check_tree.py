#!/usr/bin/env python3
"""Checks of the whole tree that no compiler makes: which folder may include which, sizes of files,
the shares of comments and tests. Ends with 1 on any finding."""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LINES_MAX = 600

# Folder -> folders it may include, itself apart. Shim files live in security/ but are leaf code.
ALLOWED = {
    "lib": {"shim"},  # only for sec_uri.h, see below
    "shim": {"lib"},
    "core": {"lib", "shim"},
    "handlers": {"core", "lib", "shim"},
    "security": {"core", "lib", "shim"},
    "sched": {"core", "lib"},
    "domain": {"security", "core", "lib"},
    "provider": {"security", "core", "lib", "shim"},
    "check": {"sched", "domain", "handlers", "security", "core", "lib", "shim", "provider"},
}
# No part of the product: they look at everything.
ONLOOKERS = {"tests", "bench", "fuzz", "prove", "packaging"}
# These compose the daemon and may include everything.
COMPOSITION = {"core/config.cc", "core/route.cc", "core/shttpd.cc", "core/standalone.cc"}
SHIM = re.compile(r"security/(api\w*|at_\w+|tpk_make_path|sec_uri\w*)\.(h|cc)$")


def layer(path):
    return "shim" if SHIM.match(path) else path.split("/", 1)[0]


def tracked():
    names = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout.splitlines()
    return [name for name in names if (ROOT / name).is_file()]


def include_findings(name, text):
    own = layer(name)
    if name in COMPOSITION or own in ONLOOKERS:
        return
    if own not in ALLOWED:
        yield f"{name}: no row says what {own}/ may include"
        return
    for target in re.findall(r'^#include "([^"]+)"', text, re.MULTILINE):
        if "/" not in target:
            yield f"{name}: includes \"{target}\" without its folder"
            continue
        other = layer(target)
        if other == own:
            continue
        if other not in ALLOWED[own] or (own == "lib" and not target.startswith("security/sec_uri")):
            yield f"{name}: {own} must not include {target}"


def code_lines(names):
    return sum(1 for name in names
               for line in (ROOT / name).read_text(errors="replace").splitlines() if line.strip())


def comment_share(names):
    """Percentage of comment-only lines among all lines that say something."""
    lines = [line.strip() for name in names
             for line in (ROOT / name).read_text(errors="replace").splitlines() if line.strip()]
    comments = sum(1 for line in lines if line.startswith("//"))
    return 100 * comments // max(len(lines), 1)


def main():
    names = tracked()
    findings = []
    for name in names:
        data = (ROOT / name).read_bytes()
        if b"\0" in data[:8192]:
            continue
        text = data.decode(errors="replace")
        if name.endswith((".cc", ".h")):
            findings.extend(include_findings(name, text))
            if text.count("\n") > LINES_MAX:
                findings.append(f"{name}: {text.count(chr(10))} lines, more than {LINES_MAX}")

    code = [n for n in names if re.search(r"\.(cc|h|py|sh|js|cgi)$", n) or
            n.startswith(("script/", "fleet/dovmad"))]
    counted = [n for n in code if not n.startswith(("bench/", "fuzz/", "prove/"))]
    tests = code_lines([n for n in counted if n.startswith("tests/")])
    print(f"tests: {tests} of {code_lines(counted)} code lines "
          f"({100 * tests // max(code_lines(counted), 1)} %)")
    product = [n for n in counted if not n.startswith("tests/")]
    print(f"comments: {comment_share([n for n in product if n.endswith('.h')])} % of the headers' "
          f"lines, {comment_share([n for n in product if n.endswith('.cc')])} % of the sources'")
    for finding in findings:
        print(finding)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
