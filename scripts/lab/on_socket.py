"""on_socket.py ADDRESS PORT COMMAND…: runs COMMAND with a UDP socket bound there as its standard input, as inetd does for a `wait` service."""

import os
import socket
import sys


def main(address, port, *command):
    server = socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((address, int(port)))
    os.dup2(server.fileno(), 0)
    os.execv(command[0], command)


main(*sys.argv[1:])
