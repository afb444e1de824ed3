"""What the tests of the page in Cockpit share: the real service with agent, bridge and command in a private world, a
real Cockpit on its loopback, and a real browser."""

import base64
import contextlib
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import threading
import time

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(FOLDER))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))
import agent_world  # noqa: E402
import samba_world  # noqa: E402
import vyworld  # noqa: E402
from selenium import webdriver  # noqa: E402
from selenium.common.exceptions import StaleElementReferenceException, WebDriverException  # noqa: E402
from selenium.webdriver.chrome.service import Service  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

LIMIT = int(os.environ.get("VY_WEB_LIMIT", "120"))  # seconds, for what takes one or two where nothing else runs
PORT = 9990
BRIDGE = "/usr/bin/cockpit-bridge"
WEB_SERVICE = "/usr/lib/cockpit/cockpit-ws"
BROWSER = "/usr/lib/chromium/chromium"
DRIVER = "/usr/bin/chromedriver"
DATA = "/tmp/share"
HOME = "/tmp/home"
LOGS = os.environ.get("VY_WEB_LOGS", "/tmp")  # for a picture of the end of each test
PICTURES = os.environ.get("VY_PICTURES", "")
AXE = os.path.join(ROOT, "build", "web", "node_modules", "axe-core", "axe.min.js")
FONTS = """<?xml version="1.0"?><!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig><dir>/usr/share/fonts</dir><cachedir>/tmp/fonts</cachedir>
<alias><family>monospace</family><prefer><family>DejaVu Sans Mono</family></prefer></alias></fontconfig>
"""

STICK = {"idVendor": "1234", "idProduct": "00ab", "serial": "ABC", "manufacturer": "Acme",
         "product": "FlashKey", "speed": "480"}


def environment():
    return {"PATH": vyworld.PATH, "HOME": HOME, "XDG_DATA_DIRS": f"{DATA}:/usr/share", "XDG_RUNTIME_DIR": HOME,
            "LANG": "C.UTF-8", "FONTCONFIG_FILE": "/tmp/fonts.conf", "TZ": "UTC"}


class WebTest(samba_world.SambaTest):
    """The service runs, the agent tells it of disks, and Cockpit shows the page. Nothing is plugged."""

    def setUp(self):
        with open("/etc/passwd", "r+", encoding="utf-8") as file:  # this machine's own people are no business of the page's
            system = [line for line in file if not 1000 <= int(line.split(":")[2]) < 60000]
            file.seek(0)
            file.writelines(system)
            file.truncate()
        super().setUp()
        self.disks = {}
        self.make_machine()
        self.start_daemon(settled=False)
        self.start_bridge()
        self.start_agent()
        self.start_cockpit(self.make_session())

    # ---- the machine ----

    def make_machine(self):
        for program in ("vyhotplug-agent", "vyhotplugctl"):
            shutil.copy(os.path.join(os.environ["VY_BIN"], program), vyworld.PROGRAMS)
        vyworld.run("mount", "-t", "tmpfs", "none", "/sys")
        self.sysfs = agent_world.FakeSysfs("/sys")
        os.makedirs("/run/vyhotplugd")
        for name in (HOME, "/tmp/fonts", DATA + "/cockpit"):
            os.makedirs(name)
        vyworld.write("/tmp/fonts.conf", FONTS)
        os.symlink(os.path.join(ROOT, "web"), DATA + "/cockpit/vyhotplug")
        self.over = threading.Event()
        layer = threading.Thread(target=self._lay_nodes)
        layer.start()
        self.addCleanup(layer.join)
        self.addCleanup(self.over.set)

    def _lay_nodes(self):
        """The service takes a disk's node away when it unmounts; here it comes again while the disk is plugged."""
        while not self.over.wait(0.01):
            for partition in [one for disk in list(self.disks.values()) for one in disk]:
                with contextlib.suppress(FileExistsError):
                    partition.lay_node()

    def start_agent(self):
        command = [vyworld.PROGRAMS + "/vyhotplug-agent", "--monitor", "--mounts", vyworld.MOUNT_DIR,
                   "--config", vyworld.CONFIG]
        self.agent = subprocess.Popen(command, stdin=subprocess.DEVNULL, env=vyworld.environment())
        self.addCleanup(self.agent.wait)
        self.addCleanup(self.agent.terminate)
        self.wait_until("the agent handles signals", self._agent_is_ready)

    def _agent_is_ready(self):
        status = vyworld.read(f"/proc/{self.agent.pid}/status")
        blocked = int(status.split("SigBlk:")[1].split()[0], 16)
        return "vyhotplug-agent" in status and blocked >> (signal.SIGTERM - 1) & 1

    def plug(self, disk, parts=None, usb=None, files=None):
        """Plugs a disk: its partitions' filesystems by number."""
        parts = {1: "ext4"} if parts is None else parts
        usb = {**STICK, "serial": disk.upper(), **(usb or {})}
        made = []
        for number, filesystem in parts.items():
            partition = vyworld.Partition(f"{disk}{number}", SID=usb["serial"])
            image = f"/tmp/{partition.name}.image"
            with contextlib.suppress(FileNotFoundError):
                os.unlink(image)
            vyworld.make_image(image, filesystem, files or {"who": f"this is {partition.name}\n"})
            partition.loop = vyworld.LoopDevice(image)
            self.addCleanup(partition.loop.release)
            made.append(partition)
        for partition in made:
            partition.lay_node()
            os.mknod(f"/dev/{partition.name}", stat.S_IFBLK | 0o600, partition.loop.device)  # where the agent looks
        self.disks[disk] = made
        self.sysfs.add_stick(disk, parts=tuple(parts), usb=usb)
        os.kill(self.agent.pid, signal.SIGHUP)
        return made

    def pull(self, disk):
        for partition in self.disks.pop(disk):
            partition.loop.release()
            os.unlink(f"/dev/{partition.name}")
        self.sysfs.remove(disk)
        os.kill(self.agent.pid, signal.SIGHUP)

    def wait_for_mount(self, *names):
        self.wait_until(f"{names} mounted", lambda: set(names) <= set(vyworld.mounted_names()))

    # ---- Cockpit ----

    def make_session(self):
        """What Cockpit starts for who logs in: root here."""
        return BRIDGE

    def start_cockpit(self, bridge):
        with open("/tmp/cockpit.log", "wb") as log:
            process = subprocess.Popen(
                [WEB_SERVICE, "--no-tls", f"--local-session={bridge}", "-a", "127.0.0.1", "-p", str(PORT)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment())
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        self.wait_until("Cockpit listens", self._listens)

    @staticmethod
    def _listens():
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", PORT), 5):
            return True
        return False

    # ---- the browser ----

    def open_page(self, **options):
        page = Page(self, **options)
        self.addCleanup(page.close)
        return page


class Page:
    """The page in a browser of its own."""

    def __init__(self, test, width=1200, height=900, language="en", dark=False):
        self.test = test
        options = webdriver.ChromeOptions()
        options.binary_location = BROWSER
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
        if dark:
            self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                "features": [{"name": "prefers-color-scheme", "value": "dark"}]})
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

    def choose(self, label, word):
        for option in self.field(label).find_elements(By.TAG_NAME, "option"):
            if option.text == word:
                option.click()

    def said(self):
        """What the browser complained of: errors and breaches of the content security policy."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] in ("SEVERE", "WARNING") and "favicon" not in entry["message"]]

    def picture(self, name):
        """For docs/web.md, where they are asked for."""
        if PICTURES:
            self.save_picture(os.path.join(PICTURES, name + ".png"))

    def save_picture(self, path):
        width, height = self.driver.execute_script(
            "return [document.documentElement.clientWidth, document.documentElement.scrollHeight]")
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


def pause(seconds):
    """Only where nothing is to happen meanwhile."""
    time.sleep(seconds)
