"""The transports of the Net-SNMP library other than UDP and TCP over IPv4, which the other tests
use."""

import os
import shutil
import subprocess

from command import DONE, Agent, config_copy
from copy_table import SERVER4, SERVER_ROOT, show, wait_for

CREDENTIALS = ("-u", "far", "-a", "SHA-256", "-A", "far-authentication", "-x", "AES", "-X",
               "far-privacy-key")
USER = ("createUser far SHA-256 far-authentication AES far-privacy-key", "rwuser far authPriv")


def test_ipv6_and_unix_sockets(own_agents, tmp_path):
    addresses = ["udp6:[::1]:20990", "tcp6:[::1]:20990", f"unix:{tmp_path}/agent"]
    own_agents(settings=[*USER, *(f"agentAddress {address}" for address in addresses)])
    for number, address in enumerate(addresses):
        done = config_copy(*CREDENTIALS, address, "running", f"tftp://{SERVER4}/{number}.cfg")
        assert done.status == DONE, done
        assert (SERVER_ROOT / f"{number}.cfg").read_text() == show("running")


def certificate(home, name):
    """Makes a key and its self-signed certificate where the library looks for them. Returns the
    certificate's fingerprint."""
    for folder in ("certs", "private"):
        (home / "tls" / folder).mkdir(parents=True, exist_ok=True)
    file = home / f"tls/certs/{name}.crt"
    subprocess.run([
        "openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
        f"/CN={name}", "-keyout", home / f"tls/private/{name}.key", "-out", file
    ], check=True, stderr=subprocess.DEVNULL)
    printed = subprocess.run(
        ["openssl", "x509", "-in", file, "-noout", "-fingerprint", "-sha256"], check=True,
        stdout=subprocess.PIPE, text=True).stdout
    return printed.strip().partition("=")[2]


def test_dtls(tmp_path):
    """RFC 6353: certificates instead of passphrases. The transport does not discover the engine, so
    the command asks the agent for it."""
    there, here = tmp_path / "there", tmp_path / "here"
    certificate(there, "agent")
    fingerprint = certificate(here, "manager")
    shutil.copy(here / "tls/certs/manager.crt", there / "tls/certs")
    shutil.copy(there / "tls/certs/agent.crt", here / "tls/certs")
    agent = Agent(there, 20991, [
        "rocommunity probe default .1.3.6.1.2.1.1", "[snmp] localCert agent",
        f"certSecName 10 {fingerprint} --sn far", "rwuser -s tsm far authPriv",
        "agentAddress dtlsudp:127.0.0.1:20992"
    ], with_module=True)
    try:
        wait_for(agent.answers, 60, "an answer of the agent")
        environment = {**os.environ, "SNMPCONFPATH": str(here), "SNMP_PERSISTENT_DIR": str(here)}
        options = ("-v3", "-l", "authPriv", "--defSecurityModel=tsm", "-u", "far", "-T",
                   "our_identity=manager", "-T", "their_identity=agent")
        done = config_copy(*options, "dtlsudp:127.0.0.1:20992", "running",
                           f"tftp://{SERVER4}/dtls.cfg", env=environment)
        assert done.status == DONE, done
        assert (SERVER_ROOT / "dtls.cfg").read_text() == show("running")
        stranger = (*options[:-4], "-T", "our_identity=agent", "-T", "their_identity=agent")
        assert config_copy(*stranger, "-t0.5", "-r0", "dtlsudp:127.0.0.1:20992", "running",
                           f"tftp://{SERVER4}/b", env=environment).status != DONE
        hosts = tmp_path / "hosts"
        hosts.write_text("""[near] -T their_identity=agent
dtlsudp:127.0.0.1:20992 -T our_identity=manager
dtlsudp:localhost:20992 -T our_identity=agent -t 0.5 -r 0
""")
        done = config_copy(*options[:-4], "--hosts", hosts, "running",
                           f"tftp://{SERVER4}/{{host}}", env=environment)
        assert done.out.startswith("[near] dtlsudp:127.0.0.1:20992: running to "), done
        assert done.out.endswith("\n2 agents: 1 done, 1 not reachable\n"), done
    finally:
        agent.stop()
