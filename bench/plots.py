"""Small pictures of the figures, as SVG, by Debian's python3-matplotlib.
Without it there are none."""

import pathlib

from figures import FLOOR, quartiles

COLOURS = {FLOOR: "#8a97a5", "tolva": "#2f6f9f", "tolva-fleet": "#2f6f9f",
           "tolva -sr": "#79aacb"}
OTHER = "#d0a36a"


def _ratio_bars(plt, tables, titles):
    """Ratios to the floor with their quartiles, a panel for each table."""
    figure, axes = plt.subplots(1, len(tables), squeeze=False,
                                figsize=(3.6 * len(tables), 2.6))
    for axis, table, title in zip(axes[0], tables, titles):
        found = {name: table.ratio(name) for name in reversed(table.values)
                 if table.ratio(name)}
        for place, (name, (low, middle, high)) in enumerate(found.items()):
            axis.barh(place, middle, color=COLOURS.get(name, OTHER),
                      xerr=[[middle - low], [high - middle]], ecolor="#333333")
            axis.text(high, place, f" {middle:.2f}", va="center", fontsize=8)
        axis.set_yticks(range(len(found)), found)
        most = max(high for _, _, high in found.values())
        if most > 20:
            axis.set_xscale("log")
            axis.set_xlim(0.5, most * 4)
        else:
            axis.set_xlim(0, most * 1.25)
        axis.axvline(1, color="#333333", linewidth=0.6)
        axis.set_title(title, fontsize=9)
    return figure


def _value_bars(plt, table):
    figure, axis = plt.subplots(figsize=(5, 2.4))
    found = {name: quartiles(values)[1]
             for name, values in reversed(table.values.items())}
    axis.barh(range(len(found)), found.values(),
              color=[COLOURS.get(name, OTHER) for name in found])
    for place, value in enumerate(found.values()):
        axis.text(value, place, f" {value:,.0f}", va="center", fontsize=8)
    axis.set_yticks(range(len(found)), found)
    axis.set_xlim(0, max(found.values()) * 1.15)
    axis.set_title(f"{table.title}, {table.unit}", fontsize=9)
    return figure


def _costs(plt, tables):
    """Time of a request against the number of whatever it is."""
    columns = 3
    lines = (len(tables) + columns - 1) // columns
    figure, axes = plt.subplots(lines, columns, squeeze=False,
                                figsize=(3 * columns, 2.3 * lines))
    for axis, table in zip(axes.flat, tables):
        points = [(int(name.replace(",", "")), *quartiles(values))
                  for name, values in table.values.items()]
        counts, lows, middles, highs = zip(*points)
        places = range(len(counts))
        axis.fill_between(places, lows, highs, color="#79aacb", alpha=0.5)
        axis.plot(places, middles, marker="o", color="#2f6f9f")
        axis.set_xticks(places, [f"{count:,}" for count in counts])
        axis.set_ylim(0, max(highs) * 1.2)
        axis.set_title(table.title.partition("so many ")[2], fontsize=8)
        axis.set_ylabel("µs", fontsize=8)
    for axis in list(axes.flat)[len(tables):]:
        axis.remove()
    return figure


def _pictures(plt, tables):
    """Section, name of the picture, what it shows, and the picture."""
    def of(section, having=""):
        return [table for table in tables if table.section == section
                and having in table.title and table.values]

    for section, titles in (
            ("startup", ["start, × C floor"]),
            ("latency", ["until the script runs, × C floor"]),
            ("rate", ["requests/s, 1 client, × C floor",
                      "requests/s, 16 clients, × C floor"])):
        if of(section):
            yield (section, "ratios to the C floor",
                   _ratio_bars(plt, of(section), titles))
    if of("memory"):
        yield ("memory", "KiB of memory of each listener",
               _value_bars(plt, of("memory")[0]))
    whole = of("fleet", "hosts: until all is known")
    if whole:
        yield ("fleet", "ratios to the C floor by number of hosts",
               _ratio_bars(plt, whole, [table.title.partition(":")[0] +
                                        ", × C floor" for table in whole]))
    if of("cost"):
        yield ("cost", "time of a request by what the listener has to bear",
               _costs(plt, of("cost")))


def draw(directory, tables):
    """Draws what there is; for each section the files and what they show."""
    try:
        import matplotlib
    except ImportError:
        return {}
    matplotlib.use("svg")
    # The same figures give the same bytes.
    matplotlib.rcParams.update({
        "svg.hashsalt": "tolva", "font.size": 8, "axes.spines.top": False,
        "axes.spines.right": False, "svg.fonttype": "none"})
    import matplotlib.pyplot as plt
    directory = pathlib.Path(directory)
    directory.mkdir(exist_ok=True)
    made = {}
    for section, shows, figure in _pictures(plt, tables):
        figure.tight_layout()
        figure.savefig(directory / f"{section}.svg", metadata={"Date": None})
        plt.close(figure)
        made.setdefault(section, []).append((f"{section}.svg", shows))
    return made
