"""From a Python call to the line that a server takes."""
import math
import operator
import os
from typing import Any, Dict, Tuple

import numpy as np

from ._tree import Command

LINE_MAX = 1024  # characters; a longer one would end the server


def _whole(value: Any) -> str:
    number = operator.index(value)
    if not -(1 << 31) <= number < 1 << 31:
        raise ValueError(f"{number} does not fit into the 32 bits of a whole number")
    return str(number)


def _real(value: Any) -> str:
    if isinstance(value, (str, bytes)):
        raise TypeError(f"a number is wanted, not {value!r}")
    number = float(value)
    if not math.isfinite(number):
        raise ValueError(f"{number} cannot be written in a line")
    return repr(number)


def _string(value: Any) -> str:
    if not isinstance(value, str) and not hasattr(value, "__fspath__"):
        raise TypeError(f"a string is wanted, not {value!r}")
    text = value if isinstance(value, str) else os.fsdecode(value)
    if any(ord(c) < 32 or ord(c) == 127 for c in text):
        raise ValueError("a string in a line holds no control characters")
    for quote in "'\"":
        if quote not in text:
            return quote + text + quote
    raise ValueError("a string in a line holds one kind of quote only")


def _any(value: Any) -> str:
    if isinstance(value, str) or hasattr(value, "__fspath__"):
        return _string(value)
    return _whole(value) if hasattr(value, "__index__") else _real(value)


_WRITERS = {"d": _whole, "g": _real, "f": _real, "s": _string, "v": _any}


def render(command: Command, arguments: Tuple[Any, ...], keywords: Dict[str, Any]) -> str:
    """The line of a call. Keywords that are False or None are left out; those without a value take True."""
    if not command.required <= len(arguments) <= len(command.arguments):
        wanted = command.required
        most = len(command.arguments)
        raise TypeError(f"{command.path} takes {wanted if wanted == most else f'{wanted} to {most}'} arguments, "
                        f"not {len(arguments)}")
    words = [command.path]
    words += [_WRITERS[wanted.kind](value) for wanted, value in zip(command.arguments, arguments)]
    for name, value in keywords.items():
        known = command.keywords.get(name)
        if known is None:
            raise TypeError(f"{command.path} has no keyword {name}; it has {', '.join(command.keywords) or 'none'}")
        if isinstance(value, np.bool_):
            value = bool(value)
        if value is None or value is False:
            continue
        words.append(known.word)
        if known.kind:
            words.append(_WRITERS[known.kind](value))
        elif value is not True:
            raise TypeError(f"{name} of {command.path} is a switch: True or False")
    return check_line(" ".join(words))


def check_line(line: str) -> str:
    """The line itself; ValueError for one that a server would not take as one."""
    if any(c in line for c in "\r\n\0\udcff"):
        raise ValueError("a line has one line, and no byte 255, which telnet keeps for itself")
    length = len(line.encode(errors="surrogateescape"))
    if length > LINE_MAX:
        raise ValueError(f"the line has {length} characters, and a server takes {LINE_MAX}")
    return line
