"""The demonstration: a measured spectrum on its way to a client, a file and another process, and its lines."""
import pathlib
import re
import subprocess

from kestrel_session import KESTREL, ROOT, SCALE


def test_the_spectrum_reaches_everybody():
    shown = subprocess.run([ROOT / "examples" / "show_spectrum"], capture_output=True, text=True, timeout=60 * SCALE,
                           env={"KESTREL": KESTREL, "PATH": "/usr/bin:/bin"})
    assert shown.stderr == "" and shown.returncode == 0
    for line in ("The client has 2048 channels, 5607017 counts; the highest is channel 537, 6.399 keV "
                 "(Fe K-alpha: 6.40), with 202571.", "Line 538 of 2048 reads: 6.399336 202571",
                 "example_steel: 2048 x 1 x 1, sum 5607017, most 202571 at x 537"):
        assert line in shown.stdout.splitlines()
    found = {name: [float(number) for number in numbers] for name, *numbers in re.findall(
        r"^(\w\w K-alpha) +([\d.]+) \+- ([\d.]+) +([\d.]+) +([+-][\d.]+) +([\d.]+) +(\d+) \+- (\d+)$", shown.stdout, re.M)}
    for name, energy in ("Cr K-alpha", 5.4117), ("Fe K-alpha", 6.3995), ("Ni K-alpha", 7.4723):
        position, _, known, off, fwhm, *_ = found[name]
        assert known == energy and abs(position - energy) < 0.005 and abs(off) < 5 and 150 < fwhm < 200, name
    picture = pathlib.Path(KESTREL).with_name("steel_fit.png").read_bytes()
    assert picture.startswith(b"\x89PNG") and len(picture) > 10000
