"""tolva-shutdown: who is told, what is waited for, stages and fleets."""

import socket
import time

import pytest

from ports import free_port
from shutdowncommand import Power, goes_down
from waiting import wait_for


@pytest.fixture
def power(site):
    return Power(site)


# --- telling and waiting ----------------------------------------------------


def test_this_host_waits_until_the_others_no_longer_answer(site, power):
    first, second = (site.listener(f"127.43.0.{n}") for n in (1, 2))
    power.hosts(first, second)
    run = power.start("-w", "600")
    for host in (first, second):
        host.wait_effect(["tolva_shutdown.sh "])
        wait_for(lambda h=host: f"told {h.where}\n" in run.out)
    goes_down(first)
    wait_for(lambda: f"{first.where} no longer answers" in run.out)
    wait_for(lambda: "waits for this host to go down" in second.log())
    assert power.stayed_up()
    goes_down(second)
    assert run.wait().status == 0
    assert power.went_down()
    assert f"told {first.where}\n" in run.out
    assert run.out.endswith("this host goes down now\n")
    power.nothing_is_left()


def test_one_that_stays_up_is_waited_for_until_the_time_is_up(site, power):
    host = site.listener("127.43.0.3")
    power.hosts(host)
    begun = time.monotonic()
    ran = power.run("-w", "4")
    assert time.monotonic() - begun >= 3
    assert ran.status == 0
    assert f"{host.where} may STILL BE UP after 4 seconds" in ran.out
    assert power.went_down()


def test_without_a_time_nobody_is_waited_for(site, power):
    host = site.listener("127.43.0.4")
    power.hosts(host)
    assert power.run("-w", "0").status == 0
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()
    assert "waits for" not in host.log()


def test_told_is_said_only_of_hosts_that_have_answered(site, power):
    good = site.listener("127.43.0.5")
    refusing = site.listener("127.43.0.6", allowed="192.0.2.1")
    dead = f"127.43.0.7:{free_port()}"
    power.hosts(refusing, dead, "no-such-host.invalid", "-v", good)
    ran = power.run("-w", "0")
    good.wait_effect(["tolva_shutdown.sh "])
    assert sorted(ran.out.splitlines()) == sorted([
        f"told {good.where}",
        f"COULD NOT tell {refusing.where}: it REFUSES this host, see "
        "AllowedAddresses there",
        f"COULD NOT tell {dead}: nobody listens there",
        "COULD NOT tell no-such-host.invalid: no such name or address",
        "COULD NOT tell -v: that is no host",
        "this host goes down now"])
    assert not refusing.effect()


def test_a_host_that_is_down_at_once_was_told(power):
    with socket.socket() as listening:
        listening.bind(("127.43.0.16", 0))
        listening.listen(1)
        power.hosts(":".join(map(str, listening.getsockname())))
        run = power.start("-w", "600")
        taken, _ = listening.accept()
        listening.close()
        assert taken.recv(4096)
        taken.close()
    assert run.wait().status == 0
    assert "sent to 127.43.0.16:" in run.out
    assert ", which has not answered since\n" in run.out
    assert "COULD NOT" not in run.out
    assert power.went_down()


def test_a_reason_arrives_as_it_was_given(site, power):
    host = site.listener("127.43.0.8")
    power.hosts(host)
    ran = power.run("-w", "0", "-c", "SHUTDOWN 'rack 4 (low); <&> $HOME'")
    host.wait_effect(["tolva_shutdown.sh rack 4 (low); <&> $HOME"])
    assert f"told {host.where}\n" in ran.out


@pytest.mark.parametrize("status, said", [
    (3, "where the script FAILED: status 130 of tolva -sr"),
    (42, "which rehearses and stays up")])
def test_a_host_whose_script_fails_is_not_waited_for(site, power, status,
                                                     said):
    host = site.listener("127.43.0.9", body=f"exit {status}")
    power.hosts(host)
    ran = power.run("-w", "600", "-c", "SHUTDOWN")
    assert f"told {host.where}, {said}\n" in ran.out
    assert power.went_down()


def test_a_script_that_takes_long_is_waited_for(site, power):
    hold = site.dir / "hold"
    host = site.listener("127.43.0.10", body=f"while [ ! -e {hold} ]; do "
                         "sleep 0.1; done")
    power.hosts(host)
    power.changed(LIMIT=1)
    run = power.start("-w", "600", "-c", "SHUTDOWN")
    wait_for(lambda: "where the script is still running" in run.out)
    wait_for(lambda: "waits for this host to go down" in host.log())
    assert power.stayed_up()
    hold.touch()
    goes_down(host)
    assert run.wait().status == 0
    assert power.went_down()


def test_the_list_may_come_from_anywhere(site, power):
    hosts = [site.listener(f"127.43.0.{n}") for n in range(11, 15)]
    a, b, c, d = (host.where for host in hosts)
    power.list.write_bytes(
        f"\ufeff{a}\r\n# {a}x\r\n  \t{b} {c} # two\r\n*\r\n\r\n{b}\r\n{d}"
        .encode())
    ran = power.run("-w", "0")
    for host in hosts:
        host.wait_effect(["tolva_shutdown.sh "])
        assert f"told {host.where}\n" in ran.out
    assert "COULD NOT tell *: no such name" in ran.out
    assert ran.out.count("COULD NOT") == 1


@pytest.mark.parametrize("make", [
    lambda path: path.unlink(), lambda path: path.write_text("# none\n"),
    lambda path: path.unlink() or path.mkdir()])
def test_this_host_goes_down_without_a_list(power, make):
    make(power.list)
    ran = power.run()
    assert ran.status == 0
    assert "is told\n" in ran.out
    assert power.went_down()


# --- stages and fleets ------------------------------------------------------


def test_a_fleet_is_told_by_tolva_fleet_and_then_waited_for(site, power):
    host = site.listener("127.43.2.1")
    told = site.effects / "told"
    site.stand_in("tolva-fleet", f'printf "[%s]" "$@" >"{told}"; '
                  "echo '1 hosts: 1 done'; exit 1")
    power.hosts(f"{host.where} name * of a host")
    run = power.start("-w", "600", "-c", "SHUTDOWN 'low'", "-f")
    wait_for(lambda: "waits for this host to go down" in host.log())
    assert told.read_text() == f"[-q][{power.list}][SHUTDOWN 'low']"
    assert power.stayed_up()
    goes_down(host)
    assert run.wait().status == 0
    assert "1 hosts: 1 done\n" in run.out
    assert "tolva-fleet has ended with status 1\n" in run.out
    assert power.went_down()


def test_without_tolva_fleet_the_hosts_are_told_all_the_same(site, power):
    host = site.listener("127.43.2.2")
    power.hosts(f"{host.where} name * of a host")
    power.changed(PATH=f"{site.bin}:/usr/bin:/bin")
    ran = power.run("-w", "0", "-f")
    assert "the command tolva-fleet is MISSING" in ran.out
    assert ran.out.count("told") == 1
    host.wait_effect(["tolva_shutdown.sh "])
    assert power.went_down()


def test_stages_are_told_by_tolva_staged_and_then_waited_for(site, power):
    down, other, third = (site.listener(f"127.43.2.{n}")
                          for n in (3, 4, 6))
    (site.dir / "group").write_text(f"{third.where} name of it\n")
    told = site.effects / "told"
    site.stand_in("tolva-staged", f'printf "[%s]" "$@" >"{told}"')
    power.list.write_text(f"1 60 {other.where} EXECUTE stop-database\n"
                          f"2 60 {down.where} shutdown 'low' # last\n"
                          "2 60 @group SHUTDOWN\n")
    run = power.start("-w", "600", "-s")
    for host in (down, third):
        wait_for(lambda h=host: "waits for this host to go down" in h.log())
    assert told.read_text() == f"[-q][{power.list}]"
    assert power.stayed_up()
    goes_down(down)
    goes_down(third)
    assert run.wait().status == 0
    assert "waits for" not in other.log()
    assert power.went_down()


@pytest.mark.parametrize("plan, option", [("tolva-fleet", "-f"),
                                          ("tolva-staged", "-s")])
def test_a_plan_that_hangs_is_given_up_when_the_time_is_up(site, power, plan,
                                                           option):
    site.stand_in(plan, "echo begun; exec sleep 600")
    power.list.write_text("127.43.2.5\n")
    ran = power.run("-w", "3", option)
    assert "begun\n" in ran.out
    assert f"{plan} has ended with status 137\n" in ran.out
    assert power.went_down()
    power.nothing_is_left()
