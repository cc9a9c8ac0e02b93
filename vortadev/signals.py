"""The signals that ask this program to stop."""

from __future__ import annotations

import signal
import threading
from typing import Any, Callable

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class HeldSignals:
    """Keeps signals back while there is something to put back; the first that came is raised again at the end. Only a
    main thread can do that; in others nothing changes."""

    def __init__(self) -> None:
        self.came = 0  # number of the first one
        self.stop: Callable[[], object] = lambda: None  # called when one comes
        main = threading.current_thread() is threading.main_thread()
        before = {number: signal.getsignal(number) for number in SIGNALS if main}
        self._before = {number: handler for number, handler in before.items() if handler not in (signal.SIG_IGN, None)}

    def _take(self, number: int, _frame: Any) -> None:
        self.came = self.came or number
        self.stop()

    def __enter__(self) -> HeldSignals:
        for number in self._before:
            signal.signal(number, self._take)
        return self

    def __exit__(self, *_: object) -> None:
        for number, handler in self._before.items():
            signal.signal(number, handler)
        if self.came:
            signal.raise_signal(self.came)
