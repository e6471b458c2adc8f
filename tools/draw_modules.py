#!/usr/bin/python3
"""Draws docs/modules.svg: the modules on their floors, and who includes whom.

What is drawn comes from the includes in src/ and from the floors in
docs/source-tour.md. With --check it draws nothing and fails when the picture
is not what it would draw.
"""

import html
import pathlib
import sys

from check_includes import ROOT, place_of, read_floors, read_source

PICTURE = ROOT / "docs" / "modules.svg"
WIDTH = 1180
LEFT = 150            # where the boxes begin; the names of places stand before
BOX_HEIGHT = 28
ROW_HEIGHT = 46       # of a row of boxes
FLOOR_GAP = 34
LETTER = 7.3          # width of a letter of the boxes' font
STYLE = """
  text { font: 12px "DejaVu Sans", Verdana, sans-serif; fill: #1d2733; }
  .place { font-weight: bold; }
  .floor { fill: #f3f6f9; stroke: #cdd6df; }
  .box { fill: #ffffff; stroke: #54708c; }
  .down { fill: none; stroke: #54708c; stroke-opacity: 0.22; }
  .beside { fill: none; stroke: #b4552d; stroke-opacity: 0.75; }
"""


def depth_within(name, uses, floors):
    """How many modules of its own place stand below it, one on the other."""
    inside = [use for use in uses.get(name, ())
              if place_of(use, floors) == place_of(name, floors)]
    return 1 + max((depth_within(use, uses, floors) for use in inside),
                   default=-1)


def rows_of(place, uses, floors):
    """The modules of a place in rows, users above what they use."""
    rows = {}
    for name in sorted(uses):
        if place_of(name, floors) == place:
            rows.setdefault(depth_within(name, uses, floors), []).append(name)
    return [rows[depth] for depth in sorted(rows, reverse=True)]


def box_width(name):
    return round(len(name.rpartition("/")[2]) * LETTER) + 18


def lay_out(uses, floors):
    """Each module's box (x, y, width), and each floor's (y, height, names)."""
    boxes, bands = {}, []
    y = 10
    for floor in sorted(set(floors.values()), reverse=True):
        places = [place for place in floors if floors[place] == floor]
        share = (WIDTH - LEFT) / len(places)
        height = 0
        for number, place in enumerate(places):
            rows = rows_of(place, uses, floors)
            height = max(height, len(rows) * ROW_HEIGHT)
            for depth, row in enumerate(rows):
                room = share - sum(map(box_width, row))
                gap = room / (len(row) + 1)
                x = LEFT + number * share + gap
                for name in row:
                    boxes[name] = (round(x), y + 9 + depth * ROW_HEIGHT,
                                   box_width(name))
                    x += box_width(name) + gap
        bands.append((y, height, places))
        y += height + FLOOR_GAP
    return boxes, bands, y - FLOOR_GAP + 10


def line(kind, start, end):
    x1, y1, x2, y2 = start[0] + start[2] // 2, start[1] + BOX_HEIGHT, \
        end[0] + end[2] // 2, end[1]
    bend = (y1 + y2) // 2
    return (f'<path class="{kind}" d="M{x1} {y1} C{x1} {bend} {x2} {bend} '
            f'{x2} {y2}"/>')


def draw(uses, floors):
    boxes, bands, height = lay_out(uses, floors)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" '
           f'height="{height}" viewBox="0 0 {WIDTH} {height}">',
           "<title>The modules of tolva on their floors</title>",
           f"<style>{STYLE}</style>"]
    for y, band, places in bands:
        out.append(f'<rect class="floor" x="4" y="{y}" width="{WIDTH - 8}" '
                   f'height="{band}" rx="6"/>')
        for number, place in enumerate(places):
            text = html.escape(place.removeprefix("tolva2/"))
            out.append(f'<text class="place" x="16" '
                       f'y="{y + 26 + number * 18}">{text}</text>')
    for kind in ("down", "beside"):
        for name in sorted(uses):
            for use in sorted(uses[name]):
                same = place_of(name, floors) == place_of(use, floors)
                if same == (kind == "beside"):
                    out.append(line(kind, boxes[name], boxes[use]))
    for name, (x, y, width) in sorted(boxes.items()):
        text = html.escape(name.rpartition("/")[2])
        out.append(f'<rect class="box" x="{x}" y="{y}" width="{width}" '
                   f'height="{BOX_HEIGHT}" rx="4"/>')
        out.append(f'<text x="{x + width // 2}" y="{y + 18}" '
                   f'text-anchor="middle">{text}</text>')
    return "\n".join(out) + "\n</svg>\n"


def main():
    problems = []
    floors = read_floors(problems.append)
    uses = read_source(problems.append)
    if problems:
        sys.exit("\n".join(problems))
    picture = draw(uses, floors)
    if "--check" not in sys.argv[1:]:
        PICTURE.write_text(picture)
    elif not PICTURE.exists() or PICTURE.read_text() != picture:
        sys.exit(f"{PICTURE.relative_to(ROOT)} is not current: "
                 "tools/draw_modules.py draws it")


main()
