"""The demonstration shows what it says."""

from pathlib import Path

from copy_table import run

DEMO = Path(__file__).resolve().parents[3] / "scripts/demo.sh"


def test_demo():
    assert run("bash", DEMO, "frr").endswith("\nEvery step worked.\n")
