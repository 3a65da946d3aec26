"""A small SNMPv2c manager for the benchmarks. It starts no command, so only the agent's time is
measured."""

import itertools
import socket
import sys
import time

from lab_bench import lab  # first: it sets the path of copy_numbers
from copy_numbers import COPY_ENTRY, C

SYS_UP_TIME = ".1.3.6.1.2.1.1.3.0"
GET, SET = b"\xa0", b"\xa3"  # RFC 3416
ROWS_OF_A_SET = 25  # keeps it within one Ethernet frame


def tlv(tag, content):
    """A value in BER with its tag and length."""
    length = len(content)
    size = bytes([length]) if length < 128 else b"\x82" + length.to_bytes(2, "big")
    return tag + size + content


def integer(number):
    return tlv(b"\x02", number.to_bytes(number.bit_length() // 8 + 1, "big"))


def octets(value):
    return tlv(b"\x04", value)


def ip_address(text):
    return tlv(b"\x40", socket.inet_aton(text))


def name(dotted):
    numbers = [int(number) for number in dotted.strip(".").split(".")]
    content = bytes([numbers[0] * 40 + numbers[1]])
    for number in numbers[2:]:
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.append(number & 0x7F | 0x80)
        content += bytes(reversed(groups))
    return tlv(b"\x06", content)


def cell(column, index):
    return f"{COPY_ENTRY}.{column}.{index}"


class Manager:
    """One socket to the lab's agent. A request that is refused or lost ends the program."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect((lab("LAB_AGENT"), 161))
        self.socket.settimeout(30)
        self.numbers = itertools.count(1)

    def ask(self, kind, bindings):
        """Returns the octets of the answer and the seconds until it came."""
        number = next(self.numbers)
        varbinds = b"".join(tlv(b"\x30", name(oid) + value) for oid, value in bindings)
        body = integer(number) + integer(0) + integer(0) + tlv(b"\x30", varbinds)
        packet = tlv(b"\x30", integer(1) + octets(b"lab") + tlv(kind, body))
        began = time.perf_counter()
        self.socket.send(packet)
        answer = self.socket.recv(65536)
        seconds = time.perf_counter() - began
        if integer(number) + integer(0) + integer(0) not in answer:
            sys.exit(f"request {number} was refused: {answer.hex()}")
        return answer, seconds

    def get(self, oid):
        return self.ask(GET, [(oid, b"\x05\x00")])

    def set(self, *bindings):
        return self.ask(SET, bindings)

    def set_rows(self, indexes, column, value):
        """Sets one column of many rows."""
        for first in range(0, len(indexes), ROWS_OF_A_SET):
            self.set(*[(cell(column, index), value)
                       for index in indexes[first : first + ROWS_OF_A_SET]])

    def create(self, indexes):
        """Creates waiting requests whose columns all have a value."""
        self.set_rows(indexes, C.CC_COLUMN_ENTRY_ROW_STATUS, integer(C.ROW_STATUS_CREATE_AND_WAIT))
        self.set_rows(indexes, C.CC_COLUMN_SERVER_ADDRESS, ip_address("192.0.2.1"))

    def destroy(self, indexes):
        self.set_rows(indexes, C.CC_COLUMN_ENTRY_ROW_STATUS, integer(C.ROW_STATUS_DESTROY))
