"""A child process that is looked after to its end: what it writes, a time limit, and the signals that ask this program
to stop."""
from __future__ import annotations

import os
import select
import signal
import threading
import time
from enum import Enum
from types import FrameType, TracebackType
from typing import Any, Callable, Dict, List, Optional, Type

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

Source = Callable[[], bool]  # called when its descriptor is readable; False: there will be nothing more


class HeldSignals:
    """Keeps the signals that end a program back while there is something to put back; one that came is raised again
    at the end. `reader` is readable from its coming on. Only a main thread can do that; in others nothing changes."""

    def __enter__(self) -> HeldSignals:
        self.reader, self._writer = os.pipe()
        self._came: List[int] = []
        self._before: Dict[signal.Signals, Any] = {}
        if threading.current_thread() is threading.main_thread():
            for number in SIGNALS:
                if signal.getsignal(number) not in (signal.SIG_IGN, None):
                    self._before[number] = signal.signal(number, self._take)
        return self

    def _take(self, number: int, _frame: Optional[FrameType]) -> None:
        self._came.append(number)
        os.write(self._writer, b"!")

    def __exit__(
        self, _type: Optional[Type[BaseException]], _error: Optional[BaseException], _trace: Optional[TracebackType]
    ) -> None:
        for number, handler in self._before.items():
            signal.signal(number, handler)
        os.close(self.reader)
        os.close(self._writer)
        if self._came:
            signal.raise_signal(self._came[0])


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


def supervise(pid: int, sources: Dict[int, Source], held: HeldSignals, timeout: Optional[float]) -> Ending:
    """Serves the sources until the child ends, the seconds are over or a signal came."""
    deadline = time.monotonic() + timeout if timeout else None
    ended = os.pidfd_open(pid)
    try:
        poll = select.poll()
        for descriptor in (ended, held.reader, *sources):
            poll.register(descriptor, select.POLLIN)
        while True:
            left = None if deadline is None else max(deadline - time.monotonic(), 0) * 1000
            ready = [descriptor for descriptor, _ in poll.poll(left)]
            for descriptor in ready:
                if descriptor in sources and not sources[descriptor]():
                    poll.unregister(descriptor)
            if held.reader in ready:
                return Ending.SIGNALLED
            if ended in ready:
                return Ending.ENDED
            if deadline is not None and time.monotonic() >= deadline:
                return Ending.TIMED_OUT
    finally:
        os.close(ended)
