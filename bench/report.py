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


def rows(table):
    """Name, figure with its quartiles, ratio with its quartiles."""
    for name, values in table.values.items():
        low, middle, high = quartiles(values)
        figure = f"{number(middle)} {table.unit}"
        spread = f"{number(low)} to {number(high)}" if len(values) > 1 else ""
        ratio = table.ratio(name)
        if name == table.base or not ratio:
            shown, quarters = "1" if name == table.base else "", ""
        else:
            shown = f"{ratio[1]:.2f}"
            quarters = f"{ratio[0]:.2f} to {ratio[2]:.2f}" \
                if len(table.ratios(name)) > 1 else ""
        yield name, figure, spread, shown, quarters


def as_text(table):
    lines = [f"\n{table.title}"]
    for name, figure, spread, shown, quarters in rows(table):
        quarters = f"({quarters})" if quarters else ""
        lines.append(f"  {name:24}{figure:>16}  {spread:22}"
                     f"{'x ' + shown if shown else '':10}{quarters}")
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

Written by `tools/bench` on {date}. What is measured stands side by side with
what anybody could do at best and with what a user might take instead:

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
     "The script is a small static program that looks at the clock first; a\n"
     "shell starts it, for everybody."),
    ("rate", "Requests a second",
     "Each request runs that script and waits for the answer; more is better."),
    ("memory", "Memory",
     "The proportional set size of the one process that listens. A child that\n"
     "lives as long as its script, as others have it, is not counted."),
    ("fleet", "Many hosts",
     "The hosts are addresses of loopback, served by a program that answers at\n"
     "once (`bench/load/crowd.c`), on the same processors. A host that is dead\n"
     "takes no connection, and everybody waits 5 seconds for one. Processor\n"
     "time is the sender's own, with its children."),
    ("cost", "What the listener has to keep in mind",
     "The time of a request that only writes to the log, against the number of\n"
     "things that the listener has to bear meanwhile."),
    ("nut", "Network UPS Tools",
     "A secondary hears of the shutdown when it asks next; the settings are\n"
     "Debian's (`POLLFREQ` and `POLLFREQALERT` 5) but for `FINALDELAY`, which "
     "is\n0. So this is a matter of seconds, and no ratio is given."),
    ("size", "Size", ""),
)


def markdown(table):
    lines = ["", f"**{table.title}**", ""]
    ratios = table.base in table.values
    of = "" if table.base == FLOOR else f" to {table.base}"
    lines.append("| | median | quartiles |" +
                 (f" ratio{of} | quartiles |" if ratios else ""))
    lines.append("|---|--:|---|" + ("--:|---|" if ratios else ""))
    for name, figure, spread, shown, quarters in rows(table):
        lines.append(f"| {name} | {figure} | {spread} |" +
                     (f" {shown} | {quarters} |" if ratios else ""))
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
        lines += ["", f"## {title}"] + ([text] if text else [])
        for name, alternative in pictures.get(section, ()):
            lines += ["", f"![{alternative}](performance/{name})"]
        for table in found:
            lines += markdown(table)
    lines += ["", "## The machine and the versions", "", "| | |", "|---|---|"]
    lines += [f"| {name} | {value} |" for name, value in
              {**facts["machine"], **facts["versions"]}.items()]
    lines += ["", f"The run took {facts['minutes']:.0f} minutes."]
    text = "\n".join(lines).replace("\n\n\n", "\n\n")
    (docs / "performance.md").write_text(text + "\n")
