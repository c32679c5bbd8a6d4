"""The demonstration: X-rays counted on simulated cards, corrected rates against true ones, fitted lines, a picture."""
import pathlib
import re
import subprocess

from kestrel_session import KESTREL, ROOT, SCALE


def test_corrected_rates_are_the_true_ones():
    shown = subprocess.run([ROOT / "examples" / "count_spectrum"], capture_output=True, text=True, timeout=60 * SCALE,
                           env={"KESTREL": KESTREL, "PATH": "/usr/bin:/bin"})
    assert shown.stderr == "" and shown.returncode == 0
    rates = re.findall(r"^ +(\d) +(\d+) +[\d.]+% +(\d+) \+- +(\d+) +(\d+) +[+-]([\d.]+)$", shown.stdout, re.M)
    assert [int(row[0]) for row in rates] == list(range(8))
    for _, seen, corrected, error, true, off in (map(float, row) for row in rates):
        assert seen < corrected and abs(corrected - true) < 4.5 * error and off < 4.5
    assert re.search(r"# +7 +4 +4 +0 +0 \|", shown.stdout), "every frame of the last channel is whole"
    lines = re.findall(r"^ +([\d.]+) +[\d.]+ \+- ([\d.]+) +([+-][\d.]+) +[\d.]+ +\d+ \+- \d+$", shown.stdout, re.M)
    assert len(lines) == 4 and all(abs(float(off)) < 2 for _, _, off in lines)
    assert not list(pathlib.Path("/dev/shm").glob("plr3_*6[01]"))
    picture = pathlib.Path(KESTREL).with_name("count_spectrum.png").read_bytes()
    assert picture.startswith(b"\x89PNG") and len(picture) > 10000
