#!/usr/bin/python3
"""Fuzzes platform/host/transfer/scp_target.tcl, which reads USER@SERVER:FILE.

usage: fuzz_scp_target.py SECONDS [SEED]

A target made of a user, a server and a file must be split into the same three. If any other text is
split, its parts must make up the whole text. A server must be taken for an address exactly when
inet_pton(3) accepts it. A name written for scp must mean the same file to scp.
"""

import random
import re
import socket
import subprocess
import sys
import time
from pathlib import Path

TARGET = Path(__file__).resolve().parents[2] / "platform/host/transfer/scp_target.tcl"
# Reads calls, one a line, their words in hexadecimal digits. Writes each result the same way.
SERVER = """
source $::env(TARGET)
proc of_hex {text} { encoding convertfrom utf-8 [binary decode hex $text] }
proc to_hex {text} { binary encode hex [encoding convertto utf-8 $text] }
fconfigure stdout -buffering line
while {[gets stdin call] >= 0} {
    set result [eval [lmap word [split $call] {of_hex $word}]]
    if {![string match remote_parts* [of_hex [lindex [split $call] 0]]]} {
        set result [list $result]
    }
    puts [join [lmap word $result {to_hex $word.}]]
}
"""
HEXTETS = ("0", "1", "2001", "db8", "fe80", "ffff", "00ff", "a", "10000", "g")
PIECES = (*HEXTETS, ":", "::", ".", "%", "[", "]", "@", "/", "~", "*", "\\", "?", "{", "}", " ",
          "$", '"', ";", "-", "é", "192.0.2.1", "255", "256", "host", "eth0", "a.cfg", "1e3")


class Target:
    def __init__(self):
        self.tcl = subprocess.Popen(
            ["expect", "-N", "-n", "-c", SERVER], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            env={"TARGET": str(TARGET), "PATH": "/usr/bin:/bin"})

    def __call__(self, *words):
        call = " ".join(word.encode().hex() for word in words) + "\n"
        self.tcl.stdin.write(call.encode())
        self.tcl.stdin.flush()
        answer = self.tcl.stdout.readline().decode()
        if not answer:
            raise AssertionError(f"{words} ended the program")
        return [bytes.fromhex(word).decode().removesuffix(".") for word in answer.split()]


def is_address(text):
    try:
        socket.inet_pton(socket.AF_INET6, text)
    except (OSError, ValueError):
        return False
    return True


def address(choose):
    groups = [f"{choose.randrange(0x10000):x}" for _ in range(8)]
    if choose.random() < 0.3:
        groups[6:] = [socket.inet_ntoa(choose.randbytes(4))]
    if choose.random() < 0.5:
        first = choose.randrange(len(groups))
        last = choose.randrange(first, len(groups)) + 1
        if last - first < len(groups) and "." not in "".join(groups[first:last]):
            text = ":".join(groups[:first]) + "::" + ":".join(groups[last:])
            return text, False
    return ":".join(groups), True


def noise(choose, most=12):
    return "".join(choose.choices(PIECES, k=choose.randrange(most)))


def unescaped(name):
    return re.sub(r"\\(.)", r"\1", name, flags=re.DOTALL)


def addresses_before_a_colon(text):
    """With the interface that may follow an address, as in fe80::1%eth0."""
    return [text[:at] for at, letter in enumerate(text)
            if letter == ":" and is_address(re.sub(r"%[A-Za-z0-9_.-]+$", "", text[:at]))]


def check_round_trip(target, choose):
    user = noise(choose, 4).replace(":", "").replace("@", "")
    file = noise(choose)
    server, is_whole = address(choose)
    if choose.random() < 0.3:
        server, is_whole = choose.choice(("host", "192.0.2.1", "a-b.example", "10")), True
        in_brackets = False
    else:
        in_brackets = not is_whole or choose.random() < 0.5
    text = f"[{server}]:{file}" if in_brackets else f"{server}:{file}"
    # Without brackets the longest address is the server.
    if not in_brackets and addresses_before_a_colon(text)[-1:] not in ([], [server]):
        return
    assert target("remote_parts", f"{user}@{text}") == [user, server, file], text


def check_noise(target, choose):
    text = noise(choose, 20)
    parts = target("remote_parts", text)
    if parts:
        user, server, file = parts
        assert text in (f"{user}@{server}:{file}", f"{user}@[{server}]:{file}"), (text, parts)
        assert server and not set("@/ []~$") & set(server) and server[0] != "-", (text, parts)


def check_address(target, choose):
    pieces = (*HEXTETS, ":", ":", "::", "192.0.2.1", "256")
    text = address(choose)[0] if choose.random() < 0.5 else \
        "".join(choose.choices(pieces, k=choose.randrange(17)))
    if choose.random() < 0.5 and text:
        at = choose.randrange(len(text))
        text = text[:at] + choose.choice(":.0g") + text[at + choose.randrange(2):]
    assert (target("is_ipv6", text) == ["1"]) == is_address(text), text


def check_name(target, choose):
    name = noise(choose)
    same = "./" + name if name.startswith("~") else name
    assert target("remote_name", name, "0") == [same], name
    (pattern,) = target("remote_name", name, "1")
    assert unescaped(pattern) == same, name


def main():
    seconds = float(sys.argv[1])
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(2**32)
    choose = random.Random(seed)
    target = Target()
    checks = (check_round_trip, check_noise, check_address, check_name)
    end = time.monotonic() + seconds
    runs = 0
    while time.monotonic() < end:
        check = choose.choice(checks)
        try:
            check(target, choose)
        except AssertionError as problem:
            sys.exit(f"{check.__name__}: {problem} (seed {seed}, run {runs})")
        runs += 1
    print(f"{runs} runs, seed {seed}")
    return 0 if runs else 1


sys.exit(main())
