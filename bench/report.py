"""The figures as text for a terminal, and as docs/performance.md."""

import plots
from figures import FLOOR, quartiles

LOADED = 1.5        # from this load average on a run is not to be relied on


def number(value):
    """Three digits that count."""
    if value >= 100:
        return f"{value:,.0f}"
    if value >= 10:
        return f"{value:.1f}"
    return f"{value:.3g}"


def spread(quarters, values, form):
    return f"{form(quarters[0])} to {form(quarters[2])}" \
        if len(values) > 1 else ""


def rows(table):
    """Name, figure with its quartiles, ratio with its quartiles, and what the
    table has also."""
    for name, values in table.values.items():
        found = quartiles(values)
        ratio, quarters, also = "", "", ""
        if name == table.base:
            ratio = "1"
        elif table.ratios(name):
            ratios = quartiles(table.ratios(name))
            ratio = f"{ratios[1]:.2f}"
            quarters = spread(ratios, table.ratios(name), "{:.2f}".format)
        if name in table.also_values:
            middle = quartiles(table.also_values[name])[1]
            also = f"{number(middle)} {table.also_unit}"
        yield (name, f"{number(found[1])} {table.unit}",
               spread(found, values, number), ratio, quarters, also)


def as_text(table):
    lines = [f"\n{table.title}"]
    for name, figure, around, ratio, quarters, also in rows(table):
        ratio = f"x {ratio}" if ratio else ""
        quarters = f"({quarters})" if quarters else ""
        also = f"{table.also} {also}" if also else ""
        lines.append(f"  {name:23}{figure:>14}  {around:18}{ratio:10}"
                     f"{quarters:19}{also}".rstrip())
    lines += [f"  {note}" for note in table.notes]
    return "\n".join(lines)


# What is aimed at: title of the table, competitor, the limit, and whether it
# is one from above ("at most"), of the ratio or of the figure itself.
GOALS = (
    ("From connect to the script's first instruction", "tolva", "at most",
     1.05, "ratio"),
    ("Requests a second, 1 client", "tolva", "at least", 0.97, "ratio"),
    ("Requests a second, 16 clients", "tolva", "at least", 0.97, "ratio"),
    ("200 hosts: until all is known", "tolva-fleet", "at most", 1.0, "ratio"),
    ("10,000 hosts: until all is known", "tolva-fleet", "at most", 1.5,
     "ratio"),
    ("10,000 hosts, half of them refuse: until the last live host is told",
     "tolva-fleet", "at most", 1.3, "ratio"),
    ("Size of the stripped executable", "tolva", "at most", 80000, "figure"),
    ("Memory (PSS), idle", "tolva", "at most", 240, "figure"),
)


def goals(tables):
    """What, the goal, what was measured, and whether that is good enough; for
    each that this run has measured."""
    by_title = {table.title: table for table in tables}
    for title, name, way, limit, kind in GOALS:
        table = by_title.get(title)
        if table is None or name not in table.values:
            continue
        value = table.ratio(name)[1] if kind == "ratio" else \
            quartiles(table.values[name])[1]
        good = value <= limit if way == "at most" else value >= limit
        shown = f"{limit:.2f} × {FLOOR}" if kind == "ratio" else \
            f"{limit:,} {table.unit}"
        measured = f"{value:.2f}" if kind == "ratio" else number(value)
        yield f"{title}: {name}", f"{way} {shown}", measured, good


def goals_as_text(tables):
    lines = [f"  {'met' if good else 'NOT MET':8}{what}: {measured}, {goal}"
             for what, goal, measured, good in goals(tables)]
    return "\n".join(["\nGoals", *lines]) if lines else ""


INTRODUCTION = """\
# Performance

Written by `tools/bench` on {date}. The listener and the senders stand side by
side with what anybody could do at best, and with what a user might take
instead:

- **C floor**: a bare loop in C without settings, log, limits or care
  (`bench/floor`). Ratios are to this one, unless a table says otherwise.
- For the listener: **tcpserver**, **xinetd**, **socat** and **ncat**, which run
  a script for each connection. They do not look at who it is, write no log,
  and the script has to speak the protocol itself.
- For the sender: **xargs**, GNU **parallel** and **clush** with a shell and a
  socat for each host, 64 at a time.
- **upsmon** of Network UPS Tools, which asks its server every few seconds.

All take turns in each round, so that whatever else the machine does hits all
alike. A figure is the median of the rounds, a ratio the median of the ratios
within a round; behind both stand the lower and the upper quartile.
{warning}
"""

WARNING = """
**The machine had other work during this run** (load average {load:.1f} at its
start, {cpus}). Times are too long, and ratios scatter; small
differences mean nothing here. Run `tools/bench` on an idle machine.
"""

QUICK = """
**This was a short run** (`tools/bench --quick`), with few rounds.
"""

CHAPTERS = (
    ("startup", "Start", ""),
    ("latency", "Latency",
     "The script is a small program in C that looks at the clock first; a\n"
     "shell starts it, for everybody."),
    ("rate", "Requests a second",
     "Each request runs that script and waits for the answer; more is better.\n"
     "Processor time is that of the server with the script, and of no client."),
    ("memory", "Memory",
     "The proportional set size of the one process that listens. A child that\n"
     "lives as long as its script, as others have it, is not counted."),
    ("fleet", "Many hosts",
     "The hosts are addresses of loopback, served by a program that answers at\n"
     "once (`bench/load/crowd.c`), on the same processors. A host that is dead\n"
     "takes no connection, and everybody waits 5 seconds for one. Processor\n"
     "time is the sender's own, with its children. `tolva -sr` tells at most\n"
     "250 or so in one run."),
    ("cost", "What the listener has to keep in mind",
     "The time of a request that only writes to the log, against the number of\n"
     "things that the listener has to bear meanwhile. The listeners of a table\n"
     "run at the same time and share the memory of the executable."),
    ("nut", "Network UPS Tools",
     "A secondary hears of the shutdown when it asks next; the settings are\n"
     "Debian's (`POLLFREQ` and `POLLFREQALERT` 5) but for `FINALDELAY`, which\n"
     "is 0. So this is a matter of seconds, and no ratio is given."),
    ("size", "Size", ""),
)


def markdown(table):
    lines = ["", f"**{table.title}**", ""]
    several = any(len(values) > 1 for values in table.values.values())
    compared = table.base in table.values
    of = "" if table.base == FLOOR else f" to {table.base}"
    wanted = (True, True, several, compared, compared and several,
              bool(table.also))
    heads = ("", "median" if several else "", "quartiles", f"ratio{of}",
             "quartiles", table.also)
    marks = ("---", "--:", "---", "--:", "---", "--:")

    def line(cells):
        shown = [cell for cell, want in zip(cells, wanted) if want]
        return f"| {' | '.join(shown)} |"

    if table.values:
        lines += [line(heads), line(marks)]
        lines += [line(row) for row in rows(table)]
    if table.notes:
        lines += ["", *table.notes]
    return lines


def write(docs, facts, tables):
    pictures = plots.draw(docs / "performance", tables)
    warning = QUICK if facts["quick"] else ""
    if facts["load"] > LOADED:
        warning += WARNING.format(load=facts["load"], cpus=facts["cpus"])
    lines = [INTRODUCTION.format(date=facts["date"], warning=warning)]
    lines += ["## Goals", "", "| | goal | measured | |", "|---|---|--:|---|"]
    lines += [f"| {what} | {goal} | {measured} | "
              f"{'met' if good else '**not met**'} |"
              for what, goal, measured, good in goals(tables)]
    for section, title, text in CHAPTERS:
        found = [table for table in tables if table.section == section]
        if not found:
            continue
        lines += ["", f"## {title}"] + (["", text] if text else [])
        for name, alternative in pictures.get(section, ()):
            lines += ["", f"![{alternative}](performance/{name})"]
        for table in found:
            lines += markdown(table)
    lines += ["", "## The machine and the versions", "", "| | |", "|---|---|"]
    lines += [f"| {name} | {value} |" for name, value in
              {**facts["machine"], **facts["versions"]}.items()]
    lines += ["", f"The run took {facts['minutes']:.1f} minutes."]
    text = "\n".join(lines).replace("\n\n\n", "\n\n")
    (docs / "performance.md").write_text(text + "\n")
