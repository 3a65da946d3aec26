#!/usr/bin/python3
"""Servers for TFTP (69), FTP (21) and SSH's first words (22) that lie, babble, drip or say nothing.

    hostile_servers.py ADDRESS SEED [sftp]

With `sftp` it speaks SFTP on its standard streams instead, as the subsystem of a real sshd."""

import contextlib
import random
import socket
import struct
import sys
import threading
import time

DATA = b"! a comment of a hostile server\n" * 40 + b"hostname hostile\n"
# What the scripts may look for, and what may hurt a terminal or a log.
WORDS = (b"Authenticated to ", b"password:", b"Password: ", b"ftp> ", b"sftp> ", b"230 welcome",
         b"226 done", b"100%", b"yes/no", b"\x1b]0;x\x07\x1b[2J", b"\0", b"\r", b"\n", b"%s%n",
         b"$(touch /tmp/owned)", b"`touch /tmp/owned`", b"\xff\xfd\x01", b"A" * 5000)
LIFE = 6  # seconds that a server lives for one copy


def babble(chance, most=8):
    return b"".join(chance.choices(WORDS, k=chance.randrange(1, most)))


def for_a_while():
    end = time.monotonic() + LIFE
    while time.monotonic() < end:
        yield


class Tftp:
    def __init__(self, address, chance):
        self.address, self.chance = address, chance
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.listener.bind((address, 69))

    def serve(self):
        while True:
            request, peer = self.listener.recvfrom(65536)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
                own.bind((self.address, 0))
                own.settimeout(0.5)
                with contextlib.suppress(OSError):
                    self.answer(own, request, peer)

    def hostile(self, number):
        chance = self.chance
        return chance.choice((
            struct.pack(">HH", 3, chance.randrange(65536)) + DATA[:512],
            struct.pack(">HH", 3, number) + bytes(60000), struct.pack(">HH", 3, number),
            struct.pack(">HH", 4, chance.randrange(65536)),
            struct.pack(">HH", 5, 0) + babble(chance), b"\0\6blksize\0" + babble(chance),
            b"\0\6blksize\0" b"65464\0tsize\0" + b"9" * 300 + b"\0",
            b"\0\6windowsize\0" b"0\0", b"\0\6windowsize\0" b"65535\0timeout\0" b"255\0",
            b"", b"\0", b"\0\3", chance.randbytes(chance.randrange(600))))

    def answer(self, own, request, peer):
        """A download is served block after block, and an upload acknowledged, with some hostility
        in between."""
        chance = self.chance
        rate = chance.choice((0, 0.02, 0.3, 1))
        is_endless, is_slow = chance.random() < 0.2, chance.random() < 0.1
        number = 0 if request[:2] == b"\0\2" else 1
        for _ in for_a_while():
            if is_slow:
                time.sleep(0.5)
            block = DATA[512 * (number - 1):][:512]
            packet = struct.pack(">HH", 3, number % 65536) + (bytes(512) if is_endless else block)
            if request[:2] == b"\0\2":
                packet = struct.pack(">HH", 4, number % 65536)
            if chance.random() < rate:
                packet = self.hostile(number)
                for _ in range(chance.choice((0, 1, 1, 50))):
                    own.sendto(packet, peer)
                if chance.random() < 0.1:
                    return
            else:
                own.sendto(packet, peer)
            answer = own.recv(65536)
            if answer[:2] == b"\0\5":
                return
            if answer[:2] in (b"\0\3", b"\0\4"):
                number = struct.unpack(">H", answer[2:4])[0] + (answer[:2] == b"\0\4")


class Stream:
    """One connection of FTP, or of SSH before any key."""

    def __init__(self, address, chance):
        self.address, self.chance = address, chance

    def say(self, peer, text):
        """Sometimes octet by octet, sometimes with much that nobody asked for."""
        dice = self.chance.random()
        if dice < 0.05:
            text = babble(self.chance) + text
        elif dice < 0.1:
            for octet in text:
                peer.sendall(bytes((octet,)))
                time.sleep(0.02)
            return
        elif dice < 0.12:
            for _ in for_a_while():
                peer.sendall(babble(self.chance) * 20)
        elif dice < 0.14:
            time.sleep(LIFE)
        peer.sendall(text)

    def ssh(self, peer):
        chance = self.chance
        self.say(peer, chance.choice((b"", b"SSH-2.0-x\r\n", b"SSH-1.5-x\n",
                                      b"SSH-2.0-" + bytes(300))))
        for _ in range(chance.randrange(20)):
            peer.sendall(chance.choice((babble(chance), chance.randbytes(300))))
        time.sleep(chance.choice((0, 0, 1, LIFE)))

    def data_connection(self, passive, word, peer):
        chance = self.chance
        connection, _ = passive.accept()
        with connection:
            if word == b"RETR":
                match chance.randrange(6):
                    case 0:
                        for _ in for_a_while():
                            connection.sendall(bytes(1 << 16))
                    case 1:
                        connection.sendall(chance.randbytes(chance.randrange(5000)))
                    case 2:
                        connection.sendall(DATA[:chance.randrange(len(DATA))])
                    case _:
                        connection.sendall(DATA)
            elif chance.random() < 0.7:
                while connection.recv(65536):
                    pass

    def ftp(self, peer):
        chance = self.chance
        proper = {b"USER": b"331 password", b"PASS": b"230 welcome", b"SYST": b"215 UNIX Type: L8",
                  b"TYPE": b"200 type", b"QUIT": b"221 bye", b"SIZE": b"213 %d" % len(DATA),
                  b"FEAT": b"211 none", b"PWD": b'257 "/"', b"MDTM": b"213 20260101000000"}
        rate = chance.choice((0, 0.1, 0.5))
        self.say(peer, b"220 ready\r\n")
        passive = None
        for line in peer.makefile("rb"):
            word = line.split()[0].upper() if line.split() else b""
            if chance.random() < rate:
                self.say(peer, chance.choice((
                    b"%03d what\r\n" % chance.randrange(1000), b"226-" + babble(chance) + b"\r\n",
                    babble(chance) + b"\r\n", b"421 go\r\n", b"230-\r\n" * 1000, b"\r\n",
                    b"227 Entering Passive Mode (127,0,0,1,0,22)\r\n",
                    b"229 Extended (|||99999999999|)\r\n", b"213 99999999999999999999\r\n")))
                continue
            if word == b"EPSV":
                passive = socket.create_server((self.address, 0))
                passive.settimeout(2)
                self.say(peer, b"229 Extended (|||%d|)\r\n" % passive.getsockname()[1])
            elif word in (b"RETR", b"STOR") and passive:
                self.say(peer, b"150 begins\r\n")
                self.data_connection(passive, word, peer)
                self.say(peer, chance.choice((b"226 done\r\n",) * 4 + (b"426 broken\r\n", b"")))
            else:
                self.say(peer, proper.get(word, b"500 what") + b"\r\n")

    def listen(self, port, speak):
        listener = socket.create_server((self.address, port))

        def accept():
            while True:
                peer, _ = listener.accept()
                with peer, contextlib.suppress(OSError, ValueError):
                    peer.settimeout(LIFE)
                    speak(peer)

        threading.Thread(target=accept).start()


def string(octets):
    return struct.pack(">I", len(octets)) + octets


def sftp(chance):
    """Version 3 of draft-ietf-secsh-filexfer, with lies."""
    source, target = sys.stdin.buffer, sys.stdout.buffer
    attributes = struct.pack(">IQI", 0x5, len(DATA), 0o100644)
    rate = chance.choice((0, 0.05, 0.3))

    def send(kind, content):
        target.write(string(bytes((kind,)) + content))
        target.flush()

    def hostile(identity):
        match chance.randrange(9):
            case 0:
                send(101, identity + struct.pack(">I", chance.randrange(12)) +
                     string(babble(chance)) + string(b""))
            case 1:
                send(103, identity + string(bytes(chance.choice((0, 1, 100_000)))))
            case 2:
                send(chance.randrange(256), chance.randbytes(chance.randrange(300)))
            case 3:
                target.write(struct.pack(">I", chance.choice((0, 1, 2**31, 2**32 - 1))))
                target.flush()
            case 4:
                sys.exit(chance.choice((0, 1, 255)))
            case 5:
                time.sleep(LIFE)
            case 6:
                send(104, identity + struct.pack(">I", 2**31))
            case 7:
                send(105, identity + chance.randbytes(40))
            case 8:
                print("\x1b[2JAuthenticated to x\npassword: ", file=sys.stderr, flush=True)
                send(102, identity + string(bytes(chance.choice((0, 256, 5000)))))

    while len(header := source.read(5)) == 5:
        length, kind = struct.unpack(">IB", header)
        packet = source.read(length - 1)
        identity = packet[:4]
        if kind == 1:
            send(2, struct.pack(">I", chance.choice((3, 3, 3, 3, 6, 0, 2**32 - 1))))
        elif chance.random() < rate:
            hostile(identity)
        elif kind == 3:
            send(102, identity + string(b"handle"))
        elif kind == 5:
            offset, count = struct.unpack(">QI", packet[-12:])
            data = DATA[offset:][:count]
            if data:
                send(103, identity + string(data))
            else:
                send(101, identity + struct.pack(">I", 1) + string(b"") + string(b""))
        elif kind in (7, 8, 17):
            send(105, identity + attributes)
        elif kind == 16:
            send(104, identity + struct.pack(">I", 1) + 2 * string(b"/down.cfg") + attributes)
        else:
            send(101, identity + struct.pack(">I", 0) + string(b"") + string(b""))


def main():
    address, seed = sys.argv[1:3]
    chance = random.Random(seed)
    if sys.argv[3:] == ["sftp"]:
        sftp(chance)
        return
    stream = Stream(address, chance)
    stream.listen(21, stream.ftp)
    with contextlib.suppress(OSError):  # sshd may have it
        stream.listen(22, stream.ssh)
    Tftp(address, chance).serve()


main()
