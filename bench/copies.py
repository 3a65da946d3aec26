"""Copies one after another for the benchmarks."""

import random
import sys
import time

from lab_bench import lab  # first: it sets the path of copy_numbers
from copy_numbers import C
from manager import cell, integer, ip_address, octets

POLL = 0.005


def small_integer(answer):
    """The value of the answer's last binding."""
    return answer[-1]


def back_up(manager, notify=False):
    """Backs up by TFTP, removes the request and returns the seconds until the SET that activated it
    was answered."""
    index = random.randrange(1, 2**31)
    manager.set(
        (cell(C.CC_COLUMN_ENTRY_ROW_STATUS, index), integer(C.ROW_STATUS_CREATE_AND_WAIT)),
        (cell(C.CC_COLUMN_PROTOCOL, index), integer(C.COPY_PROTO_TFTP)),
        (cell(C.CC_COLUMN_SOURCE_FILE_TYPE, index), integer(C.COPY_FILE_RUNNING)),
        (cell(C.CC_COLUMN_DEST_FILE_TYPE, index), integer(C.COPY_FILE_NETWORK)),
        (cell(C.CC_COLUMN_SERVER_ADDRESS, index), ip_address(lab("LAB_SERVER4"))),
        (cell(C.CC_COLUMN_FILE_NAME, index), octets(b"bench.cfg")),
        (cell(C.CC_COLUMN_NOTIFICATION_ON_COMPLETION, index),
         integer(C.TRUTH_TRUE if notify else C.TRUTH_FALSE)))
    row_status = cell(C.CC_COLUMN_ENTRY_ROW_STATUS, index)
    _, seconds = manager.set((row_status, integer(C.ROW_STATUS_ACTIVE)))
    state = C.COPY_STATE_RUNNING
    while state == C.COPY_STATE_RUNNING:
        time.sleep(POLL)
        state = small_integer(manager.get(cell(C.CC_COLUMN_STATE, index))[0])
    if state != C.COPY_STATE_SUCCESSFUL:
        sys.exit("a copy failed")
    manager.set((row_status, integer(C.ROW_STATUS_DESTROY)))
    return seconds
