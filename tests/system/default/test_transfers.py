"""Copies over the network and between the switch's configurations."""

from transfers import *  # the cases that every TFTP server must pass
