"""What `cmake --install` puts where, and that man page and completion know the program's options."""
import os
import re
import subprocess

import pytest
from kestrel_session import KESTREL, ROOT, SCALE

BUILD = os.environ.get("KESTREL_BUILD", str(ROOT / "build"))


PAGE = sorted([path.name for path in (ROOT / "display" / "page").iterdir() if path.suffix in (".html", ".css", ".js")] +
              ["uPlot.LICENSE", "uPlot.esm.js", "uPlot.min.css"])


def run(*command, **how):
    return subprocess.run(command, capture_output=True, text=True, timeout=60 * SCALE, **how)


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    folder = tmp_path_factory.mktemp("prefix")
    installed = run("cmake", "--install", BUILD, "--prefix", folder)
    assert installed.returncode == 0, installed.stderr
    return folder


@pytest.fixture(scope="module")
def options():
    """(word, name of its value or "", whether it stands without one) as the program lists them."""
    found = re.findall(r"^  (-[a-z-]+)(\[?)(?:=<([a-z]+)>\]?)? ", run(KESTREL, "-server?").stderr, re.M)
    assert len(found) >= 9
    return [(word, value, bool(bare) or not value) for word, bare, value in [*found, ("-server?", "", "")]]


def test_what_is_installed(prefix):
    files = sorted(str(path.relative_to(prefix)) for path in prefix.rglob("*") if path.is_file())
    assert files == ["bin/kestrel", "bin/kestrel-display", "bin/kestrel-follow", "bin/kestrel-nexus", "bin/kestrel-publish", "bin/kestrel-try-image", "bin/kestrel-worker",
                     "bin/kestrelctl", "include/kestrel/kestrel_module.h",
                     "share/bash-completion/completions/kestrel", "share/bash-completion/completions/kestrelctl",
                     *(f"share/kestrel/display/{name}" for name in PAGE), "share/man/man1/kestrel-display.1", "share/man/man1/kestrel-follow.1", "share/man/man1/kestrel-publish.1",
                     "share/man/man1/kestrel-worker.1", "share/man/man1/kestrel.1",
                     "share/man/man1/kestrelctl.1"]
    assert run(prefix / "bin/kestrel", "-server?").returncode == 1
    source = f'#include "{prefix}/include/kestrel/kestrel_module.h"\n'
    assert run("cc", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-xc", "-", input=source).stderr == ""


def test_the_man_page(prefix, options):
    page = prefix / "share/man/man1/kestrel.1"
    shown = run("groff", "-man", "-ww", "-Tascii", "-P-c", "-P-b", "-P-u", page)
    assert shown.stderr == "" and shown.returncode == 0
    described = re.search(r"^OPTIONS$(.*)^EXIT STATUS$", shown.stdout, re.M | re.S)[1]
    heads = re.findall(r"^ {7}(-\S+)$", described, re.M)
    assert heads == [word + (value and (f"[={value}]" if bare else f"={value}")) for word, value, bare in options]
    for fact in "DATA_DIR", "KESTRELPATH", "kestrel.clients.ini", ".kestrel.inc", "SIGINT", "1972":
        assert fact in shown.stdout


def complete(prefix, folder, *words):
    """What a real bash offers for the last word, as it splits them."""
    script = (f"source {prefix}/share/bash-completion/completions/kestrel; COMP_WORDS=(\"$@\"); "
              "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kestrel; printf '%s\\n' \"${COMPREPLY[@]}\"")
    # Outside an interactive completion compopt has nothing to change; its complaint is of no interest.
    return run("bash", "-c", script, "bash", "kestrel", *words, cwd=folder).stdout.split()


def test_completion_offers_every_option(prefix, options, tmp_path):
    wanted = [word + end for word, value, bare in options
              for end in [""] * bare + ["="] * bool(value)]
    assert complete(prefix, tmp_path, "-") == wanted
    assert complete(prefix, tmp_path, "-v") == ["-vlog", "-vlog="]
    (tmp_path / "night.log").touch()
    assert complete(prefix, tmp_path, "-log", "=", "ni") == ["night.log"]
    assert complete(prefix, tmp_path, "-port", "=") == []


def test_completion_in_an_interactive_shell(prefix, tmp_path):
    """TAB in a bash on a terminal completes an option and a log's file name."""
    from kestrel_session import Terminal
    (tmp_path / "cwd").mkdir()
    (tmp_path / "cwd" / "night.log").touch()
    (tmp_path / "rc").write_text(f"PS1='$ '\nkestrel() {{ printf '<%s>\\n' \"$@\"; }}\n"
                                 f"source {prefix}/share/bash-completion/completions/kestrel\n")
    program = tmp_path / "shell"
    program.write_text(f"#!/bin/sh\nexec bash --noprofile --rcfile {tmp_path}/rc -i 2>&1\n")
    program.chmod(0o755)
    shell = Terminal(tmp_path, program=str(program))
    shell.recv_until("$ ")
    shell.send("kestrel -det\t -log=ni\t\n")
    shell.recv_until("<-detach>\r\n")
    shell.recv_until("<-log=night.log>\r\n")
    shell.send("exit\n")
    shell.expect_closed()
    assert shell.wait_exit() == 0
    os.close(shell.master)


FAMILIES = {"AF_INET": "sessions and cards", "AF_UNIX": "the control socket", "AF_NETLINK": "getifaddrs: the host's MAC address"}
# System calls that the server and its helpers make, and that a confined service could lose.
CALLS = {"sched_setaffinity": "PLR3CPUS", "lchown": "-control-group", "fchown": "a file that is written anew",
         "prlimit64": "the limits of kestrel-try-image", "memfd_create": "the orders of kestrel-nexus",
         "renameat2": "the name of a NeXus file", "recvmmsg": "cards", "pidfd_open": "the end of a helper"}


def allowed_calls(unit):
    """What its SystemCallFilter lines come to, one after the other."""
    listed = run("systemd-analyze", "syscall-filter").stdout
    sets, current = {}, None
    for line in listed.splitlines():
        if line.startswith("@"):
            current = sets.setdefault(line.split()[0], [])
        elif current is not None and line.strip() and not line.strip().startswith("#"):
            current.append(line.strip())

    def calls(word):
        return set().union(*map(calls, sets[word])) if word.startswith("@") else {word}

    allowed = set()
    for line in re.findall(r"^SystemCallFilter=(.*)$", unit, re.M):
        named = set().union(*map(calls, line.lstrip("~").split()))
        allowed = allowed - named if line.startswith("~") else allowed | named
    return allowed


@pytest.mark.parametrize("unit", ["kestrel.service", "kestrel@.service"])
def test_the_service_may_call_what_the_server_needs(unit):
    if run("sh", "-c", "command -v systemd-analyze").returncode:
        pytest.skip("no systemd-analyze here")
    text = (ROOT / "packaging" / unit).read_text()
    families = re.search(r"^RestrictAddressFamilies=(.*)$", text, re.M)[1].split()
    assert {family: why for family, why in FAMILIES.items() if family not in families} == {}
    allowed = allowed_calls(text)
    assert len(allowed) > 100 and "reboot" not in allowed and "mount" not in allowed
    assert {call: why for call, why in CALLS.items() if call not in allowed} == {}
