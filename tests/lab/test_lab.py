"""The lab from outside: its exit status, its privacy, and that it leaves nothing. The only tests
that run on the machine itself."""

import os
import re
import shlex
import shutil
import subprocess
import time
from pathlib import Path

import pytest
from copy_numbers import COPY_ENTRY, C

REPOSITORY = Path(__file__).resolve().parents[2]
LAB = REPOSITORY / "scripts" / "lab.sh"
OWN_MOUNTS = REPOSITORY / "tests" / "own-mounts.sh"
GET = "snmpget -Oqv $LAB_AGENT .1.3.6.1.2.1.1.5.0"
NAME = '"lab-switch1"\n'


def command(*words, options=()):
    return [LAB, "exec", "--no-build", *options, "--", *words]


def lab(*words, options=()):
    return subprocess.run(command(*words, options=options), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120)


def wait_for(condition, within=10):
    deadline = time.monotonic() + within
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.05)


def processes_with(word):
    """The processes whose command line holds the word."""
    found = []
    for entry in Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and word.encode() in (entry / "cmdline").read_bytes():
                found.append(int(entry.name))
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


def machine():
    """The state of the machine in which a lab might leave something."""
    links = subprocess.run(["ip", "-brief", "link"], check=True, stdout=subprocess.PIPE,
                           text=True).stdout
    accounts = tuple(
        Path(name).read_bytes() for name in ("/etc/passwd", "/etc/group", "/etc/shadow"))
    names = tuple(sorted(os.listdir(folder)) for folder in ("/", "/run", "/var/lib"))
    return Path("/proc/self/mountinfo").read_text(), links, accounts, names


def test_status_of_the_command():
    assert lab("sh", "-c", "exit 7").returncode == 7
    assert lab("true").returncode == 0
    assert lab("sh", "-c", "kill -TERM $$").returncode == 128 + 15
    missing = lab("no-such-command")
    assert missing.returncode == 125 and "no-such-command" in missing.stderr


def test_standard_streams_and_directory_are_the_callers(tmp_path):
    done = subprocess.run(command("sh", "-c", "pwd; cat; echo error >&2; touch left"),
                          input="typed\n", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, cwd=tmp_path)
    assert done.stdout == f"{tmp_path}\ntyped\n"
    assert "error\n" in done.stderr
    assert done.returncode == 0
    assert os.listdir(tmp_path) == ["left"]


def test_nothing_is_left_on_the_machine():
    before = machine()
    done = lab(
        "sh", "-c",
        "touch /etc/left /run/left /tmp/left-by-the-lab; useradd left 2>/dev/null; "
        "ip link add left type dummy; ls /ulmo/bin"
    )
    assert "cmdshell" in done.stdout
    assert machine() == before
    assert not Path("/tmp/left-by-the-lab").exists()


def test_nothing_is_mounted_on_a_machine_that_shares_its_mounts():
    """As under systemd, where what is mounted in one namespace appears in others."""
    lab_words = shlex.join(str(word) for word in command("true"))
    script = (f"mount --make-rshared / && cat /proc/self/mountinfo && echo === && {lab_words} && "
              "cat /proc/self/mountinfo")
    done = subprocess.run([OWN_MOUNTS, "sh", "-c", script], check=True, stdout=subprocess.PIPE,
                          text=True)
    before, after = done.stdout.split("===\n")
    assert before == after and " shared:" in before


@pytest.mark.parametrize("signal", [9, 15], ids=["SIGKILL", "SIGTERM"])
def test_end_of_the_caller_ends_the_lab(signal):
    before, marker = machine(), f"{time.time_ns()}"
    process = subprocess.Popen(command("sh", "-c", f"echo ready; sleep {marker}"),
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
    assert process.stdout.readline() == b"ready\n"
    assert len(processes_with(marker)) > 1
    process.send_signal(signal)
    process.wait()
    process.stdout.close()
    wait_for(lambda: not processes_with(marker))
    assert machine() == before


def test_two_labs_side_by_side():
    words = (
        "sh", "-c",
        f"{GET}; echo ready; read go; {GET}; hostname lab-changed; touch $LAB_SERVER_ROOT/mine; "
        "ls $LAB_SERVER_ROOT"
    )
    both = [
        subprocess.Popen(command(*words), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        for _ in range(2)
    ]
    for process in both:
        assert [process.stdout.readline() for _ in range(2)] == [NAME, "ready\n"]
    for process in both:
        output, _ = process.communicate("go\n")
        assert (output, process.returncode) == (f"{NAME}mine\n", 0)


def test_daemon_that_ends_badly_fails_the_lab_and_shows_its_log():
    done = lab("sh", "-c", "kill -SEGV $(lab-ctl agent-pid); sleep 60")
    assert done.returncode == 125
    assert "snmpd1 ended by signal 11" in done.stderr
    assert "the end of snmpd1.log" in done.stderr
    assert "NET-SNMP version" in done.stderr


def test_agent_may_be_stopped_on_purpose():
    done = lab("sh", "-c", f"lab-ctl stop-agent; {GET} -r0 -t1; lab-ctl start-agent; {GET}")
    assert done.returncode == 0 and done.stdout == NAME


def test_stock_agent_alone():
    done = lab("sh", "-c", f"{GET}; snmpget $LAB_AGENT {COPY_ENTRY}.{C.CC_COLUMN_PROTOCOL}.1",
               options=["--no-module"])
    assert done.stdout.startswith(NAME) and "No Such Object" in done.stdout


def sections(*scripts, options):
    """What each of the shell scripts prints. They run one after the other in one lab."""
    done = lab("sh", "-c", "\necho =\n".join(scripts), options=options)
    assert done.returncode == 0, done
    return [output.strip() for output in done.stdout.split("=\n")]


def test_several_switches():
    """Each with an agent, a network and a state of its own."""
    before = machine()
    listed, names, networks, configurations, over_ipv6 = sections(
        "echo $LAB_AGENT: $LAB_AGENTS",
        "for agent in $LAB_AGENTS; do snmpget -Oqv $agent .1.3.6.1.2.1.1.5.0; done",
        "for number in 1 2 3; do lab-ctl switch-exec $number readlink /proc/self/ns/net; "
        "readlink /proc/$(lab-ctl agent-pid $number)/ns/net; done",
        "for number in 1 2 3; do lab-ctl switch-exec $number cmdshell -c 'show running-config'; "
        "done",
        "lab-ctl switch-exec 3 snmpget -Oqv 'udp6:[2001:db8::11]' .1.3.6.1.2.1.1.5.0",
        options=["--switches", "3"])
    assert listed == "192.0.2.10: 192.0.2.10 192.0.2.11 192.0.2.12"
    assert names.split() == ['"lab-switch1"', '"lab-switch2"', '"lab-switch3"']
    namespaces = networks.split()
    assert namespaces[::2] == namespaces[1::2] and len(set(namespaces)) == 3
    assert re.findall("ip address (.*)",
                      configurations) == ["192.0.2.10/24", "192.0.2.11/24", "192.0.2.12/24"]
    assert over_ipv6 == '"lab-switch2"'
    assert machine() == before


def test_as_many_switches_as_there_may_be():
    """Their addresses differ, also from the server's."""
    (addresses,) = sections("echo $LAB_AGENTS $LAB_SERVER4", options=["--switches", "16"])
    assert len(set(addresses.split())) == 17


def test_one_agent_of_several_stops_and_starts():
    get, get_third = (GET.replace("$LAB_AGENT", f"-r0 -t1 {address}")
                      for address in ("192.0.2.11", "192.0.2.12"))
    pids, stopped, started, cut, mended = sections(
        "lab-ctl agent-pid 2; lab-ctl restart-agent 2; lab-ctl agent-pid 2; "
        "lab-ctl reload-agent 2; lab-ctl agent-pid 2",
        f"lab-ctl stop-agent 2; {get}; {get_third}", f"lab-ctl start-agent 2; {get}",
        f"lab-ctl break-link 2; {get}; {get_third}", f"lab-ctl mend-link 2; {get}",
        options=["--switches", "3"])
    first, second, third = pids.split()
    assert first != second == third
    assert stopped == cut == '"lab-switch3"' and started == mended == '"lab-switch2"'


def test_switches_know_each_other():
    """Over IPv4 and IPv6. A switch's system manager may use the copy tables of the others and read
    how their last save went, but may write nothing else."""
    manager = ("-v3 -u $(setting user) -l $level -a SHA-256 -A $(setting auth_passphrase) -x AES "
               "-X $(setting priv_passphrase) -Oqv 192.0.2.12")
    row_status = f"{COPY_ENTRY}.{C.CC_COLUMN_ENTRY_ROW_STATUS}.7"
    arguments, output = (
        f".1.3.6.1.4.1.8072.1.3.2.{column}.9.{'.'.join(str(ord(letter)) for letter in 'last-save')}"
        for column in ("2.1.3", "3.1.2"))
    settings, copies, readable, refused, saved = sections(
        "stat -c %a /lab/switch2/platform.conf; grep -E '^(wwn|fabric_member)' "
        "/lab/switch2/platform.conf",
        "setting() { sed -n \"s/^fabric_$1 = //p\" /lab/switch2/platform.conf; }\n"
        f"level=authPriv; request() {{ tool=$1; shift; $tool {manager} \"$@\" 2>&1 | grep -v '^$'; "
        f"}}\n"
        f"request snmpset {row_status} i 5; request snmpset {row_status} i 6",
        f"request snmpget .1.3.6.1.2.1.1.5.0 {arguments}",
        f"request snmpset .1.3.6.1.2.1.1.5.0 s changed; request snmpset {arguments} s changed; "
        "request snmpget .1.3.6.1.2.1.2.1.0\n"
        "level=authNoPriv; request snmpget .1.3.6.1.2.1.1.5.0",
        "level=authPriv; lab-ctl switch-exec 3 cmdshell -c 'copy running-config startup-config'\n"
        f"lab-ctl switch-exec 2 cmdshell -c 'show last-save' 2>&1; request snmpget {output}",
        options=["--switches", "3"])
    assert settings.splitlines() == [
        "600", "wwn = 20:00:00:00:00:00:00:02",
        "fabric_member = 20:00:00:00:00:00:00:01 192.0.2.10",
        "fabric_member = 20:00:00:00:00:00:00:03 2001:db8::12"
    ]
    assert copies.split() == ["5", "6"]
    assert readable.splitlines() == ['"lab-switch3"', r'"-c \"show last-save\""']
    assert refused.count("noAccess") == 2, refused
    assert "No Such Object" in refused, refused
    assert "authorizationError" in refused, refused
    assert re.fullmatch('.*nothing has been saved.*\n"saved"', saved)


def test_small_disks():
    (sizes,) = sections(
        "for number in 1 2 3; do stat -f -c %b $(lab-ctl switch-exec $number printenv "
        "ULMO_STATE_DIR); done",
        options=["--switches", "3", "--small-disk", "256k", "--small-disk-of", "3=512k"])
    first, second, third = (int(size) * os.sysconf("SC_PAGE_SIZE") for size in sizes.split())
    assert (first, third) == (256 << 10, 512 << 10) and second > third


def test_system_managers_stop_and_start():
    pid = "lab-ctl system-manager-pid 2 2>&1"
    networks, pids, stopped, killed, others, saved = sections(
        f"readlink /proc/$({pid})/ns/net; lab-ctl switch-exec 2 readlink /proc/self/ns/net",
        f"{pid}; lab-ctl restart-system-manager 2; {pid}; lab-ctl start-system-manager 2; {pid}",
        f"lab-ctl stop-system-manager 2; {pid}; lab-ctl start-system-manager 2; "
        f"cat /proc/$({pid})/comm",
        f"lab-ctl kill-system-manager 2; {pid}; lab-ctl start-system-manager 2; "
        f"cat /proc/$({pid})/comm; lab-ctl kill-system-manager 2",
        "for number in 1 3; do cat /proc/$(lab-ctl system-manager-pid $number)/comm; done",
        "lab-ctl switch-exec 3 cmdshell -c 'copy running-config startup-config'\n"
        "for number in 1 3; do lab-ctl switch-exec $number cmdshell -c 'show last-save' 2>&1; done",
        options=["--switches", "3"])
    assert len(set(networks.split())) == 1
    first, second, third = pids.split()
    assert first != second == third
    assert stopped == killed == "wardend2 does not run\nwardend" and others == "wardend\nwardend"
    assert re.fullmatch(".*nothing has been saved.*\nsaved", saved)


def test_system_manager_that_ends_badly_fails_the_lab():
    done = lab("sh", "-c", "kill -SEGV $(lab-ctl system-manager-pid 2); sleep 60",
               options=["--switches", "2"])
    assert done.returncode == 125
    assert "wardend2 ended by signal 11" in done.stderr
    assert "the end of wardend2.log" in done.stderr


# It differs from the real one in how it handles SIGTERM.
UNCLEAN_SYSTEM_MANAGER = """\
#!/usr/bin/python3
import os, signal, socket, sys

signal.signal(signal.SIGTERM, {at_end})
folder = os.environ["ULMO_RUN_DIR"] + "/msgbus"
os.makedirs(folder, exist_ok=True)
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind(folder + "/3")
listener.listen()
while True:
    listener.accept()
"""


@pytest.mark.parametrize("at_end, status", [("lambda *_: sys.exit(3)", 3), ("signal.SIG_DFL", -15)])
def test_system_manager_must_end_cleanly(tmp_path, at_end, status):
    release = REPOSITORY / "build" / "release"
    (tmp_path / "lib").symlink_to(release / "lib")
    shutil.copytree(release / "bin", tmp_path / "bin", ignore=shutil.ignore_patterns("wardend"),
                    copy_function=os.symlink)
    program = tmp_path / "bin" / "wardend"
    program.write_text(UNCLEAN_SYSTEM_MANAGER.format(at_end=at_end))
    program.chmod(0o755)
    done = lab("true", options=["--build-dir", tmp_path])
    assert done.returncode == 125
    assert f"wardend1 ended with status {status} at SIGTERM" in done.stderr


def test_file_server_within_a_vrf():
    reach = ('for address in $LAB_SERVER4 $LAB_SERVER6; do timeout 2 bash -c ": '
             '</dev/tcp/$address/22" 2>/dev/null && echo reached; done; true')
    from_switch, from_vrf, agent, settings = sections(reach, f"ip netns exec red bash -c '{reach}'",
                                                      GET, "cat $ULMO_CONF",
                                                      options=["--vrf", "red"])
    assert (from_switch, from_vrf) == ("", "reached\nreached")
    assert agent == NAME.strip() and "vrf_context = red" in settings
    assert lab("true", options=["--vrf", "switch2"]).returncode == 2


def test_link_that_is_cut():
    """Some kilobytes get through, then nothing."""
    fetch = ("head -c 60000 /dev/zero > $LAB_SERVER_ROOT/zeros; timeout 3 /ulmo/bin/brix-tftp 0 "
             "$LAB_SERVER4 69 /tmp/got zeros 1 management")
    whole = lab("sh", "-c", f"{fetch} && stat -c %s /tmp/got", options=["--cut-after", "1000000"])
    assert whole.returncode == 0 and whole.stdout.endswith("60000\n"), whole
    cut = lab("sh", "-c", fetch, options=["--cut-after", "40000"])
    assert cut.returncode == 124, cut  # of timeout(1): brix-tftp still waits


def test_rate_of_the_link():
    """100 kB at 1000 kbit/s are 0.8 s on the wire."""
    fetch = ("head -c 100000 /dev/zero > $LAB_SERVER_ROOT/zeros; time -p /ulmo/bin/brix-tftp 0 "
             "$LAB_SERVER4 69 /tmp/got zeros 1 management")
    done = lab("bash", "-c", fetch, options=["--rate", "1000"])
    assert done.returncode == 0, done
    took = next(line for line in done.stderr.splitlines() if line.startswith("real"))
    seconds = float(took.split()[1])
    assert 0.8 <= seconds < 3


@pytest.fixture
def checkout_elsewhere():
    """The repository and its build in a folder that only its owner may enter, with a blank and a
    letter beyond ASCII in its path. It is in the repository's own build folder, because the lab
    shows only parts of /tmp."""
    folder = REPOSITORY / "build" / "the lab's café"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(mode=0o700)
    clone = folder / "my clone"
    shutil.copytree(REPOSITORY, clone, symlinks=True, ignore=lambda place, _: {"build", ".git"}
                    if Path(place) == REPOSITORY else ())
    (clone / "build").mkdir()
    for built in ("lab", "release"):
        subprocess.run(["cp", "-al", REPOSITORY / "build" / built, clone / "build"], check=True)
    yield clone
    shutil.rmtree(folder)


EVERY_PROTOCOL = """
umask 077
echo "$LAB_PASSWORD" >/tmp/password
account=$LAB_USER@$LAB_SERVER4
for server in tftp://$LAB_SERVER4 "tftp://[$LAB_SERVER6]" \
        ftp://$account sftp://$account scp://$account; do
    config-copy --password-file /tmp/password $LAB_AGENT running "$server/copy.cfg" &&
        cmdshell -c 'show running-config' | cmp - $LAB_SERVER_ROOT/copy.cfg &&
        rm $LAB_SERVER_ROOT/copy.cfg && echo equal
done
"""


def test_checkout_that_only_its_owner_may_enter(checkout_elsewhere):
    words = [
        checkout_elsewhere / "scripts" / "lab.sh", "exec", "--no-build", "--", "sh", "-c",
        EVERY_PROTOCOL
    ]
    done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=120, umask=0o077)
    assert done.returncode == 0 and done.stdout.splitlines().count("equal") == 5, done.stdout


def test_build_in_such_a_place(checkout_elsewhere):
    for words in (["cmake", "--preset", "dev"],
                  ["cmake", "--build", "--preset", "dev", "--target", "vrf-exec", "count_sync"]):
        done = subprocess.run(words, cwd=checkout_elsewhere, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0, done.stdout


def test_help_lists_the_options():
    text = subprocess.run([LAB, "help"], check=True, stdout=subprocess.PIPE, text=True).stdout
    for word in ("--switches", "--delay", "--loss", "--chassis-type", "--small-disk",
                 "--small-disk-of", "--tftp-server", "--faketime", "--agent-under",
                 "LAB_AGENT", "LAB_AGENTS", "LAB_LOG"):
        assert word in text


def test_wrong_call_is_refused():
    for line in ("exec", "exec --no-such-option -- true", "shell -- true", "fly",
                 "exec --switches 17 -- true", "exec --small-disk-of 2=256k -- true",
                 "exec --small-disk-of 256k -- true"):
        done = subprocess.run([LAB, *line.split()], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        assert done.returncode == 2, line
