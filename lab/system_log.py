"""The lab's system log: writes each message sent to /dev/log (syslog(3)) into a file as one line
that begins with its priority."""

import re
import socket
import sys

WELL_KNOWN = "/dev/log"

messages = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
messages.bind(WELL_KNOWN)
with open(sys.argv[1], "ab", buffering=0) as log:
    while True:
        log.write(re.sub(rb"[\n\0]+", b" ", messages.recv(65536)).rstrip() + b"\n")
