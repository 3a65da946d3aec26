"""on_socket.py ADDRESS PORT USER COMMAND…: runs COMMAND as USER with a UDP socket bound there as
its standard input, as inetd does."""

import os
import pwd
import socket
import sys


def main(address, port, user, *command):
    server = socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((address, int(port)))
    os.dup2(server.fileno(), 0)
    account = pwd.getpwnam(user)
    os.setgroups([])
    os.setgid(account.pw_gid)
    os.setuid(account.pw_uid)
    os.execv(command[0], command)


main(*sys.argv[1:])
