"""What the blocking and the asyncio connection share: lines, replies and their outcome. No input, no output."""
import logging
from typing import Any, List, Optional, Sequence, Tuple

import numpy as np
import numpy.typing as npt

from ._line import check_line
from ._reply import Reply, ReplyReader
from ._tree import Command
from .errors import CommandError, KestrelError

log = logging.getLogger("kestrel")

# Seconds in which nothing may follow a prompt that no result stands before: few commands end so, but a text may look so
# when the network delivers it in two, and the second part comes after a packet was sent again.
SETTLE = 0.5
SYNC = "kestrel client is back"  # what the server is made to say where bytes may have been lost
RETRY = b"N\n"  # the answer to a server that asks whether it should try again

# Element types of handles: what arrives, little-endian.
_ELEMENTS = {1: "u1", 2: "<u2", 3: "<u4", 4: "<f4", 6: "<f8", 7: "<i8"}
_INT48 = 5  # has no numpy type: read as float64
_FORMS = {"uint32": "long", "float32": "float", "float64": "double"}

Box = Tuple[int, int, int, int, int, int]  # x, y, t, and how many of each


class Session:
    """A connection's state between two bytes."""

    def __init__(self) -> None:
        self.reader = ReplyReader()
        self.reader.on_note = log.info

    def begin(self, line: str) -> bytes:
        check_line(line)
        self.reader.begin()
        return line.encode(errors="surrogateescape") + b"\n"

    def begin_again(self) -> bytes:
        """What to send after a reply that was left: an end for a line half sent, and a text to find the place by."""
        self.reader.begin_behind(SYNC.encode())
        return f"\necho '{SYNC}'\n".encode()

    def end(self, line: str, command: Optional[Command]) -> Any:
        """The value of the line that has ended; CommandError when the server said what is wrong."""
        reply = self.reader.finish()
        if reply.errors:
            raise CommandError(line, reply)
        if command is None:
            return reply
        if command.returns:
            return float(reply.result) if command.returns in "gf" and isinstance(reply.result, int) else reply.result
        return "\n".join(reply.texts) or None


def tree_texts(reply: Reply) -> List[str]:
    """The strings of a tree's dump: each came as a result line, the last but one as a text too."""
    return [text[3:-1] for text in reply.texts if text.startswith('* "')]


def read_line(handle: int, box: Sequence[int], element: int, dtype: Any, extra: str) -> Tuple[str, npt.NDArray[Any]]:
    """The line that reads a box of a handle, and the array that takes it: t, y, x."""
    if len(box) != 6:
        raise ValueError(f"a box is x, y, t, width, height, frames: not {len(box)} numbers")
    x, y, t, width, height, frames = (int(v) for v in box)
    if min(width, height, frames) < 1:
        raise ValueError(f"a box has at least one element each way, not {width} x {height} x {frames}: "
                         f"is handle {handle} open?")
    if dtype is None and element in _ELEMENTS:
        form, kind = "raw", np.dtype(_ELEMENTS[element])
    else:
        wanted = np.dtype("float64" if dtype is None and element == _INT48 else dtype)
        if wanted.name not in _FORMS:
            raise TypeError(f"a server sends {', '.join(_FORMS)}, not {wanted}")
        form, kind = _FORMS[wanted.name], wanted.newbyteorder("<")
    line = f"read {x} {y} {t} {width} {height} {frames} intel {form} from {int(handle)} {extra}".rstrip()
    return line, np.empty((frames, height, width), kind)


def bytes_of(array: npt.NDArray[Any]) -> memoryview:
    return memoryview(array.data).cast("B")


def short_read(got: int, wanted: int) -> KestrelError:
    return KestrelError(f"the server sent {got} of {wanted} bytes")
