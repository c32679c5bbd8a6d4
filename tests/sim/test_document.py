"""The sessions that the simulator's manual shows run just so."""
import re

from kestrel_session import ROOT


def test_sessions_in_the_manual(play):
    text = (ROOT / "docs" / "manual" / "card-simulator.md").read_text()
    blocks = re.findall(r"^```card-session ([^\n]*)\n(.*?)^```$", text, re.M | re.S)
    assert blocks
    for options, session in blocks:
        program = play(*options.split())
        for part in re.split("^> ", session, flags=re.M)[1:]:
            command, *reply = part.splitlines()
            assert program.text.lines(command) == reply, command
