"""SNMPv2c without the stock tools, which take 10 ms a request: the encoding, and a manager with the
functions of copy_table.Manager."""

import ipaddress
import itertools
import socket

import copy_table as ct

GET, GET_NEXT, RESPONSE, SET, GET_BULK = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5
INTEGER, OCTETS, NULL, OID, SEQUENCE = 0x02, 0x04, 0x05, 0x06, 0x30
ADDRESS, TIME_TICKS, END_OF_VIEW = 0x40, 0x43, 0x82
ABSENT = (0x80, 0x81, END_OF_VIEW)
NUMBERS = (INTEGER, 0x41, 0x42, TIME_TICKS, 0x46)
# RFC 3416, 3
STATUSES = ("noError", "tooBig", "noSuchName", "badValue", "readOnly", "genErr", "noAccess",
            "wrongType", "wrongLength", "wrongEncoding", "wrongValue", "noCreation",
            "inconsistentValue", "resourceUnavailable", "commitFailed", "undoFailed",
            "authorizationError", "notWritable", "inconsistentName")


class Malformed(Exception):
    """Octets that are no message of SNMP."""


def tlv(tag, content):
    length = len(content)
    if length < 0x80:
        return bytes((tag, length)) + content
    octets = length.to_bytes((length.bit_length() + 7) // 8, "big")
    return bytes((tag, 0x80 | len(octets))) + octets + content


def integer(value, tag=INTEGER):
    return tlv(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def _arc(number):
    if number < 0x80:
        return bytes((number,))
    octets = [number & 0x7F]
    while number := number >> 7:
        octets.insert(0, number & 0x7F | 0x80)
    return bytes(octets)


def numbers(text):
    """The numbers of an OID, whose order is that of a walk."""
    return tuple(map(int, text.strip(".").split(".")))


def oid(text):
    first, second, *rest = numbers(text)
    return tlv(OID, b"".join(map(_arc, (40 * first + second, *rest))))


def binding(name, value=b"\x05\x00"):
    """One variable binding; the value is encoded already."""
    return tlv(SEQUENCE, oid(name) + value)


def message(kind, identity, bindings, first=0, second=0, community=b"lab", version=1):
    """A request; first and second are the numbers that only GETBULK has."""
    pdu = (integer(identity) + integer(first) + integer(second) +
           tlv(SEQUENCE, b"".join(bindings)))
    return tlv(SEQUENCE, integer(version) + tlv(OCTETS, community) + tlv(kind, pdu))


def parts(octets):
    """(tag, content) of each element."""
    position, end = 0, len(octets)
    while position < end:
        try:
            tag, length = octets[position], octets[position + 1]
            position += 2
            if length >= 0x80:
                count = length & 0x7F
                length = int.from_bytes(octets[position:position + count], "big")
                position += count
        except IndexError:
            raise Malformed(octets.hex()) from None
        if position + length > end:
            raise Malformed(octets.hex())
        yield tag, octets[position:position + length]
        position += length


def arcs(content):
    """The numbers of an encoded OID."""
    found, number = [content[0] // 40, content[0] % 40], 0
    for octet in content[1:]:
        number = number << 7 | octet & 0x7F
        if octet < 0x80:
            found.append(number)
            number = 0
    return tuple(found)


def opened(packet):
    """(kind, request id, error status, [(OID's numbers, tag, content)]) of a message."""
    try:
        (_, whole), = parts(packet)
        _, _, (kind, pdu) = parts(whole)
        (_, identity), (_, status), _, (_, listed) = parts(pdu)
        bindings = []
        for _, pair in parts(listed):
            (_, name), (tag, content) = parts(pair)
            bindings.append((arcs(name), tag, content))
    except (ValueError, IndexError) as error:
        raise Malformed(f"{error}: {packet.hex()}") from None
    return (kind, int.from_bytes(identity, "big", signed=True), int.from_bytes(status, "big"),
            bindings)


def decoded(packet):
    """The same of a response, without its kind."""
    kind, *rest = opened(packet)
    if kind != RESPONSE:
        raise Malformed(packet.hex())
    return rest


def value(tag, content):
    """As copy_table.parsed(): int, bytes, None for what is absent, text for all else."""
    if tag in NUMBERS:
        return int.from_bytes(content, "big", signed=tag == INTEGER)
    if tag in ABSENT:
        return None
    if tag == ADDRESS:
        return str(ipaddress.ip_address(content))
    return content


def encoded_value(kind, given):
    """Of a type and a value as snmpset takes them."""
    if kind == "i":
        return integer(int(given))
    if kind == "a":
        return tlv(ADDRESS, ipaddress.ip_address(given).packed)
    return tlv(OCTETS, bytes.fromhex(given) if kind == "x" else given.encode())


class FastManager:
    """copy_table.Manager over one socket. A request is sent once: a SET that is repeated would be
    carried out again."""

    def __init__(self, agent=ct.AGENT, patience=8):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(patience)
        self.socket.connect((agent, 161))
        self.identities = itertools.count(1)

    def ask(self, kind, bindings, *counts):
        identity = next(self.identities)
        self.socket.send(message(kind, identity, bindings, *counts))
        while True:
            try:
                found, status, answers = decoded(self.socket.recv(65536))
            except (TimeoutError, ConnectionRefusedError) as error:
                raise ct.SnmpError("noResponse", str(error)) from None
            if found == identity:
                break
        if status:
            raise ct.SnmpError(STATUSES[status], str(answers))
        return answers

    def get(self, *names):
        values = [value(tag, content)
                  for _, tag, content in self.ask(GET, list(map(binding, names)))]
        return values if len(names) > 1 else values[0]

    def set(self, *triples):
        self.ask(SET, [binding(name, encoded_value(kind, given)) for name, kind, given in triples])

    def walk(self, name):
        """As copy_table.Manager.walk(). Fails when the names do not rise."""
        root = numbers(name)
        found, last = [], root
        while True:
            text = ".".join(map(str, last))
            for answer, tag, content in self.ask(GET_BULK, [binding(text)], 0, 40):
                if tag == END_OF_VIEW or answer[:len(root)] != root:
                    return found
                assert answer > last, f"{answer} follows {last} in a walk"
                last = answer
                found.append(("." + ".".join(map(str, answer)), value(tag, content)))
