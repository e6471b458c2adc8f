"""examples/stunnel: the protocol through TLS with client certificates."""

import contextlib
import os
import pathlib
import shutil
import socket
import ssl
import subprocess

import pytest

from conftest import EXAMPLES
from harness import message
from peers import read_to_end
from ports import free_port, tcp_listens, udp_is_bound
from waiting import BOUND, wait_for
from wire import HEADER, STATUS

MAKE = EXAMPLES / "stunnel" / "make-certificates"
HOST = "127.54.0.1"
NAME = "web1.example"


def make(directory, *words):
    return subprocess.run([MAKE, directory, *words], capture_output=True,
                          text=True)


def made(directory, *words):
    ran = make(directory, *words)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, "", "")


@pytest.fixture(scope="module")
def certificates(tmp_path_factory):
    """A CA with a host and senders, and another CA."""
    ours = tmp_path_factory.mktemp("ours")
    made(ours, "ca")
    made(ours, "host", NAME)
    made(ours, "host", "other.example")
    made(ours, "sender", "ups1")
    made(ours, "sender", "lost")
    lost = (ours / "lost.pem").read_bytes()
    made(ours, "lock-out", "lost")
    (ours / "lost.pem").write_bytes(lost)
    theirs = tmp_path_factory.mktemp("theirs")
    made(theirs, "ca")
    made(theirs, "sender", "ups1")
    made(theirs, "host", NAME)
    return ours, theirs


class Tunnel:
    """stunnel with a configuration of the example, paths and ports changed."""

    def __init__(self, site, name, directory, changes):
        assert shutil.which("stunnel4"), "stunnel4 is not installed"
        text = (EXAMPLES / "stunnel" / name).read_text()
        foreground = "foreground = yes\n"
        changes = [(foreground, f"{foreground}debug = info\nsyslog = no\n"),
                   ("/etc/stunnel/tolva/", f"{directory}/"), *changes]
        if os.geteuid() != 0:
            changes += [("setuid = stunnel4\n", ""),
                        ("setgid = stunnel4\n", "")]
        for old, new in changes:
            assert old in text, f"{name}: {old}"
            text = text.replace(old, new)
        conf = site.dir / f"{len(site.home.runs)}-{name}"
        conf.write_text(text)
        self.run = site.start("stunnel4", conf)

    def ready(self, port):
        wait_for(lambda: tcp_listens(port) or
                 not self.run.running(), what="stunnel listens")
        assert self.run.running(), self.run.describe()

    def said(self, text):
        return text in self.run.out + self.run.err


class Chain:
    """A listener on 127.0.0.1 and the host's end of the tunnel."""

    def __init__(self, site, certificates, host=NAME, body="exit 0"):
        self.site = site
        self.ours, self.theirs = certificates
        self.listener = site.listener("127.0.0.1", body=body)
        keys = self.keys("host-keys", self.ours, f"{host}.pem", "host.pem")
        self.port = free_port()
        self.host_end = Tunnel(site, "host.conf", keys, [
            ("accept = 6004", f"accept = {HOST}:{self.port}"),
            ("127.0.0.1:6003", self.listener.where)])
        self.host_end.ready(self.port)

    def keys(self, name, source, certificate, target):
        """What is given to one machine."""
        directory = self.site.dir / name
        directory.mkdir()
        for file in ("ca.pem", "crl.pem"):
            shutil.copy(source / file, directory)
        if certificate:
            shutil.copy(source / certificate, directory / target)
        return directory

    def sender(self, source=None, certificate="ups1.pem", changes=(),
               ca=None):
        """The sender's end; returns where to send to."""
        keys = self.keys("sender-keys", source or self.ours, certificate,
                         "sender.pem")
        if ca:
            shutil.copy(ca / "ca.pem", keys)
            shutil.copy(ca / "crl.pem", keys)
        port = free_port()
        self.sender_end = Tunnel(self.site, "sender.conf", keys, [
            ("127.6.0.1:16003", f"127.6.0.1:{port}"),
            ("127.6.0.2:16003", f"127.6.0.2:{port}"),
            ("192.0.2.21:6004", f"{HOST}:{self.port}"),
            ("192.0.2.22:6004", f"{HOST}:{self.port}"), *changes])
        self.sender_end.ready(port)
        return f"127.6.0.1:{port}"

    def send(self, where, *words, program="tolva"):
        return self.site.run(self.site.bin / program, *words, "-a", where)

    def nothing_came(self):
        assert not self.listener.effect()
        assert message(795) not in self.listener.log()
        assert message(796) not in self.listener.log()

    def still_serves(self):
        """The next good sender shows that the end was reached, and why."""
        conn = tls(self.ours / "ups1.pem", self.ours).wrap_socket(
            socket.create_connection((HOST, self.port), BOUND),
            server_hostname=NAME)
        with conn:
            conn.sendall(STATUS + b"EXECUTE good")
            assert b"EXITSTATUS=" in read_to_end(conn)
        assert self.listener.effect() == ["tolva_execute.sh good"]


def tls(certificate, ca):
    context = ssl.create_default_context(cafile=ca / "ca.pem")
    if certificate:
        context.load_cert_chain(certificate)
    return context


def test_good_certificate_gets_its_script_run_and_its_status(
        site, certificates):
    chain = Chain(site, certificates, body="exit 5")
    where = chain.sender()
    ran = chain.send(where, "-sr", "EXECUTE backup now")
    assert ran.status == 5 + 127
    assert "EXITSTATUS=5" in ran.out
    assert chain.listener.effect() == ["tolva_execute.sh backup now"]


def test_every_form_of_command_passes(site, certificates):
    chain = Chain(site, certificates)
    where = chain.sender()
    assert chain.send(where, program="sendtolva").status == 0
    chain.listener.wait_effect(["tolva_shutdown.sh "])
    assert chain.send(where, "-s", "SHUTDOWN now").status == 0
    chain.listener.wait_effect(["tolva_shutdown.sh ",
                                "tolva_shutdown.sh now"])
    long = "x" * 3900
    assert chain.send(where, "-sr", f"MSG_TEXT {long}").status == 0
    assert chain.listener.effect()[2:] == [f"tolva_message.sh {long}"]


def test_a_slow_script_is_waited_for(site, certificates):
    gate = site.dir / "gate"
    os.mkfifo(gate)
    chain = Chain(site, certificates, body=f'cat "{gate}"; exit 2')
    run = site.start(site.bin / "tolva", "-sr", "EXECUTE x", "-t", "60",
                     "-a", chain.sender())
    chain.listener.wait_effect(["tolva_execute.sh x"])
    assert run.running()
    os.close(os.open(gate, os.O_WRONLY))
    assert run.wait().status == 129


def test_each_host_has_an_address_of_its_own(site, certificates):
    """The second section's host has to be web2, which this one is not."""
    chain = Chain(site, certificates)
    where = chain.sender().replace("127.6.0.1", "127.6.0.2")
    assert chain.send(where, "-sr", "EXECUTE x").status == 1
    chain.nothing_came()
    chain.still_serves()


def test_tunnels_give_up_being_root(site, certificates):
    chain = Chain(site, certificates)
    status = pathlib.Path(f"/proc/{chain.host_end.run.pid}/status")

    def is_root():
        text = status.read_text()
        return "\nUid:\t0" in text or "\nGid:\t0" in text

    wait_for(lambda: not is_root(), what="it runs as another user")


@pytest.mark.parametrize("which", ["none", "other CA", "host's", "lost"])
def test_others_get_nothing(site, certificates, which):
    chain = Chain(site, certificates)
    ours, theirs = certificates
    where = {
        "none": lambda: chain.sender(
            certificate=None,
            changes=[(f"cert = {site.dir}/sender-keys/sender.pem\n", "")]),
        "other CA": lambda: chain.sender(theirs, ca=ours),
        "host's": lambda: chain.sender(certificate="other.example.pem"),
        "lost": lambda: chain.sender(certificate="lost.pem"),
    }[which]()
    ran = chain.send(where, "-sr", "EXECUTE x")
    assert ran.status == 1
    assert "EXITSTATUS" not in ran.out
    wait_for(lambda: chain.host_end.said({
        "none": "peer did not return a certificate",
        "other CA": "CERT: Pre-verification error",
        "host's": "unsuitable certificate purpose",
        "lost": "certificate revoked"}[which]), what="it is turned away")
    chain.nothing_came()
    chain.still_serves()


def test_plain_bytes_get_nothing(site, certificates):
    chain = Chain(site, certificates)
    for payload in (HEADER, STATUS + b"EXECUTE x"):
        with socket.create_connection((HOST, chain.port), BOUND) as conn:
            conn.sendall(payload)
            with contextlib.suppress(OSError):  # it may have hung up
                conn.shutdown(socket.SHUT_WR)
            assert b"CONNECT" not in read_to_end(conn)
    chain.nothing_came()
    chain.still_serves()


def test_old_tls_gets_nothing(site, certificates):
    chain = Chain(site, certificates)
    context = tls(chain.ours / "ups1.pem", chain.ours)
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    with socket.create_connection((HOST, chain.port), BOUND) as conn:
        with pytest.raises(ssl.SSLError):
            context.wrap_socket(conn, server_hostname=NAME)
    chain.nothing_came()
    chain.still_serves()


@pytest.mark.parametrize("which", ["other name", "other CA"])
def test_nothing_is_sent_to_the_wrong_host(site, certificates, which):
    if which == "other name":
        chain = Chain(site, certificates, host="other.example")
        where = chain.sender()
    else:
        chain = Chain(site, certificates)
        where = chain.sender(ca=chain.theirs)
    ran = chain.send(where, "-sr", "EXECUTE x")
    assert ran.status == 1
    wait_for(lambda: chain.sender_end.said(
        "Subject checks failed" if which == "other name" else "CERT: Pre-verification error"),
        what="the sender's end says why")
    chain.nothing_came()


def test_nobody_reaches_the_listener_past_the_tunnel(site, certificates):
    """With the example's own settings, but for the port."""
    listener = site.listener("127.0.0.1")
    settings = (EXAMPLES / "stunnel" / "tolva.cfg").read_text()
    assert listener.run.running()
    os.kill(listener.run.pid, 15)
    listener.run.wait()
    port = free_port()
    (listener.home / "tolva.cfg").write_text(
        settings.replace("6003", str(port)))
    listener.run = site.start(site.bin / "tolva", "-l", "-d", "0",
                              env={"TOLVAHOME": str(listener.home)})
    listener.port = port
    assert listener.listens()
    with contextlib.closing(socket.socket()) as conn, \
            pytest.raises(ConnectionRefusedError):
        conn.connect(("127.0.0.2", port))
    # A datagram has nowhere to go, and another source is refused.
    assert not udp_is_bound(port)
    with contextlib.closing(socket.socket()) as conn:
        conn.settimeout(BOUND)
        conn.bind(("127.54.0.9", 0))
        conn.connect(("127.0.0.1", port))
        conn.sendall(HEADER)
        assert read_to_end(conn) == b""
    wait_for(lambda: message(835) in listener.log(), what="it is refused")
    assert not listener.effect()


# --- the certificates --------------------------------------------------------


def test_private_keys_are_for_their_owner_only(tmp_path):
    made(tmp_path, "ca")
    made(tmp_path, "sender", "ups1")
    for path in tmp_path.rglob("*"):
        public = path.name in ("ca.pem", "crl.pem")
        assert path.stat().st_mode & 0o077 == (0o044 if public else 0), path
    assert b"PRIVATE KEY" not in (tmp_path / "ca.pem").read_bytes()
    assert not list(tmp_path.glob("ups1.key"))


def test_nothing_is_overwritten(tmp_path):
    made(tmp_path, "ca")
    made(tmp_path, "sender", "ups1")
    before = {p: p.read_bytes() for p in tmp_path.rglob("*") if p.is_file()}
    for words in (["ca"], ["sender", "ups1"], ["host", "ups1"]):
        ran = make(tmp_path, *words)
        assert ran.returncode == 1
        assert "already" in ran.stderr
    assert before == {p: p.read_bytes() for p in tmp_path.rglob("*")
                      if p.is_file()}


def test_a_locked_out_name_can_get_a_new_certificate(tmp_path):
    made(tmp_path, "ca")
    made(tmp_path, "sender", "ups1")
    old = tmp_path / "old.crt"
    shutil.copy(tmp_path / "ups1.crt", old)
    made(tmp_path, "lock-out", "ups1")
    assert not (tmp_path / "ups1.pem").exists()
    made(tmp_path, "sender", "ups1")

    def verify(certificate):
        return subprocess.run(
            ["openssl", "verify", "-CAfile", tmp_path / "ca.pem", "-CRLfile",
             tmp_path / "crl.pem", "-crl_check", "-purpose", "sslclient",
             certificate], capture_output=True, text=True)

    assert verify(tmp_path / "ups1.crt").returncode == 0
    refused = verify(old)
    assert refused.returncode != 0
    assert "certificate revoked" in refused.stderr


@pytest.mark.parametrize("words", [
    [], ["ca", "x"], ["sender"], ["sender", ""], ["sender", "a b"],
    ["sender", "../x"], ["sender", "ca"], ["sender", "-x"],
    ["host", "x,DNS:y"], ["lock-out", "nobody"], ["sender", "a", "b"],
    ["nonsense", "x"],
])
def test_wrong_words_make_nothing(tmp_path, words):
    made(tmp_path, "ca")
    before = sorted(p for p in tmp_path.rglob("*"))
    ran = make(tmp_path, *words)
    assert ran.returncode in (1, 2)
    assert ran.stderr and not ran.stdout
    assert sorted(p for p in tmp_path.rglob("*")) == before


def test_no_certificate_without_a_ca(tmp_path):
    ran = make(tmp_path, "sender", "ups1")
    assert ran.returncode == 1
    assert "there is no CA" in ran.stderr
