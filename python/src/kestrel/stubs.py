"""Writes what type checkers know of the commands, from a server's tree:

    python3 -m kestrel.stubs [HOST [PORT]] > _typed.pyi
"""
import sys
from typing import Iterator

from ._blocking import Connection, connect
from ._commands import parameter_names
from ._tree import Command, Group

_TYPES = {"d": "int", "g": "float", "f": "float", "s": "str", "q": "str", "v": "Union[int, float, str]"}  # of results
_ARGUMENTS = {"d": "Whole", "g": "Real", "f": "Real", "s": "Text", "v": "Union[Whole, Real, Text]"}
_HEAD = '''"""Made from the server's tree by `python3 -m kestrel.stubs`; do not edit."""
from os import PathLike
from typing import Any, Awaitable, Callable, Optional, SupportsFloat, SupportsIndex, Union

from ._commands import Namespace
from ._tree import Command, Group

Whole = SupportsIndex  # numpy's numbers, too
Real = SupportsFloat
Text = Union[str, PathLike[str]]
'''


def _signature(command: Command) -> str:
    words = ["self"]
    for name, argument in zip(parameter_names(command), command.arguments):
        kind = _ARGUMENTS[argument.kind]
        words.append(f"{name}: Optional[{kind}] = ..." if argument.optional else f"{name}: {kind}")
    if command.arguments:
        words.append("/")
    if command.keywords:
        words.append("*")
    for name, word in command.keywords.items():
        words.append(f"{name}: Optional[{_ARGUMENTS[word.kind]}] = ..." if word.kind else f"{name}: bool = ...")
    return ", ".join(words)


def _class_name(prefix: str, path: str) -> str:
    return prefix + "".join(word.capitalize() for word in path.replace("-", " ").split())


def _classes(group: Group, prefix: str, awaited: bool, own: "frozenset[str]") -> Iterator[str]:
    for below in group.groups.values():
        yield from _classes(below, prefix, awaited, frozenset())
    yield "\n\nclass %s(Namespace):" % _class_name(prefix, group.path)
    for name, below in group.groups.items():
        yield f"    {name}: {_class_name(prefix, below.path)}"
    for name, command in group.commands.items():
        if name in own:
            continue
        returned = _TYPES.get(command.returns, "Optional[str]")
        yield f"    def {name}({_signature(command)}) -> {f'Awaitable[{returned}]' if awaited else returned}: ..."


def stubs(tree: Group) -> str:
    """The text of _typed.pyi. Names that a connection has of its own are left to it."""
    own = frozenset(name for name in dir(Connection) if not name.startswith("_"))
    lines = [_HEAD.rstrip("\n"), *_classes(tree, "Commands", False, own), *_classes(tree, "AsyncCommands", True, own)]
    return "\n".join(lines) + "\n"


def main() -> None:
    host = sys.argv[1] if len(sys.argv) > 1 else "localhost"
    port = int(sys.argv[2]) if len(sys.argv) > 2 else 1972
    with connect(host, port) as server:
        sys.stdout.write(stubs(server._group))


if __name__ == "__main__":
    main()
