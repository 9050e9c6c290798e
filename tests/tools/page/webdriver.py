"""Drives Chromium through chromedriver, with nothing but Python's own library."""

import base64
import json
import re
import shutil
import subprocess
import tempfile
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
KEYS = {"Enter": "\ue007", "Escape": "\ue00c", "Down": "\ue015", "Up": "\ue013"}
ARGUMENTS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
             "--disable-background-networking", "--disable-component-update", "--disable-dev-shm-usage"]


def missing():
    """The programs that are needed and not there."""
    return [name for name in ("chromium", "chromedriver") if shutil.which(name) is None]


class Browser:
    """One window. Everything in it is gone at the end."""

    def __init__(self, width=1400, height=900, dark=False):
        self.profile = tempfile.mkdtemp(prefix="opkit-browser-")
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                       text=True)
        for line in self.driver.stdout:
            port = re.search(r"on port (\d+)\.", line)
            if port and int(port[1]) != 0:
                break
        self.address = f"http://127.0.0.1:{port[1]}/session"
        arguments = ARGUMENTS + [f"--user-data-dir={self.profile}", f"--window-size={width},{height}"]
        options = {"binary": shutil.which("chromium"), "args": arguments + (["--force-dark-mode"] if dark else [])}
        wanted = {"browserName": "chrome", "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}
        session = self._send("POST", "", {"capabilities": {"alwaysMatch": wanted}})
        self.address += "/" + session["sessionId"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._send("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait()
            self.driver.stdout.close()
            shutil.rmtree(self.profile, ignore_errors=True)

    def _send(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.address + path, data, {"Content-Type": "application/json"}, method=method)
        try:
            with urllib.request.urlopen(request, timeout=120) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def open(self, path):
        self._send("POST", "/url", {"url": f"file://{path}"})

    def run(self, script):
        """What a JavaScript function with this body returns."""
        return self._send("POST", "/execute/sync", {"script": script, "args": []})

    def frame(self):
        """Lets the page draw what it has to."""
        self._send("POST", "/execute/async", {"script": "const done = arguments[0];"
                                              "requestAnimationFrame(() => requestAnimationFrame(() => done()));",
                                              "args": []})

    def press(self, keys):
        """Types characters, or one of KEYS."""
        actions = []
        for character in [KEYS[keys]] if keys in KEYS else keys:
            actions += [{"type": "keyDown", "value": character}, {"type": "keyUp", "value": character}]
        self._send("POST", "/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def click(self, selector):
        element = self._send("POST", "/element", {"using": "css selector", "value": selector})[ELEMENT]
        self._send("POST", f"/element/{element}/click", {})

    def messages(self):
        """What the console holds, since the last call."""
        return [entry["message"] for entry in self._send("POST", "/se/log", {"type": "browser"})]

    def screenshot(self):
        return base64.b64decode(self._send("GET", "/screenshot"))
