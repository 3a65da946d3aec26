"""Passwords as /etc/shadow has them. Python's own module for that went with 3.13."""

import ctypes
import secrets


def hashed(password):
    """The password's hash by crypt(3), with SHA-256 and few rounds: it is to be quick."""
    library = ctypes.CDLL("libcrypt.so.1")
    library.crypt.restype = ctypes.c_char_p
    setting = "$5$rounds=1000$" + secrets.token_hex(8)
    return library.crypt(password.encode(), setting.encode()).decode()
