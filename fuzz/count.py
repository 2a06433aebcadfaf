#!/usr/bin/python3
"""Adds a run's executions to the counts: fuzz/count.py TARGET NUMBER."""

import fcntl
import json
import os
import sys
from pathlib import Path

counts_file = Path(__file__).with_name("executions.json")
target, number = sys.argv[1], int(sys.argv[2])
# Several runs may end at once. The folder is locked, not the file: that is replaced.
folder = os.open(counts_file.parent, os.O_RDONLY)
fcntl.flock(folder, fcntl.LOCK_EX)
counts = json.loads(counts_file.read_text())
counts[target] = counts.get(target, 0) + number
new = counts_file.with_suffix(".new")
new.write_text(json.dumps(dict(sorted(counts.items())), indent=1) + "\n")
new.replace(counts_file)
