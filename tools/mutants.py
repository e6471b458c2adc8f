"""Makes mutants of a C++ source: copies with one thing wrong each.

Works on the text. Comments, preprocessor lines and what stands in quotes are
never touched; neither are the calls of the developers' trace, which promise
nothing to anybody.
"""

import bisect
import pathlib
import re
import typing

TRACE = re.compile(r"\s*(?:trace_in|trace_out|trace_printf|debug_printf)\b")
HIDDEN = re.compile(
    r"//[^\n]*|/\*.*?\*/|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*"
    r'|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S | re.M)
# A call, an assignment, a step, or a jump: a statement that may go.
CALL = re.compile(r"[\w:.>\-\[\]*()]+\s*\(")
ASSIGNMENT = re.compile(r"[\w:.>\-\[\]*()+ ]*?\s*(?:[+\-*/|&]?=)(?!=)")
STEP = re.compile(r"(?:\+\+|--)?[\w.>\-\[\]()]+(?:\+\+|--)?;$")
JUMP = re.compile(r"(?:break|continue|return);$")
DECLARATION = re.compile(
    r"(?:(?:static|const|constexpr|extern|auto|volatile|unsigned|struct|"
    r"enum|class|using|typedef|template|namespace|friend|explicit|"
    r"static_assert|case|default|public|private|else|delete|throw|goto|return|"
    r"if|for|while|do|switch|virtual|inline|operator)\b"
    r"|[\w:]+(?:<.*?>)?(?:\s+|\s*[*&]+\s*)[*&]*\w+\s*"
    r"(?:[({\[=;]|$))")
PAIRS = (
    (r"(?<= )&&(?=\s)", "||"), (r"(?<= )\|\|(?=\s)", "&&"),
    (r"(?<= )<(?= )", "<="), (r"(?<= )<=(?= )", "<"),
    (r"(?<= )>(?= )", ">="), (r"(?<= )>=(?= )", ">"),
    (r"==", "!="), (r"!=", "=="),
    (r"(?<= )\+(?= 1\b)", "-"), (r"(?<= )-(?= 1\b)", "+"),
    (r"\+\+", "--"), (r"(?<![-\w])--|(?<=\w)--(?=[;)])", "++"),
    (r"\+=", "-="), (r"-=", "+="),
    (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"!(?=[\w(*])", ""),
)
ERRORS = {"EMFILE": "ENFILE", "ENFILE": "EMFILE", "EAGAIN": "EINTR",
          "EINTR": "EAGAIN", "ENOMEM": "EINVAL", "EINVAL": "ENOMEM",
          "ENOBUFS": "EINVAL", "ETIMEDOUT": "EINVAL", "ENOENT": "EINVAL"}


# A condition that is one word's opposite, or one comparison; a declaration.
SIMPLE = re.compile(
    r"![\w.>\-]+(?:\([^()]*\))?|[^&|?]*[=!]=[^&|?]*|.*;.*", re.S)


class Mutant(typing.NamedTuple):
    """One change of one file: where it is, and what it is."""

    path: str
    line: int
    start: int
    end: int
    text: str
    old: str  # the lines that are changed, in one
    new: str

    @property
    def key(self):
        """Names the change as long as its lines stay as they are."""
        return f"{self.path}\n- {self.old}\n+ {self.new}"


def hide(source):
    """The source, with blanks in place of all that is not to be changed."""
    def blank(match):
        found = match[0]
        inner = re.sub(r"[^\n]", " ", found)
        # The quotes stay, so that a text is seen as an operand.
        return '"' + inner[1:-1] + '"' if found[0] in "\"'" else inner
    return HIDDEN.sub(blank, source)


def closing(text, start):
    """Where the parenthesis that opens at start is closed; -1: nowhere."""
    depth = 0
    for at in range(start, len(text)):
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if depth == 0:
            return at
    return -1


def conditions(text):
    """The conditions of if, while and ?: and their opposites."""
    for match in re.finditer(r"\b(?:if|while) \(", text):
        end = closing(text, match.end() - 1)
        # What pairs() turns into the opposite needs no other one.
        if not SIMPLE.fullmatch(text[match.end():end]):
            yield match.end(), end, "!({})"


def pairs(text):
    """Operators and words that have an opposite."""
    for pattern, other in PAIRS:
        for match in re.finditer(pattern, text):
            yield match.start(), match.end(), other


def constants(text):
    """Numbers, each made one greater; "< 1" and the like are "<= 0"."""
    for match in re.finditer(r"(?<![\w.\"])(?<! < )(?<! >= )"
                             r"(0x[0-9a-f]+|\d+)(?![\w.\"])", text):
        base = 16 if "x" in match[0] else 8 if re.match("0.", match[0]) else 10
        form = {16: "0x%x", 8: "0%o", 10: "%d"}[base]
        yield match.start(), match.end(), form % (int(match[0], base) + 1)


def enumerators(text, others):
    """Names of enumerations, each swapped with the next one."""
    for match in re.finditer(r"\b(?:\w+::)?[A-Za-z_]\w*\b(?!::)", text):
        if match[0] in others:
            yield match.start(), match.end(), others[match[0]]


def in_functions(text):
    """For each character: is it within a function's body?"""
    inside, stack = bytearray(len(text)), []
    since = 0
    for at, sign in enumerate(text):
        if sign == "{":
            head = text[since:at]
            stack.append(bool(stack and stack[-1]) or bool(
                re.search(r"\)\s*(?:const|noexcept|override|\s)*$", head)))
        elif sign == "}" and stack:
            stack.pop()
        if sign in "{};":
            since = at + 1
        inside[at] = bool(stack and stack[-1])
    return inside


def statements(text):
    """(start, end) of each statement within a function."""
    inside = in_functions(text)
    depth = 0
    since = 0
    for at, sign in enumerate(text):
        depth += {"(": 1, ")": -1}.get(sign, 0)
        if depth == 0 and (sign in "{};" or text[at:at + 2] == ":\n"):
            start = since + len(text[since:at]) - \
                len(text[since:at].lstrip())
            if sign == ";" and inside[at]:
                yield start, at + 1
            since = at + 1


def deletions(text):
    """Statements that can be left out."""
    for start, end in statements(text):
        one = " ".join(text[start:end].split())
        if JUMP.match(one) or (
                not DECLARATION.match(one) and
                (CALL.match(one) or ASSIGNMENT.match(one) or
                 STEP.match(one))):
            yield start, end, ";"


def returns(text, others):
    """Nothing in the place of each value that is returned, unless another of
    the changes has one already."""
    for start, end in statements(text):
        match = re.match(r"return\s+(.*);$", text[start:end], re.S)
        if match and match[1] not in others and \
                match[1] not in ("0", "nullptr", "true", "false"):
            yield start + match.start(1), end - 1, "{{}}"


def read_enumerations(root):
    """{enumerator: the next one} of all headers, scoped ones with scope."""
    others = dict(ERRORS)
    for header in sorted((root / "src").rglob("*.h")) + \
            sorted((root / "src").rglob("*.cpp")):
        text = hide(header.read_text())
        for match in re.finditer(
                r"\benum (class |struct )?(\w+)[^{;]*\{([^}]*)\}", text):
            names = re.findall(r"(?:^|,)\s*(\w+)", match[3])
            if match[1]:
                names = [f"{match[2]}::{name}" for name in names]
            others.update(zip(names, names[1:] + names[:1]))
        by_count = {}
        for count, name in re.findall(r"(?:event_message|added_event)<(\d)> (\w+)\{", text):
            by_count.setdefault(count, []).append(f"event::{name}")
        for names in by_count.values():
            others.update(zip(names, names[1:] + names[:1]))
    return {a: b for a, b in others.items() if a != b}


def changed_lines(source, start, end, text):
    """The lines of a change before and after it, each in one."""
    first = source.rfind("\n", 0, start) + 1
    last = source.find("\n", end)
    old = source[first:last]
    new = source[first:start] + text + source[end:last]
    return " ".join(old.split()), " ".join(new.split())


def mutants_of(root, path):
    """All mutants of a file, from its first line to its last."""
    source = (root / path).read_text()
    text = hide(source)
    starts = [0] + [m.end() for m in re.finditer("\n", source)]
    found = set()
    others = read_enumerations(root)
    changes = [*conditions(text), *pairs(text), *constants(text),
               *enumerators(text, others), *deletions(text),
               *returns(text, others)]
    for start, end, pattern in changes:
        new = pattern.format(source[start:end]) if "{" in pattern else pattern
        line = bisect.bisect_right(starts, start)
        if not TRACE.match(source, starts[line - 1]) and \
                not re.match(r"\s*static_assert\b", source[starts[line - 1]:
                                                           start + 20]):
            found.add(Mutant(str(path), line, start, end, new,
                             *changed_lines(source, start, end, new)))
    return sorted(found, key=lambda m: (m.start, m.end, m.text))


def mutate(source, mutant):
    """The source with the change made."""
    return source[:mutant.start] + mutant.text + source[mutant.end:]


if __name__ == "__main__":
    import sys
    for name in sys.argv[1:]:
        for one in mutants_of(pathlib.Path("."), pathlib.Path(name)):
            print(f"{one.path}:{one.line}: {one.old}  ->  {one.new}")
