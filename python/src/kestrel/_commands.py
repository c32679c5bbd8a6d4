"""A server's commands as methods, made from its tree. What a call does with its line is the connection's matter."""
import inspect
import re
from typing import Any, Callable, Dict, Iterable, List

from ._line import render
from ._tree import Command, Group, python_name

_TYPES: Dict[str, Any] = {"d": int, "g": float, "f": float, "s": str, "q": str}


def parameter_names(command: Command) -> List[str]:
    """Names for the positional arguments, from their help."""
    names: List[str] = []
    taken = set(command.keywords) | {"self"}
    for number, argument in enumerate(command.arguments, 1):
        words = re.findall(r"[a-z0-9]+", re.split(r"[,(:]", argument.help.lower())[0])[:3]
        name = python_name("_".join(words)) if words else f"argument{number}"
        while name in taken:
            name += "_"
        taken.add(name)
        names.append(name)
    return names


def signature(command: Command) -> inspect.Signature:
    parameters = []
    for name, argument in zip(parameter_names(command), command.arguments):
        parameters.append(inspect.Parameter(name, inspect.Parameter.POSITIONAL_ONLY,
                                            default=None if argument.optional else inspect.Parameter.empty,
                                            annotation=_TYPES.get(argument.kind, Any)))
    for name, word in command.keywords.items():
        parameters.append(inspect.Parameter(name, inspect.Parameter.KEYWORD_ONLY, default=None if word.kind else False,
                                            annotation=_TYPES[word.kind] if word.kind else bool))
    return inspect.Signature(parameters, return_annotation=_TYPES.get(command.returns, Any))


def documentation(command: Command) -> str:
    lines = [command.help, "", f"The server's command {command.path!r}."]
    rows = list(zip(parameter_names(command), (argument.help for argument in command.arguments)))
    rows += [(name, word.help) for name, word in command.keywords.items()]
    if rows:
        lines += ["", *(f"    {name}: {text}" for name, text in rows)]
    return "\n".join(lines)


class Method:
    """A command: call it with its arguments in order and its keywords by name."""

    def __init__(self, command: Command, run: Callable[[Command, str], Any]) -> None:
        self._command = command
        self._run = run
        self.__name__ = command.path
        self.__doc__ = documentation(command)
        self.__signature__ = signature(command)

    def __call__(self, *arguments: Any, **keywords: Any) -> Any:
        while arguments and arguments[-1] is None:  # what is left out at the end
            arguments = arguments[:-1]
        return self._run(self._command, render(self._command, arguments, keywords))

    def __repr__(self) -> str:
        return f"<command {self._command.path}{self.__signature__}>"


class Namespace:
    """A prefix of commands, or all of them."""

    def __init__(self, group: Group, run: Callable[[Command, str], Any]) -> None:
        self.__doc__ = group.help
        self._group = group
        self._run = run

    def __getattr__(self, name: str) -> Any:
        if not name.startswith("__"):
            group = self.__dict__.get("_group")
            if group and name in group.groups:
                return self.__dict__.setdefault(name, Namespace(group.groups[name], self._run))
            if group and name in group.commands:
                return self.__dict__.setdefault(name, Method(group.commands[name], self._run))
        raise AttributeError(f"the server has no command {name!r} here")

    def __dir__(self) -> Iterable[str]:
        return sorted({*super().__dir__(), *self._group.commands, *self._group.groups})
