#!/usr/bin/python3
"""Makes tests/sched/planning_table.txt: when other code says that schedules are due.

croniter (Debian: python3-croniter) finds the matching wall-clock times without any time zone, and
zoneinfo turns each into instants: none for a time that a daylight-saving change skips, two for one
that it repeats, which is how the scheduler judges them. Run by hand; the table is committed.

Left out are forms that croniter reads differently (days that spell out every value, "sun" as the
end of a range), and rows on which it contradicts itself: searching forward it can lose the first
of March of a leap year, which searching backward it finds.
"""

import random
import sys
from datetime import datetime, timedelta, timezone
from zoneinfo import ZoneInfo

from croniter import croniter

# Each zone with its rule for the test, which then needs no time zone files.
ZONES = {
    "UTC": "UTC0",
    "Europe/Berlin": "CET-1CEST,M3.5.0,M10.5.0/3",
    "Europe/London": "GMT0BST,M3.5.0/1,M10.5.0",
    "America/New_York": "EST5EDT,M3.2.0,M11.1.0",
    "America/St_Johns": "NST3:30NDT,M3.2.0,M11.1.0",
    "Asia/Kolkata": "IST-5:30",
    "Australia/Lord_Howe": "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
    "Asia/Kathmandu": "<+0545>-5:45",
}
LATE_ZONE = {"Pacific/Chatham": "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45"}
# A leap day, the turn of a year, and moments between.
STARTS = ["2024-02-28 22:59:59", "2024-12-31 23:58:20", "2025-06-15 10:30:00",
          "2026-01-01 00:00:00", "2026-11-21 05:12:34"]
HAND_WRITTEN = """
* * * * *|*/5 * * * *|*/7 * * * *|0 * * * *|59 * * * *|0,30 * * * *|30 1 * * *|30 2 * * *
0 2 * * *|0 3 * * *|15 1,2,3 * * *|*/20 0-4 * * *|*/15 8-17 * * mon-fri|0 0 * * 7|0 0 * * 0
0 0 * * sun|0 12 * * SAT|5 4 * jan,jul *|5 4 * JAN-mar *|0 0 1 1 *|59 23 31 12 *|0 0 29 2 *
0 0 31 * *|0 0 30 * *|10 6 13 * fri|10 6 1-7 * mon|0 0 1,15 * wed|1-59/2 * * * *|0-30/10 3 * * *
5-55/25 */6 * * *|0 */5 * * *|0 0 */10 * *|0 0 * */4 *|0 0 * * 1-5|0 0 * * 1,3,5|23 0-23/2 * * *
45 23 28-31 * *|0 6 * 3,10 sun|*/30 1-2 * 3,10,11,4 *|0 0 2-30/7 * *|0 0 * * tue-thu
""".replace("\n", "|")


def random_field(rng, low, high, names=None):
    """A random field, and never one that only spells out every value."""
    kind = rng.randrange(6)
    if kind < 2:
        return "*"
    if kind == 2:
        return f"*/{rng.randint(2, max(2, (high - low) // 2))}"
    first, last = sorted(rng.sample(range(low, high), 2))
    if kind == 3:
        step = rng.randint(1, 9)
        return f"{first}-{last}" + (f"/{step}" if step > 1 else "")
    values = sorted(rng.sample(range(low, high), rng.randint(1, min(4, high - low - 1))))
    if names and kind == 4:
        return ",".join(names[v] for v in values)
    return ",".join(map(str, values))


def random_expression(rng):
    days = ["sun", "mon", "tue", "wed", "thu", "fri", "sat"]
    months = ["", "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"]
    return " ".join([random_field(rng, 0, 59), random_field(rng, 0, 23),
                     random_field(rng, 1, 31), random_field(rng, 1, 12, months),
                     random_field(rng, 0, 6, days)])


def instants(wall, zone):
    """The instants at which clocks in the zone show this wall-clock time: 0, 1 or 2."""
    found = set()
    for fold in (0, 1):
        instant = wall.replace(tzinfo=zone, fold=fold).astimezone(timezone.utc)
        if instant.astimezone(zone).replace(tzinfo=None) == wall:
            found.add(int(instant.timestamp()))
    return found


def due_times(expression, start, zone, count=6):
    """The first instants from the start's minute on, within 300 days; None when croniter does not
    find the same way back."""
    here = datetime.fromtimestamp(start, zone).replace(tzinfo=None, second=0)
    first = start - start % 60
    begin = here - timedelta(hours=3, minutes=1)
    walls = croniter(expression, begin)
    end = here + timedelta(days=300)
    found, settled, last = set(), None, begin
    while True:
        wall = walls.get_next(datetime)
        if wall > end or (settled is not None and wall > settled):
            break
        if croniter(expression, wall).get_prev(datetime) > last:
            return None
        last = wall
        found |= {t for t in instants(wall, zone) if t >= first}
        if settled is None and len(found) >= count:
            settled = wall + timedelta(hours=3)  # a repeated hour may still put one before
    return sorted(found)[:count]


def changes(zone, year=2024):
    """The instants of the year at which the zone's clocks change."""
    first = int(datetime(year, 1, 1, tzinfo=timezone.utc).timestamp())
    offsets = [(t, datetime.fromtimestamp(t, zone).utcoffset())
               for t in range(first, first + 366 * 86400, 1800)]
    return [t for (_, before), (t, after) in zip(offsets, offsets[1:]) if before != after]


def random_start(rng, zone):
    """A moment, for most in the hours before a change of the clocks where there is one."""
    near = changes(zone)
    if near and rng.random() < 0.7:
        return rng.choice(near) - rng.randint(0, 4 * 3600)
    return int(datetime.fromisoformat(rng.choice(STARTS) + "+00:00").timestamp())


def rows_within_an_hour():
    """Where clocks change within an hour, which croniter does not get right: minute by minute."""
    zone = "Pacific/Chatham"
    for change in changes(ZoneInfo(zone)):
        start = change - 65 * 60 + 17
        local = [datetime.fromtimestamp(start + 60 * minute, ZoneInfo(zone)) for minute in range(9000)]
        for minutes, hours in (("50", "2"), ("50", "3"), ("0,20,40", "2,3,4"), ("44,45,46", "2,3")):
            runs = [str(number) for number, at in enumerate(local) if str(at.minute) in minutes.split(",")
                    and str(at.hour) in hours.split(",")]
            yield zone, start, f"{minutes} {hours} * * *", " ".join(runs[:6])


def main():
    rng = random.Random(20240331)
    expressions = list(dict.fromkeys(e for e in HAND_WRITTEN.split("|") if e))
    while len(expressions) < 240:
        expression = random_expression(rng)
        if expression not in expressions:
            expressions.append(expression)
    rows = []
    for i, expression in enumerate(expressions):
        for zone in rng.sample(sorted(ZONES), 2 if i >= 45 else 5):
            start = random_start(rng, ZoneInfo(zone))
            times = due_times(expression, start, ZoneInfo(zone))
            if times is None:
                print("left out:", expression, zone, start, file=sys.stderr)
                continue
            deltas = " ".join(str((t - (start - start % 60)) // 60) for t in times)
            rows.append((zone, start, expression, deltas))
    print("# zone rule|start|expression|minutes from the start's minute to the runs that follow")
    for zone, start, expression, deltas in sorted([*rows, *rows_within_an_hour()]):
        print(f"{(ZONES | LATE_ZONE)[zone]}|{start}|{expression}|{deltas}")


if __name__ == "__main__":
    sys.exit(main())
