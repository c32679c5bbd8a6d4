"""A server's control socket, which answers while a command runs; for servers of this machine and user only."""
import os
import pathlib
import socket
from typing import List, Optional, Tuple

PATIENCE = 5.0  # seconds
STOPS = 10  # tries to stop a line within them


def usual_path(port: int) -> str:
    """Where the server on this port has its control socket, unless its options say otherwise."""
    name = f"kestrel-{port}.sock"
    runtime = os.environ.get("XDG_RUNTIME_DIR")
    if runtime:
        return os.path.join(runtime, name)
    user = pathlib.Path(f"/run/user/{os.getuid()}")
    return str(user / name if user.is_dir() else pathlib.Path(f"/tmp/kestrel-{os.getuid()}") / name)


def ask(path: str, request: str) -> List[str]:
    """The lines of the answer; OSError where no server answers."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(PATIENCE)
        sock.connect(path)
        sock.sendall(request.encode() + b"\n")
        answer = b""
        while True:
            block = sock.recv(65536)
            if not block:
                return answer.decode(errors="replace").splitlines()
            answer += block


def stop(path: str, own: Tuple[str, int]) -> None:
    """Ends what the session of this socket's own address runs; OSError where that cannot be."""
    session = session_of(path, "%s:%d" % own)
    if session is None:
        raise OSError("not a session of that server")
    ask(path, f"stop {session}")


def session_of(path: str, address: str) -> Optional[int]:
    """The number of the session that this address (host:port) has."""
    for line in ask(path, "status"):
        words = line.split()
        if words[:1] == ["session"] and words[2:4] == ["of", address]:
            return int(words[1])
    return None
