"""A child process that is looked after to its end: what it writes, a time limit, and the signals that ask this program
to stop."""

from __future__ import annotations

from contextlib import contextmanager
from enum import Enum
import os
import select
import signal
import threading
import time
from typing import Any, Callable, Dict, Iterator, List, Optional

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

Source = Callable[[], bool]  # called when its descriptor is readable; False: there will be nothing more


@contextmanager
def held_signals() -> Iterator[int]:
    """Keeps the signals that end a program back while there is something to put back; one that came is raised again
    at the end. Gives a descriptor that is readable from its coming on. Only a main thread can do that; in others
    nothing changes."""
    reader, writer = os.pipe()
    came: List[int] = []

    def take(number: int, _frame: Any) -> None:
        came.append(number)
        os.write(writer, b"!")

    can = threading.current_thread() is threading.main_thread()
    wanted = [number for number in SIGNALS if can and signal.getsignal(number) not in (signal.SIG_IGN, None)]
    before = {number: signal.signal(number, take) for number in wanted}
    try:
        yield reader
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)
        os.close(reader)
        os.close(writer)
        if came:
            signal.raise_signal(came[0])


class Ending(Enum):
    ENDED = "ended"
    TIMED_OUT = "timed out"
    SIGNALLED = "signalled"


def read_into(buffer: bytearray, descriptor: int) -> Source:
    """A source that keeps all that can be read from the descriptor."""

    def read() -> bool:
        chunk = os.read(descriptor, 65536)
        buffer.extend(chunk)
        return bool(chunk)

    return read


def supervise(pid: int, sources: Dict[int, Source], signals: int, timeout: Optional[float]) -> Ending:
    """Serves the sources until the child ends, the seconds are over or `signals` is readable."""
    deadline = time.monotonic() + timeout if timeout else None
    ended = os.pidfd_open(pid)
    try:
        poll = select.poll()
        for descriptor in (ended, signals, *sources):
            poll.register(descriptor, select.POLLIN)
        while True:
            left = None if deadline is None else max(deadline - time.monotonic(), 0) * 1000
            ready = [descriptor for descriptor, _ in poll.poll(left)]
            for descriptor in ready:
                if descriptor in sources and not sources[descriptor]():
                    poll.unregister(descriptor)
            if signals in ready:
                return Ending.SIGNALLED
            if ended in ready:
                return Ending.ENDED
            if deadline is not None and time.monotonic() >= deadline:
                return Ending.TIMED_OUT
    finally:
        os.close(ended)
