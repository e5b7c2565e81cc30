"""Drives a headless Chromium by its debugging protocol, over a pipe. Needs the Debian package chromium."""
import base64
import fcntl
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

# The longest wait for an answer; a start under load takes some seconds.
SECONDS = 60

# In the child; the protocol has fixed numbers.
READ_END, WRITE_END = 3, 4


class Chromium:
    """One page in a browser of its own. Ends with the "with" statement."""

    def __init__(self, program="chromium"):
        self.program = program
        self.number = 0
        self.events = []
        self.buffer = b""
        self.session = None

    def __enter__(self):
        self.home = tempfile.mkdtemp(prefix="chromium.")
        to_child = os.pipe()
        from_child = os.pipe()
        # Out of the way of the fixed numbers.
        child_reads = fcntl.fcntl(to_child[0], fcntl.F_DUPFD, 10)
        child_writes = fcntl.fcntl(from_child[1], fcntl.F_DUPFD, 10)

        def fix_numbers():
            os.dup2(child_reads, READ_END)
            os.dup2(child_writes, WRITE_END)

        self.process = subprocess.Popen(
            [
                self.program,
                "--headless=new",
                "--no-sandbox",  # which needs a user other than root; the pages are our own
                "--disable-gpu",
                "--disable-dev-shm-usage",
                "--disable-extensions",
                "--disable-component-update",
                "--disable-background-networking",
                "--no-first-run",
                "--force-color-profile=srgb",
                "--hide-scrollbars",
                f"--user-data-dir={self.home}",
                "--remote-debugging-pipe",
                "about:blank",
            ],
            close_fds=False,
            preexec_fn=fix_numbers,
            start_new_session=True,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env=dict(os.environ, HOME=self.home),
        )
        for fd in (to_child[0], from_child[1], child_reads, child_writes):
            os.close(fd)
        self.to_child, self.from_child = to_child[1], from_child[0]
        targets = self.call("Target.getTargets")["targetInfos"]
        page = next(target for target in targets if target["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log", "Accessibility", "DOM"):
            self.call(f"{domain}.enable")
        return self

    def __exit__(self, *_):
        os.close(self.to_child)
        os.close(self.from_child)
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        shutil.rmtree(self.home, ignore_errors=True)

    def _message(self, deadline):
        while b"\0" not in self.buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.from_child], [], [], left)[0]:
                raise TimeoutError("the browser does not answer")
            data = os.read(self.from_child, 1 << 20)
            if not data:
                raise EOFError("the browser has ended")
            self.buffer += data
        text, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(text)

    def call(self, method, **parameters):
        self.number += 1
        request = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            request["sessionId"] = self.session
        os.write(self.to_child, json.dumps(request).encode() + b"\0")
        deadline = time.monotonic() + SECONDS
        while True:
            message = self._message(deadline)
            if message.get("id") == self.number:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']['message']}")
                return message["result"]
            if "method" in message:
                self.events.append(message)

    def await_event(self, method):
        deadline = time.monotonic() + SECONDS
        while not any(event["method"] == method for event in self.events):
            message = self._message(deadline)
            if "method" in message:
                self.events.append(message)

    def happened(self, method):
        return [event["params"] for event in self.events if event["method"] == method]

    def open(self, path):
        self.events = []
        self.call("Page.navigate", url=f"file://{path}")
        self.await_event("Page.loadEventFired")

    def run(self, script):
        """The value of a JavaScript expression."""
        answer = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(json.dumps(answer["exceptionDetails"]))
        return answer["result"].get("value")

    def size(self, width, height, narrow=False):
        self.call(
            "Emulation.setDeviceMetricsOverride",
            width=width, height=height, deviceScaleFactor=1, mobile=narrow,
        )

    def media(self, scheme="light", kind="screen"):
        self.call(
            "Emulation.setEmulatedMedia",
            media=kind, features=[{"name": "prefers-color-scheme", "value": scheme}],
        )

    def press(self, key):
        """A key by its name: "Tab", "Enter", "ArrowRight", "a"."""
        codes = {"Tab": 9, "Enter": 13, "Escape": 27}
        codes.update(ArrowLeft=37, ArrowUp=38, ArrowRight=39, ArrowDown=40)
        text = {"Enter": "\r"}.get(key, key if len(key) == 1 else "")
        parts = {"key": key, "code": key, "windowsVirtualKeyCode": codes.get(key, 0)}
        self.call("Input.dispatchKeyEvent", type="keyDown" if text else "rawKeyDown", text=text, **parts)
        self.call("Input.dispatchKeyEvent", type="keyUp", **parts)

    def _middle(self, selector):
        return self.run(
            f"(() => {{ const part = document.querySelector({json.dumps(selector)});"
            " part.scrollIntoView({block: 'center', inline: 'center'});"
            " const box = part.getBoundingClientRect();"
            " return [box.x + box.width / 2, box.y + box.height / 2]; })()"
        )

    def click(self, selector):
        x, y = self._middle(selector)
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def tap(self, selector):
        x, y = self._middle(selector)
        self.call("Emulation.setTouchEmulationEnabled", enabled=True)
        self.call("Input.dispatchTouchEvent", type="touchStart", touchPoints=[{"x": x, "y": y}])
        self.call("Input.dispatchTouchEvent", type="touchEnd", touchPoints=[])
        self.call("Emulation.setTouchEmulationEnabled", enabled=False)

    def picture(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))
