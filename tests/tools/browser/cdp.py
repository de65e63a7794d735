"""A headless Chromium driven over the DevTools protocol through a pipe
(--remote-debugging-pipe): no network port, no third-party package.

Also a small PNG reader for the screenshots it takes."""

import base64
import json
import os
import shutil
import struct
import subprocess
import tempfile
import time
import zlib

CHROMIUM_NAMES = ("chromium", "chromium-browser", "google-chrome", "chrome")


def find_chromium():
    given = os.environ.get("LUAFXS_CHROMIUM")
    if given:
        return given if os.access(given, os.X_OK) else None
    for name in CHROMIUM_NAMES:
        found = shutil.which(name)
        if found:
            return found
    return None


class Browser:
    """One Chromium process; `page()` opens a tab to drive."""

    def __init__(self, executable, timeout=30.0):
        self.timeout = timeout
        self.profile = tempfile.mkdtemp(prefix="luafxs-chromium-")
        to_child_r, self._to_child = os.pipe()
        self._from_child, from_child_w = os.pipe()

        def wire_pipes():
            # The browser reads commands on fd 3 and writes replies on fd 4.
            a, b = os.dup(to_child_r), os.dup(from_child_w)
            os.dup2(a, 3)
            os.dup2(b, 4)

        args = [
            executable, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
            "--no-default-browser-check", "--disable-extensions", "--disable-background-networking",
            "--disable-sync", "--disable-component-update", "--mute-audio",
            "--remote-debugging-pipe", "--user-data-dir=" + self.profile,
            # No network at all: every host name fails to resolve, no proxy.
            "--host-resolver-rules=MAP * ~NOTFOUND", "--no-proxy-server",
            "--allow-file-access-from-files", "about:blank",
        ]
        self.process = subprocess.Popen(args, preexec_fn=wire_pipes, close_fds=False,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_child_r)
        os.close(from_child_w)
        self._buffer = b""
        self._next_id = 0
        self.events = []

    def close(self):
        try:
            self.send("Browser.close")
        except Exception:  # the browser may be gone already
            pass
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        for fd in (self._to_child, self._from_child):
            try:
                os.close(fd)
            except OSError:
                pass
        shutil.rmtree(self.profile, ignore_errors=True)

    def _read_message(self, deadline):
        while b"\0" not in self._buffer:
            if time.monotonic() > deadline:
                raise TimeoutError("the browser did not answer in time")
            chunk = os.read(self._from_child, 1 << 20)
            if not chunk:
                raise RuntimeError("the browser closed its pipe")
            self._buffer += chunk
        message, self._buffer = self._buffer.split(b"\0", 1)
        return json.loads(message)

    def send(self, method, params=None, session=None):
        self._next_id += 1
        ident = self._next_id
        message = {"id": ident, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        os.write(self._to_child, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + self.timeout
        while True:
            reply = self._read_message(deadline)
            if reply.get("id") == ident:
                if "error" in reply:
                    raise RuntimeError("%s: %s" % (method, reply["error"]))
                return reply.get("result", {})
            self.events.append(reply)

    def wait_event(self, method, session=None, timeout=None):
        deadline = time.monotonic() + (timeout or self.timeout)
        while True:
            for i, event in enumerate(self.events):
                if event.get("method") == method and (session is None
                                                      or event.get("sessionId") == session):
                    return self.events.pop(i)
            self.events.append(self._read_message(deadline))

    def page(self, width, height):
        target = self.send("Target.createTarget", {"url": "about:blank"})["targetId"]
        session = self.send("Target.attachToTarget", {"targetId": target,
                                                      "flatten": True})["sessionId"]
        return Page(self, session, width, height)


class Page:
    def __init__(self, browser, session, width, height):
        self.browser = browser
        self.session = session
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.send(domain + ".enable")
        self.send("Network.emulateNetworkConditions", {
            "offline": True, "latency": 0, "downloadThroughput": -1, "uploadThroughput": -1})
        self.send("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def send(self, method, params=None):
        return self.browser.send(method, params, self.session)

    def open(self, path):
        self.browser.events = [e for e in self.browser.events if e.get("sessionId") != self.session
                               or e.get("method") != "Page.loadEventFired"]
        self.send("Page.navigate", {"url": "file://" + os.path.abspath(path)})
        self.browser.wait_event("Page.loadEventFired", self.session)

    def eval(self, expression):
        result = self.send("Runtime.evaluate", {"expression": expression, "returnByValue": True,
                                                "awaitPromise": True})
        if "exceptionDetails" in result:
            raise RuntimeError("page script failed: %s: %s" % (
                expression, result["exceptionDetails"].get("exception", {}).get("description")))
        return result["result"].get("value")

    def problems(self):
        """Console errors, uncaught exceptions and requests that left the disk."""
        out = []
        for e in self.browser.events:
            if e.get("sessionId") != self.session:
                continue
            method, params = e.get("method"), e.get("params", {})
            if method == "Runtime.exceptionThrown":
                out.append("exception: %s" % params["exceptionDetails"].get("text"))
            elif method == "Runtime.consoleAPICalled" and params.get("type") in ("error", "assert"):
                out.append("console.%s: %s" % (params["type"], [a.get("value") for a in
                                                                 params.get("args", [])]))
            elif method == "Log.entryAdded" and params["entry"].get("level") == "error":
                out.append("log: %s" % params["entry"].get("text"))
            elif method == "Network.requestWillBeSent":
                url = params["request"]["url"]
                if not url.startswith(("file:", "data:", "about:")):
                    out.append("network request: %s" % url)
        return out

    def mouse(self, kind, x, y, **extra):
        params = {"type": kind, "x": x, "y": y}
        params.update(extra)
        self.send("Input.dispatchMouseEvent", params)

    def click(self, x, y):
        self.mouse("mouseMoved", x, y)
        self.mouse("mousePressed", x, y, button="left", clickCount=1)
        self.mouse("mouseReleased", x, y, button="left", clickCount=1)

    def key(self, key, code, key_code):
        for kind in ("rawKeyDown", "keyUp"):
            self.send("Input.dispatchKeyEvent", {"type": kind, "key": key, "code": code,
                                                 "windowsVirtualKeyCode": key_code})

    def screenshot(self, path, clip=None):
        params = {"format": "png"}
        if clip:
            params["clip"] = dict(clip, scale=1)
        data = base64.b64decode(self.send("Page.captureScreenshot", params)["data"])
        with open(path, "wb") as out:
            out.write(data)
        return data


def png_pixels(data):
    """(width, height, rows of (r, g, b) tuples) of an 8-bit RGB or RGBA PNG."""
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG")
    at, idat, width, height, channels = 8, b"", 0, 0, 0
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
            if depth != 8 or colour not in (2, 6) or interlace:
                raise ValueError("unsupported PNG layout")
            channels = 3 if colour == 2 else 4
        elif kind == b"IDAT":
            idat += body
        at += 12 + length
    raw = zlib.decompress(idat)
    stride = width * channels
    rows, previous = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - channels] if i >= channels else 0
            b = previous[i]
            c = previous[i - channels] if i >= channels else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append([tuple(line[x * channels:x * channels + 3]) for x in range(width)])
        previous = line
    return width, height, rows
