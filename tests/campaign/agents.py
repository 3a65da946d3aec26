#!/usr/bin/python3
"""config-copy, built with sanitizers, against an agent that lies.

Whatever the agent says, the command ends in its time, with one of its own exit statuses, in little
memory, with texts that do no harm; and it is successful only if the agent has said so."""

import bisect
import os
import re
import resource
import socket
import subprocess
import threading
import time

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import snmp
from copy_numbers import COPY_ENTRY, ERROR_ENTRY, ROOT

LIMIT = 2  # seconds that the command is given
SPARE = 6  # and what it may take for its ending, on a busy machine
STATUSES = range(6)
SANITIZER = 99  # the status of a program that one of them ends
MEMORY = 60_000  # KiB, with sanitizers; 25,000 are usual
LARGEST = 65_000  # octets of an answer
MOST_TEXT = 100_000  # octets of output
ENTRY = snmp.numbers(COPY_ENTRY)
TEXTS = (b"", b"\x1b[2J\x1b]0;x\x07", b"%s%n", b"a\nb\rc", bytes(300), b"\xff" * 40, b"\x1b[31mred",
         b"x" * 60000, b'"},{"x":"')


class HostileAgent(threading.Thread):
    """A copy table, and at a rate of its own something else than the truth."""

    def __init__(self, chance):
        super().__init__(daemon=True)
        self.chance = chance
        self.rate = chance.choice((0, 0, 0.05, 0.3, 1))
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.name = "127.0.0.1:%d" % self.socket.getsockname()[1]
        self.objects = {}
        self.said_success = self.over = False
        self.said, self.error = 0, None
        for index in range(chance.choice((0, 0, 1, 5))):
            self.add(1 + index, chance.choice((1, 2, 3, 4)))
        for error in range(chance.choice((0, 3, 3))):
            row = (*snmp.numbers(ERROR_ENTRY), 0, 1, 1 + error)
            for column, value in ((2, snmp.integer(1)), (3, snmp.tlv(snmp.OCTETS, bytes(4))),
                                  (4, snmp.tlv(snmp.OCTETS, bytes(8))),
                                  (5, snmp.tlv(snmp.OCTETS, chance.choice(TEXTS)))):
                self.objects[(*row[:-3], column, *row[-2:])] = value

    def add(self, index, state):
        for column in ct.COLUMNS:
            self.objects[(*ENTRY, column, index)] = snmp.integer(1)
        for column in (ct.FILE_NAME, ct.USER_NAME, ct.PASSWORD):
            self.objects[(*ENTRY, column, index)] = snmp.tlv(snmp.OCTETS, self.chance.choice(TEXTS))
        self.objects[(*ENTRY, ct.ADDRESS, index)] = snmp.tlv(snmp.OCTETS, bytes(4))
        self.objects[(*ENTRY, ct.STATE, index)] = snmp.integer(state)

    def run(self):
        try:
            while not self.over:
                packet, peer = self.socket.recvfrom(65536)
                for answer in self.answers(packet) if packet else ():
                    if len(answer) < LARGEST:
                        self.note(answer)
                        self.socket.sendto(answer, peer)
                        self.said += 1
        except Exception as error:  # noqa: B902 - the campaign reports it
            self.error = error

    def end(self):
        """Ends, and fails if it was not the command that failed."""
        self.over = True
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as waking:
            waking.sendto(b"", self.socket.getsockname())
        self.join()
        self.socket.close()
        if self.error:
            raise self.error

    def note(self, answer):
        """Whether the command could read that a copy was successful."""
        if snmp.integer(ct.STATE_SUCCESSFUL) in answer:
            self.said_success = True

    def answers(self, packet):
        kind, identity, _, bindings = snmp.opened(packet)
        truth = self.truth(kind, bindings)
        chance = self.chance
        if chance.random() >= self.rate:
            return [snmp.message(snmp.RESPONSE, identity, truth)]
        names = [name for name, *_ in bindings]
        first = snmp.message(snmp.RESPONSE, identity, truth)
        match chance.randrange(10):
            case 0:
                return []
            case 1:
                return [snmp.message(snmp.RESPONSE, identity, truth, chance.randrange(25),
                                     chance.randrange(5))]
            case 2:
                return [snmp.message(snmp.RESPONSE, chance.randrange(2**31), truth)]
            case 3:
                return [chance.randbytes(chance.randrange(300))]
            case 4:
                at = chance.randrange(len(first))
                return [first[:at] + bytes((chance.randrange(256),)) + first[at + 1:]]
            case 5:
                return [first[:chance.randrange(len(first))]]
            case 6:
                return [first] * 30
            case 7:
                return [snmp.message(snmp.RESPONSE, identity, truth * chance.choice((0, 2, 40)))]
            case 8:  # the names as they were asked for, or those of another row or table
                return [snmp.message(snmp.RESPONSE, identity, [
                    self.bound(chance.choice((name, name[:-1] + (chance.randrange(2**31),),
                                              ENTRY + (1,), (1, 3))), self.odd())
                    for name in names])]
            case _:
                return [snmp.message(snmp.RESPONSE, identity,
                                     [self.bound(name, self.odd()) for name in names])]

    def odd(self):
        chance = self.chance
        return chance.choice((
            snmp.integer(chance.choice((0, 1, 2, 3, 4, 5, 9, -1, 2**31, 2**63 - 1))),
            snmp.tlv(snmp.OCTETS, chance.choice(TEXTS)), snmp.tlv(snmp.ADDRESS, bytes(4)),
            snmp.tlv(snmp.TIME_TICKS, bytes((5, 5))), snmp.tlv(0x80, b""), snmp.tlv(0x82, b""),
            snmp.oid(ROOT), snmp.tlv(snmp.INTEGER, b""), snmp.tlv(snmp.INTEGER, bytes(9))))

    @staticmethod
    def bound(name, value):
        return snmp.binding(".".join(map(str, name)), value)

    def truth(self, kind, bindings):
        if kind == snmp.SET:
            for name, _, _ in bindings:
                self.written(name, bindings)
            return [self.bound(name, snmp.tlv(tag, content)) for name, tag, content in bindings]
        if kind == snmp.GET:
            return [self.bound(name, self.read(name)) for name, *_ in bindings]
        ordered, answers = sorted(self.objects), []
        for name, *_ in bindings:
            at = bisect.bisect_right(ordered, name)
            for each in ordered[at:at + (20 if kind == snmp.GET_BULK else 1)]:
                answers.append(self.bound(each, self.objects[each]))
            if at == len(ordered):
                answers.append(self.bound(name, snmp.tlv(snmp.END_OF_VIEW, b"")))
        return answers

    def read(self, name):
        """A copy that runs ends some time."""
        value = self.objects.get(name, snmp.tlv(0x81, b""))
        if name[:-1] == (*ENTRY, ct.STATE) and value == snmp.integer(ct.STATE_RUNNING):
            if self.chance.random() < 0.5:
                self.objects[name] = snmp.integer(self.chance.choice((3, 4)))
        return value

    def written(self, name, bindings):
        if name[:-1] != (*ENTRY, ct.ROW_STATUS):
            return
        _, _, content = next(each for each in bindings if each[0] == name)
        status, index = int.from_bytes(content, "big"), name[-1]
        if status == ct.DESTROY:
            for column in ct.COLUMNS:
                self.objects.pop((*ENTRY, column, index), None)
        else:
            running = status in (ct.ACTIVE, ct.CREATE_AND_GO)
            self.add(index, ct.STATE_RUNNING if running else ct.STATE_WAITING)


COPIES = (("running", "tftp://192.0.2.20/x.cfg"), ("running", "startup"),
          ("running", "fabric-startup"), ("tftp://192.0.2.20/x.cfg", "running"))
QUESTIONS = (("list",), ("errors",), ("errors",), ("errors", "1"), ("abort", "1"))


def command(chance, agent):
    """The words, and whether status 0 means that the agent said so."""
    words = ["config-copy", "-v2c", "-c", "lab", "-t", "0.2", "-r", "1", "--time-limit", str(LIMIT),
             *chance.choice(([], ["--json"], ["--verbose"]))]
    if chance.random() < 0.5:
        verb, *rest = chance.choice(QUESTIONS)
        return [*words, verb, agent, *rest], False
    more = chance.choice(([], [], ["--dry-run"], ["--wait-turn", "1"]))
    return [*words, *more, agent, *chance.choice(COPIES)], more != ["--dry-run"]


def body(campaign):
    environment = os.environ | {"ASAN_OPTIONS": f"exitcode={SANITIZER}",
                                "UBSAN_OPTIONS": "print_stacktrace=1"}
    for chance in campaign.rounds():
        agent = HostileAgent(chance)
        agent.start()
        words, needs_success = command(chance, agent.name)
        campaign.doing = " ".join(words)
        began = time.monotonic()
        done = subprocess.run(words, env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=LIMIT + SPARE)
        took = time.monotonic() - began
        agent.end()
        text = done.stdout + done.stderr
        assert done.returncode in STATUSES, f"status {done.returncode}: {text[-3000:]!r}"
        assert done.returncode or agent.said_success or not needs_success, "the agent denies it"
        if "--verbose" not in words:
            assert len(text) < MOST_TEXT, f"{len(text)} octets of output"
            assert not re.search(rb"[\x00-\x08\x0b-\x1f\x7f]", text), f"unprintable: {text[:500]!r}"
        campaign.figures["answers"] += agent.said
        campaign.figures[f"status {done.returncode}"] += 1
        campaign.figures["longest ms"] = max(campaign.figures["longest ms"], int(1000 * took))
        most = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        campaign.figures["most KiB"] = most
        assert most < MEMORY, f"{most} KiB"


campaign = Campaign(__doc__)
campaign.run(body)
