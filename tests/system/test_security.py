"""docs/security.md: the packet filters can be loaded, and what it says an
allowed sender can do is so."""

import re
import shutil
import subprocess

import pytest

from harness import ROOT
from processes import children
from waiting import wait_for
from wire import EXECUTE

TEXT = (ROOT / "docs" / "security.md").read_text()
FILTERS = dict(re.findall(r"<!-- nft: ([\w-]+) -->\n```\n(.*?)```\n", TEXT,
                          re.DOTALL))


def nft_check(path):
    """nft's opinion of a file, in a network namespace if there can be one."""
    nft = shutil.which("nft", path="/usr/sbin:/sbin:/usr/bin")
    assert nft, "nft is missing (apt-get install nftables)"
    apart = ["unshare", "--map-root-user", "--net", "--"]
    if subprocess.run([*apart, "true"], stderr=subprocess.DEVNULL,
                      check=False).returncode != 0:
        apart = []
    return subprocess.run([*apart, nft, "-c", "-f", path], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)


def test_there_are_filters_for_both_sides():
    assert sorted(FILTERS) == ["host", "interface", "sender", "stunnel-host"]


@pytest.mark.parametrize("name", sorted(FILTERS))
def test_a_filter_can_be_loaded(tmp_path, name):
    path = tmp_path / f"{name}.nft"
    path.write_text(FILTERS[name])
    done = nft_check(path)
    assert (done.stdout, done.returncode) == ("", 0)
    path.write_text(FILTERS[name].replace("dport", "dprt"))
    assert nft_check(path).returncode != 0


def test_parameters_reach_the_shell_unquoted(home):
    home.script("tolva_message.sh", 'echo "$*" >"$TOLVAHOME/shown"')
    listener = home.listener()
    example = re.search(r"tolva -s '(MSG_TEXT hello; id )>/tmp/who-am-i'",
                        TEXT)[1]
    sent = home.run("-sr", f"{example}>{home.path('who-am-i')}", "-a",
                    listener.where)
    assert sent.status == 0
    assert home.read("shown") == b"hello\n"
    assert home.read("who-am-i").startswith(b"uid=")
    listener.stop()


def test_a_log_command_runs_nothing(home):
    listener = home.listener()
    text = f"hello; touch {home.path('ran')} $(touch {home.path('ran')})"
    sent = home.run("-sr", f"LOG_TEXT {text}", "-a", listener.where)
    assert sent.status == 0
    listener.wait_message(text)
    assert children(listener.pid) == []
    assert not home.path("ran").exists()
    listener.stop()


def test_a_forged_source_is_believed_over_udp(home):
    """127.0.0.9 stands for an address that the true sender has elsewhere."""
    home.script("tolva_execute.sh", 'touch "$TOLVAHOME/ran"')
    listener = home.listener(config={"AllowedAddresses": "127.0.0.9",
                                     "ListenUDP": "TRUE"})
    listener.datagram(EXECUTE + b"EXECUTE x", source="127.0.0.9")
    wait_for(lambda: home.path("ran").exists(), what="the script ran")
    listener.stop()
