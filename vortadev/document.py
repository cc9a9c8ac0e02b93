"""JSON files that build on each other, and the values in them: a complaint about a value names the file that a person
has to edit, the key and what was expected."""

from __future__ import annotations

from dataclasses import field, fields
import functools
import json
from pathlib import Path
import re
from typing import Any, Callable, List, NoReturn, Optional, Sequence, Tuple, Type, TypeVar

from .errors import DeviceError, printable

SHIPPED = Path(__file__).parent / "scenarios"
LARGEST = 2**64 - 1
SIZE = re.compile(r"([0-9]{1,20}) *(|B|KiB|MiB|GiB)")
SHIFTS = {"": 0, "B": 0, "KiB": 10, "MiB": 20, "GiB": 30}
# Where null says that the phone does not have it; elsewhere it takes a key of the base away.
NULL_IS_A_VALUE = re.compile(r"ponLog|boardId|partitions\.[^.]*")
MISSING = object()
T = TypeVar("T")


def parse_size(text: str) -> Optional[int]:
    """Bytes of "64MiB", "512 KiB" or "4096"; None if it is no size."""
    found = SIZE.fullmatch(text)
    size = int(found[1]) << SHIFTS[found[2]] if found else LARGEST + 1
    return size if size <= LARGEST else None


def locate(name: str, folder: Path) -> Path:
    """The file of a shipped scenario (no slash, no ".json"), or a file, relative to the folder."""
    shipped = not name.endswith(".json") and Path(name).name == name
    return SHIPPED / (name + ".json") if shipped else folder / name


def no_number(name: str) -> NoReturn:
    raise ValueError(f"{name} is no number")


def read_json(file: Path) -> Any:
    try:
        value = json.loads(file.read_text("utf-8-sig"), parse_constant=no_number)
        json.dumps(value, ensure_ascii=False).encode("utf-8")  # fails for half of a surrogate pair
        return value
    except OSError as error:
        raise DeviceError(f"cannot read {printable(str(file))}: {error.strerror}") from None
    except (ValueError, RecursionError) as error:
        raise DeviceError(f"{file}: expected JSON; {printable(str(error))}") from None


def read_document(value: Any, file: Path) -> Node:
    """The value of a file, merged over those of the files that it builds on."""
    sources = [(file, value)]
    root = Node(sources, value)
    while root.members() and root["base"]:
        sources.append(read_base(root["base"], [file for file, _ in sources]))
        root = Node(sources[-1:], sources[-1][1])
    value = functools.reduce(merged, [value for _, value in reversed(sources)])
    value.pop("base", None)
    return Node(sources, value)


def read_base(name: Node, files: Sequence[Path]) -> Tuple[Path, Any]:
    path = locate(name.value, files[-1].parent) if isinstance(name.value, str) else None
    if path is None or not path.is_file():
        name.expected("the name of a shipped scenario or a .json file beside this one")
    if path.resolve() in [file.resolve() for file in files]:
        name.expected("a scenario that does not build on this one")
    return path, read_json(path)


def merged(base: Any, patch: Any, key: str = "") -> Any:
    """The JSON merge patch of RFC 7396, but for the keys whose null is a value."""
    if not isinstance(patch, dict):
        return patch
    result = dict(base) if isinstance(base, dict) else {}
    for name, value in patch.items():
        member = f"{key}.{name}" if key else name
        if value is None and not NULL_IS_A_VALUE.fullmatch(member):
            result.pop(name, None)
        else:
            result[name] = merged(result.get(name), value, member)
    return result


def keyed(read: Callable[[Node], Any]) -> Any:
    """A field of a dataclass that is read from the key of its name: `not_log` from "notLog"."""
    return field(metadata={"read": read})


def read_object(kind: Any, node: Node, other_keys: Sequence[str] = (), **others: Any) -> Any:
    """An object of a dataclass that has such fields; the values of its other ones are given."""
    readers = {field.name: field.metadata["read"] for field in fields(kind) if field.name not in others}
    keys = {name: re.sub("_(.)", lambda found: found[1].upper(), name) for name in readers}
    node.members([*other_keys, *keys.values()])
    return kind(**others, **{name: read(node[keys[name]]) for name, read in readers.items()})


def holds(value: Any, path: Sequence[str]) -> bool:
    for key in path:
        if isinstance(value, list):  # replaced as a whole by a patch
            return True
        if not isinstance(value, dict) or key not in value:
            return False
        value = value[key]
    return True


def is_whole(value: Any, largest: int = LARGEST) -> bool:
    return isinstance(value, int) and not isinstance(value, bool) and 0 <= value <= largest


class Node:
    """A value and its place. A member that is not there is a node as well: it is false, and reading it gives nothing,
    or the default that the caller names."""

    def __init__(self, sources: Sequence[Tuple[Path, Any]], value: Any, path: Sequence[str] = (), root: Any = None):
        self.sources = sources  # the files with what they say, those that are built on last
        self.value = value
        self.path = path
        self.root = value if root is None else root  # the value of the whole document

    def __bool__(self) -> bool:
        return self.value is not MISSING

    def __getitem__(self, key: str) -> Node:
        value = self.value.get(key, MISSING) if isinstance(self.value, dict) else MISSING
        return Node(self.sources, value, (*self.path, key), self.root)

    def beside(self, key: str) -> Node:
        """A member of the whole document."""
        return Node(self.sources, self.root)[key]

    def file(self) -> Path:
        """The file that the value comes from."""
        return next((file for file, value in self.sources if holds(value, self.path)), self.sources[0][0])

    def fail(self, text: str) -> NoReturn:
        key = printable(".".join(self.path))
        raise DeviceError(f"{self.file()}: {key}: {text}" if key else f"{self.file()}: {text}")

    def expected(self, what: str) -> NoReturn:
        found = json.dumps(self.value, ensure_ascii=False, separators=(",", ":"))
        self.fail(f"expected {what}, found {printable(found if len(found) <= 40 else found[:40] + '...')}")

    def require(self, condition: bool, what: str) -> None:
        if not condition:
            self.expected(what)

    def of_type(self, kind: Type[T], what: str, missing: T) -> T:
        if not self:
            return missing
        if not isinstance(self.value, kind):
            self.expected(what)
        return self.value

    def members(self, keys: Optional[Sequence[str]] = None) -> List[Tuple[str, Node]]:
        """Of an object, whose keys are all among those given, or of one that is missing."""
        found = [(key, self[key]) for key in self.of_type(dict, "an object", {})]
        for key, member in found:
            if keys is not None and key not in keys:
                member.fail(f"unknown key; expected one of: {', '.join(keys)}")
        return found

    def elements(self, what: str = "a list") -> List[Node]:
        values: List[Any] = self.of_type(list, what, [])
        return [Node(self.sources, value, (*self.path, str(at)), self.root) for at, value in enumerate(values)]

    def text(self) -> str:
        return self.of_type(str, "a text", "")

    def texts(self, missing: Sequence[str] = ()) -> List[str]:
        return [element.text() for element in self.elements("a list of texts")] if self else list(missing)

    def text_or_lines(self) -> bytes:
        """The text itself, or a list of lines, each of which gets a line feed."""
        self.require(isinstance(self.value, (str, list)), "a text or a list of lines")
        text = self.value if isinstance(self.value, str) else "".join(line + "\n" for line in self.texts())
        return text.encode("utf-8")

    def boolean(self) -> bool:
        return self.of_type(bool, "true or false", False)

    def number(self, missing: int = 0, largest: int = LARGEST) -> int:
        self.require(not self or is_whole(self.value, largest), f"a whole number from 0 to {largest}")
        return int(self.value) if self else missing

    def size(self, missing: int = 0) -> int:
        """Of a number of bytes, or a text like "64MiB"."""
        size = parse_size(self.value) if isinstance(self.value, str) else self.value
        self.require(not self or is_whole(size), 'a number of bytes or a size like "64MiB"')
        return int(size) if self and size is not None else missing
