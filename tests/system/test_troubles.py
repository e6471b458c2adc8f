"""What goes wrong for administrators is seen as tolva(8) says, and README.md
for what everybody meets, with the files as they are shipped."""

import errno
import os
import re
import shutil
import subprocess

import pytest

import manual
from harness import ROOT, reason
from peers import reader
from ports import free_port, tcp_listens
from waiting import wait_for

README = (ROOT / "README.md").read_text()
TROUBLES = README.partition("## When it does not work")[2].partition("\n## ")[0]
STATUSES, _, ROWS = TROUBLES.partition("Others are the script's own")
PAGE = manual.Page("tolva.8")
SHARE = ROOT / "share"
HOST = "127.0.0.1"


@pytest.fixture
def shipped(home):
    """A home with all that is shipped, and a rehearsal."""
    for path in [*SHARE.glob("*"), *SHARE.glob("scripts/*.sh")]:
        if path.is_file():
            shutil.copy(path, home.path(path.name))
    for path in home.home.glob("*.sh"):
        path.chmod(0o755)
    home.path("actions.d").mkdir()
    home.path("rehearsal").touch()
    return home


def listen(home, *args, settings=f"\nAllowedAddresses={HOST}\n"):
    """A listener in the foreground, with settings behind the shipped ones."""
    port = free_port()
    home.write("tolva.cfg", (SHARE / "tolva.cfg").read_text() + settings)
    run = home.start("-l", "-d", "-p", port, *args)
    wait_for(lambda: tcp_listens(port) or not run.running(),
             what="it listens, or has ended")
    return run, f"{HOST}:{port}"


def shown_page():
    """The manual page as a reader sees it."""
    mandoc = shutil.which("mandoc")
    assert mandoc, "mandoc is missing (apt-get install mandoc)"
    done = subprocess.run([mandoc, "-Tascii", "-Owidth=1000", PAGE.path],
                          stdout=subprocess.PIPE, text=True, check=True)
    return re.sub(".\b", "", done.stdout)


@pytest.fixture(scope="module")
def told():
    """Fails unless the manual has what is seen, among its troubles."""
    text = shown_page().partition("\nDIAGNOSTICS\n")[2]
    text = text.partition("\nSEE ALSO\n")[0]
    text = re.sub(r"\s+", " ", text).replace("`", "'")
    assert len(text) > 5000

    def look(seen):
        kind, colon, rest = seen.partition(": ")
        parts = [f"{kind}: %s", f'"{rest}"'] if colon and kind in (
            "system", "error") and f"{kind}: {rest}" not in text else [seen]
        for part in parts:
            assert part.replace("`", "'") in text, part
        return seen

    return look


def rows():
    """The cells of the first column of README.md's troubles."""
    cells = re.findall(r"^\| ([^|]*) \|", ROWS, re.MULTILINE)
    assert cells[0] == "You see"
    return cells[1:]


def test_what_readme_tells_is_in_the_manual(told):
    assert 5 <= len(rows()) <= 10
    for cell in rows():
        for code in re.findall(r"`(\w+: [^`]+)`", cell):
            told(code.replace("192.0.2.9", "%s"))
        if not re.search(r"`\w+: ", cell):
            told(cell.replace("`", ""))


def test_the_statuses_of_readme_are_those_of_the_manual():
    given = {int(number) for number in
             re.findall(r"^\| (\d+) \|", STATUSES, re.MULTILINE)}
    assert given == {0, 1, 129, 169, 254}
    scripts = {int(status): int(script)
               for script, status, _ in PAGE.table("scripts")}
    assert given - {1} <= set(scripts)
    assert "(253: not executable)" in STATUSES and scripts[253] == 126


def test_first_columns_are_texts_of_the_program():
    known = "".join(path.read_text() for path in
                    (ROOT / "src").rglob("*.cpp"))
    known += (SHARE / "messages.dat").read_text()
    system = {os.strerror(number) for number in range(1, 132)}
    seen = [code for row in rows() for code in re.findall(r"`([^`]+)`", row)
            if re.match(r"[a-zS][a-z]+:? ", code)]
    assert len(seen) >= 6
    for code in seen:
        kind, _, rest = code.partition(": ")
        if kind == "system" or rest in system:
            assert rest in system, code
        else:
            text = re.sub(r"192\.0\.2\.9|messages\.dat$", "%s", code)
            assert re.split(r"(?<=: )(?:/|\.\.\.)", text)[0] in known, code


def test_wrong_port(shipped, told):
    sent = shipped.run("-sr", "EXECUTE x", "-a",
                       f"{HOST}:{free_port()}")
    assert sent.status == 1
    assert told("system: Connection refused") in sent.messages
    assert any(text.startswith(told("could not send the command to"))
               for text in sent.messages)


def test_port_in_use(shipped, told):
    run, where = listen(shipped)
    port = where.partition(":")[2]
    second = shipped.run("-l", "-d", "-p", port)
    assert second.status == 1
    told("system: Address already in use")
    in_use = reason(errno.EADDRINUSE)
    assert f"system: {in_use}" in shipped.log_messages()
    said = told("cannot listen on ListenAddress=%s ListenPort=%s (%s): %s")
    assert said % (
        "0.0.0.0", port, "tcp", in_use) in second.err
    run.process.terminate()
    assert run.wait().status == 0


def test_script_without_its_mode(shipped, told):
    shipped.path("tolva_execute.sh").chmod(0o644)
    run, where = listen(shipped)
    sent = shipped.run("-sr", "EXECUTE x", "-a", where)
    assert sent.status == 253
    told("status 253 (126 at the host)")
    wait_for(lambda: any(text.startswith(told("failed: "))
                         for text in shipped.log_messages()), what="the log")
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_script(shipped, told):
    shipped.path("tolva_message.sh").unlink()
    run, where = listen(shipped)
    sent = shipped.run("-sr", "MSG_TEXT x", "-a", where)
    assert sent.status == 254
    told("status 254 (127 at the host)")
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_action(shipped, told):
    run, where = listen(shipped)
    sent = shipped.run("-sr", "EXECUTE nothing", "-a", where)
    assert sent.status == 129
    told("status 129 after EXECUTE")
    assert 'no action "nothing"' in run.err
    run.process.terminate()
    assert run.wait().status == 0


def test_host_name_that_does_not_resolve(shipped, told):
    sent = shipped.run("-s", "SHUTDOWN", "-a", "-a", "no/host", "-a", HOST)
    assert sent.status == 1
    sent = shipped.run("-s", "SHUTDOWN", "-a", "no/host", "-a", HOST)
    assert sent.status == 1
    assert told("could not resolve hostname") + " `no/host'" in sent.err
    assert told("could not handle address") + " [no/host]" in sent.err
    assert sent.messages == []


@pytest.mark.parametrize("value", ['"127.0.0.1"', "127.0.0.1,127.0.0.2",
                                   "no/host"])
def test_senders_that_cannot_be_used(shipped, told, value):
    run, where = listen(shipped, settings=f"\nAllowedAddresses={value}\n")
    assert told("could not resolve hostname") + f" `{value}'" in run.err
    assert told("error: no address of AllowedAddresses can be used, nobody is "
                "admitted") in shipped.log_messages()
    sent = shipped.run("-sr", "LOG_TEXT x", "-a", where)
    assert sent.status == 1
    # Which one depends on how far the two are when it is refused.
    assert set(sent.messages) & {
        told("message ignored: it is neither a valid request nor a valid "
             "reply"),
        told("system: Broken pipe"),
        told("system: Connection reset by peer")}
    assert f"refused: {HOST} is not among the allowed senders" in \
        shipped.log_messages()
    told("is not among the allowed senders")
    run.process.terminate()
    assert run.wait().status == 0


def test_refused_sender_with_nothing_but_s(shipped, told):
    run, where = listen(shipped, settings="\nAllowedAddresses=127.0.0.9\n")
    sent = shipped.run("-s", "LOG_TEXT x", "-a", where)
    assert sent.status == 0
    told("status 0 with -s, but nothing happens")
    wait_for(lambda: f"refused: {HOST} is not among the allowed senders"
             in shipped.log_messages(), what="the refusal")
    assert "x" not in shipped.log_messages()
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_message_texts(shipped, told):
    shipped.path("messages.dat").unlink()
    run, where = listen(shipped)
    assert told("error initializing messages database") in run.err
    sent = shipped.run("-sr", "LOG_TEXT still here", "-a", where)
    assert sent.status == 0
    assert told("error initializing messages database %s").replace(
        "%s", "messages.dat") in sent.err
    assert shipped.log_messages() == ["still here"]
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_settings_file_that_is_named(shipped, told):
    done = shipped.run("-l", "-d", "-c", shipped.path("nothing.cfg"))
    assert done.status == 1
    assert told("error reading configfile") in done.err


def test_address_that_is_not_here(shipped, told):
    done = shipped.run("-l", "-d", "-p", f"192.0.2.1:{free_port()}")
    assert done.status == 1
    told("Cannot assign requested address")
    assert "(tcp): " + reason(errno.EADDRNOTAVAIL) in done.err


def test_nobody_answers_in_time(shipped, told):
    server = shipped.server(reader)
    sent = shipped.run("-sr", "EXECUTE x", "-a", server.where, "-t", "1")
    assert sent.status == 1
    told("error: Connection timed out")
    assert "error: " + reason(errno.ETIMEDOUT) in sent.messages
    assert told("no answer from %s in time") % HOST in sent.messages


def test_answer_without_a_status(shipped, told):
    def play(talk):
        talk.read_some()
        talk.send(b"hello")

    server = shipped.server(play)
    sent = shipped.run("-sr", "EXECUTE x", "-a", server.where)
    assert sent.status == 1
    assert told("no usable reply from %s") % HOST in sent.messages


def test_rehearsal(shipped, told):
    run, where = listen(shipped)
    sent = shipped.run("-sr", "SHUTDOWN 'a rehearsal'", "-a", where)
    # Where what shuts the host down is missing, the rehearsal says that.
    assert sent.status == (169 if os.access("/sbin/shutdown", os.X_OK)
                           else 254)
    told("status 169")
    assert "rehearsal, nothing is shut down" in run.err + run.out
    said = told("the script that failed ended with status %s")
    assert said % (sent.status - 127) in shipped.log_messages()
    run.process.terminate()
    assert run.wait().status == 0


def test_reason_that_the_shell_does_not_understand(shipped, told):
    run, where = listen(shipped)
    sent = shipped.run("-sr", "SHUTDOWN rack 4 (low)", "-a", where)
    assert sent.status == 129
    told("status 129 after SHUTDOWN")
    assert "Syntax error" in run.err
    assert "rehearsal" not in run.err + run.out
    run.process.terminate()
    assert run.wait().status == 0


def test_log_that_cannot_be_written(shipped, told):
    run, where = listen(shipped, settings=(
        f"\nAllowedAddresses={HOST}\n"
        f"LogfileName={shipped.path('nowhere')}/tolva.log\n"))
    sent = shipped.run("-sr", "LOG_TEXT x", "-a", where)
    assert sent.status == 128
    told("status 128 after LOG_TEXT")
    told("Nothing in the log at all")
    run.process.terminate()
    assert run.wait().status == 0


def test_started_by_hand_with_the_settings_as_shipped(shipped, told):
    run, where = listen(shipped, settings="")
    assert told("everybody who reaches the port may send, since no sender is "
                "named") in shipped.log_messages()
    assert shipped.run("-sr", "LOG_TEXT hello", "-a", where).status == 0
    run.process.terminate()
    assert run.wait().status == 0


def test_unknown_command_word(shipped, told):
    run, where = listen(shipped)
    sent = shipped.run("-sr", "SHUTDWON now", "-a", where)
    assert sent.status == 1
    assert told("command ignored: it is empty or its command word is "
                "unknown") in shipped.log_messages()
    run.process.terminate()
    assert run.wait().status == 0


def test_misspelt_key(shipped, told):
    """The listener itself does not tell."""
    run, where = listen(shipped, settings=(
        f"\nAllowedAddresses={HOST}\nListenTimeOut=3\n"))
    told("A setting does nothing")
    assert run.err == ""
    assert "TimeOut" not in "".join(shipped.log_messages())
    run.process.terminate()
    assert run.wait().status == 0
