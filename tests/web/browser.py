"""The page in a real browser, without a window."""

import base64
import contextlib
import os

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from web_world import LIMIT, PORT, ROOT, environment, vyworld

PROGRAM = "/usr/lib/chromium/chromium"
DRIVER = "/usr/bin/chromedriver"
LOGS = os.environ.get("VY_WEB_LOGS", "/tmp")  # for a picture of the end of each test
PICTURES = os.environ.get("VY_PICTURES", "")
AXE = os.path.join(ROOT, "build", "web", "node_modules", "axe-core", "axe.min.js")


class Page:
    """The page in a browser of its own."""

    def __init__(self, test, width=1200, height=900, language="en", dark=False):
        self.test = test
        self.actions = 0  # of the hand: clicks, and fields that are written
        options = webdriver.ChromeOptions()
        options.binary_location = PROGRAM
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--window-size={width},{height}",
                         f"--lang={language}", "--force-device-scale-factor=1", "--disable-extensions",
                         "--disable-background-networking"):
            options.add_argument(argument)
        options.add_experimental_option("prefs", {"intl.accept_languages": language})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        os.environ.update(environment())
        self.driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.driver.set_page_load_timeout(LIMIT)
        self.driver.set_script_timeout(LIMIT)
        # The width of the page itself: a window is not made narrower than some 500 pixels.
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce"}]})
        self.load()

    def load(self):
        self.driver.get(f"http://127.0.0.1:{PORT}/cockpit/@localhost/vyhotplug/index.html")
        self.wait_until("it has looked", lambda: self.driver.execute_script(
            "return document.querySelector('h1') !== null && !document.body.innerText.includes('Looking ...')"))

    def close(self):
        if self.driver is None:
            return
        with contextlib.suppress(WebDriverException):
            self.save_picture(os.path.join(LOGS, self.test.id() + ".png"))
        with contextlib.suppress(WebDriverException):
            self.driver.quit()
        self.driver = None

    def text(self):
        return self.driver.execute_script("return document.getElementById('page').innerText")

    def wait_until(self, what, condition, limit=LIMIT):
        """As the test's own, but elements may go while they are looked at."""
        def look():
            with contextlib.suppress(StaleElementReferenceException):
                return condition()
            return None
        return vyworld.testkit.wait_until(what, look, limit, pause=0.1, tell=lambda: f"; the page says:\n{self.text()}")

    def wait_for(self, *words, gone=()):
        """Waits until all these words are on the page, and those are not."""
        self.wait_until(f"{words} and not {gone}", lambda: all(word in self.text() for word in words)
                        and not any(word in self.text() for word in gone))

    def find(self, *names, tag="button", within="body"):
        """The first element of that kind whose accessible name, or text, begins so; None without one."""
        return self.driver.execute_script("""
            const [names, tag, within] = arguments;
            return [...document.querySelectorAll(`${within} ${tag}`)].find(one => names.some(name =>
                (one.getAttribute("aria-label") ?? one.innerText ?? "").trim().startsWith(name))) ?? null;
        """, names, tag, within)

    def click(self, *names, **where):
        """Waits for it to be there and to be pressed."""
        element = self.wait_until(f"a button {names}", lambda: self._ready(self.find(*names, **where)))
        self.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", element)
        element.click()
        self.actions += 1

    @staticmethod
    def _ready(element):
        return element if element is not None and element.is_enabled() else None

    def field(self, label):
        """The input of a label."""
        return self.wait_until(f"a field {label}", lambda: self.driver.execute_script("""
            const label = [...document.querySelectorAll("label")].find(one => one.innerText.trim().startsWith(arguments[0]));
            return label?.querySelector("input, select") ?? null;""", label))

    def fill(self, label, text):
        element = self.field(label)
        element.clear()
        element.send_keys(text)
        self.actions += 1

    def choose(self, label, word):
        for option in self.field(label).find_elements(By.TAG_NAME, "option"):
            if option.text == word:
                option.click()
                self.actions += 2  # the list is opened, too

    def said(self):
        """What the browser complained of: errors and breaches of the content security policy."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] in ("SEVERE", "WARNING") and "favicon" not in entry["message"]]

    def picture(self, name):
        """For docs/web.md, where they are asked for."""
        if PICTURES:
            self.save_picture(os.path.join(PICTURES, name + ".png"))

    def save_picture(self, path):
        width, height = self.driver.execute_script("return [window.innerWidth, document.documentElement.scrollHeight]")
        clip = {"x": 0, "y": 0, "scale": 1, "width": width, "height": min(height, 2000)}
        shot = self.driver.execute_cdp_cmd("Page.captureScreenshot", {"captureBeyondViewport": True, "clip": clip})
        with open(path, "wb") as file:
            file.write(base64.b64decode(shot["data"]))

    def violations(self):
        """What axe's rules find."""
        self.driver.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})
        self.driver.execute_script(vyworld.read(AXE))
        found = self.driver.execute_async_script("const over = arguments[0]; axe.run().then(over)")
        return [(one["id"], [node["html"] for node in one["nodes"]]) for one in found["violations"]]
