"""The packages on a Debian 12 with an agent: they come, work, are upgraded and go. Each test goes on from the one before."""

import re
import os
import shutil
import time

import pytest
from conftest import PLACE, REPOSITORY, SERVER, run, wait_until

COPY_STATE, ROW_STATUS = ".1.3.6.1.4.1.41927.9.96.1.1.1.1.10", ".1.3.6.1.4.1.41927.9.96.1.1.1.1.14"
CREATE_AND_WAIT, DESTROY = "5", "6"
UPTIME = ".1.3.6.1.2.1.1.3.0"
USER = "-v3 -l authPriv -u operator -a SHA-256 -A auth-passphrase -x AES -X priv-passphrase"
ACCESS = """
rwuser operator priv -V copies
view copies included .1.3.6.1.2.1.1
view copies included .1.3.6.1.4.1.41927.9.96
"""


def agent_answers(switch):
    return switch.run("sh", "-c", f"MIBS= snmpget -r0 -t1 {USER} 127.0.0.1 {UPTIME}", check=False).returncode == 0


def takes_requests(switch):
    """Whether the agent makes a row of the copy table, and takes it away again."""
    return all(switch.run("sh", "-c", f"MIBS= snmpset -r0 -t1 {USER} 127.0.0.1 {ROW_STATUS}.1 i {value}", check=False).returncode == 0
               for value in (CREATE_AND_WAIT, DESTROY))


def config_copy(switch, arguments, check=True):
    return switch.run("sh", "-c", f"config-copy {USER} 127.0.0.1 {arguments}", check=check)


def cmdshell(switch, line):
    return switch.run("cmdshell", "-c", line).stdout


def owner(switch, path):
    return switch.run("stat", "-c", "%U", path).stdout.strip()


@pytest.fixture(scope="module", autouse=True)
def agent(switch):
    """The agent as Debian sets it up, with a user who may copy."""
    switch.shell("systemctl stop snmpd")
    switch.shell(f"cat >> /etc/snmp/snmpd.conf <<'END'\n{ACCESS}\nEND")
    switch.shell("echo 'createUser operator SHA-256 auth-passphrase AES priv-passphrase' >> /var/lib/snmp/snmpd.conf")
    switch.shell("systemctl start snmpd")
    wait_until(lambda: agent_answers(switch))


def strangers(switch):
    """What the platform's user may not open."""
    return switch.run("find", "/var/lib/ulmo", "/run/ulmo", "!", "-user", "Debian-snmp").stdout


def test_before(switch):
    assert not takes_requests(switch)
    assert not (switch.root / "ulmo").exists()


def test_install(switch, packages):
    before = switch.main_process("snmpd")
    switch.install(packages["config-copy-mib"])
    wait_until(lambda: takes_requests(switch))
    assert switch.main_process("snmpd") != before, "the agent was not started anew"
    for service in ("snmpd", "wardend"):
        assert owner(switch, f"/proc/{switch.main_process(service)}") == "Debian-snmp"
        assert switch.run("systemctl", "is-enabled", service).stdout == "enabled\n"
    assert switch.shell("stat -c '%U %a' /var/lib/ulmo /run/ulmo").splitlines() == ["Debian-snmp 700", "Debian-snmp 755"]
    switch.install(packages["config-copy"])


def test_backup_and_restore(switch):
    ended = config_copy(switch, f"running tftp://{SERVER}/backup.cfg")
    assert "copied" in ended.stdout
    running = cmdshell(switch, "show running-config")
    assert (switch.served / "backup.cfg").read_text() == running
    (switch.served / "backup.cfg").write_text(running.replace("hostname ", "hostname restored-"))
    config_copy(switch, f"tftp://{SERVER}/backup.cfg running")
    assert cmdshell(switch, "show running-config") == running.replace("hostname ", "hostname restored-")


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
    """By default of errors alone; on request of the course of things."""
    lines = switch.run("ulmo-history").stdout.splitlines()
    assert lines and all(" error " in line for line in lines), lines
    switch.shell("echo 'history = all' >> /etc/ulmo/platform.conf")
    time.sleep(1.1)  # within which the change holds
    config_copy(switch, f"startup tftp://{SERVER}/history.cfg")
    assert "vlan" in cmdshell(switch, "show running-config")
    cmdshell(switch, "copy running-config startup-config")
    history = switch.run("ulmo-history").stdout
    switch.shell("sed -i '/^history = all$/d' /etc/ulmo/platform.conf")
    for service in ("snmpd", "wardend"):
        assert f" {switch.main_process(service)} " in history
    assert "copy_function : Copying done with SUCCESS" in history


def test_settings_that_the_agent_cant_read(switch):
    """The package lets the agent's user read them. When somebody takes that away, nothing is copied and nothing is saved, and the reason is told."""
    file = "/etc/ulmo/platform.conf"
    assert switch.shell(f"stat -c '%U %G %a' {file}") == "root Debian-snmp 640\n"
    startup = cmdshell(switch, "show startup-config")
    switch.shell(f"chmod 600 {file}")
    try:
        assert config_copy(switch, f"startup tftp://{SERVER}/never.cfg", check=False).returncode != 0
        assert config_copy(switch, "running startup", check=False).returncode != 0
    finally:
        switch.shell(f"chmod 640 {file}")
    assert not (switch.served / "never.cfg").exists() and cmdshell(switch, "show startup-config") == startup
    errors = switch.run("ulmo-history", "--errors").stdout
    assert f"worker: the copy is refused: {file} can't be read: Permission denied" in errors
    assert re.search(rf"not saved to the startup configuration of this switch, \d+ ms: {file} can't be read: Permission denied", errors)


def test_reload_of_the_agent(switch):
    """It lets go of the module, as user Debian-snmp, and loads it again."""
    before, link = switch.main_process("snmpd"), "/etc/snmp/snmpd.conf.d/config-copy-mib.conf"
    switch.shell(f"mv {link} /root/link && ln -s /dev/null {link} && systemctl reload snmpd")
    wait_until(lambda: agent_answers(switch) and not takes_requests(switch))
    switch.shell(f"mv /root/link {link} && systemctl reload snmpd")
    wait_until(lambda: takes_requests(switch))
    config_copy(switch, "running startup")
    assert switch.main_process("snmpd") == before


def test_agent_may_run_as_the_superuser(switch):
    drop_in = "/run/systemd/system/snmpd.service.d"
    switch.shell(f"mkdir -p {drop_in} && printf '[Service]\nExecStart=\nExecStart=/usr/sbin/snmpd -LOw -I -smux,mteTrigger,mteTriggerConf -f\n' > {drop_in}/user.conf")
    switch.shell("systemctl daemon-reload && systemctl restart snmpd")
    wait_until(lambda: takes_requests(switch))
    assert owner(switch, f"/proc/{switch.main_process('snmpd')}") == "root"
    config_copy(switch, "running startup")
    config_copy(switch, "startup running")
    config_copy(switch, f"running tftp://{SERVER}/as-root.cfg")
    switch.shell("rm -f /var/lib/ulmo/ssh_known_hosts; umask 077; echo secret > /root/password")
    config_copy(switch, f"--password-file /root/password running sftp://netops@{SERVER}/backup.cfg", check=False)
    assert owner(switch, "/var/lib/ulmo/ssh_known_hosts") == "Debian-snmp"
    assert strangers(switch) == ""
    switch.shell(f"rm {drop_in}/user.conf && systemctl daemon-reload && systemctl restart snmpd")
    wait_until(lambda: takes_requests(switch))
    assert owner(switch, f"/proc/{switch.main_process('snmpd')}") == "Debian-snmp"
    config_copy(switch, "running startup")


def test_power_cut(switch):
    """The switch starts with what was saved, and its run directory is made anew."""
    saved = cmdshell(switch, "show startup-config")
    switch.shell("echo 'vlan 999' > /root/change.cfg")
    cmdshell(switch, "configure /root/change.cfg")
    switch.start_again()
    wait_until(lambda: takes_requests(switch))
    assert cmdshell(switch, "show running-config") == saved
    config_copy(switch, "running startup")
    assert switch.run("systemctl", "--failed", "--quiet").stdout == ""


def test_nightly_backup(switch):
    """The timer of docs/operations.md. There is no such server beside the switch, so what it says shows how far it came."""
    text = (REPOSITORY / "docs/operations.md").read_text()
    units = {name: text.split(f"# /etc/systemd/system/{name}\n")[1].split("```")[0] for name in ("backup.service", "backup.timer")}
    assert "files.example.net" in units["backup.service"]
    for name, unit in units.items():
        (switch.root / "etc/systemd/system" / name).write_text(unit.replace("files.example.net", SERVER))
    switch.shell("echo 127.0.0.1 > /etc/switches; umask 077; echo secret > /etc/backup.password; chown backup /etc/backup.password; umask 022; mkdir /var/backups/.snmp")
    (switch.root / "var/backups/.snmp/snmp.conf").write_text("".join(f"{line}\n" for line in (
        "defVersion 3", "defSecurityLevel authPriv", "defSecurityName operator", "defAuthType SHA-256", "defAuthPassphrase auth-passphrase", "defPrivType AES",
        "defPrivPassphrase priv-passphrase")))
    switch.shell("systemctl daemon-reload && systemctl enable --now backup.timer")
    assert "backup.service" in switch.run("systemctl", "list-timers").stdout
    assert switch.run("systemctl", "start", "backup", check=False).returncode != 0
    switch.run("journalctl", "--sync")
    journal = switch.run("journalctl", "-u", "backup", "-o", "cat").stdout
    assert f"(timeout): the file server {SERVER} did not answer the switch" in journal
    switch.run("systemctl", "disable", "--now", "backup.timer")
    switch.run("systemctl", "reset-failed")


@pytest.mark.parametrize("protocol", ["ftp", "sftp", "scp"])
def test_transfer_scripts_run(switch, protocol):
    """There is no such server beside the switch, as only the client can tell."""
    switch.shell("umask 077; echo secret > /root/password")
    ended = config_copy(switch, f"--password-file /root/password running {protocol}://netops@{SERVER}/backup.cfg", check=False)
    assert ended.returncode == 1
    assert f"(timeout): the file server {SERVER} did not answer the switch" in ended.stdout
    # The password is for the superuser's eyes.
    log = "/var/log/snmpd-transfers.log"
    assert f"{protocol.upper()}_PUT" in switch.run("cat", log).stdout and " secret" in switch.run("cat", log).stdout
    assert switch.shell(f"stat -c '%U %a' {log}") == "root 600\n"
    switch.run("journalctl", "--sync")
    assert "secret" not in switch.shell("journalctl --no-pager")


def test_system_manager_may_do_little(switch):
    switch.run("systemd-analyze", "security", "--no-pager", "--threshold=20", "wardend.service")  # 2.0


def test_mib_module(switch):
    names = switch.shell("snmptranslate -M /usr/share/snmp/mibs:/usr/share/config-copy-mib/mibs -m CONFIG-COPY-MIB -On CONFIG-COPY-MIB::ccCopyState.7")
    assert names == f"{COPY_STATE}.7\n"


def test_manual_and_completion(switch, packages):
    listed = "".join(run("dpkg", "-c", packages[name]).stdout for name in ("config-copy", "config-copy-mib"))
    for page in ("man1/config-copy.1.gz", "man1/cmdshell.1.gz", "man1/ulmo-history.1.gz", "man5/config_copy_mib.5.gz", "man5/platform.conf.5.gz", "man8/wardend.8.gz"):
        assert f"./usr/share/man/{page}\n" in listed
    completed = switch.run("bash", "-c", ". /usr/share/bash-completion/completions/config-copy; COMP_LINE='config-copy --ho' COMP_POINT=16; "
                           "_config_copy config-copy --ho config-copy; echo ${COMPREPLY[@]}").stdout
    assert completed == "--hosts\n"


def test_upgrade(switch, packages):
    switch.shell("echo 'history_records = 128' >> /etc/ulmo/platform.conf")
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
    assert switch.main_process("snmpd") != before, "the agent was not started anew"
    assert switch.main_process("wardend") != warden, "the system manager was not started anew"
    assert "history_records = 128" in (switch.root / "etc/ulmo/platform.conf").read_text()
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
    assert after != before, "the agent was not started anew"
    assert "transfers.log" not in switch.run("readlink", f"/proc/{after}/fd/2").stdout, "it writes its errors where the package wanted them"
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
    assert (switch.root / "var/lib/ulmo/system.cfg").exists(), "the switch's configuration went with the package"


def test_purge(switch):
    switch.run("apt-get", "purge", "-y", "config-copy-mib", "config-copy")
    for path in ("var/lib/ulmo", "etc/ulmo", "usr/share/config-copy-mib", "var/log/snmpd-transfers.log"):
        assert not (switch.root / path).exists()
    assert agent_answers(switch)


def test_stopped_agent_stays_stopped(switch, packages):
    switch.run("systemctl", "stop", "snmpd")
    switch.install(packages["config-copy-mib"])
    assert switch.run("systemctl", "is-active", "snmpd", check=False).stdout == "inactive\n"
    switch.run("apt-get", "purge", "-y", "config-copy-mib")


def test_agent_that_comes_with_the_package(switch, packages):
    """It is started before the package has made its folders."""
    switch.shell("cp /etc/snmp/snmpd.conf /root && apt-get purge -y snmpd")
    archives = list((switch.root / "var/cache/apt/archives").glob("snmpd_*.deb"))
    switch.install(*archives, packages["config-copy-mib"])
    switch.shell("systemctl stop snmpd && cp /root/snmpd.conf /etc/snmp && systemctl start snmpd")
    switch.shell("systemctl stop snmpd; echo 'createUser operator SHA-256 auth-passphrase AES priv-passphrase' >> /var/lib/snmp/snmpd.conf; systemctl start snmpd")
    wait_until(lambda: takes_requests(switch))
    assert strangers(switch) == ""
    switch.install(packages["config-copy"])
    config_copy(switch, "running startup")


def test_packages_tell_nothing_of_where_they_were_made(packages):
    """So they are the same wherever they are made: neither the code, nor what is stripped from it and goes into its build ID."""
    packed = {path.rpartition("/")[2] for package in packages.values() for path in run("dpkg", "-c", package).stdout.split()}
    made = [path for folder in ("bin", "lib") for path in (REPOSITORY / "build/release" / folder).iterdir() if path.name in packed]
    assert {"config_copy_mib.so", "libulmo_platform.so", "wardend", "config-copy"} <= {path.name for path in made}
    assert [path.name for path in made if os.fsencode(REPOSITORY) in path.read_bytes()] == []
