"""The manual's sessions with bench instruments run just so, against the simulator. Progress lines are not shown there."""
import re

import pytest
from kestrel_session import ROOT, SCALE


@pytest.mark.parametrize("name", ["bench-instruments", "bench-simulator"])
def test_sessions_in_the_manual(client, play, name):
    bench = play()
    text = (ROOT / "docs" / "manual" / f"{name}.md").read_text()
    blocks = re.findall(r"^```bench-(session|simulator)\n(.*?)^```$", text, re.M | re.S)
    assert blocks
    for kind, block in blocks:
        typist = client if kind == "session" else bench.text
        for part in re.split("^> ", block, flags=re.M)[1:]:
            command, *reply = part.splitlines()
            shown = typist.lines(command.replace("/tmp/bench", str(bench.links)), 70 * SCALE)
            assert [line for line in shown if not line.startswith("@")] == reply, command
