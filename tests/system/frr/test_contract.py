"""FRR passes the tests that every kind of device passes."""

import os
import re
import subprocess

import vty

PROGRAM = ["/lab/build/bin/host_tests", "--gtest_filter=*DeviceContract*/frr"]


def test_contract():
    environment = {**os.environ, "ULMO_TEST_FRR": "yes"}
    command = [*vty.AS_AGENT, *PROGRAM]
    listed = subprocess.run([*command, "--gtest_list_tests"], env=environment, check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    number = len(re.findall(r"(?m)^  \w+/frr", listed))
    assert number >= 9
    done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, text=True)
    assert done.returncode == 0, done.stdout
    assert re.findall(r"\[  PASSED  \] (\d+) tests?\.", done.stdout) == [str(number)], done.stdout
    assert "SKIPPED" not in done.stdout
