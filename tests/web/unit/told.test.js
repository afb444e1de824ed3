import assert from "node:assert/strict";
import { readdirSync, readFileSync } from "node:fs";
import { afterEach, beforeEach, test } from "node:test";
import { fakeCockpit, table, WEB } from "./fake_cockpit.js";
import { THOROUGH } from "../../../web/model.js";
import * as told from "../../../web/told.js";
import { adds, askedFor, complaints, PROBLEM_FILES, remedies, sentences, settingFaults, SYSTEM_WORDS, toForm } from "./sources.js";

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
    assert.deepEqual([...new Set(PROBLEMS.match(/\bproblem_add\w*/g))].sort(), ["problem_add", "problem_add_texts"]); // as `adds` knows them
    for (const { id, format } of all) {
        assert.match(format.replaceAll(/%s|%d|%zu/g, ""), /^[^%]*$/, `${id}: write_argument knows no other conversion`);
        const pieces = told.problem(problem(toForm(format), "A", "B", "C"));
        assert.notEqual(pieces[0].lang, "en", `${id}: ${toForm(format)}`);
    }
    const same = remedies(PROBLEMS).filter(remedy => told.remedyOf({ remedy }) === remedy);
    const programs = "systemctl|mount|apt-get|cp|vyhotplug-prepare|vynas-samba-setup|chown|sysctl|less|vyhotplugctl";
    const command = new RegExp(`^(${programs})( [a-z0-9,=/.:$-]+| &&| share=NAME)*$`);
    assert.deepEqual(same.filter(remedy => !command.test(remedy)), []);
    const typed = /^[a-z0-9.-]+( [a-z0-9:=,/.$-]+| -[a-z]+| USER| share=NAME| &&)*$/;
    const prose = new Set(sentences(PROBLEMS));
    assert.ok(prose.size > 8, String(prose.size));
    assert.deepEqual([...prose].filter(remedy => same.includes(remedy)), []);
    assert.deepEqual(remedies(PROBLEMS).filter(remedy => !prose.has(remedy) && !typed.test(remedy)), []);
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

/** A text of the page's with places as those of vyhotplugctl's sources. */
function placed(form) {
    return form.replaceAll(/\$\d/g, "%s");
}

test("every refusal that a call of the page can meet is known", () => {
    // What asks only, what the page does not call, and what prints for all.
    const others = ["call_check", "call_edit", "call_status", "call_users", "call_watch", "edit_text", "program", "progress", "terminal"];
    const names = readdirSync(new URL("../companions/ctl/", WEB)).filter(name => name.endsWith(".cpp"));
    const all = names.filter(name => !others.includes(name.slice(0, -4)) && name !== "other_use.cpp")
        .flatMap(name => complaints(source(`companions/ctl/${name}`)));
    // What is a word and an errno, what is no sentence, and whom the page shows as a list.
    const wanted = all.filter(({ text }) => !/^(%s|%s: %s|note: .*|  .*|%s is busy:)$/.test(text))
        .map(one => ({ ...one, text: one.text.replace(/(?<=[a-z])%s$/, "") })); // of a null text
    const texts = wanted.map(one => one.text);
    assert.ok(new Set(texts).size > 20, String(texts.length));

    const never = ["no such setting: %s\\nThere are:", "%s: unset takes the name alone", "%s: give a value: KEY=VALUE", "%s fits %s:",
        "interrupted; the service has not been seen to take the change", "another vyhotplugctl holds %s"]; // of edit alone
    const forms = [...told.refusals.map(placed), ...told.faults.map(form => `%s: ${placed(form)}`)];
    const statuses = { EXIT_NO_SERVICE: 3, EXIT_NO_DISK: 5 };
    const unread = "%s could not be unmounted; nobody was seen to hold it"; // the page has a sentence of its own for it
    assert.match(source("companions/ctl/call_mount.cpp"), new RegExp(`if \\(status == EXIT_BUSY [^;{]*text_print\\(stderr, "${unread}`));
    for (const { text, status } of wanted.filter(one => ![unread, ...never, ...forms].includes(one.text))) {
        assert.ok(status in statuses, text); // which says as much
        const message = `vyhotplugctl: ${text.replaceAll("%s", "sda1")}\n`;
        assert.doesNotMatch(shown(told.failure({ verb: "mount", status: statuses[status], message })), /\[|%|sda1/, text);
    }
    assert.deepEqual([...told.refusals.map(placed), ...never, unread].filter(form => !texts.includes(form)), []);

    const faults = settingFaults(source("companions/ctl/settings.cpp")).filter(fault => fault !== "%s%s");
    const nobodys = ["must begin with /", "no such group: %s", "nobody is in the group: %s", "nobody has the number %s", "is yes or no",
        "is full, read-only, block or hide"];
    assert.ok(faults.length > 12, String(faults.length));
    assert.deepEqual(faults.filter(fault => !nobodys.includes(fault) && !told.faults.map(placed).includes(fault)), []);
    const used = [...faults, ...texts.map(text => text.replace(/^%s: /, ""))];
    assert.deepEqual([...told.faults.map(placed), ...nobodys].filter(fault => !used.includes(fault)), []);
});

test("the sentences of a source are found, whatever prints them", () => {
    const texts = words => complaints(words).map(one => one.text);
    assert.deepEqual(complaints('    complain("one %.200s "\n             "and %u", name, count); // "none"\n    return EXIT_FAILED;\n'),
        [{ text: "one %s and %s", status: "EXIT_FAILED" }]);
    assert.deepEqual(texts('complain("%s%s: %s", a == A::b ? "x: " : c(d, ")") ? "" : "y: ", what, "it");'), ["x: %s: it", "%s: it", "y: %s: it"]);
    assert.deepEqual(texts('*status = complain_errno(work->a ? "perhaps" : path, -1); (void)complain_errno(nullptr, ENOMEM);'),
        ["perhaps: %s", "%s: %s", "%s"]);
    assert.deepEqual(texts('text_print(stderr, "%-16s stays, \\"%d\\"\\n", name, 1); text_print(args.out.out, "is told\\n");'),
        ['%s stays, \\"%s\\"']);
    assert.deepEqual(settingFaults('return fail(value,\n "is odd: ", name); return fail(value, "is even", "");'), ["is odd: %s", "is even"]);
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

test("what a disk is in use for besides is known, in the words of vyhotplugctl", () => {
    const words = source("companions/ctl/other_use.cpp");
    const pieces = [...[...words.matchAll(/\btell\(\w+(?:\.\w+)?,\s*"([^"]+)"/g)].map(match => ` ${match[1]}`),
        ...complaints(words).map(one => one.text)].filter(text => /[a-z]/.test(text.replaceAll("%s", "")));
    const forms = [...told.uses, ...told.owners, ...told.unseen].map(placed);
    assert.equal(pieces.length, forms.length);
    for (const piece of pieces)
        assert.ok(forms.some(form => form.endsWith(piece)), piece);
    const message = "sda2 is mounted elsewhere, by somebody else: /srv/it stays mounted\nsda3 is a swap area in use\nsda1 is busy:\n";
    assert.deepEqual(told.usesIn(message).map(shown), [
        "sda2 ist noch anderswo eingehängt, von jemand anderem: /srv/it stays mounted", "sda3 ist ein Auslagerungsbereich in Benutzung."]);
    assert.deepEqual(told.usesIn("sda1 is busy:\n"), []);
});

test("what a container has mounted is known, and that it cannot be seen", () => {
    const say = message => told.usesIn(message).map(shown);
    const message = "sda2 is mounted elsewhere, by somebody else: /tmp/volume of process 12 (sh (x))\nsda stays mounted\n";
    assert.deepEqual(say(message), ["sda2 ist noch anderswo eingehängt, von jemand anderem: /tmp/volume von Prozess 12 (sh (x))"]);
    const unseen = "vyhotplugctl: what else uses it cannot be seen: ";
    assert.deepEqual(say(`${unseen}Cannot allocate memory\n`), ["Was es sonst benutzt, ist nicht zu sehen: Kein Speicher mehr"]);
    assert.deepEqual(say(`${unseen}Too many open files\n`), ["Was es sonst benutzt, ist nicht zu sehen: [en: Too many open files]"]);
    fakeCockpit();
    assert.deepEqual(say(message), [message.split("\n")[0]]);
    assert.deepEqual(say(`${unseen}Cannot allocate memory\n`), ["what else uses it cannot be seen: Cannot allocate memory"]);
});

test("what `check` asks programs for is known", () => {
    assert.deepEqual(askedFor(PROBLEMS).filter(id => adds(PROBLEMS).some(one => one.id === id)), THOROUGH);
});

test("the words of the system that are translated are English ones", () => {
    for (const word of SYSTEM_WORDS)
        assert.ok(german[word], word);
});
