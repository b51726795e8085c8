"""A headless Chromium, driven over chromedriver's own HTTP interface by the standard library alone.

    with Browser() as page:
        page.open("http://127.0.0.1:9470/")
        page.wait("return document.querySelectorAll('#rows tr').length > 0")
        page.picture("page.png")
"""
import base64
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

FLAGS = """--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run --hide-scrollbars
    --disable-background-networking --disable-component-update --disable-sync --disable-extensions
    --disable-default-apps --disable-dev-shm-usage --mute-audio --lang=en-US""".split()


def missing():
    """The programs that are needed and not there."""
    return [name for name in ("chromium", "chromedriver") if not shutil.which(name)]


class Browser:
    def __init__(self, width=1400, height=900):
        self.profile = tempfile.mkdtemp(prefix="halvo-test-browser-")
        # A process group of its own: ending it ends the browser's many processes too.
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL, text=True, start_new_session=True)
        self.session = None
        try:
            self.base = f"http://127.0.0.1:{self._port()}"
            options = {"args": FLAGS + [f"--user-data-dir={self.profile}",
                                        f"--window-size={width},{height}"],
                       "binary": shutil.which("chromium")}
            made = self._call("POST", "/session", {"capabilities": {"alwaysMatch": {
                "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}}})
            self.session = made["sessionId"]
            self.size(width, height)
        except BaseException:
            self.close()
            raise

    def _port(self):
        for line in self.driver.stdout:
            found = re.search(r"started successfully on port (\d+)", line)
            if found:
                return int(found.group(1))
        raise RuntimeError("chromedriver did not start")

    def _call(self, method, path, body=None):
        if self.session:
            path = f"/session/{self.session}{path}"
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.base + path, data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def open(self, url):
        self._call("POST", "/url", {"url": url})

    def url(self):
        return self._call("GET", "/url")

    def run(self, script, *arguments):
        return self._call("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def wait(self, script, *arguments, seconds=40):
        """Waits until the script returns something true, and returns that."""
        end = time.monotonic() + seconds
        while True:
            value = self.run(script, *arguments)
            if value:
                return value
            if time.monotonic() > end:
                raise AssertionError(f"did not become true within {seconds} s: {script}")
            time.sleep(0.1)

    def keys(self, text):
        """Types into what has the focus."""
        steps = [step for key in text for step in ({"type": "keyDown", "value": key},
                                                   {"type": "keyUp", "value": key})]
        self._call("POST", "/actions", {"actions": [{"type": "key", "id": "k", "actions": steps}]})

    def click(self, selector):
        element = self._call("POST", "/element", {"using": "css selector", "value": selector})
        self._call("POST", f"/element/{next(iter(element.values()))}/click", {})

    def devtools(self, command, **parameters):
        return self._call("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def size(self, width, height, scale=1):
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height,
                      deviceScaleFactor=scale, mobile=False)

    def scheme(self, name):
        self.devtools("Emulation.setEmulatedMedia",
                      features=[{"name": "prefers-color-scheme", "value": name}])

    def complaints(self):
        """What the console has to say since it was asked last."""
        return [entry["message"] for entry in self._call("POST", "/se/log", {"type": "browser"})]

    def picture(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self._call("GET", "/screenshot")))

    def close(self):
        try:
            if self.session:
                self._call("DELETE", "")
        except Exception:  # pylint: disable=broad-except
            pass  # it is ended below
        try:
            os.killpg(self.driver.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.driver.wait()
        self.driver.stdout.close()
        for _ in range(20):  # a process that is about to end may still write there
            shutil.rmtree(self.profile, ignore_errors=True)
            if not os.path.exists(self.profile):
                break
            time.sleep(0.1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
