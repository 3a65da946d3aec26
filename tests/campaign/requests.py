#!/usr/bin/python3
"""Hostile requests to the agent, in a lab whose agent has sanitizers.

A round is a batch of requests, then a GET whose answer says that all of them were served. Most
are well-formed and odd: any column, value, type, length and index, several of a row in one SET;
some are damaged octet by octet. The passwords are made of octets that occur in nothing else."""

import os
import re
import socket
import time

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import protocols
import snmp
from copy_numbers import COPY_ENTRY, ERROR_ENTRY, ROOT

BATCH = 50
WHOLE = 0.002  # of the requests begin a whole copy: with more of them little else is served
PASSWORD_OCTETS = bytes(range(0xF1, 0xFF))
OTHER_OCTETS = bytes(octet for octet in range(256) if octet not in PASSWORD_OCTETS)
SYNC = ".1.3.6.1.2.1.1.3.0"  # sysUpTime
# The answer to the request for the heap, and the move of the clock: sanitized_agent.cpp.
HEAP_SIGNAL, CLOCK_SIGNAL = 34, 35
AGENT_LOG = ct.LOGS / "snmpd1.log"
ROUNDS_TO_REST = 400  # from one pause, in which all rows age out, to the next
HEAP_GROWTH = 300_000  # octets that the agent may hold more than after the first pause
INDEXES = (*range(1, 9), 0, 127, 128, 2**31 - 1, 2**31, 2**32 - 1)
NUMBERS = (*range(-1, 9), 127, 128, 255, 256, 2**31 - 1, -2**31, 2**31, 2**32, 2**63 - 1)
LENGTHS = (0, 1, 3, 4, 5, 15, 16, 17, 31, 32, 33, 39, 40, 41, 254, 255, 256, 257, 700)
TYPES = (snmp.INTEGER, snmp.OCTETS, snmp.NULL, snmp.OID, snmp.ADDRESS, 0x41, 0x42,
         snmp.TIME_TICKS, 0x44, 0x46)
TEXTS = (b"x.cfg", b"/etc/passwd", b"%s%n%x", b"$(touch /tmp/owned)", b"`touch /tmp/owned`",
         b"a\nb", b"\0", b"../../x", b"-oProxyCommand=touch", b"\xc3\x28")
SERVERS = (ct.address_octets(ct.SERVER4), ct.address_octets(ct.SERVER6), bytes(4), bytes(16),
           b"\x7f\0\0\1", b"\xe0\0\0\1", b"\xc6\x33\x64\1")
# For most columns a value that a request can run with, so that some do.
USUAL = {
    ct.PROTOCOL: (ct.TFTP, ct.TFTP, ct.FTP, ct.SCP, ct.SFTP), ct.SOURCE: range(1, 8),
    ct.DESTINATION: range(1, 8), ct.NOTIFY: (1, 2), ct.ADDRESS_TYPE: (1, 2, 16),
    ct.ROW_STATUS: (ct.CREATE_AND_WAIT, ct.CREATE_AND_WAIT, ct.DESTROY, ct.NOT_IN_SERVICE)
}
WRITTEN = (*USUAL, ct.LEGACY_ADDRESS, ct.FILE_NAME, ct.USER_NAME, ct.PASSWORD, ct.ADDRESS)


def octets_of(chance, alphabet, length):
    return bytes(chance.choices(alphabet, k=length))


def usual_value(chance, column):
    if column in USUAL:
        return snmp.integer(chance.choice(USUAL[column]))
    if column == ct.PASSWORD:
        return snmp.tlv(snmp.OCTETS, octets_of(chance, PASSWORD_OCTETS, chance.choice(LENGTHS)))
    if column == ct.LEGACY_ADDRESS:
        return snmp.tlv(snmp.ADDRESS, SERVERS[0])
    if column == ct.ADDRESS:
        return snmp.tlv(snmp.OCTETS, chance.choice(SERVERS))
    return snmp.tlv(snmp.OCTETS, chance.choice(TEXTS))


def odd_value(chance, column):
    kind = chance.choice(TYPES)
    if kind == snmp.OID:
        return snmp.oid(".1.3." + ".".join(str(chance.choice(INDEXES)) for _ in range(3)))
    if column == ct.PASSWORD:  # whatever its type: nothing else may hold these octets
        return snmp.tlv(kind, octets_of(chance, PASSWORD_OCTETS, chance.choice(LENGTHS)))
    if kind == snmp.INTEGER:
        return snmp.integer(chance.choice(NUMBERS))
    return snmp.tlv(kind, octets_of(chance, OTHER_OCTETS, chance.choice(LENGTHS)))


def instance(chance):
    """An OID in the tables or near them."""
    dice = chance.random()
    if dice < 0.7:
        return f"{COPY_ENTRY}.{chance.choice(ct.COLUMNS)}.{chance.choice(INDEXES)}"
    if dice < 0.8:
        return (f"{ERROR_ENTRY}.{chance.randrange(7)}.{chance.choice(INDEXES)}."
                f"{chance.choice(INDEXES)}")
    parts = [ROOT, *("1" for _ in range(chance.randrange(5)))]
    parts += [str(chance.choice(INDEXES)) for _ in range(chance.choice((0, 1, 2, 3, 20, 100)))]
    return ".".join(parts)


def whole_request(chance, index):
    """The bindings of the SETs that create, fill and activate a row, which may well run: a copy of
    anything from or to anywhere, or a save."""
    network = dict(ct.upload(ct.SERVER4, "x.cfg", chance.choice((ct.RUNNING, ct.STARTUP))))
    if chance.random() < 0.5:
        network = dict(ct.download(ct.SERVER4, "x.cfg"))
    dice = chance.random()
    if dice < 0.3:
        network = {ct.SOURCE: ct.RUNNING,
                   ct.DESTINATION: chance.choice((ct.STARTUP, ct.FABRIC_STARTUP, ct.ALL_STARTUP))}
    elif dice < 0.8:
        network |= {ct.PROTOCOL: chance.choice(USUAL[ct.PROTOCOL]), ct.USER_NAME: ct.ACCOUNT,
                    ct.FILE_NAME: chance.choice(TEXTS), ct.ADDRESS: chance.choice(SERVERS[:4])}
        network[ct.ADDRESS_TYPE] = ct.IPV4 if len(network[ct.ADDRESS]) == 4 else ct.IPV6
    values = {column: snmp.integer(value) if isinstance(value, int) else
              snmp.tlv(snmp.OCTETS, ct.octets(value)) for column, value in network.items()}
    if ct.USER_NAME in values:
        values[ct.PASSWORD] = usual_value(chance, ct.PASSWORD)
    values[ct.NOTIFY] = usual_value(chance, ct.NOTIFY)
    return [[snmp.binding(f"{COPY_ENTRY}.{column}.{index}", value)
             for column, value in columns.items()]
            for columns in ({ct.ROW_STATUS: snmp.integer(ct.CREATE_AND_WAIT)}, values,
                            {ct.ROW_STATUS: snmp.integer(ct.ACTIVE)})]


def writing(chance, newest):
    """The bindings of a SET: mostly columns of one row, sometimes an activation."""
    index = chance.choice((*INDEXES[:8], newest) if chance.random() < 0.9 else INDEXES)
    dice = chance.random()
    if dice < 0.02:
        return [snmp.binding(f"{COPY_ENTRY}.{ct.ROW_STATUS}.{index}", snmp.integer(ct.ACTIVE))]
    columns = [chance.choice(WRITTEN) for _ in range(chance.choice((1, 1, 2, 3, 12)))]
    if dice < 0.1:
        columns = [chance.choice(range(18)) for _ in columns]
    bindings = []
    for column in columns:
        value = usual_value if chance.random() < 0.85 else odd_value
        bindings.append(snmp.binding(f"{COPY_ENTRY}.{column}.{index}", value(chance, column)))
    return bindings


def damaged(chance, packet):
    """Some octets changed, taken away, doubled or cut off; none of a password's among them."""
    octets = bytearray(packet)
    for _ in range(chance.choice((1, 1, 2, 5))):
        at = chance.randrange(len(octets))
        match chance.randrange(5):
            case 0:
                octets[at] ^= 1 << chance.randrange(8)
            case 1:
                octets[at] = chance.choice((0, 1, 0x7F, 0x80, 0x81, 0x82, 0x84, 0xFF))
            case 2:
                del octets[at:at + chance.randrange(1, 5)]
            case 3:
                octets[at:at] = octets[at:at + chance.randrange(1, 9)]
            case 4:
                del octets[at:]
        if not octets:
            return packet
    return packet if any(octet in PASSWORD_OCTETS for octet in octets) else bytes(octets)


class Attack:
    def __init__(self, campaign):
        self.campaign, self.figures = campaign, campaign.figures
        self.manager = snmp.FastManager()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect((ct.AGENT, 161))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.asked = {}  # OIDs of each request that reads, by its identity
        self.heap = None
        self.newest = 1000 * campaign.options.first  # index of the last whole request
        self.planned = []  # bindings of the next SETs

    def request(self, chance, identity):
        if self.planned:
            return snmp.message(snmp.SET, identity, self.planned.pop(0))
        dice = chance.random()
        if dice < WHOLE:
            # A refused activation spoils a row until it is old: each has an index of its own.
            self.newest += 1
            self.planned = whole_request(chance, self.newest)
            self.figures["whole requests"] += 1
            return self.request(chance, identity)
        if dice < 0.15:
            # The agent sorts out bad octets before our module: few of them suffice.
            kind = chance.choice((snmp.GET, snmp.GET_NEXT, snmp.SET))
            bindings = [snmp.binding(instance(chance), snmp.integer(chance.choice(NUMBERS)))
                        for _ in range(chance.randrange(1, 4))]
            self.figures["damaged"] += 1
            # With an identity that no damage turns into another request's.
            return damaged(chance, snmp.message(kind, 2, bindings,
                                                version=chance.choice((0, 1, 1, 1, 3))))
        if dice < 0.6:
            self.figures["SET"] += 1
            return snmp.message(snmp.SET, identity, writing(chance, self.newest))
        names = [instance(chance) for _ in range(chance.choice((1, 1, 2, 5)))]
        kind = chance.choice((snmp.GET, snmp.GET_NEXT, snmp.GET_NEXT, snmp.GET_BULK))
        numbers = (0, 0)
        if kind == snmp.GET_BULK:
            numbers = chance.choice((0, 1, 3)), chance.choice((0, 1, 10, 1000))
        self.asked[identity] = kind, names, numbers
        self.figures["reads"] += 1
        return snmp.message(kind, identity, [snmp.binding(name) for name in names], *numbers)

    def batch(self, chance):
        first = chance.randrange(2**20, 2**30)
        self.asked, self.planned = {}, []
        for number in range(BATCH):
            self.socket.send(self.request(chance, first + number))
        self.figures["requests"] += BATCH
        self.until_served(first + BATCH)

    def until_served(self, identity):
        """Sends the GET and reads all answers that come before its own. Answers of earlier rounds
        are not expected."""
        began = time.monotonic()
        for _ in range(5):
            self.socket.send(snmp.message(snmp.GET, identity, [snmp.binding(SYNC)]))
            self.socket.settimeout(2)
            try:
                while True:
                    found, status, answers = snmp.decoded(self.socket.recv(65536))
                    if found == identity and [name for name, *_ in answers] == [(
                            1, 3, 6, 1, 2, 1, 1, 3, 0)]:
                        waited = int(1000 * (time.monotonic() - began))
                        self.figures["longest batch ms"] = max(
                            self.figures["longest batch ms"], waited)
                        return
                    self.figures["answers"] += 1
                    self.check(found, status, answers)
            except TimeoutError:
                continue
        raise AssertionError("the agent does not answer any more")

    def check(self, identity, status, answers):
        if identity not in self.asked:
            return
        kind, names, (single, _) = self.asked[identity]
        for _, tag, content in answers:
            if tag == snmp.OCTETS:
                assert not any(octet in PASSWORD_OCTETS for octet in content), (
                    f"octets of a password are read: {content!r}")
        if status or kind == snmp.GET:
            return
        asked = [snmp.numbers(name) for name in names]
        for number, (name, tag, _) in enumerate(answers):
            if tag == snmp.END_OF_VIEW:
                continue
            if number >= single and kind == snmp.GET_BULK and len(asked) > single:
                place = single + (number - single) % (len(asked) - single)
            else:
                place = number
            assert name > asked[place], f"{name} follows {asked[place]}"
            if number >= single:
                asked[place] = name

    def walks(self):
        """A walk rises, which FastManager checks, and ends."""
        rows = self.manager.walk(ROOT)
        self.figures["walks"] += 1
        assert len(rows) <= (len(INDEXES) * len(ct.COLUMNS) + 4 * 16 * 50), len(rows)
        return rows

    def rests(self):
        """All copies end, all rows age out, and the agent holds as much memory as before."""
        invariants.comes_to_rest(self.manager, within=30)
        agent = ct.agent_pid()

        def is_empty():
            # Undo copies need a second pass.
            return not self.manager.walk(ROOT)

        for _ in range(2):
            os.kill(agent, CLOCK_SIGNAL)
            for _ in range(20):
                self.manager.get(SYNC)
                time.sleep(0.05)
            ct.wait_for(is_empty, what="the end of the aged rows")
        self.figures["pauses"] += 1
        said = AGENT_LOG.stat().st_size
        os.kill(agent, HEAP_SIGNAL)
        (heap,) = ct.wait_for(
            lambda: re.findall(rb"heap (\d+)\n", AGENT_LOG.read_bytes()[said:]),
            what="the size of the heap")
        heap = int(heap)
        if self.heap is None:
            self.heap = heap
        self.figures["heap growth"] = heap - self.heap
        assert heap - self.heap < HEAP_GROWTH, f"the agent's heap grows: {self.heap}, {heap}"

    def log_is_clean(self):
        text = AGENT_LOG.read_text(errors="replace")
        for words in ("runtime error:", "AddressSanitizer", "LeakSanitizer"):
            assert words not in text, words


def body(campaign):
    # The stock agent's own log of notifications grows with each of them.
    with open("/lab/switch1/agent/snmpd.conf", "a") as settings:
        settings.write("doNotRetainNotificationLogs yes\n")
    ct.lab_ctl("restart-agent")
    attack = Attack(campaign)
    with protocols.settings(copy_time_limit=2, history="errors"):
        # What grows once, grows before the first measurement.
        for _ in range(2):
            attack.rests()
        attack.heap = None
        for chance in campaign.rounds():
            attack.batch(chance)
            if campaign.round % 20 == 0:
                attack.walks()
                invariants.no_row_without_work(attack.manager)
            if campaign.round % ROUNDS_TO_REST == 0:
                attack.rests()
        attack.rests()
    attack.log_is_clean()
    assert not os.path.exists("/tmp/owned"), "a name was run"
    assert ct.WORK.exists() and not os.listdir(ct.WORK), os.listdir(ct.WORK)


campaign = Campaign(__doc__, is_alone=False)
campaign.run(body)
