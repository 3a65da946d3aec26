"""The same copy on many agents: stock agents with the module, each with a switch's state of its
own, on ports of the loopback."""

import contextlib
import os
import resource
import signal
import socket
import subprocess
import time

import pytest
from command import BUSY, DONE, FAILED, QUICK, UNREACHABLE, USAGE, config_copy, ended, started
from copy_table import SERVER4, SERVER_ROOT, show, wait_for

ALIVE = 47
DEAD_AFTER = 10  # seconds: two requests
NOBODY_ELSE = 54321  # the id of a user without other processes
USER = ("-u", "many", "-a", "SHA-256", "-A", "many-authentication", "-x", "AES", "-X",
        "many-privacy-key")
SETTINGS = ("createUser many SHA-256 many-authentication AES many-privacy-key",
            "rwuser many authPriv")


@contextlib.contextmanager
def silent_agent():
    """Takes requests and answers none."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        yield f"127.0.0.1:{silent.getsockname()[1]}"


def hosts_file(tmp_path, agents):
    file = tmp_path / "hosts"
    file.write_text("# all\n" + "".join(f"{agent}\n" for agent in agents))
    return file


def test_fifty_agents_three_of_them_dead(own_agents, tmp_path):
    alive = [agent.name for agent in own_agents(ALIVE, SETTINGS)]
    with silent_agent() as silent:
        dead = [silent, "127.0.0.1:9", "198.51.100.9"]  # no agent there; no route there
        hosts = hosts_file(tmp_path, dead + alive)
        process = started(*USER, "-t", "5", "-r", "1", "--hosts", hosts, "--jobs", "50", "running",
                          f"tftp://{SERVER4}/{{host}}.cfg")
        began = time.monotonic()
        lines = [process.stdout.readline() for _ in alive]
        took = time.monotonic() - began
        # The live agents are done before any dead one is given up.
        assert took < DEAD_AFTER and process.poll() is None, f"{took:.1f} s"
        assert sorted(line.split(": ")[0] for line in lines) == sorted(alive)
        done = ended(process)
    assert DEAD_AFTER <= time.monotonic() - began < 2 * DEAD_AFTER
    assert done.status == UNREACHABLE and done.out == "50 agents: 47 done, 3 not reachable\n", done
    assert sorted(line.split()[4] for line in done.err.splitlines()) == sorted(dead), done
    for agent in alive:
        assert (SERVER_ROOT / f"{agent.replace(':', '-')}.cfg").read_text() == show("running")
    print(f"{ALIVE} agents in {took:.2f} s")


def test_jobs_and_json(own_agents, tmp_path):
    alive = [agent.name for agent in own_agents(3, SETTINGS)]
    with silent_agent() as silent:
        done = config_copy(*USER, "-t", "3", "-r", "0", "--json", "--jobs", "1", "--hosts",
                           hosts_file(tmp_path, [silent, *alive]), "running",
                           f"tftp://{SERVER4}/{{host}}.cfg")
        *copies, summary = done.objects()
        # The silent agent holds up no other one, although only one job runs at a time.
        assert sorted((copy["agent"], copy["ending"]) for copy in copies[:3]) == sorted(
            (agent, "done") for agent in alive)
        assert (copies[3]["agent"], copies[3]["ending"]) == (silent, "not_reachable")
    assert summary == {
        "type": "summary", "agents": 4, "done": 3, "failed": 0, "usage": 0, "refused": 0,
        "not_reachable": 1, "busy": 0
    }
    assert done.status == UNREACHABLE


@pytest.mark.parametrize("soft, hard, count",
                         [(256, resource.getrlimit(resource.RLIMIT_NOFILE)[1], 1100),
                          (128, 128, 100)], ids=["soft", "hard"])
def test_more_agents_than_open_files(own_agents, tmp_path, soft, hard, count):
    """The last agent is asked together with the silent ones, whatever the limit: only a copy needs
    files of its own."""
    (alive,) = own_agents(1, SETTINGS)
    silent = [f"127.1.{number // 250}.{number % 250 + 1}:9" for number in range(count)]
    done = config_copy(
        *USER, "-t", "3", "-r", "0", "--json", "--jobs", 1000, "--hosts",
        hosts_file(tmp_path, [*silent, alive.name]), "running", f"tftp://{SERVER4}/{{host}}.cfg",
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard)))
    *copies, summary = done.objects()
    assert summary == {
        "type": "summary", "agents": count + 1, "done": 1, "failed": 0, "usage": 0, "refused": 0,
        "not_reachable": count, "busy": 0
    }
    (own,) = [number for number, copy in enumerate(copies) if copy["agent"] == alive.name]
    assert copies.pop(own)["ending"] == "done", f"it was number {own}"
    assert own == 0, f"it was number {own}"
    assert all(copy["text"].startswith(f"no answer from {copy['agent']} in ")
               for copy in copies), copies


@pytest.mark.parametrize("agent", ["unknown-{}.invalid", "unix:/nonexistent-{}"],
                         ids=["names", "copies"])
def test_more_agents_than_threads(tmp_path, agent):
    """The threads that the user may have do the work of those that can't be started."""
    count = 30
    hosts = hosts_file(tmp_path, [agent.format(number) for number in range(count)])

    def limited_user():
        resource.setrlimit(resource.RLIMIT_NPROC, (6, 6))
        os.setresgid(*[NOBODY_ELSE] * 3)
        os.setresuid(*[NOBODY_ELSE] * 3)

    done = config_copy(
        *QUICK, "-v", "2c", "-c", "public", "--json", "--hosts", "-", "running", "startup",
        stdin=hosts.read_text(), preexec_fn=limited_user, env={
            **os.environ, "HOME": "/nonexistent"
        })
    assert done.status in (FAILED, UNREACHABLE), done
    *copies, summary = done.objects()
    assert len(copies) == summary["agents"] == count and summary["done"] == 0, done


def test_endings_of_several_kinds(own_agents, tmp_path):
    (alive,) = own_agents(1, SETTINGS)
    (bare,) = own_agents(1, SETTINGS, with_module=False)
    with silent_agent() as silent:
        done = config_copy(*USER, *QUICK, "--hosts",
                           hosts_file(tmp_path, [alive.name, bare.name, silent]), "running",
                           f"tftp://{SERVER4}/{{host}}")
    assert done.status == FAILED, done
    assert done.out.endswith("\n3 agents: 1 done, 1 refused, 1 not reachable\n"), done


def test_transports(own_agents, tmp_path):
    first, second = own_agents(2, SETTINGS)
    done = config_copy(
        *USER, "--hosts",
        hosts_file(tmp_path, [f"tcp:{first.name}", f"udp:{second.name}", "tcp:127.0.0.1:9"]),
        "running", f"tftp://{SERVER4}/{{host}}")
    assert done.status == UNREACHABLE, done
    assert done.out.endswith("3 agents: 2 done, 1 not reachable\n"), done
    assert sorted(file.name for file in SERVER_ROOT.iterdir()) == [
        f"tcp-{first.name.replace(':', '-')}", f"udp-{second.name.replace(':', '-')}"
    ]


def test_quiet(own_agents, tmp_path):
    (alive,) = own_agents(1, SETTINGS)
    done = config_copy(*USER, "--quiet", "--hosts", hosts_file(tmp_path, [alive.name]), "running",
                       f"tftp://{SERVER4}/{{host}}")
    assert (done.status, done.out, done.err) == (DONE, "", "")


def test_waiting_for_turns(own_agents, tmp_path, broken_link):
    """A hanging copy makes one agent busy; the copy on the other one is made meanwhile."""
    busy, free = [agent.name for agent in own_agents(2, SETTINGS)]
    words = (*USER, "--hosts", hosts_file(tmp_path, [busy, free]), "startup", "running")
    hanging = started(*USER, busy, "running", f"tftp://{SERVER4}/hanging.cfg")
    assert hanging.stdout.readline() == f"{busy}: copying\n"
    for options, ending in ((), ": try again later, or queue with --wait-turn SECONDS"), ((
            "--wait-turn", 1), ", and did not end in 1 s"):
        done = config_copy(*options, *words)
        assert done.status == BUSY, done
        assert done.out.endswith("\n2 agents: 1 done, 1 busy\n"), done
        assert done.out.startswith(f"{free}: "), done
        assert done.err == f"config-copy: {busy}: another copy is in progress{ending}\n"
    waiting = started("--wait-turn", 30, *words)
    assert waiting.stdout.readline().startswith(f"{free}: startup to running copied in ")
    broken_link()
    assert ended(hanging).status == DONE
    done = ended(waiting)
    assert done.status == DONE, done
    assert done.out.startswith(f"{busy}: startup to running copied in "), done
    assert done.out.endswith("\n2 agents: 2 done\n"), done


def test_time_limit(own_agents, tmp_path, broken_link):
    """The limit is that of each copy: with one job, the second copy has its full time."""
    agents = [agent.name for agent in own_agents(2, SETTINGS)]
    began = time.monotonic()
    done = config_copy(*USER, "--time-limit", 1, "--jobs", 1, "--hosts",
                       hosts_file(tmp_path, agents), "running", f"tftp://{SERVER4}/{{host}}")
    assert 2 <= time.monotonic() - began < 6
    assert done.status == FAILED and done.out == "2 agents: 0 done, 2 failed\n", done
    assert sorted(done.err.splitlines()) == [
        f"config-copy: {agent}: not finished in 1 s, so the copy was given up "
        "(--time-limit gives more time)" for agent in sorted(agents)
    ]
    assert [config_copy(*USER, "list", agent).out
            for agent in agents] == [f"no copy requests on {agent}\n" for agent in agents]


def test_interruption(own_agents, tmp_path, broken_link):
    """The transfers hang; no request stays on any agent."""
    agents = own_agents(2, SETTINGS)
    process = started(*USER, "--hosts", hosts_file(tmp_path, [agent.name for agent in agents]),
                      "running", f"tftp://{SERVER4}/{{host}}")

    def listed():
        return [config_copy(*USER, "--json", "list", agent.name).objects() for agent in agents]

    wait_for(lambda: all(requests and requests[0]["state"] == "running" for requests in listed()))
    process.send_signal(signal.SIGINT)
    done = ended(process)
    assert done.status == -signal.SIGINT, done
    assert "interrupted: no request stays on the switch\n" in done.err, done
    assert listed() == [[], []]


def test_agents_on_standard_input(own_agents):
    first, second = [agent.name for agent in own_agents(2, SETTINGS)]
    done = config_copy(*USER, "--hosts", "-", "running", f"tftp://{SERVER4}/{{host}}",
                       stdin=f"# all\n{first}\n{second}\n")
    assert done.status == DONE and done.out.endswith("\n2 agents: 2 done\n"), done
    done = config_copy(*USER, "--hosts", "-", "running", f"scp://u@{SERVER4}/{{host}}", stdin=first,
                       start_new_session=True)
    assert (done.status, done.err) == (
        USAGE,
        f"config-copy: no terminal to ask for the password of u@{SERVER4}: "
        "use --password-file\n"
    )
    done = config_copy("--hosts", "-", "running", "startup", stdin="#\n")
    assert (done.status,
            done.err) == (USAGE, "config-copy: standard input lists no agent: write one per line\n")


def test_interruption_while_the_agents_are_read():
    with subprocess.Popen(["config-copy", "--hosts", "-", "running", "startup"],
                          stdin=subprocess.PIPE, text=True) as process:
        process.stdin.write("switch1\n")
        process.stdin.flush()
        time.sleep(0.5)
        process.send_signal(signal.SIGINT)
        assert process.wait(10) == -signal.SIGINT


@pytest.mark.parametrize("lines, url, text", [
    ("a\nb\n", "tftp://h/a",
     "every agent would write the same file: put {host} or {name} into the path"),
    ("a\na\n", "tftp://h/{host}",
     "a is listed twice in the hosts file {file}, or looks like another agent there in a file's "
     "name"
     ), ("", "tftp://h/{host}", "the hosts file {file} lists no agent: write one per line"),
])
def test_bad_hosts(tmp_path, lines, url, text):
    file = tmp_path / "hosts"
    file.write_text(lines)
    done = config_copy("-v2c", "-clab", "--hosts", file, "running", url)
    assert (done.status, done.err) == (USAGE, f"config-copy: {text.replace('{file}', str(file))}\n")
