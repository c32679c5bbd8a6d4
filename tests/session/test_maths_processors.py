"""Large boxes are worked on by all processors: the results are those of one processor, to the bit."""
import os

import numpy as np
import pytest
from kestrel_data import do
from test_maths import TYPES, mapped, volume  # noqa: F401 (a fixture)

SHAPE = 23, 301, 517  # some 14 MB of floats, of odd sizes
CORNERS = "1 2 3 515 299 20"
ROWS = 298
COMMANDS = [
    "integrate 0 {c} x module '{m}'", "integrate 0 {c} y module '{m}'", "integrate 0 {c} t average module '{m}'",
    "integrate 0 {c} xy module '{m}'", "integrate 0 {c} xt module '{m}'", "integrate 0 {c} yt module '{m}'",
    "integrate 0 {c} xy no-clear module '{m}'", "weighted-sum 0 {c} x module '{m}'", "centroid 0 {c} t module '{m}'",
    "centroid 0 {c} x module '{m}' start-x 3", "re-bin 0 {c} x 2 y 3 t 5 module '{m}'", "re-bin 0 {c} x 7 module '{m}'",
    "binary-op 0 1 {c} div scale 3.0 module '{m}' start-x 5 start-y 1 start-t 2",
]


def use(server, processors):
    for thread in os.listdir(f"/proc/{server.process.pid}/task"):
        os.sched_setaffinity(int(thread), processors)


def exact(command, a, b):
    """What the command gives, where that needs no rounding."""
    part = a[3:21, 2:300, 1:516].astype(float)
    if command.startswith("integrate 0 {c} xy module"):
        return part.sum(axis=0)
    if command.startswith("re-bin 0 {c} x 7"):
        return part[:, :, :511].reshape(18, ROWS, 73, 7).sum(axis=3)
    return None


@pytest.mark.parametrize("kind", ["float", ""])
def test_results_do_not_depend_on_the_number_of_processors(server, client, volume, names, kind):
    random = np.random.default_rng(8)
    a, b = ((random.integers(0, 8000, SHAPE) / (1 if kind == "" else 8)).astype(TYPES[kind]) for _ in range(2))
    volume(kind, a), volume(kind, b)
    all_processors = os.sched_getaffinity(0)
    for number, command in enumerate(COMMANDS):
        results = []
        for side, processors in ("one", {min(all_processors)}), ("all", all_processors):
            use(server, processors)
            name = names(f"{side}{number}")
            if "no-clear" in command:
                do(client, "maths " + command.format(c=CORNERS, m=name).replace(" no-clear", ""))
            do(client, "maths " + command.format(c=CORNERS, m=name))
            results.append(mapped(name).tobytes())
        assert results[0] == results[1], command
        expected = exact(command, a, b)
        assert expected is None or np.array_equal(np.squeeze(mapped(name)), expected), command


@pytest.mark.parametrize("kind", TYPES)
def test_a_total_does_not_depend_on_the_number_of_processors(server, client, volume, kind):
    data = (np.random.default_rng(9).random(SHAPE) * 1000).astype(TYPES[kind])
    volume(kind, data)
    totals = []
    for processors in {min(os.sched_getaffinity(0))}, os.sched_getaffinity(0):
        use(server, processors)
        totals.append(client.lines(f"maths accumulate 0 {CORNERS}")[-1])
    assert totals[0] == totals[1]
    assert float(totals[0][2:]) == pytest.approx(data[3:21, 2:300, 1:516].sum(dtype=float), rel=1e-5)
