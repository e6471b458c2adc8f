"""The documents name files that are there, functions that exist and messages
that the program writes."""

import re
import xml.etree.ElementTree

import pytest

from harness import ROOT

DOCUMENTS = sorted(
    path.relative_to(ROOT).as_posix()
    for pattern in ("*.md", "docs/*.md", "examples/*/*.md")
    for path in ROOT.glob(pattern))
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
CODE = re.compile(r"`([^`\n]+)`")


def source_text():
    return "".join(path.read_text()
                   for path in sorted((ROOT / "src").rglob("*"))
                   if path.suffix in (".cpp", ".h"))


def program_texts():
    """Everything that the program and its scripts can say."""
    scripts = "".join(path.read_text()
                      for path in sorted((ROOT / "share").glob("scripts/*")))
    return (source_text() + scripts +
            (ROOT / "share" / "messages.dat").read_text())


@pytest.mark.parametrize("name", DOCUMENTS)
def test_links_lead_somewhere(name):
    path = ROOT / name
    for target in LINK.findall(path.read_text()):
        if not re.match(r"[a-z]+:", target):
            file = target.partition("#")[0]
            assert (path.parent / file).exists(), target


def test_the_source_tour_names_functions_that_exist():
    text = (ROOT / "docs" / "source-tour.md").read_text()
    words = set(re.findall(r"\b[A-Za-z]\w*_\w+\b", source_text()))
    prose = "\n".join(line for line in text.splitlines()
                      if not line.startswith("|"))
    named = {name.removesuffix("()") for name in CODE.findall(prose)
             if re.fullmatch(r"[a-zA-Z]\w*_\w+(\(\))?", name)}
    assert len(named) > 50
    assert named - words == set()


def test_the_source_tour_has_a_paragraph_for_each_module():
    text = (ROOT / "docs" / "source-tour.md").read_text()
    modules = {path.stem for path in (ROOT / "src").rglob("*")
               if path.suffix in (".cpp", ".h")}
    told = re.findall(r"^\*\*`(\w+)`\*\*", text, re.MULTILINE)
    assert len(modules) > 25
    assert len(told) == len(set(told))
    assert set(told) == modules


def test_contributing_names_what_is_there():
    text = (ROOT / "CONTRIBUTING.md").read_text()
    words = set(re.findall(r"\w+", source_text() + "".join(
        (ROOT / "tests" / "system" / name).read_text()
        for name in ("harness.py", "waiting.py"))))
    words |= {path.stem for path in (ROOT / "tests" / "fuzz").glob("*.cpp")}
    for code in CODE.findall(text):
        path = code.split()[0].rstrip("*")
        if re.fullmatch(r"(src|share|man|docs|tests|tools|packaging)/[\w./-]+",
                        path):
            assert (ROOT / path).exists() or list(
                ROOT.glob(path + "*")), code
        elif re.fullmatch(r"[A-Za-z]+_\w+", code):
            assert code in words, code
    for preset in re.findall(r"^\| (`.*?) \|", text, re.MULTILINE):
        for name in CODE.findall(preset):
            assert f'"{name}"' in (
                ROOT / "CMakePresets.json").read_text() or \
                (ROOT / name).is_dir(), name


# --- README.md ----------------------------------------------------------------

README = (ROOT / "README.md").read_text()


def section(title):
    return README.partition(f"\n## {title}\n")[2].partition("\n## ")[0]


def test_readme_lists_every_command_and_each_has_a_page():
    rows = re.findall(r"^\| (`[^|]*) \|", section("What comes with it"),
                      re.MULTILINE)
    listed = {name for row in rows for name in CODE.findall(row)}
    build = (ROOT / "CMakeLists.txt").read_text()
    there = set(re.findall(r"^add_executable\((tolva[\w-]*) ", build,
                           re.MULTILINE))
    there |= {"sendtolva", "listentolva"}
    there |= {path.name for path in (ROOT / "share" / "bin").iterdir()}
    assert listed == there
    for name in listed:
        assert (ROOT / "man" / f"{name}.8").exists(), name


def test_readme_tells_the_danger_before_the_installation():
    titles = re.findall(r"^## (.*)$", README, re.MULTILINE)
    assert titles.index("The one danger") < titles.index("Install")
    assert "Who may send is root" in section("The one danger")
    install = section("Install")
    assert install.index("apt-get update") < install.index("apt-get install")


def test_the_settings_of_readme_are_as_shipped():
    shipped = (ROOT / "share" / "tolva.cfg").read_text()
    table = section("First trial").partition("| Key |")[2]
    keys = {key for row in re.findall(r"^\| (`[^|]*) \|", table, re.MULTILINE)
            for key in CODE.findall(row) if re.fullmatch(r"[A-Z]\w+[a-z]", key)}
    assert "AllowedAddresses" in keys
    for key in keys:
        assert re.search(rf"^#?{key}=", shipped, re.MULTILINE), key
    assert "\n#AllowedAddresses=\n" in shipped
    assert "\nListenUDP=FALSE\n" in shipped


def test_the_picture_has_the_ports_of_the_program():
    picture = ROOT / "docs" / "overview.svg"
    assert "docs/overview.svg" in README.partition("\n## ")[0]
    tree = xml.etree.ElementTree.parse(picture)
    said = " ".join(tree.getroot().itertext())
    codes = (ROOT / "src" / "tolva2" / "base" / "codes.h").read_text()
    ports = set(re.findall(r"_PORT = (\d+);", codes))
    assert ports == {"6003", "5769"}
    # In the texts of the picture, and in the one for those who hear it.
    for port in ports:
        assert said.count(port) == 2
    assert "prefers-color-scheme: dark" in said
