"""vyhotplugctl as it is installed: for root, and for everybody."""

import json
import os

from machine import DEVICE_FILE, Machine, Stick

ROOT = ()
EVERYBODY = ("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups")
CHANGES = (("set", "sda1", "comment=x"), ("unset", "sda1", "comment"), ("edit",), ("edit", "sda1"), ("forget", "sda1"),
           ("mount", "sda1"), ("unmount", "sda1"), ("unmount", "--force", "sda1"), ("eject", "sda"))


class Command(Machine):
    """Who may, gets it; who may not is told so in one line; and each status is what the page says."""

    def call(self, who, *words):
        """Its status, and what it told on both streams."""
        return self.run_any(*who, "vyhotplugctl", *words)

    def call_json(self, who, *words):
        """Its status and its answer, which is one line and nothing beside it."""
        status, told = self.call(who, *words, "--json")
        self.assertEqual(told.count("\n"), 1, told)
        answer = json.loads(told)
        self.assertEqual((answer["call"], answer["version"]), (words[0], 1))
        return status, answer

    def test_before_the_service_runs(self):
        self.collect_log()
        for who in (ROOT, EVERYBODY):
            status, answer = self.call_json(who, "status")
            self.assertEqual((status, answer["service_runs"], answer["items"]), (3, False, []))
            self.assertIn("service_not_running", [problem["id"] for problem in answer["problems"]])
            self.assertEqual(self.call(who, "show", "sda1"),
                             (5, "vyhotplugctl: nothing here is called sda1; see: vyhotplugctl status --all\n"))
            status, told = self.call(who, "check")
            self.assertEqual(status, 1)
            self.assertRegex(told, r"(?m)^.*the service is not running\n +(type: )?systemctl start vyhotplugd$")
        self.assertEqual(self.call(ROOT, "unmount", "sda1"), (3, "vyhotplugctl: the service is not running\n"))

    def test_wrong_calls_are_wrong_for_all(self):
        for who in (ROOT, EVERYBODY):
            self.assertEqual(self.call(who, "staus"), (2, "vyhotplugctl: no such call: staus\nTry: vyhotplugctl help\n"))
            self.assertEqual(self.call(who, "show")[0], 2)
            self.assertEqual(self.call(who, "status", "--force")[0], 2)

    def test_what_is_plugged_is_seen_by_all(self):
        self.start_by_init_scripts()
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", "WORK", {"a.txt": "one\n"}))
        self.stick.put_in()
        self.stick.announce()
        self.wait_for_mounts("sda1")
        self.wait_until("it is shared", lambda: self.call_json(ROOT, "status")[1]["items"][0]["state"] == "shared")
        answers = [self.call_json(who, "status") for who in (ROOT, EVERYBODY)]
        for status, answer in answers:
            self.assertEqual((status, answer["service_runs"]), (0, True))
            item, = answer["items"]
            self.assertEqual((item["name"], item["identity"], item["label"], item["filesystem"]),
                             ("sda1", "1234:00ab:STICK1:1", "WORK", "ext4"))
            self.assertIsNotNone(item["settings"])
        self.assertEqual(answers[0][1]["items"], answers[1][1]["items"])

    def test_nobody_has_a_password_until_somebody_has(self):
        def told(call):
            return [problem["id"] for problem in self.call_json(ROOT, call)[1]["problems"]]

        for call in ("status", "check"):
            self.assertIn("samba_no_users", told(call))
        self.add_anna()
        for call in ("status", "check"):
            self.assertNotIn("samba_no_users", told(call))

    def test_everything_about_one(self):
        with open("/media/vyhotplug/sda1/a.txt", "rb"):
            answers = [self.call_json(who, "show", "WORK") for who in (ROOT, EVERYBODY)]
            for status, answer in answers:
                self.assertEqual((status, answer["item"]["directory"]), (0, "/media/vyhotplug/sda1"))
            self.assertEqual(answers[0][1]["item"], answers[1][1]["item"])
            held = [[(holder["pid"], holder["file"]) for holder in answer["holders"]] for _, answer in answers]
            self.assertIn((os.getpid(), "/media/vyhotplug/sda1/a.txt"), held[0])
            self.assertEqual(held[1], [], "who else holds files is for root")
            self.assertEqual(self.call(EVERYBODY, "who", "sda1"),
                             (0, "vyhotplugctl: only root sees who else holds files\nNobody holds sda1.\n"))

    def test_changes_are_roots(self):
        before = self.read(DEVICE_FILE)
        for words in CHANGES:
            self.assertEqual(self.call(EVERYBODY, *words),
                             (1, f"vyhotplugctl: only root can {words[0]}; try: sudo vyhotplugctl {words[0]} ...\n"))
        self.assertEqual(self.read(DEVICE_FILE), before)
        self.assertEqual(self.mounted(), {"sda1"})
        self.assertEqual(self.call(ROOT, "set", "sda1", "comment=x"), (0, "1234:00ab:STICK1:1 is set\n"))
        self.assertIn("\nComment=x\n", self.read(DEVICE_FILE))

    def test_what_is_wrong_is_told_to_all(self):
        found = []
        for who in (ROOT, EVERYBODY):
            status, answer = self.call_json(who, "check")
            wrong = [problem["id"] for problem in answer["problems"] if problem["severity"] == "problem"]
            self.assertEqual(status, 1 if wrong else 0)
            self.assertEqual(self.call(who, "check")[0], status)
            self.assertNotIn("service_not_running", wrong)
            found.append({problem["text"] for problem in answer["problems"]})
        self.assertEqual(found[1] - found[0], set(), "whoever sees less finds nothing that is not there")

    def test_a_device_file_that_is_roots_alone(self):
        os.chmod(DEVICE_FILE, 0o600)
        sentence = f"{DEVICE_FILE} cannot be read: Permission denied"
        status, answer = self.call_json(EVERYBODY, "status")
        self.assertEqual((status, len(answer["items"]), answer["items"][0]["settings"]), (0, 1, None))
        self.assertIn(sentence, [problem["text"] for problem in answer["problems"]])
        status, told = self.call(EVERYBODY, "check")
        self.assertEqual(status, 1)
        self.assertIn(sentence, told)
        self.assertNotIn(sentence, self.call(ROOT, "check")[1])
