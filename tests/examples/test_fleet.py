"""examples/fleet: the list as it is shipped, and relays that tell their own
racks, two for each."""

import shutil

from conftest import EXAMPLES
from harness import ROOT, TOLVA
from ports import free_port
from waiting import wait_for

FLEET = EXAMPLES / "fleet"


def put_commands(site):
    """tolva-fleet where the relays' actions and the tests find it."""
    link = site.bin / "tolva-fleet"
    link.symlink_to(TOLVA.parent / "tolva-fleet")
    return link


def relay(site, host, port, rack):
    """A listener that runs the shipped actions, "tell-rack" among them."""
    listener = site.listener(host, port)
    shutil.copy(ROOT / "share" / "scripts" / "tolva_execute.sh",
                listener.home / "tolva_execute.sh")
    actions = listener.home / "actions.d"
    actions.mkdir()
    path = actions / "tell-rack"
    text = (FLEET / "tell-rack").read_text()
    # Its port and its list are this test's own; its PATH is the listener's.
    settings = (f"TELL_RACK_HOSTS={rack}\nTELL_RACK_PORT={port}\n"
                "export TELL_RACK_HOSTS TELL_RACK_PORT\n"
                f"PATH={site.bin}:$PATH\n")
    head, _, rest = text.partition("\n")
    path.write_text(f"{head}\n{settings}{rest}")
    path.chmod(0o755)
    return listener


def test_two_relays_tell_each_rack_and_are_told_last(site):
    put_commands(site)
    port = free_port()
    racks = {}
    for number in (1, 2):
        racks[number] = [site.listener(f"127.120.{number}.{n}", port)
                         for n in (1, 2, 3)]
        (site.dir / f"rack{number}").write_text("".join(
            f"{host.host}\n" for host in racks[number]))
    relays = [relay(site, f"127.121.{number}.{n}", port,
                    site.dir / f"rack{number}")
              for number in racks for n in (1, 2)]
    # One of them is dead: its rack has another.
    relays[0].run.process.terminate()
    relays[0].run.wait()
    (site.dir / "relays").write_text("".join(
        f"{host.host}\n" for host in relays))
    first = site.run(site.bin / "tolva-fleet", "-q", "-s", "25", "-p", port,
                     site.dir / "relays", "EXECUTE tell-rack low")
    assert first.status == 1
    assert first.out.splitlines()[-1] == "4 hosts: 3 done, 1 refused"
    for number, times in ((1, 1), (2, 2)):
        for host in racks[number]:
            host.wait_effect(["tolva_shutdown.sh low"] * times)
    assert all("tolva_shutdown.sh" not in line
               for host in relays for line in host.effect())
    last = site.run(site.bin / "tolva-fleet", "-q", "-p", port,
                    site.dir / "relays", "SHUTDOWN", "battery low")
    assert last.out.splitlines()[-1] == "4 hosts: 3 done, 1 refused"
    for host in relays[1:]:
        host.wait_effect(["tolva_shutdown.sh battery low"])


def test_a_relay_says_that_its_rack_is_not_all_done(site):
    put_commands(site)
    port = free_port()
    here = site.listener("127.122.0.1", port)
    (site.dir / "rack").write_text("127.122.0.1\n127.122.0.2 dead\n")
    site.stand_in("logger", 'cat >>"%s"' % (site.dir / "logged"))
    one = relay(site, "127.122.1.1", port, site.dir / "rack")
    (site.dir / "relays").write_text(one.host)
    ran = site.run(site.bin / "tolva-fleet", "-q", "-o", "tsv", "-p", port,
                   site.dir / "relays", "EXECUTE tell-rack")
    assert ran.status == 1
    assert "127.122.1.1\t\tfailed\t1\t" in ran.out
    here.wait_effect(["tolva_shutdown.sh the UPS battery is low"])
    logged = site.dir / "logged"
    wait_for(lambda: logged.exists() and "refused      127.122.0.2  dead" in
             logged.read_text(), what="the relay's log says who")


def test_the_shipped_list_is_usable(site):
    ran = site.run(put_commands(site), "-n", FLEET / "hosts", "SHUTDOWN low")
    assert ran.status == 0
    assert ran.out.splitlines() == [
        "would be sent to 192.0.2.21  web1: SHUTDOWN low",
        "would be sent to 192.0.2.22  web2: SHUTDOWN low",
        "would be sent to 192.0.2.31  database: SHUTDOWN low"]
