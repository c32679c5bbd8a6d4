"""A short soak: every session at work, some vanish or do not read, and each reply is the one that was to come."""
import subprocess

from kestrel_session import ROOT, WAIT


def test_a_crowd_gets_its_replies_in_order_and_leaves_nothing_open():
    # Memory is looked at in long runs only: a first round takes what it needs.
    run = subprocess.run([ROOT / "bench" / "soak", "--commands", "40", "--rounds", "1", "--slack", "1000000"],
                         capture_output=True, text=True, timeout=10 * WAIT)
    assert run.returncode == 0 and run.stdout.endswith("good\n"), run.stdout + run.stderr
