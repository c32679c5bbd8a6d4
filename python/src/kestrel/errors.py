"""What can go wrong."""
import socket
from typing import Any, List, Tuple

from ._reply import Reply


class KestrelError(Exception):
    """Everything that this package raises by itself."""


class CommandError(KestrelError):
    """The server answered a command with error lines: `errors` without their "!", the whole answer in `reply`."""

    def __init__(self, line: str, reply: Reply) -> None:
        super().__init__("; ".join(reply.errors))
        self.line = line
        self.reply = reply

    def __reduce__(self) -> Tuple[Any, ...]:  # between processes
        return CommandError, (self.line, self.reply)

    @property
    def errors(self) -> List[str]:
        return self.reply.errors

    @property
    def result(self):  # type: ignore[no-untyped-def]
        return self.reply.result


class ConnectionLost(KestrelError, ConnectionError):
    """The server is gone, or the connection was left in the middle of a reply."""


def means_lost(error: BaseException) -> bool:
    """Whether a socket's error says that its other end, or it itself, has gone."""
    return isinstance(error, OSError) and not isinstance(error, (socket.timeout, TimeoutError))


class ModuleError(KestrelError):
    """A shared-memory object that is no data module, or not a whole one."""
