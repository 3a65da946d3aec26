"""Passwords, host keys, and who gets to see them."""

import pytest
from scripts import *

PRINTABLE = "".join(map(chr, range(32, 127)))


@pytest.fixture
def password():
    yield set_password
    set_password(SECRET)


@pytest.mark.parametrize("text", [PRINTABLE[:48], PRINTABLE[48:], " \u00e4\u20ac ", "-f"], ids=["first", "second", "utf-8", "option"])
def test_every_password(script, text, password, here):
    password(text)
    (here / "out").write_text("text\n")
    assert script.put(here / "out", "there.cfg", password=text) == DONE
    assert (SERVER_ROOT / "there.cfg").read_text() == "text\n"


@pytest.mark.parametrize("user", ["", "anonymous"])
def test_anonymous_ftp_without_a_password(here, user):
    (here / "out").write_text("text\n")
    assert FTP.put(here / "out", "there.cfg", user=user, password="") == DONE
    assert FTP.get("there.cfg", here / "back", user=user, password="") == DONE
    assert (here / "back").read_text() == "text\n"


def test_login_refused(script, action, files):
    local, remote, target = files(action, b"text")
    refused = [{"password": "wrong"}, {"password": ""}, {"user": "nobody-knows"}, {"password": "a\nb"}, {"user": "a\tb"}]
    if script is not FTP:
        refused.append({"user": ""})
    assert side_by_side(lambda case: script.move(action, local, remote, **case), *((case,) for case in refused)) == [LOGIN] * len(refused)
    assert not target.exists()


def test_message_that_would_hold_the_password(script, here):
    """The server's message names the file, and the file is named as the password."""
    running = script.start("get", here / "back", f"missing-{SECRET}")
    assert running.result() == NAME  # and result() has looked at what it said


def test_keyboard_interactive(ssh_script, other_host, here):
    """A server that asks by itself what it wants to know."""
    key, configuration = here / "key", here / "sshd_config"
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key)
    Path("/etc/pam.d/sshd").write_text("auth required pam_unix.so nodelay\naccount required pam_permit.so\nsession required pam_permit.so\n")
    configuration.write_text(f"ListenAddress {OTHER_HOST}\nHostKey {key}\nPidFile none\nUsePAM yes\nPasswordAuthentication no\n"
                             "KbdInteractiveAuthentication yes\nPubkeyAuthentication no\nUseDNS no\nSubsystem sftp internal-sftp\n")
    daemon = next(Path(os.path.realpath(f"/proc/{pid}/exe")) for pid in os.listdir("/proc")
                  if pid.isdigit() and os.path.realpath(f"/proc/{pid}/exe").endswith("/sshd"))
    other_host(daemon, "-D", "-f", configuration)
    wait_for(lambda: subprocess.run(["ssh-keyscan", "-T1", OTHER_HOST], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout, what="the server")
    (here / "out").write_text("text\n")
    assert ssh_script.put(here / "out", "asked.cfg", server=OTHER_HOST) == DONE
    assert (SERVER_ROOT / "asked.cfg").read_text() == "text\n"
    assert ssh_script.put(here / "out", "asked.cfg", server=OTHER_HOST, password="wrong") == LOGIN


def test_changed_host_key(ssh_script, action, files):
    local, remote, target = files(action, b"text")
    assert ssh_script.move(action, local, remote) == DONE
    assert KNOWN_HOSTS.read_text().startswith(f"{SERVER4} ssh-ed25519 ")
    target.unlink()
    lab_ctl("new-host-key")
    assert ssh_script.move(action, local, remote) == HOST_KEY
    assert not target.exists()
    KNOWN_HOSTS.unlink()
    assert ssh_script.move(action, local, remote) == DONE


def test_first_contact_off(ssh_script, action, files):
    local, remote, target = files(action, b"text")
    settings(ssh_accept_new_host_keys="no")
    assert ssh_script.move(action, local, remote) == HOST_KEY
    assert not KNOWN_HOSTS.exists() and not target.exists()
    settings(ssh_accept_new_host_keys="yes")
    assert ssh_script.move(action, local, remote) == DONE
    settings(ssh_accept_new_host_keys="no")
    assert ssh_script.move(action, local, remote) == DONE


def test_password_is_nowhere_to_be_seen(script, action, files, slow_link):
    """The script shows it in its arguments until it has started anew, which is before it starts anything; no other process does, none in its
    environment."""
    slow_link(800)
    local, remote, _ = files(action, bytes(40_000))
    running = script.start(action, local, remote, vrf=1)
    secret, seen, clients = SECRET.encode(), [], set()
    while running.process.poll() is None:
        family = running.family()
        for entry in Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            with contextlib.suppress(OSError):
                arguments = (entry / "cmdline").read_bytes()
                if secret in arguments and (int(entry.name) != running.pid or len(family) > 1):
                    seen.append(arguments)
                if int(entry.name) in family:
                    clients.add(arguments.split(b"\0")[0])
                    environment = (entry / "environ").read_bytes()
                    if secret in environment:
                        seen.append(environment)
    assert running.result() == DONE
    assert seen == [] and clients & {b"ftp", b"sftp", b"scp"}
