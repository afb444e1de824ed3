import assert from "node:assert/strict";
import { readdirSync, readFileSync, statSync } from "node:fs";
import { test } from "node:test";
import { fakeCockpit, table, WEB } from "./fake_cockpit.js";
import { adds, PROBLEM_FILES, remedies, SYSTEM_WORDS, toForm } from "./sources.js";
import * as texts from "../../../web/texts.js";
import * as told from "../../../web/told.js";

fakeCockpit();

const sources = readdirSync(WEB).filter(name => name.endsWith(".js") && !name.startsWith("po."));
const all = sources.map(name => readFileSync(new URL(name, WEB), "utf8")).join("\n");
const said = new Set([
    ...[...all.matchAll(/\b_\("((?:[^"\\]|\\.)*)"\)/g)].map(match => match[1]),
    ...[...all.matchAll(/\bplural\("([^"]*)", "[^"]*"/g)].map(match => match[1]),
]);

test("every text has its German, and no German is left over", () => {
    const german = table("po.de.js");
    const keys = Object.keys(german).filter(key => key !== "");
    const problems = PROBLEM_FILES.map(file => readFileSync(new URL(`../${file}`, WEB), "utf8")).join("");
    const forms = Object.values(told).filter(Array.isArray).flat();
    const others = new Set([...adds(problems).map(one => toForm(one.format)), ...remedies(problems), ...SYSTEM_WORDS]);
    assert.deepEqual([...said, ...forms].filter(text => !keys.includes(text)), []);
    assert.deepEqual(keys.filter(key => !said.has(key) && !forms.includes(key) && !others.has(key)), []);
    assert.ok(said.size > 100 && forms.length > 80, `${said.size} and ${forms.length}`);
});

test("a translation has the places of its original", () => {
    const places = text => [...text.matchAll(/\$\d/g)].map(match => match[0]).sort();
    for (const [text, [, ...forms]] of Object.entries(table("po.de.js")).filter(([key]) => key !== ""))
        for (const form of forms)
            assert.deepEqual(places(form), places(text), text);
});

test("the menu's words are translated", () => {
    const manifest = JSON.parse(readFileSync(new URL("manifest.json", WEB), "utf8"));
    for (const name of ["po.de.js", "po.manifest.de.js"])
        assert.ok(table(name)[manifest.menu.index.label], name);
});

test("nothing is made of markup, and no program is started by a shell", () => {
    for (const word of ["innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "cockpit.script", "cockpit.file",
        "setInterval", "\"sh\""])
        assert.ok(!all.includes(word), word);
    const page = readFileSync(new URL("index.html", WEB), "utf8");
    assert.doesNotMatch(page, /\sstyle=|\son\w+=|<style|<script>/);
});

test("all that is installed is smaller than 100 kB", () => {
    const endings = [...readFileSync(new URL("../packaging/debian/cockpit-vyhotplug.install", WEB), "utf8").matchAll(/^web\/\*?(\S+)/gm)];
    const files = readdirSync(WEB).filter(name => endings.some(([, ending]) => name.endsWith(ending)));
    assert.ok(files.includes("manifest.json") && files.includes("main.js"), files.join());
    const bytes = files.reduce((sum, name) => sum + statSync(new URL(name, WEB)).size, 0);
    assert.ok(bytes < 100_000, String(bytes));
});

test("sizes", () => {
    assert.equal(texts.size(0), "0 B");
    assert.equal(texts.size(999), "999 B");
    assert.equal(texts.size(1000), "1.0 kB");
    assert.equal(texts.size(999_600), "1.0 MB");
    assert.equal(texts.size(8_004_304_896), "8.0 GB");
    assert.equal(texts.size(31_914_983_424), "32 GB");
    assert.equal(texts.size(9_007_199_254_740_991), "9.0 PB");
});

test("numbers and texts of a language", () => {
    fakeCockpit(table("po.de.js"));
    assert.equal(texts.size(1500), "1,5 kB");
    assert.equal(texts.plural("$0 process uses it:", "$0 processes use it:", 2), "2 Programme benutzen es:");
    assert.equal(texts.plural("$0 process uses it:", "$0 processes use it:", 1), "1 Programm benutzt es:");
    fakeCockpit();
});

test("a place that a text has twice or that a name holds is not filled again", () => {
    assert.equal(texts.format("$0 and $1", "$1", "b"), "$1 and b");
});

test("who has no password", () => {
    const user = (samba_password, ksmbd_password) => ({ uid: 1, name: "a", full_name: null, samba_password, ksmbd_password });
    assert.equal(texts.withoutPassword(user(false, null)), "has no Samba password");
    assert.equal(texts.withoutPassword(user(null, false)), "has no ksmbd password");
    for (const known of [user(true), user(null, true), user(null, null), user(null)])
        assert.equal(texts.withoutPassword(known), "");
});

test("who may", () => {
    const settings = {
        share_name: null, comment: null, path: null, read_only: false, guest: false, hide_from_guests: false, sync: false,
        administrator: "full", full_users: [], reading_users: [], blocked_users: [], hidden_users: [],
    };
    assert.equal(texts.access({ settings: null }), "Everybody with a password may read and write.");
    assert.equal(texts.access({ settings: { ...settings, full_users: [{ uid: 1, name: "anna" }], guest: true } }),
        "May read and write: anna. Guests may enter.");
    assert.equal(texts.access({ settings: { ...settings, blocked_users: [{ uid: 1, name: "a" }, { uid: 2, name: "b" }] } }),
        "Everybody with a password may read and write. May not enter: a, b.");
    const listed = { ...settings, full_users: [{ uid: 1, name: "anna" }], reading_users: [{ uid: 2, name: "ben" }] };
    assert.equal(texts.access({ settings: null, read_only: true }), "Everybody with a password may read.");
    assert.equal(texts.access({ settings: listed, read_only: true }), "May read: anna, ben.");
    assert.equal(texts.access({ settings: { ...settings, guest: true, hide_from_guests: true } }),
        "Everybody with a password may read and write. Guests may not enter, and do not see it.");
});
