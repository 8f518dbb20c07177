"""A headless Chromium, driven through chromedriver (W3C WebDriver over HTTP)."""
import base64
import json
import subprocess
import time
import urllib.request


class Browser:
    """One window; a context manager that ends the browser.

    `errors()` has what the page's console said: refused by its content policy, thrown, not found.
    """

    def __init__(self, width=1280, height=900):
        self._driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True)
        self._address = None
        for line in self._driver.stdout:
            if "on port" in line and "successfully" in line:
                port = int("".join(c for c in line.rpartition("port")[2] if c.isdigit()))
                self._address = f"http://127.0.0.1:{port}/session"
                break
        assert self._address, "chromedriver did not start"
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--hide-scrollbars", f"--window-size={width},{height}"]
        options = {"goog:chromeOptions": {"args": arguments}, "goog:loggingPrefs": {"browser": "ALL"}}
        answer = self._send("POST", "", {"capabilities": {"alwaysMatch": options}})
        self._address += "/" + answer["sessionId"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._send("DELETE", "")
        finally:
            self._driver.terminate()
            self._driver.wait()

    def _send(self, method, path, body=None):
        data = None if method != "POST" else json.dumps(body or {}).encode()
        request = urllib.request.Request(self._address + path, data, {"Content-Type": "application/json"},
                                         method=method)
        try:
            with urllib.request.urlopen(request, timeout=120) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def open(self, url):
        self._send("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        """The value of `return ...` in a script; `arguments` are its arguments."""
        return self._send("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def wait(self, script, *arguments, seconds=20):
        """Waits until a script returns something that is true, and returns that."""
        end = time.monotonic() + seconds
        while not (value := self.run(script, *arguments)):
            assert time.monotonic() < end, f"not within {seconds} s: {script}"
            time.sleep(0.1)
        return value

    def devtools(self, command, **parameters):
        return self._send("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def look(self, width=1280, height=900, dark=False, phone=False):
        """Size and kind of the screen, colours that the user prefers."""
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height,
                      deviceScaleFactor=2 if phone else 1, mobile=phone)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.devtools("Emulation.setEmulatedMedia", features=[scheme])

    def screenshot(self, path, whole=False):
        picture = self.devtools("Page.captureScreenshot", captureBeyondViewport=whole)["data"]
        path.write_bytes(base64.b64decode(picture))

    def spoken(self):
        """(role, name) of what a screen reader meets, in its order."""
        nodes = self.devtools("Accessibility.getFullAXTree")["nodes"]
        return [(node["role"]["value"], node.get("name", {}).get("value", ""))
                for node in nodes if not node["ignored"]]

    def errors(self):
        return [entry["message"] for entry in self._send("POST", "/se/log", {"type": "browser"})]
