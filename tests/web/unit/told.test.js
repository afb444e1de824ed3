import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { afterEach, beforeEach, test } from "node:test";
import { fakeCockpit, table, WEB } from "./fake_cockpit.js";
import { QUICK } from "../../../web/model.js";
import * as told from "../../../web/told.js";
import { adds, PROBLEM_FILES, quickIds, remedies, SYSTEM_WORDS, toForm } from "./sources.js";

const source = path => readFileSync(new URL(`../${path}`, WEB), "utf8");
const PROBLEMS = PROBLEM_FILES.map(source).join("");
const german = table("po.de.js");

beforeEach(() => fakeCockpit(german));
afterEach(() => fakeCockpit());

/** What is said, with the pieces that stayed English in brackets. */
function shown(pieces) {
    return pieces.map(({ text, lang }) => lang === null ? text : `[${lang}: ${text}]`).join("");
}

function problem(form, ...named) {
    return { id: "x", severity: "problem", remedy: "", form, arguments: named, text: form };
}

test("every problem that there is has its German, and so has what to do", () => {
    const all = adds(PROBLEMS);
    assert.ok(all.length > 25 && new Set(all.map(one => one.id)).size > 20, String(all.length));
    for (const { id, format } of all) {
        assert.match(format.replaceAll(/%s|%d|%zu/g, ""), /^[^%]*$/, `${id}: write_argument knows no other conversion`);
        const pieces = told.problem(problem(toForm(format), "A", "B", "C"));
        assert.notEqual(pieces[0].lang, "en", `${id}: ${toForm(format)}`);
    }
    const same = remedies(PROBLEMS).filter(remedy => told.remedyOf({ remedy }) === remedy);
    const command = /^(systemctl|mount|apt-get|cp|vyhotplug-prepare|vynas-samba-setup)( [a-z0-9,=/.-]+)*$/;
    assert.deepEqual(same.filter(remedy => !command.test(remedy)), []);
});

test("a problem of a kind that is not known is told as it is, and marked as English", () => {
    const unknown = { id: "new", severity: "note", remedy: "do it", form: "$0 is new", arguments: ["x"], text: "x is new" };
    assert.equal(shown(told.problem(unknown)), "[en: x is new]");
    fakeCockpit();
    assert.equal(shown(told.problem({ ...unknown, form: "all is new", text: "all is new" })), "All is new");
});

test("problems with what they name", () => {
    assert.equal(shown(told.problem(problem("$0 $1: $2", "mountpath", "/tmp/$0", "No such file or directory"))),
        "mountpath /tmp/$0: Datei oder Verzeichnis nicht gefunden");
    assert.equal(shown(told.problem(problem("$0 is not mounted: $1", "sda1", "holds exfat, but the kernel refused it; type: fsck.exfat /dev/sda1"))),
        "sda1 ist nicht eingehängt: Es enthält exfat, aber der Kernel hat es abgelehnt. Einzugeben: fsck.exfat /dev/sda1");
    assert.equal(shown(told.problem(problem("$0 is not mounted: $1", "sda1", "does something new"))),
        "sda1 ist nicht eingehängt: [en: does something new]");
    assert.equal(shown(told.problem(problem("$0:$1: $2", "/etc/x", "7", "mountfs: ntsf is no word for it, write ntfs; it is passed over"))),
        "/etc/x:7: mountfs: ntsf ist kein Wort dafür, zu schreiben: ntfs; das wird übergangen");
    assert.equal(shown(told.problem(problem("$0:$1: $2", "/d", "1", "[1:2:S:1] fullaccessusers: anna is no user id, write 1000 for anna; it is passed over"))),
        "/d:1: [1:2:S:1] fullaccessusers: anna ist keine Benutzernummer, zu schreiben: 1000 für anna; das wird übergangen");
});

test("a name that looks like an error is a name", () => {
    assert.match(shown(told.problem(problem("$0 and $1 are both called $2: only one is shared", "a", "b", "Permission denied"))), /Permission denied/);
});

test("all that is said of lines in files is known", () => {
    const finding = source("companions/common/finding.cpp");
    const says = [...finding.matchAll(/return "((?:is|stands|does) [^"]+)"/g)].map(match => match[1]).filter(one => one !== "is wrong");
    assert.deepEqual([...told.mistakes].sort(), [...says].sort());
    const prose = ["config", "settings"].flatMap(name => [...source(`companions/common/${name}_check.cpp`)
        .matchAll(/"((?:%?[a-z0-9']+ )+(?:to |for |behind |with )?[%a-z0-9,' ]+)"/g)].map(match => match[1]));
    assert.ok(prose.length >= 10, String(prose.length));
    for (const value of prose.filter(one => !/^(deffs|enable|hide)/.test(one)))
        assert.notEqual(shown(told.problem(problem("$0:$1: $2", "f", "1", `key: word is no number, write ${value}; it is passed over`)))
            .includes(`zu schreiben: ${value};`), true, value);
});

test("every reason that the agent has is known", () => {
    const sentence = /"(?:sd|mmc)[a-z0-9]+ ((?:is|has|holds|does|looks|cannot) [^"]*[^" ])"/g;
    const words = ["diagnosis", "lookout"].flatMap(name => [...source(`tests/unit/agent/${name}_test.cpp`).matchAll(sentence)])
        .map(match => match[1].replace(/; to check it:.*/, "").replace(/ \((?:XFS|EXT4|exFAT|BTRFS)$/, ""));
    assert.ok(words.length > 30, String(words.length));
    for (const why of words)
        assert.match(shown(told.reason(why).why), /^(Es|Sie|Das|Im) [^[]*(\[en: .*\])?/, why);
    const literals = [...source("companions/agent/diagnosis.cpp").matchAll(/"([^"\n]*)"/g)].map(match => match[1].replace(/(%s)+$/, "").trim())
        .filter(one => /^(is|has|does|looks|cannot|holds|,) /.test(one));
    const forms = told.reasons.map(form => form.replaceAll(/\$\d|the kernel(?= refused)/g, "%s"));
    assert.ok(literals.length > 20, String(literals.length));
    for (const literal of literals.filter(one => one.length > 2 && !/^is encrypted \(|^is a member of /.test(one)))
        assert.ok(forms.some(form => form.includes(literal.replaceAll("NTFS", "%s"))), literal);
});

test("reasons with what the kernel says, which stays as it is", () => {
    const say = text => shown(told.reason(text).why);
    assert.equal(say("is on the 27th disk: out of range"), "Es ist auf dem 27. Datenträger: mehr, als der Dienst nimmt.");
    assert.equal(say("holds vfat, mounted read-only: FAT-fs (sda1): x"), "Es enthält vfat und ist nur lesbar eingehängt: [en: FAT-fs (sda1): x]");
    assert.equal(say("cannot be read: Input/output error"), "Es kann nicht gelesen werden: Ein-/Ausgabefehler");
    assert.equal(told.reason("is empty: no medium; type: x").remedy, "x");
    fakeCockpit();
    assert.equal(say("holds exfat, but the kernel refused it: Invalid argument"), "It holds exfat, but the kernel refused it: Invalid argument.");
    assert.equal(say("does something new"), "It does something new.");
});

test("every refusal that a call of the page can meet is known", () => {
    const files = ["call_mount", "call_set", "device_file", "requests", "rules", "target"].map(name => source(`companions/ctl/${name}.cpp`)).join("\n");
    const printed = [...files.matchAll(/f(?:puts|printf)\(\s*(?:stderr,\s*)?((?:"(?:[^"\\]|\\.)*"\s*)+)/g)]
        .map(match => [...match[1].matchAll(/"((?:[^"\\]|\\.)*)"/g)].map(part => part[1]).join(""));
    const texts = [...files.matchAll(/\? "(vyhotplugctl: [^"]*)"\s*(?:"([^"]*)")?\s*: "(vyhotplugctl: [^"]*)"\s*"([^"]*)"/g)].flatMap(match => [match[1] + (match[2] ?? ""), match[3] + match[4]]);
    assert.equal(texts.length, 2);
    const wanted = [...printed, ...texts].filter(text => text.startsWith("vyhotplugctl: ") || / (mounted|hold it)\\n$/.test(text))
        .map(text => text.replace(/^vyhotplugctl: /, "").replace("\\n", ""));
    assert.ok(wanted.length > 12, String(wanted.length));
    const forms = [...told.refusals, ...told.faults].map(form => form.replaceAll(/\$\d/g, "%s"));
    const composed = ["%s: %s", "%s%s: ", "no such setting: ", "note: %s: %s has no %s password; %s %s"];
    for (const text of wanted.filter(one => !composed.includes(one)))
        assert.ok(forms.some(form => form.includes(text.replace(/^%s: /, "").replace(/(%s)+$/, ""))), text);
    const faults = [...source("companions/ctl/settings.cpp").matchAll(/fail\(\w+, "([^"]+)"/g)].map(match => match[1].trim());
    const never = ["must begin with /", "no such group:", "nobody has the number", "is yes or no", "is full, read-only, block or hide"];
    assert.ok(faults.length > 8, String(faults.length));
    for (const fault of faults.filter(one => !never.includes(one)))
        assert.ok(forms.some(form => form.startsWith(fault)), fault);
});

test("a failure says what was not done, and why", () => {
    const say = (verb, status, message) => shown(told.failure({ verb, status, message }));
    assert.equal(say("set", 1, "vyhotplugctl: note: full: bert has no Samba password; smbpasswd -a bert\nvyhotplugctl: full: no such user: x\n"),
        "Nichts wurde geändert. Wer darf: Es gibt keinen Benutzer x.");
    assert.equal(say("set", 1, "vyhotplugctl: comment: has 64 bytes, and 63 are kept; this fits: \"a\"\"\n"),
        "Nichts wurde geändert. Kommentar: Es sind 64 Bytes, und 63 werden behalten; so passt es: „a\"“");
    assert.equal(say("set", 3, "vyhotplugctl: the service has ended; the change is in the file, and counts from its next start\n"),
        "Der Dienst ist beendet; die Änderung ist in der Datei und gilt ab seinem nächsten Start.");
    assert.equal(say("set", 1, "vyhotplugctl: the change may be in the file all the same: Input/output error\n"),
        "Die Änderung kann trotzdem in der Datei sein: Ein-/Ausgabefehler");
    assert.equal(say("set", 1, "vyhotplugctl: the change is in the file; the service: Permission denied\n"),
        "Die Änderung ist in der Datei; der Dienst: Zugriff verweigert");
    assert.equal(say("eject", 1, "sda1 is busy:\n  12 root  smbd\nvyhotplugctl: sda is unmounted, but not switched off: Input/output error\n"),
        "Es wurde nicht ausgeworfen: noch nicht abziehen. sda ist ausgehängt, aber nicht ausgeschaltet: Ein-/Ausgabefehler");
    assert.equal(say("mount", 1, "vyhotplugctl: sda1 could not be mounted: is encrypted (LUKS)\n"),
        "Es wurde nicht eingehängt. sda1 konnte nicht eingehängt werden: Es ist verschlüsselt (LUKS).");
    assert.equal(say("set", 1, "vyhotplugctl: /etc/x: Read-only file system\n"), "Nichts wurde geändert. /etc/x: Das Dateisystem ist nur lesbar");
    assert.equal(say("set", null, "Not permitted to perform this action."), "Nichts wurde geändert. Keine Berechtigung.");
    assert.equal(say("set", 1, "something new"), "Nichts wurde geändert. [en: something new]");
    fakeCockpit();
    assert.equal(say("eject", 4, "sda1 is busy:"), "It was not ejected: do not pull it yet. It is busy.");
    assert.equal(say("mount", null, "Not permitted to perform this action."), "It was not mounted. Not permitted to perform this action.");
});

test("what `status` tells of is known to be quick", () => {
    assert.deepEqual([...QUICK].sort(), quickIds(PROBLEMS).sort());
});

test("the words of the system that are translated are English ones", () => {
    for (const word of SYSTEM_WORDS)
        assert.ok(german[word], word);
});
