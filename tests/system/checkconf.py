"""Runs tolva-checkconf, and the home that it finds nothing wrong with.

    house = House(home)
    house.settings("AllowedAddresses=192.0.2.10\\nListenPort=x\\n")
    assert house.found() == [(2, "error", ...)]
"""

import re

from harness import ROOT, TOLVA, message_arguments

CHECKCONF = TOLVA.parent / "tolva-checkconf"
FINDING = re.compile(r"^(.*):(\d+): (error|warning): (.*)$")
SCRIPTS = ("tolva_shutdown.sh", "tolva_execute.sh", "tolva_message.sh",
           "tolva_mail.sh", "tolva_notalive.sh", "ShutdownSuppressed.sh")
CLEAN = "AllowedAddresses=192.0.2.10\nListenUDP=FALSE\n"
# A name that no resolver has to ask anybody about.
NO_NAME = "x" * 300


class House:
    """A home as it should be, and what is found wrong with it."""

    def __init__(self, home):
        self.home = home
        home.home.chmod(0o755)
        for name in SCRIPTS:
            home.script(name)
        self.texts()
        self.settings(CLEAN)

    def path(self, name):
        return self.home.path(name)

    def settings(self, content, name="tolva.cfg"):
        self.home.write(name, content).chmod(0o644)

    def texts(self, extra=None, without=()):
        """A message database with every number of the program but some."""
        self.home.messages({number: f"[{number}]" + " %s" * count for
                            number, count in message_arguments().items()} |
                           (extra or {}), without)
        self.path("messages.dat").chmod(0o644)

    def check(self, *args, **options):
        return self.home.run(*args, program=str(CHECKCONF), **options)

    def found(self, *args, status=None, **options):
        """[(line, "error" or "warning", text)], after a look at the form."""
        result = self.check(*args, **options)
        findings = []
        for line in result.err.splitlines():
            match = FINDING.match(line)
            assert match, line
            findings.append((int(match[2]), match[3], match[4]))
        assert findings == sorted(findings, key=lambda one: one[0])
        assert len(set(findings)) == len(findings)
        errors = any(kind == "error" for _, kind, _ in findings)
        assert result.status == (errors if status is None else status), result
        return findings

    def expect(self, findings, *args, **options):
        """Just these are found: (line, kind, words of the text)."""
        found = self.found(*args, **options)
        shown = "\n".join(map(str, found))
        assert len(found) == len(findings), shown
        for (line, kind, text), (at, how, words) in zip(found, findings):
            assert (line, kind) == (at, how), shown
            assert words in text, shown


def program_texts():
    """{"error": texts, "warning": texts} that findings are made of."""
    texts = {"error": set(), "warning": set()}
    folder = ROOT / "src" / "tolva2" / "checkconf"
    for path in sorted(folder.glob("*.cpp")):
        for how, call in re.findall(r"\b(error|warning|complain)\(([^;]*);",
                                    path.read_text()):
            literals = re.findall(r'"((?:[^"\\]|\\.)*)"', call)
            if literals:
                texts["warning" if how == "warning" else "error"].add(
                    max(literals, key=len))
    return texts
