"""Single packets are lost between the steps of a request, which a link that loses some at random seldom does."""

import socket

import pytest
from command import *

ANSWER, SET = 0xA2, 0xA3


def through_relay(passes, *options):
    """Backs up through a relay to the agent, which carries what `passes(kind, number)` lets pass: the kind's so many-th packet. (the end, what kinds were
    carried)."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as near, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as far:
        near.bind(("127.0.0.1", 0))
        far.connect((AGENT, 161))
        counts, carried = {}, []
        process = started("-v2c", "-c", "lab", *options, f"127.0.0.1:{near.getsockname()[1]}", "running", f"tftp://{SERVER4}/lost.cfg")
        while process.poll() is None:
            for end in select.select([near, far], [], [], 0.05)[0]:
                if end is near:
                    packet, client = near.recvfrom(65535)
                else:
                    packet = far.recv(65535)
                kind = packet[packet.index(b"\x04\x03lab") + 5]  # behind version and community
                counts[kind] = counts.get(kind, 0) + 1
                if passes(kind, counts[kind]):
                    carried.append(kind)
                    far.send(packet) if end is near else near.sendto(packet, client)
        return ended(process), carried


@pytest.mark.parametrize("lost, writes", [((SET, 1), 4), ((ANSWER, 2), 3), ((SET, 2), 3), ((ANSWER, 4), 3)],
                         ids=["making", "made", "activation", "activated"])
def test_one_packet_is_lost(operator, lost, writes):
    """A request is made, activated and destroyed once. One whose making is not answered and that is not there may still come, so it is destroyed, too."""
    done, carried = through_relay(lambda *packet: packet != lost, "-t", "1", "-r", "3")
    assert done.status == DONE, done
    assert carried.count(SET) == writes and rows(operator) == []
    assert (SERVER_ROOT / "lost.cfg").read_text() == show("running")


def test_agent_that_goes_before_the_activation(operator):
    gone = []

    def passes(kind, number):
        gone.extend([True] * (kind == SET and number == 2))
        return not gone

    done, carried = through_relay(passes, "-t", "0.5", "-r", "0")
    (index,) = rows(operator)
    assert done.status == UNREACHABLE and " in 0.5 s: it answered before; is it still running?" in done.err, done
    assert done.err.endswith(f"; its request {index} could not be removed and goes by itself within 7 minutes\n") and carried.count(SET) == 1
    assert Request(operator, index).get(STATE) == STATE_WAITING


def test_no_write_comes_through_after_the_first(operator):
    done, carried = through_relay(lambda kind, number: kind != SET or number == 1, "-t", "0.3", "-r", "0")
    (index,) = rows(operator)
    assert done.status == UNREACHABLE and " answers, but the copy can't be started: too much is lost on the way; its request " in done.err, done
    assert Request(operator, index).get(STATE) == STATE_WAITING
