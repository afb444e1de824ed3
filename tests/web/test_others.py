"""The page beside what else happens: others, a service that ends, people without rights, hostile media, many disks."""

import os
import signal
import subprocess
import time

from web_world import DATA, LIMIT, PORT, WebTest, pause, vyworld


class Changes(WebTest):
    """What is set is shown as the service holds it."""

    def setUp(self):
        super().setUp()
        self.disk, = self.plug("sda")
        self.wait_for_mount("sda1")
        self.page = self.open_page()
        self.page.wait_for("Drive(A1)", "Shared")

    def held(self):
        return vyworld.read(vyworld.DEVICE_FILE)

    def test_switches(self):
        for label, line in (("Read-only", "Read Only"), ("Guests may enter", "Guest Access"),
                            ("Hidden from guests", "Guest Hide")):
            box = self.page.field(label)
            self.assertFalse(box.is_selected())
            box.click()
            self.page.wait_until(f"{label} is set", lambda box=box: box.is_selected() and box.is_enabled())
            self.assertIn(f"{line}=Enable\n", self.held())
        self.page.wait_for("Guests may not enter, and do not see it.")
        self.page.click("Forget: ")
        self.page.wait_for("All settings of Drive(A1) go")
        self.page.click("Keep them")
        self.page.wait_for("Read-only", gone=("All settings of",))
        self.page.click("Forget: ")
        self.page.click("Forget all settings")
        self.page.wait_until("nothing is set", lambda: not self.page.field("Read-only").is_selected())
        self.assertNotIn("Enable", self.held())

    def test_what_is_refused_is_told_beside_it_and_what_is_held_is_shown(self):
        self.page.click("Name and comment")
        self.page.fill("Share name", "x" * 35)
        self.page.wait_for("The name is too long")
        self.assertFalse(self.page.find("Save").is_enabled())
        self.page.fill("Share name", "a[b")
        self.page.wait_for("The name holds a bracket")
        self.page.click("Cancel")
        self.page.wait_for("Drive(A1)", gone=("bracket", "Save"))
        # The program that changes things refuses what the page does not know of.
        self.daemon.signal(signal.SIGKILL)
        self.daemon.process.wait()
        self.page.wait_for("The service is not running: nothing is mounted or shared")
        self.page.field("Read-only").click()
        self.page.wait_for("Nothing was changed. The service is not running.")
        self.assertFalse(self.page.field("Read-only").is_selected())
        self.assertEqual(self.page.said(), [])

    def test_unmount_and_mount(self):
        self.page.click("Unmount: ")
        self.page.wait_for("Unmounted")
        self.assertEqual(vyworld.mounts(), [])
        self.page.click("Mount: ")
        self.page.wait_for("Shared", gone=("Unmounted",))
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_busy_and_by_force(self):
        with open(self.disk.directory + "/who", encoding="utf-8"):
            self.page.click("Unmount: ")
            self.page.wait_for("It was not unmounted. It is busy.", "1 process uses it:", self.disk.directory + "/who")
            self.page.click("Leave it mounted")
            self.page.wait_for("Shared", gone=("It is busy",))
            self.page.click("Eject: ")
            self.page.wait_for("It was not ejected: do not pull it yet. It is busy.")
            self.page.click("Take it away by force")
            self.page.wait_for("may be pulled now")
        self.assertEqual(vyworld.mounts(), [])

    def test_what_can_be_switched_off_is(self):
        self.plug("sdb", port=True)
        self.wait_for_mount("sdb1")
        self.page.wait_for("Drive(B1)")
        switches = [self.switch_of("sdb", name) for name in ("delete", "remove")]
        self.page.click("Eject: Acme FlashKey (sdb)")
        self.page.wait_for("Acme FlashKey (sdb) may be pulled now. It is switched off.")
        self.assertEqual([vyworld.read(switch) for switch in switches], ["1", "1"])
        self.page.click("Eject: Acme FlashKey (sda)")
        self.page.wait_for("Acme FlashKey (sda) may be pulled now. It is unmounted; its port stays on.")

    def test_waiting_is_given_up(self):
        with open(self.disk.directory + "/who", encoding="utf-8"):
            self.page.click("Eject: ")
            self.page.click("Eject it when it is free")
            self.page.wait_for("Waiting until nobody uses it")
            self.page.click("Do not wait")
            self.page.wait_for("Shared", gone=("Waiting", "It is busy"))
        pause(3)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_a_disk_that_is_not_plugged_is_edited_and_forgotten(self):
        self.page.click("Name and comment")
        self.page.fill("Share name", "Music")
        self.page.click("Save")
        self.page.wait_for("Music", gone=("Save",))
        self.pull("sda")
        self.page.wait_for("Nothing is plugged", "Music", self.disk.identifier)
        self.page.click("Name and comment")
        self.page.fill("Comment", "in the drawer")
        self.page.click("Save")
        self.page.wait_for("in the drawer", gone=("Save",))
        self.assertIn("Comment=in the drawer\n", self.held())
        self.page.click("Forget: ")
        self.page.click("Forget all settings")
        self.page.wait_for("None has settings.", gone=("Music",))
        self.assertNotIn("Music", self.held())


class Others(WebTest):
    def test_two_browsers(self):
        self.plug("sda")
        first, second = self.open_page(), self.open_page(language="de")
        first.wait_for("Drive(A1)", "Shared")
        second.wait_for("Drive(A1)", "Freigegeben", "Eingesteckte Datenträger")
        second.click("Name und Kommentar")  # is written in while the other one changes it
        second.fill("Kommentar", "aus dem zweiten")
        first.click("Name and comment")
        first.fill("Share name", "Music")
        first.click("Save")
        for page in (first, second):
            page.wait_for("Music")
        self.assertEqual(second.field("Kommentar").get_attribute("value"), "aus dem zweiten")
        second.click("Speichern")  # and leaves the name as the other one has set it
        for page in (first, second):
            page.wait_for("Music", "aus dem zweiten")
        second.wait_for("Music", gone=("Speichern",))
        second.click("Name und Kommentar")
        second.fill("Name der Freigabe", "Musik")
        second.click("Speichern")
        for page in (first, second):
            page.wait_for("Musik", "aus dem zweiten", gone=("Music",))
        first.click("Eject")
        for page, word in ((first, "Unmounted"), (second, "Ausgehängt")):
            page.wait_for(word)
        self.pull("sda")
        first.wait_for("Nothing is plugged")
        second.wait_for("Nichts ist eingesteckt")
        self.assertEqual((first.said(), second.said()), ([], []))

    def test_the_service_ends_and_starts(self):
        self.plug("sda")
        page = self.open_page()
        page.wait_for("Drive(A1)", "Shared")
        self.stop_daemon()
        page.wait_for("The service is not running: nothing is mounted or shared", "The service has ended.",
                      "systemctl start vyhotplugd")
        for mount in vyworld.mounts():  # as is done before each start
            vyworld.libc.umount2(mount.directory.encode(), vyworld.MNT_DETACH)
        self.start_daemon(settled=False)
        page.wait_for("Drive(A1)", "Shared", "The service has started.", gone=("The service is not running",))
        self.assertEqual(page.said(), [])

    def test_the_program_is_replaced(self):
        """As when a newer package is installed: what watches ends, and is started again."""
        page = self.open_page()
        page.wait_for("Nothing is plugged")
        os.rename(vyworld.PROGRAMS + "/vyhotplugctl", "/tmp/ctl")
        vyworld.run("pkill", "-x", "vyhotplugctl")  # in this world
        page.wait_for("Nothing can be told of the disks.")
        os.rename("/tmp/ctl", vyworld.PROGRAMS + "/vyhotplugctl")
        page.wait_for("Nothing is plugged", gone=("Nothing can be told",))
        self.plug("sda")
        page.wait_for("Drive(A1)", "Shared")


class Visitor(WebTest):
    """Who is logged in has no rights, and may get them from Cockpit."""

    def make_session(self):
        with open("/etc/passwd", "a", encoding="utf-8") as file:
            file.write("visitor:x:1234:1234::/tmp/home:/bin/sh\n")
        os.chown("/tmp/home", 1234, 1234)
        vyworld.write("/tmp/session", "#!/bin/sh\nexec setpriv --reuid 1234 --regid 1234 --clear-groups cockpit-bridge \"$@\"\n", 0o755)
        os.makedirs(DATA + "/cockpit/rights")
        vyworld.write(DATA + "/cockpit/rights/manifest.json", """{"version": 0, "bridges": [{"privileged": true,
            "label": "rights", "spawn": ["/tmp/rights", "--reuid", "0", "--regid", "0", "--clear-groups",
            "cockpit-bridge", "--privileged"]}]}""")
        vyworld.run("cp", "/usr/bin/setpriv", "/tmp/rights")
        os.chmod("/tmp/rights", 0o4755)
        return "/tmp/session"

    def superuser(self, page, method, *words):
        answer = page.driver.execute_async_script("""const over = arguments[2];
            cockpit.dbus(null, {bus: "internal"}).call("/superuser", "cockpit.Superuser", arguments[0], arguments[1])
                .then(() => over("done"), error => over(error.message))""", method, words)
        self.assertEqual(answer, "done")

    def test_sees_and_is_offered_nothing_until_rights_are_given(self):
        self.plug("sda")
        page = self.open_page()
        page.wait_for("Drive(A1)", "Shared", "used,", "turn on administrative access")
        for name in ("Eject", "Unmount", "Name and comment", "Who may"):
            self.assertIsNone(page.find(name), name)
        self.assertEqual(page.driver.execute_script("return document.querySelectorAll('input, select').length"), 0)
        self.superuser(page, "Start", "rights")
        page.wait_for("Eject", "Name and comment", gone=("turn on administrative access",))
        page.click("Name and comment")
        page.fill("Share name", "Music")
        page.click("Save")
        page.wait_for("Music", gone=("Save",))
        self.superuser(page, "Stop")
        page.wait_for("Music", "turn on administrative access", gone=("Eject", "Name and comment"))


class German(WebTest):
    def test_all_that_is_said_is_german(self):
        self.plug("sda", {1: "ext4", 2: "empty"})
        self.write_config(mountfs="ext", mountpth="/x")
        page = self.open_page(language="de")

        def english():
            return page.driver.execute_script("return [...document.querySelectorAll('[lang=en]')].map(one => one.innerText)")

        page.wait_for("Drive(A1)", "Freigegeben", f"{vyworld.CONFIG}:6: mountpth ist kein Schlüssel, zu schreiben: mountpath; das wird übergangen",
                      "berichtigen, dann: systemctl restart vyhotplugd", "sda2 ist nicht eingehängt: Es hat kein bekanntes Dateisystem.",
                      "Samba läuft nicht")
        self.assertEqual(english(), [])
        self.daemon.signal(signal.SIGKILL)
        self.daemon.process.wait()
        page.wait_for("Der Dienst läuft nicht: Nichts wird eingehängt oder freigegeben")
        page.field("Nur lesen").click()
        page.wait_for("Nichts wurde geändert. Der Dienst läuft nicht.")
        self.assertEqual(english(), [])
        self.agent.terminate()  # what a newer agent may say
        self.agent.wait()
        vyworld.write("/run/vyhotplugd/not-mounted", "sda2\t8:2\tnew\t-\tsda2 is up to something new\t-\n")
        page.click("Erneut suchen")
        page.wait_for("sda2 ist nicht eingehängt: is up to something new", "5 Hinweise")
        self.assertEqual(set(english()), {"is up to something new"})

    def test_a_disk_that_a_container_has_mounted(self):
        disk, = self.plug("sda")
        self.wait_for_mount("sda1")
        page = self.open_page(language="de")
        page.wait_for("Drive(A1)", "Freigegeben")
        os.mkdir("/tmp/volume")
        script = f"mount --bind {disk.directory} /tmp/volume && echo ready && exec sleep 1000"
        with subprocess.Popen(["unshare", "-m", "--propagation", "private", "sh", "-c", script], stdout=subprocess.PIPE) as process:
            try:
                self.assertEqual(process.stdout.readline(), b"ready\n")
                page.click("Auswerfen: ")
                page.wait_for("Es wurde nicht ausgeworfen: noch nicht abziehen.",
                              f"sda1 ist noch anderswo eingehängt, von jemand anderem: /tmp/volume von Prozess {process.pid} (sleep)")
                self.assertNotIn("Niemand war zu sehen", page.text())
                page.click("Eingehängt lassen")
                page.wait_for("Freigegeben", gone=("noch nicht abziehen",))
            finally:
                process.kill()
        page.click("Auswerfen: ")
        page.wait_for("kann jetzt abgezogen werden")


HOSTILE = "<img src=x onerror=alert(1)><b>\u202e$0'\"&amp;"


class Hostile(WebTest):
    def test_texts_are_texts(self):
        with open("/etc/passwd", "a", encoding="utf-8") as file:
            file.write("<b>eve</b>:x:1500:100:<script>alert(2)</script>:/:/bin/false\n")
        self.plug("sda", usb={"manufacturer": HOSTILE, "product": "<script>alert(3)</script>", "serial": "<i>S</i>"},
                  files={"<u>who": ""})
        page = self.open_page()
        page.wait_for("Drive(A1)", "Shared")
        page.click("Name and comment")
        page.fill("Share name", "<h1 id=own>n</h1>")
        page.fill("Comment", "<img src=y onerror=alert(4)>")
        page.click("Save")
        page.wait_for("<h1 id=own>n</h1>", "<img src=y onerror=alert(4)>", gone=("Save",))
        page.click("Who may")
        page.wait_for("<b>eve</b> (<script>alert(2)</script>)")
        page.click("Cancel")
        with open(self.disks["sda"][0].directory + "/<u>who", encoding="utf-8"):
            page.click("Eject")
            page.wait_for("<u>who")
        self.assertEqual(page.driver.execute_script(
            "return document.querySelectorAll('img, b, i, u, main script, #own').length"), 0)
        self.assertEqual(page.said(), [])  # no breach of the policy was even tried


class Looks(WebTest):
    def show_everything(self, page):
        """Forms, a failure and a problem at once."""
        page.wait_for("Drive(A1)", "Drive(B1)", "Shared")
        page.click("Who may: Drive(A1)")
        page.click("Name and comment: Drive(B1)")
        page.fill("Share name", "a[b")
        page.wait_for("The name holds a bracket")
        with open(self.disks["sda"][0].directory + "/who", encoding="utf-8"):
            page.click("Eject: Acme FlashKey (sda)")
            page.wait_for("It is busy.")

    def plug_two(self):
        film = {"who": "", "film": "x" * 3_000_000}
        self.plug("sda", {1: "ext4", 2: "empty"}, files=film)
        self.plug("sdb", files={"who": ""}, usb={"product": "Portable SSD with a rather long name of its own", "speed": "5000"})

    def test_rules_for_everybody(self):
        """axe's, by day, by night and on a phone, where nothing is wider than it."""
        self.plug_two()
        for options in ({}, {"dark": True}, {"width": 360, "height": 740}):
            with self.subTest(**options):
                page = self.open_page(**options)
                self.show_everything(page)
                self.assertEqual(page.violations(), [])
                self.assertLessEqual(page.driver.execute_script("return document.documentElement.scrollWidth"),
                                     options.get("width", 1200))
                page.close()

    def test_pictures(self):
        self.start_samba()
        self.plug_two()
        for name, options in (("wide", {"width": 960}), ("dark", {"width": 960, "dark": True}),
                              ("phone", {"width": 360, "height": 740})):
            page = self.open_page(**options)
            page.wait_for("Drive(A1)", "Drive(B1)", "Shared", "Not mounted")
            page.picture(name)
            page.close()

    def test_by_keyboard_alone(self):
        self.plug("sda")
        page = self.open_page()
        page.wait_for("Drive(A1)", "Shared")

        def focused():
            return page.driver.switch_to.active_element

        def go_to(words):
            for _ in range(30):
                focused().send_keys("\ue004")  # tab
                if (focused().get_attribute("aria-label") or focused().text).startswith(words):
                    return
            self.fail(f"tab does not lead to {words}")

        def press(words):
            go_to(words)
            focused().send_keys("\ue007")

        press("Name and comment")
        page.wait_until("the field has the focus", lambda: focused().tag_name == "input")
        focused().send_keys("Music\ue007")
        page.wait_for("Music", gone=("Save",))
        page.wait_until("the focus is back", lambda: focused().get_attribute("id").startswith("names-"))
        focused().send_keys("\ue007")
        page.wait_for("Save")
        page.wait_until("the field has the focus", lambda: focused().tag_name == "input")
        focused().send_keys("\ue00c")  # escape
        page.wait_for("Music", gone=("Save",))
        page.wait_until("the focus is back", lambda: focused().get_attribute("id").startswith("names-"))
        press("Unmount: ")  # a button that is disabled meanwhile, and another one after that
        page.wait_for("Unmounted")
        press("Forget: ")
        page.wait_until("the question has the focus", lambda: focused().text == "Forget all settings")
        press("Keep them")
        page.wait_until("the heading of the place has the focus", lambda: (focused().tag_name, focused().text) == ("h3", "Music"))
        press("Eject: ")
        page.wait_for("may be pulled now")
        page.wait_until("the focus is back", lambda: focused().get_attribute("aria-label").startswith("Eject: "))
        page.wait_until("it is told aloud", lambda: "Acme FlashKey (sda) may be pulled now." in
                        page.driver.find_element("id", "told").get_attribute("textContent"))
        self.pull("sda")
        page.wait_for("Nothing is plugged")
        page.wait_until("the heading of the page has the focus", lambda: focused().tag_name == "h1")


class Frame(WebTest):
    """The page within the whole of Cockpit."""

    def test_its_menu_and_its_light(self):
        self.plug("sda")
        page = self.open_page(language="de")
        page.driver.get(f"http://127.0.0.1:{PORT}/vyhotplug")

        def ask(script):
            return page.driver.execute_script(f"""
                const inner = [...document.querySelectorAll("iframe")].map(frame => frame.contentDocument)
                    .find(one => one?.getElementById("page"));
                return {script};""")

        self.wait_until("the page is there", lambda: "Drive(A1)" in (ask("inner?.body.innerText") or ""))
        self.wait_until("the menu has it", lambda: "Eingesteckte Datenträger" in ask("document.querySelector('nav')?.innerText ?? ''"))
        for style in ("dark", "light"):
            ask(f"""(localStorage.setItem("shell:style", "{style}"),
                     document.querySelectorAll("iframe").forEach(frame => frame.contentWindow.dispatchEvent(
                         new CustomEvent("cockpit-style", {{ detail: {{ style: "{style}" }} }}))))""")
            self.wait_until(style, lambda style=style: (style == "dark") == ask("inner.documentElement.classList.contains('dark')"))


class Many(WebTest):
    """27 disks with four partitions each, as the command tells of them, on a machine ten times as slow."""

    def write_shares(self, disks):
        shares = "".join(
            f"[Share {letter}{number}]\nIdentifier=1234:00ab:S{letter}:{number}\nPath={vyworld.MOUNT_DIR}/{letter}{number}\n"
            f"Manufactuare=Acme\nProduct=Key {letter}\nSpeed=480\n" for letter in disks for number in range(1, 5))
        vyworld.write(vyworld.SHARE_FILE + ".new", shares)
        os.rename(vyworld.SHARE_FILE + ".new", vyworld.SHARE_FILE)

    def test_a_slow_machine(self):
        self.daemon.signal(signal.SIGSTOP)  # the share file is written by the test
        letters = [f"sd{chr(ord('a') + at)}" for at in range(26)] + ["sdaa"]
        page = self.open_page()
        page.driver.execute_cdp_cmd("Emulation.setCPUThrottlingRate", {"rate": 10})
        page.driver.execute_script("""
            window.tellings = [];
            const told = document.getElementById("told");
            new MutationObserver(changes => changes.forEach(() => window.tellings.push(told.textContent)))
                .observe(told, {childList: true});""")
        begin = time.monotonic()
        self.write_shares(letters)
        page.wait_until("all cards", lambda: page.driver.execute_script(
            "return [document.querySelectorAll('.cards .card').length, document.querySelectorAll('.cards .part').length]") == [27, 108],
            limit=LIMIT * 2)
        print(f"108 partitions after {time.monotonic() - begin:.1f} s")
        tellings = page.wait_until("it is told aloud", lambda: page.driver.execute_script("return window.tellings"))
        print(f"told aloud: {tellings}")
        self.assertLess(len(tellings), 10, tellings)  # and not 108
        self.write_shares(letters[1:])
        page.wait_until("one card less", lambda: page.driver.execute_script(
            "return document.querySelectorAll('.cards .card').length") == 26, limit=LIMIT * 2)
        self.daemon.signal(signal.SIGCONT)
