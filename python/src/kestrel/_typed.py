"""The commands as classes. What type checkers see stands in _typed.pyi, which `python3 -m kestrel.stubs` writes."""
from ._commands import Namespace


class Commands(Namespace):
    """A server's commands, called at once."""


class AsyncCommands(Namespace):
    """A server's commands, to be awaited."""
