"""The demonstration of the whole system, as a person starts it."""

import subprocess
import sys

import pytest


@pytest.mark.parametrize("options", [["--cabinets", "4", "--baud", "9600"], ["--cabinets", "1", "--baud", "1200"]])
def test_the_whole_system_runs_and_agrees(build, options):
    done = subprocess.run([sys.executable, "-m", "sim.run", "--build", build, "--seconds", "15", *options],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stdout[-3000:] + done.stderr
    assert "good: " in done.stdout and "all agree" in done.stdout
