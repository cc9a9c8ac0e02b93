"""JSON files that build on each other, and the values in them: a complaint about a value names the file that a person
has to edit, the key and what was expected."""

from __future__ import annotations

import json
from pathlib import Path
import re
from typing import Any, List, NoReturn, Optional, Sequence, Tuple

from .errors import DeviceError, printable

SHIPPED = Path(__file__).parent / "scenarios"
LARGEST = 2**64 - 1
SIZE = re.compile(r"([0-9]{1,20}) *(|B|KiB|MiB|GiB)")
SHIFTS = {"": 0, "B": 0, "KiB": 10, "MiB": 20, "GiB": 30}
# Where null says that the phone does not have it; elsewhere it takes a key of the base away.
NULL_IS_A_VALUE = re.compile(r"ponLog|boardId|partitions\.[^.]*")
MISSING = object()


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


def shown(value: Any) -> str:
    text = json.dumps(value, ensure_ascii=False, separators=(",", ":"))
    return printable(text if len(text) <= 40 else text[:40] + "...")


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


class Document:
    """A file's value merged over those of the files that it builds on."""

    def __init__(self, value: Any, file: Path) -> None:
        self.sources = [(file, value)]  # the file itself first
        while "base" in self._last_object():
            self._add_base()
        self.value = self.sources[-1][1]
        for _, patch in reversed(self.sources[:-1]):
            self.value = merged(self.value, patch)
        self.value.pop("base", None)

    def _last_object(self) -> Any:
        file, value = self.sources[-1]
        if not isinstance(value, dict):
            raise DeviceError(f"{file}: expected an object, found {shown(value)}")
        return value

    def _add_base(self) -> None:
        file, value = self.sources[-1]
        name = value["base"]
        path = locate(name, file.parent) if isinstance(name, str) else None
        if path is None or not path.is_file():
            what = "the name of a shipped scenario or a .json file beside this one"
        elif path.resolve() in [source.resolve() for source, _ in self.sources]:
            what = "a scenario that does not build on this one"
        else:
            self.sources.append((path, read_json(path)))
            return
        raise DeviceError(f"{file}: base: expected {what}, found {shown(name)}")

    def file_of(self, path: Sequence[str]) -> Path:
        """The file that a value comes from."""
        for file, value in self.sources:
            if holds(value, path):
                return file
        return self.sources[0][0]


def holds(value: Any, path: Sequence[str]) -> bool:
    for key in path:
        if isinstance(value, list):  # replaced as a whole by a patch
            return True
        if not isinstance(value, dict) or key not in value:
            return False
        value = value[key]
    return True


class Node:
    """A value and its place. A member that is not there is a node as well: it is false, and reading it gives nothing,
    or the default that the caller names."""

    def __init__(self, document: Document, value: Any, path: Tuple[str, ...] = ()) -> None:
        self.document = document
        self.value = value
        self.path = path

    def __bool__(self) -> bool:
        return self.value is not MISSING

    def file(self) -> Path:
        return self.document.file_of(self.path)

    def fail(self, text: str) -> NoReturn:
        key = printable(".".join(self.path))
        raise DeviceError(f"{self.file()}: {key}: {text}" if key else f"{self.file()}: {text}")

    def expected(self, what: str) -> NoReturn:
        self.fail(f"expected {what}, found {shown(self.value)}")

    def require_keys(self, keys: Sequence[str]) -> None:
        """It is an object whose keys are all among those given; or missing."""
        for key, member in self.items():
            if key not in keys:
                place = printable(".".join(self.path)) + ": " if self.path else ""
                text = f'unknown key "{printable(key)}"; expected one of: {", ".join(keys)}'
                raise DeviceError(f"{member.file()}: {place}{text}")

    def __getitem__(self, key: str) -> Node:
        value = self.value.get(key, MISSING) if isinstance(self.value, dict) else MISSING
        return Node(self.document, value, self.path + (key,))

    def items(self) -> List[Tuple[str, Node]]:
        if self and not isinstance(self.value, dict):
            self.expected("an object")
        return [(key, self[key]) for key in self.value] if self else []

    def elements(self) -> List[Node]:
        return [Node(self.document, value, self.path + (str(at),)) for at, value in enumerate(self.value)]

    def text(self) -> str:
        if self and not isinstance(self.value, str):
            self.expected("a text")
        return str(self.value) if self else ""

    def boolean(self) -> bool:
        if self and not isinstance(self.value, bool):
            self.expected("true or false")
        return bool(self.value) if self else False

    def is_number(self, largest: int = LARGEST) -> bool:
        return isinstance(self.value, int) and not isinstance(self.value, bool) and 0 <= self.value <= largest

    def number(self, missing: int = 0, largest: int = LARGEST) -> int:
        if self and not self.is_number(largest):
            self.expected(f"a whole number from 0 to {largest}")
        return int(self.value) if self else missing

    def size(self, missing: int = 0) -> int:
        """Of a number of bytes, or a text like "64MiB"."""
        if not self or self.is_number():
            return self.number(missing)
        size = parse_size(self.value) if isinstance(self.value, str) else None
        if size is None:
            self.expected('a number of bytes or a size like "64MiB"')
        return size

    def texts(self, missing: Sequence[str] = ()) -> List[str]:
        if self and not isinstance(self.value, list):
            self.expected("a list of texts")
        return [element.text() for element in self.elements()] if self else list(missing)

    def text_or_lines(self) -> bytes:
        """The text itself, or a list of lines, each of which gets a line feed."""
        if not isinstance(self.value, (str, list)):
            self.expected("a text or a list of lines")
        text = self.value if isinstance(self.value, str) else "".join(line + "\n" for line in self.texts())
        return text.encode("utf-8")
