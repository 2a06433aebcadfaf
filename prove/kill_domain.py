"""Kills a domain server while hosts enrol and leave; each next start must read the file back whole
(see kill_support)."""

import json
import re

import kill_support

KEPT = {f"keeper{i:03}" for i in range(300)}
WRITERS = 32
MOVING = [f"mover{i}" for i in range(4 * WRITERS)]
LINE = re.compile(r"host-(\w+):[^:]*:(\w+):Linux:6\.1:x86_64:plx")


def kill_during_enrolments(make_daemon, folder, kills, seed):
    path = folder / "domain"
    path.write_text("".join(f"host-{name}::{name}:Linux:6.1:x86_64:plx\n"
                            for name in sorted(KEPT)))
    daemon = make_daemon(domain_file=path)

    def change(name, joins):
        action = "register" if joins else "unregister"
        body = f"id={name}&host=host-{name}&osname=Linux&osrelease=6.1&cputype=x86_64"
        return kill_support.ask(daemon, "POST", f"/agent/domain/{action}", body)

    def present():
        ids = []
        for line in kill_support.whole_lines(path):
            match = LINE.fullmatch(line)
            assert match and match[1] == match[2], f"half a line: {line!r}"
            ids.append(match[2])
        assert len(ids) == len(set(ids)), "a host stands twice"
        missing = KEPT - set(ids)
        assert not missing, f"lost: {sorted(missing)[:5]}"
        return set(ids) - KEPT

    def look(held):
        hosts = json.loads(daemon.request("GET", "/agent/domain/enum?format=json").text)
        assert {host["hostid"] for host in hosts} == KEPT | held, "read back by the restart"

    return kill_support.kill_repeatedly(daemon, kills, seed, MOVING, change=change,
                                        present=present, look=look, writers=WRITERS)
