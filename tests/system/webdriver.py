# tests/system/webdriver.py: a headless Chromium, driven over the WebDriver protocol
# SPDX-License-Identifier: GPL-2.0-only
"""Browser(folder) is one session with a profile of its own in `folder`, on loopback alone. Use it with
`with`; it ends its processes in every case. Every call has a limit.
"""
import base64
import http.client
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import zlib

from trak_testing import Failed, eventually, skip

LIMIT = 120  # seconds for one command, on a machine ten times slower than yours


class Browser:
    def __init__(self, folder, dark=False):
        for program in ("chromium", "chromedriver"):
            if not shutil.which(program):
                skip(f"there is no {program} (packages chromium and chromium-driver)")
        self.folder, self.dark, self.session = folder, dark, None
        self.log = f"{folder}/chromedriver.log"

    def __enter__(self):
        with open(self.log, "wb") as log:
            # A process group of its own: the browser is ended with it, whatever happens.
            self.process = subprocess.Popen(["chromedriver", "--port=0"], stdout=log, stderr=log,
                                            stdin=subprocess.DEVNULL, start_new_session=True,
                                            env={**os.environ, "HOME": self.folder})
        try:
            self.port = int(eventually(self.started, "chromedriver listens", LIMIT)[1])
            arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                         "--disable-dev-shm-usage", "--no-first-run", "--disable-extensions",
                         f"--user-data-dir={self.folder}/profile"]
            if self.dark:
                arguments.append("--blink-settings=preferredColorScheme=0")
            wanted = {"browserName": "chrome", "goog:chromeOptions": {"args": arguments},
                      "goog:loggingPrefs": {"browser": "ALL"}}
            made = self.call("POST", "/session", {"capabilities": {"alwaysMatch": wanted}})
            self.session = made["sessionId"]
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, *_):
        try:
            self.call("DELETE", f"/session/{self.session}")
        finally:
            self.end()

    def started(self):
        if self.process.poll() is not None:
            raise Failed(f"chromedriver ended:\n{self.said()}")
        return re.search(r"started successfully on port (\d+)", self.said())

    def said(self):
        with open(self.log, encoding="utf-8", errors="replace") as file:
            return file.read()

    def end(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait(LIMIT)

    def call(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT)
        try:
            text = json.dumps(body if body is not None else {}) if method == "POST" else None
            connection.request(method, path, text, {"Content-Type": "application/json"})
            answer = json.loads(connection.getresponse().read())["value"]
        except OSError as error:
            raise Failed(f"{method} {path}: {error}\n{self.said()[-2000:]}") from None
        finally:
            connection.close()
        if isinstance(answer, dict) and "error" in answer:
            raise Failed(f"{method} {path}: {answer['error']}: {answer.get('message')}")
        return answer

    def do(self, command, body=None, method="POST"):
        return self.call(method, f"/session/{self.session}/{command}", body)

    def open(self, url):
        self.do("url", {"url": url})

    def run(self, script, *arguments):
        return self.do("execute/sync", {"script": script, "args": list(arguments)})

    def console(self):
        return [entry["message"] for entry in self.do("se/log", {"type": "browser"})]

    def width(self, pixels, height=1000):
        """Of the page itself; a window can't be narrower than the desktop's smallest."""
        self.do("goog/cdp/execute", {"cmd": "Emulation.setDeviceMetricsOverride", "params": {
            "width": pixels, "height": height, "deviceScaleFactor": 1, "mobile": pixels < 600}})

    def screenshot(self):
        return base64.b64decode(self.do("screenshot", method="GET"))


def pixels(png):
    """(width, height, colours of its upper part) of a PNG without interlacing, 8 bits a sample."""
    if png[:8] != b"\x89PNG\r\n\x1a\n":
        raise Failed("no PNG")
    at, data, head = 8, b"", None
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        body = png[at + 8:at + 8 + size]
        head = body if kind == b"IHDR" else head
        data += body if kind == b"IDAT" else b""
        at += size + 12
    width, height, depth, colour, _, _, interlaced = struct.unpack(">IIBBBBB", head)
    if depth != 8 or colour not in (2, 6) or interlaced:
        raise Failed("another kind of PNG than was expected")
    step = 3 if colour == 2 else 4
    rows, before, found = zlib.decompress(data), bytearray(width * step), set()
    for y in range(min(height, 480)):
        line = rows[y * (width * step + 1):(y + 1) * (width * step + 1)]
        before = unfiltered(line[0], bytearray(line[1:]), before, step)
        if y % 4 == 0:
            found |= {bytes(before[x:x + 3]) for x in range(0, width * step, step * 4)}
    return width, height, found


def unfiltered(kind, line, above, step):
    if kind == 0:
        return line
    for x, value in enumerate(line):
        left = line[x - step] if x >= step else 0
        corner = above[x - step] if x >= step else 0
        if kind == 1:
            guess = left
        elif kind == 2:
            guess = above[x]
        elif kind == 3:
            guess = (left + above[x]) // 2
        else:
            by = [abs(above[x] - corner), abs(left - corner), abs(left + above[x] - 2 * corner)]
            guess = (left, above[x], corner)[by.index(min(by))]
        line[x] = (value + guess) & 255
    return line
