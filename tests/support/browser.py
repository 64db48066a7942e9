"""A real browser for tests: Chromium without a window, on a host of the network.

It is driven by WebDriver (https://www.w3.org/TR/webdriver2/) and, where that has no words, by the
DevTools protocol that Chromium's driver passes on."""

import base64
import http.client
import json
import re
import shutil
import subprocess
import tempfile
import time

from support.closing import Closing

PROGRAMS = ("chromium", "chromedriver")
TAB, ENTER, SPACE = "\ue004", "\ue007", "\ue00d"
ANSWER_LIMIT = 60.0  # s

_ARGUMENTS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
              "--disable-background-networking", "--disable-component-update", "--no-first-run",
              "--hide-scrollbars"]
_BLOCKED = 2  # the content setting


def missing_programs():
    """Those of the browser's programs that this machine lacks."""
    return [program for program in PROGRAMS if shutil.which(program) is None]


class BrowserError(Exception):
    """The browser refused a command."""


class Browser(Closing):
    """A browser in the namespace, with an empty profile of its own."""

    def __init__(self, namespace, scripts=True):
        self._namespace = namespace
        self._session = None
        self._driver = None
        self._connection = None
        self._profile = tempfile.mkdtemp(prefix="palinode-browser-")
        try:
            self._start(scripts)
        except BaseException:
            self.close()
            raise

    def _start(self, scripts):
        self._driver = self._namespace.popen(
            "chromedriver", "--port=0", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True)
        said = ""
        for line in self._driver.stdout:
            said += line
            found = re.search(r"started successfully on port (\d+)", line)
            if found:
                break
        else:
            raise BrowserError(f"chromedriver ended: {said}")
        with self._namespace.entered():
            self._connection = http.client.HTTPConnection("127.0.0.1", int(found.group(1)),
                                                          timeout=ANSWER_LIMIT)
            self._connection.connect()
        options = {"args": [*_ARGUMENTS, f"--user-data-dir={self._profile}"]}
        if not scripts:
            options["prefs"] = {"profile.managed_default_content_settings.javascript": _BLOCKED}
        begun = self._ask("POST", "/session", {"capabilities": {"alwaysMatch": {
            "browserName": "chrome", "goog:chromeOptions": options}}})
        self._session = begun["sessionId"]

    def _ask(self, method, path, content=None):
        body = None if content is None else json.dumps(content)
        self._connection.request(method, path, body, {"Content-Type": "application/json"})
        value = json.loads(self._connection.getresponse().read())["value"]
        if isinstance(value, dict) and "error" in value:
            raise BrowserError(f"{value['error']}: {value['message']}")
        return value

    def _command(self, method, path, content=None):
        return self._ask(method, f"/session/{self._session}{path}", content)

    def open(self, url):
        """Loads the page; returns when it is complete."""
        self._command("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        """Runs a function body in the page, with `arguments`; returns what it returns."""
        return self._command("POST", "/execute/sync", {"script": script, "args": arguments})

    def run_to_its_end(self, script, *arguments):
        """The same for a script that calls its last argument with the result when it is done."""
        return self._command("POST", "/execute/async", {"script": script, "args": arguments})

    def press(self, *keys):
        """Presses and releases the keys, one after the other."""
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self._command("POST", "/actions", {"actions": [
            {"type": "key", "id": "keyboard", "actions": actions}]})

    def devtools(self, command, **parameters):
        """A command of the DevTools protocol."""
        return self._command("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def show_as(self, width, height, phone=False, dark=False):
        """The size of the screen in CSS pixels, and the colour scheme that the user prefers."""
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height,
                      deviceScaleFactor=2 if phone else 1, mobile=phone)
        self.devtools("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def text(self, selector="body"):
        """The text that is to be seen in the first element that the CSS selector matches."""
        return self.run("const e = document.querySelector(arguments[0]);"
                        "return e ? e.innerText : null;", selector)

    def save_picture(self, path):
        """Writes what the window shows as a PNG file."""
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(base64.b64decode(self._command("GET", "/screenshot")))

    def close(self):
        if self._session:
            self._command("DELETE", "")
            self._session = None
        if self._connection:
            self._connection.close()
        if self._driver:
            self._driver.kill()
            self._driver.wait()
            self._driver.stdout.close()
            self._driver = None
        self._remove_profile()

    # The browser's last processes may still write into it.
    def _remove_profile(self):
        for _ in range(50):
            shutil.rmtree(self._profile, ignore_errors=True)
            try:
                shutil.rmtree(self._profile)
            except FileNotFoundError:
                return
            except OSError:
                time.sleep(0.1)
