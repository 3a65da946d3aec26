"""Agents that lie or answer slowly. Each command ends, with status 4 and one line that says why."""

import re
import socket
import subprocess
import threading
import time

import pytest
import snmp
from command import UNREACHABLE, config_copy
from copy_numbers import COPY_ENTRY, ERROR_ENTRY
from copy_table import ACTIVE, DESTROY, ROW_STATUS, SERVER4

COPY, ERROR = snmp.numbers(COPY_ENTRY), snmp.numbers(ERROR_ENTRY)
NO_SUCH_INSTANCE = snmp.tlv(0x81, b"")
GENERAL_ERROR = 5
WAITING = snmp.integer(1)
WWN = snmp.tlv(snmp.OCTETS, bytes(8))
WALK_COMES_BACK = "is broken: a walk of .* comes back to where it was and would never end"


class Agent(threading.Thread):
    """An agent on the loopback, until the end of the block. A walk goes on from a name with
    `next_name(name)`; `value` is that of each instance until a request is made. No copy can be
    started."""

    def __init__(self, next_name, value=NO_SUCH_INSTANCE, seconds=0):
        super().__init__()
        self.next_name, self.value, self.seconds = next_name, value, seconds
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.name = f"127.0.0.1:{self.socket.getsockname()[1]}"

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as end:
            end.sendto(b"", self.socket.getsockname())
        self.join()
        self.socket.close()

    def run(self):
        while True:
            packet, client = self.socket.recvfrom(65536)
            if not packet:
                break
            time.sleep(self.seconds)
            self.socket.sendto(self.answer(packet), client)

    def answer(self, packet):
        (_, whole), = snmp.parts(packet)
        _, _, (kind, pdu) = snmp.parts(whole)
        (_, identity), _, _, (_, listed) = snmp.parts(pdu)
        bindings, status = [], 0
        for _, pair in snmp.parts(listed):
            (_, encoded), (tag, content) = snmp.parts(pair)
            name, value = snmp.arcs(encoded), self.value
            if kind == snmp.GET_NEXT:
                name = self.next_name(name)
                value = WWN if name[:len(ERROR)] == ERROR else WAITING
            elif kind == snmp.SET:
                value = snmp.tlv(tag, content)
                if name[-2] == ROW_STATUS and value == snmp.integer(ACTIVE):
                    status = GENERAL_ERROR
                elif name[-2] == ROW_STATUS:
                    self.value = NO_SUCH_INSTANCE if value == snmp.integer(DESTROY) else WAITING
            bindings.append(snmp.binding(".".join(map(str, name)), value))
        return snmp.message(snmp.RESPONSE, int.from_bytes(identity, "big", signed=True), bindings,
                            status, min(status, 1))

    def ends(self, text, *words, within=60):
        began = time.monotonic()
        done = config_copy("-v2c", "-c", "lab", *words)
        assert time.monotonic() - began < within
        assert (done.status, done.out) == (UNREACHABLE, ""), done
        assert re.fullmatch(f"config-copy: {re.escape(self.name)} {text}[^\n]*\n", done.err), done


def first(name):
    """The first instance behind the name of a column, or of a request in the table of errors."""
    length = len(ERROR) + 3 if name[:len(ERROR)] == ERROR else len(COPY) + 2
    return (*name, *[2] * (length - len(name)))


def same(name):
    return first(name)


def falling(name):
    return (*name[:-1], 1) if name == first(name) else first(name)


def endless(name):
    return (*name[:-1], name[-1] + 1) if name == first(name) else first(name)


def commands(agent):
    return {
        "list": ("list", agent), "errors": ("errors", agent), "errors of one": ("errors", agent, 7),
        "copy": (agent, "running", "startup"),
    }


EVERY_COMMAND = pytest.mark.parametrize("command", commands(""))


@EVERY_COMMAND
@pytest.mark.parametrize("next_name", [same, falling])
def test_names_that_do_not_rise(command, next_name):
    with Agent(next_name) as agent:
        agent.ends(WALK_COMES_BACK, *commands(agent.name)[command])


def test_table_without_an_end():
    with Agent(endless) as agent:
        agent.ends("has more than 100000 instances of ccCopyEntryRowStatus, so it is broken or",
                   "list", agent.name)


def test_every_index_is_taken():
    with Agent(endless, snmp.integer(1)) as agent:
        agent.ends("is broken: it has a copy request at each of ", agent.name, "running", "startup")


@EVERY_COMMAND
def test_time_limit(command):
    with Agent(endless, seconds=0.2) as agent:
        agent.ends("answers, but not all was asked in the time limit", "--time-limit", 2,
                   *commands(agent.name)[command], within=4)


def test_time_limit_of_a_name(broken_link, tmp_path):
    """No name server answers."""
    (tmp_path / "resolv.conf").write_text(f"nameserver {SERVER4}\n")
    began = time.monotonic()
    done = subprocess.run([
        "unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/resolv.conf && exec "$@"',
        tmp_path / "resolv.conf", "config-copy", "--time-limit", "2", "list", "switch.example"
    ], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert time.monotonic() - began < 4
    assert (done.returncode, done.stdout, done.stderr) == (
        UNREACHABLE, "", 'config-copy: the agent "switch.example" can\'t be found in 2 s: no name '
        "server answers; try again later, or write its address\n")
