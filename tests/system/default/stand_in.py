"""A system manager that the test controls, in the place of the real one: it receives the agent's
requests over the message bus, answers them and sends messages as the test says."""

import os
import socket
import struct
import threading
from pathlib import Path

from copy_table import lab_ctl

# Magic, version, opcode, token, octets of payload: in the host's byte order.
HEADER = struct.Struct("=5I")
MAGIC, VERSION = 0x6D736762, 1
SYSTEM_MANAGER, SNMP_AGENT = 3, 28  # service access points
ACTION, ABORT, BEGUN, ENDED = 1381, 1383, 1391, 1361
DONE, INITIATED, REFUSED = 0, 0x401E0003, 0x401E00FF


def _bus(point):
    return str(Path(os.environ["ULMO_RUN_DIR"]) / "msgbus" / str(point))


def _packet(opcode, token, payload):
    return HEADER.pack(MAGIC, VERSION, opcode, token, len(payload)) + payload


class SystemManager:
    """`answer` is the status word of the answer to a start request; with None the connection is
    closed without one."""

    def __init__(self, answer):
        self.answer = answer
        self.connections = []
        self.requests = []  # (opcode, token, payload) in order of arrival

    def __enter__(self):
        lab_ctl("stop-system-manager")
        # A killed system manager leaves its socket behind; its lock is gone.
        Path(_bus(SYSTEM_MANAGER)).unlink(missing_ok=True)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(_bus(SYSTEM_MANAGER))
        self.listener.listen()
        self.thread = threading.Thread(target=self._serve)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        for connection in [self.listener, *self.connections]:
            connection.close()
        os.unlink(_bus(SYSTEM_MANAGER))
        lab_ctl("start-system-manager")

    def _serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            packet = connection.recv(65536)
            magic, version, opcode, token, length = HEADER.unpack_from(packet)
            assert (magic, version, length) == (MAGIC, VERSION, len(packet) - HEADER.size)
            self.requests.append((opcode, token, packet[HEADER.size:]))
            if opcode != ACTION or self.answer is None:
                connection.close()
                continue
            connection.send(_packet(ACTION, token, struct.pack(">I", self.answer)))
            # Kept open: the agent takes its closing for the end of the system manager.
            self.connections.append(connection)

    def tell(self, opcode, payload=b""):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
            connection.connect(_bus(SNMP_AGENT))
            connection.send(_packet(opcode, 0, payload))

    def ended(self, status):
        self.tell(ENDED, struct.pack(">I", status))
