"""Reads the notification receiver's records from standard input and appends each as one line:
fields separated by tabs, control characters escaped."""

import os
import re
import sys


def line(record):
    fields = (re.sub(rb"[\x00-\x1e\\]", lambda match: b"\\x%02x" % match[0][0], field.strip(b"\n"))
              for field in record.split(b"\x1f"))
    return b"\t".join(fields) + b"\n"


def main(path):
    pending = b""
    # Each line is appended with one write, so that a reader sees whole lines.
    output = os.open(path, os.O_WRONLY | os.O_APPEND)
    while data := os.read(0, 65536):
        *records, pending = (pending + data).split(b"\x1e")
        for record in records:
            os.write(output, line(record))


main(*sys.argv[1:])
