"""Kills a daemon while it grants and denies rights in a long access file (see kill_support)."""

import re

import kill_support

KEPT = [f"keeper{i:03}@local.example:user" for i in range(200)] + \
       [f"crew{i:02}:group" for i in range(20)]
TOGGLED = [f"toggle{i}@local.example" for i in range(8)]
LINE = re.compile(r"(keeper\d{3}@local\.example:user|crew\d\d:group|toggle\d@local\.example:user)")


def kill_during_rewrites(make_daemon, _folder, kills, seed):
    daemon = make_daemon()
    path = daemon.root / "operator" / ".dovmaaccess"
    path.parent.mkdir(exist_ok=True)
    path.write_text("".join(line + "\n" for line in KEPT))

    def change(name, joins):
        action = "grant" if joins else "deny"
        query = f"user={name}&role=operator&type=user"
        return kill_support.ask(daemon, "GET", f"/admin/security/{action}?{query}")

    def present():
        lines = kill_support.whole_lines(path)
        for line in lines:
            assert LINE.fullmatch(line), f"half a line: {line!r}"
        missing = set(KEPT) - set(lines)
        assert not missing, f"lost: {sorted(missing)[:5]}"
        return {name for name in TOGGLED if f"{name}:user" in lines}

    return kill_support.kill_repeatedly(daemon, kills, seed, TOGGLED, change=change,
                                        present=present)
