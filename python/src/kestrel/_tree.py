"""The server's command tree, from what `retrieve-tree 510` prints."""
import keyword
import re
from dataclasses import dataclass, field
from typing import Dict, Iterator, List, Sequence

TREE_LINE = "retrieve-tree 510"


@dataclass
class Argument:
    """A positional argument. `kind`: d whole number, g or f real, s string, v any of them."""
    kind: str
    help: str
    optional: bool


@dataclass
class Keyword:
    """A keyword; `kind` is empty for one that stands alone."""
    word: str
    kind: str
    help: str


@dataclass
class Command:
    path: str  # its words
    help: str
    arguments: List[Argument]
    keywords: Dict[str, Keyword]  # by their Python names
    returns: str  # d, g, f, s, q, v, or empty

    @property
    def required(self) -> int:
        return sum(not argument.optional for argument in self.arguments)


@dataclass
class Group:
    path: str
    help: str
    commands: Dict[str, Command] = field(default_factory=dict)  # by their Python names
    groups: Dict[str, "Group"] = field(default_factory=dict)


def python_name(word: str) -> str:
    """open-mca -> open_mca, from -> from_."""
    name = re.sub(r"\W", "_", word)
    if not name or name[0].isdigit():
        name = "_" + name
    return name + "_" if keyword.iskeyword(name) else name


class _Dump:
    def __init__(self, texts: Sequence[str]) -> None:
        self._items: Iterator[List[str]] = iter([text.split(" ", 1) for text in texts])
        self._next = next(self._items, None)

    def take(self, tag: str) -> str:
        item = self._next
        if not item or item[0] != tag:
            raise ValueError(f"the command tree has {item and item[0]} in place of {tag}")
        self._next = next(self._items, None)
        return item[1] if len(item) > 1 else ""

    def number(self, tag: str) -> int:
        return int(self.take(tag))

    def comes(self, tag: str) -> bool:
        return bool(self._next) and self._next[0] == tag  # type: ignore[index]

    def command(self, path: str) -> "tuple[str, Command]":
        name, text = self.take("COMM"), self.take("HELP")
        helps = iter(self.take("AHLP").split("/"))
        kinds = [_kind(self.number("ARGT")) for _ in range(self.number("ARGC"))]
        arguments = [Argument(kind, next(helps, "").strip(), False) for kind in kinds]
        keywords = {}
        for _ in range(self.number("QUAC")):
            word = self.take("QUAL")
            keywords[python_name(word)] = Keyword(word, _kind(self.number("QUAT")), next(helps, "").strip())
        returns = _kind(self.number("RETN"))
        for argument in arguments[self.number("OPTS"):]:
            argument.optional = True
        return name, Command(f"{path} {name}".strip(), text, arguments, keywords, returns)

    def group(self, path: str, text: str) -> Group:
        group = Group(path, text)
        for _ in range(self.number("SIZE")):
            if self.comes("COMM"):
                name, command = self.command(path)
                group.commands.setdefault(python_name(name), command)
                continue
            name = self.take("SUBT")
            group.groups.setdefault(python_name(name), self.group(f"{path} {name}".strip(), self.take("HELP")))
        return group


def _kind(code: int) -> str:
    return chr(code) if code else ""


def parse_tree(texts: Sequence[str]) -> Group:
    """The tree of the dump's strings; ValueError where they are none."""
    return _Dump(texts).group("", "")
