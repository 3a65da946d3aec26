"""The lab from outside: its exit status, its privacy, and that it leaves nothing. The only tests that run on the machine itself."""

import os
import subprocess
import time
from pathlib import Path

import pytest

LAB = Path(__file__).resolve().parents[2] / "scripts" / "lab.sh"
GET = "snmpget -Oqv $LAB_AGENT .1.3.6.1.2.1.1.5.0"
NAME = '"lab-switch1"\n'


def command(*words, options=()):
    return [LAB, "exec", "--no-build", *options, "--", *words]


def lab(*words, options=()):
    return subprocess.run(command(*words, options=options), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120)


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
    """What a lab might leave behind."""
    links = subprocess.run(["ip", "-brief", "link"], check=True, stdout=subprocess.PIPE, text=True).stdout
    accounts = tuple(Path(name).read_bytes() for name in ("/etc/passwd", "/etc/group", "/etc/shadow"))
    names = tuple(sorted(os.listdir(folder)) for folder in ("/", "/run", "/var/lib"))
    return Path("/proc/self/mountinfo").read_text(), links, accounts, names


def test_status_of_the_command():
    assert lab("sh", "-c", "exit 7").returncode == 7
    assert lab("true").returncode == 0
    assert lab("sh", "-c", "kill -TERM $$").returncode == 128 + 15
    missing = lab("no-such-command")
    assert missing.returncode == 125 and "no-such-command" in missing.stderr


def test_standard_streams_and_directory_are_the_callers(tmp_path):
    done = subprocess.run(command("sh", "-c", "pwd; cat; echo error >&2; touch left"), input="typed\n", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, cwd=tmp_path)
    assert done.stdout == f"{tmp_path}\ntyped\n" and "error\n" in done.stderr and done.returncode == 0
    assert os.listdir(tmp_path) == ["left"]


def test_nothing_is_left_on_the_machine():
    before = machine()
    done = lab("sh", "-c", "touch /etc/left /run/left /tmp/left-by-the-lab; useradd left 2>/dev/null; ip link add left type dummy; ls /ulmo/bin")
    assert "cmdshell" in done.stdout
    assert machine() == before
    assert not Path("/tmp/left-by-the-lab").exists()


def test_nothing_is_mounted_on_a_machine_that_shares_its_mounts():
    """As under systemd, where what is mounted in one namespace appears in others."""
    lab_words = " ".join(str(word) for word in command("true"))
    script = f"mount --make-rshared / && cat /proc/self/mountinfo && echo === && {lab_words} && cat /proc/self/mountinfo"
    done = subprocess.run(["unshare", "--mount", "sh", "-c", script], check=True, stdout=subprocess.PIPE, text=True)
    before, after = done.stdout.split("===\n")
    assert before == after and " shared:" in before


@pytest.mark.parametrize("signal", [9, 15], ids=["SIGKILL", "SIGTERM"])
def test_end_of_the_caller_ends_the_lab(signal):
    before, marker = machine(), f"{time.time_ns()}"
    process = subprocess.Popen(command("sh", "-c", f"echo ready; sleep {marker}"), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    assert process.stdout.readline() == b"ready\n"
    assert len(processes_with(marker)) > 1
    process.send_signal(signal)
    process.wait()
    process.stdout.close()
    wait_for(lambda: not processes_with(marker))
    assert machine() == before


def test_two_labs_side_by_side():
    words = ("sh", "-c", f"{GET}; echo ready; read go; {GET}; hostname lab-changed; touch $LAB_SERVER_ROOT/mine; ls $LAB_SERVER_ROOT")
    both = [subprocess.Popen(command(*words), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) for _ in range(2)]
    for process in both:
        assert [process.stdout.readline() for _ in range(2)] == [NAME, "ready\n"]
    for process in both:
        output, _ = process.communicate("go\n")
        assert (output, process.returncode) == (f"{NAME}mine\n", 0)


def test_daemon_that_ends_badly_fails_the_lab_and_shows_its_log():
    done = lab("sh", "-c", "kill -SEGV $(lab-ctl agent-pid); sleep 60")
    assert done.returncode == 125
    assert "snmpd1 ended by signal 11" in done.stderr and "the end of snmpd1.log" in done.stderr and "NET-SNMP version" in done.stderr


def test_agent_may_be_stopped_on_purpose():
    done = lab("sh", "-c", f"lab-ctl stop-agent; {GET} -r0 -t1; lab-ctl start-agent; {GET}")
    assert done.returncode == 0 and done.stdout == NAME


def test_stock_agent_alone():
    done = lab("sh", "-c", f"{GET}; snmpget $LAB_AGENT .1.3.6.1.4.1.41927.9.96.1.1.1.1.2.1", options=["--no-module"])
    assert done.stdout.startswith(NAME) and "No Such Object" in done.stdout


def test_link_that_is_cut():
    """Some kilobytes get through, then nothing."""
    fetch = "head -c 60000 /dev/zero > $LAB_SERVER_ROOT/zeros; timeout 3 /ulmo/bin/brix-tftp 0 $LAB_SERVER4 69 /tmp/got zeros 1 management"
    whole = lab("sh", "-c", f"{fetch} && stat -c %s /tmp/got", options=["--cut-after", "1000000"])
    assert whole.returncode == 0 and whole.stdout.endswith("60000\n"), whole
    cut = lab("sh", "-c", fetch, options=["--cut-after", "40000"])
    assert cut.returncode == 124, cut  # of timeout(1): brix-tftp still waits


def test_rate_of_the_link():
    """100 kB at 1000 kbit/s are 0.8 s on the wire."""
    fetch = "head -c 100000 /dev/zero > $LAB_SERVER_ROOT/zeros; time -p /ulmo/bin/brix-tftp 0 $LAB_SERVER4 69 /tmp/got zeros 1 management"
    done = lab("bash", "-c", fetch, options=["--rate", "1000"])
    assert done.returncode == 0, done
    seconds = float(next(line for line in done.stderr.splitlines() if line.startswith("real")).split()[1])
    assert 0.8 <= seconds < 3


def test_help_lists_the_options():
    text = subprocess.run([LAB, "help"], check=True, stdout=subprocess.PIPE, text=True).stdout
    for word in ("--delay", "--loss", "--chassis-type", "--small-disk", "--tftp-server", "--faketime", "LAB_AGENT", "LAB_LOG"):
        assert word in text


def test_wrong_call_is_refused():
    for words in (["exec"], ["exec", "--no-such-option", "--", "true"], ["shell", "--", "true"], ["fly"]):
        assert subprocess.run([LAB, *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 2
