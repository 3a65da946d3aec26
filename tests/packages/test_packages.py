"""The packages on a Debian 12 with an agent: they are installed, work, are upgraded and removed.
Each test continues where the previous one ended."""

import json
import os
import re
import shlex
import shutil
import subprocess
import textwrap
import time

import pytest
from conftest import PLACE, REPOSITORY, SERVER, SWITCH, UNPACKED, run, wait_until
from copy_numbers import COPY_ENTRY, C

COPY_STATE = f"{COPY_ENTRY}.{C.CC_COLUMN_STATE}"
COPY_SERVER = f"{COPY_ENTRY}.{C.CC_COLUMN_SERVER_ADDRESS}"
ROW_STATUS = f"{COPY_ENTRY}.{C.CC_COLUMN_ENTRY_ROW_STATUS}"
CREATE_AND_WAIT, DESTROY = C.ROW_STATUS_CREATE_AND_WAIT, C.ROW_STATUS_DESTROY
UPTIME = ".1.3.6.1.2.1.1.3.0"
USER = "-v3 -l authPriv -u operator -a SHA-256 -A auth-passphrase -x AES -X priv-passphrase"
README = (REPOSITORY / "debian/config-copy-mib.README.Debian").read_text()
RECEIVER = "/usr/libexec/config-copy-receiver"
# Runs it with a socket for orders, and prints the kind of its first report and its capabilities.
RUN_RECEIVER = f"""
    use Socket;
    socketpair(my $ours, my $theirs, AF_UNIX, SOCK_SEQPACKET, 0) or die;
    my $pid = fork;
    if (!$pid) {{ open(STDIN, "<&", $theirs) or die; exec "{RECEIVER}" or die }}
    close $theirs;
    sysread($ours, my $report, 300) or die;
    print "report ", unpack("L", $report), "\\n";
    open(my $status, "<", "/proc/$pid/status") or die;
    while (<$status>) {{ print "CapEff $1\\n" if /^CapEff:\\t(.*)/ }}
"""
FRR_DROP_IN = "/lib/systemd/system/frr.service.d/config-copy-mib.conf"
LOG_OF_BEFORE = "/var/log/snmpd-transfers.log"


def agent_answers(switch):
    return switch.run("sh", "-c", f"MIBS= snmpget -r0 -t1 {USER} 127.0.0.1 {UPTIME}",
                      check=False).returncode == 0


def takes_requests(switch):
    """Whether the agent creates a row of the copy table, and destroys it again."""
    return all(
        switch.run("sh", "-c", f"MIBS= snmpset -r0 -t1 {USER} 127.0.0.1 {ROW_STATUS}.1 i {value}",
                   check=False).returncode == 0 for value in (CREATE_AND_WAIT, DESTROY))


def config_copy(switch, arguments, check=True):
    return switch.run("sh", "-c", f"config-copy {USER} 127.0.0.1 {arguments}", check=check)


def cmdshell(switch, line):
    return switch.run("cmdshell", "-c", line).stdout


def owner(switch, path):
    return switch.run("stat", "-c", "%U", path).stdout.strip()


def lines_of_readme(first, last):
    """The lines of README.Debian from the one that begins with `first` to the one that begins with
    `last`."""
    lines = [line.removeprefix("    ") for line in README.splitlines()]
    (begin,) = [number for number, line in enumerate(lines) if line.startswith(first)]
    end = next(number for number in range(begin, len(lines)) if lines[number].startswith(last))
    return "".join(f"{line}\n" for line in lines[begin:end + 1])


@pytest.fixture(scope="module", autouse=True)
def agent(switch):
    """The agent with the settings and the user of README.Debian."""
    assert not reached_by_manager(
        switch
    ), "Debian's agent listens to more than the loopback now: README.Debian says otherwise"
    (switch.root / "etc/snmp/snmpd.conf").write_text(lines_of_readme("agentaddress", "includeDir"))
    switch.shell(lines_of_readme("systemctl stop", "systemctl start"))
    wait_until(lambda: agent_answers(switch))


def reached_by_manager(switch):
    return run(*switch.on_server(), "sh", "-c", f"MIBS= snmpget -r0 -t1 {USER} {SWITCH} {UPTIME}",
               check=False).returncode == 0


def journal_of_agent(switch):
    switch.run("journalctl", "--sync")
    return switch.shell("journalctl -o cat -u snmpd")


def outputs_of_agent(switch):
    process = switch.main_process("snmpd")
    return switch.shell(f"readlink /proc/{process}/fd/1 /proc/{process}/fd/2").splitlines()


def strangers(switch):
    """The files of the platform that do not belong to its user."""
    return switch.run("find", "/var/lib/ulmo", "/run/ulmo", "!", "-user", "Debian-snmp").stdout


def test_before(switch):
    assert reached_by_manager(switch)
    assert not takes_requests(switch)
    assert not (switch.root / "ulmo").exists()


def test_install(switch, packages):
    before = switch.main_process("snmpd")
    switch.install(packages["config-copy-mib-common"], packages["config-copy-mib"])
    wait_until(lambda: takes_requests(switch))
    assert switch.main_process("snmpd") != before, "the agent was not restarted"
    for service in ("snmpd", "wardend"):
        assert owner(switch, f"/proc/{switch.main_process(service)}") == "Debian-snmp"
        assert switch.run("systemctl", "is-enabled", service).stdout == "enabled\n"
    assert switch.shell("stat -c '%U %a' /var/lib/ulmo /run/ulmo").splitlines() == [
        "Debian-snmp 700", "Debian-snmp 755"
    ]
    switch.install(packages["config-copy"])


def test_receiver_of_local_files_is_for_a_group(switch):
    """Its members may run it, and then it has the port of TFTP and no capability any more."""
    switch.shell("useradd -G config-copy member && useradd visitor")
    assert switch.shell(f"stat -c '%U %G %a' {RECEIVER}") == "root config-copy 750\n"
    assert switch.run("getcap", RECEIVER).stdout == f"{RECEIVER} cap_net_bind_service=ep\n"
    switch.run("systemctl", "stop", "tftpd-hpa")  # it has that port
    refused = switch.run("runuser", "-u", "visitor", "--", RECEIVER, check=False)
    assert refused.returncode != 0 and "Permission denied" in refused.stdout
    for user in ("member", "root"):
        assert switch.run("runuser", "-u", user, "--", "perl", "-e",
                          RUN_RECEIVER).stdout == "report 0\nCapEff 0000000000000000\n"
    switch.run("systemctl", "start", "tftpd-hpa")
    taken = switch.run("runuser", "-u", "member", "--", "perl", "-e", RUN_RECEIVER).stdout
    assert taken.startswith("report 1\n"), "it had another program's port"


def test_backup_and_restore(switch):
    ended = config_copy(switch, f"running tftp://{SERVER}/backup.cfg")
    assert "copied" in ended.stdout
    running = cmdshell(switch, "show running-config")
    assert (switch.served / "backup.cfg").read_text() == running
    (switch.served / "backup.cfg").write_text(running.replace("hostname ", "hostname restored-"))
    config_copy(switch, f"tftp://{SERVER}/backup.cfg running")
    assert cmdshell(switch, "show running-config") == running.replace("hostname ",
                                                                      "hostname restored-")


def test_save(switch):
    assert not (switch.root / "var/lib/ulmo/system.cfg").exists()
    config_copy(switch, "running startup")
    assert cmdshell(switch, "show startup-config") == cmdshell(switch, "show running-config")
    assert owner(switch, "/var/lib/ulmo/system.cfg") == "Debian-snmp"
    assert cmdshell(switch, "show last-save") == "saved\n"


def test_superuser_at_the_command_line_leaves_the_agent_its_files(switch):
    switch.shell("echo 'vlan 1234' > /root/change.cfg")
    cmdshell(switch, "configure /root/change.cfg")
    cmdshell(switch, "copy running-config startup-config")
    assert "vlan 1234" in cmdshell(switch, "show startup-config")
    config_copy(switch, f"startup tftp://{SERVER}/after.cfg")
    assert "vlan 1234" in (switch.served / "after.cfg").read_text()
    assert strangers(switch) == ""


def test_history_of_all_processes(switch):
    """By default it has errors only; on request it has every step."""
    lines = switch.run("ulmo-history").stdout.splitlines()
    assert lines and all(" error " in line for line in lines), lines
    switch.shell("echo 'history = all' >> /etc/ulmo/platform.conf")
    time.sleep(1.1)  # the change takes effect within a second
    config_copy(switch, f"startup tftp://{SERVER}/history.cfg")
    assert "vlan" in cmdshell(switch, "show running-config")
    cmdshell(switch, "copy running-config startup-config")
    history = switch.run("ulmo-history").stdout
    switch.shell("sed -i '/^history = all$/d' /etc/ulmo/platform.conf")
    for service in ("snmpd", "wardend"):
        assert f" {switch.main_process(service)} " in history
    assert "copy_function : Copying done with SUCCESS" in history


def test_settings_that_the_agent_cant_read(switch):
    """The package lets the agent's user read them. Without that permission nothing is copied and
    nothing is saved, and the reason is reported."""
    file = "/etc/ulmo/platform.conf"
    assert switch.shell(f"stat -c '%U %G %a' {file}") == "root Debian-snmp 640\n"
    startup = cmdshell(switch, "show startup-config")
    switch.shell(f"chmod 600 {file}")
    try:
        assert config_copy(switch, f"startup tftp://{SERVER}/never.cfg",
                           check=False).returncode != 0
        assert config_copy(switch, "running startup", check=False).returncode != 0
    finally:
        switch.shell(f"chmod 640 {file}")
    assert not (switch.served / "never.cfg").exists()
    assert cmdshell(switch, "show startup-config") == startup
    errors = switch.run("ulmo-history", "--errors").stdout
    assert f"worker: the copy is refused: {file} can't be read: Permission denied" in errors
    assert re.search(
        rf"not saved to the startup configuration of this switch, \d+ ms: {file} can't be read: "
        r"Permission denied",
        errors)


def test_reload_of_the_agent(switch):
    """As user Debian-snmp it unloads the module and loads it again."""
    before, link = switch.main_process("snmpd"), "/etc/snmp/snmpd.conf.d/config-copy-mib.conf"
    switch.shell(f"mv {link} /root/link && ln -s /dev/null {link} && systemctl reload snmpd")
    wait_until(lambda: agent_answers(switch) and not takes_requests(switch))
    switch.shell(f"mv /root/link {link} && systemctl reload snmpd")
    wait_until(lambda: takes_requests(switch))
    config_copy(switch, "running startup")
    assert switch.main_process("snmpd") == before


def test_agent_may_run_as_the_superuser(switch):
    drop_in = "/run/systemd/system/snmpd.service.d"
    switch.shell(
        f"mkdir -p {drop_in} && printf '[Service]\nExecStart=\n"
        "ExecStart=/usr/sbin/snmpd -LOw -I -smux,mteTrigger,mteTriggerConf -f\n"
        f"' > {drop_in}/user.conf"
    )
    switch.shell("systemctl daemon-reload && systemctl restart snmpd")
    wait_until(lambda: takes_requests(switch))
    assert owner(switch, f"/proc/{switch.main_process('snmpd')}") == "root"
    config_copy(switch, "running startup")
    config_copy(switch, "startup running")
    config_copy(switch, f"running tftp://{SERVER}/as-root.cfg")
    switch.shell("rm -f /var/lib/ulmo/ssh_known_hosts; umask 077; echo secret > /root/password")
    config_copy(switch, f"--password-file /root/password running sftp://netops@{SERVER}/backup.cfg",
                check=False)
    assert owner(switch, "/var/lib/ulmo/ssh_known_hosts") == "Debian-snmp"
    assert strangers(switch) == ""
    switch.shell(f"rm {drop_in}/user.conf && systemctl daemon-reload && systemctl restart snmpd")
    wait_until(lambda: takes_requests(switch))
    assert owner(switch, f"/proc/{switch.main_process('snmpd')}") == "Debian-snmp"
    config_copy(switch, "running startup")


def test_power_cut(switch):
    """The switch starts with what was saved, and its run directory is created again."""
    saved = cmdshell(switch, "show startup-config")
    switch.shell("echo 'vlan 999' > /root/change.cfg")
    cmdshell(switch, "configure /root/change.cfg")
    switch.start_again()
    wait_until(lambda: takes_requests(switch))
    assert cmdshell(switch, "show running-config") == saved
    config_copy(switch, "running startup")
    assert switch.run("systemctl", "--failed", "--quiet").stdout == ""


BACKUP = "config-copy-backup@nightly"
BACKUPS = "/var/lib/config-copy/nightly"


def git(switch, *words):
    return switch.run("runuser", "-u", "config-copy", "--", "git", "-C", f"{BACKUPS}/switches",
                      *words).stdout


def backed_up(switch, succeeds=True):
    """Runs the service; returns its journal, and the number of commits."""
    started = switch.shell("date +%s.%N").strip()
    ended = switch.run("systemctl", "start", BACKUP, check=False)
    switch.run("journalctl", "--sync")
    journal = switch.run("journalctl", "-u", BACKUP, "-o", "cat", "--since", f"@{started}").stdout
    assert (ended.returncode == 0) == succeeds, journal
    switch.run("systemctl", "reset-failed")
    return journal, int(git(switch, "rev-list", "--count", "HEAD"))


def change(switch, name):
    """Gives the switch another running configuration."""
    (switch.served / "new.cfg").write_text(f"hostname {name}\n")
    config_copy(switch, f"tftp://{SERVER}/new.cfg running")


@pytest.fixture(scope="class")
def nightly(switch):
    """The profile of docs/fleet.md, with the commands as they are there. Of its two switches one is
    this machine, the other one does not exist. Returns what the commands print."""
    switch.run("systemctl", "stop", "tftpd-hpa")
    with (switch.root / "etc/hosts").open("a") as hosts:
        hosts.write(f"{SWITCH} core1\n192.0.2.99 core2\n")
    # The dead switch is tried again, but not after minutes.
    own = switch.root / "var/lib/config-copy/.config/config-copy.conf"
    own.parent.mkdir(parents=True)
    own.write_text("[nightly]\nretry-pause = 1\n")
    text = (REPOSITORY / "docs/fleet.md").read_text()
    blocks = [textwrap.dedent(block) for block in re.findall(r"^ *```sh\n(.*?)^ *```$", text,
                                                             re.M | re.S)]
    assert len(blocks) == 6 and "systemctl start" in blocks[2]
    printed = [switch.run("bash", "-c", block, check=False) for block in blocks]
    # All but the third must succeed, and that fails because one of the switches has.
    assert [number for number, block in enumerate(printed) if block.returncode] == [2], [
        block.stdout for block in printed
    ]
    switch.run("systemctl", "reset-failed")
    yield [block.stdout for block in printed]
    switch.run("systemctl", "disable", "--now", f"{BACKUP}.timer")
    switch.run("systemctl", "start", "tftpd-hpa")
    shutil.rmtree(switch.root / "etc/config-copy")


class TestBackups:
    def test_nightly_backup(self, switch, nightly):
        assert f"{BACKUP}.service" in switch.run("systemctl", "list-timers").stdout
        logged, reported, restored = nightly[3:]
        assert "/report/index.html: 2 switches, 1 of them failed" in reported
        assert "no answer from core2 in " in logged
        assert "2 agents: 1 done, 1 not reachable" in logged
        assert "nightly: new: core1, committed as " in logged
        assert "    nightly: new: core1\n" in logged and "core1.cfg | " in logged
        assert restored.startswith("core1: ") and " to running copied in " in restored, restored
        assert git(switch, "show", "HEAD:core1.cfg") == cmdshell(switch, "show running-config")
        assert (switch.root / BACKUPS[1:] / "failed-hosts").read_text() == "core2 # not reachable\n"
        assert switch.shell(f"stat -c '%U %a' {BACKUPS} {BACKUPS}/switches {BACKUPS}/metrics.prom "
                            f"{BACKUPS}/switches/core1.cfg") == (
                                "config-copy 755\nconfig-copy 700\nconfig-copy 644\n"
                                "config-copy 600\n")
        assert 'agent="core2",profile="nightly"' in switch.shell(
            f"runuser -u nobody -- cat {BACKUPS}/metrics.prom")

    def test_backups_commit_what_has_changed(self, switch, nightly):
        (switch.root / "etc/config-copy/switches").write_text("core1\n")  # the other takes time
        assert backed_up(switch)[1] == 1
        change(switch, "other")
        journal, commits = backed_up(switch)
        assert commits == 2 and "nightly: changed: core1, committed as " in journal
        assert git(switch, "status", "--porcelain") == ""

    def test_backups_that_can_not_be_committed(self, switch, nightly):
        """The history stays whole, and the next backup commits what is missing."""
        lock = switch.root / BACKUPS[1:] / "switches/.git/index.lock"
        lock.touch()
        change(switch, "locked")
        journal, commits = backed_up(switch, succeeds=False)
        assert commits == 2
        assert "config-copy-backup: what has changed is not committed: fatal: " in journal
        assert f"if no git runs there, remove {BACKUPS}/switches/.git/index.lock" in journal
        lock.unlink()
        assert backed_up(switch)[1] == 3
        change(switch, "full")
        # Objects are in a folder that is full; the rest of the history is behind it.
        objects = f"{BACKUPS}/switches/.git/objects"
        switch.shell(f"cp -a {objects} /root/objects && "
                     f"mount -t tmpfs -o size=256k full {objects} && "
                     f"cp -a /root/objects/. {objects} && chown config-copy {objects}; "
                     f"cat /dev/zero > {objects}/rest", check=False)
        journal, commits = backed_up(switch, succeeds=False)
        assert commits == 3 and "No space left on device" in journal, journal
        assert "is not committed" in journal, journal
        git(switch, "fsck", "--strict")
        switch.shell(f"rm {objects}/rest")
        assert backed_up(switch)[1] == 4
        git(switch, "fsck", "--strict")
        switch.shell(f"rm -r /root/objects; cp -a {objects} /root/objects && umount {objects} && "
                     f"cp -a /root/objects/. {objects}")

    def test_each_backup_makes_the_report_again(self, switch, nightly):
        report = switch.root / BACKUPS[1:] / "report"
        before = report.stat().st_ino
        change(switch, "reported")
        backed_up(switch)
        assert report.stat().st_ino != before
        assert "+hostname reported\n" in (report / "switches/core1.html").read_text()
        index = (report / "index.html").read_text()
        # The hosts file lacks the other one since then.
        assert index.index(">core1</a>") < index.index(">core2</a>")
        assert ">no longer listed</span>" in index
        owner = switch.shell(f"stat -c '%U %a' {BACKUPS}/report {BACKUPS}/report/index.html "
                             f"{BACKUPS}/outcomes {BACKUPS}/outcomes/*")
        assert owner == ("config-copy 700\nconfig-copy 600\n"
                         "config-copy 700\nconfig-copy 600\n")

    def test_two_backups_at_a_time(self, switch, nightly):
        running = switch.words("flock", BACKUPS, "sleep", "60")
        with subprocess.Popen(running) as first:
            wait_until(
                lambda: switch.run("flock", "-n", BACKUPS, "true", check=False).returncode)
            journal, commits = backed_up(switch, succeeds=False)
            first.kill()
        assert "another backup of nightly is running, so this one ends" in journal and commits == 5

    def test_service_of_backups_may_do_little(self, switch, nightly):
        # It has 1.6.
        switch.run("systemd-analyze", "security", "--no-pager", "--threshold=16",
                   f"{BACKUP}.service")


PLAY = [{
    "hosts": "manager", "gather_facts": False,
    "roles": [{"role": "config_copy.switches.nightly_backup"}]
}]
OF_ROLE = {
    "nightly_backup_profile": "fleet", "nightly_backup_time": "03:00",
    "nightly_backup_settings": {"retries": 1, "json": False},
    "nightly_backup_snmp": {
        "version": "3", "user": "operator", "level": "authPriv", "auth_protocol": "SHA-256",
        "auth_passphrase": "auth-passphrase", "priv_protocol": "AES",
        "priv_passphrase": "priv-passphrase"
    }
}
CHANGED = re.compile(r"changed=(\d+) .*failed=(\d+)")


@pytest.fixture
def play(switch, packages):
    """Runs the role of the package config-copy-ansible, on a controller that is no part of the
    switch, with these variables. Returns all that was printed, and how many tasks have changed
    something and have failed."""
    place = PLACE / "ansible"
    shutil.rmtree(place, ignore_errors=True)
    (package,) = (REPOSITORY / "build/packages").glob("config-copy-ansible_*_all.deb")
    run("dpkg-deb", "-x", package, place)
    (place / "play.json").write_text(json.dumps(PLAY))
    (place / "hosts").write_text("manager ansible_python_interpreter=/usr/bin/python3\n")
    ssh = place / "ssh"  # the last word is the command
    ssh.write_text(f'#!/bin/bash\nexec {shlex.join(switch.words("sh", "-c"))} "${{@: -1}}"\n')
    ssh.chmod(0o755)
    paths = [UNPACKED / f"root-{name}/usr/lib/python3/dist-packages"
             for name in ("ansible-core", "python3-jinja2", "python3-markupsafe")]
    environment = {
        **os.environ, "HOME": str(place), "PYTHONPATH": ":".join(map(str, paths)),
        "ANSIBLE_COLLECTIONS_PATH": str(place / "usr/share/ansible/collections"),
        "ANSIBLE_SSH_EXECUTABLE": str(ssh), "ANSIBLE_SSH_TRANSFER_METHOD": "piped",
        "ANSIBLE_PIPELINING": "yes", "ANSIBLE_NOCOLOR": "1"
    }

    def play_role(*words, **variables):
        files = [str(packages[name]) for name in ("config-copy-mib-common", "config-copy")]
        (place / "variables.json").write_text(
            json.dumps({**OF_ROLE, "nightly_backup_packages": files, **variables}))
        printed = run("/usr/bin/python3", UNPACKED / "root-ansible-core/usr/bin/ansible-playbook",
                      "-i", "hosts", "-e", "@variables.json", *words, "play.json", check=False,
                      env=environment, cwd=place, stdin=subprocess.DEVNULL).stdout
        recap = CHANGED.search(printed)
        assert recap, printed
        return printed, int(recap[1]), int(recap[2])

    return play_role


def test_role_of_ansible(switch, play):
    timer, state = "config-copy-backup@fleet.timer", "/var/lib/config-copy/fleet"
    switch.run("apt-get", "remove", "-y", "config-copy")
    switch.run("systemctl", "stop", "tftpd-hpa")
    printed, changed, failed = play(nightly_backup_switches=[SWITCH, "a\nsnmp = -v 1"])
    assert (changed, failed) == (0, 1) and "a switch has a name without blanks" in printed
    printed, changed, failed = play("--check", nightly_backup_switches=[SWITCH])
    assert changed > 0 and failed == 0, printed
    assert not (switch.root / "usr/bin/config-copy").exists()
    assert not (switch.root / "etc/config-copy").exists()
    printed, changed, failed = play("-vvvv", "--diff", nightly_backup_switches=[SWITCH])
    assert changed > 0 and failed == 0, printed
    assert f"\n+{SWITCH}\n" in printed
    assert "auth-passphrase" not in printed and "priv-passphrase" not in printed
    printed, changed, failed = play(nightly_backup_switches=[SWITCH])
    assert (changed, failed) == (0, 0), printed
    assert switch.shell("stat -c '%U %a' /etc/config-copy/*") == 2 * "config-copy 600\n"
    assert switch.run("systemctl", "is-enabled", timer).stdout == "enabled\n"
    assert " 03:00:00 " in switch.run("systemctl", "show", "-P", "TimersCalendar", timer).stdout
    printed, changed, failed = play(nightly_backup_switches=[SWITCH], nightly_backup_time="")
    assert (changed, failed) == (2, 0), printed  # the file, and the timer
    assert " 02:00:00 " in switch.run("systemctl", "show", "-P", "TimersCalendar", timer).stdout
    switch.run("systemctl", "start", "config-copy-backup@fleet")
    assert (switch.root / state[1:] / f"switches/{SWITCH}.cfg").read_text() == cmdshell(
        switch, "show running-config")
    switch.run("systemctl", "disable", "--now", timer)
    switch.shell(f"rm -r /etc/config-copy /etc/systemd/system/{timer}.d {state}; "
                 "systemctl daemon-reload; systemctl start tftpd-hpa")


@pytest.mark.parametrize("protocol", ["ftp", "sftp", "scp"])
def test_transfer_scripts_run(switch, protocol):
    """The server does not exist here, which only the client can find out."""
    switch.shell("umask 077; echo secret > /root/password")
    ended = config_copy(
        switch, f"--password-file /root/password running {protocol}://netops@{SERVER}/backup.cfg",
        check=False)
    assert ended.returncode == 1
    assert f"(timeout): the file server {SERVER} did not answer the switch" in ended.stdout
    # The password is stored nowhere.
    assert outputs_of_agent(switch) == ["/dev/null", "/dev/null"]
    switch.run("journalctl", "--sync")
    assert switch.run("grep", "-rl", " secret", "/var/log", "/run/log", check=False).stdout == ""
    assert "secret" not in switch.shell("journalctl --no-pager")


def test_key_instead_of_a_password(switch):
    """docs/transfers.md, with the unit of the agent as it is: the key is taken, so that the client
    looks for the server, and only as long as nobody else may read it."""
    text = (REPOSITORY / "docs/transfers.md").read_text()
    (steps,) = re.findall(r"^```\n(runuser -u Debian-snmp -- ssh-keygen .*?)^```$", text,
                          re.M | re.S)
    settings = switch.root / "etc/ulmo/platform.conf"
    before = settings.read_text()
    switch.shell(steps)
    backup = f"--password-file /dev/null running scp://netops@{SERVER}/backup.cfg"
    ended = config_copy(switch, backup, check=False)
    assert f"(timeout): the file server {SERVER} did not answer the switch" in ended.stdout
    switch.shell("chmod 644 /var/lib/ulmo/ssh_identity")
    ended = config_copy(switch, backup, check=False)
    assert "ssh_identity = /var/lib/ulmo/ssh_identity: must be the absolute path" in ended.stdout
    settings.write_text(before)
    switch.shell("rm /var/lib/ulmo/ssh_identity*")


def test_journal_has_the_log_of_the_agent_and_not_the_lines_of_requests(switch):
    switch.shell(
        f"MIBS= snmpset {USER} 127.0.0.1 {ROW_STATUS}.2 i {CREATE_AND_WAIT} && "
        f"MIBS= snmpset {USER} 127.0.0.1 {COPY_SERVER}.2 a {SERVER}"
    )
    switch.shell(
        "echo wrong line > /etc/snmp/snmpd.conf.d/wrong.conf && systemctl restart snmpd && "
        "rm /etc/snmp/snmpd.conf.d/wrong.conf"
    )
    wait_until(lambda: takes_requests(switch))
    journal = journal_of_agent(switch)
    assert "/etc/snmp/snmpd.conf.d/wrong.conf: line 1: Warning: Unknown token: wrong." in journal
    assert "DEBUG :" not in journal and "Connection from" not in journal


def test_system_manager_may_do_little(switch):
    # It has 2.0.
    switch.run("systemd-analyze", "security", "--no-pager", "--threshold=20", "wardend.service")


def test_device_of_programs(switch):
    """docs/porting.md, with what it says that the unit of the system manager must allow."""
    text = (REPOSITORY / "docs/porting.md").read_text()
    (block,) = re.findall(r"^```\n(device_backend = command\n.*?)^```$", text, re.M | re.S)
    (allowed,) = re.findall(r"`(ReadWritePaths=/var/lib/tiny-switch)`", text)
    (steps,) = re.findall(r"^```\n(install -m 755 .*?)^```$", text, re.M | re.S)
    shutil.copy(REPOSITORY / "docs/examples/tiny-switch.sh", switch.root / "root")
    switch.shell(steps.replace("/usr/share/doc/config-copy-mib-dev/examples/", "/root/"))
    settings = switch.root / "etc/ulmo/platform.conf"
    before = settings.read_text()
    settings.write_text(before + block)
    (switch.served / "tiny.cfg").write_text("configuration replace\nhostname small\nvlan 3\n")
    config_copy(switch, f"tftp://{SERVER}/tiny.cfg running")
    assert cmdshell(switch, "show running-config") == "hostname small\nvlan 3\n"

    # The superuser at the command line leaves the agent its files.
    switch.shell("echo 'vlan 4' > /root/change.cfg")
    cmdshell(switch, "configure /root/change.cfg")
    assert owner(switch, "/var/lib/tiny-switch/running") == "Debian-snmp"
    config_copy(switch, f"running tftp://{SERVER}/after.cfg")
    assert (switch.served / "after.cfg").read_text() == "hostname small\nvlan 3\nvlan 4\n"

    ended = config_copy(switch, "running startup", check=False)
    assert ended.returncode == 1
    assert "Read-only file system" in cmdshell(switch, "show last-save")
    drop_in = "/run/systemd/system/wardend.service.d"
    switch.shell(
        f"mkdir -p {drop_in} && printf '[Service]\n{allowed}\n' > {drop_in}/device.conf && "
        "systemctl daemon-reload && systemctl restart wardend"
    )
    config_copy(switch, "running startup")
    assert cmdshell(switch, "show startup-config") == "hostname small\nvlan 3\nvlan 4\n"
    assert owner(switch, "/var/lib/tiny-switch/startup") == "Debian-snmp"

    settings.write_text(before)
    switch.shell(f"rm -r {drop_in} /var/lib/tiny-switch /usr/local/sbin/tiny-switch.sh && "
                 "systemctl daemon-reload && systemctl restart wardend")
    config_copy(switch, "running startup")


def test_device_frr(switch, packages, frr):
    """docs/devices.md, with FRR as Debian installs and starts it, and the units as they are."""
    before = cmdshell(switch, "show running-config")
    settings = switch.root / "etc/ulmo/platform.conf"
    before_settings = settings.read_text()
    agent, warden = switch.main_process("snmpd"), switch.main_process("wardend")
    install_with_dpkg(switch, *frr, packages["config-copy-mib-frr"])
    wait_until(lambda: agent_answers(switch))
    assert switch.main_process("snmpd") != agent, "the agent was not restarted"
    assert switch.main_process("wardend") != warden, "the system manager was not restarted"
    for service in ("snmpd", "wardend"):
        assert groups_of(switch, service) >= {"frr", "frrvty"}
    text = (REPOSITORY / "docs/devices.md").read_text()
    (block,) = re.findall(r"^```\napt install \S*mib-frr.*?\n(.*?)^```$", text, re.M | re.S)
    assert block.count("\n") <= 10 and "adduser" not in block
    shown = switch.shell(f"set -e\n{block}")
    assert "frr version" in shown and "% " not in shown
    wait_until(lambda: agent_answers(switch))

    config_copy(switch, f"running tftp://{SERVER}/frr.cfg")
    backup = (switch.served / "frr.cfg").read_text()
    assert backup.startswith("frr version ")
    (switch.served / "bgp.cfg").write_text(
        "router bgp 65001\n neighbor 192.0.2.2 remote-as 65002\n")
    config_copy(switch, f"tftp://{SERVER}/bgp.cfg running")
    assert "remote-as 65002" in switch.run("vtysh", "-c", "show running-config").stdout
    (switch.served / "bad.cfg").write_text("no router bgp 65001\nrouter ospf\n")
    ended = config_copy(switch, f"tftp://{SERVER}/bad.cfg running", check=False)
    assert ended.returncode == 1
    assert "line 2: ospfd does not run" in cmdshell(switch, "show copies").splitlines()[0]
    config_copy(switch, "running startup")  # by the system manager, with all its restrictions
    assert "remote-as 65002" in (switch.root / "etc/frr/frr.conf").read_text()
    assert switch.shell("stat -c '%U %G %a' /etc/frr/frr.conf") == "frr frr 640\n"
    switch.run("systemctl", "restart", "frr")
    assert "remote-as 65002" in switch.run("vtysh", "-c", "show running-config").stdout
    power_fails_in_a_save_of_frr(switch)
    (switch.served / "exact.cfg").write_text(f"configuration replace\n{backup}")
    config_copy(switch, f"tftp://{SERVER}/exact.cfg running")
    config_copy(switch, f"startup tftp://{SERVER}/startup.cfg")
    assert "remote-as 65002" in (switch.served / "startup.cfg").read_text()
    assert cmdshell(switch, "show running-config") == backup

    switch.run("apt-get", "remove", "-y", "config-copy-mib-frr")
    wait_until(lambda: agent_answers(switch))
    for what in ("running", "startup"):
        said = switch.run("runuser", "-u", "Debian-snmp", "--", "cmdshell", "-c",
                          f"show {what}-config", check=False).stdout
        assert "install config-copy-mib-frr" in said
    settings.write_text(before_settings)
    assert not (switch.root / "var/lib/config-copy-mib-frr").exists()
    for service in ("snmpd", "wardend"):
        assert not groups_of(switch, service) & {"frr", "frrvty"}
    assert FRR_DROP_IN not in switch.shell("systemctl show -P DropInPaths frr")
    assert cmdshell(switch, "show running-config") == before


def install_with_dpkg(switch, *packages):
    """Without apt-get, which would fetch what the archive has, too."""
    for package in packages:
        shutil.copy(package, switch.root / "root")
    switch.run("dpkg", "-i", "--auto-deconfigure",
               *(f"/root/{package.name}" for package in packages))


def groups_of(switch, service):
    """The groups of its process, in addition to its own."""
    (numbers,) = re.findall(r"^Groups:(.*)", switch.shell(
        f"cat /proc/{switch.main_process(service)}/status"), re.M)
    return {switch.shell(f"getent group {number}").split(":")[0] for number in numbers.split()}


def members_of(switch, group):
    return switch.shell(f"getent group {group}").strip().rpartition(":")[2].split(",")


def test_package_for_frr_leaves_what_it_has_not_done(switch, packages, frr):
    """The administrator has added one membership, and has stopped the agent."""
    install_with_dpkg(switch, *frr)
    switch.shell("adduser Debian-snmp frrvty && systemctl stop snmpd")
    install_with_dpkg(switch, packages["config-copy-mib-frr"])
    assert FRR_DROP_IN in switch.shell("systemctl show -P DropInPaths frr")
    added = switch.root / "var/lib/config-copy-mib-frr/added-groups"
    assert added.read_text() == "frr\n"
    warden = switch.main_process("wardend")
    install_with_dpkg(switch, packages["config-copy-mib-frr"])
    assert added.read_text() == "frr\n"
    assert switch.main_process("wardend") == warden, "restarted without a reason"
    assert "Debian-snmp" in members_of(switch, "frr")
    switch.run("apt-get", "purge", "-y", "config-copy-mib-frr", "frr", "frr-pythontools")
    assert "Debian-snmp" in members_of(switch, "frrvty")
    assert "Debian-snmp" not in members_of(switch, "frr")
    assert switch.run("systemctl", "is-active", "snmpd", check=False).stdout == "inactive\n"
    switch.shell("deluser Debian-snmp frrvty; systemctl start snmpd")
    wait_until(lambda: agent_answers(switch))


def power_fails_in_a_save_of_frr(switch):
    """Nothing but files is left of FRR. systemd starts it again, after the drop-in's command."""
    file, state = switch.root / "etc/frr/frr.conf", switch.root / "var/lib/ulmo/frr-save"
    before = file.read_text()
    state.write_text(f"{len(before)}\n{before}{before}ip route 10.1.0.0/16 blackhole\n")
    switch.shell("chown Debian-snmp: /var/lib/ulmo/frr-save; cd /etc/frr; "
                 "mv frr.conf frr.conf.sav; printf 'frr ver' >frr.conf; "
                 "systemctl reset-failed frr")
    restarts = "systemctl show -P NRestarts frr"
    count = switch.shell(restarts)
    switch.run("systemctl", "kill", "--signal=KILL", "frr")
    wait_until(lambda: switch.shell(restarts) != count, within=60)
    wait_until(lambda: "remote-as 65002" in switch.shell("vtysh -c 'show running-config' || true"),
               within=60)
    assert file.read_text() == before
    assert switch.shell("stat -c '%U %G %a' /etc/frr/frr.conf") == "frr frr 640\n"
    assert not state.exists()
    assert "a save was cut off" in switch.shell("journalctl -u frr")


def test_mib_module(switch):
    names = switch.shell(
        "snmptranslate -M /usr/share/snmp/mibs:/usr/share/config-copy-mib/mibs -m CONFIG-COPY-MIB "
        "-On CONFIG-COPY-MIB::ccCopyState.7"
    )
    assert names == f"{COPY_STATE}.7\n"


def test_manual_and_completion(switch, packages):
    listed = "".join(run("dpkg", "-c", package).stdout for package in packages.values())
    for page in ("man1/config-copy.1.gz", "man1/cmdshell.1.gz", "man1/ulmo-history.1.gz",
                 "man5/config_copy_mib.5.gz", "man5/platform.conf.5.gz", "man8/wardend.8.gz",
                 "man8/config-copy-receiver.8.gz", "man8/config-copy-backup.8.gz"):
        assert f"./usr/share/man/{page}\n" in listed
    for file in ("bash-completion/completions/config-copy", "zsh/vendor-completions/_config-copy",
                 "fish/vendor_completions.d/config-copy.fish"):
        assert f"./usr/share/{file}\n" in listed
    completed = switch.run(
        "bash", "-c",
        ". /usr/share/bash-completion/completions/config-copy; COMP_LINE='config-copy --ho' "
        "COMP_POINT=16; "
        "_config_copy config-copy --ho config-copy; echo ${COMPREPLY[@]}").stdout
    assert completed == "--hosts\n"


def test_upgrade(switch, packages):
    switch.shell("echo 'history_kilobytes = 128' >> /etc/ulmo/platform.conf")
    startup = cmdshell(switch, "show startup-config")
    before, warden = switch.main_process("snmpd"), switch.main_process("wardend")
    tree = PLACE / "upgrade"
    shutil.rmtree(tree, ignore_errors=True)
    run("dpkg-deb", "-R", packages["config-copy-mib"], tree)
    control = tree / "DEBIAN/control"
    control.write_text(control.read_text().replace("\nVersion: ", "\nVersion: 1:"))
    with (tree / "etc/ulmo/platform.conf").open("a") as settings:
        settings.write("# of the next version\n")
    run("dpkg-deb", "--root-owner-group", "-b", tree, PLACE / "config-copy-mib_next.deb")
    switch.install(PLACE / "config-copy-mib_next.deb")
    wait_until(lambda: takes_requests(switch))
    assert switch.main_process("snmpd") != before, "the agent was not restarted"
    assert switch.main_process("wardend") != warden, "the system manager was not restarted"
    assert "history_kilobytes = 128" in (switch.root / "etc/ulmo/platform.conf").read_text()
    assert "of the next version" in (switch.root / "etc/ulmo/platform.conf.dpkg-dist").read_text()
    assert switch.shell("stat -c '%U %G %a' /etc/ulmo/platform.conf") == "root Debian-snmp 640\n"
    assert cmdshell(switch, "show startup-config") == startup
    config_copy(switch, f"startup tftp://{SERVER}/upgraded.cfg")
    assert (switch.served / "upgraded.cfg").read_text() == startup


def test_remove(switch):
    before = switch.main_process("snmpd")
    switch.run("apt-get", "remove", "-y", "config-copy-mib", "config-copy")
    wait_until(lambda: agent_answers(switch))
    after = switch.main_process("snmpd")
    assert after != before, "the agent was not restarted"
    assert "/dev/null" not in outputs_of_agent(switch), "it still writes to /dev/null"
    assert not takes_requests(switch)
    assert not (switch.root / "ulmo").exists()
    assert not (switch.root / "usr/bin/config-copy").exists()
    assert not list((switch.root / "etc/snmp/snmpd.conf.d").iterdir())
    assert switch.run("systemctl", "is-active", "wardend", check=False).stdout == "inactive\n"
    switch.run("journalctl", "--sync")
    journal = switch.shell("journalctl -o cat -u wardend")
    assert "\nended\n" in journal
    assert switch.shell(f"journalctl -o cat _PID={after}") == "", "the agent complains"
    assert switch.run("systemctl", "--failed", "--quiet").stdout == ""
    startup = switch.root / "var/lib/ulmo/system.cfg"
    assert startup.exists(), "the switch's configuration went with the package"


def test_purge(switch):
    switch.run("apt-get", "purge", "-y", "config-copy-mib", "config-copy", "config-copy-mib-common")
    for path in ("var/lib/ulmo", "etc/ulmo", "usr/share/config-copy-mib",
                 "usr/share/snmp/mibs/CONFIG-COPY-MIB.txt"):
        assert not (switch.root / path).exists()
    # The history of the backups is the administrator's.
    assert (switch.root / BACKUPS[1:] / "switches/core1.cfg").exists()
    assert agent_answers(switch)


def test_stopped_agent_stays_stopped(switch, packages):
    switch.run("systemctl", "stop", "snmpd")
    switch.install(packages["config-copy-mib-common"], packages["config-copy-mib"])
    assert switch.run("systemctl", "is-active", "snmpd", check=False).stdout == "inactive\n"
    switch.run("apt-get", "purge", "-y", "config-copy-mib")


def test_agent_that_comes_with_the_package(switch, packages):
    """The agent is started before the package has made its folders."""
    switch.shell("cp /etc/snmp/snmpd.conf /root && apt-get purge -y snmpd")
    archives = list((switch.root / "var/cache/apt/archives").glob("snmpd_*.deb"))
    switch.install(*archives, packages["config-copy-mib-common"], packages["config-copy-mib"])
    switch.shell("systemctl stop snmpd && cp /root/snmpd.conf /etc/snmp && systemctl start snmpd")
    switch.shell(
        "systemctl stop snmpd; echo 'createUser operator SHA-256 auth-passphrase AES "
        "priv-passphrase' >> /var/lib/snmp/snmpd.conf; systemctl start snmpd"
    )
    wait_until(lambda: takes_requests(switch))
    assert strangers(switch) == ""
    switch.install(packages["config-copy"])
    config_copy(switch, "running startup")


def test_upgrade_from_the_package_that_kept_passwords(switch, packages):
    """The old package has only that part of 0.1.0 that matters here."""
    switch.run("apt-get", "purge", "-y", "config-copy-mib", "config-copy", "config-copy-mib-common")
    tree = PLACE / "before"
    shutil.rmtree(tree, ignore_errors=True)
    run("dpkg-deb", "-R", packages["config-copy-mib"], tree)
    control = (tree / "DEBIAN/control").read_text()
    (tree / "DEBIAN/control").write_text(
        re.sub(r"config-copy-mib-common \(.*?\), ", "",
               re.sub(r"\nVersion: .*", "\nVersion: 0.1.0", control)))
    (tree / "DEBIAN/conffiles").write_text((tree / "DEBIAN/conffiles").read_text() +
                                           "/etc/logrotate.d/config-copy-mib\n")
    (tree / "etc/logrotate.d").mkdir()
    (tree / "etc/logrotate.d/config-copy-mib").write_text(f"{LOG_OF_BEFORE} {{\n\tweekly\n}}\n")
    drop_in = tree / "lib/systemd/system/snmpd.service.d/config-copy-mib.conf"
    drop_in.write_text(f"[Service]\nStandardError=append:{LOG_OF_BEFORE}\n")
    for script in ("preinst", "postinst", "prerm", "postrm"):
        path = tree / "DEBIAN" / script
        path.write_text("\n".join(
            line for line in path.read_text().splitlines() if "rm_conffile" not in line) + "\n")
    run("dpkg-deb", "--root-owner-group", "-b", tree, PLACE / "config-copy-mib_before.deb")
    switch.install(PLACE / "config-copy-mib_before.deb")
    wait_until(lambda: takes_requests(switch))
    assert outputs_of_agent(switch)[1] == LOG_OF_BEFORE
    switch.shell(f"echo secret > {LOG_OF_BEFORE}.1.gz")
    said = switch.install(packages["config-copy-mib-common"], packages["config-copy-mib"])
    removed = f"removed {LOG_OF_BEFORE} and its rotations, which held passwords"
    assert f"config-copy-mib: {removed}" in said
    wait_until(lambda: takes_requests(switch))
    assert outputs_of_agent(switch) == ["/dev/null", "/dev/null"]
    assert not (switch.root / "etc/logrotate.d/config-copy-mib").exists()
    assert list((switch.root / "var/log").glob("snmpd-transfers*")) == []


def test_drop_in_of_frr_moves_to_its_package(switch, packages, frr):
    """The package before had it in config-copy-mib."""
    switch.run("apt-get", "purge", "-y", "config-copy-mib", "config-copy-mib-common")
    tree = PLACE / "before-frr"
    shutil.rmtree(tree, ignore_errors=True)
    run("dpkg-deb", "-R", packages["config-copy-mib"], tree)
    control = (tree / "DEBIAN/control").read_text()
    (tree / "DEBIAN/control").write_text(
        re.sub(r"config-copy-mib-common \(.*?\), ", "",
               re.sub(r"\nVersion: .*", "\nVersion: 0.1.9", control)))
    drop_in = tree / FRR_DROP_IN[1:]
    drop_in.parent.mkdir()
    drop_in.write_text("[Service]\nExecStartPre=-/bin/true\n")
    run("dpkg-deb", "--root-owner-group", "-b", tree, PLACE / "config-copy-mib_before-frr.deb")
    switch.install(PLACE / "config-copy-mib_before-frr.deb")
    install_with_dpkg(switch, *frr)
    assert "/bin/true" in switch.shell("systemctl cat frr")
    # in an order in which, for a moment, both have the file
    names = ("config-copy-mib-frr", "config-copy-mib-common", "config-copy-mib")
    install_with_dpkg(switch, *(packages[name] for name in names))
    wait_until(lambda: takes_requests(switch))
    assert switch.run("dpkg", "-S", FRR_DROP_IN).stdout == f"config-copy-mib-frr: {FRR_DROP_IN}\n"
    assert "mend startup-config" in switch.shell("systemctl cat frr")
    assert "/bin/true" not in switch.shell("systemctl cat frr")
    switch.run("apt-get", "purge", "-y", "config-copy-mib-frr", "frr", "frr-pythontools")
    wait_until(lambda: agent_answers(switch))


def test_manager_alone(switch, packages):
    switch.run("apt-get", "purge", "-y", "config-copy-mib", "config-copy-mib-common")
    switch.install(packages["config-copy-mib-common"], packages["config-copy"])
    test_mib_module(switch)
    for path in ("man/man5/config_copy_mib.5.gz", "doc/config-copy-mib-common/operations.md.gz"):
        assert (switch.root / "usr/share" / path).exists()
    assert not (switch.root / "ulmo").exists()


def test_of_the_packages_own(switch, packages, frr):
    """debian/tests, which Debian runs where the packages are."""
    switch.install(packages["config-copy-mib"])
    shutil.copytree(REPOSITORY / "debian", switch.root / "root/debian")
    said = switch.shell("/root/debian/tests/copy")
    assert said.count("hostname after\n") == 2  # running, and saved
    switch.run("systemctl", "reset-failed", "snmpd")  # systemd counts its many starts
    install_with_dpkg(switch, *frr, packages["config-copy-mib-frr"])
    said = switch.shell("/root/debian/tests/frr")
    assert said.endswith("\nip route 203.0.113.0/24 blackhole\n")
