"""examples/ansible without any host: is it what Ansible and its manual say?"""

import os
import pathlib
import re
import subprocess

import pytest
import yaml

ROOT = pathlib.Path(__file__).parents[2]
EXAMPLE = ROOT / "examples" / "ansible"
ROLE = EXAMPLE / "roles" / "tolva"
BESIDE_SETTINGS = {"AllowedAddresses", "ListenAddress", "ListenPort"}


@pytest.fixture
def run(tmp_path):
    """A command beside the playbook, with no settings of this user."""
    empty = tmp_path / "ansible.cfg"
    empty.touch()

    def run(*argv):
        ran = subprocess.run(
            argv, cwd=EXAMPLE, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8",
                 "HOME": str(tmp_path), "ANSIBLE_CONFIG": str(empty),
                 "PYTHONDONTWRITEBYTECODE": "1",
                 # ansible-lint would make a directory here.
                 "XDG_CACHE_HOME": str(tmp_path / "cache")})
        assert ran.returncode == 0, ran.stdout
        return ran.stdout
    return run


def loaded(name):
    return yaml.safe_load((ROLE / name).read_text())


def options():
    return loaded("meta/argument_specs.yml")["argument_specs"]["main"][
        "options"]


def test_ansible_understands_the_playbook(run):
    said = run("ansible-playbook", "-i", "inventory.yml", "--syntax-check",
               "site.yml")
    assert "playbook: site.yml" in said
    assert "WARNING" not in said


def test_each_play_of_the_example_has_hosts(run):
    said = run("ansible-playbook", "-i", "inventory.yml", "--list-hosts",
               "site.yml")
    assert re.findall(r"hosts \((\d+)\)", said) == ["2", "1"]


def test_ansible_lint_finds_nothing_by_its_strictest_profile(run):
    said = run("ansible-lint", "--offline", "--nocolor", "--profile",
               "production", "--project-dir", ".")
    assert re.search(r"\b0 failure\(s\), 0 warning\(s\)", said), said
    assert not (EXAMPLE / ".cache").exists()


def test_every_variable_with_a_default_is_declared_with_that_default():
    assert loaded("defaults/main.yml") == {
        name: option["default"] for name, option in options().items()}


def test_the_readme_lists_every_variable_and_its_default():
    rows = dict(re.findall(r"^\| `(tolva_\w+)` \| (.*?) ?\| ",
                           (ROLE / "README.md").read_text(), re.M))
    # Of a listener, read when the sender's list is made.
    assert rows.pop("tolva_address")
    assert rows.keys() == options().keys()
    for name, option in options().items():
        default = option["default"]
        if name in ("tolva_tls_directory", "tolva_tls_name"):
            continue  # said in words
        if default in ("", [], {}):
            assert rows[name] == "", name
        else:
            said = str(default)
            if default in (True, False):
                said = said.lower()
            assert rows[name] == f"`{said}`", name


def test_every_setting_is_known_by_its_comment():
    keys = set(re.findall(r"^#?([A-Z]\w+)=",
                          (ROOT / "share" / "tolva.cfg").read_text(), re.M))
    assert keys > BESIDE_SETTINGS
    assert set(loaded("vars/main.yml")["tolva_comments"]) == \
        keys - BESIDE_SETTINGS


def test_links_to_the_other_examples_lead_to_files_of_these():
    links = sorted((ROLE / "files").iterdir())
    assert links
    for link in links:
        assert link.is_symlink()
        target = link.resolve(strict=True)
        assert target.is_file() and target.is_relative_to(ROOT / "examples")


def test_the_templates_say_what_the_files_of_the_other_examples_say():
    """Apart from comments, and from what has a variable."""
    def lines(path):
        return sorted(line for line in path.read_text().splitlines()
                      if line.strip() and line[0] not in "#;{")

    def pattern(line):
        line = line.replace("{{ tolva_listen_address }}:", "")
        return "[^ ]+".join(map(re.escape, re.split(r"\{\{.*?\}\}", line)))

    for template, file in {
            "tolva-host.conf.j2": "stunnel/host.conf",
            "upssched.conf.j2": "nut/upssched.conf"}.items():
        ours = lines(ROLE / "templates" / template)
        theirs = lines(EXAMPLE.parent / file)
        assert len(ours) == len(theirs), (template, ours, theirs)
        for one, other in zip(ours, theirs):
            assert re.fullmatch(pattern(one), other), (template, one, other)
    ours = (ROLE / "templates" / "doshutdown.j2").read_text()
    assert lines_of_code(ours.replace(" -w '{{ tolva_wait }}'", "")) == \
        lines_of_code((EXAMPLE.parent / "apcupsd/doshutdown").read_text())


def lines_of_code(script):
    return [line for line in script.splitlines() if line[:1] != "#"]
