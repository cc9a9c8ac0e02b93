"""Chromium without a window, driven over a pipe: messages in JSON, each ended by a NUL."""

from __future__ import annotations

import json
import os
from pathlib import Path
import select
import subprocess
from typing import Any, Dict, List

OPTIONS = ("--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--remote-debugging-pipe")


class Browser:
    def __init__(self, profile: Path) -> None:
        read, self.outgoing = os.pipe()
        self.incoming, write = os.pipe()
        shell = ["bash", "-c", f'exec chromium "$@" 3<&{read} 4>&{write}', "bash"]
        command = [*shell, *OPTIONS, f"--user-data-dir={profile}", "about:blank"]
        self.process = subprocess.Popen(command, pass_fds=(read, write), stderr=subprocess.DEVNULL)
        os.close(read)
        os.close(write)
        self.number, self.received, self.events = 0, b"", []  # type: int, bytes, List[Dict[str, Any]]
        self.session: Dict[str, str] = {}
        page = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = {"sessionId": self.call("Target.attachToTarget", targetId=page, flatten=True)["sessionId"]}
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(f"{domain}.enable")

    def close(self) -> None:
        self.process.terminate()
        self.process.wait(20)
        os.close(self.outgoing)
        os.close(self.incoming)

    def call(self, method: str, **parameters: Any) -> Any:
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters, **self.session}
        os.write(self.outgoing, json.dumps(message).encode() + b"\0")
        while True:
            answer = self.receive()
            if answer.get("id") == self.number:
                assert "result" in answer, answer
                return answer["result"]
            self.events += [answer] if "method" in answer else []

    def receive(self) -> Dict[str, Any]:
        while b"\0" not in self.received:
            assert select.select([self.incoming], [], [], 60)[0], "the browser is silent"
            data = os.read(self.incoming, 1 << 16)
            assert data, "the browser ended"
            self.received += data
        message, self.received = self.received.split(b"\0", 1)
        found: Dict[str, Any] = json.loads(message)
        return found

    def open(self, page: Path, width: int = 1280, scheme: str = "light") -> None:
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.events.clear()
        self.call("Page.navigate", url=page.as_uri())
        while not any(event["method"] == "Page.loadEventFired" for event in self.events):
            self.events.append(self.receive())

    def ask(self, expression: str) -> Any:
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")
