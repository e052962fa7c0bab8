#!/usr/bin/env python3
"""Runs a Chromium command line with its DevTools protocol on a pipe, waits until a JavaScript
expression is true in the first page, saves a PNG screenshot of that page, and keeps Chromium
running until it exits or this program is ended (SIGTERM or SIGINT end Chromium too).

    page-screenshot.py --out FILE.png --when EXPRESSION [--viewport WxH] [--timeout S]
                       -- chromium ARGS... URL

Chromium's output passes through; exit status 0 when the screenshot was saved and Chromium then
exited, 1 when the expression never became true within the timeout (the screenshot is then not
taken, and Chromium keeps running).
"""
import argparse
import base64
import fcntl
import json
import os
import signal
import subprocess
import sys
import time


class DevTools:
    """Chromium's --remote-debugging-pipe: JSON messages ending in a NUL byte, commands written
    to the browser's fd 3, answers and events read from its fd 4."""

    def __init__(self, command):
        to_browser_read, self._write = os.pipe()
        self._read, from_browser_write = os.pipe()
        # Chromium expects the pipe on fds 3 and 4 exactly. The ends are first moved above
        # both numbers so that neither dup2 overwrites the other's source; dup2 makes the
        # copies inheritable, and every other descriptor of ours is closed on exec.
        def child_fds():
            read_end = fcntl.fcntl(to_browser_read, fcntl.F_DUPFD_CLOEXEC, 10)
            write_end = fcntl.fcntl(from_browser_write, fcntl.F_DUPFD_CLOEXEC, 10)
            os.dup2(read_end, 3)
            os.dup2(write_end, 4)
        self.process = subprocess.Popen(command + ["--remote-debugging-pipe"],
                                        preexec_fn=child_fds, close_fds=False)
        os.close(to_browser_read)
        os.close(from_browser_write)
        self._buffer = b""
        self._next_id = 0

    def call(self, method, params=None, session=None):
        self._next_id += 1
        message = {"id": self._next_id, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        os.write(self._write, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._receive()
            if answer.get("id") == self._next_id:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer.get("result", {})

    def _receive(self):
        while b"\0" not in self._buffer:
            chunk = os.read(self._read, 1 << 20)
            if not chunk:
                raise EOFError("Chromium closed its DevTools pipe")
            self._buffer += chunk
        message, self._buffer = self._buffer.split(b"\0", 1)
        return json.loads(message)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--out", required=True)
    parser.add_argument("--when", required=True)
    parser.add_argument("--viewport", default="1280x720")
    parser.add_argument("--timeout", type=float, default=60)
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    command = options.command[1:] if options.command[:1] == ["--"] else options.command

    devtools = DevTools(command)
    def end(signum, frame):
        devtools.process.terminate()
    signal.signal(signal.SIGTERM, end)
    signal.signal(signal.SIGINT, end)

    saved = False
    deadline = time.monotonic() + options.timeout
    try:
        page = None
        while page is None and time.monotonic() < deadline:
            targets = devtools.call("Target.getTargets")["targetInfos"]
            page = next((t for t in targets if t["type"] == "page"), None)
            if page is None:
                time.sleep(0.1)
        if page is not None:
            session = devtools.call("Target.attachToTarget",
                                    {"targetId": page["targetId"], "flatten": True})["sessionId"]
            # A headless window's viewport is smaller than its window size; set it exactly.
            width, height = (int(n) for n in options.viewport.split("x"))
            devtools.call("Emulation.setDeviceMetricsOverride",
                          {"width": width, "height": height, "deviceScaleFactor": 1,
                           "mobile": False}, session)
            while time.monotonic() < deadline:
                value = devtools.call("Runtime.evaluate",
                                      {"expression": options.when, "returnByValue": True},
                                      session)["result"].get("value")
                if value is True:
                    shot = devtools.call("Page.captureScreenshot",
                                         {"format": "png", "captureBeyondViewport": False},
                                         session)
                    with open(options.out, "wb") as out:
                        out.write(base64.b64decode(shot["data"]))
                    saved = True
                    break
                time.sleep(0.1)
    except (EOFError, RuntimeError) as error:
        print(f"page-screenshot: {error}", file=sys.stderr)
    if not saved:
        print("page-screenshot: no screenshot taken", file=sys.stderr)
    devtools.process.wait()
    return 0 if saved else 1


if __name__ == "__main__":
    sys.exit(main())
