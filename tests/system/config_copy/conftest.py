import itertools
import shutil
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "campaign")]  # command; snmp

pytest.register_assert_rewrite("command")

import command as cc
from copy_table import wait_for

_ports = itertools.count(20001)


@pytest.fixture
def own_agents(tmp_path):
    """Starts `count` agents with these settings, and returns them when they answer."""
    agents = []

    def start(count=1, settings=(), with_module=True):
        new = [
            cc.Agent(tmp_path / f"agent{port}", port,
                     ("rocommunity probe default .1.3.6.1.2.1.1", *settings), with_module)
            for port in itertools.islice(_ports, count)
        ]
        agents.extend(new)
        for agent in new:
            wait_for(agent.answers, 60, f"an answer of {agent.name}")
        return new

    yield start
    for agent in agents:
        agent.process.terminate()
    for agent in agents:
        agent.process.wait(15)
    shutil.rmtree(tmp_path)
