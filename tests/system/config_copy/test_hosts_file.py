"""Hosts files with groups and options of their own, profiles, and the files named after the
switches."""

import os

import pytest
from command import DONE, FAILED, QUICK, UNREACHABLE, USAGE, config_copy
from copy_table import AGENT, SERVER4, SERVER_ROOT, show

PASSPHRASES = ("a pass phrase", "another' one")
V3 = (f'createUser backup SHA-256 "{PASSPHRASES[0]}" AES "{PASSPHRASES[1]}"',
      "rwuser backup authPriv")

AGENT6 = "udp6:[2001:db8::10]"
SECOND = [*os.environ.get("LAB_AGENTS", "").split(), ""][1]


def written(tmp_path, text, mode=0o600):
    file = tmp_path / "switches"
    file.write_text(text)
    file.chmod(mode)
    return file


@pytest.fixture
def two_groups(own_agents, tmp_path):
    """(hosts file, the agents of SNMPv2c, that of SNMPv3)."""
    old = own_agents(2, ("rwcommunity secret", "rwcommunity special"))
    (new,) = own_agents(1, V3)
    hosts = written(
        tmp_path, f"""# everything
[old] -v 2c -c secret
{old[0].name}
{old[1].name} -c special # has its own
[new] -v 3 -u backup -l authPriv -a SHA-256 -A '{PASSPHRASES[0]}'
{new.name} -x AES -X "{PASSPHRASES[1]}"
""")
    return hosts, [agent.name for agent in old], new.name


def test_two_groups(two_groups):
    hosts, old, new = two_groups
    done = config_copy("--verbose", "--json", "--hosts", hosts, "running",
                       f"tftp://{SERVER4}/{{group}}-{{host}}.cfg")
    assert done.status == DONE, done
    *copies, summary = done.objects()
    assert summary["done"] == 3
    assert {copy["agent"]: (copy["group"], copy["snmp_user"]) for copy in copies} == {
        **{agent: ("old", None) for agent in old}, new: ("new", "backup")
    }
    for agent in (*old, new):
        file = f"{'new' if agent == new else 'old'}-{agent.replace(':', '-')}.cfg"
        assert (SERVER_ROOT / file).read_text() == show("running")
    for secret in ("secret", "special", *PASSPHRASES):
        assert secret not in done.out + done.err


def test_one_group(two_groups):
    hosts, old, new = two_groups
    done = config_copy("--hosts", hosts, "--group", "new", "startup", "running")
    assert done.status == DONE, done
    assert done.out.startswith(f"[new] {new}: startup to running copied in ")
    assert done.out.endswith("\n1 agent: 1 done\n")
    done = config_copy("--hosts", hosts, "--group", "nev", "startup", "running")
    assert (done.status, done.err) == (
        USAGE, f'config-copy: there is no group "nev" in the hosts file {hosts}: there are old, '
        "new\n")


def test_an_option_of_the_agent_counts(two_groups, tmp_path):
    _, (first, second), _ = two_groups
    hosts = written(tmp_path, f"[old] -v 2c -c wrong\n{first} -c secret\n{second}\n")
    done = config_copy(*QUICK, "--hosts", hosts, "-c", "special", "startup", "running")
    assert done.status == UNREACHABLE, done
    assert done.out.startswith(f"[old] {first}: startup to running copied in "), done
    assert done.err.startswith(f"config-copy: [old] no answer from {second} in "), done


def test_files_named_after_the_switches(own_agents, tmp_path):
    """Two of the switches have the same name: one of the two copies is made."""
    names = ("spine 1", "leaf/7", "leaf-7", "")
    agents = [own_agents(1, ("rwcommunity secret", f"sysName {name}" if name else 'sysName ""'))[0]
              for name in names]
    hosts = written(tmp_path, "".join(f"{agent.name} -v2c -c secret\n" for agent in agents))
    url = f"tftp://{SERVER4}/{{name}}.cfg"
    for dry in ("--dry-run", ), ():
        done = config_copy(*dry, "--json", "--jobs", "1", "--hosts", hosts, "running", url)
        assert done.status == FAILED, done
        *copies, summary = done.objects()
        by_agent = {copy["agent"]: copy for copy in copies}
        spine, *leaves, nameless = [by_agent[agent.name] for agent in agents]
        assert (spine["status"], spine["file"]) == (DONE, "spine-1.cfg")
        assert sorted(leaf["status"] for leaf in leaves) == [DONE, FAILED]
        first, second = sorted(leaves, key=lambda copy: copy["status"])
        assert second["text"] == (
            f"{second['agent']}: its sysName makes the same file as that of {first['agent']}, "
            f"tftp://{SERVER4}/leaf-7.cfg: nothing is copied; rename one, or write {{host}}")
        assert (nameless["status"], nameless["to"]) == (FAILED, url)
        assert nameless["text"] == (
            f"{nameless['agent']}: no sysName that this user may read, so {{name}} can't be "
            "filled in: name the switch, or write {host}")
        assert bool(dry) != (SERVER_ROOT / "spine-1.cfg").exists()
    assert sorted(file.name for file in SERVER_ROOT.iterdir()) == ["leaf-7.cfg", "spine-1.cfg"]


def test_local_files_named_after_the_switches(tmp_path):
    """A switch with two addresses is two agents of one name: the second one overwrites nothing."""
    hosts = written(tmp_path, f"{AGENT}\n{AGENT6}\n{SECOND}\n")
    path = f"{tmp_path}/{{name}}.cfg"
    done = config_copy("--jobs", "1", "--hosts", hosts, "running", path)
    assert done.status == FAILED and done.out.endswith("\n3 agents: 2 done, 1 failed\n"), done
    first, second = [tmp_path / f"lab-switch{number}.cfg" for number in (1, 2)]
    assert sorted(tmp_path.glob("*.cfg")) == [first, second]
    assert f", {first}: nothing is copied; rename one, or write {{host}}\n" in done.err
    same = config_copy("diff", AGENT, path, "running")
    assert (same.status, same.out) == (DONE, ""), same
    first.write_text("hostname other\n")
    for words in ("diff", ), ("--dry-run", ):
        done = config_copy(*words, AGENT, path, "running")
        assert f"{first}" in done.out and "hostname other\n" in done.out, done
    hosts.write_text(f"{AGENT}\n{SECOND}\n")
    *found, _ = config_copy("--json", "diff", "--hosts", hosts, "running", path).objects()
    assert {each["agent"]: (each["different"], each["to"]) for each in found} == {
        AGENT: (True, str(first)), SECOND: (False, str(second))
    }


def test_others_may_not_read_secrets(tmp_path):
    hosts = written(tmp_path, "# all\nswitch1 -v2c -c secret\n", 0o644)
    text = (f"in the hosts file {hosts}, line 2: others may read the passphrases and communities "
            "in the file: chmod 600 it")
    done = config_copy("--json", "--hosts", hosts, "running", "startup")
    (error,) = done.objects()
    assert (done.status, error["text"]) == (USAGE, text), done


def test_profile(two_groups, tmp_path):
    hosts, _, new = two_groups
    folder = tmp_path / "config"
    folder.mkdir()
    hosts.rename(folder / "switches")
    (folder / "config-copy.conf").write_text(f"""[nightly]
hosts = switches
group = new
from = running
to = tftp://{SERVER4}/{{group}}-{{datetime}}-{{host}}.cfg
json = yes
""")
    environment = {**os.environ, "XDG_CONFIG_HOME": str(folder)}
    done = config_copy("@nightly", env=environment)
    assert done.status == DONE, done
    copy, summary = done.objects()
    assert (copy["agent"], summary["agents"]) == (new, 1)
    (file,) = SERVER_ROOT.iterdir()
    assert file.name == copy["file"] and file.read_text() == show("running")
    done = config_copy("@nightly", "startup", "running", "--group", "old", env=environment)
    assert (done.status, done.objects()[-1]["done"]) == (DONE, 2), done
    done = config_copy("@nigthly", env=environment)
    assert done.status == USAGE and done.err.endswith(": there are @nightly\n"), done
