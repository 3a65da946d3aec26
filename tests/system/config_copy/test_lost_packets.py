"""Single packets are lost between the steps of a request. A link that loses packets at random
seldom loses just these."""

import pytest
from command import ANSWER, DONE, SET, UNREACHABLE, rows, through_relay
from copy_table import (
    SERVER4, SERVER_ROOT, STATE, STATE_WAITING, Request, download, show,
)


@pytest.mark.parametrize("lost, writes", [((SET, 1), 4), ((ANSWER, 2), 3), ((SET, 2), 3),
                                          ((ANSWER, 4), 3)],
                         ids=["making", "made", "activation", "activated"])
def test_one_packet_is_lost(operator, lost, writes):
    """A request is created, activated and destroyed once. If the creation is not answered and the
    row is not there, the SET may still be on its way, so that row is destroyed, too."""
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
    assert done.status == UNREACHABLE, done
    assert " in 0.5 s: it answered before, so check whether it still runs" in done.err, done
    assert done.err.endswith(
        f"; its request {index} could not be removed and expires within 7 minutes\n")
    assert carried.count(SET) == 1
    assert Request(operator, index).get(STATE) == STATE_WAITING


def test_no_write_comes_through_after_the_first(operator):
    done, carried = through_relay(lambda kind, number: kind != SET or number == 1, "-t", "0.3",
                                  "-r", "0")
    (index,) = rows(operator)
    assert done.status == UNREACHABLE, done
    said = " answers, but the copy can't be started: too many packets are lost; its request "
    assert said in done.err, done
    assert Request(operator, index).get(STATE) == STATE_WAITING


def test_transfer_that_ends_between_refusal_and_question(operator, broken_link):
    """The activation is refused because another copy runs, which ends before the command asks for
    it. The command activates again and does not report the switch as busy."""
    other = Request(operator).create(*download(SERVER4, "absent.cfg"))
    other.activate()
    running, sets = [other], []

    def passes(kind, _):
        if kind == SET:
            sets.append(kind)
        elif kind != ANSWER and len(sets) == 2 and running:
            running.pop().destroy()
            broken_link()
        return True

    done, carried = through_relay(passes, "-t", "60", "-r", "0")
    assert done.status == DONE and carried.count(SET) == 4, (done, carried)
    assert (SERVER_ROOT / "lost.cfg").read_text() == show("running")


def test_agent_that_is_silent_after_the_save(operator, lines_of):
    """Whether the switch had gone back by then can't be known, and that is reported."""
    (SERVER_ROOT / "new.cfg").write_text(lines_of("vlan 316"))
    sets, answers = [], []

    def passes(kind, _):
        if len(answers) == 6:  # three for the copy, three for the save
            return False
        (sets if kind == SET else answers if kind == ANSWER and len(sets) > len(answers) else
         []).append(kind)
        return True

    done, carried = through_relay(passes, "--json", "--save", "-t", "1", "-r", "1",
                                  words=(f"tftp://{SERVER4}/new.cfg", "running"))
    assert carried.count(SET) == 6 and done.status == UNREACHABLE, done
    (copy,) = done.objects()
    assert copy["saved"] is None, done
    assert ("; running was saved to startup, but whether the switch had gone back to the "
            "configuration before by then is not known: no answer from ") in copy["text"], done
    assert "vlan 316\n" in show("startup")
