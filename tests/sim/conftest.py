"""Fixture: card simulators that end with their test; a crash or a sanitizer's report fails it."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools" / "session"))
import cards


@pytest.fixture
def play(tmp_path):
    """play(*options) -> a running simulator at a base address of its own."""
    running = []

    def begin(*options):
        running.append(cards.Program(tmp_path / str(len(running)), *options))
        return running[-1]

    yield begin
    for program in running:
        program.close()
