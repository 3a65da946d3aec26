"""What all campaigns share: the command line, the rounds with their chance, the figures and the
exit status."""

import argparse
import collections
import random
import sys
import time
import traceback
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS), str(TESTS / "system")]  # copy_numbers; copy_table, saves, protocols


class Campaign:
    """Rounds until the time is over. Each has a chance of its own, made of the seed and the
    round's number, so that it can be repeated. The first broken invariant ends the campaign with
    status 1."""

    def __init__(self, description, is_alone=True):
        """is_alone: a round can be repeated without those before it."""
        parser = argparse.ArgumentParser(description=description.partition("\n")[0])
        parser.add_argument("--seed", type=int, default=1)
        parser.add_argument("--seconds", type=float, default=60)
        parser.add_argument("--count", type=int, help="rounds, instead of a time")
        parser.add_argument("--first", type=int, default=1, help="the first round's number")
        self.options = parser.parse_args()
        self.is_alone = is_alone
        self.name = Path(sys.argv[0]).stem
        self.figures = collections.Counter()
        self.round = 0
        self.doing = ""  # what the round does, for the report of a failure

    def chance(self, number):
        return random.Random(f"{self.options.seed}/{number}")

    def rounds(self):
        """The chance of each round."""
        first, count = self.options.first, self.options.count
        deadline = time.monotonic() + self.options.seconds
        self.round = first
        while self.round < first + count if count else time.monotonic() < deadline:
            yield self.chance(self.round)
            self.round += 1
        self.round -= 1

    def run(self, body):
        """Runs the campaign's function and ends the program."""
        began = time.monotonic()
        try:
            body(self)
            broken = 0
        except Exception:  # noqa: B902 - whatever it is, the report says how to repeat it
            traceback.print_exc()
            rounds = f"--first {self.round} --count 1" if self.is_alone else f"--count {self.round}"
            print(f"{self.name}: round {self.round}: {self.doing}\n"
                  f"repeat: scripts/campaign.sh --seed {self.options.seed} {rounds} {self.name}",
                  file=sys.stderr)
            broken = 1
        told = ", ".join(f"{kind} {number}" for kind, number in sorted(self.figures.items()))
        print(f"{self.name}: seed {self.options.seed}, rounds "
              f"{self.options.first}-{self.round}, {time.monotonic() - began:.0f} s: {told}; "
              f"{broken} violations", flush=True)
        sys.exit(broken)
