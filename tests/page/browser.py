"""A headless Chromium that is driven over pipes."""

import base64
import json
import os
import pathlib
import signal
import tempfile
import time
from typing import Any, Dict, List, Optional

# What a page must not meet; a test that provokes one sees it here too.
WATCH = """
window.violations = [];
addEventListener("securitypolicyviolation", (e) => violations.push(e.violatedDirective));
"""

FLAGS = (
    "--headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run "
    "--disable-background-networking --disable-component-update --hide-scrollbars "
    "--force-color-profile=srgb --remote-debugging-pipe"
).split()


class Browser:
    def __init__(self, program: str) -> None:
        self._profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        read, self._orders = os.pipe()
        self._answers, write = os.pipe()
        # Without a sandbox, which root cannot have; it loads this test's own pages only.
        arguments = [program, *FLAGS, f"--user-data-dir={self._profile.name}", "about:blank"]
        self._pid = os.posix_spawnp(
            program, arguments, {**os.environ, "HOME": self._profile.name}, setsid=True,
            file_actions=[
                (os.POSIX_SPAWN_DUP2, read, 3), (os.POSIX_SPAWN_DUP2, write, 4),
                (os.POSIX_SPAWN_OPEN, 2, os.devnull, os.O_WRONLY, 0),
            ],
        )
        os.close(read)
        os.close(write)
        self._bytes = b""
        self._next = 0
        self.events: List[Dict[str, Any]] = []

    def call(self, method: str, session: Optional[str] = None, **params: Any) -> Dict[str, Any]:
        self._next += 1
        order = {"id": self._next, "method": method, "params": params}
        if session:
            order["sessionId"] = session
        os.write(self._orders, json.dumps(order).encode() + b"\0")
        while True:
            message = self._read()
            if message.get("id") == self._next:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def _read(self) -> Dict[str, Any]:
        while b"\0" not in self._bytes:
            received = os.read(self._answers, 1 << 16)
            if not received:
                raise RuntimeError("the browser has ended")
            self._bytes += received
        text, self._bytes = self._bytes.split(b"\0", 1)
        return json.loads(text)

    def close(self) -> None:
        os.killpg(self._pid, signal.SIGKILL)
        os.waitpid(self._pid, 0)
        os.close(self._orders)
        os.close(self._answers)
        self._profile.cleanup()


class Tab:
    def __init__(self, browser: Browser, width: int, script: bool = True, dark: bool = False):
        self._browser = browser
        target = browser.call("Target.createTarget", url="about:blank")["targetId"]
        self._session = browser.call("Target.attachToTarget", targetId=target, flatten=True)[
            "sessionId"
        ]
        for domain in ("Page", "Runtime", "Log"):
            self._call(f"{domain}.enable")
        self._call("Page.addScriptToEvaluateOnNewDocument", source=WATCH)
        self._call("Emulation.setScriptExecutionDisabled", value=not script)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self._call("Emulation.setEmulatedMedia", features=[scheme])
        self._call(
            "Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1,
            mobile=width < 600,
        )

    def _call(self, method: str, **params: Any) -> Dict[str, Any]:
        return self._browser.call(method, self._session, **params)

    def open(self, url: str) -> "Tab":
        self._call("Page.navigate", url=url)
        self.wait("document.readyState === 'complete' && location.href !== 'about:blank'")
        return self

    def show(self) -> None:
        """Before the others: a page that is not seen takes no part."""
        self._call("Page.bringToFront")

    def eval(self, expression: str) -> Any:
        # Also where the page's own scripts are off.
        answer = self._call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait(self, expression: str, limit: float = 30.0) -> None:
        end = time.monotonic() + limit
        while not self.eval(expression):
            if time.monotonic() > end:
                text = self.eval("document.body.innerText")
                raise AssertionError(f"never: {expression}; the page shows\n{text}")
            time.sleep(0.05)

    def complaints(self) -> List[str]:
        """What went wrong on the page since it was opened."""
        found = list(self.eval("violations"))
        for event in self._browser.events:
            if event.get("sessionId") != self._session:
                continue
            if event["method"] == "Runtime.exceptionThrown":
                found.append(event["params"]["exceptionDetails"]["text"])
            if event["method"] == "Log.entryAdded":
                found.append(event["params"]["entry"]["text"])
        return found

    def shoot(self, file: pathlib.Path) -> None:
        size = self._call("Page.getLayoutMetrics")["cssContentSize"]
        answer = self._call(
            "Page.captureScreenshot", captureBeyondViewport=True,
            clip={"x": 0, "y": 0, "width": size["width"], "height": size["height"], "scale": 1},
        )
        file.write_bytes(base64.b64decode(answer["data"]))
