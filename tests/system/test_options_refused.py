"""The command line: every refusal."""

import pytest

from ports import free_port

HELP = " (-? for help).\n"
HOST = "127.0.0.1"

DOUBLED = "doubled mode parameter: `-l' and `-s'!" + HELP
NO_MODE = "missing parameter: `-l' or `-s'!" + HELP
NO_PEER = "missing address parameter: `-a <host[:port]>'!" + HELP
NO_SERVER = "missing address parameter: `-ac <host[:port]>'!" + HELP
NO_AB = "missing parameter for -ab `<ip-address>'(-? for help).\n"
NO_AC = "missing parameter for -ac `<host[:port]>'(-? for help).\n"
NO_A = "missing parameter for -a `<host[:port]>'(-? for help).\n"
BROADCAST = ("broadcast only possible in send_mode(tolva) -s[e]" + HELP)
KESDAL = ("kesdal/kesnor address not possible in send_mode(tolva) -s[e]" +
          HELP)
NO_COMMAND = ("no \"command\" parameter possible in send-mode(kesdal): "
              "`-sc'" + HELP)

S = ["-s", "X"]
L = ["-l", "-d"]


def unknown(argument):
    return f"unknown parameter: `{argument}'{HELP}"


# (arguments, the message behind the program name)
REFUSED = [
    # the mode
    ([], "missing parameter!" + HELP),
    (["-d"], NO_MODE),
    (["x"], NO_MODE),
    (["-"], NO_MODE),
    (["--"], NO_MODE),
    (["-x"], NO_MODE),
    (["word", "-a", HOST], NO_MODE),
    (["-l", "-s"], DOUBLED),
    (["-s", "-l"], DOUBLED),
    (["-l", "-l"], DOUBLED),
    (["-s", "X", "-s", "Y"], DOUBLED),
    (["-S", "X", "-Lx"], DOUBLED),
    (["-sr", "X", "-sc"], DOUBLED),
    (["-l", "-s", "-v"], DOUBLED),
    (["-l", "-s", "-?"], DOUBLED),
    (["-l", "-sx"], DOUBLED),
    (["-sx"], unknown("-sx")),
    (["-sE", "X"], unknown("-sE")),
    (["-sR"], unknown("-sR")),
    (["-sC"], unknown("-sC")),
    (["-sx", "-v"], unknown("-sx")),
    (["-s\xe4"], unknown("-s\xe4")),
    # no address
    (["-s"], NO_PEER),
    (S, NO_PEER),
    (["-se", "X"], NO_PEER),
    (["-sr", "X"], NO_PEER),
    (["-sr"], NO_PEER),
    (["-sc"], NO_SERVER),
    (["-sc", "-ac", HOST], NO_SERVER),
    (["-sc", "-ac", HOST + ":6000"], NO_SERVER),
    # -ab
    (S + ["-ab"], NO_AB),
    (S + ["-ab", "-a"], NO_AB),
    (["-l", "-ab"], NO_AB),
    (["-l", "-ab", HOST], BROADCAST),
    (["-sr", "X", "-ab", HOST], BROADCAST),
    (["-sc", "-ab", HOST], BROADCAST),
    # -ac
    (S + ["-ac"], NO_AC),
    (["-l", "-ac"], NO_AC),
    (S + ["-ac", HOST], KESDAL),
    (["-sr", "X", "-ac", HOST], KESDAL),
    (["-l", "-ac", HOST], KESDAL),
    # -a
    (S + ["-a"], NO_A),
    (S + ["-ar"], NO_A),
    (["-l", "-a", "-d"], NO_A),
    (["-sc", "-A"], NO_A),
    (S + ["-ax", HOST], unknown("-ax")),
    (S + ["-ax"], unknown("-ax")),
    (S + ["-aB", HOST], unknown("-aB")),
    (["-l", "-aR", HOST], unknown("-aR")),
    (S + ["-a", ""], "could not handle address []\n"),
    (S + ["-ab", ""], "could not handle address []\n"),
    (["-sc", "-ac", ""], "could not handle address []\n"),
    (["-sc", "-a", ""], "could not handle address []\n"),
    (["-l", "-a", ""], "could not handle address []\n"),
    # -b
    (S + ["-bs", "f"],
     "no execute parameter possible in send-mode: `-bs'" + HELP),
    (S + ["-b"],
     "no execute parameter possible in send-mode: `-b\0'" + HELP),
    (["-sc", "-bX", "f"],
     "no execute parameter possible in send-mode: `-bX'" + HELP),
    (["-l", "-bs"], "missing parameter: -bs `<file>'" + HELP),
    (["-l", "-ba", "-d"], "missing parameter: -ba `<file>'" + HELP),
    (["-l", "-b"], "missing parameter: -b\0 `<file>'" + HELP),
    (["-l", "-bx"], "missing parameter: -bx `<file>'" + HELP),
    (["-l", "-bx", "f"], unknown("-bx")),
    (["-l", "-bS", "f"], unknown("-bS")),
    (["-l", "-b", "f"], unknown("-b\0")),
    # -c
    (S + ["-c", "f"], "configfile not used in send-mode: `-c'.\n"),
    (["-sc", "-cx"], "configfile not used in send-mode: `-c'.\n"),
    (["-l", "-c"], "missing parameter: -c `<file>'" + HELP),
    (["-l", "-cz", "-d"], "missing parameter: -c `<file>'" + HELP),
    # -p
    (S + ["-p"], "missing parameter for -p\0 `<port>'" + HELP),
    (S + ["-pr", "-a"], "missing parameter for -pr `<port>'" + HELP),
    (["-l", "-pc"], "missing parameter for -pc `<port>'" + HELP),
    (["-l", "-px"], "missing parameter for -px `<port>'" + HELP),
    (S + ["-p", "-1"], "missing parameter for -p\0 `<port>'" + HELP),
    (S + ["-p", "0"], "invalid parameter: -p\0 `0'" + HELP),
    (S + ["-p", ""], "invalid parameter: -p\0 `'" + HELP),
    (S + ["-p", "abc"], "invalid parameter: -p\0 `abc'" + HELP),
    (S + ["-p", "65536"], "invalid parameter: -p\0 `65536'" + HELP),
    (S + ["-p", "70000"], "invalid parameter: -p\0 `70000'" + HELP),
    (S + ["-p", " -6003"], "invalid parameter: -p\0 ` -6003'" + HELP),
    (S + ["-p", "4294973299"],
     "invalid parameter: -p\0 `4294973299'" + HELP),
    (S + ["-p", "18446744073709557619"],
     "invalid parameter: -p\0 `18446744073709557619'" + HELP),
    (S + ["-pr", "0"], "invalid parameter: -pr `0'" + HELP),
    # the message shows what splitting left of the text
    (["-l", "-p", "10.0.0.1:0"], "invalid parameter: -p\0 `10.0.0.1'" + HELP),
    (["-l", "-pr", "h:65536"], "invalid parameter: -pr `h'" + HELP),
    (["-l", "-p", ":x"], "invalid parameter: -p\0 `'" + HELP),
    (["-l", "-pc", "0"], "invalid parameter: -pc `0'" + HELP),
    (["-l", "-pc", "65536"], "invalid parameter: -pc `65536'" + HELP),
    (["-sc", "-pc", "x:6000"], "invalid parameter: -pc `x:6000'" + HELP),
    (["-sc", "-pc", "4294973299"],
     "invalid parameter: -pc `4294973299'" + HELP),
    (S + ["-px", "1"], unknown("-px")),
    (S + ["-pR", "1"], unknown("-pR")),
    # -r
    (["-l", "-r"], "missing parameter: -r\0 `<num>'" + HELP),
    (["-l", "-rc", "-1"], "missing parameter: -rc `<num>'" + HELP),
    (S + ["-rx"], "missing parameter: -rx `<num>'" + HELP),
    (["-l", "-r", " -1"], "invalid parameter: -r\0 ` -1'" + HELP),
    (["-l", "-rc", "\t-5"], "invalid parameter: -rc `\t-5'" + HELP),
    (["-l", "-rx", "1"], unknown("-rx")),
    (["-l", "-rC", "1"], unknown("-rC")),
    # -s
    (["-sc", "X", "-a", HOST], NO_COMMAND),
    (["-sc", "", "-a", HOST], NO_COMMAND),
    # -t
    (S + ["-t"], "missing parameter: -t\0 `<time>'" + HELP),
    (S + ["-t", "-5"], "missing parameter: -t\0 `<time>'" + HELP),
    (S + ["-tr", "-a"], "missing parameter: -tr `<time>'" + HELP),
    (["-l", "-tc"], "missing parameter: -tc `<time>'" + HELP),
    (["-l", "-tx"], "missing parameter: -tx `<time>'" + HELP),
    (S + ["-t", " -1"], "invalid parameter: -t\0 ` -1'" + HELP),
    (S + ["-tr", " -1"], "invalid parameter: -tr ` -1'" + HELP),
    (["-l", "-tc", " -1"], "invalid parameter: -tc ` -1'" + HELP),
    (S + ["-tx", "1"], unknown("-tx")),
    (S + ["-tC", "1"], unknown("-tC")),
    # other letters
    *((S + ["-" + c, "x"], unknown("-" + c))
      for c in "efgijkmnoquwxyzEJQZ1@[`{"),
    (S + ["-"], unknown("-")),
    (S + ["--"], unknown("--")),
    (S + ["--help"], unknown("--help")),
    (S + ["-foo", "bar"], unknown("-foo")),
    (S + ["-\xfc"], unknown("-\xfc")),
    # words
    (S + ["word"], unknown("word")),
    (S + [""], unknown("")),
    (["-sc", "-a", HOST, "word"], unknown("word")),
    (["word", "-s"], unknown("word")),
    (S + ["-a", HOST, "b"], unknown("b")),
    (L + ["-bs", "s.sh", "extra"],
     "superfluous parameter: `extra'" + HELP),
    (L + ["-bs", "s.sh", "-ba", "a.sh", "extra", "more"],
     "superfluous parameter: `extra'" + HELP),
    # the first mistake counts
    (S + ["-t", " -1", "-p", "0"], "invalid parameter: -t\0 ` -1'" + HELP),
    (["-s", "X", "-p", "0", "-t"], "invalid parameter: -p\0 `0'" + HELP),
]


def raw(args):
    return [a.encode("latin-1") for a in args]


@pytest.mark.parametrize("args, text", REFUSED,
                         ids=[ascii(" ".join(a)) for a, _ in REFUSED])
def test_is_refused(home, args, text):
    home.configure(ListenAddress=HOST, ListenPort=free_port())
    result = home.run(*raw(args))
    assert result.err == "tolva: " + text
    assert result.out == ""
    assert result.status == 1


LINKED = [
    # "-?", "-h" and "-v" are options like any other here
    ("sendtolva", ["-?"], unknown("-?")),
    ("sendtolva", ["-h"], unknown("-h")),
    ("sendtolva", ["-v"], unknown("-v")),
    ("sendtolva", [], NO_PEER),
    ("sendtolva", ["-l"], NO_PEER),
    ("sendtolva", ["-c", "f"], "configfile not used in send-mode: `-c'.\n"),
    ("sendtolva", ["word"], unknown("word")),
    ("sendtolva", ["-ac", HOST], KESDAL),
    ("listentolva", ["-?"], unknown("-?")),
    ("listentolva", ["-h"], unknown("-h")),
    ("listentolva", ["-v"], unknown("-v")),
    ("listentolva", ["-s", "X"], NO_COMMAND),
    ("listentolva", ["-sr", "X"], NO_COMMAND),
    ("listentolva", ["-ab", HOST], BROADCAST),
    ("listentolva", ["-bs", "f", "x"], "superfluous parameter: `x'" + HELP),
]


@pytest.mark.parametrize("program, args, text", LINKED,
                         ids=[f"{p} {' '.join(a)}" for p, a, _ in LINKED])
def test_link_refuses(home, program, args, text):
    home.configure(ListenAddress=HOST, ListenPort=free_port())
    result = home.run(*args, program=program)
    assert result.err == f"{program}: {text}"
    assert result.out == ""
    assert result.status == 1
