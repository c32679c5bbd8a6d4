"""What a server says, read byte by byte. No input, no output: bytes are fed, a reply comes together.

A reply is any number of lines and then the prompt "> " at the start of a line. A line's first character tells what it
is: "#" a note, "!" an error, "@" progress, "~" a question; anything else is text. "* " and a value is the command's
result in the last line before the prompt, and text anywhere else.
"""
import re
from dataclasses import dataclass, field
from typing import Callable, List, NamedTuple, Optional, Union

Result = Union[int, float, str, None]

PROMPT = b"> "
QUESTION = b"~ Retry (Y/N)"  # the only one that a server asks; nothing follows until it is answered
_MARKS = (b"#", b"!", b"@", b"~")  # of the lines that the server's threads print at any time
_PROGRESS = re.compile(r"@ +(-?\d+) +(-?\d+)(?: +'(.*)')?$")


class Progress(NamedTuple):
    done: int
    total: int
    label: str


@dataclass
class Reply:
    """All that came for a line: its result (None: there was none), notes ("#"), errors ("!") and texts."""
    result: Result = None
    has_result: bool = False
    notes: List[str] = field(default_factory=list)
    errors: List[str] = field(default_factory=list)
    texts: List[str] = field(default_factory=list)


def _signed(value: int) -> int:
    return value - (1 << 32) if value >= 1 << 31 else value


def parse_result(text: str) -> Result:
    """The value of a result line behind its "* "; ValueError when it is none."""
    if text == "(null)":
        return None
    if len(text) >= 2 and text[0] == '"' == text[-1]:
        return text[1:-1]
    if text[:1] == "$":
        return _signed(int(text[1:], 16))
    if text[:1] == "#":
        return _signed(int(text[1:], 2))
    try:
        return int(text)
    except ValueError:
        return float(text)


class ReplyReader:
    """Takes bytes and fills `reply`; `on_note` and `on_progress` are called as lines come."""

    def __init__(self) -> None:
        self.on_note: Optional[Callable[[str], None]] = None
        self.on_progress: Optional[Callable[[Progress], None]] = None
        self.reply = Reply()
        self.asked = False  # a question waits for its answer
        self._buffer = bytearray()  # of the line that has not ended
        self._held: Optional[str] = None  # a result line, which is a text once another line follows
        self._first = True  # no line has been sent
        self._prompted = False  # the prompt came, and lines of the server's threads behind it
        self._awaited: Optional[bytes] = None  # the text up to which nothing counts

    def begin(self) -> None:
        """A new line is sent. What the server's threads said meanwhile becomes notes of the new reply."""
        if self._buffer == PROMPT:
            self._buffer = bytearray()
        self.reply = Reply()
        self.asked = False
        self._held = None
        self._first = self._prompted = False

    def begin_behind(self, text: bytes) -> None:
        """The reply is what follows a line that ends with this text: what came before may have been lost in part."""
        self.begin()
        self._awaited = text

    @property
    def at_prompt(self) -> bool:
        """The prompt is the last that came. More may follow, unless `certain`."""
        if self._awaited is not None:
            return False
        return self._buffer == PROMPT or (self._prompted and not self._buffer)

    @property
    def certain(self) -> bool:
        """A prompt that follows a result, or the very first: the reply is whole."""
        return (self._held is not None or self._first) and self.at_prompt

    def feed(self, data: bytes) -> None:
        first, *others = data.split(b"\n")
        self._buffer += first
        if others:
            lines = [bytes(self._buffer), *others[:-1]]
            self._buffer = bytearray(others[-1])
            for line in lines:
                self._line(line.rstrip(b"\r"))
        if self._buffer:
            self.asked = False

    def finish(self) -> Reply:
        """The reply, with its result."""
        if self._held is not None:
            self.reply.result = parse_result(self._held[2:])
            self.reply.has_result = True
            self._held = None
        return self.reply

    def _line(self, raw: bytes) -> None:
        self.asked = raw == QUESTION
        if self._awaited is not None:
            if raw.endswith(self._awaited):
                self._awaited = None
            return
        # What the server's threads print between two commands comes behind the prompt.
        if raw.startswith(PROMPT) and raw[2:3] in _MARKS:
            raw = raw[2:]
            self._prompted = True
        elif raw[:1] not in _MARKS:
            self._prompted = False  # it was a text that looks so
        if self._held is not None and not self._prompted:
            self.reply.texts.append(self._held)
            self._held = None
        line = raw.decode(errors="surrogateescape")
        mark = line[:1]
        if mark == "*" and line[1:2] == " ":
            self._take_result(line)
        elif mark == "#":
            self._take_note(line)
        elif mark == "!":
            self.reply.errors.append(line[1:].strip())
        elif mark == "@":
            self._take_progress(line)
        else:
            self.reply.texts.append(line)

    def _take_result(self, line: str) -> None:
        try:
            parse_result(line[2:])
        except ValueError:
            self.reply.texts.append(line)
            return
        self._held = line

    def _take_note(self, line: str) -> None:
        note = line[2:] if line[1:2] == " " else line[1:]
        self.reply.notes.append(note)
        if self.on_note:
            self.on_note(note)

    def _take_progress(self, line: str) -> None:
        found = _PROGRESS.match(line)
        if not found:
            self.reply.texts.append(line)
        elif self.on_progress:
            self.on_progress(Progress(int(found[1]), int(found[2]), found[3] or ""))
