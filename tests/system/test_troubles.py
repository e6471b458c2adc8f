"""What goes wrong for administrators is seen as README.md says, with the
files as they are shipped."""

import os
import re
import shutil

import pytest

from harness import ROOT
from ports import free_port, tcp_listens
from waiting import wait_for

README = (ROOT / "README.md").read_text()
TROUBLES = README.partition("## When it does not work")[2]
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


def told(text):
    """README.md has a row for what is seen."""
    assert text in re.sub(r"`", "", TROUBLES)
    return text


def test_first_columns_are_texts_of_the_program():
    known = "".join(path.read_text() for path in
                    (ROOT / "src").rglob("*.cpp"))
    known += (SHARE / "messages.dat").read_text()
    system = {os.strerror(number) for number in range(1, 132)}
    seen = [code for row in re.findall(r"^\| ([^|]*) \|", TROUBLES, re.M)
            for code in re.findall(r"`([^`]+)`", row)
            if re.match(r"[a-zS][a-z]+:? ", code)]
    assert len(seen) > 12
    for code in seen:
        kind, _, rest = code.partition(": ")
        if kind == "system" or rest in system:
            assert rest in system, code
        else:
            text = re.sub(r"192\.0\.2\.9|messages\.dat$", "%s", code)
            assert re.split(r"(?<=: )(?:/|\.\.\.)", text)[0] in known, code


def test_wrong_port(shipped):
    sent = shipped.run("-sr", "EXECUTE x", "-a",
                       f"{HOST}:{free_port()}")
    assert sent.status == 1
    assert told("system: Connection refused") in sent.messages
    assert any(text.startswith(told("could not send the command to"))
               for text in sent.messages)


def test_port_in_use(shipped):
    run, where = listen(shipped)
    second = shipped.run("-l", "-d", "-p", where.partition(":")[2])
    assert second.status == 1
    assert told("system: Address already in use") in shipped.log_messages()
    run.process.terminate()
    assert run.wait().status == 0


def test_script_without_its_mode(shipped):
    shipped.path("tolva_execute.sh").chmod(0o644)
    run, where = listen(shipped)
    sent = shipped.run("-sr", "EXECUTE x", "-a", where)
    assert sent.status == 253
    told("status 253 (126 at the host)")
    wait_for(lambda: any(text.startswith(told("failed: "))
                         for text in shipped.log_messages()), what="the log")
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_script(shipped):
    shipped.path("tolva_message.sh").unlink()
    run, where = listen(shipped)
    sent = shipped.run("-sr", "MSG_TEXT x", "-a", where)
    assert sent.status == 254
    told("status 254 (127 at the host)")
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_action(shipped):
    run, where = listen(shipped)
    sent = shipped.run("-sr", "EXECUTE nothing", "-a", where)
    assert sent.status == 129
    told("status 129 after EXECUTE")
    assert 'no action "nothing"' in run.err
    run.process.terminate()
    assert run.wait().status == 0


def test_host_name_that_does_not_resolve(shipped):
    sent = shipped.run("-s", "SHUTDOWN", "-a", "-a", "no/host", "-a", HOST)
    assert sent.status == 1
    sent = shipped.run("-s", "SHUTDOWN", "-a", "no/host", "-a", HOST)
    assert sent.status == 1
    assert told("could not resolve hostname") + " `no/host'" in sent.err
    assert told("could not handle address") + " [no/host]" in sent.err
    assert sent.messages == []


@pytest.mark.parametrize("value", ['"127.0.0.1"', "127.0.0.1,127.0.0.2",
                                   "no/host"])
def test_senders_that_cannot_be_used(shipped, value):
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


def test_refused_sender_with_nothing_but_s(shipped):
    run, where = listen(shipped, settings="\nAllowedAddresses=127.0.0.9\n")
    sent = shipped.run("-s", "LOG_TEXT x", "-a", where)
    assert sent.status == 0
    told("status 0 with -s, but nothing happens")
    wait_for(lambda: f"refused: {HOST} is not among the allowed senders"
             in shipped.log_messages(), what="the refusal")
    assert "x" not in shipped.log_messages()
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_message_texts(shipped):
    shipped.path("messages.dat").unlink()
    run, where = listen(shipped)
    assert told("error initializing messages database") in run.err
    sent = shipped.run("-sr", "LOG_TEXT still here", "-a", where)
    assert sent.status == 0
    assert told("error initializing messages database messages.dat") \
        in sent.err
    assert shipped.log_messages() == ["still here"]
    run.process.terminate()
    assert run.wait().status == 0


def test_missing_settings_file_that_is_named(shipped):
    done = shipped.run("-l", "-d", "-c", shipped.path("nothing.cfg"))
    assert done.status == 1
    assert told("error reading configfile") in done.err
